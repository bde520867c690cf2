#pragma once

#include <cstdint>
#include <string>

// Posts a body over HTTP and waits up to timeout_ms for the response. `header_block`: header lines separated by one
// byte 0xA7. Returns whether the server has accepted it. Any thread.
bool oxEventPlatformHttpPost(const std::string& url, const std::string& header_block, const std::string& body,
                             uint32_t timeout_ms);

// In a process that runs with more privileges than its caller: the environment variable through which the caller would
// control the HTTP client, which must not be started then. Otherwise null. Any thread.
const char* oxEventPlatformHttpSteeringVariable();

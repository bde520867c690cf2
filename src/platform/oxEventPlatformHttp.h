#pragma once

#include <cstdint>
#include <string>

// Posts a body over HTTP and waits up to timeout_ms for the response. `header_block`: header lines separated by one
// byte 0xA7. Returns whether the server has accepted it. *status gets the status code of the response, 0 if there was
// none. Any thread.
bool oxEventPlatformHttpPost(const std::string& url, const std::string& header_block, const std::string& body,
                             uint32_t timeout_ms, int32_t* status);

// In a process that runs with more privileges than its caller: the environment variable through which the caller would
// control the HTTP client, which must not be started then. Otherwise null. Any thread.
const char* oxEventPlatformHttpSteeringVariable();

#pragma once

#include <cstdint>
#include <string>

// Posts a body over HTTP and waits up to timeout_ms for the response. `header_block`: header lines separated by a byte
// 0xA7. Returns whether a response with a 2xx status arrived. *status gets the status code of the response, or 0 if
// there was none. Threads: any.
bool oxEventPlatformHttpPost(const std::string& url, const std::string& header_block, const std::string& body,
                             uint32_t timeout_ms, int32_t* status);

// Returns the name of an environment variable that keeps the HTTP client from starting, or null if there is none. In a
// process with more privileges than its caller, the caller could influence libcurl or OpenSSL with such a variable.
// Threads: any.
const char* oxEventPlatformHttpUnsafeVariable();

// Loads the companion library's HTTP module before the first request: a host may change its root directory or drop
// privileges after it has initialized the library, and the module could then no longer be loaded. Returns why the
// module cannot be loaded, or an empty string. A companion library of the host's own may need no module, so a failure
// is not an error by itself. Threads: any.
std::string oxEventPlatformHttpPrepare();

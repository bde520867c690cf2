#pragma once

#include <cstdint>

// The one function of the HTTP module. Does what oxOSHTTPCommand promises for valid arguments: `response` and `status`,
// if not null, point to null and 0, `url` and `method` are not null, and the timeout is not 0. Never changes:
// after an upgrade, a process that runs with an older liboxutil.so may load this module. Threads: any.
extern "C" __attribute__((visibility("default"))) int32_t oxHTTPModuleCommand(const char* url, const char* method,
                                                                              const char* headers, const char* body,
                                                                              int32_t body_length, char** response,
                                                                              int32_t* status, uint32_t timeout_ms);

// The file that contains the function, beside liboxutil.so. With OXUTIL_STATIC, the function is part of liboxutil.a.
#define OXUTIL_HTTP_MODULE "liboxutil-http.so"

#pragma once

#include <cstdint>

// The only function of the HTTP module: does what oxutil.h says of oxOSHTTPCommand. The caller has checked that `url`
// and `method` are not null, that `body_length` is not negative, nor above 0 if `body` is null, and that the timeout is
// not 0, and has set *response to null and *status to 0 unless these pointers are null. The interface of the module
// never changes: after an upgrade, a process that runs with an older liboxutil.so may load a newer module.
// Threads: any.
extern "C" __attribute__((visibility("default"))) int32_t oxHTTPModuleCommand(const char* url, const char* method,
                                                                              const char* headers, const char* body,
                                                                              int32_t body_length, char** response,
                                                                              int32_t* status, uint32_t timeout_ms);

// The file with this function, installed beside liboxutil.so. With OXUTIL_STATIC, liboxutil.a contains the function.
#define OXUTIL_HTTP_MODULE "liboxutil-http.so"

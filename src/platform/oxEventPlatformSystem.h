#pragma once

#include <cstdint>
#include <string>

// Clocks, thread names and event sources. Threads: any.

// UTC in nanoseconds since 1970-01-01, from oxOSGetTimePTPNano.
uint64_t oxEventPlatformGetPtpNano();

// Milliseconds of a monotonic clock, modulo 2^32.
uint32_t oxEventPlatformGetMs();

// Sets the name of the calling thread, at most 15 bytes. Cannot name another thread: the C library would have to open a
// file for that, which it does without O_CLOEXEC: a concurrent exec would inherit the descriptor.
void oxEventPlatformNameThread(const char* name);

// Always fail, because this platform has no Windows event sources. *error becomes the reason; `error` may be null.
uint32_t oxEventPlatformInstallWindowsEventSource(const char* source_name, const char* message_file,
                                                  std::string* error);
uint32_t oxEventPlatformRemoveWindowsEventSource(const char* source_name, std::string* error);

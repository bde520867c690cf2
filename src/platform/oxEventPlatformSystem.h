#pragma once

#include <cstdint>
#include <string>

// Clocks, thread names and event sources. Threads: any.

// UTC in nanoseconds since 1970-01-01, from oxOSGetTimePTPNano.
uint64_t oxEventPlatformGetPtpNano();

// Milliseconds of a monotonic clock, modulo 2^32.
uint32_t oxEventPlatformGetMs();

// Sets the name of the calling thread, at most 15 bytes. Not offered for other threads: the C library would open a file
// without O_CLOEXEC, which a concurrent exec would inherit.
void oxEventPlatformNameThread(const char* name);

// Always fail, with the reason in *error, which may be null: this platform has no Windows event sources.
uint32_t oxEventPlatformInstallWindowsEventSource(const char* source_name, const char* message_file,
                                                  std::string* error);
uint32_t oxEventPlatformRemoveWindowsEventSource(const char* source_name, std::string* error);

#pragma once

#include <cstdint>
#include <string>

// Clocks, thread names and event sources. Any thread.

// Nanoseconds of the PTP clock since 1970-01-01T00:00:00Z.
uint64_t oxEventPlatformGetPtpNano();

// Milliseconds of a monotonic clock, modulo 2^32.
uint32_t oxEventPlatformGetMs();

// Names the calling thread, with at most 15 bytes. For another thread the C library would open a file without
// O_CLOEXEC, which a concurrent exec would inherit.
void oxEventPlatformNameThread(const char* name);

// Not available on this platform: fail with a reason in *error, which may be null.
uint32_t oxEventPlatformInstallWindowsEventSource(const char* source_name, const char* message_file,
                                                  std::string* error);
uint32_t oxEventPlatformRemoveWindowsEventSource(const char* source_name, std::string* error);

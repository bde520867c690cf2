#pragma once

#include <string>

#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"

// The operating system's log: syslog(3), whose connection and ident belong to the whole process. Threads: any.

struct oxEventNativeLogHandle;

// `error` may be null.
uint32_t oxEventPlatformNativeOpen(const oxEventNativePlatformConfig& config, oxEventNativeLogHandle** handle,
                                   std::string* error);
// `warning` and `warning_text` may be null. *warning is always set to false, because syslog(3) reports no failures.
// *warning_text gets the reason if the function itself fails.
uint32_t oxEventPlatformNativeWrite(oxEventNativeLogHandle* handle, const oxEventNormalizedEvent& event, bool* warning,
                                    std::string* warning_text);
// `handle` may be null.
void oxEventPlatformNativeClose(oxEventNativeLogHandle* handle);

// Called around a fork, in the forking thread. A fork while another thread writes a message leaves the C library's log
// locked in the child, so the first function waits a short time for the message. If that was not enough, every write in
// the child fails.
void oxEventPlatformNativeBeforeFork();
void oxEventPlatformNativeAfterForkInParent();
void oxEventPlatformNativeAfterForkInChild();

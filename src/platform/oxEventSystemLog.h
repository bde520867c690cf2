#pragma once

#include <string>

#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"

// The operating system's log: syslog(3), whose connection and ident belong to the whole process. Any thread.

struct oxEventNativeLogHandle;

// `error` may be null.
uint32_t oxEventPlatformNativeOpen(const oxEventNativePlatformConfig& config, oxEventNativeLogHandle** handle,
                                   std::string* error);
// `warning` and `warning_text` may be null. *warning becomes false: syslog(3) reports nothing back.
uint32_t oxEventPlatformNativeWrite(oxEventNativeLogHandle* handle, const oxEventNormalizedEvent& event, bool* warning,
                                    std::string* warning_text);
// `handle` may be null.
void oxEventPlatformNativeClose(oxEventNativeLogHandle* handle);

// Around a fork, in the forking thread. They keep a log message that another thread is writing from leaving the C
// library's log locked in the child.
void oxEventPlatformNativeBeforeFork();
void oxEventPlatformNativeAfterForkInParent();
void oxEventPlatformNativeAfterForkInChild();

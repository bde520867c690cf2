#pragma once

#include <string>
#include <string_view>

#include "base/oxEventNormalizedEvent.h"

// Formats an event as one message of the system log. The message is meant for humans, so nothing is escaped. `ident`:
// the name under which the message is logged. Overwrites *message; a caller that passes the same string each time saves
// allocations. Threads: any. Throws std::bad_alloc.
void oxEventFormatNativeMessage(const oxEventNormalizedEvent& event, std::string_view ident, std::string* message);

#pragma once

#include <string>
#include <string_view>

#include "base/oxEventNormalizedEvent.h"

// Formats an event as one message of the system log. The message is meant for humans, so nothing is escaped. `ident`:
// the name under which it is logged. *message is overwritten; callers may reuse it. Any thread. Throws std::bad_alloc.
void oxEventFormatNativeMessage(const oxEventNormalizedEvent& event, std::string_view ident, std::string* message);

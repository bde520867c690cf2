#pragma once

#include <string>
#include <string_view>

#include "base/oxEventNormalizedEvent.h"

// Formats an event as one message of the system log. It is meant for people, so nothing is escaped. `ident`: the name
// under which the message is written. *message is cleared first; a caller may reuse it. Any thread. Throws when there
// is no memory.
void oxEventFormatNativeMessage(const oxEventNormalizedEvent& event, std::string_view ident, std::string* message);

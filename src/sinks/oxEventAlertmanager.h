#pragma once

#include <cstdint>
#include <string>

#include "base/oxEventNormalizedEvent.h"
#include "oxEvent.h"
#include "sinks/oxEventText.h"

// Formats an event as an Alertmanager document (API version 2, POST /api/v2/alerts): a list of one alert, or an empty
// list for the end of a condition if config.send_resolved is off. *out is cleared first; a caller may reuse it. `cache`
// may be null. Threads: any. Throws std::bad_alloc.
void oxEventFormatAlertmanagerAlert(const oxEventNormalizedEvent& event,
                                    const oxEventAlertmanagerFormatterConfig& config, std::string* out,
                                    oxEventText::UtcCache* cache = nullptr);

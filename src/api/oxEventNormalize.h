#pragma once

#include <cstdint>

#include "base/oxEventNormalizedEvent.h"

// Validates a host's record and applies all defaults. `assigned_id` is used if the record has no id. The strings of
// *out are not copies, but those of the record or of oxEventDefaults. *out need not be initialized. Threads: any.
// Returns 0, or OXEVENT_INVALID_ARGUMENT with *out unchanged.
uint32_t oxEventNormalizeEvent(const oxEventRecord* record, uint64_t assigned_id, oxEventNormalizedEvent* out);

// The same for the arguments of oxEventSubmitSimple. source_name may be null.
uint32_t oxEventNormalizeSimple(uint64_t event_id, uint32_t severity, const char* source_name, const char* message,
                                oxEventNormalizedEvent* out);

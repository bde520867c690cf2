#pragma once

#include <cstdint>

#include "base/oxEventNormalizedEvent.h"

// Validates a host's record and applies all defaults. `assigned_id` is used if the record has no id. The strings of
// *out are not copies: they are those of the record, or literals. Threads: any. Returns 0, or OXEVENT_INVALID_ARGUMENT
// with *out unchanged.
uint32_t oxEventNormalizeEvent(const oxEventRecord* record, uint64_t assigned_id, oxEventNormalizedEvent* out);

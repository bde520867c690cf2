#pragma once

#include <cstdint>

#include "base/oxEventNormalizedEvent.h"

// Checks a host's record and applies every default. `assigned_id` is used when the record brings no id. The texts of
// *out are the record's, or literals. Any thread. Returns 0, or OXEVENT_INVALID_ARGUMENT with *out untouched.
uint32_t oxEventNormalizeEvent(const oxEventRecord* record, uint64_t assigned_id, oxEventNormalizedEvent* out);

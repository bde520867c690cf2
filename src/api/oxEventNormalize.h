#pragma once

#include <cstdint>

#include "base/oxEventNormalizedEvent.h"

// Checks a host's record and applies every default. `assigned_id` is used when the record brings no id. Any thread.
// Returns 0, or OXEVENT_INVALID_ARGUMENT with *out untouched.

// The view points into the record's texts.
uint32_t oxEventNormalizeView(const oxEventRecord* record, uint64_t assigned_id, oxEventView* out);

// Copies the texts; throws when there is no memory for them.
uint32_t oxEventNormalizeEvent(const oxEventRecord* record, uint64_t assigned_id, oxEventNormalizedEvent* out);

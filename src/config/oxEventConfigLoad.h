#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/oxEventConfig.h"

// Loads *config from the settings file `path`, and adds to the file each missing setting whose default is not empty.
// Returns 0, even if the file cannot be written, or OXEVENT_INVALID_ARGUMENT with the reason in *error; `error` may be
// null. After a failure, the file is unchanged, and *config holds the settings that were read so far. Throws
// std::bad_alloc.
uint32_t oxEventConfigLoad(const char* path, oxEventConfig* config, std::string* error);

// An invalid value, for which oxEventConfigLoad fails.
struct oxEventBadValue {
  std::string key;
  const char* name;
  std::string text;  // The error text.
};

// Like oxEventConfigLoad, but continues after an invalid value and appends it to *bad_values. *error is set only if
// there is no path or the file cannot be read. Adds missing settings to the file and returns 0 even if queue_size or
// drop_policy is invalid, but not if a switch or a severity is.
uint32_t oxEventConfigLoadReportingAll(const char* path, oxEventConfig* config,
                                       std::vector<oxEventBadValue>* bad_values, std::string* error);

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/oxEventConfig.h"

// Fills *config from the settings store in the file `path` and completes the file with the defaults of what is missing.
// Returns 0, or OXEVENT_INVALID_ARGUMENT with the reason in *error (may be null); then the file is as it was, and
// *config holds what was read up to then. Throws when there is no memory.
uint32_t oxEventConfigLoad(const char* path, oxEventConfig* config, std::string* error);

// A value for which a load refuses the file.
struct oxEventBadValue {
  std::string key;
  const char* name;
  std::string text;  // The error.
};

// The same to look through a file whole: goes on after a bad value, and appends each to *bad_values. *error gets only
// the reason for which there are no values at all.
uint32_t oxEventConfigInspect(const char* path, oxEventConfig* config, std::vector<oxEventBadValue>* bad_values,
                              std::string* error);

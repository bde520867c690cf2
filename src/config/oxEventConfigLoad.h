#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/oxEventConfig.h"

// Loads *config from the settings file `path` and adds missing settings to the file with their defaults. Returns 0, or
// OXEVENT_INVALID_ARGUMENT with the reason in *error (may be null); the file is then unchanged, and *config holds what
// was read so far. Throws std::bad_alloc.
uint32_t oxEventConfigLoad(const char* path, oxEventConfig* config, std::string* error);

// An invalid value, for which oxEventConfigLoad refuses the file.
struct oxEventBadValue {
  std::string key;
  const char* name;
  std::string text;  // The error text.
};

// As oxEventConfigLoad, but reports every invalid value: continues after each and appends it to *bad_values. *error is
// set only if the file could not be read at all.
uint32_t oxEventConfigInspect(const char* path, oxEventConfig* config, std::vector<oxEventBadValue>* bad_values,
                              std::string* error);

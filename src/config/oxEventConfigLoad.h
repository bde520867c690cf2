#pragma once

#include <cstdint>
#include <string>

#include "config/oxEventConfig.h"

// Fills *config from the settings store in the file `path` and completes the file with the defaults of what is missing.
// Returns 0, or OXEVENT_INVALID_ARGUMENT with the reason in *error (may be null); then the file is as it was, and
// *config holds what was read up to then. Throws when there is no memory.
uint32_t oxEventConfigLoad(const char* path, oxEventConfig* config, std::string* error);

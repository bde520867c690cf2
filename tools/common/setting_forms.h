#pragma once

#include <string>

#include "config/oxEventSettings.h"

// Describes the values that a setting of this form accepts: "a port, 0 to 65535".
std::string FormOf(oxEventSettingForm form);

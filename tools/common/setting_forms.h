#pragma once

#include <string>

#include "config/oxEventSettings.h"

// What a setting of this form has to be, for people: "a port, 0 to 65535".
std::string FormOf(oxEventSettingForm form);

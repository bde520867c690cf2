#pragma once

#include <string>

#include "config/oxEventSettings.h"

// Describes the values of a form, as in "a port, 0 to 65535".
std::string DescribeForm(oxEventSettingForm form);

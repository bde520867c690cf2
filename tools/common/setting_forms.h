#pragma once

#include <string>

#include "config/oxEventSettings.h"

// Describes the values of a form for a reader: "a port, 0 to 65535".
std::string DescribeForm(oxEventSettingForm form);

// What to do about the library's error texts.
#pragma once

#include <string>
#include <string_view>

// The text, and on the next line its remedy, where the table of errors has one.
std::string WithRemedy(std::string_view text);

// What to do about the library's error texts.
#pragma once

#include <string>
#include <string_view>

// The remedy of the table of errors for a text of the library's; empty: the text is none of its.
std::string_view RemedyFor(std::string_view text);

// The text, and on the next line its remedy, where the table of errors has one.
std::string WithRemedy(std::string_view text);

// Remedies for the library's error texts.
#pragma once

#include <string>
#include <string_view>

// Returns the remedy for an error text of the library; empty if the text is not one.
std::string_view RemedyFor(std::string_view text);

// Returns the text, followed by `reason` in parentheses and, on the next line, by its remedy, if there are any.
std::string WithRemedy(std::string_view text, std::string_view reason = "");

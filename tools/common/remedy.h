// Remedies for the library's error texts.
#pragma once

#include <string>
#include <string_view>

// Returns the remedy for an error text of the library, or an empty string for any other text.
std::string_view RemedyFor(std::string_view text);

// Returns the text, followed in parentheses by `reason`, if `reason` is not empty, and on the next line by the text's
// remedy, if there is one.
std::string WithRemedy(std::string_view text, std::string_view reason = "");

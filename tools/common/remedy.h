// Remedies for the library's error texts.
#pragma once

#include <string>
#include <string_view>

// Returns the remedy for an error text of the library; empty if the text is not one.
std::string_view RemedyFor(std::string_view text);

// Returns the text, followed by its remedy on the next line if there is one.
std::string WithRemedy(std::string_view text);

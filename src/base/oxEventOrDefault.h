#pragma once

#include <string>
#include <string_view>

// Returns a setting or, if it is empty, its default.
inline std::string oxEventOrDefault(std::string_view text, std::string_view default_value) {
  return std::string(text.empty() ? default_value : text);
}

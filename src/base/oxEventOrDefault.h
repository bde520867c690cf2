#pragma once

#include <string>
#include <string_view>

// Replaces an empty setting by its default.
inline std::string oxEventOrDefault(std::string_view text, std::string_view default_value) {
  return std::string(text.empty() ? default_value : text);
}

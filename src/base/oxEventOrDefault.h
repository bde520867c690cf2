#pragma once

#include <string>
#include <string_view>

// An empty setting counts as not given.
inline std::string oxEventOrDefault(std::string_view text, std::string_view absent) {
  return std::string(text.empty() ? absent : text);
}

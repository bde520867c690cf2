#pragma once

#include <string>

// An empty setting counts as not given.
inline const std::string& oxEventOrDefault(const std::string& text, const std::string& absent) {
  return text.empty() ? absent : text;
}

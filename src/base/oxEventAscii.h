#pragma once

#include <string>
#include <string_view>

// ASCII only, independent of the host's locale: bytes from 0x80 on are not letters.
constexpr char oxEventAsciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

inline std::string oxEventAsciiLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = oxEventAsciiLower(c);
  return lower;
}

constexpr char oxEventAsciiUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c; }

constexpr bool oxEventAsciiIsAlnum(char c) {
  const char lower = oxEventAsciiLower(c);
  return (lower >= 'a' && lower <= 'z') || (c >= '0' && c <= '9');
}

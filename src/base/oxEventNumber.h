#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

// Numbers as text, whatever the locale. Any thread.

constexpr size_t kOxEventNumberSize = 32;  // Bytes that every number has room in.

// Write into memory of that size, and return the end.
template <class Integer>
char* oxEventWriteNumber(Integer value, char* at) {
  return std::to_chars(at, at + kOxEventNumberSize, value).ptr;
}
// As printf's %.{significant_digits}g, for 1 to 17 digits; nan, -nan, inf, -inf.
char* oxEventWriteNumber(double value, int significant_digits, char* at);

// The same, appended. They fail only by running out of memory.
template <class... NumberAndDigits>
void oxEventAppendNumber(std::string* out, NumberAndDigits... number_and_digits) {
  char text[kOxEventNumberSize];
  out->append(text, oxEventWriteNumber(number_and_digits..., text));
}

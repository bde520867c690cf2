#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

// Formats numbers, independent of the locale. Any thread.

constexpr size_t kOxEventNumberSize = 32;  // Bytes that suffice for any number.

// Writes to a buffer of kOxEventNumberSize bytes, without a terminating NUL. Returns the end.
template <class Integer>
char* oxEventWriteNumber(Integer value, char* at) {
  return std::to_chars(at, at + kOxEventNumberSize, value).ptr;
}
// Formats as printf does with %.{significant_digits}g, for 1 to 17 digits, including nan, -nan, inf and -inf.
char* oxEventWriteNumber(double value, int significant_digits, char* at);

// Appends a number. Throws only std::bad_alloc.
template <class... NumberAndDigits>
void oxEventAppendNumber(std::string* out, NumberAndDigits... number_and_digits) {
  char text[kOxEventNumberSize];
  out->append(text, oxEventWriteNumber(number_and_digits..., text));
}

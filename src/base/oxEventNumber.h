#pragma once

#include <charconv>
#include <cstdint>
#include <iterator>
#include <string>

// Numbers as text, whatever the locale. They fail only by running out of memory. Any thread.

template <class Integer>
void oxEventAppendNumber(Integer value, std::string* out) {
  char digits[20];
  out->append(digits, std::to_chars(digits, std::end(digits), value).ptr);
}

// As printf's %.{significant_digits}g; nan, -nan, inf, -inf.
void oxEventAppendNumber(double value, int significant_digits, std::string* out);

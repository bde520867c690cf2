#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

// Formats numbers, independent of the locale. Threads: any.

constexpr size_t kOxEventNumberSize = 32;  // Bytes that suffice for any number.

// These write to a buffer of kOxEventNumberSize bytes, all of which they may change, without a terminating NUL, and
// return the end of the number.
char* oxEventWriteUnsigned(uint64_t value, char* at);
template <std::integral Integer>
char* oxEventWriteNumber(Integer value, char* at) {
  if constexpr (std::signed_integral<Integer>) {
    if (value < 0) {
      *at = '-';
      return oxEventWriteUnsigned(-static_cast<uint64_t>(value), at + 1);
    }
  }
  return oxEventWriteUnsigned(static_cast<uint64_t>(value), at);
}
// Formats as printf does with %.{significant_digits}g in the C locale, for 1 to 17 digits, including nan, -nan, inf and
// -inf. Buffer and result: as above.
char* oxEventWriteNumber(double value, int significant_digits, char* at);

// Writes the nine digits of a value below 10^9, with leading zeros, and returns their end.
char* oxEventWriteNineDigits(uint32_t value, char* at);

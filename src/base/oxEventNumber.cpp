#include "base/oxEventNumber.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstring>

namespace {

__extension__ using uint128 = unsigned __int128;

constexpr int kFractionBits = 52;  // Fraction bits of a double (IEEE 754).
constexpr int kExponentBias = 1023;

constexpr auto kPowersOfTen = [] {
  std::array<uint64_t, 18> powers = {1};
  for (size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

// Returns the first `count` significant digits of a value as an integer, rounded half to even. The value must be at
// least 1, and less than both 10^15 and 10^(count - 1).
// The rounding is correct because the product and the shift are exact. *point: digits before the decimal point.
uint64_t RoundedDigits(double value, size_t count, size_t* point) {
  *point = 1;
  while (value >= static_cast<double>(kPowersOfTen[*point])) ++*point;
  const auto bits = std::bit_cast<uint64_t>(value);
  const uint64_t one = uint64_t{1} << kFractionBits;
  const int exponent = static_cast<int>(bits >> kFractionBits) - kExponentBias;
  const uint128 scaled = uint128{(bits & (one - 1)) | one} * kPowersOfTen[count - *point];
  const int shift = kFractionBits - exponent;  // 3 to 52.
  const uint128 remainder = scaled & ((uint128{1} << shift) - 1);
  const uint128 half = uint128{1} << (shift - 1);
  auto digits = static_cast<uint64_t>(scaled >> shift);
  if (remainder > half || (remainder == half && digits % 2 != 0)) ++digits;
  if (digits < kPowersOfTen[count]) return digits;
  ++*point;  // The digits were rounded up to a power of ten, for example 9.99 to 10.0.
  return digits / 10;
}

}  // namespace

char* oxEventWriteNumber(double value, int significant_digits, char* at) {
  const auto count = static_cast<size_t>(significant_digits);
  const double magnitude = std::fabs(value);
  const double limit = count > 15 ? 1e15 : static_cast<double>(kPowersOfTen[count - 1]);
  if (!(magnitude >= 1 && magnitude < limit)) {
    return std::to_chars(at, at + kOxEventNumberSize, value, std::chars_format::general, significant_digits).ptr;
  }
  // Most measured values are in this range, where this takes less than half the time of to_chars.
  if (const auto integer = static_cast<int64_t>(value); static_cast<double>(integer) == value) {
    return oxEventWriteNumber(integer, at);
  }
  size_t point = 0;
  const uint64_t digits = RoundedDigits(magnitude, count, &point);
  if (value < 0) *at++ = '-';
  char* end = oxEventWriteNumber(digits, at);
  while (end != at + point && end[-1] == '0') --end;
  if (end == at + point) return end;
  std::memmove(at + point + 1, at + point, static_cast<size_t>(end - at) - point);
  at[point] = '.';
  return end + 1;
}

#include "base/oxEventNumber.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

namespace {

__extension__ using uint128 = unsigned __int128;

constexpr uint64_t kTenToThe8 = 100'000'000;

// Returns the eight digits of a value below 10^8, one in each byte, the first in the lowest byte. Each step splits all
// groups of digits in two at the same time. A multiplication and a shift replace the division of a group by 100 or 10;
// the quotient is exact for every value that the group can have.
constexpr uint64_t EightDigits(uint64_t value) {
  // A step needs the quotients and the remainders, shifted by `bits`: quotient + (value - quotient * divisor) << bits.
  const auto split = [](uint64_t groups, uint64_t quotients, uint64_t divisor, int bits) {
    return (groups << bits) - quotients * ((divisor << bits) - 1);
  };
  uint64_t groups = split(value, value / 10'000, 10'000, 32);
  groups = split(groups, groups * 10'486 >> 20 & 0x0000'007F'0000'007F, 100, 16);
  return split(groups, groups * 103 >> 10 & 0x000F'000F'000F'000F, 10, 8);
}

void StoreDigits(uint64_t digits, char* at) {
  if constexpr (std::endian::native == std::endian::big) digits = __builtin_bswap64(digits);
  digits |= 0x3030'3030'3030'3030;
  std::memcpy(at, &digits, sizeof(digits));
}

char* WriteEightDigits(uint64_t value, char* at) {
  StoreDigits(EightDigits(value), at);
  return at + 8;
}

// Writes a value from 1 to below 10^8 without leading zeros.
char* WriteUpToEightDigits(uint64_t value, char* at) {
  const uint64_t digits = EightDigits(value);
  const unsigned zeros = static_cast<unsigned>(__builtin_ctzll(digits)) / 8;  // std::countr_zero checks for 0.
  StoreDigits(digits >> 8 * zeros, at);
  return at + 8 - zeros;
}

constexpr int kFractionBits = 52;  // Fraction bits of a double (IEEE 754).
constexpr int kExponentBias = 1023;

constexpr auto kPowersOfTen = [] {
  std::array<uint64_t, 18> powers = {1};
  for (size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

// Returns the first `count` significant digits of a value as an integer, rounded half to even. The value must be at
// least 1, and less than both 10^15 and 10^(count - 1).
// The rounding is correct because the product is exact, and the bits that the shift discards are compared exactly with
// one half. *point: number of digits before the decimal point.
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
  ++*point;  // The digits were rounded up to a power of ten, for example 9.996 to 10.0.
  return digits / 10;
}

}  // namespace

char* oxEventWriteUnsigned(uint64_t value, char* at) {
  if (value < 10) {
    *at = static_cast<char>('0' + value);
    return at + 1;
  }
  if (value < kTenToThe8) return WriteUpToEightDigits(value, at);
  const uint64_t high = value / kTenToThe8;
  if (high < kTenToThe8) {
    at = WriteUpToEightDigits(high, at);
  } else {
    at = WriteUpToEightDigits(high / kTenToThe8, at);
    at = WriteEightDigits(high % kTenToThe8, at);
  }
  return WriteEightDigits(value % kTenToThe8, at);
}

char* oxEventWriteNineDigits(uint32_t value, char* at) {
  *at = static_cast<char>('0' + value / kTenToThe8);
  return WriteEightDigits(value % kTenToThe8, at + 1);
}

char* oxEventWriteNumber(double value, int significant_digits, char* at) {
  const auto count = static_cast<size_t>(significant_digits);
  const double magnitude = std::fabs(value);
  const double limit = std::min(1e15, static_cast<double>(kPowersOfTen[count - 1]));
  if (!(magnitude >= 1 && magnitude < limit)) {
    return std::to_chars(at, at + kOxEventNumberSize, value, std::chars_format::general, significant_digits).ptr;
  }
  // Most measured values are in this range, where the following takes less than half the time of to_chars.
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

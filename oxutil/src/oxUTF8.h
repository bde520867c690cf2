#pragma once

#include <cstddef>
#include <string_view>

// Size in bytes of the UTF-8 sequence at the start of `text` (RFC 3629, section 4); 1 if there is no valid sequence.
inline size_t oxUTF8SequenceLength(std::string_view text) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : '\0'); };
  const auto continues = [byte](size_t i) { return (byte(i) & 0xC0) == 0x80; };
  const unsigned lead = byte(0);
  const unsigned second = byte(1);
  if (lead >= 0xC2 && lead <= 0xDF && continues(1)) return 2;
  if (lead >= 0xE0 && lead <= 0xEF && continues(1) && continues(2)) {
    return (lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ? 1 : 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4 && continues(1) && continues(2) && continues(3)) {
    return (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F) ? 1 : 4;
  }
  return 1;
}

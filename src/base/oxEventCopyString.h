#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

// Copies a text into a caller's buffer, cut to size - 1 bytes and always terminated. Null source: the empty text. Null
// destination or size 0: nothing.
inline void oxEventPlatformCopyString(char* destination, uint32_t size, const char* source) {
  if (destination == nullptr || size == 0) return;
  const size_t length = source == nullptr ? 0 : std::min<size_t>(std::strlen(source), size - 1);
  if (length != 0) std::memcpy(destination, source, length);
  destination[length] = '\0';
}

#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

// Copies a string into a buffer of `size` bytes, truncated if necessary and always NUL-terminated. A null source counts
// as an empty string. Does nothing if the destination is null or the size 0.
inline void oxEventPlatformCopyString(char* destination, uint32_t size, const char* source) {
  if (destination == nullptr || size == 0) return;
  const size_t length = source == nullptr ? 0 : std::min<size_t>(std::strlen(source), size - 1);
  if (length != 0) std::memcpy(destination, source, length);
  destination[length] = '\0';
}

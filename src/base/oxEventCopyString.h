#pragma once

#include <cstdint>
#include <string_view>

// Copies a string into a buffer of `size` bytes, truncated if necessary and always NUL-terminated. A null source counts
// as an empty string. Does nothing if the destination is null or the size 0.
inline void oxEventPlatformCopyString(char* destination, uint32_t size, const char* source) {
  if (destination == nullptr || size == 0) return;
  const std::string_view text = source == nullptr ? "" : source;
  destination[text.copy(destination, size - 1)] = '\0';
}

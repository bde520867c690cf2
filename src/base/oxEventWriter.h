#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/oxEventArchitecture.h"
#include "base/oxEventNumber.h"

// Copies 1 to 15 bytes and returns them in some order, some of them repeatedly. Reads only these bytes.
inline oxEventByteMatches oxEventCopyShort(const char* from, size_t size, char* to) {
  uint64_t words[2];
  if (size >= 8) {
    std::memcpy(&words[0], from, 8);
    std::memcpy(&words[1], from + size - 8, 8);
    std::memcpy(to, &words[0], 8);
    std::memcpy(to + size - 8, &words[1], 8);
  } else if (size >= 4) {
    uint32_t halves[2];
    std::memcpy(&halves[0], from, 4);
    std::memcpy(&halves[1], from + size - 4, 4);
    std::memcpy(to, &halves[0], 4);
    std::memcpy(to + size - 4, &halves[1], 4);
    std::memcpy(&words[0], halves, sizeof(halves));
    words[1] = words[0];
  } else {
    const char bytes[8] = {from[0], from[size / 2], from[size - 1], from[0], from[0], from[0], from[0], from[0]};
    to[0] = bytes[0];
    to[size / 2] = bytes[1];
    to[size - 1] = bytes[2];
    std::memcpy(&words[0], bytes, sizeof(bytes));
    words[1] = words[0];
  }
  return std::bit_cast<oxEventByteMatches>(words);
}

// Copies the text up to its first special byte, 16 bytes at a time, and returns the number of bytes copied. May write
// as many bytes as the text has. is_special takes a byte or a vector of bytes, so it must combine comparisons with |
// instead of ||.
template <class IsSpecial>
size_t oxEventCopyPlain(std::string_view text, IsSpecial is_special, char* to) {
  using Bytes = oxEventByteMatches;
  size_t plain = 0;
  for (; plain + sizeof(Bytes) <= text.size(); plain += sizeof(Bytes)) {
    Bytes bytes;
    std::memcpy(&bytes, text.data() + plain, sizeof(bytes));
    std::memcpy(to + plain, &bytes, sizeof(bytes));
    const size_t special = oxEventFirstMatch(std::bit_cast<Bytes>(is_special(bytes)));
    if (special < sizeof(Bytes)) return plain + special;
  }
  if (plain == text.size()) return plain;
  const Bytes bytes = oxEventCopyShort(text.data() + plain, text.size() - plain, to + plain);
  if (oxEventFirstMatch(std::bit_cast<Bytes>(is_special(bytes))) >= sizeof(Bytes)) return text.size();
  while (!is_special(static_cast<unsigned char>(text[plain]))) ++plain;
  return plain;
}

// Copies the text, but calls `escape` for each special byte: it takes the byte and where to write, and returns the end
// of what it wrote. Returns the end.
template <class IsSpecial, class Escape>
char* oxEventWriteEscaped(std::string_view text, IsSpecial is_special, Escape escape, char* to) {
  while (true) {
    const size_t plain = oxEventCopyPlain(text, is_special, to);
    to += plain;
    if (plain == text.size()) return to;
    to = escape(static_cast<unsigned char>(text[plain]), to);
    text.remove_prefix(plain + 1);
  }
}

// Copies the text and returns the end of the copy. Inline, unlike memcpy: most texts are short.
inline char* oxEventWriteText(std::string_view text, char* to) {
  constexpr size_t kBlock = 16;
  constexpr size_t kLongText = 256;
  const size_t size = text.size();
  if (size >= kLongText) {
    std::memcpy(to, text.data(), size);
  } else if (size >= kBlock) {
    for (size_t i = 0; i < size - kBlock; i += kBlock) std::memcpy(to + i, text.data() + i, kBlock);
    std::memcpy(to + size - kBlock, text.data() + size - kBlock, kBlock);
  } else if (size > 0) {
    oxEventCopyShort(text.data(), size, to);
  }
  return to + size;
}

// Appends to a string. The writer makes sure that there is room and then writes through a pointer: that takes a
// fraction of the time of appending each piece to the string. From construction to destruction, only the writer may use
// the string. All functions throw only std::bad_alloc. Threads: one at a time.
class oxEventWriter {
 public:
  explicit oxEventWriter(std::string* out) : out_(out), at_(out->data() + out->size()), end_(at_) {}
  ~oxEventWriter() { out_->resize(Size()); }
  oxEventWriter(const oxEventWriter&) = delete;
  oxEventWriter& operator=(const oxEventWriter&) = delete;

  // Of the whole string.
  size_t Size() const { return static_cast<size_t>(at_ - out_->data()); }
  // Removes everything behind the first `size` bytes.
  void Truncate(size_t size) { at_ = out_->data() + size; }

  // Returns where the caller may write up to `size` bytes. The caller then passes the end of what it wrote to
  // Advance.
  char* Room(size_t size) {
    if (static_cast<size_t>(end_ - at_) < size) Grow(size);
    return at_;
  }
  void Advance(char* end) { at_ = end; }

  void Add(char c) {
    *Room(1) = c;
    ++at_;
  }
  template <size_t kSize>
  void Add(const char (&literal)[kSize]) {
    std::memcpy(Room(kSize - 1), literal, kSize - 1);
    at_ += kSize - 1;
  }
  void Add(std::string_view text) { at_ = oxEventWriteText(text, Room(text.size())); }
  // A number, or a double and its number of significant digits.
  template <class... NumberAndDigits>
  void AddNumber(NumberAndDigits... number_and_digits) {
    at_ = oxEventWriteNumber(number_and_digits..., Room(kOxEventNumberSize));
  }
  // Adds the text by write(text, at), which returns the end of what it wrote: up to kMaxEscape bytes for each byte.
  template <size_t kMaxEscape, class Write>
  void AddEscaped(std::string_view text, Write write) {
    while (!text.empty()) {
      const std::string_view chunk = text.substr(0, kChunk);
      at_ = write(chunk, Room(kMaxEscape * chunk.size()));
      text.remove_prefix(chunk.size());
    }
  }

 private:
  static constexpr size_t kMinGrowth = 1024;
  static constexpr size_t kChunk = 128;  // Limits the room that a long text takes if none of it is escaped.

  void Grow(size_t size) {
    const size_t used = Size();
    out_->resize(used + std::max({size, used, kMinGrowth}));
    at_ = out_->data() + used;
    end_ = out_->data() + out_->size();
  }

  std::string* const out_;
  char* at_;
  char* end_;  // Of the string, whose bytes from at_ on are room.
};

#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/oxEventArchitecture.h"
#include "base/oxEventNumber.h"

// The functions before the class write to `to`, which must not overlap `from` or `text`, and needs room for what they
// write: for a copy, the size of the text.

// Copies `size` bytes, 1 to 15, and accesses no others. Also returns these bytes, in no particular order and some of
// them repeatedly, for a search that only asks whether a byte occurs.
inline oxEventByteMatches oxEventCopyShort(const char* from, size_t size, char* to) {
  uint64_t low = 0;
  uint64_t high = 0;
  if (size >= 8) {
    std::memcpy(&low, from, 8);
    std::memcpy(&high, from + size - 8, 8);
    std::memcpy(to, &low, 8);
    std::memcpy(to + size - 8, &high, 8);
  } else {
    uint32_t first = 0;
    uint32_t last = 0;
    if (size >= 4) {
      std::memcpy(&first, from, 4);
      std::memcpy(&last, from + size - 4, 4);
      std::memcpy(to, &first, 4);
      std::memcpy(to + size - 4, &last, 4);
    } else {
      const auto byte = [from](size_t i) { return uint32_t{static_cast<unsigned char>(from[i])}; };
      const uint32_t bytes[] = {byte(0), byte(size / 2), byte(size - 1)};
      to[0] = static_cast<char>(bytes[0]);
      to[size / 2] = static_cast<char>(bytes[1]);
      to[size - 1] = static_cast<char>(bytes[2]);
      first = last = bytes[0] << 24 | bytes[0] << 16 | bytes[1] << 8 | bytes[2];
    }
    low = high = first | uint64_t{last} << 32;
  }
  return std::bit_cast<oxEventByteMatches>(oxEventWordPair{low, high});
}

// Copies `size` bytes, kBytes to 2 * kBytes: the first kBytes and the last kBytes, which may overlap.
template <size_t kBytes>
void oxEventCopyEnds(const char* from, size_t size, char* to) {
  std::array<char, kBytes> first;
  std::array<char, kBytes> last;
  std::memcpy(&first, from, kBytes);
  std::memcpy(&last, from + size - kBytes, kBytes);
  std::memcpy(to, &first, kBytes);
  std::memcpy(to + size - kBytes, &last, kBytes);
}

// Copies the text and returns the end of the copy. Inline, unlike memcpy: most texts are short.
inline char* oxEventWriteText(std::string_view text, char* to) {
  const size_t size = text.size();
  if (size < 16) {
    if (size > 0) oxEventCopyShort(text.data(), size, to);
  } else if (size <= 32) {
    oxEventCopyEnds<16>(text.data(), size, to);
  } else if (size <= 64) {
    oxEventCopyEnds<32>(text.data(), size, to);
  } else {
    std::memcpy(to, text.data(), size);
  }
  return to + size;
}

// Copies the text, and returns true if it contains no special byte. Processes 16 bytes at a time; the last 16 may
// overlap those before. is_special takes a byte or a vector of bytes, so it must combine comparisons with | instead of
// ||.
template <class IsSpecial>
[[gnu::always_inline]] inline bool oxEventCopyIfPlain(std::string_view text, IsSpecial is_special, char* to) {
  using Bytes = oxEventByteMatches;
  constexpr size_t kBlock = sizeof(Bytes);
  const auto specials = [is_special](Bytes bytes) { return std::bit_cast<Bytes>(is_special(bytes)); };
  const auto copy_block = [&](size_t at) {
    Bytes bytes;
    std::memcpy(&bytes, text.data() + at, kBlock);
    std::memcpy(to + at, &bytes, kBlock);
    return specials(bytes);
  };
  if (text.empty()) return true;
  if (text.size() < kBlock) return !oxEventHasMatch(specials(oxEventCopyShort(text.data(), text.size(), to)));
  const size_t last = text.size() - kBlock;
  Bytes found = {};
  for (size_t i = 0; i < last; i += kBlock) found |= copy_block(i);
  return !oxEventHasMatch(found | copy_block(last));
}

// Copies the text, but calls escape(byte, at) for each special byte, which writes at least one byte to `at` and returns
// the end of what it wrote. Returns the end. Needs room only for the result: a block of 16 bytes that is copied before
// its special bytes are found never extends beyond that, because each byte of the text becomes at least one.
template <class IsSpecial, class Escape>
[[gnu::noinline]] char* oxEventEscapeEach(std::string_view text, IsSpecial is_special, Escape escape, char* to) {
  using Bytes = oxEventByteMatches;
  const char* from = text.data();
  const char* const end = from + text.size();
  while (end - from >= static_cast<ptrdiff_t>(sizeof(Bytes))) {
    Bytes bytes;
    std::memcpy(&bytes, from, sizeof(bytes));
    std::memcpy(to, &bytes, sizeof(bytes));
    const size_t plain = oxEventFirstMatch(std::bit_cast<Bytes>(is_special(bytes)));
    if (plain >= sizeof(bytes)) {
      from += sizeof(bytes);
      to += sizeof(bytes);
    } else {
      to = escape(static_cast<unsigned char>(from[plain]), to + plain);
      from += plain + 1;
    }
  }
  for (; from != end; ++from) {
    const auto byte = static_cast<unsigned char>(*from);
    *to = *from;
    to = is_special(byte) ? escape(byte, to) : to + 1;
  }
  return to;
}

// The same as oxEventEscapeEach, but faster for a text without special bytes.
template <class IsSpecial, class Escape>
char* oxEventWriteEscaped(std::string_view text, IsSpecial is_special, Escape escape, char* to) {
  if (oxEventCopyIfPlain(text, is_special, to)) return to + text.size();
  return oxEventEscapeEach(text, is_special, escape, to);
}

// Appends to a string. The writer makes sure that there is room and then writes through a pointer, which takes a
// fraction of the time of std::string::append for each piece. From construction to destruction, only the writer may use
// the string. All functions throw only std::bad_alloc. Threads: one at a time.
class oxEventWriter {
 public:
  explicit oxEventWriter(std::string* out) : out_(out), at_(out->data() + out->size()), end_(at_) {}
  ~oxEventWriter() { out_->resize(Size()); }
  oxEventWriter(const oxEventWriter&) = delete;
  oxEventWriter& operator=(const oxEventWriter&) = delete;

  // Returns the size of the whole string, including what it contained before.
  size_t Size() const { return static_cast<size_t>(at_ - out_->data()); }
  // Replaces the character at a position below Size().
  void Replace(size_t position, char c) { (*out_)[position] = c; }
  // Shortens the string to `size` bytes, at most Size().
  void Truncate(size_t size) { at_ = out_->data() + size; }

  // Returns a pointer to `size` writable bytes; any other member function invalidates it. The caller then passes the
  // end of what it wrote to Advance.
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
  // Adds an integer, or a double with the given number of significant digits.
  template <class... NumberAndDigits>
  void AddNumber(NumberAndDigits... number_and_digits) {
    at_ = oxEventWriteNumber(number_and_digits..., Room(kOxEventNumberSize));
  }
  // Adds the text in chunks: write(chunk, at) writes at most kMaxEscape bytes for each byte of the chunk, and returns
  // the end of what it wrote.
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
  // Bytes. Room is reserved for one chunk at a time, as if each of its bytes had to be escaped.
  static constexpr size_t kChunk = 128;

  void Grow(size_t size) {
    const size_t used = Size();
    out_->resize(used + std::max({size, used, kMinGrowth}));
    at_ = out_->data() + used;
    end_ = out_->data() + out_->size();
  }

  std::string* const out_;
  char* at_;
  char* end_;  // End of the string, whose bytes from at_ on are unused room.
};

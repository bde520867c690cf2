#pragma once

#include <emmintrin.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/oxEventNormalizedEvent.h"

// The renderings of an event that several sinks share. Each appends to *out, which a caller may reuse. Bytes are taken
// as UTF-8 and passed on unchecked; nothing depends on the locale. They fail only by running out of memory. Any thread.
namespace oxEventText {

// The number of bytes before the first special one. Looks at 16 at a time: is_special takes one byte or a vector of
// them, and so joins its comparisons with | and not with ||.
template <class IsSpecial>
size_t PlainLength(std::string_view text, IsSpecial is_special) {
  using Bytes __attribute__((vector_size(16))) = unsigned char;
  const auto first_special = [&](size_t begin) {  // Within 16 bytes; 32: none.
    Bytes bytes;
    std::memcpy(&bytes, text.data() + begin, sizeof(bytes));
    const int found = _mm_movemask_epi8(std::bit_cast<__m128i>(is_special(bytes)));
    return static_cast<size_t>(std::countr_zero(static_cast<unsigned>(found)));
  };
  size_t plain = 0;
  if (text.size() < sizeof(Bytes)) {
    while (plain < text.size() && !is_special(static_cast<unsigned char>(text[plain]))) ++plain;
    return plain;
  }
  const size_t last = text.size() - sizeof(Bytes);
  for (; plain < last; plain += sizeof(Bytes)) {
    if (const size_t at = first_special(plain); at < sizeof(Bytes)) return plain + at;
  }
  return std::min(last + first_special(last), text.size());
}

// Appends the text to *out, where `escape` stands in for each special byte.
template <class IsSpecial, class Escape>
void AppendEscaped(std::string_view text, IsSpecial is_special, std::string* out, Escape escape) {
  while (true) {
    const size_t plain = PlainLength(text, is_special);
    out->append(text.data(), plain);
    if (plain == text.size()) return;
    escape(text[plain]);
    text.remove_prefix(plain + 1);
  }
}

void JsonEscape(std::string_view text, std::string* out);  // RFC 8259, section 7; without the quotes.

// A JSON object that is being written, without white space.
class JsonObject {
 public:
  explicit JsonObject(std::string* out) : out_(out) { out_->push_back('{'); }
  void AddStringField(std::string_view name, std::string_view text);
  void AddDoubleField(std::string_view name, double value);
  void AddField(std::string_view name, uint64_t value);
  void AddField(std::string_view name, int64_t value);
  // Appends the name; the caller appends the value.
  void AddName(std::string_view name);
  void Close() { out_->push_back('}'); }

 private:
  std::string* const out_;
  bool first_ = true;
};

// 17 significant digits, which give the value back; NaN and infinities are "null".
void DoubleToJson(double value, std::string* out);

// The text of the second that was formatted last: successive events mostly share one. Belongs to whoever formats, since
// thread-local storage in a library that came by dlopen is allocated at its first use, where failure ends the process.
// Threads: one at a time.
struct UtcCache {
  uint64_t second = UINT64_MAX;
  char text[sizeof("2023-11-14T22:13:20")] = {};
};

// ISO 8601: 2023-11-14T22:13:20Z, with nine digits of fraction if it is not zero. `cache` may be null, here and below.
void UtcIsoFromNs(uint64_t ns, std::string* out, UtcCache* cache = nullptr);
// The same always with nine digits: 2023-11-14T22:13:20.000000000Z.
void UtcIsoNanoFromNs(uint64_t ns, std::string* out, UtcCache* cache = nullptr);

// The header line of the CSV file and the row of an event (RFC 4180, section 2), each with its line feed. WriteCsvRow
// needs CsvRowCapacity bytes of memory and returns the end of the row.
std::string_view CsvHeader();
size_t CsvRowCapacity(const oxEventNormalizedEvent& event);
char* WriteCsvRow(const oxEventNormalizedEvent& event, char* at, UtcCache* cache = nullptr);

// The library's own JSON document for one event.
void FormatNativeJsonData(const oxEventNormalizedEvent& event, std::string* out);

// CloudEvents 1.0 in structured content mode, with the document above as its data.
void FormatCloudEventsJson(const oxEventNormalizedEvent& event, std::string_view source,
                           std::string_view subject_prefix, std::string* out);

}  // namespace oxEventText

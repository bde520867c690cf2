#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/oxEventArchitecture.h"
#include "base/oxEventNormalizedEvent.h"

// Text formats of events. Each function appends to *out, which a caller may reuse. Strings are assumed to be UTF-8 and
// are not validated; nothing depends on the locale. The only failure is std::bad_alloc. Threads: any.
namespace oxEventText {

// Returns the number of bytes before the first special byte. Examines 16 bytes at a time: is_special takes a byte or a
// vector of bytes, so it must combine comparisons with | instead of ||.
template <class IsSpecial>
size_t PlainLength(std::string_view text, IsSpecial is_special) {
  using Bytes = oxEventByteMatches;
  const auto first_special = [&](size_t begin) {  // Offset within 16 bytes; 16 or more if there is none.
    Bytes bytes;
    std::memcpy(&bytes, text.data() + begin, sizeof(bytes));
    return oxEventFirstMatch(std::bit_cast<oxEventByteMatches>(is_special(bytes)));
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

// Appends the text to *out, but calls `escape` for each special byte instead of appending it.
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

void JsonEscape(std::string_view text, std::string* out);  // RFC 8259, section 7, without quotes.

// Writes a JSON object without white space. The constructor opens it; call Close last.
class JsonObject {
 public:
  explicit JsonObject(std::string* out) : out_(out) { out_->push_back('{'); }
  void AddStringField(std::string_view name, std::string_view text);
  void AddDoubleField(std::string_view name, double value);
  void AddField(std::string_view name, uint64_t value);
  void AddField(std::string_view name, int64_t value);
  // Appends the name only: the caller appends the value.
  void AddName(std::string_view name);
  void Close() { out_->push_back('}'); }

 private:
  std::string* const out_;
  bool first_ = true;
};

// Appends 17 significant digits, enough to read the value back exactly, or null for NaN and infinities.
void DoubleToJson(double value, std::string* out);

// Caches the last formatted second, which successive events mostly share. Owned by the caller instead of thread-local:
// in a library loaded by dlopen, the first use of thread-local storage allocates, and a failure ends the process.
// Threads: one at a time.
struct UtcCache {
  uint64_t second = UINT64_MAX;
  char text[sizeof("2023-11-14T22:13:20")] = {};
};

// ISO 8601: 2023-11-14T22:13:20Z, with nine fractional digits if they are not zero. `cache` may be null.
void UtcIsoFromNs(uint64_t ns, std::string* out, UtcCache* cache = nullptr);
// ISO 8601, always with nine fractional digits: 2023-11-14T22:13:20.000000000Z.
void UtcIsoNanoFromNs(uint64_t ns, std::string* out, UtcCache* cache = nullptr);

// The header line of the CSV file and the row of an event (RFC 4180, section 2), each with its line feed. WriteCsvRow
// needs CsvRowCapacity bytes of memory at `at` and returns the end of the row.
std::string_view CsvHeader();
size_t CsvRowCapacity(const oxEventNormalizedEvent& event);
char* WriteCsvRow(const oxEventNormalizedEvent& event, char* at, UtcCache* cache = nullptr);

// oxEvent's own JSON document for one event.
void FormatNativeJsonData(const oxEventNormalizedEvent& event, std::string* out);

// CloudEvents 1.0 in structured content mode, with the document of FormatNativeJsonData as its data.
void FormatCloudEventsJson(const oxEventNormalizedEvent& event, std::string_view source,
                           std::string_view subject_prefix, std::string* out);

}  // namespace oxEventText

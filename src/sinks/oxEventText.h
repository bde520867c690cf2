#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventWriter.h"

// Text formats of events. A function with an argument `out` appends to *out, which a caller may reuse. Strings are
// assumed to be UTF-8 and are not validated; nothing depends on the locale. The only failure is std::bad_alloc.
// Threads: any.
namespace oxEventText {

void JsonEscape(std::string_view text, oxEventWriter* out);  // RFC 8259, section 7, without the enclosing quotes.
void AddJsonString(std::string_view text, oxEventWriter* out);

// Adds up to 17 significant digits, enough to read the value back exactly, or null for NaN and infinities.
void DoubleToJson(double value, oxEventWriter* out);

// Writes a JSON object without white space. The constructor opens it; call Close last. A name is a string literal.
class JsonObject {
 public:
  explicit JsonObject(oxEventWriter* out) : out_(out) { out_->Add('{'); }
  template <size_t kSize>
  void AddStringField(const char (&name)[kSize], std::string_view text) {
    AddName(name);
    AddJsonString(text, out_);
  }
  template <size_t kSize>
  void AddDoubleField(const char (&name)[kSize], double value) {
    AddName(name);
    DoubleToJson(value, out_);
  }
  template <size_t kSize, std::integral Integer>
  void AddField(const char (&name)[kSize], Integer value) {
    AddName(name);
    out_->AddNumber(value);
  }
  // Adds the name only: the caller adds the value.
  template <size_t kSize>
  void AddName(const char (&name)[kSize]) {
    char* at = out_->Room(kSize + sizeof(",\"\":"));
    *at = ',';
    at += first_ ? 0 : 1;
    first_ = false;
    *at++ = '"';
    std::memcpy(at, name, kSize - 1);
    at += kSize - 1;
    *at++ = '"';
    *at++ = ':';
    out_->Advance(at);
  }
  void Close() { out_->Add('}'); }

 private:
  oxEventWriter* const out_;
  bool first_ = true;
};

// Caches the last formatted second, which successive events mostly share. Owned by the caller instead of thread-local:
// in a library loaded by dlopen, the first use of thread-local storage allocates, and a failure ends the process.
// Threads: one at a time.
struct UtcCache {
  uint64_t second = UINT64_MAX;
  char text[sizeof("2023-11-14T22:13:20")] = {};
};

// ISO 8601: 2023-11-14T22:13:20Z, with nine fractional digits if they are not zero. `cache` may be null.
void UtcIsoFromNs(uint64_t ns, oxEventWriter* out, UtcCache* cache = nullptr);
// ISO 8601, always with nine fractional digits: 2023-11-14T22:13:20.000000000Z.
void UtcIsoNanoFromNs(uint64_t ns, oxEventWriter* out, UtcCache* cache = nullptr);

// The header line of the CSV file and the row of an event (RFC 4180, section 2), each with its line feed. WriteCsvRow
// needs CsvRowCapacity bytes of memory at `at` and returns the end of the row.
std::string_view CsvHeader();
size_t CsvRowCapacity(const oxEventNormalizedEvent& event);
char* WriteCsvRow(const oxEventNormalizedEvent& event, char* at, UtcCache* cache = nullptr);

// Formats an event as oxEvent's own JSON document.
void FormatNativeJsonData(const oxEventNormalizedEvent& event, std::string* out);

// Formats an event as a CloudEvent (version 1.0, structured content mode) with the above document as its data.
void FormatCloudEventsJson(const oxEventNormalizedEvent& event, std::string_view source,
                           std::string_view subject_prefix, std::string* out);

}  // namespace oxEventText

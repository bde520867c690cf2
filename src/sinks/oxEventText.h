#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventNumber.h"
#include "base/oxEventWriter.h"

// Text formats of events. A function with an argument `out` appends to *out, which a caller may reuse. Strings are
// assumed to be UTF-8 and are not validated; nothing depends on the locale. The only failure is std::bad_alloc.
// Threads: any.
namespace oxEventText {

void JsonEscape(std::string_view text, oxEventWriter* out);  // RFC 8259, section 7, without the enclosing quotes.
void AddJsonString(std::string_view text, oxEventWriter* out);

// Writes a text of up to kShortText bytes as a JSON string with its quotes. Needs kShortStringSize bytes at `at`;
// returns the end of the string.
constexpr size_t kShortText = 64;  // Most strings of an event are shorter.
constexpr size_t kShortStringSize = kShortText * (sizeof("\\u001f") - 1) + 2;
char* WriteShortJsonString(std::string_view text, char* at);

// Adds up to 17 significant digits, enough to read the value back exactly, or null for NaN and infinities.
void DoubleToJson(double value, oxEventWriter* out);

// The name of a member of a JSON object, as it is written: in quotes, with the comma before it and the colon after it.
template <size_t kSize>
struct JsonName {
  consteval JsonName(const char (&name)[kSize]) {  // NOLINT(google-explicit-constructor): a template argument.
    std::copy_n(name, kSize - 1, text + 2);
    text[0] = ',';
    text[1] = text[kSize + 1] = '"';
    text[kSize + 2] = ':';
  }
  char text[kSize + 3] = {};
};

// Writes a JSON object without white space. Add at least one member, then call Close: it turns the comma before the
// first member into the opening brace.
class JsonObject {
 public:
  explicit JsonObject(oxEventWriter* out) : out_(out), begin_(out->Size()) {}
  template <JsonName kName>
  void AddStringField(std::string_view text) {
    if (text.size() > kShortText) {
      AddName<kName>();
      return AddJsonString(text, out_);
    }
    char* const value = WriteName<kName>(out_->Room(sizeof(kName.text) + kShortStringSize));
    out_->Advance(WriteShortJsonString(text, value));
  }
  template <JsonName kName>
  void AddDoubleField(double value) {
    AddName<kName>();
    DoubleToJson(value, out_);
  }
  template <JsonName kName, std::integral Integer>
  void AddField(Integer value) {
    char* const at = WriteName<kName>(out_->Room(sizeof(kName.text) + kOxEventNumberSize));
    out_->Advance(oxEventWriteNumber(value, at));
  }
  // Adds the name only: the caller adds the value.
  template <JsonName kName>
  void AddName() {
    out_->Advance(WriteName<kName>(out_->Room(sizeof(kName.text))));
  }
  void Close() {
    out_->Replace(begin_, '{');
    out_->Add('}');
  }

 private:
  template <JsonName kName>
  static char* WriteName(char* at) {
    std::memcpy(at, kName.text, sizeof(kName.text));
    return at + sizeof(kName.text);
  }

  oxEventWriter* const out_;
  const size_t begin_;
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

// Formats an event as a CloudEvent (version 1.0, structured content mode) whose data is the document of
// FormatNativeJsonData.
void FormatCloudEventsJson(const oxEventNormalizedEvent& event, std::string_view source,
                           std::string_view subject_prefix, std::string* out);

}  // namespace oxEventText

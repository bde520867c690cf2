#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/oxEventNormalizedEvent.h"

// The renderings of an event that several sinks share. Each appends to *out, which a caller may reuse. Bytes are taken
// as UTF-8 and passed on unchecked; nothing depends on the locale. They fail only by running out of memory. Any thread.
namespace oxEventText {

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

void ToString(uint64_t value, std::string* out);
void ToString(int64_t value, std::string* out);
void ToString(double value, int significant_digits, std::string* out);  // As %g; nan, -nan, inf, -inf.

// ISO 8601: 2023-11-14T22:13:20Z, with nine digits of fraction if it is not zero.
void UtcIsoFromNs(uint64_t ns, std::string* out);
// The same always with nine digits: 2023-11-14T22:13:20.000000000Z.
void UtcIsoNanoFromNs(uint64_t ns, std::string* out);

void CsvQuote(std::string_view text, std::string* out);                    // RFC 4180, section 2.
void AppendCsvRow(const oxEventNormalizedEvent& event, std::string* out);  // Of the CSV file, with its line feed.

// The library's own JSON document for one event.
void FormatNativeJsonData(const oxEventNormalizedEvent& event, std::string* out);

// CloudEvents 1.0 in structured content mode, with the document above as its data.
void FormatCloudEventsJson(const oxEventNormalizedEvent& event, std::string_view source,
                           std::string_view subject_prefix, std::string* out);

}  // namespace oxEventText

#include "sinks/oxEventText.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include "base/oxEventNumber.h"
#include "base/oxEventSeverity.h"

namespace oxEventText {

namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr int kRoundTripDigits = 17;  // Enough significant digits to read any double back exactly.

// The character after the backslash; 'u' for those that are spelled in hexadecimal.
constexpr char EscapeOf(unsigned char byte) {
  switch (byte) {
    case '"':
    case '\\':
      return static_cast<char>(byte);
    case '\b':
      return 'b';
    case '\t':
      return 't';
    case '\n':
      return 'n';
    case '\f':
      return 'f';
    case '\r':
      return 'r';
    default:
      return 'u';
  }
}

// Returns the end.
char* WritePadded(uint64_t value, int width, char separator, char* at) {
  for (int i = width; i-- > 0; value /= 10) at[i] = static_cast<char>('0' + value % 10);
  at[width] = separator;
  return at + width + 1;
}

constexpr size_t kUtcSeconds = sizeof("2023-11-14T22:13:20") - 1;
constexpr size_t kUtcNano = kUtcSeconds + sizeof(".000000000Z") - 1;

// 2023-11-14T22:13:20
char* WriteUtcSeconds(uint64_t ns, UtcCache* cache, char* at) {
  UtcCache own;
  if (cache == nullptr) cache = &own;
  if (const uint64_t second = ns / kNsPerSecond; second != cache->second) {
    const std::chrono::sys_seconds time{std::chrono::seconds{second}};
    const auto midnight = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date{midnight};
    const std::chrono::hh_mm_ss clock{time - midnight};
    char* part = WritePadded(static_cast<uint64_t>(static_cast<int>(date.year())), 4, '-', cache->text);
    part = WritePadded(static_cast<unsigned>(date.month()), 2, '-', part);
    part = WritePadded(static_cast<unsigned>(date.day()), 2, 'T', part);
    part = WritePadded(static_cast<uint64_t>(clock.hours().count()), 2, ':', part);
    part = WritePadded(static_cast<uint64_t>(clock.minutes().count()), 2, ':', part);
    WritePadded(static_cast<uint64_t>(clock.seconds().count()), 2, '\0', part);
    cache->second = second;
  }
  std::memcpy(at, cache->text, kUtcSeconds);
  return at + kUtcSeconds;
}

// 2023-11-14T22:13:20.000000000Z
char* WriteUtcNano(uint64_t ns, UtcCache* cache, char* at) {
  at = WriteUtcSeconds(ns, cache, at);
  *at++ = '.';
  return WritePadded(ns % kNsPerSecond, 9, 'Z', at);
}

constexpr size_t kCsvTexts = 11;
constexpr size_t kCsvNumbers = 9;

// RFC 4180, section 2.
char* WriteCsvText(std::string_view text, char* at) {
  const auto is_special = [](auto c) { return (c == '"') | (c == ',') | (c == '\n') | (c == '\r'); };
  if (PlainLength(text, is_special) == text.size()) {
    std::memcpy(at, text.data(), text.size());
    return at + text.size();
  }
  *at++ = '"';
  for (const char c : text) {
    if (c == '"') *at++ = '"';
    *at++ = c;
  }
  *at++ = '"';
  return at;
}

}  // namespace

void JsonEscape(std::string_view text, std::string* out) {
  static constexpr char kHex[] = "0123456789abcdef";
  const auto is_special = [](auto byte) { return (byte < 0x20) | (byte == '"') | (byte == '\\'); };
  AppendEscaped(text, is_special, out, [out](char c) {
    const auto byte = static_cast<unsigned char>(c);
    const char escape = EscapeOf(byte);
    out->append(1, '\\').append(1, escape);
    if (escape == 'u') out->append("00").append(1, kHex[byte >> 4]).append(1, kHex[byte & 0xF]);
  });
}

void JsonObject::AddName(std::string_view name) {
  if (!first_) out_->push_back(',');
  first_ = false;
  out_->append(1, '"').append(name).append("\":");
}

void JsonObject::AddStringField(std::string_view name, std::string_view text) {
  AddName(name);
  out_->push_back('"');
  JsonEscape(text, out_);
  out_->push_back('"');
}

void JsonObject::AddDoubleField(std::string_view name, double value) {
  AddName(name);
  DoubleToJson(value, out_);
}

void JsonObject::AddField(std::string_view name, uint64_t value) {
  AddName(name);
  oxEventAppendNumber(out_, value);
}

void JsonObject::AddField(std::string_view name, int64_t value) {
  AddName(name);
  oxEventAppendNumber(out_, value);
}

void DoubleToJson(double value, std::string* out) {
  if (!std::isfinite(value)) {
    out->append("null");
    return;
  }
  oxEventAppendNumber(out, value, kRoundTripDigits);
}

void UtcIsoFromNs(uint64_t ns, std::string* out, UtcCache* cache) {
  if (ns % kNsPerSecond != 0) return UtcIsoNanoFromNs(ns, out, cache);
  char text[kUtcSeconds];
  out->append(text, WriteUtcSeconds(ns, cache, text)).push_back('Z');
}

void UtcIsoNanoFromNs(uint64_t ns, std::string* out, UtcCache* cache) {
  char text[kUtcNano];
  out->append(text, WriteUtcNano(ns, cache, text));
}

size_t CsvRowCapacity(const oxEventNormalizedEvent& e) {
  constexpr size_t kFixed = kUtcNano + 1 + kCsvNumbers * (kOxEventNumberSize + 1) + kCsvTexts * sizeof("\"\",");
  const size_t texts = oxEventSeverityName(e.severity, "unknown").size() + e.action.size() + e.event_type.size() +
                       e.source_id.size() + e.source_name.size() + e.dedupe_key.size() + e.correlation_id.size() +
                       e.message.size() + e.units.size() + e.timecode.size() + e.details_json.size();
  return kFixed + 2 * texts;  // As if each byte were a quote.
}

char* WriteCsvRow(const oxEventNormalizedEvent& event, char* at, UtcCache* cache) {
  const auto text = [&at](std::string_view field, char end = ',') {
    at = WriteCsvText(field, at);
    *at++ = end;
  };
  const auto number = [&at](auto... value_and_digits) {
    at = oxEventWriteNumber(value_and_digits..., at);
    *at++ = ',';
  };
  number(OXEVENT_API_VERSION);
  number(event.event_id);
  at = WriteUtcNano(event.utc_ns, cache, at);
  *at++ = ',';
  number(event.utc_ns);
  text(oxEventSeverityName(event.severity, "unknown"));
  text(event.action);
  text(event.event_type);
  text(event.source_id);
  text(event.source_name);
  text(event.dedupe_key);
  text(event.correlation_id);
  text(event.message);
  number(event.value, kRoundTripDigits);
  number(event.threshold, kRoundTripDigits);
  text(event.units);
  number(event.duration_ms);
  number(event.ptp_ns);
  number(event.pts);
  text(event.timecode);
  text(event.details_json, '\n');
  return at;
}

void FormatNativeJsonData(const oxEventNormalizedEvent& event, std::string* out) {
  const uint64_t severity = event.severity;
  JsonObject object(out);
  object.AddField("version", uint64_t{OXEVENT_API_VERSION});
  object.AddField("event_id", event.event_id);
  object.AddStringField("severity", oxEventSeverityName(event.severity));
  object.AddField("severity_value", severity);
  object.AddField("severity_code", severity);  // Receivers know it under either name.
  object.AddStringField("action", event.action);
  object.AddStringField("event_type", event.event_type);
  object.AddStringField("source_id", event.source_id);
  object.AddStringField("source_name", event.source_name);
  object.AddStringField("dedupe_key", event.dedupe_key);
  object.AddStringField("correlation_id", event.correlation_id);
  object.AddStringField("message", event.message);
  object.AddField("utc_ns", event.utc_ns);
  object.AddField("ptp_ns", event.ptp_ns);
  object.AddField("pts", event.pts);
  object.AddStringField("timecode", event.timecode);
  object.AddDoubleField("value", event.value);
  object.AddDoubleField("threshold", event.threshold);
  object.AddStringField("units", event.units);
  object.AddField("duration_ms", event.duration_ms);
  object.AddStringField("details_json", event.details_json);
  object.Close();
}

void FormatCloudEventsJson(const oxEventNormalizedEvent& event, std::string_view source,
                           std::string_view subject_prefix, std::string* out) {
  const auto first_non_empty = [](std::string_view a, std::string_view b, std::string_view c) {
    return !a.empty() ? a : !b.empty() ? b : c;
  };
  JsonObject object(out);
  object.AddStringField("specversion", "1.0");
  object.AddName("id");
  out->push_back('"');
  oxEventAppendNumber(out, event.event_id);
  out->push_back('"');
  object.AddStringField("source", first_non_empty(source, event.source_name, "/oxEvent"));
  object.AddStringField("type", first_non_empty(event.event_type, "oxEvent.event", ""));
  object.AddName("time");
  out->push_back('"');
  UtcIsoNanoFromNs(event.utc_ns, out);
  out->push_back('"');
  object.AddName("subject");
  out->push_back('"');
  JsonEscape(subject_prefix, out);
  JsonEscape(first_non_empty(event.source_id, event.event_type, "event"), out);
  out->push_back('"');
  object.AddStringField("datacontenttype", "application/json");
  object.AddName("data");
  FormatNativeJsonData(event, out);
  object.Close();
}

}  // namespace oxEventText

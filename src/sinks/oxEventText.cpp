#include "sinks/oxEventText.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <concepts>
#include <cstring>
#include <functional>
#include <tuple>
#include <type_traits>

#include "base/oxEventNumber.h"
#include "base/oxEventSeverity.h"

namespace oxEventText {

namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr std::string_view kApiVersion = "65536";
static_assert(OXEVENT_API_VERSION == 65536);
constexpr int kRoundTripDigits = 17;  // Significant digits; enough to read any double back exactly.

// Returns the character after the backslash in the JSON escape of a byte: 'u' if the byte is escaped in hexadecimal.
constexpr char EscapeLetter(unsigned char byte) {
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

constexpr auto kEscapeLetters = [] {
  std::array<char, 256> letters = {};
  for (size_t byte = 0; byte < letters.size(); ++byte) letters[byte] = EscapeLetter(static_cast<unsigned char>(byte));
  return letters;
}();

// Writes the last `width` decimal digits of `value`, then the separator: width + 1 bytes. Returns the end.
char* WritePadded(uint64_t value, int width, char separator, char* at) {
  for (int i = width; i-- > 0; value /= 10) at[i] = static_cast<char>('0' + value % 10);
  at[width] = separator;
  return at + width + 1;
}

constexpr size_t kUtcSeconds = sizeof("2023-11-14T22:13:20") - 1;
constexpr size_t kUtcNano = kUtcSeconds + sizeof(".000000000Z") - 1;

// Writes a time such as 2023-11-14T22:13:20: kUtcSeconds bytes, without a terminating NUL. Returns the end.
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

// Writes a time such as 2023-11-14T22:13:20.000000000Z: kUtcNano bytes, without a terminating NUL. Returns the end.
char* WriteUtcNano(uint64_t ns, UtcCache* cache, char* at) {
  at = WriteUtcSeconds(ns, cache, at);
  *at++ = '.';
  at = oxEventWriteNineDigits(static_cast<uint32_t>(ns % kNsPerSecond), at);
  *at++ = 'Z';
  return at;
}

constexpr size_t kJsonEscapeSize = sizeof("\\u001f") - 1;

// Needs kJsonEscapeSize bytes at `at` for each byte of the text. Returns the end.
char* WriteJsonEscaped(std::string_view text, char* at) {
  static constexpr char kHex[] = "0123456789abcdef";
  const auto is_special = [](auto byte) { return (byte < 0x20) | (byte == '"') | (byte == '\\'); };
  const auto escape = [](unsigned char byte, char* to) {
    const char letter = kEscapeLetters[byte];
    *to++ = '\\';
    *to++ = letter;
    if (letter != 'u') return to;
    const char code[] = {'0', '0', kHex[byte >> 4], kHex[byte & 0xF]};
    std::memcpy(to, code, sizeof(code));
    return to + sizeof(code);
  };
  return oxEventWriteEscaped(text, is_special, escape, at);
}

// A column of the CSV file. `value` returns its value: a string, a number or a UtcTime.
template <class Value>
struct CsvColumn {
  std::string_view name;
  Value value;
};
template <class Value>
CsvColumn(const char*, Value) -> CsvColumn<Value>;  // clang 14 deduces no template arguments of aggregates.

struct UtcTime {
  uint64_t ns;
};

using Event = oxEventNormalizedEvent;

constexpr std::tuple kCsvColumns = {
    CsvColumn{"version", [](const Event&) { return kApiVersion; }},
    CsvColumn{"event_id", &Event::event_id},
    CsvColumn{"utc_iso", [](const Event& event) { return UtcTime{event.utc_ns}; }},
    CsvColumn{"utc_ns", &Event::utc_ns},
    CsvColumn{"severity", [](const Event& event) { return oxEventSeverityName(event.severity, "unknown"); }},
    CsvColumn{"action", &Event::action},
    CsvColumn{"event_type", &Event::event_type},
    CsvColumn{"source_id", &Event::source_id},
    CsvColumn{"source_name", &Event::source_name},
    CsvColumn{"dedupe_key", &Event::dedupe_key},
    CsvColumn{"correlation_id", &Event::correlation_id},
    CsvColumn{"message", &Event::message},
    CsvColumn{"value", &Event::value},
    CsvColumn{"threshold", &Event::threshold},
    CsvColumn{"units", &Event::units},
    CsvColumn{"duration_ms", &Event::duration_ms},
    CsvColumn{"ptp_ns", &Event::ptp_ns},
    CsvColumn{"pts", &Event::pts},
    CsvColumn{"timecode", &Event::timecode},
    CsvColumn{"details_json", &Event::details_json},
};

// The compiler unrolls the loop over the columns, so it costs nothing at run time.
template <class Visit>
constexpr void ForEachCsvColumn(Visit visit) {
  std::apply([&visit](const auto&... column) { (visit(column), ...); }, kCsvColumns);
}

constexpr size_t kCsvHeaderSize =
    std::apply([](const auto&... column) { return (column.name.size() + ... + sizeof...(column)); }, kCsvColumns);

constexpr std::array<char, kCsvHeaderSize> kCsvHeader = [] {
  std::array<char, kCsvHeaderSize> header = {};
  char* at = header.data();
  ForEachCsvColumn([&at](const auto& column) {
    at = std::copy(column.name.begin(), column.name.end(), at);
    *at++ = ',';
  });
  at[-1] = '\n';
  return header;
}();

// Bytes that suffice for a field. In the worst case a string consists only of quotes: each is doubled, and the field is
// enclosed in two more.
constexpr size_t CsvFieldCapacity(std::string_view text) { return 2 + 2 * text.size(); }
constexpr size_t CsvFieldCapacity(UtcTime) { return kUtcNano; }
template <class Number>
constexpr size_t CsvFieldCapacity(Number) {
  return kOxEventNumberSize;
}

// Writes one field of a CSV row (RFC 4180, section 2). Needs CsvFieldCapacity bytes at `at`. Returns the end.
char* WriteCsvField(std::string_view text, char* at) {
  const auto is_special = [](auto c) { return (c == '"') | (c == ',') | (c == '\n') | (c == '\r'); };
  if (oxEventCopyIfPlain(text, is_special, at)) return at + text.size();
  const auto is_quote = [](auto c) { return c == '"'; };
  const auto write_twice = [](unsigned char quote, char* to) { return std::fill_n(to, 2, static_cast<char>(quote)); };
  *at++ = '"';
  at = oxEventEscapeEach(text, is_quote, write_twice, at);
  *at++ = '"';
  return at;
}

char* WriteCsvField(double value, char* at) { return oxEventWriteNumber(value, kRoundTripDigits, at); }

template <std::integral Integer>
char* WriteCsvField(Integer value, char* at) {
  return oxEventWriteNumber(value, at);
}

}  // namespace

void JsonEscape(std::string_view text, oxEventWriter* out) { out->AddEscaped<kJsonEscapeSize>(text, WriteJsonEscaped); }

void AddJsonString(std::string_view text, oxEventWriter* out) {
  out->Add('"');
  JsonEscape(text, out);
  out->Add('"');
}

char* WriteShortJsonString(std::string_view text, char* at) {
  *at++ = '"';
  at = WriteJsonEscaped(text, at);
  *at++ = '"';
  return at;
}

void DoubleToJson(double value, oxEventWriter* out) {
  if (!std::isfinite(value)) return out->Add("null");
  out->AddNumber(value, kRoundTripDigits);
}

void UtcIsoFromNs(uint64_t ns, oxEventWriter* out, UtcCache* cache) {
  if (ns % kNsPerSecond != 0) return UtcIsoNanoFromNs(ns, out, cache);
  out->Advance(WriteUtcSeconds(ns, cache, out->Room(kUtcSeconds)));
  out->Add('Z');
}

void UtcIsoNanoFromNs(uint64_t ns, oxEventWriter* out, UtcCache* cache) {
  out->Advance(WriteUtcNano(ns, cache, out->Room(kUtcNano)));
}

std::string_view CsvHeader() { return {kCsvHeader.data(), kCsvHeader.size()}; }

size_t CsvRowCapacity(const oxEventNormalizedEvent& event) {
  size_t capacity = 0;
  ForEachCsvColumn(
      [&](const auto& column) { capacity += CsvFieldCapacity(std::invoke(column.value, event)) + sizeof(','); });
  return capacity;
}

char* WriteCsvRow(const oxEventNormalizedEvent& event, char* at, UtcCache* cache) {
  const auto write = [&](auto value) {
    if constexpr (std::is_same_v<decltype(value), UtcTime>) {
      return WriteUtcNano(value.ns, cache, at);
    } else {
      return WriteCsvField(value, at);
    }
  };
  ForEachCsvColumn([&](const auto& column) {
    at = write(std::invoke(column.value, event));
    *at++ = ',';
  });
  at[-1] = '\n';
  return at;
}

namespace {

void AddNativeJsonData(const oxEventNormalizedEvent& event, oxEventWriter* out) {
  const uint64_t severity = event.severity;
  JsonObject object(out);
  object.AddName<"version">();
  out->Add(kApiVersion);
  object.AddField<"event_id">(event.event_id);
  object.AddStringField<"severity">(oxEventSeverityName(event.severity));
  object.AddField<"severity_value">(severity);
  object.AddField<"severity_code">(severity);  // The same value: receivers expect either name.
  object.AddStringField<"action">(event.action);
  object.AddStringField<"event_type">(event.event_type);
  object.AddStringField<"source_id">(event.source_id);
  object.AddStringField<"source_name">(event.source_name);
  object.AddStringField<"dedupe_key">(event.dedupe_key);
  object.AddStringField<"correlation_id">(event.correlation_id);
  object.AddStringField<"message">(event.message);
  object.AddField<"utc_ns">(event.utc_ns);
  object.AddField<"ptp_ns">(event.ptp_ns);
  object.AddField<"pts">(event.pts);
  object.AddStringField<"timecode">(event.timecode);
  object.AddDoubleField<"value">(event.value);
  object.AddDoubleField<"threshold">(event.threshold);
  object.AddStringField<"units">(event.units);
  object.AddField<"duration_ms">(event.duration_ms);
  object.AddStringField<"details_json">(event.details_json);
  object.Close();
}

}  // namespace

void FormatNativeJsonData(const oxEventNormalizedEvent& event, std::string* out) {
  oxEventWriter writer(out);
  AddNativeJsonData(event, &writer);
}

void FormatCloudEventsJson(const oxEventNormalizedEvent& event, std::string_view source,
                           std::string_view subject_prefix, std::string* out) {
  const auto first_non_empty = [](std::string_view a, std::string_view b, std::string_view c) {
    return !a.empty() ? a : !b.empty() ? b : c;
  };
  oxEventWriter writer(out);
  JsonObject object(&writer);
  object.AddStringField<"specversion">("1.0");
  object.AddName<"id">();
  writer.Add('"');
  writer.AddNumber(event.event_id);
  writer.Add('"');
  object.AddStringField<"source">(first_non_empty(source, event.source_name, "/oxEvent"));
  object.AddStringField<"type">(first_non_empty(event.event_type, "oxEvent.event", ""));
  object.AddName<"time">();
  writer.Add('"');
  UtcIsoNanoFromNs(event.utc_ns, &writer);
  writer.Add('"');
  object.AddName<"subject">();
  writer.Add('"');
  JsonEscape(subject_prefix, &writer);
  JsonEscape(first_non_empty(event.source_id, event.event_type, "event"), &writer);
  writer.Add('"');
  object.AddStringField<"datacontenttype">("application/json");
  object.AddName<"data">();
  AddNativeJsonData(event, &writer);
  object.Close();
}

}  // namespace oxEventText

#include "send/fields.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "common/command_line.h"
#include "config/oxEventSettings.h"

namespace {

using R = oxEventRecord;

constexpr Field kFields[] = {
    {"message", nullptr, nullptr, nullptr, &R::message},
    {"severity", "severity", "NAME|NUMBER", "debug, info, warning, error or 0 to 3 (default info)", &R::severity},
    {"action", "action", "STRING",
     "what happens to a condition: raise, update, repeat or clear;\nan event with another action, or none, is passed "
     "on unchanged",
     &R::action},
    {"event_type", "event-type", "STRING", "kind of event (default \"event\")", &R::event_type},
    {"source_id", "source-id", "STRING", "identifier of the source", &R::source_id},
    {"source_name", "source-name", "STRING", "display name of the source (default \"oxEvent\")", &R::source_name},
    {"dedupe_key", "dedupe-key", "STRING", "identifies the condition (default SOURCE-ID:EVENT-TYPE)", &R::dedupe_key},
    {"correlation_id", "correlation-id", "STRING", "links related events", &R::correlation_id},
    {"utc_ns", "utc", "TIME|NS",
     "time of the event: RFC 3339 (2026-03-01T12:00:00.5Z) or\nnanoseconds since 1970 (0, the default: now)",
     &R::utc_ns},
    {"ptp_ns", "ptp-ns", "NS", "PTP time in nanoseconds (0, the default: now, in UTC)", &R::ptp_ns},
    {"pts", "pts", "NUMBER", "media presentation timestamp; may be negative", &R::pts},
    {"timecode", "timecode", "STRING", "media time code", &R::timecode},
    {"value", "value", "NUMBER", "measured value", &R::value},
    {"threshold", "threshold", "NUMBER", "limit that the value was compared with", &R::threshold},
    {"units", "units", "STRING", "units of value and threshold", &R::units},
    {"duration_ms", "duration-ms", "MS", "duration in milliseconds", &R::duration_ms},
    {"details_json", "details-json", "JSON", "further details, passed on without being parsed (default {})",
     &R::details_json},
    {"event_id", "event-id", "NUMBER",
     "identifier; 0 (the default): the library assigns the\nnext number, beginning with 1", &R::event_id}};

constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int64_t kSecondsPerDay = 86'400;
constexpr int64_t kSecondsEnd = 18'446'744'073;  // From here on, nanoseconds may overflow 64 bits.

// Parses a string from the front. A mismatch clears `good`; what is taken then has no meaning.
struct Cursor {
  std::string_view rest;
  bool good = true;

  char TakeOneOf(std::string_view characters) {
    good = good && !rest.empty() && characters.find(rest[0]) != characters.npos;
    if (!good) return '\0';
    const char taken = rest[0];
    rest.remove_prefix(1);
    return taken;
  }
  int TakeNumber(size_t digits) {
    int number = 0;
    for (size_t i = 0; i < digits; ++i) number = number * 10 + (TakeOneOf("0123456789") - '0');
    return number;
  }
  std::chrono::minutes TakeHoursAndMinutes() {
    const int hours = TakeNumber(2);
    TakeOneOf(":");
    const int minutes = TakeNumber(2);
    good = good && hours < 24 && minutes < 60;
    return std::chrono::hours(hours) + std::chrono::minutes(minutes);
  }
};

// Parses nanoseconds since 1970, or an RFC 3339 time (section 5.6) with up to nine fractional digits.
uint64_t ParseUtc(std::string_view text) {
  if (text.find_first_not_of("0123456789") == text.npos) return ParseNumber<uint64_t>(text);
  Cursor cursor{text};
  const std::chrono::year year(cursor.TakeNumber(4));
  cursor.TakeOneOf("-");
  const std::chrono::month month(static_cast<unsigned>(cursor.TakeNumber(2)));
  cursor.TakeOneOf("-");
  const std::chrono::year_month_day date(year, month, std::chrono::day(static_cast<unsigned>(cursor.TakeNumber(2))));
  cursor.TakeOneOf("Tt ");
  std::chrono::sys_seconds time = std::chrono::sys_days(date) + cursor.TakeHoursAndMinutes();
  cursor.TakeOneOf(":");
  const int second = cursor.TakeNumber(2);
  time += std::chrono::seconds(second);
  int64_t fraction = 0;
  if (cursor.rest.starts_with('.')) {
    cursor.TakeOneOf(".");
    int64_t unit = kNsPerSecond / 10;
    do {
      fraction += unit * cursor.TakeNumber(1);
      unit /= 10;
    } while (unit > 0 && !cursor.rest.empty() && cursor.rest[0] >= '0' && cursor.rest[0] <= '9');
  }
  const char zone = cursor.TakeOneOf("Zz+-");
  if (zone == '+') time -= cursor.TakeHoursAndMinutes();
  if (zone == '-') time += cursor.TakeHoursAndMinutes();
  const int64_t seconds = time.time_since_epoch().count();
  // A leap second is the last second of a UTC day.
  const bool good_second = second < 60 || (second == 60 && seconds % kSecondsPerDay == 0);
  if (!cursor.good || !cursor.rest.empty() || !date.ok() || !good_second || seconds < 0 || seconds >= kSecondsEnd) {
    throw std::invalid_argument("'" + std::string(text) +
                                "' is neither a time such as 2026-03-01T12:00:00Z, from 1970 to 2554, nor nanoseconds");
  }
  return static_cast<uint64_t>(seconds) * kNsPerSecond + static_cast<uint64_t>(fraction);
}

}  // namespace

const std::span<const Field> g_fields = kFields;

const Field* FindField(std::string_view name) {
  const auto found = std::find_if(g_fields.begin(), g_fields.end(), [name](const Field& f) { return f.name == name; });
  return found == g_fields.end() ? nullptr : &*found;
}

uint32_t ParseSeverity(std::string_view text) {
  if (const auto named = oxEventFindWord(g_oxEventSeverityWords, text)) return *named;
  try {
    return ParseNumber<uint32_t>(text, OXEVENT_SEVERITY_DEBUG, OXEVENT_SEVERITY_ERROR);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument("'" + std::string(text) + "' is not one of debug, info, warning, error or 0 to 3");
  }
}

void SetField(const Field& field, const char* text, oxEventRecord* record) {
  struct {
    const char* text;
    oxEventRecord& record;
    void operator()(const char* oxEventRecord::*member) const { record.*member = text; }
    void operator()(uint32_t oxEventRecord::*member) const { record.*member = ParseSeverity(text); }
    void operator()(uint64_t oxEventRecord::*member) const {
      record.*member = member == &R::utc_ns ? ParseUtc(text) : ParseNumber<uint64_t>(text);
    }
    void operator()(int64_t oxEventRecord::*member) const { record.*member = ParseNumber<int64_t>(text); }
    void operator()(double oxEventRecord::*member) const { record.*member = ParseNumber<double>(text); }
  } const set = {text, *record};
  std::visit(set, field.member);
}

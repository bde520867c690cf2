// Helpers for the fuzz targets, each of which compares the library with an independent model.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventSeverity.h"

using Input = FuzzedDataProvider;

// A normalized event that owns its strings.
struct Event {
  uint64_t event_id = 0;
  std::string event_type, source_id, source_name, message;
  uint32_t severity = OXEVENT_SEVERITY_INFO;
  std::string action, dedupe_key, correlation_id;
  uint64_t utc_ns = 0, ptp_ns = 0;
  int64_t pts = 0;
  std::string timecode;
  double value = 0.0, threshold = 0.0;
  std::string units;
  uint64_t duration_ms = 0;
  std::string details_json;

  Event() = default;
  explicit Event(const oxEventNormalizedEvent& from);
  operator oxEventNormalizedEvent() const;
  oxEventRecord ToPublicView() const { return oxEventNormalizedEvent(*this).ToPublicView(); }
};

template <class A, class B>
void CheckEqual(const char* file, int line, const char* what, const A& a, const B& b) {
  if (a == b) return;
  std::cerr << file << ':' << line << ": " << what << ":\n  " << a << "\n  " << b << std::endl;
  abort();  // libFuzzer reports the input as a finding.
}
#define CHECK_EQ(a, b) CheckEqual(__FILE__, __LINE__, #a " == " #b, a, b)
#define CHECK(condition) CheckEqual(__FILE__, __LINE__, #condition, static_cast<bool>(condition), true)

struct StringField {
  const char* name;
  size_t offset;  // Offset in oxEventRecord.
  std::string Event::*field;
  std::string_view oxEventNormalizedEvent::*view;
  const char* absent;  // Value of an absent field; null if the field is required.
};
inline constexpr StringField kStringFields[] = {
    {"event_type", 16, &Event::event_type, &oxEventNormalizedEvent::event_type, "event"},
    {"source_id", 24, &Event::source_id, &oxEventNormalizedEvent::source_id, ""},
    {"source_name", 32, &Event::source_name, &oxEventNormalizedEvent::source_name, "oxEvent"},
    {"message", 40, &Event::message, &oxEventNormalizedEvent::message, nullptr},
    {"action", 56, &Event::action, &oxEventNormalizedEvent::action, ""},
    {"dedupe_key", 64, &Event::dedupe_key, &oxEventNormalizedEvent::dedupe_key, ""},
    {"correlation_id", 72, &Event::correlation_id, &oxEventNormalizedEvent::correlation_id, ""},
    {"timecode", 104, &Event::timecode, &oxEventNormalizedEvent::timecode, ""},
    {"units", 128, &Event::units, &oxEventNormalizedEvent::units, ""},
    {"details_json", 144, &Event::details_json, &oxEventNormalizedEvent::details_json, "{}"}};

template <class From, class To>
void CopyNumbers(const From& from, To* to) {
  to->event_id = from.event_id;
  to->severity = from.severity;
  to->utc_ns = from.utc_ns;
  to->ptp_ns = from.ptp_ns;
  to->pts = from.pts;
  to->value = from.value;
  to->threshold = from.threshold;
  to->duration_ms = from.duration_ms;
}

inline Event::Event(const oxEventNormalizedEvent& from) {
  CopyNumbers(from, this);
  for (const StringField& field : kStringFields) this->*field.field = from.*field.view;
}

inline Event::operator oxEventNormalizedEvent() const {
  oxEventNormalizedEvent view;
  CopyNumbers(*this, &view);
  for (const StringField& field : kStringFields) view.*field.view = this->*field.field;
  return view;
}

// Formats like printf.
std::string Format(const char* format, auto... values) {
  char text[2048];
  return {text, static_cast<size_t>(snprintf(text, sizeof text, format, values...))};
}

// The fields of an event as strings, by their names in the output formats.
inline std::map<std::string, std::string> FieldsOf(const Event& e, const char* double_format = "%.17g") {
  std::map<std::string, std::string> fields;
  for (const StringField& field : kStringFields) fields[field.name] = e.*field.field;
  fields["version"] = "65536";
  fields["event_id"] = std::to_string(e.event_id);
  fields["severity"] = oxEventSeverityName(e.severity);
  fields["severity_value"] = fields["severity_code"] = std::to_string(e.severity);
  fields["utc_ns"] = std::to_string(e.utc_ns);
  fields["ptp_ns"] = std::to_string(e.ptp_ns);
  fields["pts"] = std::to_string(e.pts);
  fields["value"] = Format(double_format, e.value);
  fields["threshold"] = Format(double_format, e.threshold);
  fields["duration_ms"] = std::to_string(e.duration_ms);
  return fields;
}

// A string of any bytes except NUL, sometimes longer than a length limit of an output format.
inline std::string AnyString(Input& in) {
  constexpr size_t kLong[] = {33, 65, 129, 257, 2049, 8193};
  std::string text = in.ConsumeRandomLengthString(40);
  std::erase(text, '\0');
  const size_t length = in.ConsumeIntegral<uint8_t>() < 240 ? 0 : in.PickValueInArray(kLong);
  for (const std::string once = text; !once.empty() && text.size() < length;) text += once;
  return text;
}

inline double AnyNumber(Input& in) {
  constexpr double kSpecial[] = {-0.0,     1.5,    0.1,      -1234567.0, 1e100, 100000.0,
                                 999999.5, 5e-324, INFINITY, -INFINITY,  NAN};
  return in.ConsumeBool() ? in.PickValueInArray(kSpecial) : in.ConsumeFloatingPoint<double>();
}

inline Event AnyEvent(Input& in) {
  Event event;
  event.event_id = in.ConsumeIntegral<uint64_t>();
  event.severity = in.ConsumeIntegralInRange<uint32_t>(0, 3);
  event.utc_ns = in.ConsumeIntegral<uint64_t>();
  if (in.ConsumeBool()) event.utc_ns -= event.utc_ns % 1'000'000'000;
  event.ptp_ns = in.ConsumeIntegral<uint64_t>();
  event.pts = in.ConsumeIntegral<int64_t>();
  event.value = AnyNumber(in);
  event.threshold = AnyNumber(in);
  event.duration_ms = in.ConsumeIntegral<uint64_t>();
  for (const StringField& field : kStringFields) event.*field.field = AnyString(in);
  return event;
}

// A temporary directory in memory, removed at exit.
struct TemporaryDirectory {
  ~TemporaryDirectory() { std::filesystem::remove_all(path); }
  const std::string path = mkdtemp(std::string("/dev/shm/oxevent_fuzz_XXXXXX").data());
};

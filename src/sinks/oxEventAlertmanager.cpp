#include "sinks/oxEventAlertmanager.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <string_view>

#include "base/oxEventAscii.h"
#include "base/oxEventWriter.h"
#include "sinks/oxEventText.h"

namespace {

using oxEventText::JsonEscape;
using oxEventText::JsonObject;

constexpr int kDisplayDigits = 6;  // Significant digits of a double in an annotation.

bool IsResolved(std::string_view action) {
  constexpr std::string_view kResolved[] = {"clear", "resolve", "resolved"};
  const auto equals = [action](std::string_view word) {
    return std::equal(action.begin(), action.end(), word.begin(), word.end(),
                      [](char a, char b) { return oxEventAsciiLower(a) == b; });
  };
  return std::any_of(std::begin(kResolved), std::end(kResolved), equals);
}

// Joins the prefix and the words of the event type, each capitalized: OxEventDiskUsageHigh.
void AddAlertName(std::string_view prefix, std::string_view event_type, oxEventWriter* out) {
  const size_t begin = out->Size();
  for (const char c : prefix) {
    if (oxEventAsciiIsAlnum(c) || c == '_') out->Add(c);
  }
  if (out->Size() == begin) out->Add("OxEvent");
  const size_t words = out->Size();
  bool in_word = false;
  for (const char c : event_type) {
    const bool starts = !in_word;
    in_word = oxEventAsciiIsAlnum(c);
    if (in_word) out->Add(starts ? oxEventAsciiUpper(c) : oxEventAsciiLower(c));
  }
  if (out->Size() == words) out->Add("Event");
}

// Adds the string as a label value that is easy to query: in lower case, without special characters.
void AddLabelValue(std::string_view text, std::string_view fallback, oxEventWriter* out) {
  char* const begin = out->Room(text.size());
  char* end = begin;
  bool in_run = false;  // Within a run of special characters, which becomes one "_".
  for (const char c : text) {
    const bool kept = oxEventAsciiIsAlnum(c) || c == '_' || c == '.' || c == ':' || c == '-';
    if (kept) *end++ = oxEventAsciiLower(c);
    if (!kept && !in_run) *end++ = '_';
    in_run = !kept;
  }
  while (end != begin && end[-1] == '_') --end;
  if (end != begin && *begin == '_') end = std::copy(begin + 1, end, begin);
  if (end == begin) return out->Add(fallback);
  out->Advance(end);
}

std::string_view AlertSeverity(uint32_t severity) {
  if (severity == OXEVENT_SEVERITY_WARNING) return "warning";
  return severity == OXEVENT_SEVERITY_ERROR ? "critical" : "info";
}

// Takes linear time, unlike std::string::find: the host passes strings of any length.
bool Contains(std::string_view text, std::string_view part) {
  return memmem(text.data(), text.size(), part.data(), part.size()) != nullptr;
}

// Adds a string member, whose value `add` escapes and adds.
template <oxEventText::JsonName kName, class Add>
void AddString(JsonObject* object, oxEventWriter* out, Add add) {
  object->AddName<kName>();
  out->Add('"');
  add();
  out->Add('"');
}

void AddLabels(const oxEventNormalizedEvent& event, const oxEventAlertmanagerFormatterConfig& config,
               oxEventWriter* out) {
  JsonObject labels(out);
  AddString<"alertname">(&labels, out, [&] { AddAlertName(config.alertname_prefix, event.event_type, out); });
  labels.AddStringField<"severity">(AlertSeverity(event.severity));
  AddString<"event_type">(&labels, out, [&] { AddLabelValue(event.event_type, "event", out); });
  labels.AddStringField<"action">("raise");  // For a clear too: a different label would identify a different alert.
  if (config.allow_source_label && !event.source_id.empty()) {
    AddString<"source_id">(&labels, out, [&] { AddLabelValue(event.source_id, "source", out); });
  }
  labels.Close();
}

void AddAnnotations(const oxEventNormalizedEvent& event, oxEventWriter* out) {
  JsonObject annotations(out);
  annotations.AddStringField<"summary">(event.message.empty() ? event.event_type : event.message);
  AddString<"description">(&annotations, out, [&] {
    JsonEscape(event.message, out);
    if (event.source_name.empty() || Contains(event.message, event.source_name)) return;
    out->Add(" on ");
    JsonEscape(event.source_name, out);
  });
  AddString<"ox_event_id">(&annotations, out, [&] { out->AddNumber(event.event_id); });
  AddString<"ox_dedupe_key">(&annotations, out, [&] {
    if (!event.dedupe_key.empty()) return JsonEscape(event.dedupe_key, out);
    JsonEscape(event.event_type, out);
    if (event.source_id.empty()) return;
    out->Add(':');
    JsonEscape(event.source_id, out);
  });
  annotations.AddStringField<"ox_source_name">(event.source_name);
  annotations.AddStringField<"ox_units">(event.units);
  const auto add_number = [out](double value) {
    if (std::isfinite(value)) out->AddNumber(value, kDisplayDigits);
  };
  AddString<"ox_value">(&annotations, out, [&] { add_number(event.value); });
  AddString<"ox_threshold">(&annotations, out, [&] { add_number(event.threshold); });
  annotations.Close();
}

}  // namespace

void oxEventFormatAlertmanagerAlert(const oxEventNormalizedEvent& event,
                                    const oxEventAlertmanagerFormatterConfig& config, std::string* out,
                                    oxEventText::UtcCache* cache) {
  const bool resolved = IsResolved(event.action);
  out->assign(resolved && !config.send_resolved ? "[]" : "[");
  if (resolved && !config.send_resolved) return;
  oxEventWriter writer(out);
  JsonObject alert(&writer);
  alert.AddName<"labels">();
  AddLabels(event, config, &writer);
  alert.AddName<"annotations">();
  AddAnnotations(event, &writer);
  const auto add_time = [&] { oxEventText::UtcIsoFromNs(event.utc_ns, &writer, cache); };
  AddString<"startsAt">(&alert, &writer, add_time);
  if (resolved) AddString<"endsAt">(&alert, &writer, add_time);
  alert.Close();
  writer.Add(']');
}

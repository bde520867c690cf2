#include "base/oxEventNativeMessage.h"

#include "base/oxEventSeverity.h"
#include "base/oxEventWriter.h"

void oxEventFormatNativeMessage(const oxEventNormalizedEvent& event, std::string_view ident, std::string* message) {
  message->clear();
  oxEventWriter writer(message);
  const auto add = [&writer](std::string_view name, std::string_view value) {
    writer.Add(name);
    writer.Add(value);
  };
  const auto add_or_dash = [&add](std::string_view name, std::string_view value) {
    add(name, value.empty() ? "-" : value);
  };
  const auto add_if_given = [&add](std::string_view name, std::string_view value) {
    if (!value.empty()) add(name, value);
  };
  writer.Add("oxEvent event_id=");
  writer.AddNumber(event.event_id);
  add(" severity=", oxEventSeverityName(event.severity));
  add_or_dash(" action=", event.action);
  add_or_dash(" event_type=", event.event_type);
  add_or_dash(" source_id=", event.source_id);
  add_or_dash(" source_name=", event.source_name);
  add(" native_source=", ident);
  add(" message=\"", event.message);
  writer.Add('"');
  add_if_given(" dedupe_key=", event.dedupe_key);
  add_if_given(" correlation_id=", event.correlation_id);
  add_if_given(" details_json=", event.details_json);
}

// Prints each event as one line of JSON, as a container's log expects it: oxevent-json-lines SETTINGS.xml
// The line is the document that the webhook posts. Reports each line of standard input as an event, except empty ones.
#include <oxEvent.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

void AppendString(std::string_view text, std::string* line) {  // RFC 8259, section 7.
  constexpr std::string_view kEscaped = "\"\\\b\f\n\r\t";
  constexpr std::string_view kLetters = "\"\\bfnrt";
  line->push_back('"');
  for (const char c : text) {
    const size_t index = kEscaped.find(c);
    if (index != std::string_view::npos) {
      line->append({'\\', kLetters[index]});
    } else if (static_cast<unsigned char>(c) < ' ') {
      char escape[7];
      std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(c));
      line->append(escape);
    } else {
      line->push_back(c);
    }
  }
  line->push_back('"');
}

void AppendNumber(double value, std::string* line) {
  if (!std::isfinite(value)) {
    line->append("null");
    return;
  }
  char digits[32];
  line->append(digits, std::to_chars(digits, std::end(digits), value, std::chars_format::general, 17).ptr);
}

std::string FormatLine(const oxEventRecord& event) {
  constexpr std::string_view kSeverities[] = {"debug", "info", "warning", "error"};
  std::string line;
  const auto add_name = [&](std::string_view name) {
    line.push_back(line.empty() ? '{' : ',');
    AppendString(name, &line);
    line.push_back(':');
  };
  const auto add_text = [&](std::string_view name, std::string_view text) {
    add_name(name);
    AppendString(text, &line);
  };
  const auto add_integer = [&](std::string_view name, auto value) {
    add_name(name);
    line.append(std::to_string(value));
  };
  const auto add_number = [&](std::string_view name, double value) {
    add_name(name);
    AppendNumber(value, &line);
  };
  add_integer("version", event.version);
  add_integer("event_id", event.event_id);
  add_text("severity", kSeverities[event.severity]);
  add_integer("severity_value", event.severity);
  add_integer("severity_code", event.severity);
  add_text("action", event.action);
  add_text("event_type", event.event_type);
  add_text("source_id", event.source_id);
  add_text("source_name", event.source_name);
  add_text("dedupe_key", event.dedupe_key);
  add_text("correlation_id", event.correlation_id);
  add_text("message", event.message);
  add_integer("utc_ns", event.utc_ns);
  add_integer("ptp_ns", event.ptp_ns);
  add_integer("pts", event.pts);
  add_text("timecode", event.timecode);
  add_number("value", event.value);
  add_number("threshold", event.threshold);
  add_text("units", event.units);
  add_integer("duration_ms", event.duration_ms);
  add_text("details_json", event.details_json);
  line.append("}\n");
  return line;
}

// Runs on the library's worker thread. One fwrite per line, so that the output of other
// threads is not interleaved with it.
void PrintLine(const oxEventRecord* event, void* /*user_data*/) {
  const std::string line = FormatLine(*event);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

int Fail(const char* call) {
  char error[512];
  oxEventGetLastError(error, sizeof(error));
  std::fprintf(stderr, "oxevent-json-lines: %s: %s\n", call, error);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t id = 0;
  if (argc != 2) {
    std::fputs("Usage: oxevent-json-lines SETTINGS.xml < MESSAGES\n", stderr);
    return 2;
  }
  if (oxEventRegisterCallback(PrintLine, nullptr, &id) != OXEVENT_OK) return Fail("register");
  if (oxEventInitialize(argv[1]) != OXEVENT_OK) return Fail("initialize");
  for (std::string message; std::getline(std::cin, message);) {
    if (*message.c_str() == '\0') continue;  // The library accepts no empty message.
    if (oxEventSubmitSimple(0, OXEVENT_SEVERITY_WARNING, "stdin", message.c_str()) != OXEVENT_OK) return Fail("submit");
  }
  if (oxEventShutdown() != OXEVENT_OK) return Fail("shutdown");
  return 0;
}

// Formats any event as JSON, CSV row, syslog message and HTTP request, and checks the results with separate parsers.
#include <cmath>
#include <ctime>
#include <iterator>
#include <memory>

#include "datagrams.h"
#include "oxutil.h"
#include "sinks/oxEventAlertmanager.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventText.h"

namespace {

std::string g_headers;
std::string g_body;

using Strings = std::vector<std::string>;

// Parses a JSON document strictly, without white space, into a list of members "path=value". A string's value begins
// with a quote.
class Json {
 public:
  explicit Json(std::string_view text) : rest_(text) {
    ParseValue("");
    CHECK_EQ(rest_, "");
  }
  Strings members;

 private:
  char Next() {
    CHECK(!rest_.empty());
    const char c = rest_[0];
    rest_.remove_prefix(1);
    return c;
  }
  bool Skip(std::string_view text) {
    const bool found = rest_.starts_with(text);
    if (found) rest_.remove_prefix(text.size());
    return found;
  }
  void Expect(std::string_view text) { CHECK(Skip(text)); }
  std::string ParseString() {
    std::string text;
    Expect("\"");
    for (char c = Next(); c != '"'; c = Next()) {
      CHECK(static_cast<uint8_t>(c) >= 0x20);
      text += c == '\\' ? ParseEscape() : c;
    }
    return text;
  }
  char ParseEscape() {
    constexpr std::string_view kNames = "\"\\/bfnrt", kBytes = "\"\\/\b\f\n\r\t";
    if (rest_[0] != 'u') return kBytes.at(kNames.find(Next()));
    Expect("u00");  // Only control characters are escaped like this.
    const std::string hex = {Next(), Next()};
    CHECK(hex.find_first_not_of("0123456789abcdef") == hex.npos);
    return static_cast<char>(std::stoi(hex, nullptr, 16));
  }
  void ParseDigits() {
    const size_t count = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
    CHECK(count > 0);
    rest_.remove_prefix(count);
  }
  void ParseNumber() {
    Skip("-");
    if (!Skip("0")) ParseDigits();
    if (Skip(".")) ParseDigits();
    if (!Skip("e")) return;
    if (!Skip("+")) Skip("-");
    ParseDigits();
  }
  void ParseValue(const std::string& path) {
    const std::string_view begin = rest_;
    if (rest_.starts_with('"')) return members.push_back(path + "=\"" + ParseString());
    if (Skip("{}") || Skip("[]")) return;
    const bool is_list = Skip("[");
    if (is_list || Skip("{")) {
      do {
        const std::string name = is_list ? "" : ParseString();
        if (!is_list) Expect(":");
        ParseValue(path + "/" + name);
      } while (Skip(","));
      return Expect(is_list ? "]" : "}");
    }
    if (!Skip("null")) ParseNumber();
    members.push_back(path + "=" + std::string(begin.substr(0, begin.size() - rest_.size())));
  }
  std::string_view rest_;
};

void CheckSame(const Strings& found, const Strings& expected) {
  for (size_t i = 0; i < std::min(found.size(), expected.size()); ++i) CHECK_EQ(found[i], expected[i]);
  CHECK_EQ(found.size(), expected.size());
}

std::string FormatTime(uint64_t ns, bool short_if_whole = false) {
  const auto seconds = static_cast<time_t>(ns / 1'000'000'000);
  tm utc = {};
  char text[32] = "";
  CHECK(gmtime_r(&seconds, &utc) != nullptr && strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc) != 0);
  return text +
         (short_if_whole && ns % 1'000'000'000 == 0 ? "Z" : Format(".%09dZ", static_cast<int>(ns % 1'000'000'000)));
}

Strings SplitWords(const char* text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words), {}};
}

// The expected members of an event as native JSON. In `names`, a quote marks a string member.
Strings NativeMembers(const std::string& path, const Event& event) {
  static const Strings names = SplitWords(
      "version event_id 'severity severity_value severity_code 'action 'event_type 'source_id 'source_name 'dedupe_key "
      "'correlation_id 'message utc_ns ptp_ns pts 'timecode value threshold 'units duration_ms 'details_json");
  auto fields = FieldsOf(event);
  if (!std::isfinite(event.value)) fields["value"] = "null";
  if (!std::isfinite(event.threshold)) fields["threshold"] = "null";
  Strings members;
  for (std::string name : names) {
    const bool is_string = name[0] == '\'';
    if (is_string) name.erase(0, 1);
    members.push_back(path + "/" + name + (is_string ? "=\"" : "=") + fields[name]);
  }
  return members;
}

std::string Or(const std::string& text, const std::string& if_empty) { return text.empty() ? if_empty : text; }

Strings CloudEventsMembers(const Event& e, const std::string& source, const std::string& prefix) {
  Strings members = NativeMembers("/data", e);
  const std::string head[] = {"specversion=\"1.0",
                              "id=\"" + std::to_string(e.event_id),
                              "source=\"" + source,
                              "type=\"" + Or(e.event_type, "oxEvent.event"),
                              "time=\"" + FormatTime(e.utc_ns),
                              "subject=\"" + prefix + Or(e.source_id, Or(e.event_type, "event")),
                              "datacontenttype=\"application/json"};
  for (size_t i = 0; i < std::size(head); ++i) members.insert(members.begin() + static_cast<long>(i), "/" + head[i]);
  return members;
}

void CheckCsv(const Event& event) {
  static const Strings names = SplitWords(
      "version event_id time utc_ns severity action event_type source_id source_name dedupe_key correlation_id message "
      "value threshold units duration_ms ptp_ns pts timecode details_json");
  auto fields = FieldsOf(event);
  fields["time"] = FormatTime(event.utc_ns);
  std::string row;
  row.resize(oxEventText::CsvRowCapacity(event));
  row.resize(static_cast<size_t>(oxEventText::WriteCsvRow(event, row.data()) - row.data()));
  size_t at = 0;
  for (const std::string& name : names) {
    std::string field;
    if (row.at(at) == '"') {
      ++at;
      while (row.at(at) != '"' || row.at(at + 1) == '"') {
        if (row[at] == '"') ++at;  // The first of two quotes.
        field += row[at];
        ++at;
      }
      ++at;
    } else {
      const size_t end = row.find_first_of(",\"\r\n", at);
      field = row.substr(at, end - at);
      at = end;
    }
    CHECK_EQ(name + "=" + field, name + "=" + fields[name]);
    CHECK_EQ(row.at(at++), name == names.back() ? '\n' : ',');
  }
  CHECK_EQ(at, row.size());
}

void CheckAlert(const Event& e, Input& in) {
  const oxEventAlertmanagerFormatterConfig config = {in.ConsumeBool(), in.ConsumeBool(), AnyString(in)};
  std::string text;
  oxEventFormatAlertmanagerAlert(e, config, &text);
  const auto is_action = [&](const char* action) { return strcasecmp(e.action.c_str(), action) == 0; };
  const bool resolved = is_action("clear") || is_action("resolve") || is_action("resolved");
  if (resolved && !config.send_resolved) return CHECK_EQ(text, "[]");
  const Strings found = Json(text).members;

  Strings expected;
  const auto label = [&](const std::string& name, const char* more) {  // Checks the characters, not the value.
    const std::string start = "//labels/" + name + "=\"";
    const std::string& member = found.at(expected.size());
    CHECK(member.starts_with(start) && member.size() > start.size());
    for (const char c : member.substr(start.size())) CHECK(islower(c) || isdigit(c) || strchr(more, c) != nullptr);
    expected.push_back(member);
  };
  label("alertname", "ABCDEFGHIJKLMNOPQRSTUVWXYZ_");
  expected.emplace_back(std::string("//labels/severity=\"") + SplitWords("info info warning critical")[e.severity]);
  label("event_type", "_.:-");
  expected.emplace_back("//labels/action=\"raise");
  if (config.allow_source_label && !e.source_id.empty()) label("source_id", "_.:-");
  const bool names_source = e.message.find(e.source_name) != e.message.npos;
  const auto number = [](double value) { return std::isfinite(value) ? Format("%g", value) : ""; };
  const std::string annotations[] = {
      "summary=\"" + Or(e.message, e.event_type),
      "description=\"" + e.message + (names_source ? "" : " on " + e.source_name),
      "ox_event_id=\"" + std::to_string(e.event_id),
      "ox_dedupe_key=\"" + Or(e.dedupe_key, e.event_type + (e.source_id.empty() ? "" : ":" + e.source_id)),
      "ox_source_name=\"" + e.source_name,
      "ox_units=\"" + e.units,
      "ox_value=\"" + number(e.value),
      "ox_threshold=\"" + number(e.threshold)};
  for (const std::string& annotation : annotations) expected.push_back("//annotations/" + annotation);
  expected.push_back("//startsAt=\"" + FormatTime(e.utc_ns, true));
  if (resolved) expected.push_back("//endsAt=\"" + FormatTime(e.utc_ns, true));
  CheckSame(found, expected);
}

std::string Token(std::string text, size_t max_length) {
  text.resize(std::min(text.size(), max_length));
  for (char& c : text) c = c > ' ' && c < 127 ? c : '_';
  return Or(text, "-");
}

void CheckSyslog(const Event& event, Input& in) {
  static const Strings names = SplitWords(
      "version event_id severity action event_type source_id source_name dedupe_key correlation_id utc_ns ptp_ns pts "
      "timecode value threshold units duration_ms details_json");
  constexpr std::pair<const char*, int> kFacilities[] = {{"kern", 0}, {"LOCAL7", 23}, {"local8", 16}, {"cron", 9}};
  constexpr int kSeverities[] = {7, 6, 4, 3};
  const auto& [facility, code] = in.PickValueInArray(kFacilities);
  oxEventSinkConfig config;
  config.minimum_severity = 0;
  config.facility = facility;
  config.app_name = AnyString(in);
  std::shared_ptr<oxEventSink> sink;
  CHECK_EQ(oxEventCreateSyslogUdpSink(config, &sink, nullptr), OXEVENT_OK);
  g_sent.clear();
  CHECK_EQ(sink->Submit(event, nullptr, nullptr), OXEVENT_OK);
  CHECK_EQ(g_sent.size(), 1u);
  std::string_view line = g_sent[0];
  CHECK(line.size() <= 8192);
  if (line.size() == 8192) return;  // It may have been truncated.
  const auto expect = [&line](const std::string& text) {
    CHECK_EQ(line.substr(0, text.size()), text);
    line.remove_prefix(text.size());
  };
  char host[255] = "";
  gethostname(host, sizeof host);
  expect("<" + std::to_string(code * 8 + kSeverities[event.severity]) + ">1 " + FormatTime(event.utc_ns) + " ");
  expect(Token(host, 255) + " " + Token(Or(config.app_name, "oxEvent"), 48) + " " + std::to_string(getpid()) + " ");
  expect(Token(event.event_type, 32) + " [velmora@32473");
  auto fields = FieldsOf(event, "%g");
  for (const std::string& name : names) {
    expect(" " + name + "=\"");
    std::string value;
    for (; line.at(0) != '"'; line.remove_prefix(1)) {
      CHECK(line[0] != ']');
      if (line[0] == '\\') line.remove_prefix(1);
      value += line.at(0);
    }
    CHECK_EQ(value, fields[name]);
    expect("\"");
  }
  expect("] ");
  CHECK_EQ(line, event.message);
}

std::string FromBase64(const std::string& text) {
  constexpr std::string_view kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  CHECK_EQ(text.size() % 4, 0u);
  std::string bytes;
  uint32_t bits = 0;
  for (size_t i = 0; i < text.size() && text[i] != '='; ++i) {
    CHECK(kDigits.find(text[i]) != kDigits.npos);
    bits = bits << 6 | static_cast<uint32_t>(kDigits.find(text[i]));
    if (i % 4 != 0) bytes += static_cast<char>(bits >> (6 - i % 4 * 2));
  }
  return bytes;
}

void CheckWebhook(const Event& event, Input& in) {
  oxEventSinkConfig config;
  config.type = in.ConsumeBool() ? oxEventSinkType::kWebhookHttp : oxEventSinkType::kCloudEventsHttp;
  config.minimum_severity = 0;
  config.endpoint_url = "http://127.0.0.1/";
  config.payload_mode = in.ConsumeBool() ? "native_json" : "CloudEvents";
  config.cloudevents_source = AnyString(in);
  config.cloudevents_subject_prefix = AnyString(in);
  config.basic_username = AnyString(in);
  config.basic_password = AnyString(in);
  for (std::string* text : {&config.headers, &config.bearer_token}) {
    *text = AnyString(in);
    std::erase_if(*text, [](char c) { return c < 0; });  // The byte that separates the headers is one of these.
  }
  std::shared_ptr<oxEventSink> sink;
  CHECK_EQ(oxEventCreateHttpSink(config, &sink, nullptr), OXEVENT_OK);
  g_headers.clear();
  const uint32_t result = sink->Submit(event, nullptr, nullptr);
  if (config.bearer_token.find_first_of("\r\n") != std::string::npos) {  // A line break would start another header.
    return CHECK(result == OXEVENT_FAILURE && g_headers.empty());
  }
  CHECK_EQ(result, OXEVENT_OK);
  const bool native = config.type == oxEventSinkType::kWebhookHttp && config.payload_mode == "native_json";
  CheckSame(Json(g_body).members, native ? NativeMembers("", event)
                                         : CloudEventsMembers(event, Or(config.cloudevents_source, "/oxEvent"),
                                                              config.cloudevents_subject_prefix));

  Strings expected = {
      std::string("Content-Type: application/") + (native ? "json" : "cloudevents+json") + "; charset=utf-8",
      "Accept: application/json", "User-Agent: oxEvent/1.0", "X-oxEvent-TLS-Verify: 1",
      "X-oxEvent-Connect-Timeout-Ms: 2000"};
  for (char& c : config.headers) c = c == '\r' || c == '|' ? '\n' : c;
  std::istringstream lines(config.headers), headers(g_headers);
  for (std::string line; std::getline(lines, line);) {
    while (!line.empty() && isspace(line.back()) != 0) line.pop_back();
    while (!line.empty() && isspace(line.front()) != 0) line.erase(0, 1);
    if (!line.empty()) expected.push_back(line);
  }
  if (!config.bearer_token.empty()) expected.push_back("Authorization: Bearer " + config.bearer_token);
  Strings found;
  for (std::string line; std::getline(headers, line, '\xA7');) found.push_back(line);
  if (!config.basic_username.empty() || !config.basic_password.empty()) {
    constexpr std::string_view kBasic = "Authorization: Basic ";
    CHECK(found.back().starts_with(kBasic));
    CHECK_EQ(FromBase64(found.back().substr(kBasic.size())), config.basic_username + ":" + config.basic_password);
    found.pop_back();
  }
  CheckSame(found, expected);
}

}  // namespace

// Replaces the function of liboxutil: records the headers and the body, and succeeds.
int32_t oxOSHTTPCommand(const char* /*url*/, const char* /*method*/, const char* headers, const char* body,
                        int32_t size, char** /*response*/, int32_t* status, uint32_t /*timeout_ms*/) {
  g_headers = headers;
  g_body.assign(body, static_cast<size_t>(size));
  return *status = 200;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input in(data, size);
  const Event event = AnyEvent(in);
  CheckCsv(event);
  CheckAlert(event, in);
  CheckSyslog(event, in);
  CheckWebhook(event, in);
  return 0;
}

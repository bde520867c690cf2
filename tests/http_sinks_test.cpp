// What the webhook and CloudEvents sinks post, with a client in the companion's place, and what hosts post to an
// Alertmanager: to the byte.
#include <algorithm>
#include <chrono>

#include "config/oxEventConfigLoad.h"
#include "host_fixture.h"
#include "oxutil.h"
#include "sinks/oxEventAlertmanager.h"
#include "sinks_fixture.h"

using std::string;
using std::string_literals::operator""s;

static string g_posts;  // With line ends for 0xA7.
static uint32_t g_posts_to_refuse;
static int g_responses;  // That are not freed yet.

// These precede the companion's.
void OXFree(void* buffer) {
  --g_responses;
  free(buffer);
}
int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body, int32_t body_length,
                        char** response, int32_t* status, uint32_t timeout_ms) {
  EXPECT_EQ(*response, nullptr);
  EXPECT_EQ(*status, 0);
  EXPECT_EQ(body[body_length], '\0');
  string lines = headers;
  EXPECT_EQ(lines.find_first_of("\r\n"), lines.npos);
  std::replace(lines.begin(), lines.end(), '\xA7', '\n');
  g_posts += method + " "s + url + " " + std::to_string(timeout_ms) + "\n" + lines + "\n\n";
  g_posts.append(body, size_t(body_length));
  *response = static_cast<char*>(malloc(1));
  ++g_responses;
  if (g_posts_to_refuse == 0) return 1;
  --g_posts_to_refuse;
  return 0;
}

namespace {

const string kJson =
    R"({"version":65536,"event_id":18446744073709551615,"severity":"error","severity_value":3,"severity_code":3,)"
    R"("action":"A\t","event_type":"t t","source_id":"s\"\\]",)"
    "\"source_name\":\"[n]\\u0001\xFF\",\"dedupe_key\":\"d\\\\\",\"correlation_id\":\"\\b\\f\\u000b\\u001f\x7F/\","
    R"("message":"\"a\n\n\",b","utc_ns":1700000000123456789,"ptp_ns":18446744073709551614,)"
    R"("pts":-9223372036854775808,"timecode":"]","value":null,"threshold":0.10000000000000001,"units":"°\r",)"
    R"("duration_ms":18446744073709551613,"details_json":"{\"]"})";
const string kCloudEvent =
    R"({"specversion":"1.0","id":"18446744073709551615","source":"/s","type":"t t",)"
    R"("time":"2023-11-14T22:13:20.123456789Z","subject":"p\"s\"\\]","datacontenttype":"application/json","data":)" +
    kJson + "}";
const string kJsonPost =
    "POST http://h 5000\nContent-Type: application/json; charset=utf-8\nAccept: application/json\n"
    "User-Agent: oxEvent/1.0\nX-oxEvent-TLS-Verify: 1\nX-oxEvent-Connect-Timeout-Ms: 2000";

struct oxEventHttpSink : testing::Test {
  oxEventHttpSink() { config.endpoint_url = "http://h"; }
  // Returns what a new sink posts for an event, and its error.
  string Post() const {
    g_posts.clear();
    const string error = SubmitThroughNewSink(oxEventCreateCloudEventsHttpSink, config);
    EXPECT_EQ(g_responses, 0);
    return g_posts + error;
  }
  oxEventSinkConfig config;
};

TEST_F(oxEventHttpSink, PostsJsonWithHeaderLines) {
  EXPECT_EQ(Post(), kJsonPost + "\n\n" + kJson);
  config.payload_mode = "NATIVE_JSON";
  config.headers =
      "X-A: 1| X-B: 2\r\n\r\nX-C: 3 \t|\v\f|B\xE2\x80|B\xC0|B\xC3\xA9|B\xF0\x80\x80|B\xEF\x80\x80|D\x80\x80";
  // A blank ends a line that the separator would continue.
  const string lines =
      "\nX-A: 1\nX-B: 2\nX-C: 3\nB\xE2\x80 \nB\xC0 \nB\xC3\xA9\nB\xF0\x80\x80 \nB\xEF\x80\x80\nD\x80\x80";
  EXPECT_EQ(Post(), kJsonPost + lines + "\n\n" + kJson);
}

TEST_F(oxEventHttpSink, PostsCredentials) {
  const struct {
    string token, username, password, lines;
  } cases[] = {{"t", "", "", "\nAuthorization: Bearer t"},
               {"", "\xFB\xEF", "\xFF\xFF", "\nAuthorization: Basic ++86//8="},
               {"", "abc", "", "\nAuthorization: Basic YWJjOg=="},
               {"", "", "ab", "\nAuthorization: Basic OmFi"}};
  for (const auto& c : cases) {
    config.bearer_token = c.token;
    config.basic_username = c.username;
    config.basic_password = c.password;
    EXPECT_EQ(Post(), kJsonPost + c.lines + "\n\n" + kJson);
  }
  for (const string& token : {"a\rb"s, "a\nb"s, "a\0b"s}) {
    config.bearer_token = token;
    EXPECT_EQ(Post(), "oxEvent webhook POST failed: http://h") << testing::PrintToString(token);
  }
}

TEST_F(oxEventHttpSink, RetriesAfterABackoff) {
  const string post = kJsonPost + "\n\n" + kJson;
  config.retry_count = 2;
  config.backoff_ms = 0;  // Means 250.
  g_posts_to_refuse = 3;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Post(), post + post + post + "oxEvent webhook POST failed: http://h");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  config.backoff_ms = 1;
  g_posts_to_refuse = 1;
  EXPECT_EQ(Post(), post + post);
}

TEST_F(oxEventHttpSink, PostsCloudEventsWithTheSettingsOfTheirSection) {
  const HostFolder folder;
  const string file = folder.path + "/settings", section = "sink\\cloudevents\\http\\a\\";
  WriteSettings(file, "",
                {{section + "endpoint_url", "HTTPS://c"},
                 {section + "source", "/s"},
                 {section + "subject_prefix", "p\""},
                 {section + "auth_header", "X: c"},
                 {section + "timeout_ms", "9"}});
  oxEventConfig loaded;
  ASSERT_EQ(oxEventConfigLoad(file.c_str(), &loaded, nullptr), OXEVENT_OK);
  for (const oxEventSinkConfig& sink : loaded.sinks) {
    if (sink.type == oxEventSinkType::kCloudEventsHttp) config = sink;
  }
  const string start =
      "POST HTTPS://c 9\nContent-Type: application/cloudevents+json; charset=utf-8\nAccept: application/json\n"
      "User-Agent: oxEvent/1.0\nX-oxEvent-TLS-Verify: 0";
  EXPECT_EQ(Post(), start + "\nX-oxEvent-Connect-Timeout-Ms: 9\nX: c\n\n" + kCloudEvent);
  // Values of the CloudEvents section apply where those of a webhook are empty.
  config.type = oxEventSinkType::kWebhookHttp;
  config.endpoint_url = config.headers = config.cloudevents_source = config.cloudevents_subject_prefix = "";
  config.connect_timeout_ms = config.request_timeout_ms = 0;
  for (const char* mode : {"CloudEvents", "CLOUDEVENTS_structured"}) {
    config.payload_mode = mode;
    EXPECT_EQ(Post(), start + "\nX: c\n\n" + kCloudEvent) << mode;
  }
}

TEST_F(oxEventHttpSink, DoesNotStartWithAnotherUrlOrPayloadMode) {
  config.payload_mode = "json";
  EXPECT_EQ(Post(), "oxEvent webhook payload_mode must be native_json or cloudevents");
  config.type = oxEventSinkType::kCloudEventsHttp;  // Ignores the mode.
  for (const char* url : {"ftp://h", "http:/h", " http://h", ""}) {
    config.endpoint_url = url;
    EXPECT_EQ(Post(), "oxEvent webhook sink requires an http:// or https:// endpoint_url") << url;
  }
}

TEST_F(oxEventHttpSink, SendsNothingBelowItsMinimumSeverityAsTheDatagramSinks) {
  config.host = config.snmp_host = "127.255.255.255";  // A broadcast address, to which a send would fail.
  config.minimum_severity = OXEVENT_SEVERITY_ERROR + 1;
  EXPECT_EQ(Post(), "");
  EXPECT_EQ(SubmitThroughNewSink(oxEventCreateSyslogUdpSink, config), "");
  EXPECT_EQ(SubmitThroughNewSink(oxEventCreateSnmpTrapSink, config), "");
}

// `resolved`: whether the action ends the alert.
string DiskAlert(const string& source_label, bool resolved) {
  const string time = R"(At":"2023-11-14T22:13:20.123456789Z")";
  return R"([{"labels":{"alertname":"Ox_19DiskUsage","severity":"critical","event_type":"9-disk_usage","action":"raise")" +
         source_label +
         R"(},"annotations":{"summary":"Full","description":"Full on n","ox_event_id":"18446744073709551615",)"
         R"("ox_dedupe_key":"d\\","ox_source_name":"n","ox_units":"°\r","ox_value":"","ox_threshold":"0.1"},"starts)" +
         time + (resolved ? R"(,"ends)" + time + "}]" : "}]");
}

TEST(oxEventAlertmanager, FormatsRaisedAndResolvedAlerts) {
  oxEventNormalizedEvent event = kFullEvent;
  event.event_type = "9-DISK usage_%";
  event.source_id = "__a.B:/\xC3\xA9__";
  event.source_name = "n";
  event.message = "Full";
  string alert;
  for (const char* action : {"raise", "clear ", "", "resolves", "Clear", "RESOLVE", "CLEAR", "Resolved"}) {
    SCOPED_TRACE(action);
    const bool resolved = *action == 'C' || *action == 'R';
    event.action = action;
    EXPECT_EQ(oxEventFormatAlertmanagerAlert(event, {true, true, "O-x_1\xC3"}, &alert), OXEVENT_OK);
    EXPECT_EQ(alert, DiskAlert(R"(,"source_id":"_a.b:")", resolved));
    EXPECT_EQ(oxEventFormatAlertmanagerAlert(event, {false, false, "O-x_1\xC3"}, &alert), OXEVENT_OK);
    EXPECT_EQ(alert, resolved ? "[]" : DiskAlert("", false));
  }
  oxEventRecord record = event.ToPublicView();
  record.event_id = 0;
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&record, {}, &alert), OXEVENT_OK);
  EXPECT_NE(alert.find(R"("ox_event_id":"152","ox_dedupe_key":"d\\","ox_source_name":"n")"), alert.npos) << alert;
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&record, {}, nullptr), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(nullptr, {}, &alert), OXEVENT_INVALID_ARGUMENT);
  record.version = 0;
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&record, {}, &alert), OXEVENT_INVALID_ARGUMENT);
}

TEST(oxEventAlertmanager, FillsInWhatIsMissing) {
  oxEventNormalizedEvent event;
  event.event_type = "%";
  event.source_id = "_";
  event.source_name = "on";
  event.message = "on m";
  event.severity = OXEVENT_SEVERITY_WARNING;
  string alert;
  EXPECT_EQ(oxEventFormatAlertmanagerAlert(event, {true, true, "-|"}, &alert), OXEVENT_OK);
  EXPECT_EQ(alert,
            R"([{"labels":{"alertname":"OxEventEvent","severity":"warning","event_type":"event","action":"raise",)"
            R"("source_id":"source"},"annotations":{"summary":"on m","description":"on m","ox_event_id":"0",)"
            R"("ox_dedupe_key":"%:_","ox_source_name":"on","ox_units":"","ox_value":"0","ox_threshold":"0"},)"
            R"("startsAt":"1970-01-01T00:00:00Z"}])");
}

}  // namespace

// The exact bytes that the webhook and CloudEvents sinks pass to the HTTP client, which this file replaces, and that
// hosts post to an Alertmanager.
#include <algorithm>
#include <chrono>

#include "config/oxEventConfigLoad.h"
#include "faults.h"
#include "host_fixture.h"
#include "oxutil.h"
#include "sinks/oxEventAlertmanager.h"
#include "sinks_fixture.h"

using std::string;
using std::string_literals::operator""s;

static string g_posts;  // With line feeds instead of the separator 0xA7.
static uint32_t g_posts_to_refuse;
static int g_responses;  // Number of responses that are not freed yet.

// The loader finds these before the functions of the companion library.
void OXFree(void* buffer) {
  --g_responses;
  free(buffer);
}
int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body, int32_t body_length,
                        char** response, int32_t* /*status*/, uint32_t timeout_ms) {
  if (*url == '\0') return 0;  // The sink is being opened.
  string lines = headers;
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
    R"("pts":-9223372036854775808,"timecode":"]","value":null,"threshold":0.14285714285714285,"units":"°\r",)"
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
  // Returns what a new sink posts for an event, followed by the sink's error.
  string Post() const {
    g_posts.clear();
    const string error = SubmitThroughNewSink(oxEventCreateHttpSink, config);
    EXPECT_EQ(g_responses, 0);
    return g_posts + error;
  }
  oxEventSinkConfig config;
};

TEST_F(oxEventHttpSink, PostsJsonWithHeaderLines) {
  config.backoff_ms = UINT32_MAX;  // Only before a second attempt.
  EXPECT_EQ(Post(), kJsonPost + "\n\n" + kJson);
  config.payload_mode = "NATIVE_JSON";
  config.headers =
      "X-A: 1| X-B: 2\r\n\r\nX-C: 3 "
      "\t|\v\f|B\xE0\x80|B\xC0|B\xDF\xBF|B\xF0\x80\x80|B\xEF\x80\x80|B\xE0\x7F|D\x80\x80\x80";
  // The sink adds a space to a line that ends inside a UTF-8 sequence, because 0xA7 would be its next byte.
  const string lines =
      "\nX-A: 1\nX-B: 2\nX-C: 3\nB\xE0\x80 \nB\xC0 \nB\xDF\xBF\nB\xF0\x80\x80 "
      "\nB\xEF\x80\x80\nB\xE0\x7F\nD\x80\x80\x80";
  EXPECT_EQ(Post(), kJsonPost + lines + "\n\n" + kJson);
}

TEST_F(oxEventHttpSink, PostsBasicCredentials) {
  config.basic_username = "abc";
  EXPECT_EQ(Post(), kJsonPost + "\nAuthorization: Basic YWJjOg==\n\n" + kJson);
  config.basic_username = "\xFB\xEF";
  config.basic_password = "\xFF\xFF";
  EXPECT_EQ(Post(), kJsonPost + "\nAuthorization: Basic ++86//8=\n\n" + kJson);
}

TEST_F(oxEventHttpSink, RefusesUnsafeEnvironmentVariablesInAPrivilegedProcess) {
  setenv("SSLKEYLOGFILE", "", 1);
  EXPECT_EQ(Post(), kJsonPost + "\n\n" + kJson);
  const Faults is_privileged([](std::string_view call, long) { return call == "getauxval"; });
  EXPECT_EQ(Post(), "oxEvent webhook sink cannot start with SSLKEYLOGFILE in the environment of a privileged process");
  unsetenv("SSLKEYLOGFILE");
  EXPECT_EQ(Post(), kJsonPost + "\n\n" + kJson);
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
  config.request_timeout_ms = 0;  // If both are 0, the timeout is 5000.
  config.ce_timeout_ms = 0;
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
  config.type = oxEventSinkType::kWebhookHttp;
  config.connect_timeout_ms = 0;
  config.payload_mode = "CLOUDEVENTS_structured";
  EXPECT_EQ(Post(), start + "\nX: c\n\n" + kCloudEvent);
}

string FormatDiskAlert(const char* action, const oxEventAlertmanagerFormatterConfig& config) {
  oxEventNormalizedEvent event = kFullEvent;
  event.event_type = "z0-9DISKZ array_%";
  event.source_id = "/_a.B:/\xC3\xA9__";
  event.source_name = "n";
  event.message = "Full";
  event.action = action;
  string alert;
  oxEventFormatAlertmanagerAlert(event, config, &alert);
  return alert;
}

TEST(oxEventAlertmanager, FormatsRaisedAndResolvedAlerts) {
  const string start =
      R"([{"labels":{"alertname":"Ox_1Z09diskzArray","severity":"critical","event_type":"z0-9diskz_array","action":"raise")";
  const string rest =
      R"(},"annotations":{"summary":"Full","description":"Full on n","ox_event_id":"18446744073709551615",)"
      R"("ox_dedupe_key":"d\\","ox_source_name":"n","ox_units":"°\r","ox_value":"","ox_threshold":"0.142857"},)"
      R"("startsAt":"2023-11-14T22:13:20.123456789Z")";
  const string raised = start + R"(,"source_id":"_a.b:")" + rest;
  const string prefix = "O-x_1\xC3";
  for (const char* action : {"clear ", "", "resolves"}) {
    EXPECT_EQ(FormatDiskAlert(action, {true, true, prefix}), raised + "}]") << action;
    EXPECT_EQ(FormatDiskAlert(action, {false, false, prefix}), start + rest + "}]") << action;
  }
  for (const char* action : {"Clear", "RESOLVE", "Resolved"}) {
    const string resolved = raised + R"(,"endsAt":"2023-11-14T22:13:20.123456789Z"}])";
    EXPECT_EQ(FormatDiskAlert(action, {true, true, prefix}), resolved) << action;
    EXPECT_EQ(FormatDiskAlert(action, {false, false, prefix}), "[]") << action;
  }
}

}  // namespace

// The alert poster: its list of alerts, and the library as a host uses it.
#include <future>

#include "faults.h"
#include "http_server.h"
#include "oxEvent/alert_poster.h"
#include "poster/oxEventAlertList.h"

namespace {

using Clock = oxEventAlertList::Clock;
using Lines = std::vector<std::string>;

constexpr std::chrono::milliseconds kRepeatInterval{100};
constexpr uint64_t kMaxBytes = 20000;

struct Event {
  const char* action = nullptr;
  uint32_t severity = 0;
  const char* source = "a";
  const char* message = "m";
  const char* key = "";
};

oxEventRecord RecordOf(const Event& event) {
  oxEventRecord record = MakeRecord(event.message);
  record.action = event.action;
  record.severity = event.severity;
  record.event_type = "door";
  record.source_id = event.source;
  record.dedupe_key = event.key;
  record.event_id = 1;
  record.source_name = record.units = "";
  record.utc_ns = 1700000000123456789;
  return record;
}

// Returns what follows `begin` in the text, up to the next quote; empty if the text does not contain `begin`.
std::string Value(const std::string& text, const std::string& begin) {
  const size_t at = text.find(begin);
  if (at == text.npos) return "";
  return text.substr(at + begin.size(), text.find('"', at + begin.size()) - at - begin.size());
}

// Describes each alert of a document: "critical a: m" if it is active, "critical a resolved: m" if not.
Lines Describe(const std::string& document) {
  const std::string begin = "{\"labels\":";
  Lines lines;
  for (size_t at = document.find(begin); at != document.npos;) {
    const size_t next = document.find(begin, at + 1);
    const std::string alert = document.substr(at, next - at);
    const std::string labels = Value(alert, "\"severity\":\"") + " " + Value(alert, "\"source_id\":\"");
    const bool resolved = !Value(alert, "\"endsAt\":\"").empty();
    lines.push_back(labels + (resolved ? " resolved: " : ": ") + Value(alert, "\"summary\":\""));
    at = next;
  }
  return lines;
}

struct AlertListTest : testing::Test {
  void Add(const Event& event) { list_.Add(RecordOf(event), filter_); }

  // Raises conditions until the next one does not fit.
  void Fill() {
    for (int key = 0; State().dropped == 0; ++key) Add({"raise", 2, "b", "m", std::to_string(key).c_str()});
  }

  Lines StartPost() {
    if (!list_.HasWaiting() && list_.NextDue() > now_) return {};
    return Describe(list_.StartPost(now_));
  }

  oxEventAlertPosterState State() const {
    oxEventAlertPosterState state = {};
    list_.GetState(&state);
    return state;
  }

  oxEventAlertPosterConfig filter_ = {};
  Clock::time_point now_ = Clock::time_point(std::chrono::seconds(1));
  oxEventAlertList list_{"OxEvent", kRepeatInterval, kMaxBytes};
};

TEST_F(AlertListTest, KeepsTheLatestStateOfEachAlert) {
  // Plain arrays: with containers, compiling this table with a sanitizer would take minutes.
  const struct {
    const char* what;
    Event events[4];
    const char* posted[2];
  } cases[] = {
      {"an update replaces the raise", {{"raise", 2}, {"UPDATE", 2, "a", "n"}}, {"warning a: n"}},
      {"a clear gets the labels of its raise", {{"raise", 3}, {"Resolved", 1}}, {"critical a resolved: m"}},
      {"an unknown clear keeps its own labels", {{"clear", 2}}, {"warning a resolved: m"}},
      {"another severity", {{"raise", 2}, {"update", 3}}, {"warning a resolved: m", "critical a: m"}},
      {"one of two conditions with the same labels is cleared",
       {{"raise", 2, "a", "m", "1"}, {"raise", 2, "a", "n", "2"}, {"clear", 2, "a", "o", "1"}},
       {"warning a: n"}},
      {"both are cleared",
       {{"raise", 2, "a", "m", "1"},
        {"raise", 2, "a", "n", "2"},
        {"clear", 2, "a", "o", "1"},
        {"clear", 2, "a", "p", "2"}},
       {"warning a resolved: p"}},
      {"an event without a condition and with the same labels", {{"raise", 2}, {"", 2, "a", "n"}}, {"warning a: m"}},
      {"two events without a condition and with the same labels", {{"", 2}, {"", 2, "a", "n"}}, {"warning a: n"}},
      {"events below the minimum", {{"raise", 1}, {"", 1}, {"clear", 1}}, {}},
      {"a condition that falls below the minimum", {{"raise", 2}, {"update", 1}}, {"warning a resolved: m"}}};
  filter_.minimum_severity = OXEVENT_SEVERITY_WARNING;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    for (const Event& event : c.events) {
      if (event.action != nullptr) Add(event);
    }
    EXPECT_EQ(StartPost(), Lines(c.posted, std::find(c.posted, std::end(c.posted), nullptr)));
    list_.CompletePost(now_);
    for (const char* key : {"", "1", "2"}) {
      for (const char* source : {"a", "b"}) Add({"clear", 0, source, "m", key});
    }
    if (!StartPost().empty()) list_.CompletePost(now_);
    EXPECT_EQ(State().active_alerts + State().unposted_alerts, 0u);
  }
}

TEST_F(AlertListTest, LeavesOutEventsWithoutACondition) {
  filter_.conditions_only = 1;
  Add({"", 3});
  EXPECT_EQ(StartPost(), Lines{});
}

TEST_F(AlertListTest, PostsLargeAlertsOneByOne) {
  oxEventAlertList list("OxEvent", kRepeatInterval, UINT64_MAX);
  const std::string message(300'000, 'x');  // An alert contains it twice.
  for (const char* source : {"a", "b"}) list.Add(RecordOf({"raise", 2, source, message.c_str()}), filter_);
  EXPECT_EQ(Describe(list.StartPost(now_)), Lines{"warning a: " + message});
}

TEST_F(AlertListTest, PostsAChangeDuringAPostAfterwards) {
  Add({"raise", 2});
  EXPECT_EQ(StartPost(), Lines{"warning a: m"});
  Add({"clear", 2});
  list_.CompletePost(now_);
  EXPECT_EQ(State().unposted_alerts, 1u);
  EXPECT_EQ(StartPost(), Lines{"warning a resolved: m"});
  list_.CompletePost(now_);
  EXPECT_EQ(State().unposted_alerts, 0u);
}

TEST_F(AlertListTest, RepeatsActiveAlertsOnly) {
  Add({"raise", 2});
  Add({"", 2, "b"});
  EXPECT_EQ(StartPost().size(), 2u);
  list_.CompletePost(now_);
  EXPECT_EQ(StartPost(), Lines{});
  EXPECT_EQ(list_.NextDue(), now_ + kRepeatInterval);
  now_ += kRepeatInterval;
  EXPECT_EQ(StartPost(), Lines{"warning a: m"});
}

TEST_F(AlertListTest, SplitsARefusedPostAndPostponesTheRefusedAlert) {
  for (const char* source : {"a", "b"}) Add({"raise", 2, source});
  StartPost();
  list_.RefusePost(now_);
  EXPECT_EQ(StartPost(), Lines{"warning a: m"});
  list_.RetryPost();
  EXPECT_EQ(StartPost(), Lines{"warning a: m"});
  list_.RefusePost(now_);
  EXPECT_EQ(StartPost(), Lines{"warning b: m"});
  list_.CompletePost(now_);
  EXPECT_EQ(StartPost(), Lines{});
  EXPECT_EQ(State().refused, 1u);
  now_ += kRepeatInterval;
  EXPECT_EQ(StartPost(), (Lines{"warning a: m", "warning b: m"}));
}

TEST_F(AlertListTest, DropsWhatDoesNotFitButResolvesWhatIsActive) {
  for (int source = 0; source < 100; ++source) Add({"raise", 2, std::to_string(source).c_str()});
  const auto fitted = State().active_alerts;
  EXPECT_EQ(State().dropped, 100 - fitted);
  EXPECT_GT(fitted, 10u);
  const std::string long_message(kMaxBytes, 'x');
  Add({"update", 2, "0", long_message.c_str()});
  EXPECT_EQ(State().dropped, 101 - fitted);
  Add({"clear", 2, "0", long_message.c_str()});
  EXPECT_EQ(StartPost()[0], "warning 0 resolved: ");
  for (int source = 1; source < 100; ++source) Add({"clear", 2, std::to_string(source).c_str()});
  EXPECT_EQ(State().active_alerts, 0u);
}

TEST_F(AlertListTest, PostsTheNewStateOfAnAlertWhoseTextDoesNotFit) {
  const std::string long_message(kMaxBytes, 'x');
  Add({"raise", 2});
  Add({"clear", 2});
  Add({"raise", 2, "a", long_message.c_str()});
  EXPECT_EQ(StartPost(), Lines{"warning a: "});
}

TEST_F(AlertListTest, PostsAnAlertThatIsRaisedAgainWithoutRoomForItsCondition) {
  Add({"raise", 2});
  Add({"clear", 2});
  Fill();
  Add({"raise", 2});
  EXPECT_EQ(StartPost()[0], "warning a: m");
}

TEST_F(AlertListTest, KeepsAnAlertRaisedWithoutRoomForOneOfAnotherSeverity) {
  Add({"raise", 2});
  Fill();
  Add({"update", 3});
  EXPECT_EQ(StartPost()[0], "warning a: m");
}

TEST_F(AlertListTest, ReusesTheMemoryOfEndedAlerts) {
  const std::string long_message(kMaxBytes / 20, 'x');
  for (int i = 0; i < 100; ++i) {
    Add({"raise", 2, "a", long_message.c_str()});
    Add({"clear", 2, "a", long_message.c_str()});
    StartPost();
    list_.CompletePost(now_);
  }
  EXPECT_EQ(State().dropped, 0u);
}

Answer Status(const std::string& status) { return {"HTTP/1.1 " + status + " -\r\nContent-Length: 0\r\n\r\n"}; }
const std::string kPath = "/api/v2/alerts";

struct AlertPosterTest : testing::Test {
  void SetUp() override {
    const std::string settings = directory_.path + "/settings.xml";
    WriteSettings(settings, "");
    ASSERT_EQ(oxEventInitialize(settings.c_str()), OXEVENT_OK);
  }
  void TearDown() override { oxEventShutdown(); }

  oxEventAlertPosterConfig Config(const std::string& url) {
    url_ = url;
    oxEventAlertPosterConfig config = {};
    config.struct_size = sizeof(config);
    config.url = url_.c_str();
    config.request_timeout_ms = 100000;
    return config;
  }

  static void Submit(const Event& event) {
    const oxEventRecord record = RecordOf(event);
    ASSERT_EQ(oxEventSubmit(&record), OXEVENT_OK);
  }

  const HostFolder directory_{};
  std::string url_;  // Of the last config.
};

TEST_F(AlertPosterTest, RetriesAndRepeats) {
  HttpServer server({Status("400"), Status("413"), Status("422"), Status("503"), Status("503"), {}});
  oxEventAlertPosterConfig config = Config(server.Url() + kPath);
  config.repeat_interval_ms = 10;
  config.headers = "Authorization: Bearer t";
  oxEvent::AlertPoster poster(config);
  ASSERT_EQ(poster.Result(), OXEVENT_OK);
  Submit({"raise", 2});
  WaitUntil([&] { return poster.State().posted >= 3; });
  EXPECT_EQ(poster.State().refused, 3u);
  EXPECT_EQ(poster.State().failed_posts, 2u);
  EXPECT_EQ(poster.State().last_status, 200);
  EXPECT_EQ(poster.Stop(), 0u);
  const std::string request = server.TakeRequests().back();
  EXPECT_NE(request.find("\r\nAuthorization: Bearer t\r\n"), request.npos);
  EXPECT_EQ(Describe(request), Lines{"warning a: m"});
}

// After three failures, the next post would be due in 4 s.
TEST_F(AlertPosterTest, StopPostsAtOnce) {
  const HttpServer server({Status("503"), Status("503"), Status("503"), {}});
  oxEventAlertPosterConfig config = Config(server.Url() + kPath);
  config.stop_timeout_ms = 3500;
  oxEvent::AlertPoster poster(config);
  Submit({"raise", 2});
  WaitUntil([&] { return poster.State().failed_posts == 3; });
  EXPECT_EQ(poster.Stop(), 0u);
}

// A post that is started during a stop times out with the stop. Otherwise the stop would take 100 s.
TEST_F(AlertPosterTest, StopTakesNoLongerThanItsTimeout) {
  const HttpServer server({Status("503"), {.bytes = ""}});
  oxEventAlertPosterConfig config = Config(server.Url() + kPath);
  config.stop_timeout_ms = 2000;
  oxEvent::AlertPoster poster(config);
  Submit({"raise", 2});
  WaitUntil([&] { return poster.State().failed_posts == 1; });
  const auto start = Clock::now();
  auto other = std::async(std::launch::async, [&] { return poster.Stop(); });
  EXPECT_EQ(poster.Stop() + other.get(), 1u) << "only one of two calls stops the poster";
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(50));
}

#ifndef OXEVENT_SANITIZED  // A sanitizer replaces malloc itself.
// Memory can run out when the alert already waits.
TEST_F(AlertPosterTest, PostsAlertsAfterMemoryRanOutWhileOneWasAdded) {
  const HttpServer server;
  oxEvent::AlertPoster poster(Config(server.Url() + kPath));
  for (int fail_at = 1; fail_at < 40; ++fail_at) {
    SCOPED_TRACE(fail_at);
    const std::string source = std::to_string(fail_at);
    {
      std::atomic<int> left = fail_at;
      const Faults faults([&](std::string_view call, long) {
        char thread[16] = "";
        pthread_getname_np(pthread_self(), thread, sizeof thread);
        return call == "malloc" && thread == std::string_view("oxEvent") && --left == 0 ? ENOMEM : 0;
      });
      Submit({"raise", 2, source.c_str()});
      oxEventFlush(0);
    }
    Submit({"raise", 2, (source + " with memory").c_str()});
    oxEventFlush(0);
    WaitUntil([&] { return poster.State().unposted_alerts == 0; });
  }
  EXPECT_EQ(poster.Stop(), 0u);
}
#endif

TEST_F(AlertPosterTest, RefusesUrlsThatNoAlertmanagerHas) {
  const auto start = [this](const char* url) { return oxEvent::AlertPoster(Config(url)).Result(); };
  for (const char* url : {"ftp://host/api/v2/alerts", "http://host", "http://host/api/v1/alerts",
                          "http://host/api/v2/alerts/", "http://host/?to=/api/v2/alerts", "http:///api/v2/alerts",
                          "http://api/v2/alerts", "http://host:909399/api/v2/alerts", "http://host:0/api/v2/alerts"}) {
    EXPECT_EQ(start(url), OXEVENT_INVALID_ARGUMENT) << url;
  }
  for (const char* url : {"http://host:65535/prefix/api/v2/alerts", "https://user:99999@[::1]/api/v2/alerts",
                          "http://host:/api/v2/alerts"}) {
    EXPECT_EQ(start(url), OXEVENT_OK) << url;
  }
}

TEST_F(AlertPosterTest, RefusesInvalidArguments) {
  const oxEventAlertPosterConfig valid = Config("http://host" + kPath);
  std::vector<oxEventAlertPosterConfig> configs(4, valid);
  configs[0].headers = "A: b\r\nC: d";
  configs[1].struct_size = 8;
  configs[2].url = nullptr;
  configs[3].minimum_severity = OXEVENT_SEVERITY_ERROR + 1;
  for (auto& c : configs) EXPECT_EQ(oxEvent::AlertPoster(c).Result(), OXEVENT_INVALID_ARGUMENT) << &c - &configs[0];
  uint32_t id = 0;
  EXPECT_EQ(oxEventAlertPosterStart(nullptr, &id), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(oxEventAlertPosterStart(&valid, nullptr), OXEVENT_INVALID_ARGUMENT);
  oxEventAlertPosterState state = {};
  EXPECT_EQ(oxEventAlertPosterGetState(0, nullptr), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(oxEventAlertPosterGetState(0, &state), OXEVENT_INVALID_ARGUMENT);
  state.struct_size = sizeof(state);
  EXPECT_EQ(oxEventAlertPosterGetState(0, &state), OXEVENT_NOT_FOUND);
}

}  // namespace

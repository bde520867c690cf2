// The library as a host meets it: codes, texts, records, callbacks, files, many threads.
#include <atomic>
#include <future>
#include <thread>

#include "host_fixture.h"

namespace {

using std::string_literals::operator""s;
using Texts = std::vector<std::string>;
using Settings = std::map<std::string, std::string>;

constexpr char kOk[] = "0 ", kInvalidEvent[] = "80050003 Invalid OXEvent";
constexpr char kDown[] = "80050001 oxEvent is not initialized", kUp[] = "80050002 oxEvent is already initialized";
constexpr char kNoPath[] = "80050003 oxEvent requires a oxCFG XML config path";
constexpr char kNoCsvPath[] = "80050003 oxEvent CSV sink path is empty";
constexpr char kNoCallback[] = "80050004 Callback id was not found";
constexpr char kNoBuffer[] = "80050003 Invalid last-error buffer", kPending[] = "80050005 oxEvent core flush timed out";

// The code that a call gave and the text that it left.
std::string Got(uint32_t code) {
  char text[512] = "unread";
  oxEventGetLastError(text, sizeof text);
  return (std::stringstream() << std::hex << code << ' ' << text).str();
}

uint32_t Send(const std::string& text, uint32_t level = 1) { return oxEventSubmitSimple(0, level, "n", text.c_str()); }

std::string ThisThread() { return "/proc/self/task/" + std::to_string(gettid()); }

struct Recorder {  // Of the messages, in order: oxEventRegisterCallback(Recorder::Note, &recorder, &id).
  static void Note(const oxEventRecord* event, void* self) {
    auto& [on_event, mutex, changed, messages] = *static_cast<Recorder*>(self);
    if (on_event) on_event(*event);
    const std::lock_guard lock(mutex);
    messages.emplace_back(event->message);
    changed.notify_all();
  }
  Texts Messages(size_t count) {  // Waits for so many.
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::minutes(1), [&] { return messages.size() >= count; });
    return messages;
  }
  std::function<void(const oxEventRecord&)> on_event;  // Runs on the worker, before the message is noted.
  std::mutex mutex;
  std::condition_variable changed;
  Texts messages;
};

class oxEventApi : public testing::Test {
 protected:
  oxEventApi() { WriteSettings(settings2_, csv2_); }
  ~oxEventApi() override { oxEventShutdown(); }
  void Start(const Settings& settings = {}) {
    WriteSettings(settings_, csv_, settings);
    EXPECT_EQ(Got(oxEventInitialize(settings_.c_str())), kOk);
    EXPECT_EQ(Got(oxEventRegisterCallback(Recorder::Note, &recorder_, &id_)), kOk);
  }
  HostFolder folder_;
  const std::string settings_ = folder_.path + "/settings", settings2_ = settings_ + "2";
  const std::string csv_ = folder_.path + "/events", csv2_ = csv_ + "2";
  Recorder recorder_, second_;
  uint32_t id_ = 0;
};

struct StaticHost {  // Reports before main and behind it.
  bool Works() const {
    WriteSettings(folder.path + "/settings", folder.path + "/csv");
    std::filesystem::remove(folder.path + "/csv");
    const uint32_t code = oxEventInitialize((folder.path + "/settings").c_str()) | Send("m") | oxEventFlush(0);
    return (code | oxEventShutdown()) == 0 && ReadMessages(folder.path + "/csv") == Texts{"message", "m"};
  }
  ~StaticHost() { Works() ? void() : _exit(99); }
  const HostFolder folder{};
  const bool worked = Works();
} g_static_host;

TEST(oxEventStatic, WorksInConstructorsAndDestructors) { EXPECT_TRUE(g_static_host.worked); }

TEST_F(oxEventApi, RefusesWithACodeAndATextOfTheThreadAndKeepsWhatRuns) {
  WriteSettings(settings2_, csv2_, {{"sink\\csv\\default\\path", ""}});
  const auto refuses = [&](bool running) {
    EXPECT_EQ((Texts{Got(oxEventSubmit(nullptr)), Got(Send("")), Got(Send("m", 4))}), Texts(3, kInvalidEvent));
    EXPECT_EQ((Texts{Got(oxEventInitialize(nullptr)), Got(oxEventInitialize(""))}), Texts(2, kNoPath));
    EXPECT_EQ(Got(oxEventRegisterCallback(nullptr, this, &id_)), "80050003 Invalid callback registration arguments");
    for (const uint32_t id : {0u, ~0u}) EXPECT_EQ(Got(oxEventUnregisterCallback(id)), kNoCallback);
    EXPECT_EQ(oxEventInstallWindowsEventSource("a", nullptr) & oxEventRemoveWindowsEventSource("a"), OXEVENT_NOT_FOUND);
    EXPECT_EQ(Got((running ? oxEventReloadConfig : oxEventInitialize)(settings2_.c_str())), kNoCsvPath);
    if (running) return;
    EXPECT_EQ((Texts{Got(Send("m")), Got(oxEventFlush(0)), Got(oxEventShutdown())}), Texts(3, kDown));
    EXPECT_EQ(Got(oxEventReloadConfig(settings2_.c_str())), kDown);
    EXPECT_EQ(Got(oxEventReloadConfig(nullptr)), kNoPath);
  };
  refuses(false);
  Start();
  refuses(true);
  EXPECT_EQ((Texts{Got(oxEventInitialize(settings2_.c_str())), Got(Send("m"))}), (Texts{kUp, kOk}));
  EXPECT_EQ((Texts{Got(oxEventShutdown()), recorder_.messages.at(0)}), (Texts{kOk, "m"}));
  EXPECT_EQ(ReadMessages(csv_), (Texts{"message", "m"}));
  refuses(false);
  oxEventSubmit(nullptr);
  std::string out(20, '#');
  EXPECT_EQ(oxEventGetLastError(out.data(), 4), 0u);
  EXPECT_EQ(out, "Inv\0"s + std::string(16, '#'));
  std::async(std::launch::async, [] { EXPECT_EQ((Texts{Got(0), Got(oxEventFlush(1))}), (Texts{kOk, kDown})); }).get();
  EXPECT_EQ(Got(oxEventGetApiVersion()), "10000 Invalid OXEvent");
  EXPECT_EQ((Texts{Got(oxEventGetLastError(nullptr, 9)), Got(oxEventGetLastError(&out[0], 0))}), Texts(2, kNoBuffer));
}

TEST_F(oxEventApi, DropsByThePolicyWhenFullAndDeliversTheRestAtShutdown) {
  const std::tuple<std::string, std::string, std::string, Texts, Texts> cases[] = {
      {"newest", "5", "2", {"w1", "i1", "w2", "d1", "w3"}, {"gate", "w1", "i1"}},
      {"drop_debug_info_first", "5", "4", {"w1", "i1", "w2", "d1", "w3"}, {"gate", "w1", "w2", "d1", "w3"}},
      {"Drop_Low_Severity_First", "2", "2", {"w1", "i1", "e1", "i2", "w2"}, {"gate", "w1", "e1"}}};
  for (const auto& [policy, size, size_reloaded, sent, arrived] : cases) {
    std::promise<void> held, go;
    recorder_.messages.clear();
    recorder_.on_event = [&](auto& e) { e.message[0] == 'g' ? held.set_value(), go.get_future().wait() : void(); };
    Start({{"core\\drop_policy", policy}, {"core\\queue_size", size}, {"core\\minimum_severity", "0"}});
    EXPECT_EQ(Send("gate"), 0u);
    held.get_future().wait();
    for (const std::string& text : sent) EXPECT_EQ(Send(text, std::string("diwe").find(text[0]) & 3), 0u);
    WriteSettings(settings_, csv_, {{"core\\drop_policy", policy}, {"core\\queue_size", size_reloaded}});
    EXPECT_EQ((Texts{Got(oxEventFlush(1)), Got(oxEventReloadConfig(""))}), (Texts{kPending, kOk}));
    auto done = std::async(std::launch::async, [] { return Got(oxEventShutdown()); });
    while (oxEventFlush(1) != OXEVENT_NOT_INITIALIZED) usleep(100);
    EXPECT_EQ((Texts{Got(Send("m")), Got(oxEventReloadConfig(settings2_.c_str()))}), Texts(2, kDown));
    EXPECT_EQ(Got(oxEventInitialize(settings2_.c_str())), kUp);
    go.set_value();
    EXPECT_EQ(done.get(), kOk);
    EXPECT_EQ(recorder_.messages, arrived) << policy;
  }
}

TEST_F(oxEventApi, ReloadMovesTheCsvFile) {
  std::string thread;
  recorder_.on_event = [&](const oxEventRecord&) { thread = ThisThread(); };
  const auto deliver = [&](size_t count, const std::string& text) {  // Without a flush, until the worker sleeps again.
    EXPECT_EQ(Send(text), 0u);
    EXPECT_EQ(recorder_.Messages(count).back(), text);
    while (ReadFile(thread + "/stat").find(") S ") == std::string::npos) usleep(100);
  };
  Start();
  deliver(1, "one");
  const std::string name = ReadFile(thread + "/comm"), status = ReadFile(thread + "/status");
  EXPECT_EQ(name, "oxEvent\n");  // All signals blocked but SIGKILL, SIGSTOP and the C library's own 32 and 33:
  EXPECT_EQ(std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16) | 3ull << 31, ~0x40100ull);
  WriteSettings(settings_, csv2_), WriteSettings(settings2_, csv_);
  EXPECT_EQ(Got(oxEventReloadConfig(nullptr)), kOk);
  EXPECT_EQ(ReadMessages(csv_), (Texts{"message", "one"}));
  deliver(2, "two");
  EXPECT_EQ(Got(oxEventReloadConfig(settings2_.c_str())), kOk);
  EXPECT_EQ(ReadMessages(csv2_), (Texts{"message", "two"}));
  deliver(3, "three");
  EXPECT_EQ(Got(oxEventReloadConfig("/none")), "80050003 Unable to open oxEvent config: /none");
  EXPECT_EQ(Got(oxEventReloadConfig("")), kOk);  // The second file once more; no second header.
  EXPECT_EQ(ReadMessages(csv_), (Texts{"message", "one", "three"}));
}

TEST_F(oxEventApi, WorksFromInsideACallback) {
  for (const bool pending : {false, true}) {
    std::string thread;
    recorder_.on_event = [&](const oxEventRecord&) {
      thread = ThisThread();
      EXPECT_EQ((Texts{Got(oxEventFlush(0)), Got(oxEventInitialize(settings_.c_str()))}), (Texts{kOk, kUp}));
      EXPECT_EQ(ReadMessages(csv_).back(), "old" + std::to_string(pending));
      EXPECT_EQ(Got(oxEventReloadConfig(settings2_.c_str())), kOk);
      for (const char* expected : {kOk, kNoCallback}) EXPECT_EQ(Got(oxEventUnregisterCallback(id_)), expected);
      EXPECT_FALSE(pending && Send("discarded"));
      EXPECT_EQ((Texts{Got(oxEventFlush(0)), Got(oxEventFlush(9999))}), Texts(2, pending ? kPending : kOk));
      EXPECT_EQ(Got(oxEventShutdown()), pending ? "80050005 oxEvent core shutdown failed" : kOk);
      EXPECT_EQ(Got(Send("m")), kDown);
      const auto by = pending ? std::launch::async : std::launch::deferred;  // Another thread or this one.
      EXPECT_EQ(std::async(by, oxEventInitialize, settings2_.c_str()).get(), 0u);
      EXPECT_FALSE(oxEventRegisterCallback(Recorder::Note, &second_, &id_) || Send("new"));
      EXPECT_EQ(second_.Messages(pending ? 3 : 1).back(), "new");  // While this worker is held here.
    };
    Start();
    EXPECT_EQ(Send("old" + std::to_string(pending)), 0u);
    for (recorder_.Messages(pending + 1); std::filesystem::exists(thread);) usleep(100);
    EXPECT_EQ((Texts{Got(Send("more")), Got(oxEventShutdown())}), Texts(2, kOk));
  }
  EXPECT_EQ(ReadMessages(csv_), (Texts{"message", "old0", "old1"}));
  EXPECT_EQ(ReadMessages(csv2_), (Texts{"message", "new", "more", "new", "more"}));
}

TEST_F(oxEventApi, WritesCsvRowsWhole) {  // So that a process that is killed leaves whole ones.
  recorder_.on_event = [&](const oxEventRecord&) { EXPECT_TRUE(ReadFile(csv_).ends_with('\n')); };
  Start();
  for (size_t i = 0; i < 150; ++i) EXPECT_EQ(Send(std::string(i == 140 ? 100000 : i * i % 997 + 1, 'x')), 0u);
}

TEST_F(oxEventApi, WritesTheSystemLog) {
  const SystemLog log(LOCK_EX);
  if (!log.bound) GTEST_SKIP() << "The machine has a log daemon";
  Start({{"sink\\native\\main\\enabled", "1"}, {"sink\\native\\main\\facility", "local0"}});
  const oxEventRecord record = {152, 65536, 7, "t", "", "n", "5 %s\n", 2,  "a", "k",
                                "c", 0,     0, 0,   "", 0,   0,        "", 0,   "{}"};
  EXPECT_EQ(oxEventSubmit(&record) | oxEventSubmitSimple(8, 3, "", std::string(300'000, 'm').c_str()), 0u);
  EXPECT_EQ(oxEventShutdown(), 0u);
  const auto receive = [&] {
    std::string line(300'000, 0);  // Between the priority and this, the stamp and the process.
    EXPECT_GT(recv(log.fd, line.data(), line.size(), MSG_DONTWAIT), 0);
    return line.substr(0, 5) + line.substr(line.find("]: ") + 3).c_str();
  };
  EXPECT_EQ(receive(),
            "<132>oxEvent event_id=7 severity=warning action=a event_type=t source_id=- source_name=n "
            "native_source=oxEvent message=\"5 %s\n\" dedupe_key=k correlation_id=c details_json={}");
  EXPECT_TRUE(
      receive().starts_with("<131>oxEvent event_id=8 severity=error action=- event_type=simple source_id=- "
                            "source_name=- native_source=oxEvent message=\"mmm"));
}

}  // namespace

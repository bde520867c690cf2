// The library as a host uses it: result codes, error texts, shutdown, reload, callbacks, CSV files.
#include <malloc.h>

#include <future>
#include <thread>

#include "host_fixture.h"

namespace {

using std::string_literals::operator""s;
using Strings = std::vector<std::string>;

constexpr char kOk[] = "0 ";
constexpr char kNotInitialized[] = "80050001 oxEvent is not initialized";
constexpr char kAlreadyInitialized[] = "80050002 oxEvent is already initialized";
constexpr char kInvalidEvent[] = "80050003 Invalid OXEvent";
constexpr char kNoPath[] = "80050003 oxEvent requires a oxCFG XML config path";
constexpr char kNoCsvPath[] = "80050003 oxEvent CSV sink path is empty";
constexpr char kNoBuffer[] = "80050003 Invalid last-error buffer";
constexpr char kNoCallback[] = "80050004 Callback id was not found";
constexpr char kFlushTimedOut[] = "80050005 oxEvent core flush timed out";

uint32_t Send(const std::string& message, uint32_t severity = OXEVENT_SEVERITY_INFO) {
  return oxEventSubmitSimple(0, severity, "n", message.c_str());
}

struct Recorder {  // Collects the messages: oxEventRegisterCallback(Recorder::Note, &recorder, &id).
  static void Note(const oxEventRecord* event, void* self) {
    auto& [on_event, mutex, changed, messages] = *static_cast<Recorder*>(self);
    if (on_event) on_event(*event);
    const std::lock_guard lock(mutex);
    messages.emplace_back(event->message);
    changed.notify_all();
  }
  Strings WaitForMessages(size_t count) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::minutes(1), [&] { return messages.size() >= count; });
    return messages;
  }
  std::function<void(const oxEventRecord&)> on_event;  // Runs on the worker, before the message is noted.
  std::mutex mutex;
  std::condition_variable changed;
  Strings messages;
};

struct oxEventApi : testing::Test {
  oxEventApi() { WriteSettings(settings2, csv2); }
  ~oxEventApi() override { oxEventShutdown(); }

  void Start() {
    WriteSettings(settings, csv);
    EXPECT_EQ(LastResult(oxEventInitialize(settings.c_str())), kOk);
    EXPECT_EQ(LastResult(oxEventRegisterCallback(Recorder::Note, &recorder, &id)), kOk);
  }
  void StartSecondRun() {
    EXPECT_EQ(LastResult(oxEventInitialize(settings2.c_str())), kOk);
    EXPECT_EQ(LastResult(oxEventRegisterCallback(Recorder::Note, &second, &id)), kOk);
    EXPECT_EQ(LastResult(Send("new")), kOk);
    EXPECT_EQ(second.WaitForMessages(1), Strings{"new"});
  }
  void ExpectCallsRefused() {
    EXPECT_EQ(LastResult(Send("")), kInvalidEvent);
    EXPECT_EQ(LastResult(Send("m", OXEVENT_SEVERITY_ERROR + 1)), kInvalidEvent);
    EXPECT_EQ(LastResult(oxEventInitialize(nullptr)), kNoPath);
    for (const oxEventCallback callback : {oxEventCallback{}, Recorder::Note}) {
      EXPECT_EQ(LastResult(oxEventRegisterCallback(callback, this, callback == nullptr ? &id : nullptr)),
                "80050003 Invalid callback registration arguments");
    }
    EXPECT_EQ(LastResult(Send("m")), kNotInitialized);
    EXPECT_EQ(LastResult(oxEventFlush(0)), kNotInitialized);
    EXPECT_EQ(LastResult(oxEventShutdown()), kNotInitialized);
    EXPECT_EQ(LastResult(oxEventReloadConfig(settings2.c_str())), kNotInitialized);
    EXPECT_EQ(LastResult(oxEventReloadConfig(nullptr)), kNoPath);
  }

  const HostFolder folder{};
  const std::string settings = folder.path + "/settings", settings2 = settings + "2";
  const std::string csv = folder.path + "/events", csv2 = csv + "2";
  Recorder recorder, second;
  uint32_t id = 0;
};

TEST_F(oxEventApi, RefusesCallsUntilInitializedAndAfterShutdown) {
  const int standard_input = fcntl(STDIN_FILENO, F_GETFD);
  ExpectCallsRefused();
  WriteSettings(settings, "", {{"sink\\csv\\default\\enabled", "1"}});
  EXPECT_EQ(LastResult(oxEventInitialize(settings.c_str())), kNoCsvPath);
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), standard_input);  // The sink closes only what it has opened.
  ExpectCallsRefused();
  Start();
  EXPECT_EQ(LastResult(oxEventShutdown()), kOk);
  ExpectCallsRefused();
}

TEST_F(oxEventApi, HasNoWindowsEventLog) {
  EXPECT_EQ(LastResult(oxEventInstallWindowsEventSource("n", "f")),
            "80050004 Windows Event Log source installation is only available on Windows");
  EXPECT_EQ(LastResult(oxEventRemoveWindowsEventSource("n")),
            "80050004 Windows Event Log source removal is only available on Windows");
}

TEST_F(oxEventApi, FormatsNoAlertWithInvalidArguments) {
  const oxEventRecord valid = MakeRecord("m"), invalid = MakeRecord("");
  std::string document = "unchanged";
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&valid, {}, nullptr), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(nullptr, {}, &document), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&invalid, {}, &document), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(document, "unchanged");
}

TEST_F(oxEventApi, IsNotInitializedInAForkedChild) {  // Fails if a static link leaves out the fork handler.
  Start();
  EXPECT_EQ(InChild([] { return Send("x") == OXEVENT_NOT_INITIALIZED ? 0 : 1; }), 0);
}

TEST_F(oxEventApi, SinksWorkInAHostWithoutStandardInput) {  // Their descriptors can be 0.
  for (const std::string section : {"csv\\default", "syslog\\udp\\a", "snmp\\trap\\a"}) {
    WriteSettings(settings, section.starts_with("csv") ? csv : "", {{"sink\\" + section + "\\enabled", "1"}});
    const auto run = [this] {
      close(STDIN_FILENO);
      const uint32_t started = oxEventInitialize(settings.c_str());
      if (started != OXEVENT_OK || Send("x") != OXEVENT_OK || oxEventShutdown() != OXEVENT_OK) return 1;
      return fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 2;
    };
    EXPECT_EQ(InChild(run), 0) << section;
  }
}

TEST_F(oxEventApi, KeepsAnErrorTextPerThread) {
  EXPECT_EQ(LastResult(oxEventSubmit(nullptr)), kInvalidEvent);
  std::async(std::launch::async, [] {
    EXPECT_EQ(LastResult(0), kOk);
    errno = ESRCH;
    EXPECT_EQ(LastResult(oxEventFlush(1)), kNotInitialized);
  }).get();
  EXPECT_EQ(LastResult(oxEventGetApiVersion()), "10000 Invalid OXEvent");
}

TEST_F(oxEventApi, TruncatesTheErrorTextToTheBuffer) {
  EXPECT_EQ(LastResult(oxEventSubmit(nullptr)), kInvalidEvent);
  std::string buffer(20, '#');
  EXPECT_EQ(oxEventGetLastError(buffer.data(), 4), OXEVENT_OK);
  EXPECT_EQ(buffer, "Inv\0"s + std::string(16, '#'));
  EXPECT_EQ(LastResult(oxEventGetLastError(nullptr, 9)), kNoBuffer);
  EXPECT_EQ(LastResult(oxEventGetLastError(buffer.data(), 0)), kNoBuffer);
}

TEST_F(oxEventApi, ShutdownWritesRowsDeliversWhatIsQueuedAndRefusesOtherCallsMeanwhile) {
  std::promise<void> first;
  std::promise<void> release;
  recorder.on_event = [&](const oxEventRecord& event) {
    if (event.message != "first"s) return;
    first.set_value();
    release.get_future().wait();
  };
  Start();
  EXPECT_EQ(LastResult(Send("first")), kOk);
  first.get_future().wait();
  EXPECT_EQ(LastResult(Send("queued")), kOk);
  EXPECT_EQ(LastResult(oxEventFlush(1)), kFlushTimedOut);
  auto shutdown = std::async(std::launch::async, [] { return LastResult(oxEventShutdown()); });
  while (oxEventFlush(1) != OXEVENT_NOT_INITIALIZED) usleep(100);
  EXPECT_EQ(LastResult(Send("m")), kNotInitialized);
  EXPECT_EQ(LastResult(oxEventInitialize(settings2.c_str())), kAlreadyInitialized);
  while (ReadMessages(csv).back() != "first") usleep(100);  // Written although its delivery hangs.
  release.set_value();
  EXPECT_EQ(shutdown.get(), kOk);
  EXPECT_EQ(recorder.messages, (Strings{"first", "queued"}));
}

TEST_F(oxEventApi, ReloadChangesTheCsvFile) {
  const auto deliver = [&](size_t count, const std::string& message) {  // Without a flush: a reload writes the rows.
    EXPECT_EQ(LastResult(Send(message)), kOk);
    EXPECT_EQ(recorder.WaitForMessages(count).back(), message);
  };
  Start();
  deliver(1, "one");
  WriteSettings(settings, csv2);
  EXPECT_EQ(LastResult(oxEventReloadConfig(nullptr)), kOk);
  EXPECT_EQ(ReadMessages(csv), (Strings{"message", "one"}));
  deliver(2, "two");
  WriteSettings(settings2, csv);
  EXPECT_EQ(LastResult(oxEventReloadConfig(settings2.c_str())), kOk);
  EXPECT_EQ(ReadMessages(csv2), (Strings{"message", "two"}));
  deliver(3, "three");
  WriteSettings(settings, "", {{"sink\\csv\\default\\enabled", "1"}});
  EXPECT_EQ(LastResult(oxEventReloadConfig(settings.c_str())), kNoCsvPath);
  deliver(4, "four");
  EXPECT_EQ(LastResult(oxEventReloadConfig("")), kOk) << "This is not settings2, the last file that was accepted.";
  EXPECT_EQ(ReadMessages(csv), (Strings{"message", "one", "three", "four"}));  // No second header.
}

TEST_F(oxEventApi, WorkerBlocksTheHostsSignals) {
  sigset_t blocked;
  sigemptyset(&blocked);
  recorder.on_event = [&](const oxEventRecord&) { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); };
  Start();
  EXPECT_EQ(LastResult(Send("m")), kOk);
  EXPECT_EQ(LastResult(oxEventShutdown()), kOk);
  for (const int signal : {SIGHUP, SIGTERM, SIGRTMIN + 1}) EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
}

TEST_F(oxEventApi, EntryPointsCanBeCalledInACallback) {
  std::string thread;
  recorder.on_event = [&](const oxEventRecord&) {
    thread = "/proc/self/task/" + std::to_string(gettid());
    EXPECT_EQ(LastResult(oxEventFlush(9999)), kOk);
    EXPECT_EQ(ReadMessages(csv), (Strings{"message", "old"}));
    EXPECT_EQ(LastResult(oxEventReloadConfig(settings2.c_str())), kOk);
    EXPECT_EQ(LastResult(oxEventUnregisterCallback(id)), kOk);
    EXPECT_EQ(LastResult(oxEventUnregisterCallback(id)), kNoCallback);
    EXPECT_EQ(LastResult(oxEventShutdown()), kOk);
    EXPECT_EQ(LastResult(Send("m")), kNotInitialized);
    StartSecondRun();
  };
  Start();
  EXPECT_EQ(LastResult(Send("old")), kOk);
  recorder.WaitForMessages(1);
  while (std::filesystem::exists(thread)) usleep(100);
  EXPECT_EQ(LastResult(Send("more")), kOk);
  EXPECT_EQ(LastResult(oxEventShutdown()), kOk);
  EXPECT_EQ(recorder.messages, Strings{"old"});
  EXPECT_EQ(ReadMessages(csv), (Strings{"message", "old"}));
  EXPECT_EQ(ReadMessages(csv2), (Strings{"message", "new", "more"}));
}

TEST_F(oxEventApi, DiscardsWhatIsQueuedWhenACallbackShutsDown) {
  recorder.on_event = [&](const oxEventRecord&) {
    EXPECT_EQ(LastResult(Send("discarded")), kOk);
    EXPECT_EQ(LastResult(oxEventFlush(9999)), kFlushTimedOut);
    EXPECT_EQ(LastResult(oxEventShutdown()), "80050005 oxEvent core shutdown failed");
    std::async(std::launch::async, [this] { StartSecondRun(); }).get();
  };
  Start();
  EXPECT_EQ(LastResult(Send("old")), kOk);
  recorder.WaitForMessages(1);
  EXPECT_EQ(LastResult(oxEventShutdown()), kOk);
  EXPECT_EQ(ReadMessages(csv), (Strings{"message", "old"}));
  EXPECT_EQ(ReadMessages(csv2), (Strings{"message", "new"}));
}

TEST_F(oxEventApi, FreesTheErrorTextsOfThreadsThatEnded) {
  const auto memory_after = [](int threads) {
    for (int i = 0; i < threads; ++i) std::thread([] { oxEventFlush(0); }).join();
    return mallinfo2().uordblks;
  };
  const size_t before = memory_after(100);
  EXPECT_LT(memory_after(2000), before + 2000 * 16);
}

TEST_F(oxEventApi, WritesOnlyCompleteCsvRows) {  // So that a process that is killed leaves no torn row.
  recorder.on_event = [&](const oxEventRecord&) { EXPECT_TRUE(ReadFile(csv).ends_with('\n')); };
  Start();
  for (size_t i = 1; i <= 100; ++i) EXPECT_EQ(LastResult(Send(std::string(10 * i * i, 'x'))), kOk);
  EXPECT_EQ(LastResult(oxEventFlush(0)), kOk);
  EXPECT_EQ(recorder.messages.size(), 100u);
}

}  // namespace

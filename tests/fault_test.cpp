// The whole library while allocations and system calls fail: the n-th call of one kind, for each n. The entry point
// reports the failure, or every event is delivered or counted as lost; afterwards everything works again.
#include <netdb.h>

#include <atomic>

#include "core/oxEventRouter.h"
#include "faults.h"
#include "host_fixture.h"
#include "http_server.h"
#include "sinks/oxEventSinkSet.h"

namespace {

using std::string;

constexpr char kOk[] = "0 ";
constexpr char kSecret[] = "sesame";
constexpr char kLong[] = "too long for a string that needs no memory";

thread_local bool t_is_host = false;  // False: the worker, or the thread of a name lookup.

struct Case {
  string call;
  int error;                      // What the hook of Faults returns.
  std::vector<string> results;    // Possible results of the entry point: how LastResult may begin.
  bool later_calls_fail = false;  // Whether the calls after the n-th fail too.
};

struct FaultTest : testing::Test {
  FaultTest() {
    t_is_host = true;
    WriteSettings(settings, csv,
                  {{"sink\\syslog\\udp\\a\\enabled", "1"},
                   {"sink\\syslog\\udp\\a\\host", "syslog.test"},
                   {"sink\\syslog\\udp\\a\\port", std::to_string(port)},
                   {"sink\\webhook\\http\\a\\enabled", "1"},
                   {"sink\\webhook\\http\\a\\bearer_token", kSecret},
                   {"sink\\webhook\\http\\a\\endpoint_url", server.Url("http.test")}});
    Restart();
    ExpectWorks();
  }
  ~FaultTest() override {
    oxEventShutdown();
    close(datagrams);
  }

  static void CountEvent(const oxEventRecord* event, void* user_data) {
    auto& test = *static_cast<FaultTest*>(user_data);
    if (test.callbacks++ > 0) return;
    // Never a repeat: a raise that was lost has raised no condition. The event of ExpectWorks has no action.
    EXPECT_TRUE(string("raise").starts_with(event->action)) << event->action;
  }
  void Stop() {
    oxEventShutdown();
    std::filesystem::remove_all(csv_directory);
  }
  void Restart() {
    Stop();
    callbacks = 0;
    EXPECT_EQ(LastResult(oxEventInitialize(settings.c_str())), kOk);
    EXPECT_EQ(LastResult(oxEventRegisterCallback(CountEvent, this, &callback_id)), kOk);
  }
  // Returns how many events of this round have arrived, by sink. Begins the next round with another message, because a
  // post of this round may arrive later.
  using Arrivals = std::map<string, uint64_t>;
  Arrivals TakeArrivals() {
    Arrivals arrivals = {{"posts", 0}, {"rows", 0}, {"syslog", 0}};
    for (const string& post : server.TakeRequests()) arrivals["posts"] += post.find('"' + message + '"') != post.npos;
    for (const string& row : ReadMessages(csv)) {
      EXPECT_NE(row, "no row");
      arrivals["rows"] += row == message;
    }
    while (recv(datagrams, nullptr, 0, MSG_DONTWAIT) == 0) ++arrivals["syslog"];
    message = "m" + std::to_string(++round);
    return arrivals;
  }
  void ExpectWorks() {
    if (oxEventReloadConfig(nullptr) != OXEVENT_OK) {  // A failed CSV sink writes nothing until a reload.
      EXPECT_TRUE(oxEventSinkReport().empty()) << "The sinks are open although the library is not running.";
      Restart();
    }
    oxEventFlush(0);
    TakeArrivals();
    callbacks = 0;
    oxEventUnregisterCallback(callback_id);
    EXPECT_EQ(LastResult(oxEventRegisterCallback(CountEvent, this, &callback_id)), kOk);
    EXPECT_EQ(LastResult(oxEventSubmitSimple(0, 3, "n", message.c_str())), kOk);
    EXPECT_EQ(LastResult(oxEventFlush(0)), kOk);
    EXPECT_EQ(TakeArrivals(), (Arrivals{{"posts", 1}, {"rows", 1}, {"syslog", 1}}));
    EXPECT_EQ(callbacks, 1u);
  }
  void ExpectAccounted() {
    EXPECT_EQ(oxEventFlush(0), OXEVENT_OK);
    const oxEventCounters counters = oxEventCoreGetCounters();
    uint64_t failures = counters.submitted - counters.emitted - counters.dropped;  // Never passed to the sinks.
    for (const auto& [sink, arrived] : TakeArrivals()) {
      ASSERT_LE(arrived, counters.emitted) << sink;
      failures += counters.emitted - arrived;
    }
    EXPECT_EQ(counters.emitted, callbacks);
    EXPECT_LE(failures, counters.sink_failures);
    EXPECT_EQ(counters.submitted - counters.emitted - counters.dropped, counters.failed_evaluations);
  }

  using Act = std::function<uint32_t()>;
  void FailEach(const std::vector<Case>& cases, const Act& act, bool on_host_thread = true) {
    for (const Case& c : cases) FailEachCall(c, act, on_host_thread);
  }
  void FailEachCall(const Case& c, const Act& act, bool on_host_thread) {
    std::atomic<size_t> made = 0;
    size_t n = 0;
    do {  // Until there is no n-th call.
      ++n;
      SCOPED_TRACE("Call " + std::to_string(n) + " of " + c.call + " fails with error " + std::to_string(c.error));
      prepare();
      TakeArrivals();
      callbacks = 0;
      made = 0;
      uint32_t code = 0;
      {
        const Faults faults([&](std::string_view call, long) {
          if (call != c.call || t_is_host != on_host_thread) return 0;
          ++made;
          return made == n || (made > n && c.later_calls_fail) ? c.error : 0;
        });
        code = act();
      }
      const string result = LastResult(code);
      const auto is_result = [&](const string& start) { return result.starts_with(start); };
      EXPECT_TRUE(made > 0 || n > 1) << "There is no such call";
      EXPECT_TRUE(made < n ? result == kOk : std::any_of(c.results.begin(), c.results.end(), is_result)) << result;
      EXPECT_EQ(result.find(kSecret), result.npos) << result;
      if (!on_host_thread) ExpectAccounted();
      ExpectWorks();
    } while (made >= n && !HasFailure());
  }

  const HostFolder folder{};
  const string settings = folder.path + "/settings", csv_directory = folder.path + "/csv",
               csv = csv_directory + "/rows";
  uint16_t port = 0;
  const int datagrams = LoopbackSocket(AF_INET, SOCK_DGRAM, &port);
  HttpServer server{{{.closes = true}}};
  uint64_t round = 0;
  string message = "m0";
  std::atomic<uint64_t> callbacks = 0;
  uint32_t callback_id = 0;
  std::function<void()> prepare = [this] { Restart(); };
};

TEST_F(FaultTest, InitializeAndReloadReportWhatFails) {
  const string config = "80050003 Unable to open oxEvent config: " + settings;
  const string make_directory = "80050005 Unable to create directory for oxEvent CSV sink: " + csv_directory;
  const string open_file = "80050005 Unable to open oxEvent CSV file for append: " + csv;
  const std::vector<Case> cases = {
      {"open", EACCES, {config, open_file}, /*later_calls_fail=*/true},
      {"read", EIO, {config}},
      {"mkdir", ENOSPC, {make_directory}, /*later_calls_fail=*/true},
      {"write", EIO, {"80050005 Unable to write oxEvent CSV header: " + csv}},
      {"getaddrinfo", EAI_AGAIN, {"80050005 oxEvent syslog UDP resolve failed for syslog.test:"}},
      {"socket", EMFILE, {"80050005 oxEvent syslog UDP socket creation failed for"}},
      {"malloc", ENOMEM, {config, "80050005 oxEvent"}}};
  prepare = [&] { Stop(); };
  const auto initialize = [&] { return oxEventInitialize(settings.c_str()); };
  FailEach(cases, initialize);
  FailEach({{"pthread_create", EAGAIN, {"80050005 oxEventInitialize failed:"}}}, initialize);
  prepare = [&] {
    Restart();
    std::filesystem::remove_all(csv_directory);
  };
  FailEach(cases, [] { return oxEventReloadConfig(nullptr); });
}

TEST_F(FaultTest, FlushAndShutdownReportRowsThatTheyCannotWrite) {
  prepare = [&] {
    Restart();
    EXPECT_EQ(LastResult(oxEventSubmitSimple(1, 3, "n", "m")), kOk);
    while (callbacks == 0) usleep(100);
  };
  FailEach({{"write", ENOSPC, {"80050005 oxEvent core flush timed out"}}}, [] { return oxEventFlush(0); });
  FailEach({{"write", ENOSPC, {"80050005 oxEvent sink flush failed"}}}, oxEventShutdown);
}

TEST_F(FaultTest, CountsWhatIsNotSubmittedOrDelivered) {
  const auto submit_and_flush = [this] {
    uint64_t submitted = 0;
    for (const char* action : {"raise", "raise", "update", "clear"}) {  // The second is suppressed.
      oxEventRecord record = MakeRecord(message.c_str());
      record.severity = OXEVENT_SEVERITY_ERROR;
      record.event_type = record.source_id = record.source_name = record.correlation_id = kLong;
      record.action = action;
      const uint32_t result = oxEventSubmit(&record);
      const oxEventCounters counters = oxEventCoreGetCounters();
      EXPECT_EQ(counters.submitted, ++submitted);
      EXPECT_EQ(counters.drops_by_reason[static_cast<size_t>(oxEventDrop::kNoMemory)], result == OXEVENT_OK ? 0u : 1u);
      if (result != OXEVENT_OK) return result;
    }
    oxEventFlush(0);
    return uint32_t{OXEVENT_OK};
  };
  FailEach({{"malloc", ENOMEM, {kOk}}, {"sendto", EHOSTUNREACH, {kOk}}, {"getaddrinfo", EAI_AGAIN, {kOk}}},
           submit_and_flush, /*on_host_thread=*/false);
#ifndef OXEVENT_SANITIZED  // A sanitizer's own calls to mmap would fail too.
  FailEach({{"mmap", ENOMEM, {kOk}}}, submit_and_flush, /*on_host_thread=*/false);
  FailEach({{"mmap", ENOMEM, {"80050005 oxEvent core submit failed"}}}, submit_and_flush);
#endif
}

}  // namespace

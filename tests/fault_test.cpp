// The whole library while memory runs out and system calls fail. Each of a kind fails in its turn, alone or with all
// later ones: the call gives a code and a text, every event is delivered or counted, and then everything works again.
#include <netdb.h>

#include <atomic>
#include <optional>
#include <thread>

#include "core/oxEventRouter.h"
#include "faults.h"
#include "host_fixture.h"

namespace {

using std::string;
using Strings = std::vector<string>;
using Errors = std::vector<int>;

constexpr char kSecret[] = "sesame", kLong[] = "too long for a text that needs no memory";
constexpr char kOk[] = "0 ";
const Errors kOpen = {EACCES, EIO, ELOOP, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS};
const Errors kSocket = {EACCES, EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS, ENOMEM};
const Errors kLookup = {EAI_AGAIN, EAI_FAIL, EAI_MEMORY, EAI_NONAME, EAI_SYSTEM};

enum class Thread { kHost, kServer, kWorker };
thread_local Thread t_thread = Thread::kWorker;  // The worker, or a lookup of its.

std::atomic<uint64_t> g_round = 0;  // Named by each event's message: a post of an earlier one may come late.
string Message() { return "m" + std::to_string(g_round); }

struct HttpServer {  // Accepts each post, one on a connection.
  HttpServer() { listen(fd, 100), thread = std::thread(&HttpServer::Run, this); }
  ~HttpServer() { shutdown(fd, SHUT_RDWR), thread.join(), close(fd); }
  void Run() {
    t_thread = Thread::kServer;
    for (int peer; (peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(peer)) {
      string post(65536, 0);
      for (ssize_t got = 1; got > 0 && post.find('}') == post.npos;) got = recv(peer, post.data(), post.size(), 0);
      posts += post.find('"' + Message() + '"') != post.npos;
      send(peer, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", 38, MSG_NOSIGNAL);
    }
  }
  uint16_t port = 0;
  const int fd = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  std::atomic<uint64_t> posts = 0;
  std::thread thread;
};

struct Case {
  string call, about;                   // `about`: a file or a host; empty: any.
  Errors errors;                        // As Faults takes them.
  Strings results;                      // One of these begins the code and the text that the entry point then gives.
  Strings results_if_others_fail = {};  // Where they differ when all later calls fail too.
  uint64_t failing_sinks = 0;
};

struct FaultTest : testing::Test {
  FaultTest() {
    t_thread = Thread::kHost;
    const string own_log = access("/dev/log", F_OK) == 0 ? "0" : "1";  // A machine's log is not filled.
    WriteSettings(settings, csv,
                  {{"sink\\native\\main\\enabled", own_log},
                   {"sink\\alertmanager\\a\\enabled", "1"},
                   {"sink\\syslog\\udp\\a\\enabled", "1"},
                   {"sink\\syslog\\udp\\a\\host", "syslog.test"},
                   {"sink\\syslog\\udp\\a\\port", std::to_string(port)},
                   {"sink\\snmp\\trap\\a\\enabled", "1"},
                   {"sink\\snmp\\trap\\a\\host", "snmp.test"},
                   {"sink\\snmp\\trap\\a\\port", std::to_string(port)},
                   {"sink\\snmp\\trap\\a\\community", kSecret},
                   {"sink\\webhook\\http\\a\\enabled", "1"},
                   {"sink\\webhook\\http\\a\\bearer_token", kSecret},
                   {"sink\\webhook\\http\\a\\endpoint_url", "http://http.test:" + std::to_string(server.port)}});
    Restart();
    completed = ReadFile(settings);
    ExpectWorks();
  }
  ~FaultTest() override { oxEventShutdown(), close(datagrams); }

  static void Note(const oxEventRecord* event, void* calls_of) {
    if (++*static_cast<std::atomic<uint64_t>*>(calls_of) > 1) return;
    // After a raise that was not sent, its repetition is sent.
    EXPECT_TRUE(string("raise").starts_with(event->action)) << event->action;
  }
  void Stop() {
    oxEventShutdown();
    std::filesystem::remove_all(folder.path + "/csv");
  }
  void Restart() {
    Stop();
    calls = 0;
    EXPECT_EQ(LastResult(oxEventInitialize(settings.c_str())), kOk);
    EXPECT_EQ(LastResult(oxEventRegisterCallback(Note, &calls, &id)), kOk);
  }
  static uint32_t SubmitAction(const char* action) {
    const string message = Message();
    oxEventRecord record = MakeRecord(message.c_str());
    record.severity = OXEVENT_SEVERITY_ERROR;
    record.event_type = record.source_id = record.source_name = record.correlation_id = kLong;
    record.action = action;
    record.pts = *action;
    return oxEventSubmit(&record);
  }
  // How many of the round's events have arrived where; begins the next round.
  using Arrivals = std::map<string, uint64_t>;
  Arrivals TakeArrivals() {
    const Strings rows = ReadMessages(csv);
    EXPECT_EQ(std::count(rows.begin(), rows.end(), "no row"), 0);
    Arrivals arrivals = {{"messages", 0}, {"traps", 0}};
    arrivals["rows"] = static_cast<uint64_t>(std::count(rows.begin(), rows.end(), Message()));
    for (char first; recv(datagrams, &first, 1, MSG_DONTWAIT) == 1;) ++arrivals[first == '<' ? "messages" : "traps"];
    ++g_round;
    arrivals["posts"] = server.posts.exchange(0);
    return arrivals;
  }
  // At most `failing` sinks lack an event, and what they lack is counted.
  void ExpectAccounted(uint64_t failing) {
    EXPECT_EQ(oxEventFlush(0), OXEVENT_OK);
    const oxEventCounters counters = oxEventCoreGetCounters();
    uint64_t lost = counters.submitted - counters.emitted - counters.dropped;  // Failed evaluations.
    uint64_t lacking = 0;
    for (const auto& [where, arrived] : TakeArrivals()) {
      lost += counters.emitted - arrived;
      lacking += arrived < counters.emitted;
    }
    EXPECT_EQ(counters.submitted, 4u);
    EXPECT_EQ(counters.emitted, calls);
    EXPECT_LE(lost, counters.sink_failures);
    EXPECT_LE(lacking, failing);
  }
  void ExpectWorks() {
    if (oxEventReloadConfig(nullptr) != OXEVENT_OK) Restart();  // A reload, since a CSV file may have broken off.
    oxEventFlush(0);
    TakeArrivals();
    oxEventUnregisterCallback(id);
    calls = 0;
    EXPECT_EQ(LastResult(oxEventRegisterCallback(Note, &calls, &id)), kOk);
    EXPECT_EQ(LastResult(oxEventSubmitSimple(0, 3, "n", Message().c_str())), kOk);
    EXPECT_EQ(LastResult(oxEventFlush(0)), kOk);
    EXPECT_EQ(TakeArrivals(), (Arrivals{{"messages", 1}, {"posts", 1}, {"rows", 1}, {"traps", 1}}));
    EXPECT_EQ(calls, 1u);
    EXPECT_EQ(ReadFile(settings), completed);
  }

  static bool IsAbout(std::string_view call, long first, const string& what) {
    if (what.empty()) return true;
    if (call == "open" || call == "mkdir" || call == "getaddrinfo") return what == reinterpret_cast<const char*>(first);
    std::error_code none;
    return what == std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(first), none);
  }
  // For each n, makes the n-th call on a thread fail while `act` runs, until there is no n-th call.
  void FailEach(const std::vector<Case>& cases, const std::function<uint32_t()>& act, Thread thread = Thread::kHost) {
    for (const Case& c : cases) {
      for (const int error : c.errors) {
        FailEach(c, error, c.results, false, act, thread);
        FailEach(c, error, c.results_if_others_fail.empty() ? c.results : c.results_if_others_fail, true, act, thread);
      }
    }
  }
  void FailEach(const Case& c, int error, const Strings& results, bool others_fail,
                const std::function<uint32_t()>& act, Thread thread) {
    std::atomic<size_t> made = 1;
    for (size_t n = 1; made >= n && !HasFailure(); ++n) {
      SCOPED_TRACE(c.call + " " + c.about + " gives " + std::to_string(error) + " from call " + std::to_string(n) +
                   (others_fail ? " on" : " only"));
      prepare();
      TakeArrivals();
      made = calls = 0;
      uint32_t code = 0;
      {
        const Faults faults([&](std::string_view call, long first) {
          if (call != c.call || t_thread != thread || !IsAbout(call, first, c.about)) return 0;
          return ++made == n || (made > n && others_fail) ? error : 0;
        });
        code = act();
      }
      EXPECT_GE(made + n, 2u) << "There is no such call";
      ExpectOneOf(made < n ? Strings{kOk} : results, LastResult(code));
      if (thread == Thread::kWorker) ExpectAccounted(c.failing_sinks);
      ExpectWorks();
    }
  }
  static void ExpectOneOf(const Strings& results, const string& result) {
    const auto begins = [&](const string& start) {
      return start.ends_with(' ') ? result == start : result.starts_with(start);  // Ends in a space: without a text.
    };
    EXPECT_TRUE(std::any_of(results.begin(), results.end(), begins)) << result;
    EXPECT_EQ(result.find(kSecret), string::npos) << result;
  }
  // What a call returns while this thread has no memory.
  static string WithoutMemory(const std::function<uint32_t()>& act) {
    const auto hook = [](std::string_view call, long) {
      return call == "malloc" && t_thread == Thread::kHost ? ENOMEM : 0;
    };
    std::optional<Faults> faults(hook);
    const uint32_t code = act();
    faults.reset();
    return LastResult(code);
  }
  const SystemLog log = SystemLog(LOCK_SH);
  const HostFolder folder{};
  const string settings = folder.path + "/settings", csv = folder.path + "/csv/rows";
  uint16_t port = 0;
  const int datagrams = LoopbackSocket(AF_INET, SOCK_DGRAM, &port);
  HttpServer server;
  string completed;  // The settings, as the library completes them.
  std::atomic<uint64_t> calls = 0;
  uint32_t id = 0;
  std::function<void()> prepare = [this] { Restart(); };
};

TEST_F(FaultTest, InitializeAndReloadReportWhatFails) {
  const string config = "80050003 Unable to open oxEvent config: " + settings, csv_folder = folder.path + "/csv";
  const string make_folder = "80050005 Unable to create directory for oxEvent CSV sink: " + csv_folder;
  const string open_file = "80050005 Unable to open oxEvent CSV file for append: " + csv;
  const string syslog = "80050005 oxEvent syslog UDP ", trap = "80050005 oxEvent SNMP trap ";
  const auto out_of_memory = [&](const string& entry_point) {
    const Strings results = {config, "80050005 " + entry_point + " failed: std::bad_alloc",
                             "80050005 Unable to allocate oxEvent native log handle",
                             syslog + "resolve failed for syslog.test:", trap + "resolve failed for snmp.test:"};
    return Case{"malloc", "", {ENOMEM}, results, {"80050003", "80050005"}};
  };
  const std::vector<Case> cases = {
      {"open", settings, kOpen, {config}},
      {"read", settings, {EIO, EISDIR, ENOMEM}, {config}},
      {"mkdir", csv_folder, {EACCES, EDQUOT, EMLINK, ENOSPC, EROFS}, {kOk}, {make_folder}},
      {"open", csv, kOpen, {kOk, open_file}, {open_file}},
      {"write", csv, {EFBIG, EIO}, {"80050005 Unable to write oxEvent CSV header: " + csv}},
      {"write", csv, {-7, EDQUOT, ENOSPC}, {kOk}},
      {"getaddrinfo", "syslog.test", kLookup, {syslog + "resolve failed for syslog.test:"}},
      {"getaddrinfo", "snmp.test", kLookup, {trap + "resolve failed for snmp.test:"}},
      {"socket", "", kSocket, {syslog + "socket creation failed for", trap + "socket creation failed for"}}};
  prepare = [&] { Stop(); };
  const auto initialize = [&] { return oxEventInitialize(settings.c_str()); };
  FailEach(cases, initialize);
  const Case no_thread = {"pthread_create", "", {EAGAIN, EINVAL, EPERM}, {"80050005 oxEventInitialize failed:"}};
  FailEach({out_of_memory("oxEventInitialize"), no_thread}, initialize);
  prepare = [&] {
    Restart();
    std::filesystem::remove_all(csv_folder);
  };
  const auto reload = [] { return oxEventReloadConfig(nullptr); };
  FailEach(cases, reload);
  FailEach({out_of_memory("oxEventReloadConfig")}, reload);
}

TEST_F(FaultTest, FlushAndShutdownReportRowsThatTheyCannotWrite) {
  prepare = [&] {
    Restart();
    EXPECT_EQ(LastResult(oxEventSubmitSimple(1, 3, "n", "m")), kOk);
    while (calls == 0) usleep(100);
  };
  const Errors errors = {EDQUOT, EFBIG, EIO, ENOSPC};
  const Case in_pieces = {"write", csv, {-7}, {kOk}};
  FailEach({{"write", csv, errors, {"80050005 oxEvent core flush timed out"}}, in_pieces},
           [] { return oxEventFlush(0); });
  FailEach({{"write", csv, errors, {"80050005 oxEvent sink flush failed"}}, in_pieces}, oxEventShutdown);
}

TEST_F(FaultTest, ReportsThatMemoryRanOut) {
  uint32_t other = 0;
  FailEach({{"malloc", "", {ENOMEM}, {"80050005 oxEventRegisterCallback failed: std::bad_alloc"}, {"80050005"}}},
           [&] { return oxEventRegisterCallback([](auto...) {}, nullptr, &other); });
  const oxEventRecord record = MakeRecord(kLong);
  const auto format = [&] {
    string document;
    return oxEventFormatAlertmanagerRecord(&record, {}, &document);
  };
  const string text = "80050005 oxEventFormatAlertmanagerRecord failed: std::bad_alloc";
  FailEach({{"malloc", "", {ENOMEM}, {text}, {"80050005"}}}, format);
}

#ifndef OXEVENT_SANITIZED  // The thread sanitizer's allocator has memory left.
TEST_F(FaultTest, ReturnsACodeWithoutMemoryForItsText) {
  EXPECT_EQ(WithoutMemory([] { return oxEventUnregisterCallback(0); }), "80050004 ");
  EXPECT_EQ(WithoutMemory([] { return oxEventGetLastError(nullptr, 0); }), "80050003 ");
}
#endif

TEST_F(FaultTest, SubmitsFlushesAndShutsDownWithoutMemory) {
  Restart();
  EXPECT_EQ(WithoutMemory([] { return oxEventSubmitSimple(1, 3, kLong, kLong); }), kOk);
  EXPECT_EQ(WithoutMemory([] { return oxEventFlush(0); }), kOk);
  EXPECT_EQ(calls, 1u);
  EXPECT_EQ(WithoutMemory([] { return oxEventSubmitSimple(1, 3, kLong, kLong); }), kOk);
  EXPECT_EQ(WithoutMemory(oxEventShutdown), kOk);
  EXPECT_EQ(calls, 2u);
}

#ifndef OXEVENT_SANITIZED  // A sanitizer's own mappings come the same way.
TEST_F(FaultTest, SubmitCountsAndReportsAnEventForWhichThereIsNoMemory) {
  const auto act = [] {
    const uint32_t result = SubmitAction("raise");
    EXPECT_EQ(oxEventCoreGetCounters().dropped, result == OXEVENT_OK ? 0u : 1u);
    return result;
  };
  FailEach({{"mmap", "", {ENOMEM}, {"80050005 oxEvent core submit failed"}}}, act);
}
#endif

TEST_F(FaultTest, CountsWhatASinkDoesNotSend) {
  const Errors send = {-3, EACCES, EAGAIN, EHOSTUNREACH, EMSGSIZE, ENETDOWN, ENETUNREACH, ENOBUFS, EPERM};
  const auto act = [] {
    uint32_t result = 0;
    for (const char* action : {"raise", "raise", "update", "clear"}) {  // The second is suppressed.
      result = std::max(result, SubmitAction(action));
    }
    oxEventFlush(0);
    return result;
  };
  const std::vector<Case> cases = {
      {"malloc", "", {ENOMEM}, {kOk}, {}, 4},
#ifndef OXEVENT_SANITIZED
      {"mmap", "", {ENOMEM}, {kOk}, {}, 4},
#endif
      {"sendto", "", send, {kOk}, {}, 2},
      {"getaddrinfo", "http.test", kLookup, {kOk}, {}, 1},
      {"pthread_create", "", {EAGAIN, EINVAL, EPERM}, {kOk}, {}, 1},
      {"socket", "", kSocket, {kOk}, {}, 1},
      {"connect", "", {EADDRNOTAVAIL, ECONNREFUSED, ENETUNREACH, ETIMEDOUT}, {kOk}, {}, 1}};
  FailEach(cases, act, Thread::kWorker);
}

}  // namespace

// Hosts that exit, fork, unload the library, or limit the size of files. Each host runs in a child process and checks
// the results of its own calls: an unexpected one ends it with status 99. Most tests then compare the rows in the CSV
// file with the events whose callback has returned.
#include <dlfcn.h>
#include <malloc.h>
#include <netdb.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <atomic>
#include <iostream>
#include <thread>

#include "../include/oxEvent/alert_poster.h"
#include "host_fixture.h"

namespace {

struct SharedObject {
  struct Symbol {
    template <class Function>
    operator Function*() const {
      return reinterpret_cast<Function*>(address);
    }
    void* address;
  };
  Symbol Find(const char* name) const { return {dlsym(handle, name)}; }

  void* handle;
};

struct Library : SharedObject {
  Library() : SharedObject{dlopen(OXEVENT_LIBRARY, RTLD_NOW)} {}

  decltype(&oxEventInitialize) Initialize = Find("oxEventInitialize");
  decltype(&oxEventShutdown) Shutdown = Find("oxEventShutdown");
  decltype(&oxEventSubmitSimple) SubmitSimple = Find("oxEventSubmitSimple");
  decltype(&oxEventFlush) Flush = Find("oxEventFlush");
  decltype(&oxEventReloadConfig) ReloadConfig = Find("oxEventReloadConfig");
  decltype(&oxEventRegisterCallback) RegisterCallback = Find("oxEventRegisterCallback");
  decltype(&oxEventGetLastError) GetLastError = Find("oxEventGetLastError");
};

using Action = void (*)();

// The host's state is global and never destroyed: the callback and other threads use it while the process exits.
Library* ox;
std::atomic<Action> g_in_callback = nullptr;    // Runs in the callback of the next event, once.
std::atomic<Action> g_at_exit = nullptr;        // Runs in an exit handler.
std::atomic<Action> g_while_loading = nullptr;  // Runs while the loader loads the plugin of this test program.
std::atomic<int> g_submitted = 0;
std::atomic<int> g_delivered = 0;
std::atomic<bool> g_queued = false;    // Whether SubmitThree has queued its events.
std::atomic<bool> g_released = false;  // Lets WaitForRelease return.
std::atomic<bool> g_lookup_hangs = false;
int g_returned = -1;  // Descriptor of the file with the messages of returned callbacks; -1 in a child of the host.

extern "C" void __tsan_init() __attribute__((weak));  // Null unless ThreadSanitizer is in use.
bool IsThreadSanitizerUsed() { return &__tsan_init != nullptr; }
// A child of the host may start threads. It leaks what belongs to its parent, so LeakSanitizer is off in it.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0:atexit_sleep_ms=20"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:CRYPTO_zalloc"; }  // Threads that never end own it.
extern "C" int __lsan_is_turned_off() { return g_returned < 0; }

void Check(const auto& actual, const auto& expected, int line = __builtin_LINE()) {
  if (actual == expected) return;
  std::cerr << "process_test.cpp:" << line << ": " << actual << ", not " << expected << std::endl;
  _exit(99);
}

void WaitForRelease() {
  WaitUntil([] { return g_released.load(); });
}

// Waits until the row of the first event is in the file.
void WaitForRow() {
  WaitUntil([] { return ReadMessages("events.csv").size() > 1; });
}

// Replaces the C library's function: acts as if the name server hung.
extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
  g_lookup_hangs = true;
  WaitForRelease();
  return EAI_AGAIN;
}

// The constructor of the plugin calls it.
extern "C" __attribute__((visibility("default"))) void WhileLoading() { g_while_loading.load()(); }

void BeginChild() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // In case the child hangs: one forked on the worker blocks all other signals.
  g_returned = -1;
}

int Fork(Action run) {
  return InChild([run] {
    BeginChild();
    run();
    return 0;
  });
}

void OnEvent(const oxEventRecord* event, void*) {
  if (const Action in_callback = g_in_callback.exchange(nullptr)) {
    WaitUntil([] { return g_queued.load(); });
    in_callback();
  }
  const std::string line = std::string(event->message) + '\n';
  // Not with dprintf: a child that is forked meanwhile would write the line again when it exits.
  if (g_returned >= 0) Check(write(g_returned, line.data(), line.size()) > 0, true);
  ++g_delivered;
}

uint32_t Start(const char* settings = "settings-of-the-host.xml") {
  uint32_t id = 0;
  const uint32_t result = ox->Initialize(settings);
  return result == OXEVENT_OK ? ox->RegisterCallback(OnEvent, nullptr, &id) : result;
}

void Stop() { Check(ox->Shutdown(), OXEVENT_OK); }

uint32_t SubmitOne() { return ox->SubmitSimple(0, 1, nullptr, std::to_string(++g_submitted).c_str()); }

void Submit(int count) {
  for (int i = 0; i < count; ++i) Check(SubmitOne(), OXEVENT_OK);
}

// Submits events 1, 2 and 3. Returns when `in_callback` begins in the callback of event 1, while the others are queued.
void SubmitThree(Action in_callback) {
  g_in_callback = in_callback;
  Submit(3);
  WaitUntil([] { return g_in_callback == nullptr; });
  g_queued = true;
}

using Messages = std::vector<std::string>;

struct ProcessTest : testing::Test {
  // Runs a host, in a child process: starts the library, calls `host` and, if that returns, exits with status 0.
  void ExpectExit(int status, Action host) {
    EXPECT_EQ(chdir(directory.path.c_str()), 0);
    fflush(nullptr);  // The host must not write what the test has buffered.
    const auto run = [host]() -> int {
      alarm(240);
      g_returned = open("returned", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
      WriteSettings("settings-of-the-host.xml", "events.csv");
      WriteSettings("own.xml", "own.csv");  // For later runs, and for children.
      // Before the library is loaded: destructors of its static objects, if it had any, would run before the handler.
      atexit([] {
        if (const Action at_exit = g_at_exit) at_exit();
      });
      ox = new Library;
      Check(Start(), OXEVENT_OK);
      host();
      exit(0);
    };
    EXPECT_EQ(InChild(run), status);
    rows = ReadMessages("events.csv");
    std::ifstream file("returned");
    for (std::string line; std::getline(file, line);) returned.push_back(line);
  }

  const HostFolder directory{};
  Messages rows;                    // In the CSV file.
  Messages returned = {"message"};  // Begins with the header's, as `rows` does.
};

// Repeats each call on a thread of its own, until the process ends.
void Hammer(auto... calls) {
  const auto repeat = [](auto call) {
    while (true) call();
  };
  (std::thread(repeat, calls).detach(), ...);
}

void FlushAndReload() {
  ox->Flush(0);
  ox->ReloadConfig(nullptr);
}

// For a child of the host, in which the library is not running yet.
void RunAndExit() {
  Check(SubmitOne(), OXEVENT_NOT_INITIALIZED);
  unlink("own.csv");
  g_delivered = 0;
  Check(Start("own.xml"), OXEVENT_OK);
  Submit(3);
  Check(ox->Flush(0), OXEVENT_OK);
  Check(g_delivered.load(), 3);
  Check(ReadMessages("own.csv").size(), 4u);
  Check(ox->ReloadConfig("own.xml"), OXEVENT_OK);
  exit(0);
}

void Unload() {
  Check(dlclose(ox->handle), 0);
  delete std::exchange(ox, nullptr);
  Check(ReadFile("/proc/self/maps").find("liboxEvent"), std::string::npos);
  // Stays, like the HTTP client, into which the thread of a name lookup may return, however long after.
  Check(ReadFile("/proc/self/maps").find("liboxutil") != std::string::npos, true);
}

void ForkChildren() {
  Check(Fork([] { exit(7); }), 7);
  Check(Fork(Unload), 0);
  if (!IsThreadSanitizerUsed()) Check(Fork(RunAndExit), 0);
}

TEST_F(ProcessTest, ExitDiscardsTheQueueAndWritesRowsBeforeItWaitsForTheDelivery) {
  ExpectExit(7, [] {
    SubmitThree(WaitForRow);
    exit(7);
  });
  EXPECT_EQ(rows, (Messages{"message", "1"}));
  EXPECT_EQ(returned, rows);
}

TEST_F(ProcessTest, ExitHandlersMaySubmit) {
  ExpectExit(0, [] {
    g_at_exit = [] {
      Submit(1);
      Check(ox->Flush(0), OXEVENT_OK);
    };
  });
  EXPECT_EQ(rows, (Messages{"message", "1"}));
}

TEST_F(ProcessTest, UnloadDiscardsTheQueueAndWaitsForTheDelivery) {
  ExpectExit(0, [] {
    SubmitThree(WaitForRow);
    Unload();
  });
  EXPECT_EQ(rows, (Messages{"message", "1"}));
  EXPECT_EQ(returned, rows);
}

TEST_F(ProcessTest, ChildrenHaveRunsOfTheirOwnAndTheParentGoesOn) {
  ExpectExit(0, [] {
    SubmitThree(WaitForRelease);
    ForkChildren();
    g_released = true;
    Stop();
  });
  EXPECT_EQ(rows, (Messages{"message", "1", "2", "3"}));
  EXPECT_EQ(returned, rows);
}

TEST_F(ProcessTest, ChildrenOfACallbackHaveRunsOfTheirOwnAndTheParentGoesOn) {
  ExpectExit(0, [] {
    SubmitThree([] {
      ForkChildren();
      if (IsThreadSanitizerUsed()) return;  // It does not let the only thread of a child end.
      const pid_t child = fork();
      if (child == 0) return BeginChild();
      int child_status = -1;
      Check(waitpid(child, &child_status, 0), child);
      Check(child_status, 0);
    });
    Check(ox->Flush(0), OXEVENT_OK);
  });
  EXPECT_EQ(rows, (Messages{"message", "1", "2", "3"}));
  EXPECT_EQ(returned, rows);
}

TEST_F(ProcessTest, ACallbackMayExit) {
  ExpectExit(7, [] {
    SubmitThree([] { exit(7); });
    while (true) pause();
  });
  EXPECT_EQ(rows, (Messages{"message", "1"}));
}

TEST_F(ProcessTest, OtherThreadsMaySubmitFlushAndReloadDuringAnExit) {
  ExpectExit(0, [] {
    Hammer(SubmitOne, SubmitOne, FlushAndReload);
    WaitUntil([] { return g_delivered > 100; });
  });
  EXPECT_EQ(returned, rows);
}

TEST_F(ProcessTest, AnotherThreadMayRestartTheLibraryDuringAnExit) {
  ExpectExit(0, [] {
    Hammer([] {
      pthread_cancel(pthread_self());  // Must not interrupt the calls below.
      ox->Shutdown();
      Start();
      SubmitOne();
    });
    WaitUntil([] { return g_delivered > 10; });
  });
}

TEST_F(ProcessTest, AFileSizeLimitCostsRowsButNotTheProcess) {
  ExpectExit(0, [] {
    const rlimit limit = {std::filesystem::file_size("events.csv"), RLIM_INFINITY};
    Check(setrlimit(RLIMIT_FSIZE, &limit), 0);
    Submit(1);
    Check(ox->Flush(0), OXEVENT_FAILURE);
  });
  EXPECT_EQ(rows, Messages{"message"});
}

// The calling thread outlives each load of the library; its error texts must not. The first half of the rounds warms
// up, the second must not use more. Together they are more rounds than a process can have thread-specific keys.
void LoadAndUnload() {
  constexpr size_t kRounds = 520;
  size_t left[2] = {};
  for (size_t i = 0; i < 2 * kRounds; ++i) {
    if (i % 2 == 1) Stop();
    Unload();
    // A descriptor or thread counts as much as the smallest allocation: one may just be ending, but not one per round.
    left[i / kRounds] = mallinfo2().uordblks + 16 * (Entries("/proc/self/fd") + Entries("/proc/self/task"));
    ox = new Library;
    Check(ox->SubmitSimple(0, 1, "", ""), OXEVENT_INVALID_ARGUMENT);
    char text[64] = "";
    Check(ox->GetLastError(text, sizeof text), OXEVENT_OK);
    Check(std::string_view(text), "Invalid OXEvent");
    Check(Start(), OXEVENT_OK);
    Submit(1);
    Check(ox->Flush(0), OXEVENT_OK);
  }
  Check(left[1] < left[0] + kRounds * 16, true);
}

// A poster whose Alertmanager does not respond.
struct Poster {
  Poster() {
    uint16_t port = 0;
    alertmanager = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
    Check(listen(alertmanager, 1), 0);
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/api/v2/alerts";
    oxEventAlertPosterConfig config = {};
    config.struct_size = sizeof(config);
    config.url = url.c_str();
    config.request_timeout_ms = config.stop_timeout_ms = 100;
    decltype(&oxEventAlertPosterStart) start = object.Find("oxEventAlertPosterStart");
    Check(start(&config, &id), OXEVENT_OK);
  }
  uint32_t Stop() const { return stop(id, nullptr); }
  // Returns when a post is in progress.
  void Post() const {
    Submit(1);
    oxEventAlertPosterState state = {};
    state.struct_size = sizeof(state);
    WaitUntil([&] { return get_state(id, &state) == OXEVENT_OK && state.unposted_alerts > 0; });
  }

  const SharedObject object = {dlopen(OXEVENT_ALERT_POSTER, RTLD_NOW)};
  const decltype(&oxEventAlertPosterStop) stop = object.Find("oxEventAlertPosterStop");
  const decltype(&oxEventAlertPosterGetState) get_state = object.Find("oxEventAlertPosterGetState");
  uint32_t id = 0;
  int alertmanager = -1;  // Listening socket.
};

TEST_F(ProcessTest, UnloadEndsARunningPoster) {
  ExpectExit(0, [] {
    const auto threads = [] { return Entries("/proc/self/task"); };
    const size_t threads_before = threads();
    const Poster poster;
    // A thread that loaded the module only now would deadlock: the unload waits for the thread with the loader locked.
    Check(ReadFile("/proc/self/maps").find("liboxutil-http") != std::string::npos, true);
    poster.Post();
    Check(dlclose(ox->handle), 0);  // The poster's own reference is the last one.
    ox->handle = poster.object.handle;
    Unload();
    Check(ReadFile("/proc/self/maps").find("liboxevent-alertposter"), std::string::npos);
    // The worker has ended too. A poster's thread that had not ended would crash.
    WaitUntil([&] { return threads() < threads_before; });
  });
}

// An unload waits with the loader locked for the threads that make these requests.
TEST_F(ProcessTest, TheFirstHttpRequestsDoNotNeedTheLoader) {
  ExpectExit(0, [] {
    uint16_t port = 0;
    static const int webhook = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
    Check(listen(webhook, 1), 0);
    const std::string section = "sink\\webhook\\http\\default\\";
    WriteSettings("webhook.xml", "",
                  {{section + "enabled", "1"},
                   {section + "endpoint_url", "http://127.0.0.1:" + std::to_string(port)},
                   {section + "request_timeout_ms", "60000"}});
    Check(ox->ReloadConfig("webhook.xml"), OXEVENT_OK);
    static const Poster poster;
    g_while_loading = [] {
      alarm(60);
      Submit(1);
      Check(close(accept(webhook, nullptr, nullptr)), 0);  // Ends the request.
      Check(close(accept(poster.alertmanager, nullptr, nullptr)), 0);
    };
    Check(dlopen(OXEVENT_LOADER_TEST_PLUGIN, RTLD_NOW) != nullptr, true);
  });
}

TEST_F(ProcessTest, AChildHasNoPosterButMayStartOne) {
  ExpectExit(0, [] {
    static const Poster poster;
    poster.Post();
    const auto run = [] {
      Check(poster.Stop(), OXEVENT_NOT_FOUND);
#ifndef OXEVENT_SANITIZED  // A sanitizer's locks stay locked in the child.
      Check(Start("own.xml"), OXEVENT_OK);
      const Poster own;
      own.Post();
      Check(own.Stop(), OXEVENT_OK);
#endif
    };
    Check(Fork(run), 0);
    Check(poster.Stop(), OXEVENT_OK);
  });
}

TEST_F(ProcessTest, UnloadLeavesNothingBehind) {
  ExpectExit(0, [] { std::thread(LoadAndUnload).join(); });
  EXPECT_EQ(returned, rows);
}

// A reload that waits for a name server holds up only other reloads. It is refused if the run has ended meanwhile.
TEST_F(ProcessTest, TheLibraryMayBeRestartedWhileAReloadWaitsForANameServer) {
  ExpectExit(0, [] {
    WriteSettings("late.xml", "late.csv",
                  {{"sink\\syslog\\udp\\x\\enabled", "1"}, {"sink\\syslog\\udp\\x\\host", "hangs.test"}});
    std::thread reload([] { Check(ox->ReloadConfig("late.xml"), OXEVENT_NOT_INITIALIZED); });
    WaitUntil([] { return g_lookup_hangs.load(); });
    Submit(1);
    Check(ox->Flush(0), OXEVENT_OK);
    Stop();
    Check(Start("own.xml"), OXEVENT_OK);
    g_released = true;
    reload.join();
  });
}

#ifndef OXEVENT_SANITIZED  // A sanitizer's locks stay locked in the child.
TEST_F(ProcessTest, ChildrenMayBeForkedWhileOtherThreadsCall) {
  ExpectExit(0, [] {
    Hammer(SubmitOne, FlushAndReload, [] { ox->SubmitSimple(0, 1, "", ""); });
    for (int i = 0; i < 50; ++i) Check(Fork(RunAndExit), 0);
  });
  EXPECT_EQ(returned, rows);
}
#endif

}  // namespace

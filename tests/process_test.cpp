// How a host's process ends, forks, unloads the library and limits it. Each test describes a host, which runs in a
// child process and checks the results of its own calls: an unexpected one ends it with status 99. The test then
// compares the rows in the CSV file with the calls of the callback.
#include <dlfcn.h>
#include <malloc.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <iostream>
#include <thread>

#include "host_fixture.h"

namespace {

// What holds up the worker until ReleaseWorker or the end of the process: nothing, the callback of event 2, or an HTTP
// request with event 1 that gets no response.
enum class Worker { kIdle, kInCallback, kInHttpRequest };

void PrintTo(Worker worker, std::ostream* out) {
  const char* const names[] = {"Idle", "InCallback", "InHttpRequest"};
  *out << names[static_cast<size_t>(worker)];
}

struct Host {
  Worker worker = Worker::kInCallback;
  const char* flush_each_event = "0";
  void (*in_callback)() = nullptr;   // Runs in the callback of event 2; the main thread waits for it.
  void (*on_main_thread)() = [] {};  // Runs while the worker is held up. Then the process exits with status 0.
};

struct Library {
  struct Symbol {
    template <class Function>
    operator Function*() const {
      return reinterpret_cast<Function*>(address);
    }
    void* address;
  };
  Symbol Find(const char* name) const { return {dlsym(handle, name)}; }

  void* handle = dlopen(OXEVENT_LIBRARY, RTLD_NOW);
  decltype(&oxEventInitialize) Initialize = Find("oxEventInitialize");
  decltype(&oxEventShutdown) Shutdown = Find("oxEventShutdown");
  decltype(&oxEventSubmitSimple) SubmitSimple = Find("oxEventSubmitSimple");
  decltype(&oxEventFlush) Flush = Find("oxEventFlush");
  decltype(&oxEventReloadConfig) ReloadConfig = Find("oxEventReloadConfig");
  decltype(&oxEventRegisterCallback) RegisterCallback = Find("oxEventRegisterCallback");
  decltype(&oxEventGetLastError) GetLastError = Find("oxEventGetLastError");
};

// The host's state is global and never destroyed: the callback and other threads use it while the process exits.
Library* ox;
Host g_host;
std::atomic<int> g_submitted = 0;
std::atomic<int> g_delivered = 0;
std::atomic<bool> g_released = false;       // The worker is held up no longer.
std::atomic<bool> g_ending = false;         // The process exits, or unloads the library.
std::atomic<bool> g_callback_done = false;  // Host::in_callback has returned, or lets the main thread continue.
std::atomic<bool> g_lookup_hangs = false;
std::atomic<bool> g_lookup_released = false;
// Files with the numbers of the events whose callback has begun and returned; -1 in a child of the host.
int g_begun = -1;
int g_returned = -1;

extern "C" void __tsan_init() __attribute__((weak));  // Null without the thread sanitizer, which cannot do everything.
// A child of the host may start threads, and does not free what belongs to its parent.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0:atexit_sleep_ms=20"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:CRYPTO_zalloc"; }  // Of threads that never end.
extern "C" int __lsan_is_turned_off() { return g_begun < 0; }

void Check(const auto& actual, const auto& expected, int line = __builtin_LINE()) {
  if (actual == expected) return;
  std::cerr << "process_test.cpp:" << line << ": " << actual << ", not " << expected << std::endl;
  _exit(99);
}

void WaitUntil(auto condition) {
  while (!condition()) usleep(500);
}

// A name server that hangs, for one host.
extern "C" int getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** result) {
  static const auto next = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  const bool hangs = strcmp(host, "hangs.test") == 0;
  if (hangs) {
    g_lookup_hangs = true;
    WaitUntil([] { return g_lookup_released.load(); });
  }
  return next(hangs ? "127.0.0.1" : host, port, hints, result);
}

#ifndef __SANITIZE_THREAD__  // That sanitizer creates keys before this program is ready.
// A thread that exits could call a destructor that the library has given to a key while dlclose unmaps it.
extern "C" int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) noexcept {
  static const auto next = reinterpret_cast<decltype(&pthread_key_create)>(dlsym(RTLD_NEXT, "pthread_key_create"));
  Dl_info info = {};
  // Not for a null: dladdr takes a lock of the loader, which dlclose holds while it waits for the worker.
  if (destructor != nullptr) dladdr(reinterpret_cast<void*>(destructor), &info);
  const bool is_ours = info.dli_fname != nullptr && strstr(info.dli_fname, "liboxEvent") != nullptr;
  Check(is_ours, false);
  return next(key, destructor);
}
#endif

// Returns the child's exit status, or minus the signal that ended it: SIGKILL if it hangs.
int WaitForChild(pid_t child, int limit_ms) {
  int status = 0;
  for (int waited_ms = 0; waitpid(child, &status, WNOHANG) == 0; ++waited_ms) {
    if (waited_ms == limit_ms) kill(child, SIGKILL);
    usleep(1000);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int Fork(void (*run)(), int limit_ms = 60'000) {
  const pid_t child = fork();
  if (child != 0) return WaitForChild(child, limit_ms);
  g_begun = g_returned = -1;
  run();
  _exit(0);
}

uint32_t SubmitOne() { return ox->SubmitSimple(0, 1, nullptr, std::to_string(++g_submitted).c_str()); }

void Submit(int count) {
  for (int i = 0; i < count; ++i) Check(SubmitOne(), OXEVENT_OK);
}

void ReleaseWorker() { g_released = true; }

void EndAndReleaseWorker() {
  g_ending = true;
  ReleaseWorker();
}

void OnSecondEvent() {
  if (g_host.worker != Worker::kIdle) WaitUntil([] { return g_released.load(); });
  if (g_host.in_callback == nullptr) return;
  g_host.in_callback();
  g_callback_done = true;
}

void OnEvent(const oxEventRecord* event, void*) {
  dprintf(g_begun, "%s\n", event->message);
  if (++g_delivered == 2 && g_begun >= 0) OnSecondEvent();
  if (g_ending && g_host.in_callback == nullptr) {
    WaitUntil([] { return SubmitOne() != OXEVENT_OK; });
    usleep(5000);  // The library discards the queued events meanwhile.
  }
  dprintf(g_returned, "%s\n", event->message);
}

uint32_t Start(const char* settings = "settings.xml") {
  uint32_t id = 0;
  const uint32_t result = ox->Initialize(settings);
  return result == OXEVENT_OK ? ox->RegisterCallback(OnEvent, nullptr, &id) : result;
}

void Stop() { Check(ox->Shutdown(), OXEVENT_OK); }

// The C library flushes its streams after all destructors, those of the library included.
ssize_t AfterDestructors(void*, const char*, size_t size) {
  if (ox != nullptr) {
    Check(SubmitOne(), OXEVENT_NOT_INITIALIZED);
    Check(Start("own.xml") != OXEVENT_OK, true);
  }
  return static_cast<ssize_t>(size);
}

void ReleaseRequest(int server) {
  WaitUntil([] { return g_released.load(); });
  usleep(50'000);  // The end of the process finds the delivery blocked, and writes the buffered rows before it waits.
  WaitUntil([] { return ReadMessages("events.csv").size() > 1; });
  close(server);
}

int OpenLog(const char* path) { return open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600); }

void LiveAsHost() {
  closefrom(3);
  g_begun = OpenLog("begun");
  g_returned = OpenLog("returned");
  uint16_t port = 0;
  const int server = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  Check(listen(server, 9), 0);
  WriteSettings("settings.xml", "events.csv",
                {{"core\\queue_size", "64"},
                 {"sink\\csv\\default\\flush_each_event", g_host.flush_each_event},
                 {"sink\\webhook\\http\\x\\enabled", g_host.worker == Worker::kInHttpRequest ? "1" : "0"},
                 {"sink\\webhook\\http\\x\\request_timeout_ms", "90000"},
                 {"sink\\webhook\\http\\x\\endpoint_url", "http://127.0.0.1:" + std::to_string(port)}});
  WriteSettings("own.xml", "own.csv");  // For later runs, and for children.
  ox = new Library;
  Check(Start(), OXEVENT_OK);
  // Before any fork in the callback: a child that exits needs the C library's lock of these.
  atexit(EndAndReleaseWorker);
  fputc(' ', fopencookie(nullptr, "w", {nullptr, AfterDestructors, nullptr, nullptr}));

  Submit(2);
  if (g_host.worker == Worker::kInHttpRequest) {
    pollfd request = {server, POLLIN, 0};
    Check(poll(&request, 1, -1), 1);
    std::thread(ReleaseRequest, server).detach();
  } else {
    WaitUntil([] { return g_delivered == 2; });
  }
  if (g_host.worker != Worker::kIdle) Submit(98);  // More than the queue holds.
  if (g_host.in_callback != nullptr) {
    ReleaseWorker();
    WaitUntil([] { return g_callback_done.load(); });
  }
  g_host.on_main_thread();
  exit(0);
}

using Messages = std::vector<std::string>;

struct ProcessTest : testing::Test {
  // Runs the host and returns its exit status.
  int Run() {
    EXPECT_EQ(chdir(directory.path.c_str()), 0);
    g_host = host;
    fflush(nullptr);  // The host must not write what the test has buffered.
    const int status = Fork(LiveAsHost, 240'000);
    rows = ReadMessages("events.csv");
    begun = ReadLines("begun");
    returned = ReadLines("returned");
    return status;
  }
  static Messages ReadLines(const char* path) {
    Messages lines = {"message"};  // As in the header of a CSV file.
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }
  void ExpectThatCallsReturnedAndRowsAreWritten() const {
    EXPECT_EQ(returned, begun);
    EXPECT_EQ(rows, begun);
  }
  static bool IsThreadSanitizerUsed() { return &__tsan_init != nullptr; }

  const HostFolder directory{};
  Host host;
  Messages rows;      // In the CSV file.
  Messages begun;     // Calls of the callback.
  Messages returned;  // Those of them that returned.
};

// Repeats each call on a thread of its own, until the process ends.
void Hammer(auto... calls) {
  const auto repeat = [](void (*call)()) {
    while (true) call();
  };
  (std::thread(repeat, calls).detach(), ...);
}

void TrySubmit() {
  if (SubmitOne() == OXEVENT_OK) return;
  Check(SubmitOne(), OXEVENT_NOT_INITIALIZED);  // Once refused, always refused.
}

void FlushAndReload() {
  ox->Flush(0);
  ox->ReloadConfig(nullptr);
}

void Restart() {
  ox->Shutdown();
  Start();
  SubmitOne();
}

// For a process in which the library is not running yet.
void StartOwnRun() {
  Check(ox->Flush(0), OXEVENT_NOT_INITIALIZED);
  Check(ox->Shutdown(), OXEVENT_NOT_INITIALIZED);
  Check(ox->ReloadConfig("own.xml"), OXEVENT_NOT_INITIALIZED);
  Check(SubmitOne(), OXEVENT_NOT_INITIALIZED);
  unlink("own.csv");
  g_delivered = 0;
  Check(Start("own.xml"), OXEVENT_OK);
  Submit(3);
  Check(ox->Flush(0), OXEVENT_OK);
  Check(g_delivered.load(), 3);
  Check(ReadMessages("own.csv").size(), 4u);
}

void RunAndStop() {
  StartOwnRun();
  Check(ox->ReloadConfig("own.xml"), OXEVENT_OK);
  Stop();
}

void RunTwiceAndFork() {
  RunAndStop();
  StartOwnRun();
  exit(Fork([] {
    StartOwnRun();
    exit(0);
  }));
}

void Unload() {
  Check(dlclose(ox->handle), 0);
  delete std::exchange(ox, nullptr);
  Check(ReadFile("/proc/self/maps").find("liboxEvent"), std::string::npos);
  // Stays: the thread of a name lookup may return into it, however long after.
  Check(ReadFile("/proc/self/maps").find("liboxutil") != std::string::npos, true);
}

void ForkChildren() {
  Check(Fork([] { exit(7); }), 7);
  Check(Fork(Unload), 0);
  if (!ProcessTest::IsThreadSanitizerUsed()) Check(Fork(RunTwiceAndFork), 0);
}

struct EachWorkerTest : ProcessTest, testing::WithParamInterface<Worker> {
  EachWorkerTest() { host.worker = GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(, EachWorkerTest, testing::Values(Worker::kIdle, Worker::kInCallback, Worker::kInHttpRequest),
                         testing::PrintToStringParamName());

TEST_P(EachWorkerTest, ExitWaitsForTheDeliveryAndDiscardsTheQueue) {
  host.on_main_thread = [] { exit(7); };
  EXPECT_EQ(Run(), 7);
  ExpectThatCallsReturnedAndRowsAreWritten();
  EXPECT_LT(rows.size(), 50u);
}

TEST_P(EachWorkerTest, UnloadWaitsForTheDeliveryAndTheLibraryCanBeLoadedAgain) {
  host.on_main_thread = [] {
    EndAndReleaseWorker();
    Unload();
    g_ending = false;
    g_begun = g_returned = -1;
    ox = new Library;
    StartOwnRun();
  };
  EXPECT_EQ(Run(), 0);
  ExpectThatCallsReturnedAndRowsAreWritten();
  EXPECT_LT(rows.size(), 50u);
}

TEST_P(EachWorkerTest, ChildrenHaveRunsOfTheirOwnAndTheParentGoesOn) {
  host.on_main_thread = [] {
    ForkChildren();
    ReleaseWorker();
    Stop();
  };
  EXPECT_EQ(Run(), 0);
  ExpectThatCallsReturnedAndRowsAreWritten();
  EXPECT_EQ(rows.size() > 50, GetParam() != Worker::kIdle);
}

TEST_F(ProcessTest, ChildrenOfACallbackHaveRunsOfTheirOwnAndTheParentGoesOn) {
  host.in_callback = [] {
    ForkChildren();
    if (IsThreadSanitizerUsed()) return;  // It does not let a child's only thread end.
    const pid_t child = fork();
    if (child != 0) return Check(WaitForChild(child, 60'000), 0);
    g_begun = g_returned = -1;  // The child returns from the callback.
  };
  host.on_main_thread = Stop;
  EXPECT_EQ(Run(), 0);
  ExpectThatCallsReturnedAndRowsAreWritten();
  EXPECT_GT(rows.size(), 50u);
}

TEST_F(ProcessTest, ACallbackMayExit) {
  host.in_callback = [] { exit(7); };
  EXPECT_EQ(Run(), 7);
  EXPECT_EQ(rows, (Messages{"message", "1", "2"}));
}

// Shuts the library down and starts it again. Returns while the process ends, which must wait for it.
void RestartInCallback() {
  Check(ox->Shutdown(), OXEVENT_FAILURE);  // Discards the queued events.
  Check(ox->Initialize("own.xml"), OXEVENT_OK);
  g_callback_done = true;
  WaitUntil([] { return g_ending.load(); });
  usleep(100'000);
}

TEST_F(ProcessTest, ExitWaitsForACallbackThatHasRestartedTheLibrary) {
  host.in_callback = RestartInCallback;
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(rows, (Messages{"message", "1", "2"}));
  ExpectThatCallsReturnedAndRowsAreWritten();
}

TEST_F(ProcessTest, AnAbortLosesNoRowWithFlushEachEvent) {
  host.flush_each_event = "1";
  host.on_main_thread = abort;
  EXPECT_EQ(Run(), -SIGABRT);
  EXPECT_EQ(rows, (Messages{"message", "1", "2"}));
}

TEST_P(EachWorkerTest, OtherThreadsMaySubmitFlushAndReloadDuringAnExit) {
  host.on_main_thread = [] { Hammer(TrySubmit, TrySubmit, FlushAndReload); };
  EXPECT_EQ(Run(), 0);
  ExpectThatCallsReturnedAndRowsAreWritten();
}

TEST_P(EachWorkerTest, AnotherThreadMayRestartTheLibraryDuringAnExit) {
  host.on_main_thread = [] { Hammer(Restart); };
  EXPECT_EQ(Run(), 0);
}

TEST_F(ProcessTest, AnotherThreadMayShutDownDuringAnExit) {
  host.on_main_thread = [] {
    Hammer([] {
      pthread_cancel(pthread_self());  // Must not interrupt the shutdown.
      ox->Shutdown();
    });
    WaitUntil([] { return SubmitOne() == OXEVENT_NOT_INITIALIZED; });
    Check(ox->Initialize("own.xml"), OXEVENT_ALREADY_INITIALIZED);
  };
  EXPECT_EQ(Run(), 0);
  ExpectThatCallsReturnedAndRowsAreWritten();
}

TEST_F(ProcessTest, AFileSizeLimitCostsRowsButNotTheProcess) {
  host.worker = Worker::kIdle;
  host.on_main_thread = [] {
    const rlimit limit = {std::filesystem::file_size("events.csv"), RLIM_INFINITY};
    Check(setrlimit(RLIMIT_FSIZE, &limit), 0);
  };
  EXPECT_EQ(Run(), 0);
  EXPECT_EQ(rows, Messages{"message"});
}

void FailAndReadTheText() {
  Check(ox->SubmitSimple(0, 1, "", ""), OXEVENT_INVALID_ARGUMENT);
  char text[64] = "";
  Check(ox->GetLastError(text, sizeof text), OXEVENT_OK);
  Check(std::string_view(text), "Invalid OXEvent");
}

// The thread that calls the library outlives each of its loads, as its error texts must not. The first rounds warm up,
// the others compare. Together they are more than there are thread-specific keys.
void LoadAndUnload() {
  constexpr size_t kRounds = 520;
  size_t left[2] = {};
  for (size_t i = 0; i < 2 * kRounds; ++i) {
    if (i % 3 == 1) Stop();
    Unload();
    // A descriptor or a thread counts like the smallest allocation in every round.
    left[i / kRounds] = mallinfo2().uordblks + kRounds * 16 * (Entries("/proc/self/fd") + Entries("/proc/self/task"));
    ox = new Library;
    FailAndReadTheText();
    std::thread(FailAndReadTheText).join();
    if (i % 3 == 2) continue;
    Check(Start(), OXEVENT_OK);
    Submit(1);
    WaitUntil([] { return g_delivered == g_submitted; });
  }
  Check(left[1] < left[0] + kRounds * 16, true);
  Check(Fork([] { exit(0); }), 0);
}

TEST_F(ProcessTest, UnloadLeavesNothingBehind) {
  host.worker = Worker::kIdle;
  host.on_main_thread = [] { std::thread(LoadAndUnload).join(); };
  EXPECT_EQ(Run(), 0);
  ExpectThatCallsReturnedAndRowsAreWritten();
}

// A reload that waits for a name server holds up only other reloads. It has no effect on a later run.
TEST_F(ProcessTest, TheLibraryMayBeRestartedWhileAReloadWaitsForANameServer) {
  if (IsThreadSanitizerUsed()) GTEST_SKIP() << "It lets no child start threads";
  host.worker = Worker::kIdle;
  host.on_main_thread = [] {
    WriteSettings("late.xml", "late.csv",
                  {{"sink\\syslog\\udp\\x\\enabled", "1"}, {"sink\\syslog\\udp\\x\\host", "hangs.test"}});
    std::thread reload([] { Check(ox->ReloadConfig("late.xml"), OXEVENT_NOT_INITIALIZED); });
    WaitUntil([] { return g_lookup_hangs.load(); });
    Submit(3);
    Check(ox->Flush(0), OXEVENT_OK);
    Check(Fork(RunAndStop), 0);
    Stop();
    Check(Start("own.xml"), OXEVENT_OK);
    g_lookup_released = true;
    reload.join();
    Check(std::filesystem::exists("late.csv"), false);
  };
  EXPECT_EQ(Run(), 0);
}

#ifndef OXEVENT_SANITIZED  // A sanitizer's locks stay locked in the child, and it opens pipes of its own.
TEST_F(ProcessTest, ChildrenMayBeForkedWhileOtherThreadsCall) {
  host.worker = Worker::kIdle;
  host.on_main_thread = [] {
    Hammer(TrySubmit, FlushAndReload, [] { ox->SubmitSimple(0, 1, "", ""); });
    for (int i = 0; i < 50; ++i) Check(Fork(RunAndStop), 0);
  };
  EXPECT_EQ(Run(), 0);
  ExpectThatCallsReturnedAndRowsAreWritten();
}

TEST_F(ProcessTest, DescriptorsAreOpenedCloseOnExec) {
  host.worker = Worker::kIdle;
  host.on_main_thread = [] {
    static std::atomic<int> restarts = 0;
    Hammer([] {
      Restart();
      ox->ReloadConfig(nullptr);
      ++restarts;
    });
    for (int fd = 3; restarts < 50; fd = fd % 64 + 3) Check(fcntl(fd, F_GETFD) != 0, true);
  };
  EXPECT_EQ(Run(), 0);
}
#endif

}  // namespace

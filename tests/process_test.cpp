// How a host's process ends, forks, unloads the library and limits it. Each case runs in a child that loads the library
// and checks what it can see; the test waits for its end and compares the CSV file with the calls of the callback.
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

// Where the process ends or forks. A callback: that of event 2. A child: of a fork there.
enum class Place { kMainThread, kCallback, kChildOfMainThread, kChildOfCallback };
// Idle; or, until g_open, event 2 of 100 in the callback, with a large or a full queue; or event 1 in a sink: a request
// without an answer, a write to a pipe that nobody reads.
enum class State { kIdle, kBusy, kFullQueue, kHttpRequest, kPipeWrite };
// What to expect: no destructors run; any number of events; last rows missing; threads that come or go in a child.
enum { kAbrupt = 1, kAnyEvents = 2, kLosesRows = 4, kChildThreads = 8 };

struct Case {
  const char* name;
  void (*run)();  // Null: the child of the callback returns from it.
  int status;     // The exit status, or minus the signal: of the process or, where that is the place, of the child.
  int expect;     // Flags from above.
  std::vector<Place> places;
  std::vector<State> states;
  void (*then)() = [] {};  // On the main thread when a callback has let it go on.
  bool Expects(int flag) const { return (expect & flag) != 0; }
};

#define EACH(X) X(Initialize) X(Shutdown) X(SubmitSimple) X(Flush) X(ReloadConfig) X(RegisterCallback) X(GetLastError)
#define ENTRY(name) decltype(&oxEvent##name) name = reinterpret_cast<decltype(name)>(dlsym(handle, "oxEvent" #name));
struct Library {
  void* handle = dlopen(OXEVENT_LIBRARY, RTLD_NOW);
  EACH(ENTRY)
};

Library* ox;  // Like all of this, still there for the callback while the process exits.
Case g_case;
Place g_place;
State g_state;
std::atomic<int> g_submitted, g_delivered, g_open, g_step;
bool g_is_child = false;
int g_calls = -1;  // The file of the callback's calls: a line with the message, and a point once the call is over.

// A child may start threads, and does not free what the parent held.
extern "C" void __tsan_init() __attribute__((weak));
extern "C" const char* __tsan_default_options() { return "die_after_fork=0:atexit_sleep_ms=20"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:CRYPTO_zalloc"; }  // Of threads that outlive it.
extern "C" int __lsan_is_turned_off() { return g_calls < 0; }

#define AWAIT(condition) \
  while (!(condition)) usleep(500)
#define CHECK(condition) CHECK_EQ(static_cast<bool>(condition), true)
#define CHECK_EQ(actual, expected) CheckEqual(actual, expected, __LINE__, #actual)

void CheckEqual(const auto& actual, const auto& expected, int line, const char* what) {
  if (actual == expected) return;
  std::cerr << "line " << line << ": " << what << " is " << actual << ", not " << expected << std::endl;
  _exit(99);
}

std::atomic<int> g_hanging, g_answers;

void Hang() {
  ++g_hanging;
  AWAIT(g_answers > 0);
}

// A name server that hangs, for one host.
extern "C" int getaddrinfo(const char* host, const char* port, const addrinfo* hints, addrinfo** result) {
  static const auto next = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  const bool hangs = strcmp(host, "hangs.test") == 0;
  if (hangs) Hang();
  return next(hangs ? "127.0.0.1" : host, port, hints, result);
}

// What a syslog sink calls while it is being built, with the lifecycle locked.
extern "C" int OwnGethostname(char*, size_t) __asm__("gethostname");  // Of that name there is an inline one.
int OwnGethostname(char* name, size_t size) {
  Hang();
  return snprintf(name, size, "host") > 0 ? 0 : -1;
}

#ifndef __SANITIZE_THREAD__  // That sanitizer makes keys before this program is ready.
// A thread that ends could call what the library had registered for that while dlclose unmaps it.
extern "C" int pthread_key_create(pthread_key_t* key, void (*at_thread_end)(void*)) noexcept {
  static const auto next = reinterpret_cast<decltype(&pthread_key_create)>(dlsym(RTLD_NEXT, "pthread_key_create"));
  Dl_info info = {};
  // Not for a null: it takes a lock of the loader's, which dlclose holds while it waits for the worker.
  if (at_thread_end != nullptr) dladdr(reinterpret_cast<void*>(at_thread_end), &info);
  CHECK(info.dli_fname == nullptr || strstr(info.dli_fname, "liboxEvent") == nullptr);
  return next(key, at_thread_end);
}
#endif

constexpr std::string_view kOk = "0 ", kNotInitialized = "80050001 oxEvent is not initialized";

// The code that a call returned, in hexadecimal, and the error text that it left.
std::string ResultOf(uint32_t code) {
  char text[256] = "unread";
  ox->GetLastError(text, sizeof text);
  return (std::stringstream() << std::hex << code << ' ' << text).str();
}

#ifndef OXEVENT_SANITIZED
// A child that is alone has no thread that could end a wait.
#define OWN_WAIT(call)                                                                         \
  extern "C" long Own_##call(long, long, long, long) __asm__(#call);                           \
  long Own_##call(long first, long second, long third, long fourth) {                          \
    static const auto next = reinterpret_cast<decltype(&Own_##call)>(dlsym(RTLD_NEXT, #call)); \
    CHECK(!g_is_child || Entries("/proc/self/task") > 1);                                      \
    return next(first, second, third, fourth);                                                 \
  }
OWN_WAIT(pthread_cond_wait)
OWN_WAIT(pthread_cond_clockwait)
OWN_WAIT(nanosleep)
OWN_WAIT(poll)
#endif

// A child's exit status, or minus its signal: SIGKILL if it hangs.
int Fork(void (*run)(), int limit_ms = 60'000) {
  const pid_t child = fork();
  if (child == 0) {
    g_calls = -1;
    g_is_child = true;
    if (run == nullptr) return g_case.status;
    run();
    _exit(0);
  }
  int status;
  while (waitpid(child, &status, WNOHANG) == 0) limit_ms-- == 0 ? kill(child, SIGKILL) : usleep(1000);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void ForkCase() { CHECK_EQ(Fork(g_case.run), g_case.status); }

bool IsHeldInSink() { return g_state == State::kHttpRequest || g_state == State::kPipeWrite; }
bool IsChildCase() { return g_place == Place::kChildOfMainThread || g_place == Place::kChildOfCallback; }

std::string Text(int i) { return std::string(g_state == State::kPipeWrite ? 9999 : 0, '0') + std::to_string(i); }

uint32_t SubmitOne() { return ox->SubmitSimple(0, 1, nullptr, Text(++g_submitted).c_str()); }

void Submit(int count) {
  while (count-- > 0) CHECK_EQ(ResultOf(SubmitOne()), kOk);
}

void OnSecondEvent() {
  if (g_state != State::kIdle) AWAIT(g_open > 0);
  if (g_place == Place::kCallback) g_case.run();
  if (g_place == Place::kChildOfCallback) ForkCase();
  if (g_place == Place::kMainThread && g_state != State::kIdle) AWAIT(SubmitOne() != 0);  // The exit discards these.
}

void OnEvent(const oxEventRecord* event, void*) {
  dprintf(g_calls, "%s", event->message);
  const int number = ++g_delivered;
  if (g_calls >= 0 && number == 2) OnSecondEvent();
  const bool exiting = number > 2 && g_place == Place::kMainThread && g_state != State::kIdle;
  if (exiting) usleep(5000);  // While the exit gets to discarding.
  dprintf(g_calls, ".\n");
}

uint32_t Start(const char* settings = "settings.xml") {
  uint32_t id;
  const uint32_t result = ox->Initialize(settings);
  return result == OXEVENT_OK ? ox->RegisterCallback(OnEvent, nullptr, &id) : result;
}

void Stop() { CHECK_EQ(ResultOf(ox->Shutdown()), kOk); }

// The C library writes out its streams when all destructors are through.
ssize_t AfterDestructors(void*, const char*, size_t size) {
  if (ox != nullptr) {
    CHECK_EQ(SubmitOne(), OXEVENT_NOT_INITIALIZED);
    CHECK(Start("own.xml") != OXEVENT_OK);
  }
  return static_cast<ssize_t>(size);
}

// Opens the peer that blocks the delivery of event 1: an endpoint that does not respond, or a pipe that nobody reads.
// Returns its port, or the end of the pipe to write to.
int OpenPeer(int* peer) {
  if (g_state == State::kPipeWrite) {
    int ends[2];
    CHECK_EQ(pipe2(ends, O_CLOEXEC), 0);
    CHECK_EQ(fcntl(ends[0], F_SETPIPE_SZ, 4096), 4096);
    *peer = ends[0];
    return ends[1];
  }
  uint16_t port;
  *peer = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  CHECK_EQ(listen(*peer, 9), 0);
  return port;
}

void LetGo(int peer) {
  AWAIT(g_open > 0);
  usleep(50'000);  // Time for the end of the process to find the delivery blocked.
  // The thread that waits for the request writes the buffered rows first.
  if (g_state == State::kHttpRequest && g_place != Place::kCallback) AWAIT(ReadMessages("events.csv").size() > 1);
  for (char bytes[4096]; g_state == State::kPipeWrite && read(peer, bytes, sizeof(bytes)) > 0;) continue;
  close(peer);
}

void RunCase() {
  closefrom(3);
  g_is_child = false;
  g_calls = open("calls", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  WriteSettings("own.xml", "own.csv");
  pollfd peer = {-1, POLLIN, 0};
  const std::string number = std::to_string(OpenPeer(&peer.fd));
  WriteSettings("settings.xml", "events.csv",
                {{"core\\queue_size", g_state == State::kFullQueue ? "4" : "1024"},
                 {"sink\\csv\\default\\flush_each_event", g_case.Expects(kAbrupt) ? "1" : "0"},
                 {"sink\\csv\\pipe\\enabled", g_state == State::kPipeWrite ? "1" : "0"},
                 {"sink\\csv\\pipe\\flush_each_event", "1"},
                 {"sink\\csv\\pipe\\path", "/proc/self/fd/" + number},
                 {"sink\\webhook\\http\\x\\enabled", g_state == State::kHttpRequest ? "1" : "0"},
                 {"sink\\webhook\\http\\x\\request_timeout_ms", "90000"},
                 {"sink\\webhook\\http\\x\\endpoint_url", "http://127.0.0.1:" + number}});
  ox = new Library;
  CHECK_EQ(ResultOf(Start()), kOk);
  if (g_state == State::kPipeWrite) CHECK(read(peer.fd, Text(0).data(), 9999) > 0);  // The header.
  // Before any callback forks: a child that exits needs the C library's lock of these.
  atexit([] { ++g_open; });
  fputc(' ', fopencookie(nullptr, "w", {nullptr, AfterDestructors, nullptr, nullptr}));
  Submit(2);
  AWAIT(IsHeldInSink() ? poll(&peer, 1, 0) == 1 : g_delivered == g_submitted);
  if (IsHeldInSink()) std::thread(LetGo, peer.fd).detach();
  if (g_state != State::kIdle) Submit(98);
  if (g_place == Place::kChildOfMainThread) ForkCase();
  if (g_place != Place::kMainThread) ++g_open;
  if (g_place == Place::kMainThread) {
    g_case.run();
  } else if (g_place == Place::kCallback) {
    AWAIT(g_step > 0);
    ++g_open;
    g_case.then();
  } else {
    Stop();
  }
  exit(0);
}

void Repeat(void (*call)()) {
  while (true) call();
}

void Hammer(auto... calls) { (std::thread(Repeat, calls).detach(), ...); }

void TrySubmit() {  // Refused once, then for good.
  if (SubmitOne() != OXEVENT_OK) CHECK_EQ(SubmitOne(), OXEVENT_NOT_INITIALIZED);
}

void RunInChild() {  // Refused, then with a run and a file of its own.
  CHECK_EQ(ResultOf(ox->Flush(0)), kNotInitialized);
  CHECK_EQ(ResultOf(ox->Shutdown()), kNotInitialized);
  CHECK_EQ(ResultOf(ox->ReloadConfig("own.xml")), kNotInitialized);
  CHECK_EQ(ResultOf(SubmitOne()), kNotInitialized);
  unlink("own.csv");
  g_delivered = 0;
  CHECK_EQ(ResultOf(Start("own.xml")), kOk);
  Submit(3);
  CHECK_EQ(ResultOf(ox->Flush(0)), kOk);
  CHECK_EQ(g_delivered, 3);
  CHECK_EQ(ReadMessages("own.csv").size(), 4u);
}

void RunAndStop() {
  RunInChild();
  CHECK_EQ(ResultOf(ox->ReloadConfig("own.xml")), kOk);
  Stop();
}

void RunAndExit() {
  RunInChild();
  exit(0);
}

void RunTwiceAndFork() {
  RunAndStop();
  RunInChild();
  exit(Fork(RunAndExit));
}

void FlushAndReload() {
  ox->Flush(0);
  ox->ReloadConfig(nullptr);
}

[[maybe_unused]] void ForkAmidCalls() {
  Hammer(TrySubmit, FlushAndReload, [] { ox->SubmitSimple(0, 1, "", ""); });
  for (int i = 0; i < 50; ++i) CHECK_EQ(Fork(RunAndStop), 0);
}

void Unload() {
  CHECK_EQ(dlclose(ox->handle), 0);
  delete std::exchange(ox, nullptr);
  CHECK_EQ(ReadFile("/proc/self/maps").find("liboxEvent"), std::string::npos);
}

void UnloadAndLoad() {
  ++g_open;
  Unload();
  ox = new Library;
  g_calls = -1;
  RunInChild();
}

void LoadAndUnload() {          // On a thread that outlives each library, as its error texts must not.
  constexpr int kRounds = 520;  // Once to warm up, once to compare; together more than there are thread-specific keys.
  const auto fail = [] { CHECK_EQ(ResultOf(ox->SubmitSimple(0, 1, "", "")), "80050003 Invalid OXEvent"); };
  size_t left[2];  // A descriptor or a thread counts like the smallest allocation in every round.
  for (int i = 0; i < 2 * kRounds; ++i) {
    if (i % 3 == 1) Stop();
    Unload();
    left[i / kRounds] = mallinfo2().uordblks + kRounds * 16 * (Entries("/proc/self/fd") + Entries("/proc/self/task"));
    ox = new Library;
    fail();
    std::thread(fail).join();
    if (i % 3 != 2) CHECK_EQ(ResultOf(Start()), kOk);
    if (i % 3 != 2) Submit(1);
    AWAIT(g_delivered == g_submitted);
  }
  CHECK(left[1] < left[0] + kRounds * 16);
  CHECK_EQ(Fork([] { exit(0); }), 0);
}

void ShutDownCancelled() {
  pthread_cancel(pthread_self());
  ox->Shutdown();
}

void InitializeAmidShutdown() {
  Hammer(ShutDownCancelled);
  AWAIT(SubmitOne() == OXEVENT_NOT_INITIALIZED);
  if (g_state != State::kIdle) CHECK_EQ(ox->Initialize("own.xml"), OXEVENT_ALREADY_INITIALIZED);
}

void Restart() {
  ox->Shutdown();
  Start();
  SubmitOne();
}

void RestartAtExit() {
  ++g_open;
  Stop();
  CHECK_EQ(ResultOf(Start()), kOk);
  Submit(3);
}

void ShutdownInCallback() {
  CHECK_EQ(ox->Shutdown(), OXEVENT_FAILURE);  // Events are discarded.
  CHECK_EQ(ox->Initialize("own.xml"), OXEVENT_OK);
  ++g_step;
  AWAIT(g_open > 1);
  usleep(100'000);  // In which a host that does not wait for the callback gets away.
}

std::thread ReloadWithSyslog(const char* host, uint32_t expected) {
  WriteSettings("late.xml", "late.csv", {{"sink\\syslog\\udp\\x\\enabled", "1"}, {"sink\\syslog\\udp\\x\\host", host}});
  return std::thread([expected] { CHECK_EQ(ox->ReloadConfig("late.xml"), expected); });
}

// A reload that only waits for a name server holds up nobody but other reloads, and comes too late for its run.
void ShutdownAmidLookup() {
  std::thread reload = ReloadWithSyslog("hangs.test", OXEVENT_NOT_INITIALIZED);
  AWAIT(g_hanging == 1);
  Submit(3);
  CHECK_EQ(ResultOf(ox->Flush(0)), kOk);
  CHECK_EQ(Fork(RunAndStop), 0);
  Stop();
  CHECK_EQ(ResultOf(Start("own.xml")), kOk);
  ++g_answers;
  reload.join();
  CHECK(!std::filesystem::exists("late.csv"));
}

void ForkAmidReload() {
  std::thread reload = ReloadWithSyslog("127.0.0.1", OXEVENT_OK);
  AWAIT(g_hanging == 1);
  CHECK_EQ(Fork(RunAndStop), 0);
  ++g_answers;
  reload.join();
}

void EndThreads() {  // Each with an error text.
  const auto run = [](int count) {
    for (int i = 0; i < count; ++i) std::thread([] { ox->Flush(0); }).join();
    return mallinfo2().uordblks;
  };
  Stop();
  const size_t before = run(100);
  CHECK(run(2000) < before + 2000 * 16);
}

void LimitFileSize() {
  const rlimit limit = {std::filesystem::file_size("events.csv"), RLIM_INFINITY};
  CHECK_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
}

[[maybe_unused]] void CloseOnExec() {
  Hammer([] {
    Restart();
    ox->ReloadConfig(nullptr);
    ++g_step;
  });
  for (int fd = 3; g_step < 50; fd = fd % 64 + 3) CHECK(fcntl(fd, F_GETFD) != 0);
}

const std::vector<Place> kMainThread = {Place::kMainThread}, kCallback = {Place::kCallback},
                         kChildren = {Place::kChildOfMainThread, Place::kChildOfCallback},
                         kEverywhere = {Place::kMainThread, Place::kCallback, Place::kChildOfMainThread,
                                        Place::kChildOfCallback};
const std::vector<State> kIdle = {State::kIdle}, kQueued = {State::kBusy, State::kFullQueue},
                         kInCallback = {State::kIdle, State::kBusy, State::kFullQueue},
                         kAnyState = {State::kIdle, State::kBusy, State::kFullQueue, State::kHttpRequest,
                                      State::kPipeWrite};

const Case kCases[] = {
    {"return", [] {}, 0, 0, kMainThread, kAnyState},
    {"exit", [] { exit(7); }, 7, 0, kEverywhere, kAnyState},
    {"exit_on_a_thread", [] { std::thread([] { exit(0); }).join(); }, 0, 0, kMainThread, kAnyState},
    {"hard_exit", [] { _exit(7); }, 7, kAbrupt, kEverywhere, kAnyState},
    {"quick_exit", [] { quick_exit(7); }, 7, kAbrupt, kEverywhere, kAnyState},
    {"abort", abort, -SIGABRT, kAbrupt, kEverywhere, kAnyState},
    {"exec", [] { execl("/bin/sh", "sh", "-c", "exit 7", nullptr); }, 7, kAbrupt, kEverywhere, kAnyState},
    {"submit_at_exit", [] { Hammer(TrySubmit, TrySubmit); }, 0, kAnyEvents, kMainThread, kAnyState},
    {"flush_at_exit", [] { Hammer(FlushAndReload); }, 0, kAnyEvents, kMainThread, kAnyState},
    {"shutdown_at_exit", InitializeAmidShutdown, 0, kAnyEvents, kMainThread, kAnyState},
    {"restart_at_exit", [] { Hammer(Restart); }, 0, kAnyEvents | kLosesRows, kMainThread, kAnyState},
    {"static_destructor", [] { atexit(RestartAtExit); }, 0, kAnyEvents, kMainThread, kAnyState},
    {"shutdown_in_callback_at_exit", ShutdownInCallback, 0, kAnyEvents, kCallback, kQueued},
    {"shutdown_in_callback_at_unload", ShutdownInCallback, 0, kAnyEvents, kCallback, kQueued, Unload},
    {"fork", RunTwiceAndFork, 0, kChildThreads, kChildren, kAnyState},
    {"unload_and_load", UnloadAndLoad, 0, 0, kMainThread, kAnyState},
    {"fork_and_unload", Unload, 0, 0, kChildren, kAnyState},
    {"fork_and_return_from_callback", nullptr, 0, kChildThreads, {Place::kChildOfCallback}, kInCallback},
    {"load_and_unload", [] { std::thread(LoadAndUnload).join(); }, 0, kAnyEvents, kMainThread, kIdle},
    {"shutdown_amid_lookup", ShutdownAmidLookup, 0, kAnyEvents | kLosesRows | kChildThreads, kMainThread, kIdle},
    {"fork_amid_reload", ForkAmidReload, 0, kAnyEvents | kChildThreads, kMainThread, kIdle},
    {"threads_end", EndThreads, 0, kAnyEvents, kMainThread, kIdle},
    {"file_size_at_exit", LimitFileSize, 0, kLosesRows, kMainThread, kIdle},
#ifndef OXEVENT_SANITIZED  // A sanitizer's locks stay locked in the child, and it opens pipes of its own.
    {"fork_amid_calls", ForkAmidCalls, 0, kAnyEvents, kMainThread, kIdle},
    {"close_on_exec", CloseOnExec, 0, kAnyEvents, kMainThread, kIdle},
#endif
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class oxEventProcess : public testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(, oxEventProcess, testing::ValuesIn(kCases), [](const auto& c) { return c.param.name; });

// An end with destructors leaves all rows of the events delivered, and discards the others; any end leaves whole rows.
void ExpectRowsOfCalls() {
  std::string rows, calls = "message.\n" + ReadFile("calls");
  for (const std::string& message : ReadMessages("events.csv")) rows += message + ".\n";
  if (!IsChildCase() && g_case.status != 0 && !calls.ends_with(".\n")) calls += ".\n";  // The end of a call cut short.
  if (g_place == Place::kMainThread && g_case.Expects(kAbrupt) && IsHeldInSink()) calls += Text(1) + ".\n";
  EXPECT_EQ(g_case.Expects(kLosesRows) ? calls.substr(0, rows.size()) : calls, rows);
  const bool all_delivered = IsChildCase() && g_state != State::kIdle && g_state != State::kFullQueue;
  if (g_case.Expects(kAnyEvents)) return;
  EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n') > 50, all_delivered) << calls;
}

TEST_P(oxEventProcess, EndsAndLeavesItsRows) {
  g_case = GetParam();
  if (g_case.Expects(kChildThreads) && &__tsan_init != nullptr) GTEST_SKIP() << "The thread sanitizer cannot do that";
  for (const Place place : g_case.places) {
    for (const State state : g_case.states) {
      SCOPED_TRACE((std::stringstream() << "Place " << int(place) << ", state " << int(state)).str());
      g_place = place;
      g_state = state;
      const HostFolder folder;
      ASSERT_EQ(chdir(folder.path.c_str()), 0);
      EXPECT_EQ(Fork(RunCase, 240'000), IsChildCase() ? 0 : g_case.status);
      ExpectRowsOfCalls();
    }
  }
}

}  // namespace

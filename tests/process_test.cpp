// How a host's process ends, forks, unloads the library and limits it. Each case runs in a child that loads the library
// and checks what it can see; the test waits for its end and compares the CSV file with the calls of the callback.
#include <dlfcn.h>
#include <malloc.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "host_fixture.h"

namespace {

// What to expect: no destructors run; any number of events; last rows missing; threads that come or go in a child.
enum { kAbrupt = 1, kAny = 2, kLost = 4, kThreads = 8 };
struct Case {
  const char* name;
  void (*run)();      // Null: the child of the callback returns from it.
  int status;         // The exit status, or minus the signal: of the process or, where in lower case, of the child.
  int expect;         // Flags from above.
  const char* where;  // Of `run`: Main thread, Callback of event 2; lower case: its child.
  // Idle; or, until g_open, event 2 of 100 in the callback: Busy, or with a Full queue of 4; or event 1 in a sink: an
  // Http request without an answer, a Stuck write to a pipe.
  const char* states;
  void (*then)() = [] {};  // On the main thread when a callback has let it go on.
};

#define EACH(X) X(Initialize) X(Shutdown) X(SubmitSimple) X(Flush) X(ReloadConfig) X(RegisterCallback) X(GetLastError)
#define ENTRY(name) decltype(&oxEvent##name) name = reinterpret_cast<decltype(name)>(dlsym(handle, "oxEvent" #name));
struct Library {
  void* handle = dlopen(OXEVENT_LIBRARY, RTLD_NOW);
  EACH(ENTRY)
};

Library* ox;  // Like all of this, still there for the callback while the process exits.
Case g_case;
char g_where, g_state;
std::atomic<int> g_submitted, g_delivered, g_open, g_step;
int g_calls = -1;  // The file of the callback's calls: a line with the message, and a point once the call is over.

// In a child threads may start anew, and what the parent held is abandoned.
extern "C" void __tsan_init() __attribute__((weak));
extern "C" const char* __tsan_default_options() { return "die_after_fork=0:atexit_sleep_ms=20"; }
extern "C" const char* __lsan_default_suppressions() { return "leak:CRYPTO_zalloc"; }  // Of threads that outlive it.
extern "C" int __lsan_is_turned_off() { return g_calls < 0; }

#define AWAIT(condition) \
  while (!(condition)) usleep(500)
#define CHECK(condition) \
  ((condition) ? void() : (dprintf(STDERR_FILENO, "line %d: %s\n", __LINE__, #condition), _exit(99)))

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
// A thread that ends is slow to call what the library has registered for that.
void (*g_at_thread_end)(void*);
extern "C" int pthread_key_create(pthread_key_t* key, void (*at_thread_end)(void*)) noexcept {
  static const auto next = reinterpret_cast<decltype(&pthread_key_create)>(dlsym(RTLD_NEXT, "pthread_key_create"));
  Dl_info info = {};
  // Not for a null: it takes a lock of the loader's, which dlclose holds while it waits for the worker.
  if (at_thread_end != nullptr) dladdr(reinterpret_cast<void*>(at_thread_end), &info);
  if (info.dli_fname == nullptr || strstr(info.dli_fname, "liboxEvent") == nullptr) return next(key, at_thread_end);
  g_at_thread_end = at_thread_end;
  return next(key, [](void* value) { Hang(), g_at_thread_end(value); });
}
#endif

bool Fails(uint32_t code, const std::string& error, uint32_t expected = OXEVENT_FAILURE) {
  char text[256] = "";
  return ox->GetLastError(text, sizeof(text)) == 0 && code == expected && text == error;
}

// A child's exit status, or minus its signal. Killed before a wait of 5000 ms for a thread that it lacks is over.
int Fork(void (*run)(), int limit_ms = 2500) {
  const pid_t child = fork();
  if (child == 0) {
    g_calls = -1;
    if (run == nullptr) return g_case.status;
    run();
    _exit(0);
  }
  int status;
  while (waitpid(child, &status, WNOHANG) == 0) limit_ms-- == 0 ? kill(child, SIGKILL) : usleep(1000);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void ForkCase() {  // The child ends at once, or does in one of three tries where others take the processor.
  for (int tries = 3; Fork(g_case.run, g_case.expect & kThreads ? 2500 : 1000) != g_case.status;) CHECK(--tries > 0);
}

bool IsHeld() { return g_state == 'h' || g_state == 's'; }

std::string Text(int number) { return std::string(g_state == 's' ? 9999 : 0, '0') + std::to_string(number); }

uint32_t SubmitOne() { return ox->SubmitSimple(0, 1, nullptr, Text(++g_submitted).c_str()); }

void Submit(int count) {
  while (count-- > 0) CHECK(SubmitOne() == 0);
}

void OnEvent(const oxEventRecord* event, void*) {
  dprintf(g_calls, "%s", event->message);
  const int number = ++g_delivered;
  if (g_calls >= 0 && number == 2) {
    if (g_state != 'i') AWAIT(g_open > 0);
    if (g_where == 'C') g_case.run();
    if (g_where == 'c') ForkCase();
    if (g_where == 'M' && g_state != 'i') AWAIT(SubmitOne() != 0);  // So that the exit has events to discard.
  }
  if (number > 2 && g_where == 'M' && g_state != 'i')
    usleep(5000);  // While the exit, which has begun, gets to discarding.
  dprintf(g_calls, ".\n");
}

bool Start(const char* settings = "settings.xml") {
  uint32_t id;
  return ox->Initialize(settings) == 0 && ox->RegisterCallback(OnEvent, nullptr, &id) == 0;
}

void Stop() { CHECK(ox->Shutdown() == 0); }

// The C library writes out its streams when all destructors are through.
ssize_t AfterDestructors(void*, const char*, size_t size) {
  CHECK(!ox || (SubmitOne() == OXEVENT_NOT_INITIALIZED && !Start("own.xml")));
  return static_cast<ssize_t>(size);
}

// Opens what holds event 1: an endpoint that answers nothing, a pipe that nobody reads. Its port, or its other end.
int OpenPeer(int* peer) {
  uint16_t port;
  int ends[2];
  if (g_state != 's') return listen(*peer = LoopbackSocket(AF_INET, SOCK_STREAM, &port), 9), port;
  CHECK(pipe2(ends, O_CLOEXEC) == 0 && fcntl(ends[0], F_SETPIPE_SZ, 4096) > 0);
  return *peer = ends[0], ends[1];
}

void LetGo(int peer) {
  AWAIT(g_open > 0);
  usleep(50'000);  // In which the library's end finds it stuck.
  // Whoever waits for the request writes the rows first.
  if (g_state == 'h' && g_where != 'C') AWAIT(ReadMessages("events.csv").size() > 1);
  for (char bytes[4096]; g_state == 's' && read(peer, bytes, sizeof(bytes)) > 0;) continue;
  close(peer);
}

void RunCase() {
  closefrom(3);
  g_calls = open("calls", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  WriteSettings("own.xml", "own.csv");
  pollfd peer = {-1, POLLIN, 0};
  const std::string number = std::to_string(OpenPeer(&peer.fd));
  WriteSettings("settings.xml", "events.csv",
                {{"core\\queue_size", g_state == 'f' ? "4" : "1024"},
                 {"sink\\csv\\default\\flush_each_event", g_case.expect & kAbrupt ? "1" : "0"},
                 {"sink\\csv\\pipe\\enabled", g_state == 's' ? "1" : "0"},
                 {"sink\\csv\\pipe\\flush_each_event", "1"},
                 {"sink\\csv\\pipe\\path", "/proc/self/fd/" + number},
                 {"sink\\webhook\\http\\x\\enabled", g_state == 'h' ? "1" : "0"},
                 {"sink\\webhook\\http\\x\\request_timeout_ms", "90000"},
                 {"sink\\webhook\\http\\x\\endpoint_url", "http://127.0.0.1:" + number}});
  ox = new Library;
  CHECK(Start());
  if (g_state == 's') CHECK(read(peer.fd, Text(0).data(), 9999) > 0);  // The header.
  // Before any callback forks: a child that exits needs the C library's lock of these.
  atexit([] { ++g_open; });
  fputc(' ', fopencookie(nullptr, "w", {nullptr, AfterDestructors, nullptr, nullptr}));
  Submit(2);
  AWAIT(IsHeld() ? poll(&peer, 1, 0) == 1 : g_delivered == g_submitted);
  if (IsHeld()) std::thread(LetGo, peer.fd).detach();
  if (g_state != 'i') Submit(98);
  if (g_where == 'M') return g_case.run();
  if (g_where == 'm') ForkCase();
  ++g_open;
  if (g_where != 'C') return Stop();
  AWAIT(g_step > 0);
  ++g_open;
  g_case.then();
}

void Repeat(void (*call)()) {
  while (true) call();
}

void Hammer(auto... calls) { (std::thread(Repeat, calls).detach(), ...); }

void TrySubmit() { CHECK(SubmitOne() == 0 || SubmitOne() == OXEVENT_NOT_INITIALIZED); }  // Refused once, then for good.

void Live() {  // In a child: refused, then with a run and a file of its own.
  for (const uint32_t code : {ox->Flush(0), ox->Shutdown(), ox->ReloadConfig("own.xml"), SubmitOne()}) {
    CHECK(Fails(code, "oxEvent is not initialized", OXEVENT_NOT_INITIALIZED));
  }
  unlink("own.csv");
  g_delivered = 0;
  CHECK(Start("own.xml"));
  Submit(3);
  CHECK(ox->Flush(0) == 0 && g_delivered == 3 && ReadMessages("own.csv").size() == 4);
}

[[maybe_unused]] void ForkAmidCalls() {
  Hammer(
      TrySubmit, [] { ox->Flush(0), ox->ReloadConfig(nullptr); }, [] { ox->SubmitSimple(0, 1, "", ""), SubmitOne(); });
  for (int i = 0; i < 50; ++i) CHECK(Fork([] { Live(), Stop(); }) == 0);
}

void Unload() {
  CHECK(dlclose(ox->handle) == 0);
  delete std::exchange(ox, nullptr);
  CHECK(ReadFile("/proc/self/maps").find("liboxEvent") == std::string::npos);
}

void LoadAndUnload() {          // On a thread that outlives each library, as its error texts must not.
  constexpr int kRounds = 520;  // Once to warm up, once to compare; together more than there are thread-specific keys.
  const auto fail = [] { CHECK(Fails(ox->SubmitSimple(0, 1, "", ""), "Invalid OXEvent", OXEVENT_INVALID_ARGUMENT)); };
  size_t left[2];  // A descriptor or a thread counts like the smallest allocation in every round.
  for (int i = 0; i < 2 * kRounds; ++i) {
    if (i % 3 == 1) Stop();
    Unload();
    left[i / kRounds] = mallinfo2().uordblks + kRounds * 16 * (Entries("/proc/self/fd") + Entries("/proc/self/task"));
    ox = new Library;
    fail();
    std::thread(fail).join();
    if (i % 3 != 2) CHECK(Start() && SubmitOne() == 0);
    AWAIT(g_delivered == g_submitted);
  }
  CHECK(left[1] < left[0] + kRounds * 16 && Fork([] { exit(0); }) == 0);
}

void InitializeAmidShutdown() {
  Hammer([] { pthread_cancel(pthread_self()), ox->Shutdown(); });
  AWAIT(SubmitOne() == OXEVENT_NOT_INITIALIZED);
  CHECK(g_state == 'i' || ox->Initialize("own.xml") == OXEVENT_ALREADY_INITIALIZED);
}

void ShutdownInCallback() {
  CHECK(ox->Shutdown() == OXEVENT_FAILURE && ox->Initialize("own.xml") == 0);  // Events are discarded.
  ++g_step;
  AWAIT(g_open > 1);
  usleep(100'000);  // In which a host that does not wait for the callback gets away.
}

std::thread ReloadWithSyslog(const char* host, uint32_t expected) {
  WriteSettings("late.xml", "late.csv", {{"sink\\syslog\\udp\\x\\enabled", "1"}, {"sink\\syslog\\udp\\x\\host", host}});
  return std::thread([expected] { CHECK(ox->ReloadConfig("late.xml") == expected); });
}

// A reload that only waits for a name server holds up nobody but other reloads, and comes too late for its run.
void ShutdownAmidLookup() {
  std::thread reload = ReloadWithSyslog("hangs.test", OXEVENT_NOT_INITIALIZED);
  AWAIT(g_hanging == 1);
  Submit(3);
  CHECK(ox->Flush(0) == 0);
  CHECK(Fork([] { Live(), CHECK(ox->ReloadConfig("own.xml") == 0), Stop(); }) == 0);
  Stop();
  CHECK(Start("own.xml"));
  ++g_answers;
  reload.join();
  CHECK(!std::filesystem::exists("late.csv"));
}

void ForkAmidReload() {
  std::thread reload = ReloadWithSyslog("127.0.0.1", OXEVENT_OK);
  AWAIT(g_hanging == 1);
  CHECK(Fork([] { Live(), Stop(); }) == 0);
  ++g_answers;
  reload.join();
}

[[maybe_unused]] void UnloadAmidThreadEnd() {
  std::atomic<pid_t> id = 0;
  std::thread thread([&id] { ox->Flush(0), id = gettid(); });
  AWAIT(id != 0 && (g_hanging > 0 || !std::filesystem::exists("/proc/self/task/" + std::to_string(id))));
  Unload();
  ++g_answers;
  thread.join();
}

// Each with an error text.
void EndThreads() {
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
  CHECK(setrlimit(RLIMIT_FSIZE, &limit) == 0);
}

void LoseRowsInAReload() {
  Submit(1);
  AWAIT(g_delivered == g_submitted);
  CHECK(ox->ReloadConfig("own.xml") == 0 && Fails(ox->Flush(0), "oxEvent core flush timed out") && ox->Flush(0) == 0);
  Submit(1);
  CHECK(Fails(ox->Flush(0), "oxEvent core flush timed out") && ox->ReloadConfig("") == 0 && ox->Flush(0) == 0);
}

[[maybe_unused]] void CloseOnExec() {
  Hammer([] { ox->Shutdown(), Start(), ox->ReloadConfig(nullptr), ++g_step; });
  for (int fd = 3; g_step < 50; fd = fd % 64 + 3) CHECK(fcntl(fd, F_GETFD) != 0);
}

constexpr Case kCases[] = {
    {"return", [] {}, 0, 0, "M", "ibfhs"},
    {"exit", [] { exit(7); }, 7, 0, "MCmc", "ibfhs"},
    {"exit_on_a_thread", [] { std::thread([] { exit(0); }).join(); }, 0, 0, "M", "ibfhs"},
    {"hard_exit", [] { _exit(7); }, 7, kAbrupt, "MCmc", "ibfhs"},
    {"quick_exit", [] { quick_exit(7); }, 7, kAbrupt, "MCmc", "ibfhs"},
    {"abort", [] { abort(); }, -SIGABRT, kAbrupt, "MCmc", "ibfhs"},
    {"exec", [] { execl("/bin/sh", "sh", "-c", "exit 7", nullptr); }, 7, kAbrupt, "MCmc", "ibfhs"},
    {"submit_at_exit", [] { Hammer(TrySubmit, TrySubmit); }, 0, kAny, "M", "ibfhs"},
    {"flush_at_exit", [] { Hammer([] { ox->Flush(0), ox->ReloadConfig(nullptr); }); }, 0, kAny, "M", "ibfhs"},
    {"shutdown_at_exit", InitializeAmidShutdown, 0, kAny, "M", "ibfhs"},
    {"restart_at_exit", [] { Hammer([] { ox->Shutdown(), Start(), SubmitOne(); }); }, 0, kAny | kLost, "M", "ibfhs"},
    {"static_destructor", [] { atexit([] { ++g_open, Stop(), CHECK(Start()), Submit(3); }); }, 0, kAny, "M", "ibfhs"},
    {"shutdown_in_callback_at_exit", ShutdownInCallback, 0, kAny, "C", "bf"},
    {"shutdown_in_callback_at_unload", ShutdownInCallback, 0, kAny, "C", "bf", Unload},
    {"fork", [] { Live(), Stop(), Live(), exit(Fork([] { Live(), exit(0); })); }, 0, kThreads, "mc", "ibfhs"},
    {"unload_and_load", [] { ++g_open, Unload(), ox = new Library, g_calls = -1, Live(); }, 0, 0, "M", "ibfhs"},
    {"fork_and_unload", Unload, 0, 0, "mc", "ibfhs"},
    {"fork_and_return_from_callback", nullptr, 0, kThreads, "c", "ibf"},
    {"load_and_unload", [] { std::thread(LoadAndUnload).join(); }, 0, kAny, "M", "i"},
    {"shutdown_amid_lookup", ShutdownAmidLookup, 0, kAny | kLost | kThreads, "M", "i"},
    {"fork_amid_reload", ForkAmidReload, 0, kAny | kThreads, "M", "i"},
#ifndef __SANITIZE_THREAD__
    {"unload_amid_thread_end", [] { Stop(), UnloadAmidThreadEnd(); }, 0, kAny, "M", "i"},
#endif
    {"threads_end", EndThreads, 0, kAny, "M", "i"},
    {"file_size_at_reload", [] { LimitFileSize(), LoseRowsInAReload(); }, 0, kAny | kLost, "M", "i"},
    {"file_size_at_exit", LimitFileSize, 0, kLost, "M", "i"},
#ifndef OXEVENT_SANITIZED  // A sanitizer's locks stay locked in the child, and it opens pipes of its own.
    {"fork_amid_calls", ForkAmidCalls, 0, kAny, "M", "i"},
    {"close_on_exec", CloseOnExec, 0, kAny, "M", "i"},
#endif
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class oxEventProcess : public testing::TestWithParam<Case> {};

INSTANTIATE_TEST_SUITE_P(, oxEventProcess, testing::ValuesIn(kCases), [](const auto& c) { return c.param.name; });

// An end with destructors leaves all rows of the events delivered, and discards the others; any end leaves whole rows.
TEST_P(oxEventProcess, EndsAndLeavesItsRows) {
  g_case = GetParam();
  if (g_case.expect & kThreads && &__tsan_init != nullptr) GTEST_SKIP() << "The thread sanitizer cannot do that";
  for (const char* where = g_case.where; (g_where = *where) != '\0'; ++where) {
    for (const char* state = g_case.states; (g_state = *state) != '\0'; ++state) {
      SCOPED_TRACE((std::string{g_where, g_state}));
      const HostFolder folder;
      ASSERT_EQ(chdir(folder.path.c_str()), 0);
      const bool in_child = g_where == 'm' || g_where == 'c';
      EXPECT_EQ(Fork([] { RunCase(), exit(0); }, 240000), in_child ? 0 : g_case.status);

      std::string rows, calls = "message.\n" + ReadFile("calls");
      for (const std::string& message : ReadMessages("events.csv")) rows += message + ".\n";
      if (!in_child && g_case.status != 0 && !calls.ends_with(".\n")) calls += ".\n";  // The end of a call cut short.
      if (g_where == 'M' && g_case.expect & kAbrupt && IsHeld()) calls += Text(1) + ".\n";
      EXPECT_TRUE(g_case.expect & kLost ? calls.starts_with(rows) : calls == rows) << rows << "but calls:\n" << calls;
      EXPECT_TRUE(g_case.expect & kAny ||
                  (std::count(calls.begin(), calls.end(), '\n') > 50) == (in_child && !strchr("if", g_state)))
          << calls;
    }
  }
}

}  // namespace

// Loads, and receivers that do not keep up. OXEVENT_SOAK multiplies the amounts: see tests/soak/run.
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <future>
#include <thread>

#include "core/oxEventRouter.h"
#include "host_fixture.h"

namespace {

using std::string;
using Settings = std::map<string, string>;

constexpr size_t kThreads = 16;

size_t Scale() {
  const char* const soak = getenv("OXEVENT_SOAK");
  return soak == nullptr ? 1 : std::stoul(soak);
}

double Seconds() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

struct Held {  // By the process; the memory in bytes, and nothing under a sanitizer.
  size_t descriptors = Entries("/proc/self/fd"), threads = Entries("/proc/self/task");
  size_t memory = mallinfo2().uordblks + mallinfo2().hblkhd;
};

struct oxEventLoad : testing::TestWithParam<char> {
  ~oxEventLoad() override { oxEventShutdown(); }

  void Start(const string& csv, const Settings& more) {
    WriteSettings(settings, csv, more);
    ASSERT_EQ(oxEventInitialize(settings.c_str()), 0u);
    ASSERT_EQ(oxEventRegisterCallback(Note, this, &id), 0u);
  }
  static void Note(const oxEventRecord* event, void* self_of) {
    auto& self = *static_cast<oxEventLoad*>(self_of);
    if (self.messages != nullptr) self.messages->emplace_back(event->message);
    uint64_t& last = self.last.at(event->event_id - 1);
    EXPECT_LT(last, event->duration_ms);
    last = event->duration_ms, ++self.delivered;
  }
  // Without a key the state lets everything pass. Numbers go up from 1.
  static uint32_t Submit(size_t thread, uint64_t number, const char* action = "", const string& key = "") {
    const string message = std::to_string(thread) + '-' + std::to_string(number);
    const char* const text = message.c_str();
    const oxEventRecord record = {152, 65536, thread + 1, "t", "s", "n", text, 3,  action, key.c_str(),
                                  "",  0,     0,          0,   "",  0,   0,    "", number, "{}"};
    return oxEventSubmit(&record);
  }
  static void ExpectIdentity() {
    const oxEventCounters c = oxEventCoreGetCounters();
    EXPECT_EQ(c.submitted, c.emitted + c.dropped);
  }
  void Mix(size_t each, size_t reloads, bool keyed);

  const HostFolder folder{};
  const string settings = folder.path + "/settings";
  uint32_t id = 0;
  std::array<uint64_t, kThreads> last = {};  // Of each thread; only the worker's.
  uint64_t sent = 0;                         // As thread 0.
  std::vector<string>* messages = nullptr;   // Takes them.
  std::atomic<uint64_t> delivered = 0;
};

// Every thread must get through its share while the others go on, and so must the reloads and flushes.
void oxEventLoad::Mix(size_t each, size_t reloads, bool keyed) {
  std::atomic<bool> moving = true;
  const auto submit = [&](size_t thread) {
    const char* const actions[] = {"raise", "raise", "update", "repeat", "clear"};
    uint64_t number = last[thread];
    for (const uint64_t end = number + each; ++number <= end || moving;) {
      const string key = keyed ? std::to_string(thread * 10 + number % 10) : "";
      ASSERT_EQ(Submit(thread, number, keyed ? actions[number % 5] : "", key), 0u);
    }
  };
  std::vector<std::jthread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) threads.emplace_back(submit, thread);
  threads.emplace_back([&] {
    for (uint32_t other = 0; moving;) {
      EXPECT_FALSE(oxEventRegisterCallback([](auto...) {}, nullptr, &other) || oxEventUnregisterCallback(other));
      EXPECT_EQ(oxEventFlush(1) & ~OXEVENT_FAILURE, 0u);
    }
  });
  for (size_t i = 0; i < reloads; ++i) EXPECT_EQ(oxEventReloadConfig(nullptr), 0u);
  moving = false, threads.clear();
  EXPECT_EQ(oxEventFlush(0), 0u);
  ExpectIdentity();
}

TEST_F(oxEventLoad, LosesNothingAmidReloadsAndFlushes) {
  const string csv = folder.path + "/csv";
  std::vector<string> expected = {"message"};
  messages = &expected;
  Start(csv, {{"core\\queue_size", "4294967295"}});
  Mix(1000, 20, false);
  EXPECT_EQ(oxEventCoreGetCounters().submitted + 1, expected.size());
  EXPECT_TRUE(ReadMessages(csv) == expected);
}

TEST_F(oxEventLoad, DoesNotGrow) {
  const size_t each = 1250 * Scale(), reloads = 20 * Scale();
  Start("/dev/null", {{"core\\queue_size", "100"}});  // Full, it stays below what is no growth.
  Mix(each / 10, reloads / 10, true);
  const Held warm;
  const double start = Seconds();
  Mix(each, reloads, true);
  for (size_t i = 200; i-- > 0;)  // The last is short: only then has the worker let go of the one before.
    EXPECT_EQ(Submit(0, last[0] + 1, "", string(i == 0 ? 1 : 1 << 20, 'k')) | oxEventFlush(0), 0u);
  const Held now;
  printf("bytes %zu -> %zu, descriptors %zu -> %zu, threads %zu -> %zu\n", warm.memory, now.memory, warm.descriptors,
         now.descriptors, warm.threads, now.threads);
  EXPECT_EQ(std::pair(now.descriptors, now.threads), std::pair(warm.descriptors, warm.threads));
  EXPECT_LT(now.memory, warm.memory + 256 * 1024);
  const oxEventCounters c = oxEventCoreGetCounters();
  printf("%zu submitted, %zu delivered, %zu reloads in %.1f s\n", c.submitted, c.emitted, reloads, Seconds() - start);
  EXPECT_EQ(delivered, c.emitted);
}

// Of the process. A sanitizer holds back what is freed.
size_t Resident() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

#ifdef OXEVENT_SANITIZED
constexpr size_t kNoMore = SIZE_MAX / 2;
#else
constexpr size_t kNoMore = 2 << 20;
#endif

TEST_F(oxEventLoad, GivesBackTheMemoryOfClearedConditions) {
  const size_t count = 20'000 * std::max<size_t>(Scale() / 10, 1);
  Start("", {{"core\\queue_size", "4294967295"}});
  EXPECT_EQ(Submit(0, ++sent, "raise", "warm") | oxEventFlush(0), 0u);
  const size_t idle = Resident();
  size_t raised = 0;
  for (const string round : {"a", "b"}) {
    for (const char* action : {"raise", "raise", "clear"}) {
      for (size_t i = 0; i < count; ++i) {
        ASSERT_EQ(Submit(0, ++sent, action, "condition" + round + std::to_string(i)), 0u);
        ASSERT_TRUE(i % 1000 != 999 || oxEventFlush(0) == 0);
      }
      if (*action == 'r') raised = Resident();
    }
    EXPECT_LT(Resident(), idle + kNoMore);
  }
  const oxEventCounters c = oxEventCoreGetCounters();
  printf("%zu conditions, %zu bytes each\n", count, (raised - std::min(raised, idle)) / count);
  EXPECT_EQ(std::pair(c.emitted, c.dropped), std::pair(4 * count + 1, 2 * count));  // Of two raises one is suppressed.
  EXPECT_EQ(c.drops_by_reason, (oxEventDropCounts{0, 0, 0, 0, 0, 0, c.dropped}));
}

TEST_F(oxEventLoad, GivesBackTheMemoryOfABurstWhenIdle) {
  Start("", {{"core\\queue_size", "4294967295"}});
  EXPECT_EQ(Submit(0, ++sent) | oxEventFlush(0), 0u);
  const size_t idle = Resident();
  std::promise<void> go;
  const auto hold = [](const oxEventRecord* event, void* go_of) {
    if (event->event_id == 2) static_cast<std::promise<void>*>(go_of)->get_future().wait();
  };
  uint32_t other = 0;
  ASSERT_EQ(oxEventRegisterCallback(hold, &go, &other) | Submit(1, 1), 0u);
  for (size_t i = 0; i < 40'000; ++i) ASSERT_EQ(Submit(0, ++sent), 0u);
  EXPECT_GT(Resident(), idle + (8 << 20));
  go.set_value();
  EXPECT_EQ(oxEventFlush(0), 0u);
  for (int tries = 0; Resident() > idle + kNoMore && tries < 6000; ++tries) {
    EXPECT_EQ(Submit(0, ++sent), 0u);  // An event now and then does not keep the memory.
    usleep(10'000);
  }
  EXPECT_LT(Resident(), idle + kNoMore);
}

INSTANTIATE_TEST_SUITE_P(Stuck, oxEventLoad, testing::Values('h', 'l', 'p'));

// An HTTP server that stalls, a log daemon that stops reading, a pipe that nobody reads.
TEST_P(oxEventLoad, HoldsUpItsWorkerOnly) {
  const string pipe = folder.path + "/pipe";
  uint16_t port = 0;
  const int http = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  ASSERT_EQ(listen(http, 9) | mkfifo(pipe.c_str(), 0600), 0);
  int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GT(fcntl(reader, F_SETPIPE_SZ, 4096), 0);
  const SystemLog log(LOCK_EX);
  if (GetParam() == 'l' && !log.bound) GTEST_SKIP() << "The machine has a log daemon";
  Settings more = {{"sink\\webhook\\http\\a\\endpoint_url", "http://127.0.0.1:" + std::to_string(port)},
                   {"sink\\webhook\\http\\a\\request_timeout_ms", "300"},
                   {"sink\\csv\\pipe\\path", pipe},
                   {"sink\\csv\\pipe\\flush_each_event", "1"}};
  const auto cost = [&] {  // Of a Submit, in seconds, once the queue is full or keeps up.
    for (size_t i = 0; i < 2000; ++i) EXPECT_EQ(Submit(0, ++sent), 0u);
    const double start = Seconds();
    for (size_t i = 0; i < 20000; ++i) EXPECT_EQ(Submit(0, ++sent), 0u);
    return (Seconds() - start) / 20000;
  };
  Start("", more);
  const double usual = cost();
  ASSERT_EQ(oxEventFlush(0) | oxEventShutdown(), 0u);

  const char* const sink = GetParam() == 'h' ? "webhook\\http\\a" : GetParam() == 'l' ? "native\\main" : "csv\\pipe";
  more["sink\\" + string(sink) + "\\enabled"] = "1";
  Start("", more);
  for (uint64_t before = ~0ull; before != delivered; usleep(100'000)) {  // Until the receiver has enough.
    before = delivered;
    for (size_t i = 0; i < 50; ++i) EXPECT_EQ(Submit(0, ++sent), 0u);
    if (GetParam() == 'h') break;
  }
  const double stuck = cost();
  printf("Submit %.0f ns, usually %.0f ns\n", stuck * 1e9, usual * 1e9);
  EXPECT_TRUE(Scale() == 1 || stuck < usual * 3);
  EXPECT_EQ(oxEventFlush(20), OXEVENT_FAILURE);
  EXPECT_EQ(oxEventReloadConfig(nullptr), GetParam() == 'p' ? OXEVENT_FAILURE : 0u);  // No room for its header.
  EXPECT_EQ(oxEventFlush(20), OXEVENT_FAILURE);

  std::atomic<bool> is_free = false;
  const double start = Seconds();
  std::jthread later([&] {
    while (Seconds() < start + 5.5) usleep(1000);
    is_free = true;
    if (GetParam() == 'p') close(std::exchange(reader, -1));
    for (char line[2048]; GetParam() == 'l' && recv(log.fd, line, sizeof line, 0) > 0;) continue;
  });
  EXPECT_EQ(oxEventShutdown(), OXEVENT_FAILURE);
  EXPECT_TRUE(Seconds() >= start + 5 && (is_free || GetParam() == 'h'));
  ExpectIdentity();
  const oxEventDropCounts drops = oxEventCoreGetCounters().drops_by_reason;
  const uint64_t refused = drops[static_cast<size_t>(oxEventDrop::kRefused)];
  const uint64_t stopped = drops[static_cast<size_t>(oxEventDrop::kStopped)];
  EXPECT_TRUE(refused > 20000 && stopped > 0 && refused + stopped == oxEventCoreGetCounters().dropped);
  shutdown(log.fd, SHUT_RDWR), later.join(), close(reader), close(http);
}

// So that a service manager which kills the process meanwhile costs no row.
TEST_F(oxEventLoad, WritesRowsBeforeItWaitsForTheEventInDelivery) {
  const string csv = folder.path + "/csv";
  uint16_t port = 0;
  const int http = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  ASSERT_EQ(listen(http, 9), 0);
  Start(csv, {{"sink\\webhook\\http\\a\\enabled", "1"},
              {"sink\\webhook\\http\\a\\endpoint_url", "http://127.0.0.1:" + std::to_string(port)},
              {"sink\\webhook\\http\\a\\request_timeout_ms", "60000"}});
  const auto expect_row_before_the_request_ends = [&](const string& row, int request) {
    pollfd end = {request, POLLRDHUP, 0};
    while (ReadMessages(csv).back() != row && poll(&end, 1, 1) == 0) continue;
    EXPECT_EQ(poll(&end, 1, 0), 0) << row;
    close(request);
  };
  EXPECT_EQ(Submit(0, 1) | Submit(0, 2), 0u);
  const int first = accept4(http, nullptr, nullptr, SOCK_CLOEXEC);
  auto stop = std::async(std::launch::async, oxEventShutdown);
  expect_row_before_the_request_ends("0-1", first);
  ASSERT_FALSE(HasFailure());
  // Delivered by the drain, which still goes on.
  expect_row_before_the_request_ends("0-2", accept4(http, nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_EQ(stop.get(), OXEVENT_OK);
  close(http);
}

}  // namespace

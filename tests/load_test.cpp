// Loads, and receivers that do not keep up. OXEVENT_SOAK multiplies the amounts: see scripts/soak.
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "core/oxEventRouter.h"
#include "host_fixture.h"

namespace {

using namespace std::chrono_literals;
using std::string;
using Clock = std::chrono::steady_clock;
using Settings = std::map<string, string>;

constexpr size_t kThreads = 16;
const Settings kLargestQueue = {{"core\\queue_size", "4294967295"}};

size_t Scale() {
  const char* const soak = getenv("OXEVENT_SOAK");
  return soak == nullptr ? 1 : std::stoul(soak);
}

double SecondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// What the process has of each. The memory is in bytes; a sanitizer's allocator counts none.
struct Resources {
  size_t descriptors = Entries("/proc/self/fd");
  size_t threads = Entries("/proc/self/task");
  size_t memory = mallinfo2().uordblks + mallinfo2().hblkhd;
};

size_t ResidentBytes() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// More resident memory than before is no growth up to this. A sanitizer holds back what is freed.
#ifdef OXEVENT_SANITIZED
constexpr size_t kResidentTolerance = SIZE_MAX / 2;
#else
constexpr size_t kResidentTolerance = 2 << 20;
#endif

struct LoadTest : testing::Test {
  ~LoadTest() override { oxEventShutdown(); }

  void Start(const string& csv, const Settings& settings) {
    WriteSettings(settings_path, csv, settings);
    ASSERT_EQ(oxEventInitialize(settings_path.c_str()), OXEVENT_OK);
    ASSERT_EQ(oxEventRegisterCallback(Receive, this, &callback_id), OXEVENT_OK);
  }
  // Each thread's numbers go up from 1. Without a key the state lets every event pass.
  static uint32_t Submit(size_t thread, uint64_t number, const char* action = "", const string& key = "") {
    const string message = std::to_string(thread) + '-' + std::to_string(number);
    oxEventRecord record = MakeRecord(message.c_str());
    record.event_id = thread + 1;
    record.severity = OXEVENT_SEVERITY_ERROR;
    record.action = action;
    record.dedupe_key = key.c_str();
    record.duration_ms = number;
    return oxEventSubmit(&record);
  }
  void SubmitNext(const char* action = "", const string& key = "") {
    ASSERT_EQ(Submit(0, ++sent, action, key), OXEVENT_OK);
  }
  static void Flush() { EXPECT_EQ(oxEventFlush(0), OXEVENT_OK); }
  static void ExpectThatEveryEventIsCounted() {
    const oxEventCounters counters = oxEventCoreGetCounters();
    EXPECT_EQ(counters.submitted, counters.emitted + counters.dropped);
  }
  // Returns when every thread has submitted `each` events amid the reloads, calls and flushes of others.
  void SubmitFromAllThreads(size_t each, size_t reloads, bool keyed);

  const HostFolder folder{};
  const string settings_path = folder.path + "/settings";
  uint32_t callback_id = 0;
  std::array<uint64_t, kThreads> last_number = {};  // By thread, as delivered. Written by the worker alone.
  uint64_t sent = 0;                                // By thread 0.
  std::vector<string>* messages = nullptr;          // Collects the delivered messages.
  std::atomic<uint64_t> delivered = 0;

 private:
  static void Receive(const oxEventRecord* event, void* user_data) {
    auto& test = *static_cast<LoadTest*>(user_data);
    if (test.messages != nullptr) test.messages->emplace_back(event->message);
    uint64_t& last = test.last_number.at(event->event_id - 1);
    EXPECT_LT(last, event->duration_ms);
    last = event->duration_ms;
    ++test.delivered;
  }
};

void LoadTest::SubmitFromAllThreads(size_t each, size_t reloads, bool keyed) {
  std::atomic<bool> moving = true;
  const auto submit = [&](size_t thread) {
    const char* const actions[] = {"raise", "raise", "update", "repeat", "clear"};
    uint64_t number = last_number[thread];
    for (const uint64_t end = number + each; ++number <= end || moving;) {
      const string key = keyed ? std::to_string(thread * 10 + number % 10) : "";
      ASSERT_EQ(Submit(thread, number, keyed ? actions[number % 5] : "", key), OXEVENT_OK);
    }
  };
  std::vector<std::jthread> threads;
  for (size_t thread = 0; thread < kThreads; ++thread) threads.emplace_back(submit, thread);
  threads.emplace_back([&] {
    while (moving) {
      uint32_t id = 0;
      EXPECT_EQ(oxEventRegisterCallback([](auto...) {}, nullptr, &id), OXEVENT_OK);
      EXPECT_EQ(oxEventUnregisterCallback(id), OXEVENT_OK);
      oxEventFlush(1);  // Mostly times out.
    }
  });
  for (size_t i = 0; i < reloads; ++i) EXPECT_EQ(oxEventReloadConfig(nullptr), OXEVENT_OK);
  moving = false;
  threads.clear();
  Flush();
  ExpectThatEveryEventIsCounted();
}

TEST_F(LoadTest, LosesNothingAmidReloadsAndFlushes) {
  const string csv = folder.path + "/csv";
  std::vector<string> rows = {"message"};  // The header's.
  messages = &rows;
  Start(csv, kLargestQueue);
  SubmitFromAllThreads(1000, 20, false);
  EXPECT_EQ(oxEventCoreGetCounters().submitted + 1, rows.size());
  EXPECT_TRUE(ReadMessages(csv) == rows);  // Too many to print.
}

TEST_F(LoadTest, DoesNotGrow) {
  const size_t each = 1250 * Scale();
  const size_t reloads = 20 * Scale();
  Start("/dev/null", {{"core\\queue_size", "100"}});  // So small that even a full queue does not count as growth.
  SubmitFromAllThreads(each / 10, reloads / 10, true);
  const Resources before;
  const auto start = Clock::now();
  SubmitFromAllThreads(each, reloads, true);
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(Submit(0, last_number[0] + 1, "", string(1 << 20, 'k')), OXEVENT_OK);
    Flush();
  }
  EXPECT_EQ(Submit(0, last_number[0] + 1), OXEVENT_OK);  // Makes the worker release the last long text.
  Flush();
  const Resources after;
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_EQ(after.threads, before.threads);
  EXPECT_LT(after.memory, before.memory + 256 * 1024);
  const oxEventCounters counters = oxEventCoreGetCounters();
  EXPECT_EQ(delivered, counters.emitted);
  printf("bytes %zu -> %zu; %zu submitted, %zu delivered, %zu reloads in %.1f s\n", before.memory, after.memory,
         counters.submitted, counters.emitted, reloads, SecondsSince(start));
}

TEST_F(LoadTest, GivesBackTheMemoryOfClearedConditions) {
  const size_t count = 20'000 * std::max<size_t>(Scale() / 10, 1);
  Start("", kLargestQueue);
  SubmitNext("raise", "first");
  Flush();
  const size_t idle = ResidentBytes();
  for (const string prefix : {"a", "b"}) {
    for (const char* action : {"raise", "raise", "clear"}) {  // The second raise is suppressed.
      for (size_t i = 0; i < count; ++i) {
        SubmitNext(action, "condition" + prefix + std::to_string(i));
        if (i % 1000 == 999) Flush();
      }
      if (*action == 'r')
        printf("%zu conditions: %zu bytes more\n", count, ResidentBytes() - std::min(ResidentBytes(), idle));
    }
    EXPECT_LT(ResidentBytes(), idle + kResidentTolerance);
  }
  const oxEventCounters counters = oxEventCoreGetCounters();
  EXPECT_EQ(counters.emitted, 4 * count + 1);
  EXPECT_EQ(counters.drops_by_reason, (oxEventDropCounts{0, 0, 0, 0, 0, 0, 2 * count}));
}

TEST_F(LoadTest, GivesBackTheMemoryOfABurstWhileSingleEventsGoOn) {
  Start("", kLargestQueue);
  SubmitNext();
  Flush();
  const size_t idle = ResidentBytes();
  std::promise<void> release;
  const auto hold_worker = [](const oxEventRecord* event, void* promise) {
    if (event->event_id == 2) static_cast<std::promise<void>*>(promise)->get_future().wait();
  };
  uint32_t id = 0;
  ASSERT_EQ(oxEventRegisterCallback(hold_worker, &release, &id), OXEVENT_OK);
  ASSERT_EQ(Submit(1, 1), OXEVENT_OK);
  for (size_t i = 0; i < 40'000; ++i) SubmitNext();
  EXPECT_GT(ResidentBytes(), idle + (8 << 20));
  release.set_value();
  Flush();
  for (int tries = 0; ResidentBytes() > idle + kResidentTolerance && tries < 6000; ++tries) {
    SubmitNext();
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_LT(ResidentBytes(), idle + kResidentTolerance);
}

struct StuckReceiverTest : LoadTest {
  StuckReceiverTest() {
    EXPECT_EQ(listen(http, 9), 0);
    EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GT(fcntl(reader, F_SETPIPE_SZ, 4096), 0);
  }
  ~StuckReceiverTest() override {
    close(reader);
    close(http);
  }
  // The server accepts no connection, so that a request ends by its timeout.
  void StartWithHttpServer(const string& csv, const char* timeout_ms) {
    Start(csv, {{"sink\\webhook\\http\\a\\enabled", "1"},
                {"sink\\webhook\\http\\a\\endpoint_url", "http://127.0.0.1:" + std::to_string(port)},
                {"sink\\webhook\\http\\a\\request_timeout_ms", timeout_ms}});
  }
  void StartWithPipe() {
    Start("", {{"sink\\csv\\pipe\\enabled", "1"},
               {"sink\\csv\\pipe\\path", pipe},
               {"sink\\csv\\pipe\\flush_each_event", "1"}});
  }
  // Submits more than the queue holds: neither Submit nor a reload waits for the worker, and Flush only up to its
  // timeout.
  void SubmitWhileTheReceiverIsStuck(uint32_t reload_result) {
    for (int i = 0; i < 22'000; ++i) SubmitNext();
    EXPECT_EQ(oxEventFlush(20), OXEVENT_FAILURE);
    EXPECT_EQ(oxEventReloadConfig(nullptr), reload_result);
    EXPECT_EQ(oxEventFlush(20), OXEVENT_FAILURE);
  }
  static void ExpectThatRefusedAndStoppedEventsAreCounted() {
    ExpectThatEveryEventIsCounted();
    const oxEventCounters counters = oxEventCoreGetCounters();
    const uint64_t refused = counters.drops_by_reason[static_cast<size_t>(oxEventDrop::kRefused)];
    const uint64_t stopped = counters.drops_by_reason[static_cast<size_t>(oxEventDrop::kStopped)];
    EXPECT_GT(refused, 20'000u);
    EXPECT_GT(stopped, 0u);
    EXPECT_EQ(refused + stopped, counters.dropped);
  }

  const string pipe = folder.path + "/pipe";
  uint16_t port = 0;
  const int http = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  int reader = -1;
};

// So that a service manager which kills the process meanwhile costs no row.
TEST_F(StuckReceiverTest, ShutdownWritesRowsBeforeItWaitsForTheEventInDelivery) {
  const string csv = folder.path + "/csv";
  StartWithHttpServer(csv, "60000");
  const auto expect_row_before_the_request_ends = [&](const string& row, int request) {
    pollfd end = {request, POLLRDHUP, 0};
    while (ReadMessages(csv).back() != row && poll(&end, 1, 1) == 0) continue;
    EXPECT_EQ(poll(&end, 1, 0), 0) << row;
    close(request);
  };
  SubmitNext();
  SubmitNext();
  const int first_request = accept4(http, nullptr, nullptr, SOCK_CLOEXEC);
  auto stop = std::async(std::launch::async, oxEventShutdown);
  expect_row_before_the_request_ends("0-1", first_request);
  ASSERT_FALSE(HasFailure());
  // The drain has delivered this one, and goes on.
  expect_row_before_the_request_ends("0-2", accept4(http, nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_EQ(stop.get(), OXEVENT_OK);
}

TEST_F(StuckReceiverTest, ShutdownDrainsForFiveSecondsAndWaitsForARequest) {
  StartWithHttpServer("", "300");
  SubmitWhileTheReceiverIsStuck(OXEVENT_OK);
  const auto start = Clock::now();
  EXPECT_EQ(oxEventShutdown(), OXEVENT_FAILURE);
  EXPECT_GE(Clock::now(), start + 5s);
  ExpectThatRefusedAndStoppedEventsAreCounted();
}

TEST_F(StuckReceiverTest, ShutdownWaitsForAWriteToAPipe) {
  StartWithPipe();
  for (uint64_t before = UINT64_MAX; before != delivered;) {  // Until the pipe is full.
    before = delivered;
    for (int i = 0; i < 50; ++i) SubmitNext();
    std::this_thread::sleep_for(100ms);
  }
  SubmitWhileTheReceiverIsStuck(OXEVENT_FAILURE);  // There is no room for the header of a new sink.
  std::atomic<bool> is_released = false;
  std::jthread releaser([&] {
    std::this_thread::sleep_for(5500ms);
    is_released = true;
    close(std::exchange(reader, -1));
  });
  EXPECT_EQ(oxEventShutdown(), OXEVENT_FAILURE);
  EXPECT_TRUE(is_released);
  ExpectThatRefusedAndStoppedEventsAreCounted();
}

}  // namespace

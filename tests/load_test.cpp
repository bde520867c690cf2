// The library under load, and with a receiver that does not respond. OXEVENT_SOAK enlarges two loads: see scripts/soak.
#include <malloc.h>

#include <array>
#include <atomic>
#include <future>
#include <thread>

#include "core/oxEventRouter.h"
#include "host_fixture.h"

namespace {

using namespace std::chrono_literals;
using std::string;

constexpr size_t kThreads = 16;
constexpr char kLargestSize[] = "4294967295";

size_t Scale() {
  const char* const soak = getenv("OXEVENT_SOAK");
  return soak == nullptr ? 1 : std::stoul(soak);
}

// Open descriptors of the process, and allocated bytes, of which mallinfo2 sees none under a sanitizer.
struct Resources {
  size_t descriptors = Entries("/proc/self/fd");
  size_t memory = mallinfo2().uordblks + mallinfo2().hblkhd;
};

size_t ResidentBytes() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// By how many bytes resident memory may grow. Without effect under a sanitizer, which keeps freed memory.
#ifdef OXEVENT_SANITIZED
constexpr size_t kResidentTolerance = SIZE_MAX / 2;
#else
constexpr size_t kResidentTolerance = 2 << 20;
#endif

struct LoadTest : testing::Test {
  ~LoadTest() override { oxEventShutdown(); }

  void Start(const string& csv, const std::map<string, string>& settings) {
    WriteSettings(settings_path, csv, settings);
    ASSERT_EQ(oxEventInitialize(settings_path.c_str()), OXEVENT_OK);
    ASSERT_EQ(oxEventRegisterCallback(Receive, this, &callback_id), OXEVENT_OK);
  }
  // A thread's numbers increase from 1; Receive checks the order.
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
  // Every thread submits `each` events, and more until the reloads are complete. Meanwhile another thread registers
  // callbacks and flushes. Returns when all events are delivered or dropped.
  void SubmitFromAllThreads(size_t each, size_t reloads) {
    std::atomic<bool> reloading = true;
    const auto submit = [&](size_t thread) {
      const char* const actions[] = {"raise", "raise", "update", "repeat", "clear"};
      uint64_t number = last_number[thread];
      for (const uint64_t end = number + each; ++number <= end || reloading;) {
        const string key = std::to_string(thread * 10 + number % 10);
        ASSERT_EQ(Submit(thread, number, actions[number % 5], key), OXEVENT_OK);
      }
    };
    std::vector<std::jthread> threads;
    for (size_t thread = 0; thread < kThreads; ++thread) threads.emplace_back(submit, thread);
    threads.emplace_back([&] {
      while (reloading) {
        uint32_t id = 0;
        EXPECT_EQ(oxEventRegisterCallback([](auto...) {}, nullptr, &id), OXEVENT_OK);
        EXPECT_EQ(oxEventUnregisterCallback(id), OXEVENT_OK);
        oxEventFlush(1);  // Mostly times out.
      }
    });
    for (size_t i = 0; i < reloads; ++i) EXPECT_EQ(oxEventReloadConfig(nullptr), OXEVENT_OK);
    reloading = false;
    threads.clear();
    Flush();
    const oxEventCounters counters = oxEventCoreGetCounters();
    EXPECT_EQ(counters.submitted, counters.emitted + counters.dropped);
  }

  const HostFolder folder{};
  const string settings_path = folder.path + "/settings";
  uint32_t callback_id = 0;
  std::array<uint64_t, kThreads> last_number = {};  // The last delivered, by thread. Written only by the worker.
  uint64_t sent = 0;                                // The last number that SubmitNext used.
  std::vector<string>* messages = nullptr;          // If set, receives the delivered messages.

 private:
  static void Receive(const oxEventRecord* event, void* user_data) {
    auto& test = *static_cast<LoadTest*>(user_data);
    if (test.messages != nullptr) test.messages->emplace_back(event->message);
    uint64_t& last = test.last_number.at(event->event_id - 1);
    EXPECT_LT(last, event->duration_ms);
    last = event->duration_ms;
  }
};

TEST_F(LoadTest, LosesNothingAmidReloadsAndFlushes) {
  const string csv = folder.path + "/csv";
  std::vector<string> rows = {"message"};  // In the header.
  messages = &rows;
  Start(csv, {{"core\\queue_size", kLargestSize}, {"state\\enabled", "0"}});
  SubmitFromAllThreads(1000, 20);
  EXPECT_EQ(oxEventCoreGetCounters().submitted + 1, rows.size());
  EXPECT_TRUE(ReadMessages(csv) == rows);  // Not EXPECT_EQ: too many to print.
}

TEST_F(LoadTest, DoesNotGrow) {
  const size_t each = 1250 * Scale();
  const size_t reloads = 20 * Scale();
  Start("/dev/null", {{"core\\queue_size", "100"}});  // So small that even a full queue does not count as growth.
  SubmitFromAllThreads(each / 10, reloads / 10);
  const Resources before;
  SubmitFromAllThreads(each, reloads);
  EXPECT_EQ(Submit(0, last_number[0] + 1, "", string(1 << 20, 'k')), OXEVENT_OK);
  Flush();
  EXPECT_EQ(Submit(0, last_number[0] + 1), OXEVENT_OK);  // After a long text, a short one.
  Flush();
  const Resources after;
  EXPECT_EQ(after.descriptors, before.descriptors);
  EXPECT_LT(after.memory, before.memory + 256 * 1024);
}

TEST_F(LoadTest, ReturnsTheMemoryOfConditions) {
  const size_t count = 20'000 * std::max<size_t>(Scale() / 10, 1);
  Start("", {{"core\\queue_size", kLargestSize}});
  SubmitNext("raise", "first");
  Flush();
  const size_t idle = ResidentBytes();
  const auto submit_each = [&](const char* action) {
    for (size_t i = 0; i < count; ++i) {
      SubmitNext(action, "condition" + std::to_string(i));
      if (i % 1000 == 999) Flush();
    }
  };
  for (const char* action : {"raise", "raise", "clear"}) submit_each(action);  // The second raise is suppressed.
  EXPECT_LT(ResidentBytes(), idle + kResidentTolerance);
  EXPECT_EQ(oxEventCoreGetCounters().drops_by_reason, (oxEventDropCounts{0, 0, 0, 0, 0, 0, count}));
  submit_each("raise");
  oxEventShutdown();
  EXPECT_LT(ResidentBytes(), idle + kResidentTolerance) << "after the shutdown";
}

TEST_F(LoadTest, ReturnsTheMemoryOfABurstWhileSingleEventsArrive) {
  Start("", {{"core\\queue_size", kLargestSize}});
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

// Neither Submit nor a reload waits for the worker, which waits for a server that does not respond.
TEST_F(LoadTest, ShutdownDrainsForFiveSecondsAndWaitsForARequest) {
  uint16_t port = 0;
  const int server = LoopbackSocket(AF_INET, SOCK_STREAM, &port);
  ASSERT_EQ(listen(server, 9), 0);
  Start("", {{"sink\\webhook\\http\\a\\enabled", "1"},
             {"sink\\webhook\\http\\a\\endpoint_url", "http://127.0.0.1:" + std::to_string(port)},
             {"sink\\webhook\\http\\a\\request_timeout_ms", "300"}});
  for (int i = 0; i < 22'000; ++i) SubmitNext();  // More than the queue holds.
  EXPECT_EQ(oxEventFlush(20), OXEVENT_FAILURE);
  EXPECT_EQ(oxEventReloadConfig(nullptr), OXEVENT_OK);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(oxEventShutdown(), OXEVENT_FAILURE);
  EXPECT_GE(std::chrono::steady_clock::now(), start + 5s);
  const oxEventCounters counters = oxEventCoreGetCounters();
  const uint64_t refused = counters.drops_by_reason[static_cast<size_t>(oxEventDrop::kRefused)];
  const uint64_t stopped = counters.drops_by_reason[static_cast<size_t>(oxEventDrop::kStopped)];
  EXPECT_GT(refused, 20'000u);
  EXPECT_GT(stopped, 0u);
  EXPECT_EQ(counters.submitted, counters.emitted + refused + stopped);
  close(server);
}

}  // namespace

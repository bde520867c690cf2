// The queue with its backlog and its drop ledger, the submit slots, and a router without sinks.
#include <atomic>
#include <future>
#include <thread>

#include "core/oxEventQueue.h"
#include "core/oxEventRouter.h"
#include "core/oxEventSubmitSlots.h"
#include "host_fixture.h"

namespace {

using namespace std::chrono_literals;
using Policy = oxEventDropPolicy;
using Result = oxEventEnqueueResult;

// Whether this thread of the process sleeps. False if there is no such thread.
bool IsAsleep(int thread_id) {
  const std::string stat = ReadFile("/proc/self/task/" + std::to_string(thread_id) + "/stat");
  return stat.find(") S ") != stat.npos;
}

oxEventNormalizedEvent Event(std::string_view message, uint32_t severity) {
  oxEventNormalizedEvent event;
  event.message = message;
  event.severity = severity;
  return event;
}

constexpr uint32_t kDebug = OXEVENT_SEVERITY_DEBUG;
constexpr uint32_t kInfo = OXEVENT_SEVERITY_INFO;
constexpr uint32_t kWarning = OXEVENT_SEVERITY_WARNING;
constexpr uint32_t kError = OXEVENT_SEVERITY_ERROR;

struct QueueTest : testing::Test {
  Result Enqueue(std::string_view message, uint32_t severity = kWarning) {
    return queue.Enqueue(Event(message, severity), &node_cache);
  }
  // Queues the events "1", "2", ...
  void EnqueueNumbered(const std::vector<uint32_t>& severities) {
    for (size_t i = 0; i < severities.size(); ++i) Enqueue(std::to_string(i + 1), severities[i]);
  }
  std::string PopAll() {
    std::string messages;
    while (queue.HasPending()) messages += queue.WaitPop()->message;
    return messages;
  }
  uint64_t Drops(oxEventDrop reason) const { return drops.Counts()[static_cast<size_t>(reason)]; }

  oxEventDropLedger drops;
  oxEventQueue queue{&drops};
  oxEventNodePtr node_cache;  // As a submit slot keeps it.
};

TEST_F(QueueTest, TurnsAwayAnEventThatItHasAlreadyCopied) {
  queue.Start(3, Policy::kDropNewest);
  oxEventNodePool pool;
  queue.StopAccepting();
  for (const std::string& message : {std::string("b"), std::string(5000, 'b')}) {
    oxEventNodePtr node = pool.Create();
    ASSERT_TRUE(node->event.Assign(Event(std::string(5000, 'a'), kInfo)));  // The node has room: copies first.
    EXPECT_EQ(queue.Enqueue(Event(message, kInfo), &node), Result::kNotAccepting);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->event.Get().message, message.size() > 4096 ? "" : message);  // The memory of long texts is freed.
  }
  EXPECT_EQ(queue.EnqueueCount(), 2u);
}

TEST_F(QueueTest, DisplacesTheOldestBelowWarningAndRecordsEachDrop) {
  queue.Start(3, Policy::kDropDebugInfoFirst);
  EnqueueNumbered({kWarning, kInfo, kDebug, kDebug, kError});
  EXPECT_EQ(Drops(oxEventDrop::kDisplaced), 2u);
  EXPECT_EQ(PopAll(), "145");
  EnqueueNumbered({kWarning, kWarning, kWarning, kWarning});
  EXPECT_EQ(Drops(oxEventDrop::kRefused), 1u);
  EXPECT_EQ(queue.DropPending(), 3u);
  EXPECT_EQ(Drops(oxEventDrop::kStopped), 3u);
}

TEST_F(QueueTest, TrimsByItsPolicyAndCountsCapacityZeroAsOne) {
  const struct {
    Policy policy;
    uint32_t capacity;
    const char* left;
  } cases[] = {
      {Policy::kDropNewest, 2, "12"}, {Policy::kDropDebugInfoFirst, 4, "1345"}, {Policy::kDropDebugInfoFirst, 0, "1"}};
  for (const auto& c : cases) {
    queue.Start(5, Policy::kDropNewest);
    EnqueueNumbered({kWarning, kInfo, kWarning, kInfo, kWarning});
    queue.Configure(c.capacity, c.policy);
    EXPECT_EQ(PopAll(), c.left);
  }
}

TEST_F(QueueTest, TrimsMoreEventsThanOneBatchHolds) {
  queue.Start(1000, Policy::kDropNewest);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(Enqueue(std::to_string(i), kInfo), Result::kQueued);
  EXPECT_EQ(queue.Configure(2, Policy::kDropNewest), 998u);
  EXPECT_EQ(Drops(oxEventDrop::kTrimmed), 998u);
  EXPECT_EQ(Enqueue("more"), Result::kRefused);
  EXPECT_EQ(queue.WaitPop()->message, "0");
}

// All flushes end, although another event is queued before they run again.
TEST_F(QueueTest, FlushesEndOnceNothingIsPendingOrActive) {
  const struct {
    const char* name;
    bool is_active;  // Whether the worker has taken the event.
    std::function<void()> drain;
  } cases[] = {{"the event is complete", true, [&] { queue.CompleteActiveEvent(); }},
               {"the queue is reset", true, [&] { queue.Reset(); }},
               {"the pending event is dropped", false, [&] { queue.DropPending(); }}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    queue.Start(1, Policy::kDropNewest);
    EXPECT_EQ(Enqueue("a"), Result::kQueued);
    if (c.is_active) queue.WaitPop();
    std::vector<std::future<uint32_t>> flushes;
    for (const uint32_t timeout_ms : {0u, 0u, UINT32_MAX}) {
      std::atomic<int> thread_id = 0;
      flushes.push_back(std::async(std::launch::async, [&, timeout_ms] {
        thread_id = gettid();
        return queue.Flush(timeout_ms);
      }));
      while (!IsAsleep(thread_id)) std::this_thread::yield();
    }
    queue.RequestStop();  // Wakes the flushes, which must go on waiting.
    for (auto& flush : flushes) EXPECT_EQ(flush.wait_for(10ms), std::future_status::timeout);
    c.drain();
    queue.Start(1, Policy::kDropNewest);
    EXPECT_EQ(Enqueue("b"), Result::kQueued);
    for (auto& flush : flushes) EXPECT_EQ(flush.wait_for(30s), std::future_status::ready);
    queue.DropPending();  // Ends a flush that hangs.
    queue.RequestStop();
    for (auto& flush : flushes) EXPECT_EQ(flush.get(), OXEVENT_OK);
  }
}

// The worker's timed wait is an hour long, so that only a wake-up ends it.
TEST(TimedWaitTest, AHalfFullBacklogEndsTheWaitButASingleEventDoesNot) {
  oxEventDropLedger drops;
  oxEventQueue queue(&drops, 1h);
  queue.Start(4, Policy::kDropNewest);
  const auto enqueue = [&](const char* message) {
    oxEventNodePtr node;
    EXPECT_EQ(queue.Enqueue(Event(message, kInfo), &node), Result::kQueued);
  };
  std::atomic<int> delivered = 0, worker_id = 0;
  const std::jthread worker([&] {
    worker_id = gettid();
    while (queue.WaitPop() != nullptr) ++delivered;
  });
  enqueue("first");
  while (delivered == 0 || !IsAsleep(worker_id)) std::this_thread::yield();
  enqueue("second");
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(delivered, 1);
  enqueue("third");
  for (int i = 0; i < 30'000 && delivered < 3; ++i) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(delivered, 3) << "The half-full backlog has not woken the worker.";
  queue.RequestStop();  // Ends the wait too.
}

struct SubmitSlotsTest : testing::Test {
  using Lease = oxEventSubmitSlots::Lease;
  oxEventNodePool pool;
  oxEventSubmitSlots slots;
};

TEST_F(SubmitSlotsTest, ALeaseWaitsWhileAllSlotsAreHeld) {
  std::vector<std::unique_ptr<Lease>> leases;
  for (int i = 0; i < 32; ++i) leases.push_back(std::make_unique<Lease>(&slots));
  auto lease = std::async(std::launch::async, [&] { const Lease lease_of_another_thread(&slots); });
  EXPECT_EQ(lease.wait_for(10ms), std::future_status::timeout);
  leases.pop_back();
  lease.get();
}

TEST_F(SubmitSlotsTest, WaitsForOtherThreadsAndFreesTheirNodes) {
  auto submit = std::make_unique<Lease>(&slots);
  oxEventNodePtr& node = *submit->NodeCache();
  node = pool.Create();
  std::atomic<bool> has_lease = false;
  auto stop = std::async(std::launch::async, [&] {
    const Lease own(&slots);  // Is not waited for.
    *own.NodeCache() = pool.Create();
    has_lease = true;
    slots.WaitForInFlightSubmits();
    EXPECT_NE(*own.NodeCache(), nullptr);
  });
  while (!has_lease) std::this_thread::yield();
  EXPECT_EQ(stop.wait_for(10ms), std::future_status::timeout);
  EXPECT_NE(node, nullptr);
  submit.reset();
  stop.get();
  EXPECT_EQ(node, nullptr);
}

TEST(RouterTest, DoesNotStartAgainOnceClosed) {
  oxEventRouter router;
  const oxEventConfig config;
  EXPECT_EQ(router.Start(&config), OXEVENT_OK);
  router.Close();
  EXPECT_EQ(router.Submit({}), OXEVENT_NOT_INITIALIZED);
  EXPECT_EQ(router.Start(&config), OXEVENT_NOT_INITIALIZED);
}

}  // namespace

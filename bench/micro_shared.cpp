// The data that concurrent calls of Submit share: the cost of an access to each, alone and while a second thread
// accesses the same data.
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

#include "base/oxEventArchitecture.h"
#include "base/oxEventMutex.h"
#include "core/oxEventQueue.h"
#include "core/oxEventSubmitSlots.h"
#include "micro.h"

namespace {

oxEventMutex g_mutex;
uint64_t g_locked_count OX_GUARDED_BY(g_mutex) = 0;
std::atomic<uint64_t> g_id = 0;
oxEventSubmitSlots g_slots;

void QueueLock(benchmark::State& state) {
  Repeat(state, [] {
    oxEventLock lock(g_mutex);
    return ++g_locked_count > 0;
  });
}
BENCHMARK(QueueLock)->Name("Shared/queue_lock")->ThreadRange(1, 2);

void IdCounter(benchmark::State& state) {
  Repeat(state, [] { return g_id.fetch_add(1, std::memory_order_relaxed) + 1 > 0; });
}
BENCHMARK(IdCounter)->Name("Shared/id_counter")->ThreadRange(1, 2);

void SubmitSlot(benchmark::State& state) {
  Repeat(state, [] { return *oxEventSubmitSlots::Lease(&g_slots).NodeCache() == nullptr; });
}
BENCHMARK(SubmitSlot)->Name("Shared/submit_slot")->ThreadRange(1, 2);

// A queue that is emptied after each batch, as the worker would do.
struct EmptiedQueue {
  EmptiedQueue() { queue.Start(8192, oxEventDropPolicy::kDropNewest); }

  bool Drain() {
    const std::lock_guard<std::mutex> lock(mutex);
    while (queue.HasPending() && queue.WaitPop() != nullptr) {
    }
    queue.CompleteActiveEvent();
    return true;
  }

  oxEventDropLedger drops;
  oxEventQueue queue{&drops};
  std::mutex mutex;  // Held by the thread that acts as the worker.
};

// All threads submit to the same queue, or each thread to a queue of its own.
void Enqueue(benchmark::State& state, bool same_queue) {
  static std::array<EmptiedQueue, 2> queues;
  EmptiedQueue& emptied = queues[same_queue ? 0 : static_cast<size_t>(state.thread_index())];
  const oxEventNormalizedEvent event = CompleteEvent();
  oxEventNodePtr node_cache;
  RepeatInBatches(
      state, 1024, [&] { return emptied.queue.Enqueue(event, &node_cache) == oxEventEnqueueResult::kQueued; },
      [&] { return emptied.Drain(); });
}
BENCHMARK_CAPTURE(Enqueue, one_queue, true)->Name("Shared/one_queue")->ThreadRange(1, 2);
BENCHMARK_CAPTURE(Enqueue, own_queue, false)->Name("Shared/own_queue")->ThreadRange(1, 2);

// Stands for the memory of an event: cache lines, each of which contains the index of the next one, so that an access
// cannot begin before the previous one has ended.
class Lines {
 public:
  Lines() {
    for (size_t i = 0; i < lines_.size(); ++i) lines_[i].next = (i * 5 + 1) % lines_.size();  // Visits all lines.
  }
  static constexpr size_t kCount = 16;

  void Write() {
    for (size_t i = 0, at = 0; i < kCount; ++i, at = lines_[at].next) ++lines_[at].writes;
  }

 private:
  struct alignas(64) Line {
    size_t next = 0;
    uint64_t writes = 0;
  };
  std::array<Line, kCount> lines_;
};

// Measures the time of a write to one cache line. With two threads, the other thread writes to all lines between the
// iterations.
void EventMemory(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  enum Turn { kOurs, kTheirs, kEnd };
  Lines lines;
  std::atomic<Turn> turn = kOurs;
  std::thread other([&] {
    while (turn != kEnd) {
      if (turn == kTheirs) {
        lines.Write();
        turn = kOurs;
      }
      oxEventSpinPause();
    }
  });
  for (auto _ : state) {
    if (state.range(0) == 2) turn = kTheirs;
    while (turn != kOurs) oxEventSpinPause();
    const Clock::time_point start = Clock::now();
    lines.Write();
    benchmark::ClobberMemory();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count() / Lines::kCount);
  }
  turn = kEnd;
  other.join();
}
BENCHMARK(EventMemory)->Name("Shared/event_memory")->ArgName("threads")->DenseRange(1, 2)->UseManualTime();

}  // namespace

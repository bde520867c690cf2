#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <random>
#include <thread>

#include "core/oxEventQueue.h"

using namespace std::chrono_literals;

namespace {

constexpr uint64_t kAccepted = 1ull << 40, kDropped = 1ull << 48;

// An event whose other fields follow from its id.
uint64_t Enqueue(oxEventQueue* queue, uint64_t id, size_t text_size = 20) {
  const std::string text(text_size, static_cast<char>(id));
  oxEventView event;
  event.event_id = id;
  event.severity = static_cast<uint32_t>(id % 5);
  event.message = event.details_json = text;
  bool accepted = true, dropped = true;
  const uint32_t result = queue->Enqueue(event, &accepted, &dropped);
  return result + (accepted ? kAccepted : 0) + (dropped ? kDropped : 0);
}

uint64_t Pop(oxEventQueue* queue, oxEventNormalizedEvent* out) {
  if (!queue->WaitPop(out)) return 0;
  return out->message == std::string(out->message.size(), static_cast<char>(out->event_id)) ? out->event_id : 0;
}

// What the queue does, without a thought for speed or threads.
struct Model {
  std::deque<uint64_t> pending = {};
  uint32_t capacity = 1, active = 0;
  bool debug_info_first = false, accepting = false, stop = false;

  bool DropDebugInfo() {
    const auto oldest = std::find_if(pending.begin(), pending.end(), [](uint64_t id) { return id % 5 < 2; });
    return debug_info_first && oldest != pending.end() && (pending.erase(oldest), true);
  }
  uint64_t Configure(uint32_t size, oxEventDropPolicy policy) {
    capacity = std::max(size, 1u), debug_info_first = policy == oxEventDropPolicy::kDropDebugInfoFirst;
    const uint64_t before = pending.size();
    while (pending.size() > capacity) DropDebugInfo() ? void() : pending.pop_back();
    return before - pending.size();
  }
  uint64_t Enqueue(uint64_t id) {
    if (!accepting) return OXEVENT_NOT_INITIALIZED;
    const uint64_t dropped = pending.size() < capacity ? 0 : kDropped;
    if (dropped && !DropDebugInfo()) return dropped;
    return pending.push_back(id), kAccepted + dropped;
  }
};

TEST(oxEventQueue, DoesAsTheModelDoes) {
  for (uint32_t seed = 1, bulk = 1; seed < 4000 && !HasFailure(); bulk = ++seed % 40 == 0 ? 30 : 1) {
    std::minstd_rand random(seed);
    const auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() >> 8) % n; };
    oxEventQueue queue;
    oxEventNormalizedEvent out;
    Model model;
    for (int step = 0; step < 80; ++step) {
      const uint32_t id = below(900) + 1, size = below(30) == 0 ? 0xFFFFFFFF : below(7) * bulk;
      const auto policy = static_cast<oxEventDropPolicy>(below(2));
      const char call = step == 0 && seed % 8 != 0 ? 'S' : "EEEEEEEEEEEEEEPPPPPPcccccCCCDDSAQR"[below(34)];
      uint64_t got = 0, want = 0;
      for (uint32_t i = call == 'E' ? bulk : 0; i-- > 0;) got += Enqueue(&queue, id + i), want += model.Enqueue(id + i);
      if (call == 'C') got = queue.Configure(size, policy), want = model.Configure(size, policy);
      if (call == 'D') got = queue.DropPending(), want = model.pending.size(), model.pending.clear();
      if (call == 'S') queue.Start(size, policy), model = {.accepting = true}, model.Configure(size, policy);
      if (call == 'A') queue.StopAccepting(), model.accepting = false;
      if (call == 'Q') queue.RequestStop(), model.accepting = !(model.stop = true);
      if (call == 'R') queue.Reset(), model = {};
      if (call == 'c') queue.CompleteActiveEvent(), model.active -= model.active != 0;
      if (call == 'P' && !model.pending.empty()) want = model.pending[0], model.pending.pop_front(), ++model.active;
      if (call == 'P' && (model.stop || want != 0)) got = Pop(&queue, &out);  // Else it would wait.
      const bool drained = model.pending.empty() && model.active == 0, wait = seed % 50 == 0 && step == 79;
      const std::tuple wanted(want, !model.pending.empty(), drained);
      EXPECT_EQ(std::tuple(got, queue.HasPending(), (drained || wait) && queue.Flush(1) == OXEVENT_OK), wanted)
          << "seed " << seed << ", step " << step << ", call " << call;
    }
  }
}

TEST(oxEventQueue, FlushEndsWhenDrainedAndNotBefore) {
  for (const char last_call : {'c', 'D', 'R'}) {
    oxEventQueue queue;
    queue.Start(1, oxEventDropPolicy::kDropNewest);
    EXPECT_TRUE(Enqueue(&queue, 1) == kAccepted && (last_call == 'D' || queue.WaitPop(nullptr)));
    std::atomic<bool> drained = false;
    std::jthread flusher([&] { EXPECT_TRUE(!queue.Flush(last_call == 'c' ? 0xFFFFFFFF : 0) && drained); });
    queue.RequestStop();  // Wakes it for nothing.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(queue.Flush(50) == OXEVENT_FAILURE && std::chrono::steady_clock::now() >= start + 50ms);
    drained = true;
    last_call == 'c' ? queue.CompleteActiveEvent() : last_call == 'R' ? queue.Reset() : (void)queue.DropPending();
  }
}

TEST(oxEventQueue, WakesTheWorkerForEachEventAndForTheStop) {
  oxEventQueue queue;
  queue.Start(1, oxEventDropPolicy::kDropNewest);
  oxEventNormalizedEvent out;  // The worker's; a flush hands it over.
  std::jthread worker([&] {
    while (queue.WaitPop(&out)) queue.CompleteActiveEvent();
  });
  for (uint64_t id = 1; id < 3000; ++id) EXPECT_TRUE(Enqueue(&queue, id) && !queue.Flush(0) && out.event_id == id);
  queue.RequestStop();
}

TEST(oxEventQueue, KeepsNoMemoryOfLongTexts) {
  oxEventQueue queue;
  queue.Start(1, oxEventDropPolicy::kDropDebugInfoFirst);
  oxEventNormalizedEvent out, fresh;
  EXPECT_TRUE(Enqueue(&queue, 5, 1 << 20) && Pop(&queue, &out) && Enqueue(&queue, 5, 1 << 20));
  EXPECT_TRUE(Enqueue(&queue, 7) && Pop(&queue, &out) && Enqueue(&queue, 8) && Pop(&queue, &fresh));
  EXPECT_LE(std::max({out.message.capacity(), fresh.message.capacity(), fresh.details_json.capacity()}), 4096u);
}

}  // namespace

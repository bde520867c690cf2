#include "core/oxEventRouter.h"

#include <pthread.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <iterator>
#include <numeric>
#include <thread>
#include <utility>

#include "base/oxEventImmortal.h"
#include "base/oxEventSeverity.h"
#include "core/oxEventRun.h"
#include "platform/oxEventPlatform.h"
#include "sinks/oxEventSinkSet.h"

namespace {

bool IsUsable(const oxEventConfig* config) { return config != nullptr && config->queue_size != 0; }

// Sleeps: yielding from a real-time thread never lets a lower-priority thread run.
void LetOthersRun() {
  const oxEventCancelBlock cancel_block;
  std::this_thread::sleep_for(std::chrono::microseconds(50));
}

// Waits until nothing is queued or in delivery. A service manager may kill the process meanwhile: the rows of events
// that were delivered must be in their files by then, whenever a sink begins to stall.
uint32_t Drain(oxEventQueue* queue, uint32_t timeout_ms) {
  constexpr int64_t kFlushIntervalMs = 500;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    oxEventSinkTryFlush();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return OXEVENT_FAILURE;
    const auto wait_ms = static_cast<uint32_t>(std::min<int64_t>(left.count(), kFlushIntervalMs));
    if (queue->Flush(wait_ms) == OXEVENT_OK) return OXEVENT_OK;
  }
}

}  // namespace

class oxEventRouter::PlaceHolder {
 public:
  explicit PlaceHolder(Places* places) : place_(Take(places)) {}
  ~PlaceHolder() { place_.holder.store(0, std::memory_order_release); }
  PlaceHolder(const PlaceHolder&) = delete;
  PlaceHolder& operator=(const PlaceHolder&) = delete;

  oxEventQueue::Spare* Spare() const { return &place_.spare; }

 private:
  // The thread's own, or the next that nobody is in.
  static Place& Take(Places* places) {
    constexpr uint64_t kSpread = 0x9E3779B97F4A7C15;  // 2^64 by the golden ratio.
    constexpr int kShift = 64 - std::countr_zero(std::tuple_size_v<Places>);
    const pthread_t self = pthread_self();
    for (size_t i = self * kSpread >> kShift, tries = 1;; ++i, ++tries) {
      Place& place = (*places)[i % places->size()];
      if (pthread_t nobody = 0; place.holder.compare_exchange_strong(nobody, self)) return place;
      if (tries % places->size() == 0) LetOthersRun();
    }
  }

  Place& place_;
};

uint32_t oxEventRouter::Start(const oxEventConfig* config) {
  if (!IsUsable(config)) return OXEVENT_INVALID_ARGUMENT;
  oxEventLock lock(mutex_);
  if (running_ != nullptr) return OXEVENT_ALREADY_INITIALIZED;
  if (closed_) return OXEVENT_NOT_INITIALIZED;  // The process is exiting.
  auto run = std::make_shared<Run>();
  retired_.reserve(retired_.size() + 1);  // So that the worker can retire its run without memory.
  run->Configure(*config);
  run->state.Configure(*config);
  run->queue.Start(config->queue_size, config->drop_policy);
  run->StartWorker();
  run_ = std::move(run);
  running_ = run_.get();
  return OXEVENT_OK;
}

uint32_t oxEventRouter::Submit(const oxEventNormalizedEvent& event) {
  const PlaceHolder place(&places_);
  Run* const run = running_;
  if (run == nullptr) return OXEVENT_NOT_INITIALIZED;
  if (!run->Wants(event.severity)) {
    run->Drop(event, oxEventDrop::kFiltered);
    return OXEVENT_OK;
  }
  bool accepted = false;
  bool dropped = false;
  const uint32_t result = run->queue.Enqueue(event, &accepted, &dropped, place.Spare());
  if (dropped && accepted) run->AddDropped(oxEventDrop::kDisplaced, 1);
  if (dropped && !accepted) run->Drop(event, oxEventDrop::kRefused);
  if (result == OXEVENT_FAILURE) run->Drop(event, oxEventDrop::kNoMemory);
  return result;
}

uint32_t oxEventRouter::Flush(uint32_t timeout_ms) {
  const SharedRun run = RunningRun();
  if (run == nullptr) return OXEVENT_NOT_INITIALIZED;
  if (run->IsWorker()) {
    if (run->queue.HasPending()) return OXEVENT_FAILURE;
  } else if (const uint32_t result = run->queue.Flush(timeout_ms); result != OXEVENT_OK) {
    return result;
  }
  return oxEventSinkFlush(timeout_ms);
}

uint32_t oxEventRouter::Stop(uint32_t timeout_ms) {
  SharedRun run;
  {
    oxEventLock lock(mutex_);
    if (running_ == nullptr) return OXEVENT_NOT_INITIALIZED;
    running_ = nullptr;
    run = run_;
    if (run->IsWorker()) retired_.push_back(run);
  }
  run->queue.StopAccepting();
  WaitForSubmitters();
  uint32_t result = OXEVENT_OK;
  // Without time there is no waiting: what is queued goes at once. The worker cannot wait for itself.
  const bool waits = timeout_ms != 0 && !run->IsWorker();
  if (waits) {
    result = Drain(&run->queue, timeout_ms);
  } else if (run->queue.HasPending()) {
    result = OXEVENT_FAILURE;
  }
  if (result != OXEVENT_OK) {
    run->AddDropped(oxEventDrop::kStopped, run->queue.DropPending());
  } else {
    result = oxEventSinkFlush(timeout_ms);
  }
  run->queue.RequestStop();
  if (!run->IsWorker()) {
    oxEventSinkTryFlush();
    run->JoinWorker();
  }
  if (!run->IsWorker()) {
    run->queue.Reset();
    run->state.Reset();
  }
  return result;
}

uint32_t oxEventRouter::ReloadConfig(const oxEventConfig* config) {
  if (!IsUsable(config)) return OXEVENT_INVALID_ARGUMENT;
  SharedRun run;
  {
    oxEventLock lock(mutex_);
    if (running_ == nullptr) return OXEVENT_NOT_INITIALIZED;
    run = run_;
  }
  run->Configure(*config);
  run->state.Configure(*config);
  run->AddDropped(oxEventDrop::kTrimmed, run->queue.Configure(config->queue_size, config->drop_policy));
  return OXEVENT_OK;
}

void oxEventRouter::Reap() {
  std::vector<SharedRun> ended;
  {
    oxEventLock lock(mutex_);
    const auto begin = std::partition(retired_.begin(), retired_.end(),
                                      [](const SharedRun& run) { return !run->HasEnded() || run->IsWorker(); });
    ended.assign(std::make_move_iterator(begin), std::make_move_iterator(retired_.end()));
    retired_.erase(begin, retired_.end());
  }
  for (const SharedRun& run : ended) run->JoinWorker();
}

oxEventCounters oxEventRouter::GetCounters() {
  const SharedRun run = LastRun();
  if (run == nullptr) return {};
  const oxEventDrops drops = run->Drops();
  // The queue has not seen these.
  const uint64_t turned_away =
      drops[static_cast<size_t>(oxEventDrop::kFiltered)] + drops[static_cast<size_t>(oxEventDrop::kNoMemory)];
  return {run->queue.EnqueueCount() + turned_away, run->emitted, std::reduce(drops.begin(), drops.end()),
          run->sink_failures, run->sink_warnings};
}

oxEventDrops oxEventRouter::GetDrops() {
  const SharedRun run = LastRun();
  return run != nullptr ? run->Drops() : oxEventDrops();
}

void oxEventRouter::Close() {
  {
    oxEventLock lock(mutex_);
    closed_ = true;
  }
  Stop(0);
  // From here on nobody adds a run.
  SharedRun last;
  std::vector<SharedRun> runs;
  {
    oxEventLock lock(mutex_);
    last.swap(run_);
    runs.swap(retired_);
  }
  // All are ended before any is waited for: a callback in one may be waiting for the events of another.
  if (last != nullptr) End(*last);
  for (const SharedRun& run : runs) End(*run);
  oxEventSinkTryFlush();
  if (last != nullptr) Join(&last);
  for (SharedRun& run : runs) Join(&run);
}

// A stop that another thread waits in has no more time. The event in delivery on an exiting worker never completes.
void oxEventRouter::End(Run& run) {
  run.AddDropped(oxEventDrop::kStopped, run.queue.DropPending());
  run.queue.RequestStop();
  if (run.IsWorker()) run.queue.Reset();
}

// Lets go of a run, but for one whose worker is the exiting thread: that one still runs in it.
void oxEventRouter::Join(SharedRun* run) {
  if (!(*run)->IsWorker()) return (*run)->JoinWorker();
  oxEventLock lock(mutex_);
  exiting_ = std::move(*run);
}

// After running_ has changed: until everyone who has seen what it was is out. Frees what they kept. Not for the calling
// thread, when a signal handler that exits has interrupted its Submit.
void oxEventRouter::WaitForSubmitters() {
  const pthread_t self = pthread_self();
  for (Place& place : places_) {
    pthread_t holder = 0;
    for (; !place.holder.compare_exchange_strong(holder, self) && holder != self; holder = 0) LetOthersRun();
    if (holder == self) continue;
    place.spare.reset();
    place.holder = 0;
  }
}

oxEventRouter::SharedRun oxEventRouter::LastRun() {
  oxEventLock lock(mutex_);
  return run_;
}

oxEventRouter::SharedRun oxEventRouter::RunningRun() {
  oxEventLock lock(mutex_);
  return running_ != nullptr ? run_ : nullptr;
}

namespace {

constinit oxEventImmortal<oxEventRouter> g_router;

}  // namespace

uint32_t oxEventCoreStart(const oxEventConfig* config) { return g_router->Start(config); }

uint32_t oxEventCoreStop(uint32_t timeout_ms) { return g_router->Stop(timeout_ms); }

uint32_t oxEventCoreSubmit(const oxEventNormalizedEvent& event) { return g_router->Submit(event); }

uint32_t oxEventCoreFlush(uint32_t timeout_ms) { return g_router->Flush(timeout_ms); }

uint32_t oxEventCoreReloadConfig(const oxEventConfig* config) { return g_router->ReloadConfig(config); }

oxEventCounters oxEventCoreGetCounters() { return g_router->GetCounters(); }

oxEventDrops oxEventCoreGetDrops() { return g_router->GetDrops(); }

void oxEventCoreReap() { g_router->Reap(); }

void oxEventCoreClose() { g_router->Close(); }

void oxEventCoreForgetInChild() { g_router.Renew(); }

#include "core/oxEventRouter.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <numeric>
#include <utility>

#include "base/oxEventNoDestructor.h"
#include "base/oxEventSeverity.h"
#include "base/oxEventStat.h"
#include "core/oxEventRun.h"
#include "platform/oxEventSignalBlock.h"
#include "sinks/oxEventSinkSet.h"

namespace {

bool IsUsable(const oxEventConfig* config) { return config != nullptr && config->queue_size != 0; }

// Waits until no event is queued or in delivery; returns OXEVENT_FAILURE after timeout_ms. If a sink stalls, a service
// manager may kill the process in the meantime, so the CSV sinks write their buffered rows at regular intervals.
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

uint32_t oxEventRouter::Start(const oxEventConfig* config) {
  if (!IsUsable(config)) return OXEVENT_INVALID_ARGUMENT;
  oxEventLock lock(mutex_);
  if (running_ != nullptr) return OXEVENT_ALREADY_INITIALIZED;
  if (closed_) return OXEVENT_NOT_INITIALIZED;
  auto run = std::make_shared<Run>();
  if (!retired_) retired_.emplace();
  retired_->reserve(retired_->size() + 1);  // So that Stop on the worker needs no memory.
  run->Configure(*config);
  run->state.Configure(*config);
  run->queue.Start(config->queue_size, config->drop_policy);
  run->StartWorker();
  PublishStatLocked(run.get());
  run_ = std::move(run);
  running_ = run_.get();
  return OXEVENT_OK;
}

uint32_t oxEventRouter::Submit(const oxEventNormalizedEvent& event) {
  const oxEventSubmitSlots::Lease slot(&slots_);
  Run* const run = running_;  // Read after the slot was taken, see Lease::Acquire.
  if (run == nullptr) return OXEVENT_NOT_INITIALIZED;
  if (!run->IsEnabled(event.severity)) {
    run->drops.Record(event, oxEventDrop::kFiltered);
    return OXEVENT_OK;
  }
  switch (run->queue.Enqueue(event, slot.NodeCache())) {
    case oxEventEnqueueResult::kNotAccepting:
      return OXEVENT_NOT_INITIALIZED;
    case oxEventEnqueueResult::kNoMemory:
      return OXEVENT_FAILURE;
    case oxEventEnqueueResult::kQueued:
    case oxEventEnqueueResult::kDisplacedOlder:
    case oxEventEnqueueResult::kRefused:
      break;
  }
  return OXEVENT_OK;
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
    if (run->IsWorker()) retired_->push_back(run);
  }
  run->queue.StopAccepting();
  slots_.WaitForInFlightSubmits();
  uint32_t result = OXEVENT_OK;
  // The worker cannot wait for itself.
  const bool waits = timeout_ms != 0 && !run->IsWorker();
  if (waits) {
    result = Drain(&run->queue, timeout_ms);
  } else if (run->queue.HasPending()) {
    result = OXEVENT_FAILURE;
  }
  if (result != OXEVENT_OK) {
    run->queue.DropPending();
  } else {
    result = oxEventSinkFlush(timeout_ms);
  }
  run->queue.RequestStop();
  if (run->IsWorker()) return result;  // The worker ends after its current event; Reap joins it.
  oxEventSinkTryFlush();
  run->JoinWorker();
  run->queue.Reset();
  run->state.Reset();
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
  run->queue.Configure(config->queue_size, config->drop_policy);
  return OXEVENT_OK;
}

void oxEventRouter::Reap() {
  std::vector<SharedRun> ended;
  {
    oxEventLock lock(mutex_);
    if (!retired_) return;
    const auto begin = std::partition(retired_->begin(), retired_->end(),
                                      [](const SharedRun& run) { return !run->HasEnded() || run->IsWorker(); });
    ended.assign(std::make_move_iterator(begin), std::make_move_iterator(retired_->end()));
    retired_->erase(begin, retired_->end());
  }
  for (const SharedRun& run : ended) run->JoinWorker();
}

oxEventCounters oxEventRouter::GetCounters() {
  const SharedRun run = LastRun();
  if (run == nullptr) return {};
  const oxEventDropCounts drops = run->drops.Counts();
  return {run->queue.EnqueueCount() + oxEventDropsBeforeQueue(drops),
          run->emitted,
          std::reduce(drops.begin(), drops.end()),
          run->sink_failures,
          run->sink_warnings,
          drops,
          run->failed_evaluations};
}

void oxEventRouter::Close() {
  {
    oxEventLock lock(mutex_);
    closed_ = true;
  }
  Stop(0);
  // From here on no run starts, because closed_ is set.
  SharedRun last;
  std::vector<SharedRun> runs;
  {
    oxEventLock lock(mutex_);
    oxEventStatPublishRun({});
    last.swap(run_);
    if (retired_) runs.swap(*retired_);
  }
  // End all runs before joining any: a callback in one run may be waiting for the events of another run.
  if (last != nullptr) End(*last);
  for (const SharedRun& run : runs) End(*run);
  oxEventSinkTryFlush();
  if (last != nullptr) Join(&last);
  for (SharedRun& run : runs) Join(&run);
}

void oxEventRouter::PublishStatLocked(Run* run) const {
  oxEventStatRun stat = run->StatAddresses();
  stat.running = oxEventStatAddress<uint64_t>(&running_);
  oxEventStatPublishRun(stat);
}

// Drops the pending events and tells the worker to end. Also unblocks a Stop in which another thread may be waiting: if
// the worker is the calling thread, its event in delivery never completes, so the queue is reset.
void oxEventRouter::End(Run& run) {
  run.queue.DropPending();
  run.queue.RequestStop();
  if (run.IsWorker()) run.queue.Reset();
}

// Joins the worker. If the worker is the calling thread, which still uses the run, keeps the run instead.
void oxEventRouter::Join(SharedRun* run) {
  if (!(*run)->IsWorker()) return (*run)->JoinWorker();
  oxEventLock lock(mutex_);
  exiting_ = std::move(*run);
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

constinit oxEventNoDestructor<oxEventRouter> g_router;

}  // namespace

oxEventRouter& oxEventCoreRouter() { return *g_router; }

uint32_t oxEventCoreStart(const oxEventConfig* config) { return g_router->Start(config); }

uint32_t oxEventCoreStop(uint32_t timeout_ms) { return g_router->Stop(timeout_ms); }

uint32_t oxEventCoreSubmit(const oxEventNormalizedEvent& event) { return g_router->Submit(event); }

uint32_t oxEventCoreFlush(uint32_t timeout_ms) { return g_router->Flush(timeout_ms); }

uint32_t oxEventCoreReloadConfig(const oxEventConfig* config) { return g_router->ReloadConfig(config); }

oxEventCounters oxEventCoreGetCounters() { return g_router->GetCounters(); }

void oxEventCoreResetAfterFork() {
  oxEventStatPublishRun({});
  g_router.Reset();
}

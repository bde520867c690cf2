#include "core/oxEventRun.h"

#include <cxxabi.h>

#include "base/oxEventForkCount.h"
#include "platform/oxEventPlatformSystem.h"
#include "platform/oxEventSignalBlock.h"
#include "sinks/oxEventSinkSet.h"

namespace {

// Completes the active event however the worker ends, including by unwinding. Does nothing in the child if a callback
// has forked: the queue belongs to the parent.
class ActiveEventGuard {
 public:
  explicit ActiveEventGuard(oxEventQueue& queue) : queue_(queue) {}
  ~ActiveEventGuard() {
    if (!IsInChild()) queue_.CompleteActiveEvent();
  }
  ActiveEventGuard(const ActiveEventGuard&) = delete;
  ActiveEventGuard& operator=(const ActiveEventGuard&) = delete;

  bool IsInChild() const { return g_oxEventForkCount != forks_; }

 private:
  oxEventQueue& queue_;
  const unsigned forks_ = g_oxEventForkCount;
};

}  // namespace

void oxEventRouter::Run::StartWorker() {
  oxEventLock lock(join_mutex_);
  const oxEventSignalBlock block(oxEventSignalBlock::kAll);
  worker_ = std::thread([this] { WorkerMain(); });
  worker_id_ = worker_.get_id();
  ready_.wait(false);
}

void oxEventRouter::Run::JoinWorker() {
  oxEventLock lock(join_mutex_);
  if (!worker_.joinable()) return;
  worker_.join();
  worker_id_ = std::thread::id();
}

oxEventStatRun oxEventRouter::Run::StatAddresses() {
  oxEventStatRun stat = {};
  drops.AddStatAddresses(&stat);
  queue.AddStatAddresses(&stat);
  state.AddStatAddresses(&stat);
  stat.emitted = oxEventStatAddress<uint64_t>(&emitted);
  stat.sink_failures = oxEventStatAddress<uint64_t>(&sink_failures);
  stat.sink_warnings = oxEventStatAddress<uint64_t>(&sink_warnings);
  return stat;
}

void oxEventRouter::Run::WorkerMain() {
  oxEventPlatformNameThread("oxEvent");
  // At a thread's first exception, the C library may allocate memory, and ends the process if there is none
  // (oxEventArchitecture.h). So let it allocate now, not during a delivery.
  ready_ = abi::__cxa_get_globals() != nullptr;
  ready_.notify_one();
  const oxEventCancelBlock cancel_block;  // A callback could cancel this thread.
  const ActiveEventGuard guard(queue);
  while (oxEventNormalizedEvent* event = queue.WaitPop()) {
    Deliver(event);
    if (guard.IsInChild()) return;
  }
  ended_ = true;
}

void oxEventRouter::Run::Deliver(oxEventNormalizedEvent* event) {
  bool emit = true;
  uint32_t status = OXEVENT_FAILURE;
  try {
    status = state.Evaluate(*event, event, &emit);
  } catch (...) {
    // There is no memory. `emit` is still true, and the event counts as a failed evaluation.
  }
  if (!emit) {
    drops.Record(*event, oxEventDrop::kSuppressed);
    return;
  }
  if (status != OXEVENT_OK) {
    ++failed_evaluations;
    ++sink_failures;
    return;
  }
  oxEventTraceEmit(event->event_id, event->severity, event->action.data());
  uint64_t failed_sinks = 0;
  uint64_t warnings = 0;
  try {
    oxEventSinkSubmit(*event, &failed_sinks, &warnings);
  } catch (const abi::__forced_unwind&) {
    ++emitted;
    throw;
  } catch (...) {
    ++failed_sinks;
  }
  sink_failures += failed_sinks;
  sink_warnings += warnings;
  ++emitted;
}

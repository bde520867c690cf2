#include "core/oxEventRun.h"

#include <cxxabi.h>

#include "base/oxEventForkCount.h"
#include "platform/oxEventPlatform.h"
#include "sinks/oxEventSinkSet.h"

namespace {

// Completes the active event on every way out of its delivery, an unwinding thread included.
class ActiveEvent {
 public:
  explicit ActiveEvent(oxEventQueue& queue) : queue_(queue) {}
  ~ActiveEvent() {
    if (g_oxEventForkCount == forks_) queue_.CompleteActiveEvent();
  }
  ActiveEvent(const ActiveEvent&) = delete;
  ActiveEvent& operator=(const ActiveEvent&) = delete;

 private:
  oxEventQueue& queue_;
  const unsigned forks_ = g_oxEventForkCount;
};

}  // namespace

void oxEventRouter::Run::StartWorker() {
  oxEventLock lock(join_mutex_);
  const oxEventSignalBlock block(oxEventSignalBlock::kAll);
  worker_ = std::thread([this] { RouterMain(); });
  worker_id_ = worker_.get_id();
}

void oxEventRouter::Run::JoinWorker() {
  oxEventLock lock(join_mutex_);
  if (!worker_.joinable()) return;
  worker_.join();
  worker_id_ = std::thread::id();
}

void oxEventRouter::Run::RouterMain() {
  oxEventPlatformNameThread("oxEvent");
  const oxEventCancelBlock cancel_block;  // A callback of the host's knows this thread.
  const unsigned forks = g_oxEventForkCount;
  while (const oxEventNormalizedEvent* event = queue.WaitPop()) {
    Deliver(*event);
    if (g_oxEventForkCount != forks) return;  // The child of a fork in a callback: it has no worker.
  }
  ended_ = true;
}

void oxEventRouter::Run::Deliver(const oxEventNormalizedEvent& event) {
  const ActiveEvent active(queue);
  oxEventNormalizedEvent out;
  bool emit = true;
  uint32_t status = OXEVENT_FAILURE;
  try {
    status = state.Evaluate(event, &out, &emit);
  } catch (...) {
    // No memory: counted as a failed evaluation.
    emit = true;
  }
  if (!emit) {
    AddDropped(1);
    return;
  }
  if (status != OXEVENT_OK) {
    ++sink_failures;
    return;
  }
  uint64_t failed_sinks = 0;
  uint64_t warnings = 0;
  try {
    oxEventSinkSubmit(out, &failed_sinks, &warnings);
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

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"
#include "core/oxEventDropLedger.h"
#include "core/oxEventQueue.h"
#include "core/oxEventState.h"
#include "core/oxEventSubmitSlots.h"

// While no call is under way, submitted = emitted + dropped + turned away by a stopping queue (OXEVENT_NOT_INITIALIZED)
//   + failed_evaluations + pending + active.
struct oxEventCounters {
  uint64_t submitted = 0;      // Submit calls while running, before any filter.
  uint64_t emitted = 0;        // Passed to the sinks, whether or not they succeeded.
  uint64_t dropped = 0;        // The sum of drops_by_reason.
  uint64_t sink_failures = 0;  // One for each event and failed sink, and one for each of the failed_evaluations.
  uint64_t sink_warnings = 0;
  oxEventDropCounts drops_by_reason = {};
  uint64_t failed_evaluations = 0;  // There was no memory. Not published to other processes.
};

// Connects the queue, the state and the sinks; owns the worker thread and the counters. The time from Start to Stop is
// a run. Each run has its own worker, queue and state, so that a worker whose callback has shut the library down can
// finish its event while the next run has already started.
// Threads: only one at a time may call Start, Stop or ReloadConfig; any thread may call the rest, even during such a
// call. Functions that need a run return OXEVENT_NOT_INITIALIZED when there is none.
class oxEventRouter {
 public:
  constexpr oxEventRouter() = default;
  oxEventRouter(const oxEventRouter&) = delete;
  oxEventRouter& operator=(const oxEventRouter&) = delete;

  // Starts a run with zeroed counters and no raised condition. Returns OXEVENT_INVALID_ARGUMENT if `config` is null or
  // its queue_size 0, OXEVENT_ALREADY_INITIALIZED when running, OXEVENT_NOT_INITIALIZED after Close. Throws, and
  // changes nothing, if the worker cannot be started or there is no memory.
  uint32_t Start(const oxEventConfig* config) OX_EXCLUDES(mutex_);

  // Filters the event and queues a copy. Returns 0 for a dropped event too, but OXEVENT_FAILURE if there is no memory.
  // Never waits for the worker, and does not throw.
  uint32_t Submit(const oxEventNormalizedEvent& event);

  // Waits until no event is pending or active, at most timeout_ms milliseconds (0: no limit), then flushes each sink
  // with the same timeout. On the worker, does not wait, and returns OXEVENT_FAILURE if events are pending.
  uint32_t Flush(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  // Delivers the queued events, for at most timeout_ms milliseconds (0: drops them), waits for the event in delivery
  // and ends the worker. Returns OXEVENT_FAILURE if events were dropped, the delivery timed out or a sink could not be
  // flushed. On the worker, drops the queued events; the worker ends once it has delivered its current event.
  uint32_t Stop(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  // Applies the settings to the run. Keeps the raised conditions, and as many queued events as fit into the new
  // capacity.
  uint32_t ReloadConfig(const oxEventConfig* config) OX_EXCLUDES(mutex_);

  // Frees the runs that were stopped on their own worker, once that worker has ended. Joins it with mutex_ released,
  // because a thread that ends may still run code of the host, such as the destructor of a thread_local object.
  void Reap() OX_EXCLUDES(mutex_);

  // The counters of the current run or, if there is none, of the last one. Not an atomic snapshot.
  oxEventCounters GetCounters() OX_EXCLUDES(mutex_);

  // Stops for good, at unload and process exit. Drops the queued events and waits for every worker, including one that
  // another thread is stopping, but not for the calling thread if it is a worker.
  void Close() OX_EXCLUDES(mutex_);

 private:
  class Run;
  using SharedRun = std::shared_ptr<Run>;

  SharedRun RunningRun() OX_EXCLUDES(mutex_);
  SharedRun LastRun() OX_EXCLUDES(mutex_);
  void PublishStatLocked(Run* run) const OX_REQUIRES(mutex_);
  static void End(Run& run);
  void Join(SharedRun* run) OX_EXCLUDES(mutex_);

  oxEventSubmitSlots slots_;
  std::atomic<Run*> running_ = nullptr;  // Written with mutex_ held. Submit reads it with only a slot held.

  // Not held while the queue, the state or the sinks are called, except for the queue and state of a new run in Start.
  oxEventMutex mutex_;
  SharedRun run_ OX_GUARDED_BY(mutex_);  // Kept after Stop, for its counters.
  bool closed_ OX_GUARDED_BY(mutex_) = false;
  // Runs that were stopped on their own worker, until that worker can be joined. Created by the first Start: in GCC 11,
  // a vector prevents static initialization.
  std::optional<std::vector<SharedRun>> retired_ OX_GUARDED_BY(mutex_);
  SharedRun exiting_ OX_GUARDED_BY(mutex_);  // The run whose worker called exit.
};

// The router of the process, and functions that call its methods.
oxEventRouter& oxEventCoreRouter();
uint32_t oxEventCoreStart(const oxEventConfig* config);
uint32_t oxEventCoreStop(uint32_t timeout_ms);
uint32_t oxEventCoreSubmit(const oxEventNormalizedEvent& event);
uint32_t oxEventCoreFlush(uint32_t timeout_ms);
uint32_t oxEventCoreReloadConfig(const oxEventConfig* config);
oxEventCounters oxEventCoreGetCounters();

// For the child of a fork: restores the state that the router had when the library was loaded. Abandons the parent's
// run without touching it.
void oxEventCoreResetAfterFork();

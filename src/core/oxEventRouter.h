#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"
#include "core/oxEventDropLedger.h"
#include "core/oxEventQueue.h"
#include "core/oxEventState.h"
#include "core/oxEventSubmitSlots.h"

// At any quiet moment submitted = emitted + dropped + refused by the queue (OXEVENT_NOT_INITIALIZED)
//   + failed evaluations + pending + active.
struct oxEventCounters {
  uint64_t submitted = 0;      // Submit while running, before any filter.
  uint64_t emitted = 0;        // Handed to the sinks, whatever they did.
  uint64_t dropped = 0;        // The sum of drops_by_reason.
  uint64_t sink_failures = 0;  // Failed sinks, added up over the events; also failed evaluations.
  uint64_t sink_warnings = 0;
  oxEventDropCounts drops_by_reason = {};
};

// Joins the queue, the state and the sinks: owns the worker thread and the counters. One Start to Stop is a run; each
// has a worker, a queue and a state of its own, so that a worker that has shut the library down from a callback can
// finish its event while the next run is already under way.
// Threads: Start, Stop and ReloadConfig one at a time, the others any. Codes: OXEVENT_NOT_INITIALIZED when not running.
class oxEventRouter {
 public:
  constexpr oxEventRouter() = default;
  oxEventRouter(const oxEventRouter&) = delete;
  oxEventRouter& operator=(const oxEventRouter&) = delete;

  // Begins with zeroed counters and no raised condition. OXEVENT_INVALID_ARGUMENT: no configuration, or queue_size 0.
  // OXEVENT_ALREADY_INITIALIZED: running. Throws when there is no thread or no memory; then nothing has changed.
  uint32_t Start(const oxEventConfig* config) OX_EXCLUDES(mutex_);

  // Filters and queues a copy. 0 for a dropped event too; OXEVENT_FAILURE when there is no memory. Never waits for the
  // worker, and does not throw.
  uint32_t Submit(const oxEventNormalizedEvent& event);

  // Waits until everything is delivered (0: without limit), then flushes the sinks, which get the whole time again.
  // On the worker: OXEVENT_FAILURE at once when events are pending.
  uint32_t Flush(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  // Delivers what is queued, for at most timeout_ms milliseconds (0: discards it at once), and ends the worker, waiting
  // for the event in delivery. OXEVENT_FAILURE: events were discarded. On the worker: discards what is queued; the
  // worker ends when it returns from the callback.
  uint32_t Stop(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  // Keeps queued events, as far as they fit, and raised conditions.
  uint32_t ReloadConfig(const oxEventConfig* config) OX_EXCLUDES(mutex_);

  // Frees the runs whose worker has returned from the callback that stopped it. With no lock held: what that thread has
  // left to do is its host's.
  void Reap() OX_EXCLUDES(mutex_);

  // The counters of this run or, without one, of the last. Not an atomic snapshot.
  oxEventCounters GetCounters() OX_EXCLUDES(mutex_);

  // For good: at unload and process exit. Stops without delivering what is queued, and waits for every worker, a stop
  // that is under way in another thread included; not for the calling thread when it is one.
  void Close() OX_EXCLUDES(mutex_);

 private:
  class Run;
  using SharedRun = std::shared_ptr<Run>;

  SharedRun RunningRun() OX_EXCLUDES(mutex_);
  SharedRun LastRun() OX_EXCLUDES(mutex_);
  static void End(Run& run);
  void Join(SharedRun* run) OX_EXCLUDES(mutex_);

  oxEventSubmitSlots slots_;
  std::atomic<Run*> running_ = nullptr;  // Written with mutex_ held. Submit reads it with a slot held, and no lock.

  // Never held while the queue, the state or the sinks are called, but for those of a new run in Start.
  oxEventMutex mutex_;
  SharedRun run_ OX_GUARDED_BY(mutex_);  // Kept after Stop, for its counters.
  bool closed_ OX_GUARDED_BY(mutex_) = false;
  // Runs that their own worker stopped; owned until that thread can be joined.
  std::vector<SharedRun> retired_ OX_GUARDED_BY(mutex_);
  SharedRun exiting_ OX_GUARDED_BY(mutex_);  // The run whose worker called exit.
};

// The process's one router, and its functions under their own names.
oxEventRouter& oxEventCoreRouter();
uint32_t oxEventCoreStart(const oxEventConfig* config);
uint32_t oxEventCoreStop(uint32_t timeout_ms);
uint32_t oxEventCoreSubmit(const oxEventNormalizedEvent& event);
uint32_t oxEventCoreFlush(uint32_t timeout_ms);
uint32_t oxEventCoreReloadConfig(const oxEventConfig* config);
oxEventCounters oxEventCoreGetCounters();

// In the child of a fork: a new router, as after load. Abandons the parent's run without touching it.
void oxEventCoreResetAfterFork();

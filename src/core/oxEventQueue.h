#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventStat.h"
#include "config/oxEventConfig.h"
#include "core/oxEventBacklog.h"
#include "core/oxEventDropLedger.h"
#include "core/oxEventNodePool.h"

// What Enqueue did with an event.
enum class oxEventEnqueueResult {
  kQueued,
  kDisplacedOlder,  // Queued; the queue was full, and the oldest event below warning was dropped for it.
  kRefused,         // Not queued: the queue is full.
  kNoMemory,        // Not queued: there is no memory for the copy.
  kNotAccepting,    // Turned away, not recorded as a drop: the queue has not been started, or is being stopped.
};

// The bounded first-in-first-out queue between the submitting threads and the worker. Owns copies of the events. Also
// tracks the active event, which the worker has taken but not completed, so that a flush waits until that event is
// delivered too. Records every event that it drops in the ledger. One lock guards the backlog and the free nodes; the
// slab in which nodes and texts are allocated has its own.
// Threads: only the worker calls WaitPop and CompleteActiveEvent; any thread calls the rest.
class oxEventQueue {
 public:
  // `drops` must outlive the queue. `timed_wait`: duration of WaitMode::kTimed.
  explicit oxEventQueue(oxEventDropLedger* drops,
                        std::chrono::steady_clock::duration timed_wait = std::chrono::milliseconds(1))
      : drops_(drops), timed_wait_(timed_wait) {}
  oxEventQueue(const oxEventQueue&) = delete;
  oxEventQueue& operator=(const oxEventQueue&) = delete;

  // Starts to accept events, with an empty backlog. Capacity 0 counts as 1.
  void Start(uint32_t capacity, oxEventDropPolicy policy) OX_EXCLUDES(mutex_);

  // Reconfigures a running queue. Returns the number of pending events that were dropped because they did not fit.
  uint32_t Configure(uint32_t capacity, oxEventDropPolicy policy) OX_EXCLUDES(mutex_);

  // Queues a copy; never waits for space. *node_cache is null or a free node, before and after the call: the caller's
  // submit slot keeps it between events, so that the event can be copied before the lock is taken. Never throws: a
  // thread's first exception may itself allocate memory (oxEventArchitecture.h).
  oxEventEnqueueResult Enqueue(const oxEventNormalizedEvent& event, oxEventNodePtr* node_cache) OX_EXCLUDES(mutex_);

  // Completes the active event, if there is one, then waits for an event and takes the oldest, which the worker may
  // modify. Returns null if a stop was requested and no event is left.
  oxEventNormalizedEvent* WaitPop() OX_EXCLUDES(mutex_);

  // Completes the active event, which becomes invalid. For a worker that ends without calling WaitPop again.
  void CompleteActiveEvent() OX_EXCLUDES(mutex_);

  // Waits for a moment at which no event is pending or active, at most timeout_ms milliseconds (0: no limit).
  // Returns 0 or OXEVENT_FAILURE.
  uint32_t Flush(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  bool HasPending() OX_EXCLUDES(mutex_);
  // The number of Enqueue calls, except those that returned kNoMemory. Start and Reset do not set it to 0.
  uint64_t EnqueueCount() OX_EXCLUDES(mutex_);
  void AddStatAddresses(oxEventStatRun* stat) OX_EXCLUDES(mutex_);

  // Pending events are still delivered. A stop calls it first, so that it waits for a bounded number of events.
  void StopAccepting() OX_EXCLUDES(mutex_);
  void RequestStop() OX_EXCLUDES(mutex_);      // Ends the worker once nothing is pending.
  uint64_t DropPending() OX_EXCLUDES(mutex_);  // Returns the number of events dropped.
  // Restores the state before Start. The worker must have ended, or be the calling thread.
  void Reset() OX_EXCLUDES(mutex_);

 private:
  // How the worker waits. Waking a blocked thread costs a submitter far more than queueing an event. After an
  // event, the worker therefore first waits for a fixed time, during which a new event does not wake it unless the
  // backlog is at least half full. If no event has arrived by then, the worker blocks until one does.
  // kWakeupClaimed: still waiting, but another thread is about to notify the worker.
  enum class WaitMode { kNotWaiting, kTimed, kBlocked, kWakeupClaimed };

  oxEventEnqueueResult CopyAndAppend(const oxEventNormalizedEvent& event, oxEventNodePtr* node_cache)
      OX_EXCLUDES(mutex_);
  std::optional<oxEventEnqueueResult> CopyToNewMemory(const oxEventNormalizedEvent& event, oxEventNodePtr* node)
      OX_EXCLUDES(mutex_);
  bool CanAppendLocked() const OX_REQUIRES(mutex_) { return IsAcceptingLocked() && backlog_.CanPush(); }
  oxEventEnqueueResult RejectLocked() OX_REQUIRES(mutex_);
  bool AppendLocked(oxEventNodePtr* node) OX_REQUIRES(mutex_);
  void RecordDrops(oxEventNodeList* dropped, oxEventDrop reason);

  oxEventNormalizedEvent* TakeOldestLocked() OX_REQUIRES(mutex_);
  oxEventNormalizedEvent* WaitForEvent() OX_EXCLUDES(mutex_);
  void WaitForWorkLocked(oxEventNodeStack* surplus) OX_REQUIRES(mutex_);
  void WaitForWorkOrSurplusLocked(oxEventNodeStack* surplus) OX_REQUIRES(mutex_);
  bool ClaimWakeupLocked() OX_REQUIRES(mutex_);
  void ReleaseSurplus(oxEventNodeStack* surplus) OX_EXCLUDES(mutex_);
  void CompleteActiveEventLocked() OX_REQUIRES(mutex_);

  bool IsAcceptingLocked() const OX_REQUIRES(mutex_) { return accepting_ && !stop_requested_; }
  bool IsDrainedLocked() const OX_REQUIRES(mutex_) { return backlog_.IsEmpty() && active_count_ == 0; }
  void SignalIfDrainedLocked() OX_REQUIRES(mutex_);
  // One node more than the capacity, for the active event.
  size_t MaxFreeNodesLocked() const OX_REQUIRES(mutex_) { return size_t{backlog_.Capacity()} + 1; }

  oxEventDropLedger* const drops_;
  const std::chrono::steady_clock::duration timed_wait_;
  oxEventNodePool pool_;  // Owns the memory of all nodes: declared first, destroyed last. For locks see its class.
  oxEventMutex mutex_;
  oxEventBacklog backlog_ OX_GUARDED_BY(mutex_);
  uint64_t enqueue_count_ OX_GUARDED_BY(mutex_) = 0;
  uint32_t active_count_ OX_GUARDED_BY(mutex_) = 0;
  uint64_t drained_count_ OX_GUARDED_BY(mutex_) = 0;  // Number of changes after which nothing was pending or active.
  bool accepting_ OX_GUARDED_BY(mutex_) = false;
  bool stop_requested_ OX_GUARDED_BY(mutex_) = false;
  WaitMode wait_mode_ OX_GUARDED_BY(mutex_) = WaitMode::kNotWaiting;
  bool had_event_ OX_GUARDED_BY(mutex_) = false;  // Whether the worker has taken an event since its last wait.
  oxEventCondition not_empty_;
  oxEventCondition drained_;
  oxEventNodePtr active_;  // Only the worker uses it. A Reset by the worker keeps it, but does not count it any more.
};

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"
#include "core/oxEventBacklog.h"
#include "core/oxEventDropLedger.h"
#include "core/oxEventNodePool.h"

// What Enqueue has done with an event.
enum class oxEventEnqueueResult {
  kQueued,
  kDisplacedOlder,  // Queued; the queue was full, and the oldest event below warning was dropped for it.
  kDropped,         // Not queued: the queue is full.
  kNoMemory,        // Dropped: there is no memory for the copy.
  kNotAccepting,    // Not queued, and no drop: the queue is not running.
};

// The bounded first-in-first-out hand-over from the submitting threads to the worker: a monitor around the backlog and
// the memory of its events. Owns copies of the events. Also knows the active event, which the worker has taken and not
// completed, so that a flush waits for what has really been delivered. Records every drop in the ledger.
// Threads: WaitPop and CompleteActiveEvent the worker, everything else any.
class oxEventQueue {
 public:
  // `drops` outlives the queue. `timed_wait`: see WaitMode.
  explicit oxEventQueue(oxEventDropLedger* drops,
                        std::chrono::steady_clock::duration timed_wait = std::chrono::milliseconds(1))
      : drops_(drops), timed_wait_(timed_wait) {}
  oxEventQueue(const oxEventQueue&) = delete;
  oxEventQueue& operator=(const oxEventQueue&) = delete;

  // Starts to accept events, with an empty backlog. Capacity 0 counts as 1.
  void Start(uint32_t capacity, oxEventDropPolicy policy) OX_EXCLUDES(mutex_);

  // Changes a running queue. Returns the number of pending events that were dropped to fit.
  uint32_t Configure(uint32_t capacity, oxEventDropPolicy policy) OX_EXCLUDES(mutex_);

  // Queues a copy; never waits for space. *node_cache, which may be null, is memory that the calling thread keeps
  // between its events: the copy goes into it, before the lock is taken, and the queue puts another free node there.
  // Never throws: a thread's first exception may need memory too.
  oxEventEnqueueResult Enqueue(const oxEventNormalizedEvent& event, oxEventNodePtr* node_cache) OX_EXCLUDES(mutex_);

  // Completes the active event, if there is one, waits for the next and takes the oldest; the worker may change it.
  // Null: a stop was requested, and nothing is left.
  oxEventNormalizedEvent* WaitPop() OX_EXCLUDES(mutex_);

  // The event from WaitPop is delivered, and no longer valid. For a worker that ends without another WaitPop.
  void CompleteActiveEvent() OX_EXCLUDES(mutex_);

  // Waits for a moment at which nothing is pending or active, at most timeout_ms milliseconds (0: without limit).
  // Returns 0 or OXEVENT_FAILURE.
  uint32_t Flush(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  bool HasPending() OX_EXCLUDES(mutex_);
  // The number of Enqueue calls except those without memory. Start and Reset do not set it back.
  uint64_t EnqueueCount() OX_EXCLUDES(mutex_);

  void StopAccepting() OX_EXCLUDES(mutex_);    // Pending events are still delivered.
  void RequestStop() OX_EXCLUDES(mutex_);      // Ends the worker once nothing is pending.
  uint64_t DropPending() OX_EXCLUDES(mutex_);  // Returns the number of events dropped.
  void Reset() OX_EXCLUDES(mutex_);            // Back to the state before Start. Call when the worker has ended.

 private:
  // How the worker waits. Waking a blocked thread costs a submitter twenty times what queueing an event does. So after
  // an event the worker first waits for a fixed time: events that come meanwhile wake nobody, unless the backlog
  // becomes half full. If none came, it blocks until one does.
  enum class WaitMode { kAwake, kTimed, kBlocked };

  oxEventEnqueueResult CopyAndAppend(const oxEventNormalizedEvent& event, oxEventNodePtr* node) OX_EXCLUDES(mutex_);
  bool CanAppendLocked() const OX_REQUIRES(mutex_) { return IsAcceptingLocked() && backlog_.HasRoom(); }
  oxEventEnqueueResult RefuseLocked() OX_REQUIRES(mutex_);
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
  size_t MaxFreeNodesLocked() const OX_REQUIRES(mutex_) { return size_t{backlog_.Capacity()} + 1; }  // 1: the active.

  oxEventDropLedger* const drops_;
  const std::chrono::steady_clock::duration timed_wait_;
  oxEventNodePool pool_;  // Owns the memory of all nodes: declared first, destroyed last. See there for its locks.
  oxEventMutex mutex_;
  oxEventBacklog backlog_ OX_GUARDED_BY(mutex_);
  uint64_t enqueue_count_ OX_GUARDED_BY(mutex_) = 0;
  uint32_t active_count_ OX_GUARDED_BY(mutex_) = 0;
  uint64_t drained_count_ OX_GUARDED_BY(mutex_) = 0;  // How often a change left nothing pending or active.
  bool accepting_ OX_GUARDED_BY(mutex_) = false;
  bool stop_requested_ OX_GUARDED_BY(mutex_) = false;
  WaitMode wait_mode_ OX_GUARDED_BY(mutex_) = WaitMode::kAwake;  // Whoever sets it to kAwake wakes the worker.
  bool had_event_ OX_GUARDED_BY(mutex_) = false;                 // Since the worker last waited.
  oxEventCondition not_empty_;
  oxEventCondition drained_;
  oxEventNodePtr active_;  // The worker's. A queue that is reset by an exiting worker keeps it, but counts it no more.
};

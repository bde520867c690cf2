#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventSlab.h"
#include "config/oxEventConfig.h"
#include "core/oxEventDrop.h"

// The bounded first-in-first-out hand-over from the submitting threads to the worker. Owns copies of the events. Also
// knows the event that the worker has taken and not completed, so that a flush waits for what has really been
// delivered. Threads: WaitPop and CompleteActiveEvent the worker, everything else any. Takes memory as events need it,
// up to its capacity, keeps it for the next events, and gives most of it back once it has been idle for a second.
class oxEventQueue {
 public:
  // Memory for one event. Each submitting thread caches one, so that it can copy its next event before it takes the
  // lock.
  struct Item;
  struct ItemDeleter {
    void operator()(Item* item) const;
  };
  using Spare = std::unique_ptr<Item, ItemDeleter>;  // To be freed before the queue is destroyed.

  oxEventQueue() = default;
  oxEventQueue(const oxEventQueue&) = delete;
  oxEventQueue& operator=(const oxEventQueue&) = delete;

  // Begins to accept, empty. Capacity 0 counts as 1.
  void Start(uint32_t capacity, oxEventDropPolicy policy) OX_EXCLUDES(mutex_);

  // Changes a running queue. Returns the number of pending events discarded to fit.
  uint32_t Configure(uint32_t capacity, oxEventDropPolicy policy) OX_EXCLUDES(mutex_);

  // Queues a copy. Never waits for space. *accepted: the event is queued; *dropped: an event was lost, this one or an
  // older one that made room; either may be null. *spare: used, and filled again from what the queue keeps; may be
  // null. Returns 0, for a full queue too; OXEVENT_NOT_INITIALIZED when the queue does not accept; OXEVENT_FAILURE when
  // there is no memory, and then nothing has changed. Never throws: a thread's first exception may need memory too.
  uint32_t Enqueue(const oxEventNormalizedEvent& event, bool* accepted, bool* dropped, Spare* spare = nullptr)
      OX_EXCLUDES(mutex_);

  // Waits for an event and takes the oldest; the one before, if any, is then delivered. Null: stop requested, and
  // nothing is left. How it waits: Rest, below. The worker may change the event.
  oxEventNormalizedEvent* WaitPop() OX_EXCLUDES(mutex_);

  // What WaitPop gave is delivered, and no longer valid. For a worker that ends without another WaitPop.
  void CompleteActiveEvent() OX_EXCLUDES(mutex_);

  // Waits for a moment at which nothing is pending or active, at most timeout_ms milliseconds (0: without limit): 0 or
  // OXEVENT_FAILURE.
  uint32_t Flush(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  bool HasPending() OX_EXCLUDES(mutex_);
  uint64_t EnqueueCount() OX_EXCLUDES(mutex_);  // Counts the calls that had memory. Start and Reset do not reset it.

  void StopAccepting() OX_EXCLUDES(mutex_);    // Pending events are still delivered.
  void RequestStop() OX_EXCLUDES(mutex_);      // Ends the worker once nothing is pending.
  uint64_t DropPending() OX_EXCLUDES(mutex_);  // Returns the number of events discarded.
  void Reset() OX_EXCLUDES(mutex_);            // As constructed; to be called when the worker has ended.

 private:
  // Owns its items. Those that are left when it is destroyed are lost, for the reason given; without one they hold no
  // event.
  class Items {
   public:
    explicit Items(oxEventDrop lost = oxEventDrop::kStopped) : lost_(lost) {}
    ~Items();
    Items(const Items&) = delete;
    Items& operator=(const Items&) = delete;

    bool IsEmpty() const { return front_ == nullptr; }
    size_t Size() const { return size_; }
    Item& Front() { return *front_; }
    Item& Back() { return *back_; }
    void PushBack(Spare item);
    Spare PopFront();
    Spare PopBack();
    void Take(Items* from);  // All of them.

   private:
    Item* front_ = nullptr;
    Item* back_ = nullptr;  // Only to be followed when there is a front.
    size_t size_ = 0;
    const oxEventDrop lost_;
  };

  // Memory for the next events, the last used first. Owns it.
  class FreeItems {
   public:
    FreeItems() = default;
    ~FreeItems();
    FreeItems(const FreeItems&) = delete;
    FreeItems& operator=(const FreeItems&) = delete;

    size_t Size() const { return size_; }
    void Push(Spare item);
    Spare Pop();  // Null: there is none.
    void Swap(FreeItems* other);

   private:
    Item* first_ = nullptr;
    size_t size_ = 0;
  };

  // Waking a sleeping thread costs a submitter twenty times what queueing an event does. So after an event the worker
  // first naps: events that come meanwhile wait for its end, and wake nobody, unless the queue fills. After a nap that
  // brought nothing it sleeps, and after a second without a burst it gives back the memory that the last one has left:
  // not sooner, since the next burst of a host that works in cycles needs it again.
  enum class Rest { kNone, kNap, kSleep };

  bool IsAcceptingLocked() const OX_REQUIRES(mutex_) { return accepting_ && !stop_requested_; }
  bool IsDrainedLocked() const OX_REQUIRES(mutex_) { return PendingLocked() == 0 && active_count_ == 0; }
  size_t PendingLocked() const OX_REQUIRES(mutex_) { return debug_info_.Size() + warning_error_.Size(); }
  bool HasRoomLocked() const OX_REQUIRES(mutex_);
  uint32_t RefuseLocked(bool* dropped) OX_REQUIRES(mutex_);
  bool AppendLocked(Spare* item, bool full) OX_REQUIRES(mutex_);
  bool FillsLocked() const OX_REQUIRES(mutex_) { return PendingLocked() > 0 && PendingLocked() >= capacity_ / 2; }
  Spare NewItem();
  oxEventNormalizedEvent* TakeOldestLocked() OX_REQUIRES(mutex_);
  oxEventNormalizedEvent* WaitForEvent() OX_EXCLUDES(mutex_);
  void RestLocked(FreeItems* surplus) OX_REQUIRES(mutex_);
  void ReleaseSurplus(FreeItems* surplus) OX_EXCLUDES(mutex_);
  void CompleteActiveEventLocked() OX_REQUIRES(mutex_);
  bool EndRestLocked() OX_REQUIRES(mutex_);
  Items& NewestLocked() OX_REQUIRES(mutex_);
  Items& OldestLocked() OX_REQUIRES(mutex_);
  uint32_t TrimLocked(Items* garbage) OX_REQUIRES(mutex_);
  uint64_t DropAllLocked(Items* garbage) OX_REQUIRES(mutex_);
  size_t MostFreeLocked() const OX_REQUIRES(mutex_) { return size_t{capacity_} + 1; }  // With the active one's.
  void RecycleLocked(Spare item) OX_REQUIRES(mutex_);
  void SignalIfDrainedLocked() OX_REQUIRES(mutex_);

  oxEventSharedSlab memory_;  // Owns the memory of the items and their texts; has a lock of its own.
  oxEventMutex mutex_;
  // Pending events, oldest at the front. Two lists, so that the oldest event below warning is found without a search;
  // `order` tells which list's front is next.
  Items debug_info_ OX_GUARDED_BY(mutex_);
  Items warning_error_ OX_GUARDED_BY(mutex_);
  FreeItems free_ OX_GUARDED_BY(mutex_);
  uint64_t next_order_ OX_GUARDED_BY(mutex_) = 0;
  uint64_t enqueue_count_ OX_GUARDED_BY(mutex_) = 0;
  uint32_t capacity_ OX_GUARDED_BY(mutex_) = 1;
  oxEventDropPolicy policy_ OX_GUARDED_BY(mutex_) = oxEventDropPolicy::kDropNewest;
  uint32_t active_count_ OX_GUARDED_BY(mutex_) = 0;
  uint64_t drained_count_ OX_GUARDED_BY(mutex_) = 0;  // How often a change left nothing pending or active.
  bool accepting_ OX_GUARDED_BY(mutex_) = false;
  bool stop_requested_ OX_GUARDED_BY(mutex_) = false;
  Rest rest_ OX_GUARDED_BY(mutex_) = Rest::kNone;                            // The worker's.
  bool nap_first_ OX_GUARDED_BY(mutex_) = false;                             // The last rest brought an event.
  uint64_t enqueued_before_sleep_ OX_GUARDED_BY(mutex_) = 0;                 // The count when the worker last slept.
  std::chrono::steady_clock::time_point quiet_since_ OX_GUARDED_BY(mutex_);  // The end of the last burst.
  oxEventCondition not_empty_;
  oxEventCondition drained_;
  Items active_;  // Changed by the worker alone, with the lock held.
};

#include "core/oxEventQueue.h"

#include <algorithm>
#include <utility>

void oxEventQueue::Start(uint32_t capacity, oxEventDropPolicy policy) {
  oxEventLock lock(mutex_);
  backlog_.Configure(capacity, policy);
  active_count_ = 0;
  accepting_ = true;
  stop_requested_ = false;
}

uint32_t oxEventQueue::Configure(uint32_t capacity, oxEventDropPolicy policy) {
  constexpr uint32_t kTrimBatchSize = 64;  // Submitters get the lock between batches.
  size_t dropped = 0;
  bool fits = false;
  while (!fits) {
    oxEventNodeList trimmed;
    oxEventNodeStack freed;
    {
      oxEventLock lock(mutex_);
      backlog_.Configure(capacity, policy);
      if (pool_.Size() > MaxFreeNodesLocked()) pool_.Swap(&freed);
      backlog_.Trim(kTrimBatchSize, &trimmed);
      fits = backlog_.Size() <= backlog_.Capacity();
      if (fits) SignalIfDrainedLocked();
    }
    dropped += trimmed.Size();
    RecordDrops(&trimmed, oxEventDrop::kTrimmed);
  }
  return static_cast<uint32_t>(dropped);
}

oxEventEnqueueResult oxEventQueue::Enqueue(const oxEventNormalizedEvent& event, oxEventNodePtr* node_cache) {
  const oxEventEnqueueResult result = CopyAndAppend(event, node_cache);
  if (result == oxEventEnqueueResult::kRefused) drops_->Record(event, oxEventDrop::kRefused);
  if (result == oxEventEnqueueResult::kNoMemory) drops_->Record(event, oxEventDrop::kNoMemory);
  return result;
}

inline oxEventEnqueueResult oxEventQueue::CopyAndAppend(const oxEventNormalizedEvent& event,
                                                        oxEventNodePtr* node_cache) {
  oxEventNodePtr& node = *node_cache;
  // With the lock released, so that copying a long text does not delay other threads.
  if (node == nullptr || !node->event.TryAssign(event)) {
    if (const auto failure = CopyToNewMemory(event, &node)) return *failure;
  }

  auto result = oxEventEnqueueResult::kQueued;
  bool wake = false;
  {
    oxEventLock lock(mutex_);
    if (!CanAppendLocked()) {
      result = RejectLocked();
    } else {
      if (AppendLocked(&node)) result = oxEventEnqueueResult::kDisplacedOlder;
      wake = (wait_mode_ == WaitMode::kBlocked || backlog_.IsHalfFull()) && ClaimWakeupLocked();
    }
  }
  if (wake) not_empty_.NotifyOne();  // With the lock released: the worker needs it to continue.
  // Unless it is null, `node` is now a free node (kQueued), the displaced event or the rejected copy of this event.
  if (node == nullptr) return result;
  node->Prefetch();
  if (result == oxEventEnqueueResult::kDisplacedOlder) drops_->Record(node->event.Get(), oxEventDrop::kDisplaced);
  if (result != oxEventEnqueueResult::kQueued) node->event.ReleaseLongTexts();
  return result;
}

// Copies the event after *node has turned out to be null, or to have too little memory for it. Returns why the event
// cannot be queued, or nothing if the copy has been made. Not inlined, because most calls to Submit do not need it.
[[gnu::noinline]] std::optional<oxEventEnqueueResult> oxEventQueue::CopyToNewMemory(const oxEventNormalizedEvent& event,
                                                                                    oxEventNodePtr* node) {
  {
    // Check first: do not allocate for an event that would not be queued.
    oxEventLock lock(mutex_);
    if (!CanAppendLocked()) return RejectLocked();
    if (*node == nullptr) *node = pool_.TryAcquire();
  }
  if (*node == nullptr) *node = pool_.Create();
  if (*node == nullptr || !(*node)->event.Assign(event)) return oxEventEnqueueResult::kNoMemory;
  return std::nullopt;
}

oxEventNormalizedEvent* oxEventQueue::WaitPop() {
  if (active_ != nullptr) active_->event.ReleaseLongTexts();
  {
    oxEventLock lock(mutex_);
    CompleteActiveEventLocked();
    if (!backlog_.IsEmpty()) return TakeOldestLocked();
  }
  return WaitForEvent();
}

void oxEventQueue::CompleteActiveEvent() {
  oxEventLock lock(mutex_);
  CompleteActiveEventLocked();
}

uint32_t oxEventQueue::Flush(uint32_t timeout_ms) {
  oxEventLock lock(mutex_);
  if (IsDrainedLocked()) return OXEVENT_OK;
  if (ClaimWakeupLocked()) not_empty_.NotifyOne();
  // Wait for the count to change, because more events may be pending by the time that this thread runs again.
  const uint64_t count_before = drained_count_;
  if (timeout_ms == 0) {
    while (drained_count_ == count_before) drained_.Wait(mutex_);
    return OXEVENT_OK;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (drained_count_ == count_before && std::chrono::steady_clock::now() < deadline)
    drained_.WaitUntil(mutex_, deadline);
  return drained_count_ != count_before ? OXEVENT_OK : OXEVENT_FAILURE;
}

bool oxEventQueue::HasPending() {
  oxEventLock lock(mutex_);
  return !backlog_.IsEmpty();
}

uint64_t oxEventQueue::EnqueueCount() {
  oxEventLock lock(mutex_);
  return enqueue_count_;
}

void oxEventQueue::AddStatAddresses(oxEventStatRun* stat) {
  oxEventLock lock(mutex_);
  backlog_.AddStatAddresses(stat);
  stat->enqueued = oxEventStatAddress<uint64_t>(&enqueue_count_);
  stat->active = oxEventStatAddress<uint32_t>(&active_count_);
}

void oxEventQueue::StopAccepting() {
  oxEventLock lock(mutex_);
  accepting_ = false;
}

void oxEventQueue::RequestStop() {
  oxEventLock lock(mutex_);
  stop_requested_ = true;
  not_empty_.NotifyAll();
  drained_.NotifyAll();
}

uint64_t oxEventQueue::DropPending() {
  oxEventNodeList pending;
  {
    oxEventLock lock(mutex_);
    backlog_.Clear(&pending);
    SignalIfDrainedLocked();
  }
  const size_t dropped = pending.Size();
  RecordDrops(&pending, oxEventDrop::kStopped);
  return dropped;
}

void oxEventQueue::Reset() {
  DropPending();
  oxEventNodeStack freed;
  oxEventLock lock(mutex_);
  pool_.Swap(&freed);
  active_count_ = 0;
  accepting_ = false;
  stop_requested_ = false;
  SignalIfDrainedLocked();
}

// Counts an event that cannot be queued, and returns the reason.
oxEventEnqueueResult oxEventQueue::RejectLocked() {
  ++enqueue_count_;
  return IsAcceptingLocked() ? oxEventEnqueueResult::kRefused : oxEventEnqueueResult::kNotAccepting;
}

// Queues *node. If an older event is dropped for it, returns true, and *node becomes that event; otherwise *node
// becomes a free node or null.
inline bool oxEventQueue::AppendLocked(oxEventNodePtr* node) {
  ++enqueue_count_;
  oxEventNodePtr displaced = backlog_.Push(std::move(*node));
  if (displaced == nullptr) {
    *node = pool_.TryAcquire();
    return false;
  }
  *node = std::move(displaced);
  return true;
}

void oxEventQueue::RecordDrops(oxEventNodeList* dropped, oxEventDrop reason) {
  while (!dropped->IsEmpty()) drops_->Record(dropped->PopFront()->event.Get(), reason);
}

oxEventNormalizedEvent* oxEventQueue::TakeOldestLocked() {
  had_event_ = true;
  active_ = backlog_.PopOldest();
  ++active_count_;
  return &active_->event.Get();
}

oxEventNormalizedEvent* oxEventQueue::WaitForEvent() {
  while (true) {
    oxEventNodeStack surplus;
    {
      oxEventLock lock(mutex_);
      while (backlog_.IsEmpty() && surplus.IsEmpty()) {
        if (stop_requested_) return nullptr;
        WaitForWorkLocked(&surplus);
      }
      if (!backlog_.IsEmpty()) return TakeOldestLocked();
    }
    ReleaseSurplus(&surplus);
  }
}

// Waits for an event or a stop; may return early, sometimes with free nodes in *surplus. The caller has checked that
// the backlog is empty.
void oxEventQueue::WaitForWorkLocked(oxEventNodeStack* surplus) {
  wait_mode_ = std::exchange(had_event_, false) ? WaitMode::kTimed : WaitMode::kBlocked;
  if (wait_mode_ == WaitMode::kTimed) {
    not_empty_.WaitUntil(mutex_, std::chrono::steady_clock::now() + timed_wait_);
  } else if (pool_.HasSurplus()) {
    WaitForWorkOrSurplusLocked(surplus);
  } else {
    not_empty_.Wait(mutex_);
  }
  wait_mode_ = WaitMode::kNotWaiting;
}

// Blocks until another thread claims the wakeup or requests a stop. If neither happens before the pool's deadline,
// moves the free nodes to *surplus, to be freed with the lock released.
void oxEventQueue::WaitForWorkOrSurplusLocked(oxEventNodeStack* surplus) {
  const auto deadline = pool_.SurplusDeadline(enqueue_count_);
  while (wait_mode_ == WaitMode::kBlocked && !stop_requested_ && std::chrono::steady_clock::now() < deadline) {
    not_empty_.WaitUntil(mutex_, deadline);
  }
  if (wait_mode_ == WaitMode::kBlocked && !stop_requested_) pool_.Swap(surplus);
}

// Returns true if the worker is waiting and no other thread has claimed its wakeup yet: the caller must then notify it.
bool oxEventQueue::ClaimWakeupLocked() {
  if (wait_mode_ != WaitMode::kTimed && wait_mode_ != WaitMode::kBlocked) return false;
  wait_mode_ = WaitMode::kWakeupClaimed;
  return true;
}

// Frees surplus nodes until there is something else to do, and returns the rest to the pool. In the meantime,
// submitters allocate new nodes.
void oxEventQueue::ReleaseSurplus(oxEventNodeStack* surplus) {
  pool_.Shrink(surplus, [this] {
    oxEventLock lock(mutex_);
    return backlog_.IsEmpty() && !stop_requested_;
  });
  oxEventLock lock(mutex_);
  pool_.Swap(surplus);
}

void oxEventQueue::CompleteActiveEventLocked() {
  if (active_ != nullptr) pool_.Recycle(std::move(active_), MaxFreeNodesLocked());
  if (active_count_ > 0) --active_count_;
  SignalIfDrainedLocked();
}

void oxEventQueue::SignalIfDrainedLocked() {
  if (!IsDrainedLocked()) return;
  ++drained_count_;
  drained_.NotifyAll();
}

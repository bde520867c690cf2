#include "core/oxEventQueue.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

constexpr uint32_t kTrimAtOnce = 64;  // Events.
constexpr auto kNap = std::chrono::milliseconds(1);
constexpr auto kKeepSurplus = std::chrono::seconds(1);
constexpr size_t kKeptItems = 32;
constexpr size_t kFreedAtOnce = 64;

void Set(bool* flag, bool value) {
  if (flag != nullptr) *flag = value;
}

bool IsDebugOrInfo(uint32_t severity) { return severity < OXEVENT_SEVERITY_WARNING; }

}  // namespace

struct oxEventQueue::Item {
  uint64_t order = 0;  // Order of arrival.
  Item* next = nullptr;
  Item* previous = nullptr;
  oxEventStoredEvent event;

  explicit Item(oxEventSharedSlab* memory) : event(memory) {}

  void Prefetch() const {
    constexpr size_t kCacheLineBytes = 64;
    for (size_t i = 0; i < sizeof(Item); i += kCacheLineBytes)
      __builtin_prefetch(reinterpret_cast<const char*>(this) + i, 1);
  }
};

void oxEventQueue::ItemDeleter::operator()(Item* item) const {
  oxEventSharedSlab* const memory = item->event.Memory();
  item->~Item();
  memory->Free(item, sizeof(Item));
}

oxEventQueue::Items::~Items() {
  while (!IsEmpty()) {
    const Spare item = PopFront();
    oxEventTraceDrop(item->event.Get(), lost_);
  }
}

void oxEventQueue::Items::PushBack(Spare item) {
  Item* const added = item.release();
  added->previous = back_;
  (IsEmpty() ? front_ : back_->next) = added;
  back_ = added;
  ++size_;
}

// The next one is not touched: its memory may be far away, and the lock is held.
oxEventQueue::Spare oxEventQueue::Items::PopFront() {
  Spare item(front_);
  front_ = --size_ == 0 ? nullptr : item->next;
  return item;
}

oxEventQueue::Spare oxEventQueue::Items::PopBack() {
  Spare item(back_);
  back_ = item->previous;
  if (--size_ == 0) front_ = nullptr;
  return item;
}

void oxEventQueue::Items::Take(Items* from) {
  if (from->IsEmpty()) return;
  from->front_->previous = back_;
  (IsEmpty() ? front_ : back_->next) = from->front_;
  back_ = from->back_;
  size_ += std::exchange(from->size_, 0);
  from->front_ = nullptr;
}

oxEventQueue::FreeItems::~FreeItems() {
  while (size_ != 0) Pop();
}

void oxEventQueue::FreeItems::Push(Spare item) {
  item->next = first_;
  first_ = item.release();
  ++size_;
}

oxEventQueue::Spare oxEventQueue::FreeItems::Pop() {
  Spare item(first_);
  if (item == nullptr) return item;
  first_ = item->next;
  --size_;
  return item;
}

void oxEventQueue::FreeItems::Swap(FreeItems* other) {
  std::swap(first_, other->first_);
  std::swap(size_, other->size_);
}

void oxEventQueue::Start(uint32_t capacity, oxEventDropPolicy policy) {
  Items garbage;  // Freed with the lock released, as below.
  oxEventLock lock(mutex_);
  DropAllLocked(&garbage);
  active_count_ = 0;
  accepting_ = true;
  stop_requested_ = false;
  policy_ = policy;
  capacity_ = std::max(capacity, 1u);
}

uint32_t oxEventQueue::Configure(uint32_t capacity, oxEventDropPolicy policy) {
  uint32_t discarded = 0;
  bool fits = false;
  bool wake = false;
  while (!fits) {
    Items garbage(oxEventDrop::kTrimmed);
    FreeItems more_garbage;
    oxEventLock lock(mutex_);
    policy_ = policy;
    capacity_ = std::max(capacity, 1u);
    if (free_.Size() > MostFreeLocked()) more_garbage.Swap(&free_);
    discarded += TrimLocked(&garbage);
    fits = PendingLocked() <= capacity_;
    if (fits) SignalIfDrainedLocked();
    wake |= FillsLocked() && EndRestLocked();
  }
  if (wake) not_empty_.NotifyOne();
  return discarded;
}

uint32_t oxEventQueue::Enqueue(const oxEventNormalizedEvent& event, bool* accepted, bool* dropped, Spare* spare) {
  Set(accepted, false);
  Set(dropped, false);
  Spare own;
  Spare& item = spare != nullptr ? *spare : own;
  if (item == nullptr || !item->event.HasRoomFor(event)) {
    // Check first: do not allocate for an event that would be refused.
    oxEventLock lock(mutex_);
    if (!IsAcceptingLocked() || !HasRoomLocked()) return RefuseLocked(dropped);
    if (item == nullptr) item = free_.Pop();
  }
  // With the lock released, so that a long text delays nobody else.
  if (item == nullptr) item = NewItem();
  if (item == nullptr || !item->event.Assign(event)) return OXEVENT_FAILURE;

  bool wake = false;
  bool full = false;
  bool displaced = false;
  uint32_t result = OXEVENT_OK;
  {
    oxEventLock lock(mutex_);
    full = PendingLocked() >= capacity_;
    if (!IsAcceptingLocked() || !HasRoomLocked()) {
      result = RefuseLocked(dropped);
    } else {
      wake = AppendLocked(&item, full);
      displaced = full;
      Set(accepted, true);
      Set(dropped, displaced);
    }
  }
  if (wake) not_empty_.NotifyOne();  // With the lock released, or the worker would wake up to wait for it.
  // The worker had its memory: begin to fetch it, for the next event.
  if (item != nullptr) item->Prefetch();
  if (displaced) oxEventTraceDrop(item->event.Get(), oxEventDrop::kDisplaced);
  if (full && item != nullptr) item->event.ReleaseLongTexts();  // Those of the event that was dropped.
  return result;
}

oxEventNormalizedEvent* oxEventQueue::WaitPop() {
  if (!active_.IsEmpty()) active_.Front().event.ReleaseLongTexts();
  {
    oxEventLock lock(mutex_);
    CompleteActiveEventLocked();
    if (PendingLocked() != 0) return TakeOldestLocked();
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
  if (EndRestLocked()) not_empty_.NotifyOne();
  // Until the count moves: by the time that this thread runs again, more events may be pending.
  const uint64_t before = drained_count_;
  if (timeout_ms == 0) {
    while (drained_count_ == before) drained_.Wait(mutex_);
    return OXEVENT_OK;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (drained_count_ == before && std::chrono::steady_clock::now() < deadline) drained_.WaitUntil(mutex_, deadline);
  return drained_count_ != before ? OXEVENT_OK : OXEVENT_FAILURE;
}

bool oxEventQueue::HasPending() {
  oxEventLock lock(mutex_);
  return PendingLocked() != 0;
}

uint64_t oxEventQueue::EnqueueCount() {
  oxEventLock lock(mutex_);
  return enqueue_count_;
}

void oxEventQueue::StopAccepting() {
  oxEventLock lock(mutex_);
  accepting_ = false;
}

void oxEventQueue::RequestStop() {
  oxEventLock lock(mutex_);
  accepting_ = false;
  stop_requested_ = true;
  not_empty_.NotifyAll();
  drained_.NotifyAll();
}

uint64_t oxEventQueue::DropPending() {
  Items garbage;
  oxEventLock lock(mutex_);
  const uint64_t discarded = DropAllLocked(&garbage);
  SignalIfDrainedLocked();
  return discarded;
}

void oxEventQueue::Reset() {
  Items garbage;
  FreeItems more_garbage;
  oxEventLock lock(mutex_);
  DropAllLocked(&garbage);
  more_garbage.Swap(&free_);
  active_count_ = 0;
  accepting_ = false;
  stop_requested_ = false;
  SignalIfDrainedLocked();
}

// Whether one more event can be taken, perhaps at the cost of an older one.
bool oxEventQueue::HasRoomLocked() const {
  return PendingLocked() < capacity_ || (policy_ == oxEventDropPolicy::kDropDebugInfoFirst && !debug_info_.IsEmpty());
}

// Counts an event that was not queued; it is dropped if the queue was full.
uint32_t oxEventQueue::RefuseLocked(bool* dropped) {
  ++enqueue_count_;
  if (!IsAcceptingLocked()) return OXEVENT_NOT_INITIALIZED;
  Set(dropped, true);
  return OXEVENT_OK;
}

// In place of the oldest event below warning when the queue is full. *item becomes memory for the next event, or null.
// Returns whether the worker is to be woken.
bool oxEventQueue::AppendLocked(Spare* item, bool full) {
  ++enqueue_count_;
  Spare next = full ? debug_info_.PopFront() : free_.Pop();
  (*item)->order = next_order_++;
  Items& pending = IsDebugOrInfo((*item)->event.Get().severity) ? debug_info_ : warning_error_;
  pending.PushBack(std::exchange(*item, std::move(next)));
  return (rest_ == Rest::kSleep || FillsLocked()) && EndRestLocked();
}

void oxEventQueue::CompleteActiveEventLocked() {
  if (!active_.IsEmpty()) RecycleLocked(active_.PopFront());
  if (active_count_ > 0) --active_count_;
  SignalIfDrainedLocked();
}

// Null: no memory.
oxEventQueue::Spare oxEventQueue::NewItem() {
  void* const memory = memory_.Allocate(sizeof(Item));
  return Spare(memory != nullptr ? new (memory) Item(&memory_) : nullptr);
}

oxEventNormalizedEvent* oxEventQueue::TakeOldestLocked() {
  nap_first_ = true;
  active_.PushBack(OldestLocked().PopFront());
  ++active_count_;
  return &active_.Back().event.Get();
}

oxEventNormalizedEvent* oxEventQueue::WaitForEvent() {
  while (true) {
    FreeItems surplus;
    {
      oxEventLock lock(mutex_);
      while (PendingLocked() == 0 && surplus.Size() == 0) {
        if (stop_requested_) return nullptr;
        RestLocked(&surplus);
      }
      if (PendingLocked() != 0) return TakeOldestLocked();
    }
    ReleaseSurplus(&surplus);
  }
}

// Waits for an event or a stop; may return early. The caller has checked that nothing is pending. When the queue has
// been quiet for long enough, *surplus takes over the free memory instead, to be given back with the lock released.
void oxEventQueue::RestLocked(FreeItems* surplus) {
  const bool has_surplus = free_.Size() > kKeptItems;
  rest_ = nap_first_ ? Rest::kNap : Rest::kSleep;
  nap_first_ = false;
  if (rest_ == Rest::kNap) {
    not_empty_.WaitUntil(mutex_, std::chrono::steady_clock::now() + kNap);
  } else if (has_surplus) {
    // An event now and then does not count: the memory that stays is enough for it.
    if (enqueue_count_ - enqueued_before_sleep_ > kKeptItems) quiet_since_ = std::chrono::steady_clock::now();
    enqueued_before_sleep_ = enqueue_count_;
    const auto deadline = quiet_since_ + kKeepSurplus;
    while (rest_ == Rest::kSleep && !stop_requested_ && std::chrono::steady_clock::now() < deadline) {
      not_empty_.WaitUntil(mutex_, deadline);
    }
    if (rest_ == Rest::kSleep && !stop_requested_) surplus->Swap(&free_);
  } else {
    not_empty_.Wait(mutex_);
  }
  rest_ = Rest::kNone;
}

// A few at a time, and no more once there is something to do. Meanwhile submitters take new memory.
void oxEventQueue::ReleaseSurplus(FreeItems* surplus) {
  bool busy = false;
  while (surplus->Size() > kKeptItems && !busy) {
    for (size_t i = 0; i < kFreedAtOnce && surplus->Size() > kKeptItems; ++i) surplus->Pop();
    oxEventLock lock(mutex_);
    busy = PendingLocked() != 0 || stop_requested_;
  }
  memory_.ReleaseEmptySpan();
  oxEventLock lock(mutex_);
  surplus->Swap(&free_);
}

// Whether there is a rest to end: the worker is to be notified, by this caller alone.
bool oxEventQueue::EndRestLocked() { return std::exchange(rest_, Rest::kNone) != Rest::kNone; }

// The list with the newest pending event; there is one.
oxEventQueue::Items& oxEventQueue::NewestLocked() {
  if (debug_info_.IsEmpty()) return warning_error_;
  if (warning_error_.IsEmpty()) return debug_info_;
  return debug_info_.Back().order > warning_error_.Back().order ? debug_info_ : warning_error_;
}

// The list with the oldest.
oxEventQueue::Items& oxEventQueue::OldestLocked() {
  if (debug_info_.IsEmpty()) return warning_error_;
  if (warning_error_.IsEmpty()) return debug_info_;
  return debug_info_.Front().order < warning_error_.Front().order ? debug_info_ : warning_error_;
}

// A few at a time, since submitters want the lock too.
uint32_t oxEventQueue::TrimLocked(Items* garbage) {
  uint32_t discarded = 0;
  for (; discarded < kTrimAtOnce && PendingLocked() > capacity_; ++discarded) {
    const bool low_first = policy_ == oxEventDropPolicy::kDropDebugInfoFirst && !debug_info_.IsEmpty();
    if (low_first) {
      garbage->PushBack(debug_info_.PopFront());
    } else {
      garbage->PushBack(NewestLocked().PopBack());
    }
  }
  return discarded;
}

uint64_t oxEventQueue::DropAllLocked(Items* garbage) {
  const uint64_t discarded = PendingLocked();
  garbage->Take(&debug_info_);
  garbage->Take(&warning_error_);
  return discarded;
}

// Without long texts.
void oxEventQueue::RecycleLocked(Spare item) {
  if (free_.Size() < MostFreeLocked()) free_.Push(std::move(item));
}

void oxEventQueue::SignalIfDrainedLocked() {
  if (!IsDrainedLocked()) return;
  ++drained_count_;
  drained_.NotifyAll();
}

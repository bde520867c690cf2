#include "core/oxEventQueue.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <utility>

namespace {

constexpr uint32_t kTrimAtOnce = 64;  // Events.
constexpr auto kNap = std::chrono::milliseconds(1);

void Set(bool* flag, bool value) {
  if (flag != nullptr) *flag = value;
}

bool IsDebugOrInfo(uint32_t severity) { return severity < OXEVENT_SEVERITY_WARNING; }

}  // namespace

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
  while (!fits) {
    Items garbage;  // Freed with the lock released.
    oxEventLock lock(mutex_);
    policy_ = policy;
    capacity_ = std::max(capacity, 1u);
    if (free_.size() > capacity_) garbage.swap(free_);
    discarded += TrimLocked(&garbage);
    fits = PendingLocked() <= capacity_;
    if (fits) SignalIfDrainedLocked();
  }
  return discarded;
}

uint32_t oxEventQueue::Enqueue(const oxEventNormalizedEvent& event, bool* accepted, bool* dropped) {
  Set(accepted, false);
  Set(dropped, false);
  Items item;  // One; filled with the lock released, so that a long text delays nobody else.
  {
    oxEventLock lock(mutex_);
    if (!IsAcceptingLocked()) return OXEVENT_NOT_INITIALIZED;
    if (!HasRoomLocked()) {
      Set(dropped, true);
      return OXEVENT_OK;
    }
    if (!free_.empty()) item.splice(item.begin(), free_, free_.begin());
  }
  if (item.empty()) item.emplace_back();
  item.front().event.Assign(event);

  bool wake = false;
  {
    oxEventLock lock(mutex_);
    const bool accepting = IsAcceptingLocked();
    const bool full = PendingLocked() >= capacity_;
    Set(dropped, accepting && full);
    if (!accepting || !HasRoomLocked()) {
      RecycleLocked(item, item.begin());
      return accepting ? OXEVENT_OK : OXEVENT_NOT_INITIALIZED;
    }
    if (full) RecycleLocked(debug_info_, debug_info_.begin());
    item.front().order = next_order_++;
    Items& pending = IsDebugOrInfo(event.severity) ? debug_info_ : warning_error_;
    pending.splice(pending.end(), item);
    const bool fills = PendingLocked() >= capacity_ / 2;
    wake = (rest_ == Rest::kSleep || fills) && EndRestLocked();
  }
  Set(accepted, true);
  if (wake) not_empty_.NotifyOne();  // With the lock released, or the worker would wake up to wait for it.
  return OXEVENT_OK;
}

const oxEventNormalizedEvent* oxEventQueue::WaitPop() {
  if (!active_.empty()) active_.front().event.ReleaseLongTexts();
  oxEventLock lock(mutex_);
  CompleteActiveEventLocked();
  while (PendingLocked() == 0) {
    if (stop_requested_) return nullptr;
    RestLocked();
  }
  nap_first_ = true;
  Items& oldest = OldestLocked();
  active_.splice(active_.end(), oldest, oldest.begin());
  ++active_count_;
  return &active_.back().event.Get();
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
  oxEventLock lock(mutex_);
  DropAllLocked(&garbage);
  garbage.splice(garbage.end(), free_);
  active_count_ = 0;
  accepting_ = false;
  stop_requested_ = false;
  SignalIfDrainedLocked();
}

// Whether one more event can be taken, perhaps at the cost of an older one.
bool oxEventQueue::HasRoomLocked() const {
  return PendingLocked() < capacity_ || (policy_ == oxEventDropPolicy::kDropDebugInfoFirst && !debug_info_.empty());
}

void oxEventQueue::CompleteActiveEventLocked() {
  if (!active_.empty()) RecycleLocked(active_, active_.begin());
  if (active_count_ > 0) --active_count_;
  SignalIfDrainedLocked();
}

// Until an event or a stop may be there. What is pending already is the caller's to see.
void oxEventQueue::RestLocked() {
  rest_ = nap_first_ ? Rest::kNap : Rest::kSleep;
  nap_first_ = false;
  if (rest_ == Rest::kNap) {
    not_empty_.WaitUntil(mutex_, std::chrono::steady_clock::now() + kNap);
  } else {
    not_empty_.Wait(mutex_);
  }
  rest_ = Rest::kNone;
}

// Whether there is a rest to end: the worker is to be notified, by this caller alone.
bool oxEventQueue::EndRestLocked() { return std::exchange(rest_, Rest::kNone) != Rest::kNone; }

bool oxEventQueue::DropDebugInfoFirstLocked(Items* garbage) {
  if (debug_info_.empty()) return false;
  garbage->splice(garbage->end(), debug_info_, debug_info_.begin());
  return true;
}

void oxEventQueue::DropNewestLocked(Items* garbage) {
  const bool in_debug_info =
      warning_error_.empty() || (!debug_info_.empty() && debug_info_.back().order > warning_error_.back().order);
  Items& newest = in_debug_info ? debug_info_ : warning_error_;
  garbage->splice(garbage->end(), newest, std::prev(newest.end()));
}

// A few at a time, since submitters want the lock too.
uint32_t oxEventQueue::TrimLocked(Items* garbage) {
  uint32_t discarded = 0;
  for (; discarded < kTrimAtOnce && PendingLocked() > capacity_; ++discarded) {
    const bool low_first = policy_ == oxEventDropPolicy::kDropDebugInfoFirst;
    if (!low_first || !DropDebugInfoFirstLocked(garbage)) DropNewestLocked(garbage);
  }
  return discarded;
}

uint64_t oxEventQueue::DropAllLocked(Items* garbage) {
  const uint64_t discarded = PendingLocked();
  garbage->splice(garbage->end(), debug_info_);
  garbage->splice(garbage->end(), warning_error_);
  return discarded;
}

// The list whose front is the oldest pending event; there is one.
oxEventQueue::Items& oxEventQueue::OldestLocked() {
  if (debug_info_.empty()) return warning_error_;
  if (warning_error_.empty()) return debug_info_;
  return debug_info_.front().order < warning_error_.front().order ? debug_info_ : warning_error_;
}

void oxEventQueue::RecycleLocked(Items& from, Items::iterator item) {
  item->event.ReleaseLongTexts();
  free_.splice(free_.begin(), from, item);
  if (free_.size() > capacity_) free_.pop_back();
}

void oxEventQueue::SignalIfDrainedLocked() {
  if (!IsDrainedLocked()) return;
  ++drained_count_;
  drained_.NotifyAll();
}

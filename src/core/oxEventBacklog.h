#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "base/oxEventStat.h"
#include "config/oxEventConfig.h"
#include "core/oxEventNode.h"

// The pending events in their order of arrival, at most `capacity` of them, and the policy that decides what a full
// backlog drops. Keeps two lists, so that the oldest event below warning is found without a search.
// Threads: one at a time; the queue calls it with the queue's lock held.
class oxEventBacklog {
 public:
  // Keeps all pending events, even if they exceed the new capacity; Trim removes the excess. Capacity 0 counts as 1.
  void Configure(uint32_t capacity, oxEventDropPolicy policy) {
    capacity_ = std::max(capacity, 1u);
    policy_ = policy;
  }

  uint32_t Capacity() const { return capacity_; }
  size_t Size() const { return debug_info_.Size() + warning_error_.Size(); }
  bool IsEmpty() const { return Size() == 0; }
  bool IsFull() const { return Size() >= capacity_; }
  bool IsHalfFull() const { return !IsEmpty() && Size() >= capacity_ / 2; }

  // Whether there is room for an event, or the policy makes room by dropping an older one.
  bool CanPush() const { return !IsFull() || DropsDebugInfo(); }

  // Appends the newest event; requires CanPush(). Returns the event that was dropped to make room for it, or null.
  oxEventNodePtr Push(oxEventNodePtr node) {
    oxEventNodePtr displaced(IsFull() ? debug_info_.PopFront() : nullptr);
    node->order = next_order_++;
    const bool is_debug_or_info = node->event.Get().severity < OXEVENT_SEVERITY_WARNING;
    (is_debug_or_info ? debug_info_ : warning_error_).PushBack(std::move(node));
    return displaced;
  }

  // Requires a backlog that is not empty.
  oxEventNodePtr PopOldest() { return ListOfOldest().PopFront(); }

  // Moves as many events as exceed the capacity, but at most `limit`, to *removed: the newest events or, with
  // kDropDebugInfoFirst, the oldest events below warning as long as there are any, then the newest events.
  void Trim(size_t limit, oxEventNodeList* removed);

  // Moves all events to *removed.
  void Clear(oxEventNodeList* removed) {
    removed->Splice(&debug_info_);
    removed->Splice(&warning_error_);
  }

  void AddStatAddresses(oxEventStatRun* stat) const {
    stat->pending_debug_info = debug_info_.SizeStatAddress();
    stat->pending_warning_error = warning_error_.SizeStatAddress();
    stat->capacity = oxEventStatAddress<uint32_t>(&capacity_);
  }

 private:
  bool DropsDebugInfo() const { return policy_ == oxEventDropPolicy::kDropDebugInfoFirst && !debug_info_.IsEmpty(); }
  oxEventNodeList& ListOfOldest() {
    if (debug_info_.IsEmpty()) return warning_error_;
    if (warning_error_.IsEmpty()) return debug_info_;
    return debug_info_.Front().order < warning_error_.Front().order ? debug_info_ : warning_error_;
  }
  oxEventNodeList& ListOfNewest();

  oxEventNodeList debug_info_;  // Oldest at the front; `order` shows which front is older.
  oxEventNodeList warning_error_;
  uint64_t next_order_ = 0;
  uint32_t capacity_ = 1;
  oxEventDropPolicy policy_ = oxEventDropPolicy::kDropNewest;
};

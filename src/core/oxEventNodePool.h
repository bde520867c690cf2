#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/oxEventSlab.h"
#include "core/oxEventNode.h"

// The memory of the queue's events. Keeps the nodes of delivered events for the next ones. Surplus nodes of a burst are
// freed once the queue has been quiet for a second: not sooner, because a host that works in cycles needs them again
// for its next burst. Threads: Create and Shrink take the slab's own lock. All other calls need the lock of the queue.
class oxEventNodePool {
 public:
  using Clock = std::chrono::steady_clock;

  // Returns a node in new memory, or null if there is none.
  oxEventNodePtr Create();

  // Returns a kept node, or null if none is kept.
  oxEventNodePtr TryAcquire() { return free_nodes_.Pop(); }

  // Keeps the node, if fewer than `limit` are kept.
  void Recycle(oxEventNodePtr node, size_t limit) {
    if (free_nodes_.Size() < limit) free_nodes_.Push(std::move(node));
  }

  size_t Size() const { return free_nodes_.Size(); }

  // Exchanges the kept nodes for *nodes, so that the caller can free many of them without the queue's lock.
  void Swap(oxEventNodeStack* nodes) { nodes->Swap(&free_nodes_); }

  // Whether more nodes are kept than an idle queue needs.
  bool HasSurplus() const { return free_nodes_.Size() > kNodesKept; }

  // Returns when the surplus may be freed. If more than a few events have been queued since the last call, that is a
  // second from now. `enqueue_count`: number of events queued so far.
  Clock::time_point SurplusDeadline(uint64_t enqueue_count);

  // Frees surplus nodes of *nodes, a few at a time, as long as may_go_on() returns true, and then unused memory.
  template <class MayGoOn>
  void Shrink(oxEventNodeStack* nodes, MayGoOn may_go_on) {
    while (nodes->Size() > kNodesKept && may_go_on()) {
      for (size_t i = 0; i < kNodesFreedAtOnce && nodes->Size() > kNodesKept; ++i) nodes->Pop();
    }
    memory_.ReleaseEmptySpan();
  }

 private:
  static constexpr size_t kNodesKept = 32;
  static constexpr size_t kNodesFreedAtOnce = 64;
  static constexpr auto kQuietTime = std::chrono::seconds(1);

  oxEventSharedSlab memory_;  // Owns the memory of the nodes and their texts: declared first, destroyed last.
  oxEventNodeStack free_nodes_;
  Clock::time_point quiet_since_;    // The end of the last burst.
  uint64_t enqueued_last_time_ = 0;  // The argument of the last SurplusDeadline.
};

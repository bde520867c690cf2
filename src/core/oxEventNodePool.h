#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/oxEventSlab.h"
#include "core/oxEventNode.h"

// The memory of the queue's events. Keeps the nodes of delivered events for the next events. Surplus nodes are freed
// only once the queue has been quiet for a second, because a host that works in cycles needs them again for its next
// burst. Threads: Create and Shrink use only the slab, which has its own lock; all other functions need the queue's
// lock.
class oxEventNodePool {
 public:
  using Clock = std::chrono::steady_clock;

  // Returns a newly allocated node, or null if there is no memory.
  oxEventNodePtr Create();

  // Returns a kept node, or null if none is kept.
  oxEventNodePtr TryAcquire() { return free_nodes_.Pop(); }

  // Keeps the node if fewer than `limit` are kept, otherwise frees it.
  void Recycle(oxEventNodePtr node, size_t limit) {
    if (free_nodes_.Size() < limit) free_nodes_.Push(std::move(node));
  }

  size_t Size() const { return free_nodes_.Size(); }

  // Exchanges the kept nodes for *nodes, so that the caller can free many of them without the queue's lock.
  void Swap(oxEventNodeStack* nodes) { nodes->Swap(&free_nodes_); }

  // Whether more nodes are kept than an idle queue needs.
  bool HasSurplus() const { return free_nodes_.Size() > kNodesKept; }

  // Returns the time from which the surplus may be freed. If more than a few events have been reported since the
  // previous call, a quiet period of a second begins now. `enqueue_count`: the queue's EnqueueCount.
  Clock::time_point SurplusDeadline(uint64_t enqueue_count);

  // Frees surplus nodes of *nodes, a batch at a time, as long as should_continue() returns true, and then the memory
  // that the slab keeps for reuse.
  template <class ShouldContinue>
  void Shrink(oxEventNodeStack* nodes, ShouldContinue should_continue) {
    while (nodes->Size() > kNodesKept && should_continue()) {
      for (size_t i = 0; i < kFreeBatchSize && nodes->Size() > kNodesKept; ++i) nodes->Pop();
    }
    memory_.ReleaseEmptySpan();
  }

 private:
  static constexpr size_t kNodesKept = 32;
  static constexpr size_t kFreeBatchSize = 64;
  static constexpr auto kQuietTime = std::chrono::seconds(1);

  oxEventSharedSlab memory_;  // Owns the memory of the nodes and their texts: declared first, destroyed last.
  oxEventNodeStack free_nodes_;
  Clock::time_point quiet_since_;    // When the quiet period began.
  uint64_t last_enqueue_count_ = 0;  // The argument of the last SurplusDeadline call.
};

#include "core/oxEventNodePool.h"

#include <new>

void oxEventFreeNode(oxEventNode* node) {
  oxEventSharedSlab* const memory = node->event.Memory();
  node->~oxEventNode();
  memory->Free(node, sizeof(oxEventNode));
}

oxEventNodePtr oxEventNodePool::Create() {
  void* const memory = memory_.Allocate(sizeof(oxEventNode));
  return oxEventNodePtr(memory != nullptr ? new (memory) oxEventNode(&memory_) : nullptr);
}

oxEventNodePool::Clock::time_point oxEventNodePool::SurplusDeadline(uint64_t enqueue_count) {
  // A few events do not count as a burst: the nodes that are always kept suffice for them.
  if (enqueue_count - last_enqueue_count_ > kNodesKept) quiet_since_ = Clock::now();
  last_enqueue_count_ = enqueue_count;
  return quiet_since_ + kQuietTime;
}

#include "core/oxEventNodePool.h"

#include <new>

void oxEventNodeDeleter::operator()(oxEventNode* node) const {
  oxEventSharedSlab* const memory = node->event.Memory();
  node->~oxEventNode();
  memory->Free(node, sizeof(oxEventNode));
}

oxEventNodePtr oxEventNodePool::Create() {
  void* const memory = memory_.Allocate(sizeof(oxEventNode));
  return oxEventNodePtr(memory != nullptr ? new (memory) oxEventNode(&memory_) : nullptr);
}

oxEventNodePool::Clock::time_point oxEventNodePool::SurplusDeadline(uint64_t enqueue_count) {
  // A single event now and then does not count: the nodes that stay are enough for it.
  if (enqueue_count - enqueued_last_time_ > kNodesKept) quiet_since_ = Clock::now();
  enqueued_last_time_ = enqueue_count;
  return quiet_since_ + kQuietTime;
}

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventSlab.h"
#include "base/oxEventStat.h"

// One event in the queue. The node and its memory are reused for later events. Allocated in a slab, which outlives it.
struct oxEventNode {
  uint64_t order = 0;  // Position in the order of arrival.
  oxEventNode* next = nullptr;
  oxEventNode* previous = nullptr;
  oxEventStoredEvent event;

  explicit oxEventNode(oxEventSharedSlab* memory) : event(memory) {}

  // Prefetches the node for writing: another thread wrote to it last.
  void Prefetch() const {
    constexpr size_t kCacheLineBytes = 64;
    for (size_t i = 0; i < sizeof(oxEventNode); i += kCacheLineBytes)
      __builtin_prefetch(reinterpret_cast<const char*>(this) + i, 1);
  }
};

void oxEventFreeNode(oxEventNode* node);

// Inline, so that the address of an owning pointer is not passed and the pointer can stay in a register.
struct oxEventNodeDeleter {
  void operator()(oxEventNode* node) const { oxEventFreeNode(node); }
};
using oxEventNodePtr = std::unique_ptr<oxEventNode, oxEventNodeDeleter>;

// Doubly linked list. Owns its nodes. Front, Back, PopFront and PopBack require a list that is not empty.
class oxEventNodeList {
 public:
  oxEventNodeList() = default;
  ~oxEventNodeList() {
    while (!IsEmpty()) PopFront();
  }
  oxEventNodeList(const oxEventNodeList&) = delete;
  oxEventNodeList& operator=(const oxEventNodeList&) = delete;

  bool IsEmpty() const { return front_ == nullptr; }
  size_t Size() const { return size_; }
  uint64_t SizeStatAddress() const { return oxEventStatAddress<uint64_t>(&size_); }
  oxEventNode& Front() { return *front_; }
  oxEventNode& Back() { return *back_; }

  void PushBack(oxEventNodePtr node) {
    oxEventNode* const added = node.release();
    added->previous = back_;
    (IsEmpty() ? front_ : back_->next) = added;
    back_ = added;
    ++size_;
  }
  // Does not access the next node: a cache miss would make the caller hold its lock for longer.
  oxEventNodePtr PopFront() {
    oxEventNodePtr node(front_);
    front_ = --size_ == 0 ? nullptr : node->next;
    return node;
  }
  oxEventNodePtr PopBack() {
    oxEventNodePtr node(back_);
    back_ = node->previous;
    if (--size_ == 0) front_ = nullptr;
    return node;
  }
  // Moves all nodes of *from to the end of this list.
  void Splice(oxEventNodeList* from) {
    if (from->IsEmpty()) return;
    from->front_->previous = back_;
    (IsEmpty() ? front_ : back_->next) = from->front_;
    back_ = from->back_;
    size_ += std::exchange(from->size_, 0);
    from->front_ = nullptr;
  }

 private:
  oxEventNode* front_ = nullptr;
  oxEventNode* back_ = nullptr;  // Valid only while the list is not empty.
  size_t size_ = 0;
};

// A stack of free nodes, so that the most recently used node is reused first. Owns its nodes.
class oxEventNodeStack {
 public:
  oxEventNodeStack() = default;
  ~oxEventNodeStack() {
    while (Pop() != nullptr) continue;
  }
  oxEventNodeStack(const oxEventNodeStack&) = delete;
  oxEventNodeStack& operator=(const oxEventNodeStack&) = delete;

  bool IsEmpty() const { return top_ == nullptr; }
  size_t Size() const { return size_; }

  void Push(oxEventNodePtr node) {
    node->next = top_;
    top_ = node.release();
    ++size_;
  }
  // Returns null if the stack is empty.
  oxEventNodePtr Pop() {
    oxEventNodePtr node(top_);
    if (node == nullptr) return node;
    top_ = node->next;
    --size_;
    return node;
  }
  void Swap(oxEventNodeStack* other) {
    std::swap(top_, other->top_);
    std::swap(size_, other->size_);
  }

 private:
  oxEventNode* top_ = nullptr;
  size_t size_ = 0;
};

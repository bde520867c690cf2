#include "base/oxEventSlab.h"

#include <cstdlib>
#include <new>

#ifdef OXEVENT_SANITIZED
#include <sanitizer/asan_interface.h>  // Not every compiler's package has it.
#else
#define ASAN_POISON_MEMORY_REGION(memory, size) static_cast<void>(0)
#define ASAN_UNPOISON_MEMORY_REGION(memory, size) static_cast<void>(0)
#endif

size_t oxEventSlab::BlockSize(size_t size) {
  if (size > kLargestBlock) return size;
  const size_t step = size <= kFineLimit ? kFineStep : kCoarseStep;
  return (size + step - 1) / step * step;
}

size_t oxEventSlab::ClassOf(size_t size) {
  return size <= kFineLimit ? (size - 1) / kFineStep : kFineClasses + (size - kFineLimit - 1) / kCoarseStep;
}

void* oxEventSlab::Allocate(size_t size) {
  if (size > kLargestBlock) return std::malloc(size);
  const size_t size_class = ClassOf(size);
  Span* span = partial_spans_[size_class];
  if (span == nullptr) {
    span = NewSpan(size_class, BlockSize(size));
    if (span == nullptr) return nullptr;
  }
  if (span->live_blocks++ == 0) empty_span_ = nullptr;
  void* block = span->free_list;
  if (block != nullptr) {
    span->free_list = span->free_list->next;
  } else {
    block = reinterpret_cast<char*>(span) + span->unused_offset;
    span->unused_offset += span->block_size;
  }
  if (IsFull(span)) Unlink(span);
  ASAN_UNPOISON_MEMORY_REGION(block, span->block_size);
  return block;
}

void oxEventSlab::Free(void* block, size_t size) {
  if (size > kLargestBlock) return std::free(block);
  Span* const span = SpanOf(block);
  if (IsFull(span)) Link(span);
  auto* const freed = static_cast<FreeBlock*>(block);
  freed->next = span->free_list;
  span->free_list = freed;
  ASAN_POISON_MEMORY_REGION(freed + 1, span->block_size - sizeof(FreeBlock));
  if (--span->live_blocks != 0) return;
  if (empty_span_ == nullptr) {
    empty_span_ = span;
  } else {
    FreeSpan(span);
  }
}

void oxEventSlab::ReleaseEmptySpan() {
  if (empty_span_ == nullptr) return;
  FreeSpan(empty_span_);
  empty_span_ = nullptr;
}

// Returns a span without live blocks, linked into the list of its size class. Null if out of memory.
oxEventSlab::Span* oxEventSlab::NewSpan(size_t size_class, size_t block_size) {
  void* memory = empty_span_;
  if (empty_span_ != nullptr) {
    Unlink(empty_span_);
    ASAN_UNPOISON_MEMORY_REGION(memory, kSpanSize);
  } else {
    memory = pages_.Allocate();
    if (memory == nullptr) return nullptr;
  }
  auto* const span = new (memory) Span{
      nullptr, nullptr, nullptr, sizeof(Span), 0, static_cast<uint32_t>(block_size), static_cast<uint32_t>(size_class)};
  Link(span);
  return span;
}

void oxEventSlab::Link(Span* span) {
  Span*& first = partial_spans_[span->size_class];
  span->previous = nullptr;
  span->next = first;
  if (first != nullptr) first->previous = span;
  first = span;
}

void oxEventSlab::Unlink(Span* span) {
  (span->previous != nullptr ? span->previous->next : partial_spans_[span->size_class]) = span->next;
  if (span->next != nullptr) span->next->previous = span->previous;
}

void oxEventSlab::FreeSpan(Span* span) {
  Unlink(span);
  ASAN_UNPOISON_MEMORY_REGION(span, kSpanSize);
  pages_.Free(span);
}

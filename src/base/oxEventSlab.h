#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/oxEventMutex.h"
#include "base/oxEventPages.h"

// An allocator whose memory goes back to the system when it is freed, as that of the C library's does not: a block of
// the host's between ours would hold the pages. Each span of pages holds blocks of one size; a span without a block in
// use is unmapped, but for one that is kept for the next blocks. Blocks over 32 KiB come from malloc.
// No exception: in a host in C the first one on a thread needs memory itself.
// Threads: one at a time. Every block has to be freed before the allocator is destroyed.
class oxEventSlab {
 public:
  oxEventSlab() = default;
  ~oxEventSlab() { ReleaseEmptySpan(); }
  oxEventSlab(const oxEventSlab&) = delete;
  oxEventSlab& operator=(const oxEventSlab&) = delete;

  // What a block for `size` bytes really holds; at least 1 byte is asked for.
  static size_t BlockSize(size_t size);

  // Up to 32 KiB aligned to 32 bytes, to 64 if the block's size is a multiple of 64. Null: no memory.
  void* Allocate(size_t size);

  // `size`: as given to Allocate, or its BlockSize.
  void Free(void* block, size_t size);

  // Begins to fetch what Free will look at.
  static void PrefetchForFree(const void* block) { __builtin_prefetch(SpanOf(block), 1); }

  void ReleaseEmptySpan();

 private:
  struct FreeBlock {
    FreeBlock* next;
  };
  struct alignas(64) Span {
    Span* next;  // In the list of its size, unless it is full.
    Span* previous;
    FreeBlock* free_list;
    uint32_t unused_offset;  // Behind the blocks that have ever been in use.
    uint32_t live_blocks;
    uint32_t block_size;
    uint32_t size_class;
  };

  static constexpr size_t kSpanSize = size_t{256} * 1024;
  static constexpr size_t kFineStep = 32;  // Between block sizes up to kFineLimit.
  static constexpr size_t kFineLimit = 4096;
  static constexpr size_t kCoarseStep = 4096;  // Above that, up to kLargestBlock.
  static constexpr size_t kLargestBlock = 32768;
  static constexpr size_t kFineClasses = kFineLimit / kFineStep;
  static constexpr size_t kClasses = kFineClasses + (kLargestBlock - kFineLimit) / kCoarseStep;

  static size_t ClassOf(size_t size);
  static Span* SpanOf(const void* block) {
    const auto address = reinterpret_cast<uintptr_t>(block);
    return reinterpret_cast<Span*>(address & ~(kSpanSize - 1));  // NOLINT(performance-no-int-to-ptr)
  }
  static bool IsFull(const Span* span) {
    return span->free_list == nullptr && span->unused_offset + span->block_size > kSpanSize;
  }
  Span* NewSpan(size_t size_class, size_t block_size);
  void Link(Span* span);
  void Unlink(Span* span);
  void FreeSpan(Span* span);

  std::array<Span*, kClasses> with_room_ = {};  // By size class: spans that have a free block.
  Span* empty_ = nullptr;                       // The one that is kept without a block in use; also in its list.
  oxEventPages pages_{kSpanSize};
};

// The same for many threads.
class oxEventSharedSlab {
 public:
  void* Allocate(size_t size) OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    return slab_.Allocate(size);
  }
  void Free(void* block, size_t size) OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    slab_.Free(block, size);
  }
  void ReleaseEmptySpan() OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    slab_.ReleaseEmptySpan();
  }

 private:
  oxEventMutex mutex_;
  oxEventSlab slab_ OX_GUARDED_BY(mutex_);
};

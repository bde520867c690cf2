#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/oxEventMutex.h"
#include "base/oxEventPages.h"

// A slab allocator that returns freed memory to the system. The C library's allocator often cannot do so, because
// blocks of the host lie between those of the library and keep the pages in use. Each span of pages holds blocks of one
// size; a span without live blocks is unmapped, except for one that is kept for reuse. Blocks over 32 KiB come from
// malloc. Does not throw: a thread's first exception may itself allocate memory (oxEventArchitecture.h).
// Threads: one at a time. All blocks must be freed before the allocator is destroyed.
class oxEventSlab {
 public:
  oxEventSlab() = default;
  ~oxEventSlab() { ReleaseEmptySpan(); }
  oxEventSlab(const oxEventSlab&) = delete;
  oxEventSlab& operator=(const oxEventSlab&) = delete;

  // Actual size of a block for `size` bytes, which must be at least 1.
  static size_t BlockSize(size_t size);

  // Blocks up to 32 KiB are aligned to 32 bytes, or to 64 if their BlockSize is a multiple of 64. Returns null if out
  // of memory.
  void* Allocate(size_t size);

  // `size`: as passed to Allocate, or its BlockSize.
  void Free(void* block, size_t size);

  // Prefetches the span header that Free reads.
  static void PrefetchForFree(const void* block) { __builtin_prefetch(SpanOf(block), 1); }

  // Unmaps the span that is kept for reuse, if there is one.
  void ReleaseEmptySpan();

 private:
  struct FreeBlock {
    FreeBlock* next;
  };
  struct alignas(64) Span {
    Span* next;  // In the list of its size class, which contains every span that is not full.
    Span* previous;
    FreeBlock* free_list;
    uint32_t unused_offset;  // Offset of the first block that was never allocated.
    uint32_t live_blocks;
    uint32_t block_size;
    uint32_t size_class;
  };

  static constexpr size_t kSpanSize = size_t{256} * 1024;
  static constexpr size_t kFineStep = 32;  // Step between block sizes up to kFineLimit.
  static constexpr size_t kFineLimit = 4096;
  static constexpr size_t kCoarseStep = 4096;  // Step between larger block sizes, up to kLargestBlock.
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

  std::array<Span*, kClasses> partial_spans_ = {};  // Spans with a free block, by size class.
  Span* empty_span_ = nullptr;                      // The span that is kept without live blocks; also in its list.
  oxEventPages pages_{kSpanSize};
};

// An oxEventSlab that any thread may use.
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

#pragma once

#include <cstddef>

// Allocates memory from the system in chunks of one size, aligned to that size, so that masking an address gives the
// start of its chunk. The memory of a freed chunk is returned to the system immediately, whichever allocator the host
// uses. Threads: one at a time.
class oxEventPages {
 public:
  // `chunk_size`: a power of two, at least the page size.
  explicit oxEventPages(size_t chunk_size) : chunk_size_(chunk_size) {}
  ~oxEventPages();
  oxEventPages(const oxEventPages&) = delete;
  oxEventPages& operator=(const oxEventPages&) = delete;

  // Returns a chunk, or null if out of memory.
  void* Allocate();

  void Free(void* chunk);

 private:
  struct Chunk {
    Chunk* next;
  };

  const size_t chunk_size_;
  // Chunks that could not be unmapped, for later calls of Allocate. Their pages were returned to the system, unless the
  // host has locked its memory.
  Chunk* unmappable_ = nullptr;
};

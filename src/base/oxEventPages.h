#pragma once

#include <cstddef>

// Memory from the system in chunks of one size, aligned to that size: the chunk of any address in it is found by
// masking. A chunk that is given back leaves the process at once, whichever allocator the host uses. Threads: one at a
// time.
class oxEventPages {
 public:
  // A power of two, at least a page.
  explicit oxEventPages(size_t chunk_size) : chunk_size_(chunk_size) {}
  ~oxEventPages();
  oxEventPages(const oxEventPages&) = delete;
  oxEventPages& operator=(const oxEventPages&) = delete;

  // Zeroed. Null: no memory.
  void* Allocate();

  void Free(void* chunk);

 private:
  struct Chunk {
    Chunk* next;
  };

  const size_t chunk_size_;
  // Chunks that could not be unmapped. Their pages are given back all the same.
  Chunk* unmappable_ = nullptr;
};

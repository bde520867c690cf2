#include "base/oxEventPages.h"

#include <sys/mman.h>

#include <cstdint>

namespace {

char* Map(size_t size) {
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return memory != MAP_FAILED ? static_cast<char*>(memory) : nullptr;
}

}  // namespace

oxEventPages::~oxEventPages() {
  while (unmappable_ != nullptr) {
    Chunk* const chunk = unmappable_;
    unmappable_ = chunk->next;
    munmap(chunk, chunk_size_);
  }
}

void* oxEventPages::Allocate() {
  if (unmappable_ != nullptr) {
    Chunk* const chunk = unmappable_;
    unmappable_ = chunk->next;
    return chunk;
  }
  // The kernel usually places a mapping next to the previous one, so the mapping after an aligned one is aligned too.
  const auto misalignment = [this](const char* at) { return reinterpret_cast<uintptr_t>(at) & (chunk_size_ - 1); };
  char* const chunk = Map(chunk_size_);
  if (chunk == nullptr || misalignment(chunk) == 0) return chunk;
  munmap(chunk, chunk_size_);
  char* const twice = Map(2 * chunk_size_);
  if (twice == nullptr) return nullptr;
  const size_t suffix_size = misalignment(twice);
  char* const aligned = twice + (chunk_size_ - suffix_size);
  munmap(twice, chunk_size_ - suffix_size);
  if (suffix_size != 0) munmap(aligned + chunk_size_, suffix_size);
  return aligned;
}

// munmap may fail: unmapping the middle of a mapping splits it, and a process has at most vm.max_map_count mappings.
void oxEventPages::Free(void* chunk) {
  if (munmap(chunk, chunk_size_) == 0) return;
  madvise(chunk, chunk_size_, MADV_DONTNEED);  // Fails, and keeps the pages, if the host has locked its memory.
  auto* const kept = static_cast<Chunk*>(chunk);
  kept->next = unmappable_;
  unmappable_ = kept;
}

#include "allocations.h"

#include <cerrno>
#include <cstdlib>

thread_local size_t t_allocations = 0;

extern "C" {
void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t), *__libc_realloc(void*, size_t);

void* malloc(size_t size) {
  ++t_allocations;
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  ++t_allocations;
  return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  ++t_allocations;
  return __libc_realloc(memory, size);
}
}

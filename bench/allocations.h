#pragma once

#include <cstddef>

// Number of the calling thread's calls of malloc, calloc and realloc, including those from shared libraries.
extern thread_local size_t t_allocations;

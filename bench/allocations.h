#pragma once

#include <cstddef>

// Number of calls to malloc, calloc and realloc by the calling thread, including those from shared libraries.
extern thread_local size_t t_allocations;

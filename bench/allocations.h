#pragma once

#include <cstddef>

// The calling thread's allocations so far: malloc, calloc and realloc of this program and its libraries.
extern thread_local size_t t_allocations;

#pragma once

#include <atomic>

// How many forks lie between the process that loaded the library and this one. Code that calls the host (which may
// fork) compares it before and after: where it has changed, this is a child, and what belonged to the parent is left
// alone.
inline constinit std::atomic<unsigned> g_oxEventForkCount = 0;

#pragma once

#include <atomic>

// Number of forks between the process that loaded the library and this one. Code that calls a callback, which may fork,
// compares the counts before and after the call: if they differ, this process is a child, which must not touch what
// belongs to the parent. Defined with the fork handler, so that a static link of the library includes the handler.
extern constinit std::atomic<unsigned> g_oxEventForkCount;

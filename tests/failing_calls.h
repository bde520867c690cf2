// Stands between the libraries under test and the C library, so that a test can watch, fail or end a system call.
#ifndef FAILING_CALLS_H
#define FAILING_CALLS_H

#include <functional>

// While set: asked before each call of those in failing_calls.cpp, with its name and descriptor (-1: it takes a path).
// The call fails with the errno that it returns, unless that is 0. write takes at most 1000 bytes meanwhile.
extern std::function<int(const char* call, int fd)> g_before_call;

#endif

// Makes calls to the C library fail when a test says so: the loader finds this executable's definitions first.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

// While an object exists, its hook is called before each call of a function that faults.cpp defines, on any thread,
// with the call's name and first argument; calloc, realloc and new count as malloc. The hook returns 0 to let the call
// through, E > 0 to make it fail with errno E, or -N to limit a write to N bytes. Exceptions: malloc always fails with
// ENOMEM, and getaddrinfo and pthread_create return E. For malloc, the argument is a size. Calls that the hook itself
// makes go through. One object at a time. The destructor waits for the threads that are in the hook.
class Faults {
 public:
  using Hook = std::function<int(std::string_view call, long first)>;
  explicit Faults(Hook hook);
  ~Faults();
  Faults(const Faults&) = delete;

  // From now on the calling thread's calls go through.
  static void ExcludeThisThread();

 private:
  const Hook hook_;
};

// Calls of the C library that fail when a test says so: this executable's own definitions precede the library's.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

// While an object lives, its hook is called before each of the calls listed in faults.cpp, on whichever thread, with
// the call's first argument. The hook returns 0 to let the call through; a positive number to make it fail with this
// errno (getaddrinfo and pthread_create: with this result); a negative number to limit a write to that many bytes.
// Calls that the hook itself makes go through. One object at a time. The destructor waits for the threads that are in
// the hook.
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

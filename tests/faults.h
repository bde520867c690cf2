// Calls of the C library that fail when a test says so: this executable's own definitions stand before the library's.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

// While one lives, it is asked before each of the calls listed in faults.cpp, on whichever thread, and with the call's
// first argument. 0: the call goes through; above: it fails with this errno (getaddrinfo and pthread_create: with this
// result); below: a write takes at most so many bytes. Calls that the answer takes are not asked about. One at a time.
// The destructor waits for the threads that are asking.
class Faults {
 public:
  using Hook = std::function<int(std::string_view call, long first)>;
  explicit Faults(Hook hook);
  ~Faults();
  Faults(const Faults&) = delete;

 private:
  const Hook hook_;
};

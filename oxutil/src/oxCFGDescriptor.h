#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

// Repeats a system call until no signal interrupts it, and returns its result.
template <class Call>
auto oxCFGRepeatIfInterrupted(Call call) {
  while (true) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

// Owns a file descriptor.
class oxCFGDescriptor {
 public:
  explicit oxCFGDescriptor(int fd = -1) : fd_(fd) {}
  ~oxCFGDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  oxCFGDescriptor(const oxCFGDescriptor&) = delete;
  oxCFGDescriptor& operator=(const oxCFGDescriptor&) = delete;

  int Get() const { return fd_; }
  void Set(int fd) { fd_ = fd; }
  // EINTR counts as success, because Linux has closed the descriptor in that case too.
  bool Close() { return close(std::exchange(fd_, -1)) == 0 || errno == EINTR; }

 private:
  int fd_;
};

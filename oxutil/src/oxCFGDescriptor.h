// Owns a file descriptor.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

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
  // EINTR counts as success: Linux has closed the descriptor then.
  bool Close() { return close(std::exchange(fd_, -1)) == 0 || errno == EINTR; }

 private:
  int fd_;
};

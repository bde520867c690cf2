#include "platform/oxEventAppendFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>

#include "platform/oxEventSignalBlock.h"

namespace {

constexpr mode_t kFileMode = 0666;  // Less the umask.
constexpr auto kPipeTimeout = std::chrono::seconds(1);

// Returns whether the pipe has room before the timeout. A signal handler of the host does not end the wait.
bool WaitForRoom(int fd) {
  const auto deadline = std::chrono::steady_clock::now() + kPipeTimeout;
  pollfd room = {fd, POLLOUT, 0};
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int ready = poll(&room, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

}  // namespace

oxEventAppendFile::~oxEventAppendFile() {
  if (IsOpen()) close(fd_);
}

bool oxEventAppendFile::Open(const std::string& path) {
  // Non-blocking until SetBlocking: a reload must not hang on a pipe that has no reader or is full.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  fd_ = open(path.c_str(), kFlags | O_EXCL, kFileMode);
  created_ = IsOpen();
  if (!created_ && errno == EEXIST) fd_ = open(path.c_str(), kFlags, kFileMode);
  return IsOpen();
}

void oxEventAppendFile::RemoveIfCreated(const std::string& path, size_t size) const {
  struct stat own, named;
  if (!created_ || fstat(fd_, &own) != 0 || lstat(path.c_str(), &named) != 0) return;
  if (own.st_dev != named.st_dev || own.st_ino != named.st_ino || own.st_size != static_cast<off_t>(size)) return;
  unlink(path.c_str());
}

void oxEventAppendFile::SetBlocking() { fcntl(fd_, F_SETFL, O_APPEND); }

size_t oxEventAppendFile::Write(const char* bytes, size_t size, Wait wait) {
  if (size == 0) return 0;
  const oxEventSignalBlock block(oxEventSignalBlock::kFileErrors);
  const oxEventCancelBlock cancel_block;  // A cancellation could leave written bytes uncounted.
  if (wait == kNoWait) fcntl(fd_, F_SETFL, O_APPEND | O_NONBLOCK);
  size_t done = 0;
  while (done != size) {
    const ssize_t written = write(fd_, bytes + done, size - done);
    error_ = written < 0 ? errno : 0;
    if (error_ == EINTR || (error_ == EAGAIN && wait == kWait && WaitForRoom(fd_))) continue;
    if (written <= 0) break;
    last_write_ = static_cast<size_t>(written);
    done += last_write_;
  }
  if (wait == kNoWait) SetBlocking();
  return done;
}

bool oxEventAppendFile::IsOutOfSpace() const { return error_ == ENOSPC || error_ == EDQUOT; }

bool oxEventAppendFile::IsFullPipe() const { return error_ == EAGAIN; }

bool oxEventAppendFile::HasContent() const { return lseek(fd_, 0, SEEK_END) > 0; }

void oxEventAppendFile::TruncateTail(size_t size) {
  if (size == 0 || size > last_write_) return;
  const off_t end = lseek(fd_, 0, SEEK_CUR);
  if (lseek(fd_, 0, SEEK_END) != end) return;
  // Fails on a pipe, and on a file with the append-only attribute, which therefore keeps its tail.
  while (ftruncate(fd_, end - static_cast<off_t>(size)) != 0 && errno == EINTR) continue;
}

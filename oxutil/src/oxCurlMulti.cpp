#include "oxCurlMulti.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

namespace {

constexpr int kWakeups = 11;  // Another socket pair is unlikely to have exactly this many unread bytes.
constexpr int kMaxAttempts = 10;

// The two lowest free descriptors. The next socketpair() returns them unless another thread opens one in between.
struct DescriptorPair {
  DescriptorPair() {
    const int first = eventfd(0, EFD_CLOEXEC);
    const int second = eventfd(0, EFD_CLOEXEC);
    close(first);
    close(second);
    read_end = std::min(first, second);
    write_end = std::max(first, second);
  }
  int read_end;
  int write_end;
};

// Returns whether the pair belongs to the multi handle: each curl_multi_wakeup writes one byte to one end of the
// handle's pair, and the byte stays unread at the other end.
bool IsWakeupPair(const DescriptorPair& pair, CURLM* multi) {
  for (int i = 0; i < kWakeups; ++i) curl_multi_wakeup(multi);
  int unread = 0;
  int unsent = 0;
  ioctl(pair.read_end, FIONREAD, &unread);  // If a call fails, its number stays 0.
  ioctl(pair.write_end, SIOCOUTQ, &unsent);
  return unread == kWakeups && unsent > 0;
}

// Newer versions of libcurl wake up through an eventfd, which is close-on-exec and, unlike sockets, files and pipes,
// cannot say how many bytes it has.
bool IsCloseOnExecEventfd(int fd) {
  int bytes = 0;
  return ioctl(fd, FIONREAD, &bytes) != 0 && fcntl(fd, F_GETFD) == FD_CLOEXEC;
}

}  // namespace

CURLM* oxCurlMultiInit() {
  CURLM* multi = nullptr;
  for (int i = 0; i < kMaxAttempts; ++i) {
    curl_multi_cleanup(multi);
    const DescriptorPair pair;
    multi = curl_multi_init();
    if (multi != nullptr && IsCloseOnExecEventfd(pair.read_end)) break;
    if (multi == nullptr || !IsWakeupPair(pair, multi)) continue;
    fcntl(pair.read_end, F_SETFD, FD_CLOEXEC);
    fcntl(pair.write_end, F_SETFD, FD_CLOEXEC);
    break;
  }
  return multi;
}

#include "oxHTTPWakeUp.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

namespace {

constexpr int kMarks = 11;  // As many unread bytes as hardly ever wait elsewhere.
constexpr int kTries = 10;

// The two lowest free descriptors: what the next socketpair gets, unless another thread comes between.
struct Pair {
  Pair() {
    const int first = eventfd(0, EFD_CLOEXEC);
    const int second = eventfd(0, EFD_CLOEXEC);
    close(first);
    close(second);
    reading = std::min(first, second);
    writing = std::max(first, second);
  }
  int reading;
  int writing;
};

bool Holds(int fd, unsigned long request, bool marked) {
  int bytes = 0;
  if (ioctl(fd, request, &bytes) != 0) return false;
  return request == FIONREAD ? bytes == (marked ? kMarks : 0) : (bytes > 0) == marked;
}

// Whether these are the multi handle's: a wake-up is a byte that goes in at one end and waits at the other.
bool IsWakeUpPair(const Pair& pair, CURLM* multi) {
  const auto both_hold = [&](bool marked) {
    return Holds(pair.reading, FIONREAD, marked) && Holds(pair.writing, SIOCOUTQ, marked);
  };
  if (!both_hold(false)) return false;
  for (int i = 0; i < kMarks; ++i) curl_multi_wakeup(multi);
  return both_hold(true);
}

}  // namespace

CURLM* oxHTTPMultiInit() {
  CURLM* multi = nullptr;
  for (int i = 0; i < kTries; ++i) {
    curl_multi_cleanup(multi);
    const Pair pair;
    multi = curl_multi_init();
    if (multi == nullptr || !IsWakeUpPair(pair, multi)) continue;
    fcntl(pair.reading, F_SETFD, FD_CLOEXEC);
    fcntl(pair.writing, F_SETFD, FD_CLOEXEC);
    break;
  }
  return multi;
}

#include "oxHTTPWakeUp.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr int kMarks = 3;

struct FolderClose {
  void operator()(DIR* folder) const { closedir(folder); }
};

bool IsUnixSocket(int fd) {
  int domain = 0;
  socklen_t size = sizeof(domain);
  return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
}

std::vector<int> UnixSockets() {
  std::vector<int> sockets;
  const std::unique_ptr<DIR, FolderClose> folder(opendir("/proc/self/fd"));
  if (folder == nullptr) return sockets;
  while (const dirent* entry = readdir(folder.get())) {
    int fd = -1;
    std::from_chars(entry->d_name, entry->d_name + std::strlen(entry->d_name), fd);
    if (fd >= 0 && IsUnixSocket(fd)) sockets.push_back(fd);
  }
  std::sort(sockets.begin(), sockets.end());
  return sockets;
}

// One end has the marks to read, the other has sent what is not read yet.
bool IsMarked(int fd) {
  int readable = 0;
  int unread = 0;
  ioctl(fd, FIONREAD, &readable);
  ioctl(fd, SIOCOUTQ, &unread);
  return readable == kMarks || unread > 0;
}

}  // namespace

CURLM* oxHTTPMultiInit() {
  const std::vector<int> before = UnixSockets();
  CURLM* multi = curl_multi_init();
  if (multi == nullptr) return nullptr;
  for (int i = 0; i < kMarks; ++i) curl_multi_wakeup(multi);
  // What another thread has opened meanwhile is new too, but does not bear the marks.
  for (const int fd : UnixSockets()) {
    const bool is_new = !std::binary_search(before.begin(), before.end(), fd);
    if (is_new && IsMarked(fd)) fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  return multi;
}

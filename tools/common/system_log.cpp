#include "common/system_log.h"

#include <sys/socket.h>
#include <sys/syslog.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

// Connects as syslog(3) does, and sends nothing. Returns 0 or an errno value.
int Connect(int type) {
  const sockaddr_un address = {AF_UNIX, _PATH_LOG};
  const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  const int error = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
  close(fd);
  return error;
}

}  // namespace

std::string SystemLogFault() {
  int error = Connect(SOCK_DGRAM);
  if (error == EPROTOTYPE) error = Connect(SOCK_STREAM);
  if (error == 0) return "";
  return "cannot connect to " _PATH_LOG " (" + std::generic_category().message(error) + "): every line is lost";
}

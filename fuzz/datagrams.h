// Replaces sendto, and records the datagrams that the library sends. Include in only one source file of a target.
#pragma once

#include <sys/socket.h>

#include "fuzz.h"

inline std::vector<std::string> g_sent;

extern "C" ssize_t sendto(int /*fd*/, const void* bytes, size_t size, int /*flags*/, const sockaddr* /*to*/,
                          socklen_t /*to_size*/) {
  g_sent.emplace_back(static_cast<const char*>(bytes), size);
  return static_cast<ssize_t>(size);
}

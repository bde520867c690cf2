#include "failing_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

std::function<int(const char* call, int fd)> g_before_call;

namespace {

// The hook is off while it runs: it may use these calls itself.
bool Fails(const char* call, int fd) {
  if (!g_before_call) return false;
  auto hook = std::exchange(g_before_call, nullptr);
  const int error = hook(call, fd);
  g_before_call = std::move(hook);
  errno = error;
  return error != 0;
}

template <typename Result, typename... Arguments>
Result Real(const char* call, Arguments... arguments) {
  return reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, call))(arguments...);
}

template <typename Result, typename... Arguments>
Result Call(const char* call, int fd, Arguments... arguments) {
  return Fails(call, fd) ? -1 : Real<Result>(call, arguments...);
}

}  // namespace

extern "C" {
int openat(int fd, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = va_arg(rest, mode_t);
  va_end(rest);
  return Call<int>("openat", fd, fd, path, flags, mode);
}
ssize_t write(int fd, const void* bytes, size_t size) {
  return Call<ssize_t>("write", fd, fd, bytes, g_before_call ? std::min<size_t>(size, 1000) : size);
}
// A close that fails has closed.
int close(int fd) { return Fails("close", fd) ? (Real<int>("close", fd), errno = EIO, -1) : Real<int>("close", fd); }
int fsync(int fd) { return Call<int>("fsync", fd, fd); }
int fchmod(int fd, mode_t mode) noexcept { return Call<int>("fchmod", fd, fd, mode); }
int fchown(int fd, uid_t user, gid_t group) noexcept { return Call<int>("fchown", fd, fd, user, group); }
int fstat(int fd, struct stat* status) noexcept { return Call<int>("fstat", fd, fd, status); }
int fstatat(int fd, const char* path, struct stat* status, int flags) noexcept {
  return Call<int>("fstatat", fd, fd, path, status, flags);
}
int faccessat(int fd, const char* path, int mode, int flags) noexcept {
  return Call<int>("faccessat", fd, fd, path, mode, flags);
}
int renameat(int fd, const char* from, int to_fd, const char* to) noexcept {
  return Call<int>("renameat", fd, fd, from, to_fd, to);
}
ssize_t lgetxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  return Call<ssize_t>("lgetxattr", -1, path, name, value, size);
}
int fsetxattr(int fd, const char* name, const void* value, size_t size, int flags) noexcept {
  return Call<int>("fsetxattr", fd, fd, name, value, size, flags);
}
int fremovexattr(int fd, const char* name) noexcept { return Call<int>("fremovexattr", fd, fd, name); }
}

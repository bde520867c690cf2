#include "oxCFGFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "oxCFGDescriptor.h"

namespace {

bool IsAcceptable(const struct stat& file) {
  return S_ISREG(file.st_mode) && file.st_size <= static_cast<off_t>(oxCFGFile::kMaxBytes);
}

bool ReadAll(int fd, std::string* bytes) {
  char chunk[16 * 1024];
  for (;;) {
    const ssize_t size = oxCFGRepeatIfInterrupted([&] { return read(fd, chunk, sizeof(chunk)); });
    if (size <= 0) return size == 0;
    bytes->append(chunk, static_cast<size_t>(size));
    if (bytes->size() > oxCFGFile::kMaxBytes) return false;
  }
}

}  // namespace

bool oxCFGFile::Read(const char* path, std::string* bytes) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path, nullptr), &free);
  // Checks the type before the open too, because opening a device can have side effects.
  if (resolved == nullptr || stat(resolved.get(), &status_) != 0 || !IsAcceptable(status_)) return false;
  const oxCFGDescriptor file(open(resolved.get(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (fstat(file.Get(), &status_) != 0 || !IsAcceptable(status_)) return false;
  const std::string_view absolute = resolved.get();
  const size_t name_at = absolute.rfind('/') + 1;
  directory_ = absolute.substr(0, name_at);
  name_ = absolute.substr(name_at);
  return ReadAll(file.Get(), bytes);
}

#include "platform/oxEventPlatformFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "base/oxEventCopyString.h"
#include "base/oxEventErrorText.h"
#include "oxutil.h"

namespace {

constexpr mode_t kDirectoryMode = 0775;
constexpr uint32_t kMakeDirCapacity = 1024;  // Bytes of the longest path passed to oxOSMakeDir, with its NUL.
constexpr char kSeparators[] = "/\\";

bool IsDriveRoot(std::string_view path) { return path.size() == 3 && path[1] == ':'; }

std::string TrimTrailingSeparators(std::string path) {
  while (path.size() > 1 && (path.back() == '/' || path.back() == '\\') && !IsDriveRoot(path)) path.pop_back();
  return path;
}

std::string ParentPath(const std::string& path) {
  const std::string trimmed = TrimTrailingSeparators(path);
  const size_t separator = trimmed.find_last_of(kSeparators);
  if (separator == std::string::npos) return "";
  if (separator == 0) return trimmed.substr(0, 1);
  if (separator == 2 && trimmed[1] == ':') return trimmed.substr(0, 3);
  return trimmed.substr(0, separator);
}

bool IsDirectory(const std::string& path) {
  if (oxOSFileIsDir(path.c_str()) != 0) return true;
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool EnsureDirectory(const std::string& path, std::string* error) {
  const std::string trimmed = TrimTrailingSeparators(path);
  if (IsDirectory(trimmed)) return true;
  const std::string parent = ParentPath(trimmed);
  if (!parent.empty() && parent != trimmed && !EnsureDirectory(parent, error)) return false;

  char shortened[kMakeDirCapacity];
  oxEventPlatformCopyString(shortened, kMakeDirCapacity, trimmed.c_str());
  oxOSMakeDir(shortened, kDirectoryMode);
  if (!IsDirectory(trimmed)) mkdir(trimmed.c_str(), kDirectoryMode);
  if (IsDirectory(trimmed)) return true;
  oxEventSetErrorText(oxEventErrors::kCsvDirectory, {trimmed}, error);
  return false;
}

}  // namespace

bool oxEventPlatformEnsureParentDirectory(const std::string& path, std::string* error) {
  const std::string parent = ParentPath(path);
  return parent.empty() || EnsureDirectory(parent, error);
}

bool oxEventPlatformFileHasContent(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return false;
  const off_t size = lseek(fd, 0, SEEK_END);
  close(fd);
  return size >= 1;
}

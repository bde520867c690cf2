// The file behind a settings store.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

// A file that is read and replaced as a whole: at any moment it contains the old or the new bytes.
// Threads: one at a time. Errors: false. No descriptor stays open between calls.
class oxCFGFile {
 public:
  static constexpr size_t kMaxBytes = size_t{64} << 20;

  // Reads a regular file of at most kMaxBytes and remembers its path and status.
  bool Read(const char* path, std::string* bytes);

  // Replaces the file with a new one that contains `bytes` and has the owner, mode and extended attributes of the old
  // one. Fails without leaving a new file behind if any step fails, or if the old file is write-protected or has been
  // changed by someone else.
  bool Replace(std::string_view bytes);

 private:
  std::string directory_;  // Absolute, without symbolic links, ends with a slash; remains valid after a chdir.
  std::string name_;
  struct stat status_ = {};  // Of the file when it was read or last replaced.
};

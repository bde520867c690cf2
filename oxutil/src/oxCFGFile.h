// The file behind a settings store.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

// A file that is read and replaced as a whole: a reader finds the old or the new content, always complete.
// Threads: one at a time. Errors: the methods return false. No descriptor stays open between calls.
class oxCFGFile {
 public:
  static constexpr size_t kMaxBytes = size_t{64} << 20;

  // Reads a regular file of at most kMaxBytes and remembers its path and status.
  bool Read(const char* path, std::string* bytes);

  // Replaces the file with a new one that contains `bytes` and has the owner, mode and extended attributes of the old
  // one. Fails, and leaves no new file behind, if a step before the rename fails, if there are more than kMaxBytes, if
  // the old file is write-protected, or if anyone else has changed it. Also fails if the directory cannot be synced
  // after the rename.
  bool Replace(std::string_view bytes);

 private:
  std::string directory_;  // Absolute, so that a chdir does not matter; without symbolic links; ends with a slash.
  std::string name_;
  struct stat status_ = {};  // Of the file when it was read or last replaced.
};

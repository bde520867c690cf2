// The file behind a settings store.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <string_view>

// A file that is read whole and replaced whole: at any moment it holds the old or the new bytes.
// Threads: one at a time. Errors: false. No descriptor stays open between calls.
class oxCFGFile {
 public:
  static constexpr size_t kMaxBytes = size_t{64} << 20;

  // Reads a regular file of at most kMaxBytes and remembers which one it was.
  bool Read(const char* path, std::string* bytes);

  // Puts a file with `bytes` and the owner, mode and extended attributes of the one that was read in its place. Fails,
  // leaving nothing behind, when any step does, when the file must not be written, or when somebody else has changed it
  // meanwhile.
  bool Replace(std::string_view bytes);

 private:
  std::string folder_;  // Absolute, with a slash at the end, no symbolic link: valid after a chdir.
  std::string name_;
  struct stat known_ = {};  // The file's status when it was read or last replaced.
};

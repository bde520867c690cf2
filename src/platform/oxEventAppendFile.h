#pragma once

#include <cstddef>
#include <string>

// A file that bytes are appended to. Owns its descriptor. Threads: one at a time.
class oxEventAppendFile {
 public:
  oxEventAppendFile() = default;
  ~oxEventAppendFile();
  oxEventAppendFile(const oxEventAppendFile&) = delete;
  oxEventAppendFile& operator=(const oxEventAppendFile&) = delete;

  // Creates the file if it is missing. Never blocks; a pipe without a reader is an error.
  bool Open(const std::string& path);
  // Removes the file at `path`, which Open was called with, if Open has created it and it has only `size` bytes.
  void RemoveIfCreated(const std::string& path, size_t size) const;
  bool IsOpen() const { return fd_ >= 0; }
  // kNoWait: Write returns as soon as a pipe is full.
  enum Wait { kWait, kNoWait };
  // Returns the number of bytes written, which is less than `size` if the write fails. Raises no signal. Before
  // SetBlocking, a pipe that stays full for one second fails the write.
  size_t Write(const char* bytes, size_t size, Wait wait = kWait);
  // Why the last write failed.
  bool IsOutOfSpace() const;
  bool IsFullPipe() const;
  // Returns whether this is a regular file that is not empty.
  bool HasContent() const;
  // From now on a write to a full pipe waits for its reader without a time limit.
  void SetBlocking();
  // Removes the last `size` bytes written. Does nothing if the file is not a regular file, or if another process has
  // appended bytes after them or may have appended bytes between them.
  void TruncateTail(size_t size);

 private:
  int fd_ = -1;
  bool created_ = false;
  size_t last_write_ = 0;  // Bytes that the last successful write call appended in one piece.
  int error_ = 0;          // errno of the last failed write.
};

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
  // Removes the file if Open has created it, if it is still at `path`, the path of Open, and if it has exactly `size`
  // bytes.
  void RemoveIfCreated(const std::string& path, size_t size) const;
  bool IsOpen() const { return fd_ >= 0; }
  // kNoWait: Write returns as soon as a pipe is full.
  enum Wait { kWait, kNoWait };
  // Returns the number of bytes written, which is less than `size` if the write fails or, with kNoWait, a pipe is full.
  // The host receives no signal. Before SetBlocking, the write fails if a pipe stays full for one second.
  size_t Write(const char* bytes, size_t size, Wait wait = kWait);
  // Why the last write failed.
  bool IsOutOfSpace() const;
  bool IsFullPipe() const;
  // Returns whether the file has content; false for a pipe.
  bool HasContent() const;
  // From now on a write to a full pipe with kWait waits for the reader without a time limit.
  void SetBlocking();
  // Removes the last `size` bytes written. Does nothing if the file is not a regular file, or if another process has
  // appended bytes after them or may have appended bytes between them.
  void TruncateTail(size_t size);

 private:
  int fd_ = -1;
  bool created_ = false;
  size_t last_write_ = 0;  // Bytes that the last successful write call appended in one piece.
  int error_ = 0;          // errno of the last write call; 0 if it succeeded.
};

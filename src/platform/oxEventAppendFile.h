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
  bool IsOpen() const { return fd_ >= 0; }
  // kNoWait: a full pipe ends the write at once.
  enum Wait { kWait, kNoWait };
  // Returns the number of bytes written, which is less than `size` if the write fails. Raises no signal. Before
  // SetBlocking, a pipe that stays full for one second fails the write.
  size_t Write(const char* bytes, size_t size, Wait wait = kWait);
  // Why the last write failed.
  bool IsOutOfSpace() const;
  bool IsFullPipe() const;
  // False for anything but a regular file.
  bool HasContent() const;
  // From now on a write waits for the reader of a pipe, without a limit.
  void SetBlocking();
  // Cuts off the last `size` bytes written. Does nothing if another process has appended after them, or may have
  // written between them, or if the file is not a regular one.
  void TruncateTail(size_t size);

 private:
  int fd_ = -1;
  size_t last_write_ = 0;  // Bytes that the last successful write call appended in one piece.
  int error_ = 0;          // errno of the last failed write.
};

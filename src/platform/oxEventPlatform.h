#pragma once

#include <pthread.h>
#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/oxEventCopyString.h"
#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"

// What the library asks of the operating system and of the companion library, settings aside. Any thread.

// Nanoseconds of the PTP clock, since 1970-01-01T00:00:00Z.
uint64_t oxEventPlatformGetPtpNano();

// Milliseconds of a clock that is never set, modulo 2^32.
uint32_t oxEventPlatformGetMs();

// Creates what is missing of the folder that `path` lies in, each level with mode 0775 less the umask.
bool oxEventPlatformEnsureParentDirectory(const std::string& path, std::string* error);

// Names the calling thread, with at most 15 bytes. (Of another thread, the C library would leave a descriptor to an
// exec.)
void oxEventPlatformNameThread(const char* name);

// Blocks signals of the calling thread for its lifetime.
class oxEventSignalBlock {
 public:
  // kAll: a thread started meanwhile begins, and stays, with every signal blocked. kFileErrors: a write of ours over
  // the process's file size limit, or into a broken pipe, is an error code and nothing that ends the host.
  enum Which { kAll, kFileErrors };
  explicit oxEventSignalBlock(Which which);
  ~oxEventSignalBlock();
  oxEventSignalBlock(const oxEventSignalBlock&) = delete;
  oxEventSignalBlock& operator=(const oxEventSignalBlock&) = delete;

 private:
  void TakeBackFileErrors() const;

  const Which which_;
  sigset_t old_mask_;
  sigset_t pending_before_;  // Someone else's.
};

// For its lifetime a cancellation of the calling thread waits: unwinding would break off what has to be whole.
class oxEventCancelBlock {
 public:
  oxEventCancelBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_); }
  ~oxEventCancelBlock() { pthread_setcancelstate(old_state_, nullptr); }
  oxEventCancelBlock(const oxEventCancelBlock&) = delete;
  oxEventCancelBlock& operator=(const oxEventCancelBlock&) = delete;

 private:
  int old_state_ = PTHREAD_CANCEL_ENABLE;
};

// A file that bytes are appended to. Owns its descriptor. Threads: one at a time.
class oxEventAppendFile {
 public:
  oxEventAppendFile() = default;
  ~oxEventAppendFile();
  oxEventAppendFile(const oxEventAppendFile&) = delete;
  oxEventAppendFile& operator=(const oxEventAppendFile&) = delete;

  // Creates the file when it is missing. Never waits, a pipe without a reader included.
  bool Open(const std::string& path);
  bool IsOpen() const { return fd_ >= 0; }
  // kNoWait: a pipe without room ends the write at once.
  enum Wait { kWait, kNoWait };
  // Returns the number of bytes written: fewer than `size` when it breaks off. Raises no signal. Until StartWaiting, a
  // pipe without room for a second ends it.
  size_t Write(const char* bytes, size_t size, Wait wait = kWait);
  // Why the last write broke off.
  bool IsOutOfSpace() const;
  bool IsFullPipe() const;
  // Whether the file holds any byte. False for anything but a regular file.
  bool HasContent() const;
  // From now on a write waits for the reader of a pipe, however long.
  void StartWaiting();
  // Cuts off the last bytes written. Does nothing where somebody else has written behind or perhaps among them, nor to
  // what is no regular file.
  void TakeBack(size_t size);

 private:
  int fd_ = -1;
  size_t last_write_ = 0;  // Bytes that went into the file in one piece.
  int error_ = 0;          // errno of a write that broke off.
};

// False when it cannot be opened for reading, or holds nothing.
bool oxEventPlatformFileHasContent(const std::string& path);

// Posts a body over HTTP, and waits for the answer up to timeout_ms. `header_block`: lines with one byte 0xA7 between
// two of them. True: the server has accepted it.
bool oxEventPlatformHttpPost(const std::string& url, const std::string& header_block, const std::string& body,
                             uint32_t timeout_ms);

// The environment variable by which the caller of a process with more rights would steer the HTTP client, which does
// not start then; else null.
const char* oxEventPlatformHttpSteeringVariable();

// The operating system's log: syslog(3), whose connection and identity belong to the whole process.
struct oxEventNativeLogHandle;
// `error` may be null.
uint32_t oxEventPlatformNativeOpen(const oxEventNativePlatformConfig& config, oxEventNativeLogHandle** handle,
                                   std::string* error);
// `warning` and `warning_text` may be null; this system's log reports nothing back, so that they stay clear.
uint32_t oxEventPlatformNativeWrite(oxEventNativeLogHandle* handle, const oxEventNormalizedEvent& event, bool* warning,
                                    std::string* warning_text);
void oxEventPlatformNativeClose(oxEventNativeLogHandle* handle);

// Around a fork, on the forking thread. Keeps the C library's log free of half-made calls of ours in the child.
void oxEventPlatformNativeBeforeFork();
void oxEventPlatformNativeAfterForkInParent();
void oxEventPlatformNativeAfterForkInChild();

// Not available on this platform. `error` may be null.
uint32_t oxEventPlatformInstallWindowsEventSource(const char* source_name, const char* message_file,
                                                  std::string* error);
uint32_t oxEventPlatformRemoveWindowsEventSource(const char* source_name, std::string* error);

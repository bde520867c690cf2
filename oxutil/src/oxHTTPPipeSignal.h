#pragma once

#include <signal.h>

#include <ctime>

// For its lifetime a write of the calling thread to a connection that is gone is an error and raises no signal. For
// TLS: libcurl sends with MSG_NOSIGNAL, but OpenSSL, where it has been given the socket, writes without.
class oxHTTPPipeSignalBlock {
 public:
  oxHTTPPipeSignalBlock() {
    sigset_t pending;
    sigpending(&pending);
    pending_before_ = sigismember(&pending, SIGPIPE) == 1;
    const sigset_t pipe = PipeSet();
    pthread_sigmask(SIG_BLOCK, &pipe, &mask_before_);
  }

  ~oxHTTPPipeSignalBlock() {
    const sigset_t pipe = PipeSet();
    const timespec at_once = {};
    if (!pending_before_) sigtimedwait(&pipe, nullptr, &at_once);
    pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
  }

  oxHTTPPipeSignalBlock(const oxHTTPPipeSignalBlock&) = delete;
  oxHTTPPipeSignalBlock& operator=(const oxHTTPPipeSignalBlock&) = delete;

 private:
  static sigset_t PipeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
  }

  sigset_t mask_before_;
  bool pending_before_;  // Someone else's.
};

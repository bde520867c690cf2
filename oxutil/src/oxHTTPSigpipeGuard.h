#pragma once

#include <signal.h>

#include <ctime>

// Blocks SIGPIPE, which a write to a closed connection raises, in the calling thread. The destructor discards
// a SIGPIPE that was raised meanwhile.
// Needed for TLS: libcurl itself sends with MSG_NOSIGNAL, but OpenSSL writes to the socket without it.
class oxHTTPSigpipeGuard {
 public:
  oxHTTPSigpipeGuard() {
    sigset_t pending;
    sigpending(&pending);
    pending_before_ = sigismember(&pending, SIGPIPE) == 1;
    const sigset_t sigpipe = SigpipeSet();
    pthread_sigmask(SIG_BLOCK, &sigpipe, &mask_before_);
  }

  ~oxHTTPSigpipeGuard() {
    const sigset_t sigpipe = SigpipeSet();
    const timespec no_wait = {};
    if (!pending_before_) sigtimedwait(&sigpipe, nullptr, &no_wait);
    pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
  }

  oxHTTPSigpipeGuard(const oxHTTPSigpipeGuard&) = delete;
  oxHTTPSigpipeGuard& operator=(const oxHTTPSigpipeGuard&) = delete;

 private:
  static sigset_t SigpipeSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return set;
  }

  sigset_t mask_before_;
  bool pending_before_;  // A signal that was pending before belongs to the host and stays pending.
};

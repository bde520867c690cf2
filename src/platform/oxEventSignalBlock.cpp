#include "platform/oxEventSignalBlock.h"

#include <ctime>

namespace {

constexpr int kFileErrorSignals[] = {SIGXFSZ, SIGPIPE};

}  // namespace

oxEventSignalBlock::oxEventSignalBlock(Which which) : which_(which) {
  sigset_t signals;
  sigfillset(&signals);
  if (which == kFileErrors) {
    sigemptyset(&signals);
    for (const int signal : kFileErrorSignals) sigaddset(&signals, signal);
    sigpending(&pending_before_);
  }
  pthread_sigmask(SIG_BLOCK, &signals, &old_mask_);
}

oxEventSignalBlock::~oxEventSignalBlock() {
  if (which_ == kFileErrors) DiscardNewFileErrors();
  pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
}

void oxEventSignalBlock::DiscardNewFileErrors() const {
  sigset_t pending;
  sigpending(&pending);
  for (const int signal : kFileErrorSignals) {
    if (sigismember(&pending, signal) != 1 || sigismember(&pending_before_, signal) == 1) continue;
    sigset_t discarded;
    sigemptyset(&discarded);
    sigaddset(&discarded, signal);
    const timespec no_wait = {};
    sigtimedwait(&discarded, nullptr, &no_wait);
  }
}

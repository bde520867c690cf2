#pragma once

#include <pthread.h>
#include <signal.h>

// While an object exists, the signals are blocked in the thread that constructed it.
class oxEventSignalBlock {
 public:
  // kAll: every signal, so that a thread that is started meanwhile inherits this mask. kFileErrors: SIGXFSZ and
  // SIGPIPE, so that a write beyond the process's file size limit, or into a broken pipe, fails with an error code
  // instead of ending the host; the destructor discards such a signal.
  enum Which { kAll, kFileErrors };
  explicit oxEventSignalBlock(Which which);
  ~oxEventSignalBlock();
  oxEventSignalBlock(const oxEventSignalBlock&) = delete;
  oxEventSignalBlock& operator=(const oxEventSignalBlock&) = delete;

 private:
  void DiscardNewFileErrors() const;

  const Which which_;
  sigset_t old_mask_;
  sigset_t pending_before_;  // Signals that belong to the host and stay pending.
};

// While an object exists, a cancellation of the thread that constructed it is deferred, because unwinding would
// interrupt work that must be completed.
class oxEventCancelBlock {
 public:
  oxEventCancelBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_); }
  ~oxEventCancelBlock() { pthread_setcancelstate(old_state_, nullptr); }
  oxEventCancelBlock(const oxEventCancelBlock&) = delete;
  oxEventCancelBlock& operator=(const oxEventCancelBlock&) = delete;

 private:
  int old_state_ = PTHREAD_CANCEL_ENABLE;
};

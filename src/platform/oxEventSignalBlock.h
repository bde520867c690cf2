#pragma once

#include <pthread.h>
#include <signal.h>

// Blocks signals in the calling thread for its lifetime.
class oxEventSignalBlock {
 public:
  // kAll: a thread that is started meanwhile begins, and stays, with every signal blocked. kFileErrors: a write by the
  // library beyond the process's file size limit, or into a broken pipe, fails with an error code instead of a signal
  // that would end the host.
  enum Which { kAll, kFileErrors };
  explicit oxEventSignalBlock(Which which);
  ~oxEventSignalBlock();
  oxEventSignalBlock(const oxEventSignalBlock&) = delete;
  oxEventSignalBlock& operator=(const oxEventSignalBlock&) = delete;

 private:
  void DiscardNewFileErrors() const;

  const Which which_;
  sigset_t old_mask_;
  sigset_t pending_before_;  // Signals of the host's own, which stay pending.
};

// Defers cancellation of the calling thread for its lifetime: unwinding would interrupt what must be completed.
class oxEventCancelBlock {
 public:
  oxEventCancelBlock() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_); }
  ~oxEventCancelBlock() { pthread_setcancelstate(old_state_, nullptr); }
  oxEventCancelBlock(const oxEventCancelBlock&) = delete;
  oxEventCancelBlock& operator=(const oxEventCancelBlock&) = delete;

 private:
  int old_state_ = PTHREAD_CANCEL_ENABLE;
};

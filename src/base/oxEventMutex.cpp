#include "base/oxEventMutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "base/oxEventArchitecture.h"

namespace {

// The function syscall is not a cancellation point, so no thread can be cancelled while it locks a mutex.
void CallFutex(std::atomic<uint32_t>* word, int operation, uint32_t value) {
  const int saved_errno = errno;  // The caller of Submit may rely on it.
  syscall(SYS_futex, word, operation, value, nullptr, nullptr, 0);
  errno = saved_errno;
}

}  // namespace

// Most locks are held for nanoseconds: spinning for a moment costs less than going to sleep. A thread that has given up
// spinning locks the mutex as contended, because it cannot know whether other threads sleep.
void oxEventMutex::LockContended() {
  constexpr int kSpins = 50;  // Up to a few microseconds, depending on the processor.
  for (int i = 0; i < kSpins; ++i) {
    oxEventSpinPause();
    if (TryLock()) return;
  }
  while (state_.exchange(kContended, std::memory_order_acquire) != kFree) {
    CallFutex(&state_, FUTEX_WAIT_PRIVATE, kContended);
  }
}

void oxEventMutex::WakeOne() { CallFutex(&state_, FUTEX_WAKE_PRIVATE, 1); }

oxEventCondition::Waiter::Waiter(oxEventCondition* condition, oxEventMutex* mutex)
    : lock(condition->wait_mutex_), condition_(condition), mutex_(mutex) {
  condition_->waiters_.fetch_add(1, std::memory_order_relaxed);
  mutex_->Unlock();
}

oxEventCondition::Waiter::~Waiter() {
  lock.unlock();
  mutex_->Lock();
  condition_->waiters_.fetch_sub(1, std::memory_order_relaxed);
}

// Returns whether a thread waits or is about to. A notification reaches only threads that are already in their wait,
// and a thread holds wait_mutex_ from counting itself until then: locking it first therefore loses no wakeup. A relaxed
// load suffices, because a thread that tested its condition before the change counted itself before it released the
// caller's mutex, and the change was made with that mutex held.
bool oxEventCondition::HasWaiters() {
  if (waiters_.load(std::memory_order_relaxed) == 0) return false;
  const std::lock_guard<std::mutex> lock(wait_mutex_);
  return true;
}

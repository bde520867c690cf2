#include "base/oxEventMutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "base/oxEventArchitecture.h"

namespace {

void CallFutex(std::atomic<uint32_t>* word, int operation, uint32_t value) {
  const int saved_errno = errno;  // The caller of Submit may rely on it.
  syscall(SYS_futex, word, operation, value, nullptr, nullptr, 0);
  errno = saved_errno;
}

}  // namespace

// Most locks are held for nanoseconds: spinning for a moment costs less than going to sleep.
void oxEventMutex::LockContended() {
  constexpr int kSpins = 50;
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

// If so, returns once each thread that has counted itself is really waiting.
bool oxEventCondition::HasWaiters() {
  if (waiters_.load(std::memory_order_relaxed) == 0) return false;
  const std::lock_guard<std::mutex> lock(wait_mutex_);
  return true;
}

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "base/oxEventArchitecture.h"

// Annotations for clang's -Wthread-safety; empty for other compilers.
#if defined(__clang__)
#define OX_THREAD(x) __attribute__((x))
#else
#define OX_THREAD(x)
#endif
#define OX_GUARDED_BY(m) OX_THREAD(guarded_by(m))
#define OX_REQUIRES(m) OX_THREAD(requires_capability(m))
#define OX_EXCLUDES(m) OX_THREAD(locks_excluded(m))

// std::mutex with annotations for the thread-safety analysis. Trivially destructible, so that a mutex with static
// storage remains usable until the process ends.
class OX_THREAD(capability("mutex")) oxEventMutex {
 public:
  constexpr oxEventMutex() = default;
  oxEventMutex(const oxEventMutex&) = delete;
  oxEventMutex& operator=(const oxEventMutex&) = delete;

  // Most locks are held for nanoseconds: spinning for a moment costs less than going to sleep.
  void Lock() OX_THREAD(acquire_capability()) {
    constexpr int kSpins = 50;
    for (int i = 0; i < kSpins; ++i) {
      if (mutex_.try_lock()) return;
      oxEventSpinPause();
    }
    mutex_.lock();
  }
  bool TryLock() OX_THREAD(try_acquire_capability(true)) { return mutex_.try_lock(); }
  bool TryLockFor(uint32_t timeout_ms) OX_THREAD(try_acquire_capability(true)) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!mutex_.try_lock()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  void Unlock() OX_THREAD(release_capability()) { mutex_.unlock(); }

 private:
  friend class oxEventCondition;
  std::mutex mutex_;
};

class OX_THREAD(scoped_lockable) oxEventLock {
 public:
  explicit oxEventLock(oxEventMutex& mutex) OX_THREAD(acquire_capability(mutex)) : mutex_(mutex) { mutex_.Lock(); }
  oxEventLock(oxEventMutex& mutex, std::adopt_lock_t /*locked*/) OX_REQUIRES(mutex) : mutex_(mutex) {}
  ~oxEventLock() OX_THREAD(release_capability()) { mutex_.Unlock(); }
  oxEventLock(const oxEventLock&) = delete;
  oxEventLock& operator=(const oxEventLock&) = delete;

 private:
  oxEventMutex& mutex_;
};

// std::condition_variable for an oxEventMutex. A wait may end without a reason: wait in a loop.
class oxEventCondition {
 public:
  void Wait(oxEventMutex& mutex) OX_REQUIRES(mutex) {
    AdoptedLock adopted(mutex);
    condition_.wait(adopted.lock);
  }
  void WaitUntil(oxEventMutex& mutex, std::chrono::steady_clock::time_point deadline) OX_REQUIRES(mutex) {
    AdoptedLock adopted(mutex);
    condition_.wait_until(adopted.lock, deadline);
  }
  void NotifyOne() { condition_.notify_one(); }
  void NotifyAll() { condition_.notify_all(); }

 private:
  // Passes the caller's lock to the wait and returns it on every exit path, including thread cancellation.
  struct AdoptedLock {
    explicit AdoptedLock(oxEventMutex& mutex) : lock(mutex.mutex_, std::adopt_lock) {}
    ~AdoptedLock() { lock.release(); }
    std::unique_lock<std::mutex> lock;
  };
  std::condition_variable condition_;
};

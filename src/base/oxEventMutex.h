#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

// Annotations for clang's -Wthread-safety; empty for other compilers.
#if defined(__clang__)
#define OX_THREAD(x) __attribute__((x))
#else
#define OX_THREAD(x)
#endif
#define OX_GUARDED_BY(m) OX_THREAD(guarded_by(m))
#define OX_REQUIRES(m) OX_THREAD(requires_capability(m))
#define OX_EXCLUDES(m) OX_THREAD(locks_excluded(m))

// A mutex of one word (Drepper, "Futexes Are Tricky", 2011, mutex 2), with annotations for the thread-safety analysis.
// Locking and unlocking it takes 8 instructions, a pthread_mutex_t 70, and the worker does so five times for each
// event. Trivially destructible, so that a mutex with static storage remains usable until the process ends.
class OX_THREAD(capability("mutex")) oxEventMutex {
 public:
  constexpr oxEventMutex() = default;
  oxEventMutex(const oxEventMutex&) = delete;
  oxEventMutex& operator=(const oxEventMutex&) = delete;

  void Lock() OX_THREAD(acquire_capability()) {
    if (!TryLock()) LockContended();
  }
  bool TryLock() OX_THREAD(try_acquire_capability(true)) {
    uint32_t expected = kFree;
    return state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire, std::memory_order_relaxed);
  }
  // Polls, so it may return up to a millisecond after the mutex was unlocked.
  bool TryLockFor(uint32_t timeout_ms) OX_THREAD(try_acquire_capability(true)) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!TryLock()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  void Unlock() OX_THREAD(release_capability()) {
    if (state_.exchange(kFree, std::memory_order_release) == kContended) WakeOne();
  }

 private:
  enum State : uint32_t { kFree, kLocked, kContended };  // kContended: locked, and a thread may be waiting.

  void LockContended() OX_THREAD(acquire_capability()) OX_THREAD(no_thread_safety_analysis);
  void WakeOne();

  std::atomic<uint32_t> state_ = kFree;
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

// A condition variable for an oxEventMutex. A wait may end without a notification: wait in a loop. Waits are
// cancellation points. Make the change with the mutex held, then notify, with the mutex held or released.
class oxEventCondition {
 public:
  void Wait(oxEventMutex& mutex) OX_REQUIRES(mutex) {
    Waiter waiter(this, &mutex);
    condition_.wait(waiter.lock);
  }
  void WaitUntil(oxEventMutex& mutex, std::chrono::steady_clock::time_point deadline) OX_REQUIRES(mutex) {
    Waiter waiter(this, &mutex);
    condition_.wait_until(waiter.lock, deadline);
  }
  void NotifyOne() {
    if (HasWaiters()) condition_.notify_one();
  }
  void NotifyAll() {
    if (HasWaiters()) condition_.notify_all();
  }

 private:
  // Releases the caller's mutex during the wait, and takes it again on every exit path, including thread cancellation.
  class Waiter {
   public:
    Waiter(oxEventCondition* condition, oxEventMutex* mutex);
    ~Waiter();
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    std::unique_lock<std::mutex> lock;

   private:
    oxEventCondition* const condition_;
    oxEventMutex* const mutex_;
  };

  bool HasWaiters();

  std::atomic<uint32_t> waiters_ = 0;  // Changed with the caller's mutex held.
  std::mutex wait_mutex_;  // Held by a thread from counting itself until it waits. Locked after the caller's mutex.
  std::condition_variable condition_;
};

#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

// What clang's -Wthread-safety checks; nothing for other compilers.
#if defined(__clang__)
#define OX_THREAD(x) __attribute__((x))
#else
#define OX_THREAD(x)
#endif
#define OX_GUARDED_BY(m) OX_THREAD(guarded_by(m))
#define OX_REQUIRES(m) OX_THREAD(requires_capability(m))
#define OX_EXCLUDES(m) OX_THREAD(locks_excluded(m))

// std::mutex under a name that the checker knows. Trivially destroyed, so one with static storage stays usable until
// the process is gone.
class OX_THREAD(capability("mutex")) oxEventMutex {
 public:
  constexpr oxEventMutex() = default;
  oxEventMutex(const oxEventMutex&) = delete;
  oxEventMutex& operator=(const oxEventMutex&) = delete;

  // Most are held for nanoseconds: to look again for a moment costs less than to go to sleep.
  void Lock() OX_THREAD(acquire_capability()) {
    constexpr int kLooks = 50;
    for (int i = 0; i < kLooks; ++i) {
      if (mutex_.try_lock()) return;
      __builtin_ia32_pause();
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

// Waits may return without a signal: wait in a loop.
class oxEventCondition {
 public:
  void Wait(oxEventMutex& mutex) OX_REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait(held.lock);
  }
  void WaitUntil(oxEventMutex& mutex, std::chrono::steady_clock::time_point deadline) OX_REQUIRES(mutex) {
    Held held(mutex);
    condition_.wait_until(held.lock, deadline);
  }
  void NotifyOne() { condition_.notify_one(); }
  void NotifyAll() { condition_.notify_all(); }

 private:
  // Lends the caller's lock to the wait and gives it back on every way out, thread cancellation included.
  struct Held {
    explicit Held(oxEventMutex& mutex) : lock(mutex.mutex_, std::adopt_lock) {}
    ~Held() { lock.release(); }
    std::unique_lock<std::mutex> lock;
  };
  std::condition_variable condition_;
};

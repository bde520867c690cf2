#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "poster/oxEventAlertList.h"

// Posts the alerts of one list to one Alertmanager, on a thread of its own. Threads: any.
class oxEventAlertPoster {
 public:
  // `config` must be complete and valid. Throws if the HTTP client cannot be loaded, if there is no memory or if the
  // thread cannot be started.
  explicit oxEventAlertPoster(const oxEventAlertPosterConfig& config);
  ~oxEventAlertPoster() { Abort(); }
  oxEventAlertPoster(const oxEventAlertPoster&) = delete;
  oxEventAlertPoster& operator=(const oxEventAlertPoster&) = delete;

  // Never waits for a post. Throws if there is no memory.
  void Add(const oxEventRecord& event);

  // Posts the waiting alerts, and each active alert once more, for at most stop_timeout_ms, beginning at once even if
  // the last post has failed, and waits for the thread's end. Returns false at once if another call has stopped the
  // poster or is stopping it.
  bool Stop();

  // Posts nothing more; waits for the end of a post in progress and of the thread.
  void Abort();

  void GetState(oxEventAlertPosterState* state);

 private:
  using Clock = oxEventAlertList::Clock;

  void Join();
  void Run();
  bool IsDone(Clock::time_point now) const;
  Clock::time_point NextPost() const;
  void Wait(Clock::time_point until, std::unique_lock<std::mutex>* lock);
  void Post(Clock::time_point now, std::unique_lock<std::mutex>* lock);
  void CompletePost(bool accepted, int32_t status);

  // Constant after construction.
  const oxEventAlertPosterConfig config_;  // Its strings belong to the caller of the constructor: not used later.
  const std::string url_;
  const std::string headers_;

  std::mutex mutex_;  // Guards all below, except that thread_ is guarded by join_mutex_.
  std::condition_variable changed_;
  oxEventAlertList list_;
  Clock::time_point retry_at_ = Clock::time_point::min();
  Clock::duration backoff_ = {};  // 0 unless the last post failed and Stop has not been called since.
  int32_t last_status_ = 0;
  uint64_t failed_posts_ = 0;
  bool stopping_ = false;
  Clock::time_point stop_at_ = Clock::time_point::max();
  std::mutex join_mutex_;
  std::thread thread_;  // The last member: it uses the others.
};

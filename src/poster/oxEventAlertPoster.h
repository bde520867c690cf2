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
  // The configuration is complete and valid. Throws if there is no memory or no thread.
  explicit oxEventAlertPoster(const oxEventAlertPosterConfig& config);
  ~oxEventAlertPoster() { Abort(); }
  oxEventAlertPoster(const oxEventAlertPoster&) = delete;
  oxEventAlertPoster& operator=(const oxEventAlertPoster&) = delete;

  // Never waits for a post. Throws if there is no memory.
  void Add(const oxEventRecord& event);

  // Posts what waits, and each active alert once more, and waits for the thread's end. Returns false if another call
  // has stopped the poster.
  bool Stop();

  // Waits for the thread's end, which comes as soon as no post is in progress.
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
  const oxEventAlertPosterConfig config_;  // Its strings are not used.
  const std::string url_;
  const std::string headers_;

  std::mutex mutex_;  // Guards all below, except that thread_ is guarded by join_mutex_.
  std::condition_variable changed_;
  oxEventAlertList list_;
  Clock::time_point retry_at_ = Clock::time_point::min();
  Clock::duration backoff_ = {};  // 0 unless the last post failed.
  int32_t last_status_ = 0;
  uint64_t failed_posts_ = 0;
  bool stopping_ = false;
  Clock::time_point stop_at_ = Clock::time_point::max();
  std::mutex join_mutex_;
  std::thread thread_;  // The last member: it uses the others.
};

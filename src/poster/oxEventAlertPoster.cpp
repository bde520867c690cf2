#include "poster/oxEventAlertPoster.h"

#include <oxutil.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

namespace {

constexpr std::chrono::seconds kFirstBackoff{1};
constexpr std::chrono::seconds kMaxBackoff{30};

// Returns whether the Alertmanager, or a proxy in front of it, will never accept this document.
bool IsRefusal(int32_t status) { return status == 400 || status == 413 || status == 422; }

std::string HeaderLines(const char* more) {
  std::string lines = "Content-Type: application/json";
  if (more != nullptr && *more != '\0') lines.append(1, '\xA7').append(more);
  return lines;
}

void LoadHttpClient() {
  errno = 0;
  int32_t status = 0;
  oxOSHTTPCommand("", "", "", "", 0, nullptr, &status, 1);
  if (errno == ELIBACC) throw std::system_error(ELIBACC, std::generic_category());
}

// No signal handler of the host may run on the thread.
std::thread StartThreadWithoutSignals(void (*run)(oxEventAlertPoster*), oxEventAlertPoster* poster) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const struct Restore {
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    const sigset_t& mask;
  } restore{before};
  return std::thread(run, poster);
}

}  // namespace

oxEventAlertPoster::oxEventAlertPoster(const oxEventAlertPosterConfig& config)
    : config_(config),
      url_(config.url),
      headers_(HeaderLines(config.headers)),
      list_(config.alertname_prefix == nullptr ? "OxEvent" : config.alertname_prefix,
            std::chrono::milliseconds(config.repeat_interval_ms), config.max_bytes) {
  LoadHttpClient();  // An unload waits for the thread with the loader locked, so the thread must not load it.
  thread_ = StartThreadWithoutSignals([](oxEventAlertPoster* poster) { poster->Run(); }, this);
}

void oxEventAlertPoster::Add(const oxEventRecord& event) {
  const std::lock_guard lock(mutex_);
  // If alerts wait, the thread needs no wake-up: it has been notified, is in a post, or waits before a retry. Notified
  // first, because Add may have added an alert when it runs out of memory.
  if (!list_.HasWaiting()) changed_.notify_one();
  list_.Add(event, config_);
}

bool oxEventAlertPoster::Stop() {
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(stopping_, true)) return false;
    stop_at_ = Clock::now() + std::chrono::milliseconds(config_.stop_timeout_ms);
    list_.RepeatAll();
    retry_at_ = Clock::time_point::min();  // The Alertmanager may be back, and the next retry could be after stop_at_.
    backoff_ = {};
    changed_.notify_one();
  }
  Join();
  return true;
}

void oxEventAlertPoster::Abort() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    stop_at_ = Clock::time_point::min();
    changed_.notify_one();
  }
  Join();
}

void oxEventAlertPoster::GetState(oxEventAlertPosterState* state) {
  const std::lock_guard lock(mutex_);
  list_.GetState(state);
  state->last_status = last_status_;
  state->failed_posts = failed_posts_;
}

void oxEventAlertPoster::Join() {
  const std::lock_guard lock(join_mutex_);
  if (thread_.joinable()) thread_.join();
}

void oxEventAlertPoster::Run() {
  pthread_setname_np(pthread_self(), "oxAlertPoster");
  std::unique_lock lock(mutex_);
  for (Clock::time_point now = Clock::now(); !IsDone(now); now = Clock::now()) {
    if (NextPost() <= now) {
      Post(now, &lock);
    } else {
      Wait(std::min(NextPost(), stop_at_), &lock);
    }
  }
}

bool oxEventAlertPoster::IsDone(Clock::time_point now) const {
  return stopping_ && (now >= stop_at_ || !list_.HasWaiting());
}

oxEventAlertPoster::Clock::time_point oxEventAlertPoster::NextPost() const {
  return list_.HasWaiting() ? retry_at_ : std::max(retry_at_, list_.NextDue());
}

void oxEventAlertPoster::Wait(Clock::time_point until, std::unique_lock<std::mutex>* lock) {
  if (until == Clock::time_point::max()) return changed_.wait(*lock);
  changed_.wait_until(*lock, until);
}

// Releases the lock while the post is in progress.
void oxEventAlertPoster::Post(Clock::time_point now, std::unique_lock<std::mutex>* lock) {
  auto timeout = std::chrono::milliseconds(config_.request_timeout_ms);
  if (stopping_) timeout = std::min(timeout, std::chrono::ceil<std::chrono::milliseconds>(stop_at_ - now));
  std::string document;
  try {
    document = list_.StartPost(now);
  } catch (const std::exception&) {
    return CompletePost(false, 0);
  }
  lock->unlock();
  int32_t status = 0;
  const int32_t accepted =
      oxOSHTTPCommand(url_.c_str(), "POST", headers_.c_str(), document.c_str(), static_cast<int32_t>(document.size()),
                      nullptr, &status, static_cast<uint32_t>(timeout.count()));
  lock->lock();
  CompletePost(accepted != 0, status);
}

void oxEventAlertPoster::CompletePost(bool accepted, int32_t status) {
  const Clock::time_point now = Clock::now();
  last_status_ = status;
  if (!accepted && !IsRefusal(status)) {
    ++failed_posts_;
    const Clock::duration repeat_interval = std::chrono::milliseconds(config_.repeat_interval_ms);
    const Clock::duration longest = std::min<Clock::duration>(kMaxBackoff, repeat_interval);
    backoff_ = std::min(longest, std::max<Clock::duration>(kFirstBackoff, 2 * backoff_));
    retry_at_ = now + backoff_;
    return list_.RetryPost();
  }
  accepted ? list_.CompletePost(now) : list_.RefusePost(now);
  retry_at_ = Clock::time_point::min();
  // An Alertmanager that was down may have forgotten its alerts.
  if (std::exchange(backoff_, {}) != Clock::duration{}) list_.RepeatAll();
}

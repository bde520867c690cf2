#include "alert_poster.h"

#include <oxEvent.h>
#include <oxutil.h>
#include <strings.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// An Alertmanager resolves an alert that is not posted again within its resolve_timeout, 5 minutes by default.
constexpr std::chrono::seconds kRepeat{60};
constexpr std::chrono::seconds kRetry{5};
constexpr std::chrono::seconds kStopTimeout{5};
constexpr uint32_t kTimeoutMs = 3000;
constexpr size_t kMaxAlerts = 10000;  // Further alerts are dropped. The documents of an alert are not limited.

// The fields from which the labels are made. A clear must have the labels of its raise, even if the host reports the
// clear with other fields.
struct Identity {
  uint32_t severity = 0;
  std::string event_type;
  std::string source_id;
  bool operator==(const Identity&) const = default;
};

struct Alert {
  Identity identity;
  bool active = false;
  std::string document;               // Document of the active alert, posted repeatedly.
  std::deque<std::string> documents;  // Documents to post, in order.
  Clock::time_point due;              // Time of the next post.
};

}  // namespace

struct AlertPoster {
 public:
  explicit AlertPoster(const char* url) : url_(url), thread_([this] { Run(); }) {}

  // Runs on the library's worker thread, which must not wait for a server.
  static void OnEvent(const oxEventRecord* event, void* self) { static_cast<AlertPoster*>(self)->Add(*event); }

  unsigned Stop() {
    {
      const std::lock_guard lock(mutex_);
      stop_at_ = Clock::now() + kStopTimeout;
      for (auto& [key, alert] : alerts_) alert.due = Clock::now();
    }
    changed_.notify_one();
    thread_.join();
    size_t left = 0;
    for (const auto& [key, alert] : alerts_) left += alert.documents.size();
    return static_cast<unsigned>(left);
  }

 private:
  void Add(const oxEventRecord& event) {
    const auto is_action = [&](const char* action) { return strcasecmp(event.action, action) == 0; };
    const bool clears = is_action("clear");
    const bool raises = is_action("raise") || is_action("update") || is_action("repeat");
    const std::string key = clears || raises ? ConditionKey(event) : NoticeKey(event);
    const std::lock_guard lock(mutex_);
    has_news_ = true;
    if (alerts_.size() >= kMaxAlerts && !alerts_.contains(key)) {
      std::fprintf(stderr, "alert poster: too many alerts, dropped event %llu\n",
                   static_cast<unsigned long long>(event.event_id));
      return;
    }
    Alert& alert = alerts_[key];
    const Identity identity{event.severity, event.event_type, event.source_id};
    if (alert.active && (clears || identity != alert.identity)) Resolve(event, &alert);
    if (!clears) Activate(event, identity, raises, &alert);
    changed_.notify_one();
  }

  static std::string ConditionKey(const oxEventRecord& event) {
    if (event.dedupe_key[0] != '\0') return event.dedupe_key;
    return std::string(event.source_id) + ":" + event.event_type;
  }

  // A notice is not a condition, and is posted once.
  static std::string NoticeKey(const oxEventRecord& event) { return std::to_string(event.event_id) + " notice"; }

  static void Activate(const oxEventRecord& event, const Identity& identity, bool raises, Alert* alert) {
    alert->identity = identity;
    alert->active = raises;
    alert->document = Format(event);
    alert->documents.push_back(alert->document);
    alert->due = Clock::now();
  }

  static void Resolve(oxEventRecord event, Alert* alert) {
    event.action = "clear";
    event.severity = alert->identity.severity;
    event.event_type = alert->identity.event_type.c_str();
    event.source_id = alert->identity.source_id.c_str();
    alert->documents.push_back(Format(event));
    alert->active = false;
    alert->due = Clock::now();
  }

  static std::string Format(const oxEventRecord& event) {
    oxEventAlertmanagerFormatterConfig config;
    config.allow_source_label = true;  // The same problem of two sources is two alerts.
    std::string document;
    if (oxEventFormatAlertmanagerRecord(&event, config, &document) != OXEVENT_OK) document = "[]";
    return document;
  }

  void Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      has_news_ = false;
      const Clock::time_point now = Clock::now();
      Clock::time_point next = now + kRepeat;
      bool pending = false;
      for (auto it = alerts_.begin(); it != alerts_.end();) {
        if (it->second.due <= now) Post(it->first, &lock);  // Only this thread erases alerts: `it` stays valid.
        pending |= !it->second.documents.empty();
        next = std::min(next, it->second.due);
        const bool over = !it->second.active && it->second.documents.empty();
        it = over ? alerts_.erase(it) : std::next(it);
      }
      const bool stopping = stop_at_ != Clock::time_point::max();
      if (stopping && (!pending || now >= stop_at_)) return;
      if (has_news_) continue;  // An event arrived while a post waited for the server.
      changed_.wait_until(lock, stopping ? now + std::chrono::milliseconds(100) : next);
    }
  }

  // Releases the lock while it waits for the server.
  void Post(const std::string& key, std::unique_lock<std::mutex>* lock) {
    Alert& alert = alerts_[key];
    if (alert.documents.empty() && alert.active) alert.documents.push_back(alert.document);
    while (!alert.documents.empty()) {
      const std::string document = alert.documents.front();
      lock->unlock();
      const bool posted = PostDocument(document);
      lock->lock();
      if (!posted) break;
      alert.documents.pop_front();
    }
    alert.due = Clock::now() + (alert.documents.empty() ? kRepeat : kRetry);
  }

  bool PostDocument(const std::string& document) const {
    int32_t status = 0;
    const int32_t length = static_cast<int32_t>(document.size());
    if (oxOSHTTPCommand(url_.c_str(), "POST", "Content-Type: application/json", document.c_str(), length, nullptr,
                        &status, kTimeoutMs) != 0) {
      return true;
    }
    std::fprintf(stderr, "alert poster: %s: status %d\n", url_.c_str(), static_cast<int>(status));
    return status == 400;  // Refused: do not retry.
  }

  const std::string url_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool has_news_ = false;                                 // Guarded by mutex_.
  std::map<std::string, Alert> alerts_;                   // Guarded by mutex_.
  Clock::time_point stop_at_ = Clock::time_point::max();  // Guarded by mutex_.
  std::thread thread_;
};

AlertPoster* AlertPosterStart(const char* url) {
  try {
    auto* poster = new AlertPoster(url);
    uint32_t id = 0;
    if (oxEventRegisterCallback(AlertPoster::OnEvent, poster, &id) == OXEVENT_OK) return poster;
    poster->Stop();
    delete poster;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "alert poster: %s\n", failure.what());
  }
  return nullptr;
}

unsigned AlertPosterStop(AlertPoster* poster) {
  const unsigned left = poster->Stop();
  delete poster;
  return left;
}

#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "oxEvent/alert_poster.h"

// The alerts of a poster: keeps the latest state of each alert and decides when that state is posted. An alert is
// identified by its labels, a JSON object, as in the Alertmanager. An alert is active while a condition with these
// labels is raised; other alerts are forgotten once they are posted. Threads: one at a time.
class oxEventAlertList {
 public:
  using Clock = std::chrono::steady_clock;

  oxEventAlertList(std::string alertname_prefix, std::chrono::milliseconds repeat_interval, uint64_t max_bytes);
  oxEventAlertList(const oxEventAlertList&) = delete;
  oxEventAlertList& operator=(const oxEventAlertList&) = delete;

  // Adds or changes the event's alert, unless the filter (minimum_severity, conditions_only) excludes the event. A
  // clear of a raised condition, and a report of it below the minimum severity, resolve its alert in any case. Throws
  // if there is no memory.
  void Add(const oxEventRecord& event, const oxEventAlertPosterConfig& filter);

  // Makes all active alerts due.
  void RepeatAll();

  bool HasWaiting() const { return !waiting_.empty(); }
  // Returns when the next active alert is due; time_point::max() if there is none.
  Clock::time_point NextDue() const;

  // Starts a post: returns the waiting and due alerts, at least one of which must exist, as one document; if there are
  // many, only the first ones. CompletePost, RetryPost or RefusePost must end the post before the next StartPost.
  // Throws if there is no memory; no alert is lost.
  std::string StartPost(Clock::time_point now);
  void CompletePost(Clock::time_point now);  // The Alertmanager has accepted the post.
  void RetryPost();                          // The post has failed: puts its alerts back.
  // The Alertmanager has refused the post: its alerts are posted one by one. If there was only one alert, counts it as
  // refused, and does not post it again at once unless it has changed meanwhile.
  void RefusePost(Clock::time_point now);

  // Sets the counters that the list keeps.
  void GetState(oxEventAlertPosterState* state) const;

 private:
  enum class Place { kWaiting, kInPost, kActive };  // The list that contains the alert.
  struct Alert {
    std::string labels;       // {"labels":{...}
    std::string rest;         // ,"annotations":{...},"startsAt":"..."}
    uint64_t conditions = 0;  // Number of raised conditions with these labels.
    Place place = Place::kWaiting;
    bool changed = false;  // Whether it has changed since its post was started.
    bool posted = false;   // Whether the Alertmanager has accepted this state.
    Clock::time_point due = {};
  };
  using Alerts = std::list<Alert>;  // Its iterators stay valid when an alert moves to another list.
  struct Text {
    std::string labels;
    std::string rest;
  };

  Text Format(const oxEventRecord& event) const;
  Text FormatClear(oxEventRecord event) const;
  void Raise(const oxEventRecord& event);
  void Clear(const oxEventRecord& event, bool wanted);
  void PostOnce(Text text);
  void Hold(const std::string& key, Text text);
  void Release(Alerts::iterator alert, std::string rest);
  Alerts::iterator FindOrAdd(Text* text, uint64_t more_bytes);
  bool Fits(uint64_t bytes);
  void SetRest(Alerts::iterator alert, std::string rest);
  void SetChanged(Alerts::iterator alert);
  void Forget(Alerts::iterator alert);
  void MoveDue(Clock::time_point now);
  void EndPostOf(Alerts::iterator alert, Clock::time_point now);

  const std::string alertname_prefix_;
  const std::chrono::milliseconds repeat_interval_;
  const uint64_t max_bytes_;
  uint64_t bytes_ = 0;  // Upper bound of the memory for alerts and conditions.
  Alerts waiting_;
  Alerts in_post_;
  Alerts active_;                                                     // In order of `due`.
  std::unordered_map<std::string_view, Alerts::iterator> by_labels_;  // The keys refer to the alerts' labels.
  std::unordered_map<std::string, Alerts::iterator> by_condition_;
  uint64_t single_posts_ = 0;  // Number of alerts at the front of waiting_ that are to be posted one by one.
  uint64_t posted_ = 0;
  uint64_t refused_ = 0;
  uint64_t dropped_ = 0;
};

#include "poster/oxEventAlertList.h"

#include <strings.h>

#include <algorithm>
#include <initializer_list>
#include <new>
#include <utility>

namespace {

constexpr size_t kMaxPostAlerts = 500;
constexpr size_t kMaxPostBytes = 512 * 1024;  // Unless a single alert is larger.
// Upper bounds of the memory that an alert or a condition takes besides its strings.
constexpr uint64_t kAlertBytes = 320;
constexpr uint64_t kConditionBytes = 128;

bool IsAction(const oxEventRecord& event, std::initializer_list<const char*> actions) {
  return std::any_of(actions.begin(), actions.end(),
                     [&](const char* action) { return strcasecmp(event.action, action) == 0; });
}

std::string ConditionKey(const oxEventRecord& event) {
  if (event.dedupe_key[0] != '\0') return event.dedupe_key;
  return std::string(event.source_id) + ':' + event.event_type;
}

void RemoveAnnotations(std::string* rest) { rest->erase(0, rest->rfind(",\"startsAt\":")); }

}  // namespace

oxEventAlertList::oxEventAlertList(std::string alertname_prefix, std::chrono::milliseconds repeat_interval,
                                   uint64_t max_bytes)
    : alertname_prefix_(std::move(alertname_prefix)), repeat_interval_(repeat_interval), max_bytes_(max_bytes) {}

void oxEventAlertList::Add(const oxEventRecord& event, const oxEventAlertPosterConfig& filter) {
  const bool wanted = event.severity >= filter.minimum_severity;
  // The formatter resolves the alert of an event with one of these actions.
  if (IsAction(event, {"clear", "resolve", "resolved"})) return Clear(event, wanted);
  if (IsAction(event, {"raise", "update", "repeat"})) return wanted ? Raise(event) : Clear(event, false);
  if (wanted && filter.conditions_only == 0) PostOnce(Format(event));
}

void oxEventAlertList::RepeatAll() { MoveDue(Clock::time_point::max()); }

oxEventAlertList::Clock::time_point oxEventAlertList::NextDue() const {
  return active_.empty() ? Clock::time_point::max() : active_.front().due;
}

std::string oxEventAlertList::StartPost(Clock::time_point now) {
  MoveDue(now);
  size_t left = single_posts_ > 0 ? 1 : kMaxPostAlerts;
  std::string document;
  auto end = waiting_.begin();
  for (; end != waiting_.end() && left > 0; ++end, --left) {
    if (end != waiting_.begin() && document.size() + end->labels.size() + end->rest.size() > kMaxPostBytes) break;
    document.append(1, document.empty() ? '[' : ',').append(end->labels).append(end->rest);
  }
  document += ']';
  for (auto alert = waiting_.begin(); alert != end; ++alert) alert->place = Place::kInPost;
  in_post_.splice(in_post_.end(), waiting_, waiting_.begin(), end);
  return document;
}

void oxEventAlertList::CompletePost(Clock::time_point now) {
  single_posts_ -= std::min<uint64_t>(single_posts_, 1);
  posted_ += in_post_.size();
  while (!in_post_.empty()) {
    in_post_.front().posted = !in_post_.front().changed;
    EndPostOf(in_post_.begin(), now);
  }
}

void oxEventAlertList::RetryPost() {
  for (Alert& alert : in_post_) {
    alert.place = Place::kWaiting;
    alert.changed = false;
  }
  waiting_.splice(waiting_.begin(), in_post_);
}

void oxEventAlertList::RefusePost(Clock::time_point now) {
  if (in_post_.size() > 1) {
    single_posts_ = in_post_.size();
    return RetryPost();
  }
  single_posts_ -= std::min<uint64_t>(single_posts_, 1);
  ++refused_;
  EndPostOf(in_post_.begin(), now);
}

void oxEventAlertList::GetState(oxEventAlertPosterState* state) const {
  const auto is_active = [](const Alert& alert) { return alert.conditions > 0; };
  const auto is_unposted = [](const Alert& alert) { return !alert.posted; };
  state->active_alerts = state->unposted_alerts = 0;
  for (const Alerts* alerts : {&waiting_, &in_post_, &active_}) {
    state->active_alerts += static_cast<uint64_t>(std::count_if(alerts->begin(), alerts->end(), is_active));
    state->unposted_alerts += static_cast<uint64_t>(std::count_if(alerts->begin(), alerts->end(), is_unposted));
  }
  state->posted = posted_;
  state->refused = refused_;
  state->dropped = dropped_;
}

oxEventAlertList::Text oxEventAlertList::Format(const oxEventRecord& event) const {
  oxEventAlertmanagerFormatterConfig config;
  config.allow_source_label = true;  // The same problem at two sources is two alerts.
  config.alertname_prefix = alertname_prefix_;
  std::string document;
  if (oxEventFormatAlertmanagerRecord(&event, config, &document) != OXEVENT_OK) throw std::bad_alloc();
  // "[{"labels":{...},"annotations":{...},...}]". No label value contains a quote, so the first match is where the
  // annotations begin.
  const size_t rest = document.find(",\"annotations\":");
  return {document.substr(1, rest - 1), document.substr(rest, document.size() - rest - 1)};
}

oxEventAlertList::Text oxEventAlertList::FormatClear(oxEventRecord event) const {
  event.action = "clear";
  return Format(event);
}

void oxEventAlertList::Raise(const oxEventRecord& event) {
  const std::string key = ConditionKey(event);
  Text text = Format(event);
  const auto condition = by_condition_.find(key);
  if (condition == by_condition_.end()) return Hold(key, std::move(text));
  if (condition->second->labels == text.labels) return SetRest(condition->second, std::move(text.rest));
  // Another severity, for example. If there is no room for its alert, the old one stays raised.
  Text resolved = FormatClear(event);
  const Alerts::iterator alert = FindOrAdd(&text, 0);
  if (alert == waiting_.end()) return;
  ++alert->conditions;
  Release(std::exchange(condition->second, alert), std::move(resolved.rest));
}

// Clears the event's condition if it is raised. Otherwise posts its resolved alert once if the filter admits the event
// (`wanted`).
void oxEventAlertList::Clear(const oxEventRecord& event, bool wanted) {
  const auto condition = by_condition_.find(ConditionKey(event));
  if (condition == by_condition_.end() && !wanted) return;
  Text text = FormatClear(event);
  if (condition == by_condition_.end()) return PostOnce(std::move(text));
  Release(condition->second, std::move(text.rest));
  bytes_ -= kConditionBytes + condition->first.size();
  by_condition_.erase(condition);
}

// Posts the alert unless a condition with these labels is raised.
void oxEventAlertList::PostOnce(Text text) {
  const auto found = by_labels_.find(text.labels);
  if (found == by_labels_.end()) {
    FindOrAdd(&text, 0);
  } else if (found->second->conditions == 0) {
    SetRest(found->second, std::move(text.rest));
  }
}

void oxEventAlertList::Hold(const std::string& key, Text text) {
  const uint64_t bytes = kConditionBytes + key.size();
  const Alerts::iterator alert = FindOrAdd(&text, bytes);
  if (alert == waiting_.end()) return;
  by_condition_.emplace(key, alert);  // If this throws, the alert belongs to no condition and is posted once.
  bytes_ += bytes;
  ++alert->conditions;
}

// Ends one condition of the alert. `rest` resolves the alert if that was the last one.
void oxEventAlertList::Release(Alerts::iterator alert, std::string rest) {
  if (--alert->conditions == 0) SetRest(alert, std::move(rest));
}

// Returns the alert with these labels, whose rest SetRest replaces, or a new alert. Counts a drop and returns
// waiting_.end() if max_bytes_ leaves no room for a new alert and `more_bytes`; but an alert without a raised condition
// is always returned, because it must not stay resolved.
oxEventAlertList::Alerts::iterator oxEventAlertList::FindOrAdd(Text* text, uint64_t more_bytes) {
  const auto found = by_labels_.find(text->labels);
  const uint64_t bytes = found != by_labels_.end() ? 0 : kAlertBytes + text->labels.size() + text->rest.size();
  const bool is_resolved = found != by_labels_.end() && found->second->conditions == 0;
  if (!is_resolved && !Fits(bytes + more_bytes)) {
    ++dropped_;
    return waiting_.end();
  }
  if (found != by_labels_.end()) {
    SetRest(found->second, std::move(text->rest));
    return found->second;
  }
  Alerts added(1);
  added.front().labels = std::move(text->labels);
  added.front().rest = std::move(text->rest);
  by_labels_.emplace(added.front().labels, added.begin());
  bytes_ += bytes;
  const auto alert = added.begin();
  waiting_.splice(waiting_.end(), added);
  return alert;
}

bool oxEventAlertList::Fits(uint64_t bytes) { return bytes <= max_bytes_ && bytes_ <= max_bytes_ - bytes; }

// Replaces the rest. If max_bytes_ leaves no room for the new one, a raised alert keeps the old one. Any other alert
// changes between raised and resolved, which must not be lost: it gets the new rest without the annotations.
void oxEventAlertList::SetRest(Alerts::iterator alert, std::string rest) {
  if (rest.size() > alert->rest.size() && !Fits(rest.size() - alert->rest.size())) {
    if (alert->conditions > 0) {
      ++dropped_;
      return;
    }
    RemoveAnnotations(&rest);
  }
  bytes_ += rest.size() - alert->rest.size();
  alert->rest = std::move(rest);
  SetChanged(alert);
}

void oxEventAlertList::SetChanged(Alerts::iterator alert) {
  alert->posted = false;
  if (alert->place == Place::kInPost) alert->changed = true;
  if (alert->place != Place::kActive) return;
  alert->place = Place::kWaiting;
  waiting_.splice(waiting_.end(), active_, alert);
}

void oxEventAlertList::Forget(Alerts::iterator alert) {
  bytes_ -= kAlertBytes + alert->labels.size() + alert->rest.size();
  by_labels_.erase(alert->labels);
  in_post_.erase(alert);
}

void oxEventAlertList::MoveDue(Clock::time_point now) {
  const auto end = std::find_if(active_.begin(), active_.end(), [&](Alert& alert) { return alert.due > now; });
  for (auto alert = active_.begin(); alert != end; ++alert) alert->place = Place::kWaiting;
  waiting_.splice(waiting_.end(), active_, active_.begin(), end);
}

// Ends the post of an alert: if the alert has changed, it is posted again; if it is active, it is posted at the next
// repetition; otherwise it is forgotten.
void oxEventAlertList::EndPostOf(Alerts::iterator alert, Clock::time_point now) {
  const bool changed = std::exchange(alert->changed, false);
  if (!changed && alert->conditions == 0) return Forget(alert);
  alert->place = changed ? Place::kWaiting : Place::kActive;
  alert->due = now + repeat_interval_;
  Alerts& list = changed ? waiting_ : active_;
  list.splice(list.end(), in_post_, alert);
}

#include "core/oxEventState.h"

#include <utility>

#include "base/oxEventAscii.h"
#include "base/oxEventNumber.h"

enum class oxEventState::Action { kRaise, kUpdate, kRepeat, kClear, kOther };

namespace {

void AppendLine(std::string* out, std::string_view text) { out->append(text).push_back('\n'); }

template <class... NumberAndDigits>
void AppendNumberLine(std::string* out, NumberAndDigits... number_and_digits) {
  oxEventAppendNumber(out, number_and_digits...);
  out->push_back('\n');
}

bool EqualsLower(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (oxEventAsciiLower(text[i]) != lower[i]) return false;
  }
  return true;
}

}  // namespace

void oxEventState::Configure(const oxEventConfig& config) {
  oxEventLock lock(mutex_);
  state_enabled_ = config.state_enabled;
  dedupe_enabled_ = config.dedupe_enabled;
  send_clear_ = config.send_clear;
  route_orphan_clear_ = config.route_orphan_clear;
  repeat_interval_ns_ = config.default_repeat_interval_sec * uint64_t{1'000'000'000};
}

void oxEventState::Reset() {
  oxEventLock lock(mutex_);
  active_.Clear();
}

uint32_t oxEventState::Evaluate(const oxEventNormalizedEvent& event, oxEventNormalizedEvent* out, bool* route) {
  if (out == nullptr || route == nullptr) return OXEVENT_INVALID_ARGUMENT;
  if (out != &event) *out = event;
  *route = true;
  oxEventLock lock(mutex_);
  if (!state_enabled_ || !dedupe_enabled_) return OXEVENT_OK;
  const Action action = ActionOf(event.action);
  if (action == Action::kOther) return OXEVENT_OK;
  *route = DecideLocked(action, event, out);
  oxEventReleaseLongText(&key_);
  oxEventReleaseLongText(&signature_);
  return OXEVENT_OK;
}

void oxEventState::BuildKey(const oxEventNormalizedEvent& event, std::string* key) {
  if (!event.dedupe_key.empty()) {
    key->assign(event.dedupe_key);
  } else {
    key->assign(event.source_id).append(1, ':').append(event.event_type);
  }
}

void oxEventState::BuildSignature(const oxEventNormalizedEvent& event, std::string* signature) {
  constexpr int kDigits = 6;
  signature->clear();
  AppendLine(signature, event.event_type);
  AppendLine(signature, event.source_id);
  AppendLine(signature, event.source_name);
  AppendLine(signature, event.message);
  AppendNumberLine(signature, event.severity);
  for (const char c : event.action) signature->push_back(oxEventAsciiLower(c));
  signature->push_back('\n');
  AppendLine(signature, event.dedupe_key);
  AppendLine(signature, event.correlation_id);
  AppendNumberLine(signature, event.pts);
  AppendLine(signature, event.timecode);
  AppendNumberLine(signature, event.value, kDigits);
  AppendNumberLine(signature, event.threshold, kDigits);
  AppendLine(signature, event.units);
  AppendNumberLine(signature, event.duration_ms);
  AppendLine(signature, event.details_json);
}

oxEventState::Action oxEventState::ActionOf(std::string_view action) {
  constexpr std::pair<std::string_view, Action> kActions[] = {
      {"raise", Action::kRaise}, {"update", Action::kUpdate}, {"repeat", Action::kRepeat}, {"clear", Action::kClear}};
  for (const auto& [name, value] : kActions) {
    if (EqualsLower(action, name)) return value;
  }
  return Action::kOther;
}

// A clock that went backwards never holds a repeat back.
bool oxEventState::RepeatElapsed(uint64_t now_ns, uint64_t last_ns) const {
  return repeat_interval_ns_ == 0 || last_ns == 0 || last_ns > now_ns || now_ns - last_ns >= repeat_interval_ns_;
}

// Returns whether the event goes on.
bool oxEventState::DecideLocked(Action action, const oxEventNormalizedEvent& event, oxEventNormalizedEvent* out) {
  std::string_view key = event.dedupe_key;
  if (key.empty()) {
    BuildKey(event, &key_);
    key = key_;
  }
  const uint64_t hash = active_.Hash(key);
  active_.Prefetch(hash);
  const bool update = action == Action::kUpdate;
  if (update) BuildSignature(event, &signature_);  // While the slot comes.
  oxEventActiveTable::Condition* const raised = active_.Find(hash, key);
  if (action == Action::kClear) {
    if (raised == nullptr) return route_orphan_clear_;
    active_.Remove(raised);  // Cleared, whether or not anybody is told.
    return send_clear_;
  }
  if (raised == nullptr && action == Action::kRepeat) return false;
  const bool due = raised == nullptr || RepeatElapsed(event.utc_ns, raised->last_sent_ns);
  if (!due && !update) return false;
  if (raised != nullptr) oxEventActiveTable::PrefetchTexts(raised);
  if (!update) BuildSignature(event, &signature_);
  if (!due && oxEventActiveTable::Signature(raised) == signature_) return false;
  // Without memory nothing changes: an entry without its signature would be a condition that nobody was told of.
  if (raised == nullptr) {
    active_.Insert(hash, key, signature_, event.utc_ns);
  } else {
    active_.Update(raised, signature_, event.utc_ns);
  }
  if (raised == nullptr && update) out->action = "raise";
  if (raised != nullptr && action == Action::kRaise) out->action = "repeat";
  return true;
}

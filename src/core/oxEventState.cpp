#include "core/oxEventState.h"

#include "base/oxEventAscii.h"
#include "base/oxEventNumber.h"
#include "base/oxEventWriter.h"

enum class oxEventState::Action { kRaise, kUpdate, kRepeat, kClear, kOther };

namespace {

// Packs up to eight letters into one number, which does not depend on their case.
constexpr uint64_t Packed(std::string_view text) {
  constexpr uint64_t kLowerCase = 0x20;
  uint64_t packed = 0;
  for (const char c : text) packed = packed << 8 | static_cast<unsigned char>(c) | kLowerCase;
  return packed;
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

void oxEventState::AddStatAddresses(oxEventStatRun* stat) {
  oxEventLock lock(mutex_);
  active_.AddStatAddresses(stat);
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
  constexpr size_t kLines = 15;
  constexpr size_t kNumbers = 5;
  signature->resize(event.TextBytes() + kLines + kNumbers * kOxEventNumberSize);  // An upper bound.
  char* at = signature->data();
  const auto end_line = [&at] { *at++ = '\n'; };
  const auto add_text = [&](std::string_view text) {
    at = oxEventWriteText(text, at);
    end_line();
  };
  const auto add_number = [&](auto... number_and_digits) {
    at = oxEventWriteNumber(number_and_digits..., at);
    end_line();
  };
  add_text(event.event_type);
  add_text(event.source_id);
  add_text(event.source_name);
  add_text(event.message);
  add_number(event.severity);
  for (const char c : event.action) *at++ = oxEventAsciiLower(c);
  end_line();
  add_text(event.dedupe_key);
  add_text(event.correlation_id);
  add_number(event.pts);
  add_text(event.timecode);
  add_number(event.value, kDigits);
  add_number(event.threshold, kDigits);
  add_text(event.units);
  add_number(event.duration_ms);
  add_text(event.details_json);
  signature->resize(static_cast<size_t>(at - signature->data()));
}

oxEventState::Action oxEventState::ActionOf(std::string_view action) {
  if (action.size() > sizeof(uint64_t)) return Action::kOther;
  switch (Packed(action)) {
    case Packed("raise"):
      return Action::kRaise;
    case Packed("update"):
      return Action::kUpdate;
    case Packed("repeat"):
      return Action::kRepeat;
    case Packed("clear"):
      return Action::kClear;
    default:
      return Action::kOther;
  }
}

// An event that is older than the last one sent counts as due, so that a clock that was set back delays no repeat.
bool oxEventState::RepeatElapsed(uint64_t event_ns, uint64_t last_sent_ns) const {
  return last_sent_ns == 0 || last_sent_ns > event_ns || event_ns - last_sent_ns >= repeat_interval_ns_;
}

// Returns whether the event goes on to the sinks.
bool oxEventState::DecideLocked(Action action, const oxEventNormalizedEvent& event, oxEventNormalizedEvent* out) {
  std::string_view key = event.dedupe_key;
  if (key.empty()) {
    BuildKey(event, &key_);
    key = key_;
  }
  const uint64_t hash = active_.Hash(key);
  active_.Prefetch(hash);
  const bool update = action == Action::kUpdate;
  if (update) BuildSignature(event, &signature_);  // While the prefetch is under way.
  oxEventActiveTable::Condition* const raised = active_.Find(hash, key);
  if (action == Action::kClear) {
    if (raised == nullptr) return route_orphan_clear_;
    active_.Remove(raised);  // Even if the clear is not sent.
    return send_clear_;
  }
  if (raised == nullptr && action == Action::kRepeat) return false;
  const bool due = raised == nullptr || RepeatElapsed(event.utc_ns, raised->last_sent_ns);
  if (!due && !update) return false;
  if (raised != nullptr) oxEventActiveTable::PrefetchTexts(raised);
  if (!update) BuildSignature(event, &signature_);
  if (!due && oxEventActiveTable::Signature(raised) == signature_) return false;
  // If there is no memory, Insert and Update throw before they change anything, and the event counts as a failed
  // evaluation.
  if (raised == nullptr) {
    active_.Insert(hash, key, signature_, event.utc_ns);
  } else {
    active_.Update(raised, signature_, event.utc_ns);
  }
  if (raised == nullptr && update) out->action = "raise";
  if (raised != nullptr && action == Action::kRaise) out->action = "repeat";
  return true;
}

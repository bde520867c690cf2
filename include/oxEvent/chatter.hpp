// Keeps a measured value that varies around its limit from becoming an alarm storm: deadband, on-delay, off-delay,
// detection of chattering, and shelving that always expires. For C++17 and later; independent of the library and of
// oxEvent.hpp. The terms are those of ISA-18.2 and OPC UA Part 9 (Alarms and Conditions).
#ifndef OXEVENT_CHATTER_HPP
#define OXEVENT_CHATTER_HPP

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>

namespace oxEvent {

// A negative deadband, delay, period or maximum time counts as 0.
struct LimitAlarmConfig {
  enum class Limit { kHigh, kLow };

  Limit type = Limit::kHigh;  // kHigh: abnormal above the limit; kLow: below it.
  double limit = 0;
  // How far below a high limit, or above a low one, an abnormal value must be to become normal.
  double deadband = 0;
  std::chrono::nanoseconds on_delay{0};   // How long the value must be abnormal before the alarm becomes active.
  std::chrono::nanoseconds off_delay{0};  // How long the value must be normal before the alarm becomes inactive.
  // An alarm that becomes active this many times in less than chatter_period is chattering, and stays active, until the
  // value has been normal, or abnormal, for chatter_period without interruption. 0: chattering is not detected. A
  // number above 16 counts as 16.
  unsigned chatter_count = 0;
  std::chrono::nanoseconds chatter_period = std::chrono::minutes(1);
  std::chrono::nanoseconds max_time_shelved = std::chrono::hours(8);  // 0: the alarm cannot be shelved.
};

// What to report to the library.
enum class AlarmChange { kNothing, kRaise, kClear };

// An alarm for one limit of one value. The host passes the value and the time since any fixed moment, preferably from
// std::chrono::steady_clock. If a time is earlier than that of a previous call, the latest time so far counts instead.
// The alarm is inactive at first.
//
// Threads: one at a time may use an object, which has no thread of its own. Never allocates memory or throws.
class LimitAlarm {
 public:
  using Time = std::chrono::nanoseconds;

  explicit LimitAlarm(const LimitAlarmConfig& config) noexcept : config_(config) {
    if (!(config_.deadband > 0)) config_.deadband = 0;
    // Not std::min, which takes a reference: it would give the constant a unique symbol, which keeps dlclose from
    // unloading a plugin.
    if (config_.chatter_count > kMaxChatterCount) config_.chatter_count = kMaxChatterCount;
  }

  // Call this function for each new value. NaN counts as the previous value.
  AlarmChange Update(double value, Time now) noexcept {
    Advance(now);
    if (abnormal_ ? IsNormal(value) : IsAbnormal(value)) {
      abnormal_ = !abnormal_;
      since_ = now_;
    }
    return Evaluate();
  }

  // Call this function at regular intervals if the host gets a new value only when the value changes: the alarm takes
  // the previous value for the current one.
  AlarmChange Poll(Time now) noexcept {
    Advance(now);
    return Evaluate();
  }

  // Withholds a raise for this long. Returns false, and does not shelve, unless 0 < duration <= max_time_shelved. A
  // shelved alarm can be shelved again, but stays shelved for at most max_time_shelved from the first call on.
  bool TimedShelve(Time duration, Time now) noexcept {
    if (duration > config_.max_time_shelved) return false;
    return Shelve(ShelvedState::kTimedShelved, duration, now);
  }

  // Withholds a raise until the alarm becomes inactive, but for at most max_time_shelved. Returns whether that is above
  // 0.
  bool OneShotShelve(Time now) noexcept { return Shelve(ShelvedState::kOneShotShelved, config_.max_time_shelved, now); }

  AlarmChange Unshelve(Time now) noexcept {
    shelved_state_ = ShelvedState::kUnshelved;
    return Poll(now);
  }

  // The state as of the last call that was given a time: Update, Poll or a shelving function.
  bool IsActive() const noexcept { return active_; }
  bool IsChattering() const noexcept { return chattering_; }
  bool IsShelved() const noexcept { return shelved_state_ != ShelvedState::kUnshelved; }

 private:
  enum class ShelvedState { kUnshelved, kTimedShelved, kOneShotShelved };
  static constexpr unsigned kMaxChatterCount = 16;

  void Advance(Time now) noexcept { now_ = std::max(now_, now); }

  bool IsAbnormal(double value) const noexcept {
    return config_.type == LimitAlarmConfig::Limit::kHigh ? value > config_.limit : value < config_.limit;
  }

  bool IsNormal(double value) const noexcept {
    return config_.type == LimitAlarmConfig::Limit::kHigh ? value <= config_.limit - config_.deadband
                                                          : value >= config_.limit + config_.deadband;
  }

  AlarmChange Evaluate() noexcept {
    const Time stable = now_ - since_;
    if (stable >= config_.chatter_period) chattering_ = false;
    const Time delay = abnormal_ ? config_.on_delay : config_.off_delay;
    if (abnormal_ != active_ && !chattering_ && stable >= delay) Switch();
    if (ShelvedTime() >= shelving_time_) shelved_state_ = ShelvedState::kUnshelved;
    if (active_ == raised_ || (active_ && IsShelved())) return AlarmChange::kNothing;
    raised_ = active_;
    return active_ ? AlarmChange::kRaise : AlarmChange::kClear;
  }

  void Switch() noexcept {
    active_ = abnormal_;
    if (active_) {
      CountActivation();
    } else if (shelved_state_ == ShelvedState::kOneShotShelved) {
      shelved_state_ = ShelvedState::kUnshelved;
    }
  }

  void CountActivation() noexcept {
    const std::size_t count = config_.chatter_count;
    if (count == 0) return;
    activations_[activation_count_++ % count] = now_;
    if (activation_count_ < count) return;
    const Time oldest = activations_[activation_count_ % count];
    chattering_ = now_ - oldest < config_.chatter_period;
  }

  bool Shelve(ShelvedState state, Time duration, Time now) noexcept {
    Advance(now);
    if (duration <= Time(0)) return false;
    if (ShelvedTime() >= shelving_time_) shelved_state_ = ShelvedState::kUnshelved;
    if (!IsShelved()) shelved_since_ = now_;
    shelved_state_ = state;
    shelving_time_ = ShelvedTime() + std::min(duration, config_.max_time_shelved - ShelvedTime());
    return true;
  }

  Time ShelvedTime() const noexcept { return now_ - shelved_since_; }

  LimitAlarmConfig config_;
  Time now_ = Time::min();
  bool abnormal_ = false;  // According to the limit and the deadband.
  Time since_{0};          // When abnormal_ last changed.
  bool active_ = false;    // According to the delays and the detection of chattering too.
  bool raised_ = false;    // What the host was told last.
  bool chattering_ = false;
  std::array<Time, kMaxChatterCount> activations_ = {};  // Times of the last chatter_count activations, as a ring.
  std::size_t activation_count_ = 0;
  ShelvedState shelved_state_ = ShelvedState::kUnshelved;
  Time shelved_since_{0};
  Time shelving_time_{0};  // After which the shelving expires.
};

}  // namespace oxEvent

#endif

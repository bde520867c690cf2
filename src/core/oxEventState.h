#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventStat.h"
#include "config/oxEventConfig.h"
#include "core/oxEventActiveTable.h"

// Keeps the raised conditions and decides by an event's action which events go to the sinks: suppresses a duplicate
// within the repeat interval, which begins with the last event sent for the condition, and turns a later "raise" into a
// "repeat"; turns an "update" of a condition that is not raised into a "raise"; suppresses a "repeat" of such a
// condition; and lets a "clear" through if the settings say so. Threads: the worker calls Evaluate, any thread calls
// the rest.
class oxEventState {
 public:
  oxEventState() = default;
  oxEventState(const oxEventState&) = delete;
  oxEventState& operator=(const oxEventState&) = delete;

  // Keeps the raised conditions.
  void Configure(const oxEventConfig& config) OX_EXCLUDES(mutex_);

  // Forgets the raised conditions.
  void Reset() OX_EXCLUDES(mutex_);

  void AddStatAddresses(oxEventStatRun* stat) OX_EXCLUDES(mutex_);

  // Copies the event to *out, which may be the event itself, and changes the action there if necessary. Sets *route to
  // whether the event goes on to the sinks. Returns OXEVENT_INVALID_ARGUMENT if `out` or `route` is null. Throws, and
  // changes no condition, if there is no memory.
  uint32_t Evaluate(const oxEventNormalizedEvent& event, oxEventNormalizedEvent* out, bool* route) OX_EXCLUDES(mutex_);

  // The key of the event's condition: its dedupe_key or, if that is empty, source_id ":" event_type.
  static void BuildKey(const oxEventNormalizedEvent& event, std::string* key);

  // Events with equal signatures report the same state. A signature has all fields except event_id, utc_ns and ptp_ns:
  // the action in lower case, value and threshold in six significant digits.
  static void BuildSignature(const oxEventNormalizedEvent& event, std::string* signature);

 private:
  enum class Action;

  static Action ActionOf(std::string_view action);
  bool RepeatElapsed(uint64_t event_ns, uint64_t last_sent_ns) const OX_REQUIRES(mutex_);
  bool DecideLocked(Action action, const oxEventNormalizedEvent& event, oxEventNormalizedEvent* out)
      OX_REQUIRES(mutex_);

  oxEventMutex mutex_;
  bool state_enabled_ OX_GUARDED_BY(mutex_) = true;
  bool dedupe_enabled_ OX_GUARDED_BY(mutex_) = true;
  bool send_clear_ OX_GUARDED_BY(mutex_) = true;
  bool route_orphan_clear_ OX_GUARDED_BY(mutex_) = false;
  uint64_t repeat_interval_ns_ OX_GUARDED_BY(mutex_) = 1'800'000'000'000;
  oxEventActiveTable active_ OX_GUARDED_BY(mutex_);
  std::string key_ OX_GUARDED_BY(mutex_);  // This and signature_ are buffers reused for each event.
  std::string signature_ OX_GUARDED_BY(mutex_);
};

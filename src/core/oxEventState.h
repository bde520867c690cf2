#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"
#include "core/oxEventActiveTable.h"

// Which conditions are raised, and what that makes of the next event: suppresses duplicates until the repeat interval
// has passed, turns a late duplicate into a "repeat" and an update of an unknown condition into a "raise", lets a clear
// through as configured. Threads: Evaluate the worker, the others any.
class oxEventState {
 public:
  oxEventState() = default;
  oxEventState(const oxEventState&) = delete;
  oxEventState& operator=(const oxEventState&) = delete;

  // Keeps the raised conditions.
  void Configure(const oxEventConfig& config) OX_EXCLUDES(mutex_);

  // Forgets them.
  void Reset() OX_EXCLUDES(mutex_);

  // *out becomes the event, with its texts, perhaps with another action; it may be the event itself. *route: whether it
  // goes on to the sinks. Neither may be null (OXEVENT_INVALID_ARGUMENT). Throws when there is no memory.
  uint32_t Evaluate(const oxEventNormalizedEvent& event, oxEventNormalizedEvent* out, bool* route) OX_EXCLUDES(mutex_);

  // What names the condition of an event: its dedupe_key, else source_id ":" event_type.
  static void BuildKey(const oxEventNormalizedEvent& event, std::string* key);

  // Two reports of a condition are the same when their signatures are: every field but id and time stamps.
  static void BuildSignature(const oxEventNormalizedEvent& event, std::string* signature);

 private:
  enum class Action;

  static Action ActionOf(std::string_view action);
  bool RepeatElapsed(uint64_t now_ns, uint64_t last_ns) const OX_REQUIRES(mutex_);
  bool DecideLocked(Action action, const oxEventNormalizedEvent& event, oxEventNormalizedEvent* out)
      OX_REQUIRES(mutex_);

  oxEventMutex mutex_;
  bool state_enabled_ OX_GUARDED_BY(mutex_) = true;
  bool dedupe_enabled_ OX_GUARDED_BY(mutex_) = true;
  bool send_clear_ OX_GUARDED_BY(mutex_) = true;
  bool route_orphan_clear_ OX_GUARDED_BY(mutex_) = false;
  uint64_t repeat_interval_ns_ OX_GUARDED_BY(mutex_) = 1'800'000'000'000;
  oxEventActiveTable active_ OX_GUARDED_BY(mutex_);
  std::string key_ OX_GUARDED_BY(mutex_);  // Built for events without a dedupe_key. Reused, as the next one is.
  std::string signature_ OX_GUARDED_BY(mutex_);
};

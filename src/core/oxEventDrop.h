#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventTrace.h"

// Reasons for dropping an accepted event. Trace points show the values: append only.
enum class oxEventDrop : uint32_t {
  kFiltered,    // Switched off, or below the minimum severity.
  kNoMemory,    // For the copy.
  kRefused,     // The queue was full: this event, the newest.
  kDisplaced,   // The queue was full: this event, the oldest below warning, made room for a newer one.
  kTrimmed,     // A reload made the queue smaller.
  kStopped,     // Still pending at a stop.
  kSuppressed,  // By the state: nothing new about its condition.
};

constexpr const char* kOxEventDropTexts[] = {"filtered", "no memory", "refused",   "displaced",
                                             "trimmed",  "stopped",   "suppressed"};

constexpr const char* oxEventDropText(oxEventDrop reason) { return kOxEventDropTexts[static_cast<size_t>(reason)]; }

inline void oxEventTraceDrop(const oxEventNormalizedEvent& event, oxEventDrop reason) {
  oxEventTraceDrop(event.event_id, event.severity, static_cast<uint32_t>(reason), oxEventDropText(reason));
}

// How many by which reason; indexed by it.
using oxEventDrops = std::array<uint64_t, std::size(kOxEventDropTexts)>;

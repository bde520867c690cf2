#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventTrace.h"

// Reasons for dropping an event that was reported while the library runs. Trace points show the values: append only.
enum class oxEventDrop : uint32_t {
  kFiltered,    // The library is switched off, or the severity is below the minimum.
  kNoMemory,    // There was no memory for the copy.
  kRefused,     // The queue was full: the newest event, this one, was not queued.
  kDisplaced,   // The queue was full: the oldest event below warning, this one, made room for a newer one.
  kTrimmed,     // A reload made the queue smaller.
  kStopped,     // Still pending at a stop.
  kSuppressed,  // A duplicate: the state of its condition has not changed.
};

constexpr const char* kOxEventDropTexts[] = {"filtered", "no memory", "refused",   "displaced",
                                             "trimmed",  "stopped",   "suppressed"};

constexpr const char* oxEventDropText(oxEventDrop reason) { return kOxEventDropTexts[static_cast<size_t>(reason)]; }

// Number of drops by reason.
using oxEventDropCounts = std::array<uint64_t, std::size(kOxEventDropTexts)>;

// The one place that counts drops and reports them to the trace point `drop`. Every drop is recorded exactly once,
// while its event still exists. Any thread; takes no lock.
class oxEventDropLedger {
 public:
  void Record(const oxEventNormalizedEvent& event, oxEventDrop reason) {
    ++counts_[static_cast<size_t>(reason)];
    oxEventTraceDrop(event.event_id, event.severity, static_cast<uint32_t>(reason), oxEventDropText(reason));
  }

  // Not an atomic snapshot.
  oxEventDropCounts Counts() const {
    oxEventDropCounts counts = {};
    for (size_t i = 0; i < counts.size(); ++i) counts[i] = counts_[i];
    return counts;
  }

 private:
  std::array<std::atomic<uint64_t>, std::tuple_size_v<oxEventDropCounts>> counts_ = {};
};

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventStat.h"
#include "base/oxEventTrace.h"

// Reasons for dropping an event that was reported while the library was running. Trace points show the values: add new
// ones at the end. tools/oxevent-gdb.py makes the reason's text from the name of the enumerator.
enum class oxEventDrop : uint32_t {
  kFiltered,    // The library is switched off, or the severity is below the minimum.
  kNoMemory,    // There was no memory for the copy.
  kRefused,     // The queue was full, and this event was not queued.
  kDisplaced,   // The queue was full, and this event, the oldest below warning, made room for a newer event.
  kTrimmed,     // A reload made the queue smaller.
  kStopped,     // The event was still pending when the library was stopped.
  kSuppressed,  // A duplicate, a repeat of a condition that is not raised, or a clear that is not to be sent.
};

constexpr const char* kOxEventDropTexts[] = {"filtered", "no memory", "refused",   "displaced",
                                             "trimmed",  "stopped",   "suppressed"};
static_assert(std::size(kOxEventDropTexts) == static_cast<size_t>(oxEventDrop::kSuppressed) + 1,
              "one text for each reason; name the last reason here");

constexpr const char* oxEventDropText(oxEventDrop reason) { return kOxEventDropTexts[static_cast<size_t>(reason)]; }

// Number of drops for each reason.
using oxEventDropCounts = std::array<uint64_t, std::size(kOxEventDropTexts)>;

// The drops that the queue's EnqueueCount does not include.
constexpr uint64_t oxEventDropsBeforeQueue(const oxEventDropCounts& drops) {
  return drops[static_cast<size_t>(oxEventDrop::kFiltered)] + drops[static_cast<size_t>(oxEventDrop::kNoMemory)];
}

// Counts drops and reports them to the trace point `drop`. Every drop must be recorded exactly once, while its event
// still exists. Any thread; takes no lock.
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

  void AddStatAddresses(oxEventStatRun* stat) const { stat->drops = oxEventStatAddress<uint64_t>(counts_.data()); }

 private:
  std::array<std::atomic<uint64_t>, std::tuple_size_v<oxEventDropCounts>> counts_ = {};
};

// The report about the events of a run.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "config/oxEventConfig.h"

struct SendResult {
  std::array<std::atomic<uint64_t>, 4> emitted = {};  // Indexed by severity.
  uint64_t refused = 0;                               // Lines and events; the reason for each has been printed.
  bool gave_up = false;                               // Timed out with undelivered events.
  bool flushed = true;                                // Whether the last flush of the sinks succeeded.
};

// Prints successes to stdout, unless quiet, and problems to stderr. Returns true if there were no problems. Must be
// called before oxEventShutdown.
bool PrintReport(const oxEventConfig& config, const SendResult& result, bool quiet);

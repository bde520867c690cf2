// What became of the events.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "config/oxEventConfig.h"

struct Outcome {
  std::array<std::atomic<uint64_t>, 4> emitted = {};  // By severity.
  uint64_t refused = 0;                               // Lines and events, each of which was told of.
  bool gave_up = false;                               // Events are still waiting.
  bool flushed = true;                                // All that the sinks buffer.
};

// Prints what went well to stdout, unless quiet, and what went wrong to stderr. Returns whether all went well. To be
// called while the library runs.
bool Report(const oxEventConfig& config, const Outcome& outcome, bool quiet);

// What oxevent-stat reads from a process.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/oxEventRouter.h"
#include "stat/process.h"

struct SinkReading {
  std::string section;
  std::string name;
  uint64_t delivered = 0;
  uint64_t failures = 0;
  std::string last_error;  // Empty if there is none.
};

struct Reading {
  pid_t pid = 0;
  std::string name;      // Name of the process.
  bool has_run = false;  // Whether the library has been initialized. If not, all counters are 0.
  bool running = false;  // Whether the library has been initialized and not shut down since.
  oxEventCounters counters;
  uint64_t pending = 0;
  uint64_t active = 0;  // In delivery.
  uint64_t capacity = 0;
  uint64_t conditions = 0;
  std::vector<SinkReading> sinks;
};

// Reads the counters of the library in the process. If the process has loaded several copies of the library, reads the
// first one that is running or, if none is, the first one. Each counter is correct, but the counters are not read at
// the same moment. Throws std::runtime_error if the process or the library cannot be read.
Reading ReadProcess(const Process& process);

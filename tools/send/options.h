// The command line of oxevent-send.
#pragma once

#include <cstdint>
#include <vector>

#include "common/command_line.h"
#include "oxEvent.h"

struct Options {
  const char* settings = nullptr;
  oxEventRecord record = {};  // The event, or the defaults of each line of standard input.
  bool json = false;          // Read events from standard input.
  uint64_t count = 0;         // Number of times to report the event; 0: not given.
  double rate = 0;            // Events per second; 0: as fast as they are delivered.
  uint32_t wait_s = 60;       // Maximum time without a delivery; 0: no limit.
  bool quiet = false;
};

// Describes the tool; its options set *options.
Tool DescribeTool(Options* options);

// Parses the positional arguments and checks the options. Throws UsageError.
void ParseArguments(const std::vector<const char*>& arguments, Options* options);

// The command line.
#pragma once

#include <cstdint>
#include <vector>

#include "common/command_line.h"
#include "oxEvent.h"

struct Options {
  const char* settings = nullptr;
  oxEventRecord record = {};  // The event, or what holds for each line that does not say otherwise.
  bool json = false;          // Lines on standard input.
  uint64_t count = 0;         // How often; 0: not given.
  double rate = 0;            // Events per second; 0: as fast as they are delivered.
  uint32_t wait_s = 60;       // How long without any delivery; 0: without limit.
  bool quiet = false;
};

// The tool, whose options go to *options.
Tool DescribeTool(Options* options);

// What no option says. Throws UsageError.
void TakeArguments(const std::vector<const char*>& arguments, Options* options);

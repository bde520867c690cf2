// Finds the library in a process.
#pragma once

#include <cstdint>
#include <vector>

#include "stat/process.h"

// Returns the address of each oxEventStatBlock, one for each copy of the library. Throws as Process::Read does.
std::vector<uint64_t> FindBlocks(const Process& process);

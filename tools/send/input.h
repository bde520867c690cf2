// Functions that wait for standard input or for a point in time. A stop signal interrupts them.
#pragma once

#include <chrono>
#include <string>

using Clock = std::chrono::steady_clock;

// Makes SIGHUP, SIGINT and SIGTERM interrupt the functions below. A second signal of the same kind ends the process. A
// signal that is ignored stays ignored.
void CatchStopSignals();

// Returns the stop signal that was received, or 0.
int StopSignal();

// Sleeps until `time` or a stop signal.
void SleepUntil(Clock::time_point time);

// Reads lines from standard input.
class LineReader {
 public:
  // Reads the next line, without its line end. Returns false at the end of the input and after a stop signal. Throws
  // std::runtime_error if the line is longer than 64 MiB or the input cannot be read.
  bool Next(std::string* line);

 private:
  bool Fill();

  std::string buffer_;
  size_t begin_ = 0;  // Offset of the first byte that Next has not returned.
  bool at_end_ = false;
};

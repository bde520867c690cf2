// What the sending waits for, until a signal stops it: lines on standard input, the time of the next event.
#pragma once

#include <chrono>
#include <string>

using Clock = std::chrono::steady_clock;

// From now on SIGHUP, SIGINT and SIGTERM stop the waiting. The second of one kind ends the process.
void CatchStopSignals();

// The signal that came, or 0.
int StopSignal();

// Returns at that time, or when a stop signal comes.
void SleepUntil(Clock::time_point time);

// The lines of standard input.
class Lines {
 public:
  // Gets the next line, without its end. False: there is none, or a stop signal came. Throws std::runtime_error.
  bool Next(std::string* line);

 private:
  bool Fill();

  std::string buffer_;
  size_t begin_ = 0;  // Where the bytes that are not returned yet begin.
  bool at_end_ = false;
};

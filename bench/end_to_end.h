// End-to-end benchmark: from the call on a host's thread until the event is written. end_to_end.cpp is the program.
// Each logger is a module that the program loads with dlopen, so that the memory of the logger's libraries can be
// measured.
#pragma once

#include <cstdint>
#include <string>

#include "oxEvent.h"

struct Logger {
  // Whether the logger delivers on a thread of its own.
  bool has_worker;
  // Starts the logger with a queue of `queue_size` events. It writes its files to `directory`.
  void (*start)(const std::string& directory, uint32_t queue_size);
  // Reports one event. Threads: any. event_id, pts and value differ from call to call.
  void (*submit)(const oxEventRecord& record);
  // Waits until every reported event is delivered or lost.
  void (*drain)();
  void (*stop)();
};

// Defined by each module.
extern "C" const Logger kLogger;

// Defined by the program. A logger with a thread of its own calls this on that thread, after it has passed the event to
// its file sink.
void Delivered(uint64_t event_id);

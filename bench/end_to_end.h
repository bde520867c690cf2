// End-to-end benchmark: from the call on a host's thread until the event is written. One program per logger, built from
// end_to_end.cpp, which defines Delivered, and the logger's own source file, which defines the rest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "oxEvent.h"

// Name in the results.
extern const char* const kLoggerName;

// Whether the logger delivers on a thread of its own.
extern const bool kHasWorker;

// Starts the logger with a queue of `queue_size` events. It writes its files to `directory`.
void LoggerStart(const std::string& directory, uint32_t queue_size);

// Reports one event. Threads: any. event_id, pts and value differ from call to call.
void LoggerSubmit(const oxEventRecord& record);

// Waits until every reported event is delivered or lost.
void LoggerDrain();

void LoggerStop();

// A logger with a thread of its own calls this on that thread, after it has passed the event to its file sink.
void Delivered(uint64_t event_id);

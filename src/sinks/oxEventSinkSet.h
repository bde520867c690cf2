#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"
#include "oxEvent.h"

// The process's set of active sinks: the sinks that the settings enable, in their order, and last the host's callbacks.
// Threads: any. The set holds no lock while it calls a sink: a delivery keeps the sinks with which it began, and a
// replaced sink is destroyed when its last delivery has finished and its buffered rows are written.

// Looks up the host of each enabled syslog and SNMP sink, so that creating the sinks needs no name server. Stores
// failures for the factories to report. Blocks for as long as the name servers take; holds no lock.
void oxEventSinkLookUpHosts(oxEventConfig* config);

// Create the sinks, replace the previous sinks and write the rows that these have buffered, waiting at most 1 s for
// each sink to which another thread is writing. If a sink cannot be created, return the factory's result code and keep
// the previous sinks; the factory's message becomes the last error of the sinks (oxEventSinkGetLastError) and of the
// thread.
uint32_t oxEventSinkInitialize(const oxEventConfig& config);
uint32_t oxEventSinkReloadConfig(const oxEventConfig& config);

// Delivers one event to every sink. If a sink fails or throws, the others still get the event, and the result is
// OXEVENT_FAILURE.
// *failed_sinks and *warnings receive counts; both pointers may be null.
uint32_t oxEventSinkSubmit(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings);

// Flushes every sink, each with the whole timeout; after a failure it still flushes the others. Returns OXEVENT_FAILURE
// if a sink failed, if a sink that a reload replaced is still writing its last rows, or if such a sink lost rows; each
// such loss is reported once.
uint32_t oxEventSinkFlush(uint32_t timeout_ms);

// Writes the buffered rows that can be written without a long wait. Call before a wait during which the process may be
// killed. If a write fails, the next flush reports it.
void oxEventSinkTryFlush();

// Unregisters the callbacks, writes the buffered rows without a time limit, and releases every sink. Always returns 0,
// even if rows are lost.
uint32_t oxEventSinkShutdown();

uint32_t oxEventSinkRegisterCallback(oxEventCallback callback, void* user_data, uint32_t* id_out);
uint32_t oxEventSinkUnregisterCallback(uint32_t id);

// Returns the reason of the last failure to initialize, reload or flush. Empty if an initialization, reload, flush or
// shutdown has succeeded since, or if there was no memory for the text.
std::string oxEventSinkGetLastError();

// The failures of a sink since the settings were loaded.
struct oxEventSinkStatus {
  std::string_view section;  // Section of the settings, such as sink\csv, or "callbacks".
  std::string name;          // Name of the instance; empty for the callbacks.
  uint64_t failures = 0;     // Deliveries and flushes that failed.
  std::string last_error;    // Empty if there was none.
  std::string detail;        // What last_error leaves out, if the sink knows more.
};

// Reports on the active sinks, in the order of delivery.
std::vector<oxEventSinkStatus> oxEventSinkReport();

// For the child of a fork: restores the state that the set had when the library was loaded. Abandons the parent's sinks
// without releasing them.
void oxEventSinkResetAfterFork();

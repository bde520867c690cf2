#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"
#include "oxEvent.h"

// The process's one set of active sinks: those that the settings enable, in their order, and last the host's callbacks.
// Any thread. No lock is held while a sink is called: a delivery goes on with the sinks that it began with, and a sink
// is destroyed when the last such delivery is done.

// Looks up the host of each enabled syslog and SNMP sink, so that building the sinks needs no name server. Failures are
// kept for the sinks' factories. Takes as long as the name servers do; no lock is held.
void oxEventSinkLookUpHosts(oxEventConfig* config);

// Build the sinks, replace those before and write their buffered rows, waiting at most 1 s for a busy one. On failure
// the factory's code and message (oxEventSinkGetLastError, and the thread's last error), and the sinks before stay.
uint32_t oxEventSinkInitialize(const oxEventConfig& config);
uint32_t oxEventSinkReloadConfig(const oxEventConfig& config);

// Gives one event to every sink; one that fails or throws does not stop the others. OXEVENT_FAILURE when one did.
// `failed_sinks` and `warnings` receive counts and may be null.
uint32_t oxEventSinkSubmit(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings);

// Each sink gets the whole time. OXEVENT_FAILURE when one failed, when one that a reload replaced is still busy with
// its last rows, or once when it lost rows and no flush has reported that; the others are flushed all the same.
uint32_t oxEventSinkFlush(uint32_t timeout_ms);

// Writes buffered rows before a wait that the process may not survive, as far as that needs no waiting itself. The next
// flush reports a failure.
void oxEventSinkTryFlush();

// Releases every sink and forgets the callbacks. Always 0.
uint32_t oxEventSinkShutdown();

uint32_t oxEventSinkRegisterCallback(oxEventCallback callback, void* user_data, uint32_t* id_out);
uint32_t oxEventSinkUnregisterCallback(uint32_t id);

// The last failure of this framework; empty after a success, or without memory for it.
std::string oxEventSinkGetLastError();

// What has become of a sink since the settings were loaded.
struct oxEventSinkStatus {
  std::string_view section;  // The section in the settings, such as sink\csv; or "callbacks".
  std::string name;          // The instance's name; empty for the callbacks.
  uint64_t failures = 0;     // Deliveries and flushes that failed.
  std::string last_error;    // Empty: none yet.
};

// Of the active sinks.
std::vector<oxEventSinkStatus> oxEventSinkReport();

// In a fork's child: as after load; what the parent's sinks hold is abandoned, not released.
void oxEventSinkResetAfterFork();

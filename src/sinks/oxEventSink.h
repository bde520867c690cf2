#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/oxEventNormalizedEvent.h"
#include "config/oxEventConfig.h"

// A destination of events. Shared: it lives until the active set and whoever still delivers to it have let go. Each
// sink guards its own state: the worker calls Submit, any thread Flush. *error (may be null) gets the reason of a
// failure.
class oxEventSink {
 public:
  oxEventSink() = default;
  virtual ~oxEventSink() = default;
  oxEventSink(const oxEventSink&) = delete;
  oxEventSink& operator=(const oxEventSink&) = delete;

  // Delivers the event; may add to *warnings. Returns 0 or a result code.
  virtual uint32_t Submit(const oxEventNormalizedEvent& event, uint64_t* warnings, std::string* error) = 0;

  // Writes out what is buffered.
  virtual uint32_t Flush(uint32_t /*timeout_ms*/, std::string* /*error*/) { return OXEVENT_OK; }

  // Writes out what can be written without waiting. The next Flush or Drain reports a failure.
  virtual void TryFlush() {}

  // Flush for a sink that is no longer active. Fails if rows were lost that no Flush and no Drain has reported, or,
  // with *busy set, if another thread was writing for the whole time.
  virtual uint32_t Drain(uint32_t /*timeout_ms*/, bool* /*busy*/, std::string* /*error*/) { return OXEVENT_OK; }
};

// For the receiver of a sink of this kind. Takes as long as a name server does.
std::shared_ptr<const oxEventUdpLookup> oxEventLookUpSyslogUdp(const oxEventSinkConfig& config);
std::shared_ptr<const oxEventUdpLookup> oxEventLookUpSnmpTrap(const oxEventSinkConfig& config);

// A factory makes a sink of its kind: 0 with the sink in *out, or a code with the reason in *error (may be null).
uint32_t oxEventCreateCsvSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out, std::string* error);
uint32_t oxEventCreateSyslogUdpSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                    std::string* error);
uint32_t oxEventCreateNativeSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                 std::string* error);
uint32_t oxEventCreateCloudEventsHttpSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                          std::string* error);  // The webhook's too.
uint32_t oxEventCreateSnmpTrapSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                   std::string* error);
uint32_t oxEventCreateAlertmanagerSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                       std::string* error);

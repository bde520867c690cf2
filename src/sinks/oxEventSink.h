#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventSeverity.h"
#include "config/oxEventConfig.h"

// A destination of events. Ownership: each configured sink belongs to one generation (oxEventSinkGeneration.h).
// Threads: the worker calls Submit, any thread calls the other methods; each sink guards its own state.
// Errors: a method returns 0 or a result code, with the reason in *error; `error` may be null.
class oxEventSink {
 public:
  constexpr explicit oxEventSink(uint32_t minimum_severity) : minimum_severity_(minimum_severity) {}
  virtual ~oxEventSink() = default;
  oxEventSink(const oxEventSink&) = delete;
  oxEventSink& operator=(const oxEventSink&) = delete;

  // Opens the destination. Called once, before all other methods; if it fails, the sink is destroyed.
  virtual uint32_t Open(std::string* /*error*/) { return OXEVENT_OK; }

  bool Accepts(uint32_t severity) const { return oxEventSeverityMeetsMinimum(severity, minimum_severity_); }

  // Delivers the event, unless its severity is below the minimum. Adds the number of warnings to *warnings; `warnings`
  // may be null.
  uint32_t Submit(const oxEventNormalizedEvent& event, uint64_t* warnings, std::string* error) {
    if (!Accepts(event.severity)) return OXEVENT_OK;
    return Deliver(event, warnings, error);
  }

  // Writes the buffered rows, if the sink has any. Fails if the sink has ever lost rows, or if another thread was
  // writing for the whole timeout. A timeout of 0 means no limit.
  virtual uint32_t Flush(uint32_t /*timeout_ms*/, std::string* /*error*/) { return OXEVENT_OK; }

  // Writes the buffered rows that can be written without a long wait. If a write fails, the next Flush or Drain
  // reports it.
  virtual void TryFlush() {}

  // Like Flush, for a sink that is no longer active, but reports each loss only once: fails if rows were lost that
  // neither Flush nor Drain has reported. If another thread was writing for the whole timeout, fails and sets *busy.
  virtual uint32_t Drain(uint32_t /*timeout_ms*/, bool* /*busy*/, std::string* /*error*/) { return OXEVENT_OK; }

  // Removes what Open has created. Called if a sink was opened but does not become active because another sink could
  // not be opened. Only the destructor is called after it.
  virtual void Discard() {}

  // What the error text of the last failure leaves out, such as the status code of an HTTP response. For tools. Must
  // take no lock: the caller holds one.
  virtual std::string FailureDetail() const { return {}; }

 private:
  // Called by Submit for an event of at least the minimum severity.
  virtual uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* warnings, std::string* error) = 0;

  const uint32_t minimum_severity_;
};

// Each looks up the host that a sink with these settings sends to, and blocks for as long as the name server takes.
std::shared_ptr<const oxEventUdpLookup> oxEventLookUpSyslogUdp(const oxEventSinkConfig& config);
std::shared_ptr<const oxEventUdpLookup> oxEventLookUpSnmpTrap(const oxEventSinkConfig& config);

// Factories. Each returns 0 with the sink in *out, or a result code with the reason in *error; `error` may be null.
uint32_t oxEventCreateCsvSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out, std::string* error);
uint32_t oxEventCreateSyslogUdpSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                    std::string* error);
uint32_t oxEventCreateNativeSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                 std::string* error);
uint32_t oxEventCreateHttpSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                               std::string* error);  // Webhooks and CloudEvents.
uint32_t oxEventCreateSnmpTrapSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                   std::string* error);
uint32_t oxEventCreateAlertmanagerSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                       std::string* error);

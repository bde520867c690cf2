#include "sinks/oxEventSinkSet.h"

#include <atomic>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "base/oxEventErrorText.h"
#include "base/oxEventForkCount.h"
#include "base/oxEventLastError.h"
#include "base/oxEventMutex.h"
#include "base/oxEventNoDestructor.h"
#include "base/oxEventStat.h"
#include "config/oxEventSettings.h"
#include "sinks/oxEventCallbackSink.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkGeneration.h"

namespace {

using SharedGeneration = std::shared_ptr<oxEventSinkGeneration>;

constexpr uint32_t kReloadTimeoutMs = 1000;  // For draining each sink that a reload has replaced.

auto FactoryOf(oxEventSinkType type) {
  switch (type) {
    case oxEventSinkType::kCsv:
      return oxEventCreateCsvSink;
    case oxEventSinkType::kSyslogUdp:
      return oxEventCreateSyslogUdpSink;
    case oxEventSinkType::kNative:
      return oxEventCreateNativeSink;
    case oxEventSinkType::kCloudEventsHttp:
    case oxEventSinkType::kWebhookHttp:
      return oxEventCreateHttpSink;
    case oxEventSinkType::kSnmpTrap:
      return oxEventCreateSnmpTrapSink;
    case oxEventSinkType::kAlertmanager:
      break;
  }
  return oxEventCreateAlertmanagerSink;
}

const char* SectionOf(oxEventSinkType type) {
  for (const oxEventSection& section : g_oxEventSections) {
    if (section.default_instance != nullptr && section.type == type) return section.key;
  }
  return "sink";
}

// Lock order: `mutex` first. With it held, a thread takes the mutex of a generation, that of the callback sink or
// error_mutex, but never two of these together. The mutex of an oxEventActiveSink, and that of any sink except the
// callback sink, is taken only while none of the above is held, and never together with another.
struct SinkSet {
  oxEventMutex mutex;
  SharedGeneration active OX_GUARDED_BY(mutex);  // Null before initialization and after shutdown.
  std::atomic<bool> drain_lost_rows = false;     // A retired generation lost rows; no flush has reported it.
  oxEventMutex error_mutex;
  std::optional<std::string> last_error OX_GUARDED_BY(error_mutex);
  oxEventCallbackSink callbacks;
};
constinit oxEventNoDestructor<SinkSet> g_sinks;

// A reference without ownership: the callback sink exists as long as the library is loaded.
std::shared_ptr<oxEventSink> CallbackSink() { return {std::shared_ptr<void>(), &g_sinks->callbacks}; }

void SetSinkError(std::string_view text) {
  oxEventLock lock(g_sinks->error_mutex);
  try {
    g_sinks->last_error.emplace(text);
  } catch (const std::bad_alloc&) {
    // The error text is missing; the result code remains.
  }
}

void ClearSinkError() {
  oxEventLock lock(g_sinks->error_mutex);
  g_sinks->last_error.reset();
}

SharedGeneration ActiveGeneration() {
  oxEventLock lock(g_sinks->mutex);
  return g_sinks->active;
}

uint32_t BuildEnabledSinks(const oxEventConfig& config, oxEventSinkGeneration::Sinks* sinks, std::string* error) {
  for (const oxEventSinkConfig& sink_config : config.sinks) {
    if (!sink_config.enabled) continue;
    std::shared_ptr<oxEventSink> sink;
    const uint32_t result = FactoryOf(sink_config.type)(sink_config, &sink, error);
    if (result != OXEVENT_OK) return result;
    sinks->push_back(
        std::make_unique<oxEventActiveSink>(SectionOf(sink_config.type), sink_config.name, std::move(sink)));
  }
  sinks->push_back(std::make_unique<oxEventActiveSink>("callbacks", "", CallbackSink()));
  return OXEVENT_OK;
}

uint32_t ReplaceSinks(const oxEventConfig& config, oxEventErrorText<0> default_error) {
  oxEventSinkGeneration::Sinks sinks;
  std::string error;
  const uint32_t result = BuildEnabledSinks(config, &sinks, &error);
  if (result != OXEVENT_OK) {
    for (const auto& sink : sinks) sink->Get().Discard();
    const std::string_view text = error.empty() ? default_error.text : std::string_view(error);
    oxEventSetLastError(text);
    SetSinkError(text);
    return result;
  }
  const auto built = std::make_shared<oxEventSinkGeneration>(std::move(sinks), &g_sinks->drain_lost_rows);
  {
    oxEventLock lock(g_sinks->mutex);
    oxEventStatPublishSinks(built->Stat());
    built->Replace(std::move(g_sinks->active));
    g_sinks->active = built;
    ClearSinkError();
  }
  built->DrainPredecessor(kReloadTimeoutMs);
  return OXEVENT_OK;
}

}  // namespace

void oxEventSinkLookUpHosts(oxEventConfig* config) {
  for (oxEventSinkConfig& sink : config->sinks) {
    if (!sink.enabled) continue;
    if (sink.type == oxEventSinkType::kSyslogUdp) sink.lookup = oxEventLookUpSyslogUdp(sink);
    if (sink.type == oxEventSinkType::kSnmpTrap) sink.lookup = oxEventLookUpSnmpTrap(sink);
  }
}

uint32_t oxEventSinkInitialize(const oxEventConfig& config) {
  return ReplaceSinks(config, oxEventErrors::kSinkStartFailed);
}

uint32_t oxEventSinkReloadConfig(const oxEventConfig& config) {
  return ReplaceSinks(config, oxEventErrors::kSinkReloadFailed);
}

uint32_t oxEventSinkSubmit(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings) {
  if (failed_sinks != nullptr) *failed_sinks = 0;
  if (warnings != nullptr) *warnings = 0;
  SharedGeneration generation = ActiveGeneration();
  if (generation == nullptr) return OXEVENT_OK;
  const unsigned forks = g_oxEventForkCount;
  const uint32_t result = generation->Deliver(event, failed_sinks, warnings);
  // In the child of a fork that a callback made, leaks the reference: destroying the parent's sinks would write their
  // rows a second time.
  if (g_oxEventForkCount != forks) new (std::nothrow) SharedGeneration(std::move(generation));
  return result;
}

uint32_t oxEventSinkFlush(uint32_t timeout_ms) {
  const SharedGeneration generation = ActiveGeneration();
  const bool flushed = generation == nullptr || generation->Flush(timeout_ms);
  if (g_sinks->drain_lost_rows.exchange(false) || !flushed) {
    constexpr oxEventErrorText<0> kError(oxEventErrors::kSinkFlushFailed);
    SetSinkError(kError.text);
    oxEventSetLastError(kError.text);
    return kError.code;
  }
  ClearSinkError();
  return OXEVENT_OK;
}

void oxEventSinkTryFlush() {
  if (const SharedGeneration generation = ActiveGeneration(); generation != nullptr) generation->TryFlush();
}

uint32_t oxEventSinkShutdown() {
  SharedGeneration released;
  {
    oxEventLock lock(g_sinks->mutex);
    oxEventStatPublishSinks(nullptr);
    released.swap(g_sinks->active);
    g_sinks->callbacks.UnregisterAll();
    ClearSinkError();
  }
  if (released != nullptr) {
    released->Retire();
    released->Drain(0);
  }
  g_sinks->drain_lost_rows = false;  // The router's Stop has reported lost rows, or has failed for another reason.
  return OXEVENT_OK;
}

uint32_t oxEventSinkRegisterCallback(oxEventCallback callback, void* user_data, uint32_t* id_out) {
  return g_sinks->callbacks.Register(callback, user_data, id_out);
}

uint32_t oxEventSinkUnregisterCallback(uint32_t id) { return g_sinks->callbacks.Unregister(id); }

std::string oxEventSinkGetLastError() {
  std::string text;
  oxEventLock lock(g_sinks->error_mutex);
  if (g_sinks->last_error) oxEventCopyErrorText(*g_sinks->last_error, &text);
  return text;
}

std::vector<oxEventSinkStatus> oxEventSinkReport() {
  const SharedGeneration generation = ActiveGeneration();
  return generation != nullptr ? generation->Report() : std::vector<oxEventSinkStatus>();
}

void oxEventSinkResetAfterFork() {
  oxEventStatPublishSinks(nullptr);
  g_sinks.Reset();
}

#include "sinks/oxEventSinkSet.h"

#include <cxxabi.h>

#include <atomic>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "base/oxEventErrorText.h"
#include "base/oxEventForkCount.h"
#include "base/oxEventImmortal.h"
#include "base/oxEventLastError.h"
#include "base/oxEventMutex.h"
#include "base/oxEventTrace.h"
#include "config/oxEventSettings.h"
#include "sinks/oxEventCallbackSink.h"
#include "sinks/oxEventSink.h"

namespace {

// A sink, and what has become of it.
class ActiveSink {
 public:
  // `section` has static storage.
  ActiveSink(const char* section, std::string name, std::shared_ptr<oxEventSink> sink)
      : section_(section), name_(std::move(name)), sink_(std::move(sink)) {}

  oxEventSink& Get() const { return *sink_; }

  void NoteFailure(std::string error) OX_EXCLUDES(mutex_) {
    oxEventTraceSinkFailure(section_, name_.c_str(), error.c_str());
    oxEventLock lock(mutex_);
    ++failures_;
    last_error_.swap(error);
  }

  oxEventSinkStatus Status() OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    return {section_, name_, failures_, last_error_};
  }

 private:
  const char* const section_;
  const std::string name_;
  const std::shared_ptr<oxEventSink> sink_;
  oxEventMutex mutex_;
  uint64_t failures_ OX_GUARDED_BY(mutex_) = 0;
  std::string last_error_ OX_GUARDED_BY(mutex_);
};

using SinkList = std::vector<std::unique_ptr<ActiveSink>>;
using SharedList = std::shared_ptr<const SinkList>;

constexpr uint32_t kReloadPatienceMs = 1000;  // With a write of the worker's that hangs.

// A configured and enabled sink of a kind that this library does not know: accepts everything, does nothing.
class oxEventConfiguredSink : public oxEventSink {
 public:
  explicit oxEventConfiguredSink(const oxEventSinkConfig& config) : config_(config) {}
  uint32_t Submit(const oxEventNormalizedEvent&, uint64_t*, std::string*) override { return OXEVENT_OK; }

 private:
  const oxEventSinkConfig config_;
};

uint32_t CreateConfiguredSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out, std::string*) {
  *out = std::make_shared<oxEventConfiguredSink>(config);
  return OXEVENT_OK;
}

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
      return oxEventCreateCloudEventsHttpSink;
    case oxEventSinkType::kSnmpTrap:
      return oxEventCreateSnmpTrapSink;
    case oxEventSinkType::kAlertmanager:
      return oxEventCreateAlertmanagerSink;
  }
  return CreateConfiguredSink;
}

const char* SectionOf(oxEventSinkType type) {
  for (const oxEventSection& section : g_oxEventSections) {
    if (section.default_instance != nullptr && section.type == type) return section.key;
  }
  return "sink";
}

// Lock order: mutex, then the callback sink's own, then error_mutex.
struct SinkSet {
  oxEventMutex mutex;
  SharedList active OX_GUARDED_BY(mutex);                        // Null: empty.
  std::weak_ptr<const SinkList> delivered OX_GUARDED_BY(mutex);  // The list of the last event.
  std::atomic<unsigned> replacements = 0;                        // Of `active`. Changed with `mutex` held.
  std::atomic<bool> rows_missing = false;                        // Of replaced sinks. For the next flush to tell.
  oxEventMutex error_mutex;
  std::optional<std::string> last_error OX_GUARDED_BY(error_mutex);
  oxEventCallbackSink callbacks;
};
constinit oxEventImmortal<SinkSet> g_sinks;

// Shares the one callback sink without owning it: it is there from load to unload.
std::shared_ptr<oxEventSink> CallbackSink() { return {std::shared_ptr<void>(), &g_sinks->callbacks}; }

void SetSinkError(std::string_view text) {
  oxEventLock lock(g_sinks->error_mutex);
  try {
    g_sinks->last_error.emplace(text);
  } catch (const std::bad_alloc&) {
    // Without memory for it there is no text; the result code stands.
  }
}

void ClearSinkError() {
  oxEventLock lock(g_sinks->error_mutex);
  g_sinks->last_error.reset();
}

// Calls a method of a sink; *error gets the reason of a failure, if the sink gives one. A sink that throws has failed.
// An unwinding thread cannot be held up.
template <class Call>
bool Succeeds(Call call, std::string* error) {
  try {
    if (call(error) == OXEVENT_OK) return true;
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& exception) {
    oxEventSetErrorText(oxEventErrors::kSinkThrew, {exception.what()}, error);
  } catch (...) {
    oxEventSetErrorText(oxEventErrors::kSinkThrewUnknown, error);
  }
  return false;
}

// By which of the two: &oxEventSink::Flush, &oxEventSink::WriteOut.
bool FlushAll(const SharedList& sinks, uint32_t (oxEventSink::*flush)(uint32_t, std::string*), uint32_t timeout_ms) {
  bool flushed = true;
  if (sinks == nullptr) return flushed;
  for (const auto& sink : *sinks) {
    std::string error;
    if (Succeeds([&](auto* text) { return (sink->Get().*flush)(timeout_ms, text); }, &error)) continue;
    sink->NoteFailure(std::move(error));
    flushed = false;
  }
  return flushed;
}

// Writes out the rows of a list that is no longer active: a delivery that still holds the list must not be what they
// wait for. A sink that is busy for all of the time (0: without limit) does so when its last owner lets go of it.
void WriteOut(const SharedList& replaced, uint32_t timeout_ms) {
  if (!FlushAll(replaced, &oxEventSink::WriteOut, timeout_ms)) g_sinks->rows_missing = true;
}

uint32_t BuildEnabledSinks(const oxEventConfig& config, SinkList* sinks, std::string* error) {
  for (const oxEventSinkConfig& sink_config : config.sinks) {
    if (!sink_config.enabled) continue;
    std::shared_ptr<oxEventSink> sink;
    const uint32_t result = FactoryOf(sink_config.type)(sink_config, &sink, error);
    if (result != OXEVENT_OK) return result;
    sinks->push_back(std::make_unique<ActiveSink>(SectionOf(sink_config.type), sink_config.name, std::move(sink)));
  }
  sinks->push_back(std::make_unique<ActiveSink>("callbacks", "", CallbackSink()));
  return OXEVENT_OK;
}

uint32_t Replace(const oxEventConfig& config, oxEventErrorText<0> default_error) {
  auto built = std::make_shared<SinkList>();
  std::string error;
  const uint32_t result = BuildEnabledSinks(config, built.get(), &error);
  if (result != OXEVENT_OK) {
    const std::string_view text = error.empty() ? default_error.text : std::string_view(error);
    oxEventSetLastError(text);
    SetSinkError(text);
    return result;
  }
  SharedList replaced = std::move(built);
  {
    oxEventLock lock(g_sinks->mutex);
    replaced.swap(g_sinks->active);
    ++g_sinks->replacements;
    ClearSinkError();
  }
  WriteOut(replaced, kReloadPatienceMs);
  return OXEVENT_OK;
}

// The sinks for the next event. Where a reload has replaced those of the last event and has not yet written out their
// rows, *replaced gets them: their rows belong before the next event's in a file that both write to.
SharedList SinksForDelivery(SharedList* replaced, unsigned* replacements) {
  oxEventLock lock(g_sinks->mutex);
  *replacements = g_sinks->replacements;
  SharedList last = g_sinks->delivered.lock();
  if (last != g_sinks->active) {
    *replaced = std::move(last);
    g_sinks->delivered = g_sinks->active;
  }
  return g_sinks->active;
}

}  // namespace

uint32_t oxEventSinkInitialize(const oxEventConfig& config) { return Replace(config, oxEventErrors::kSinkStartFailed); }

uint32_t oxEventSinkReloadConfig(const oxEventConfig& config) {
  return Replace(config, oxEventErrors::kSinkReloadFailed);
}

uint32_t oxEventSinkSubmit(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings) {
  if (failed_sinks != nullptr) *failed_sinks = 0;
  if (warnings != nullptr) *warnings = 0;
  SharedList replaced;
  unsigned replacements = 0;
  SharedList sinks = SinksForDelivery(&replaced, &replacements);
  WriteOut(replaced, 0);
  replaced.reset();
  if (sinks == nullptr) return OXEVENT_OK;

  const unsigned forks = g_oxEventForkCount;
  uint32_t result = OXEVENT_OK;
  for (const auto& sink : *sinks) {
    uint64_t sink_warnings = 0;
    std::string error;
    const bool delivered =
        Succeeds([&](auto* text) { return sink->Get().Submit(event, &sink_warnings, text); }, &error);
    if (warnings != nullptr) *warnings += sink_warnings;
    if (delivered || g_oxEventForkCount != forks) continue;
    sink->NoteFailure(std::move(error));
    if (failed_sinks != nullptr) ++*failed_sinks;
    result = OXEVENT_FAILURE;
  }
  // In the child of a fork in a callback the sinks are the parent's: never released, so that nothing is written twice.
  if (g_oxEventForkCount != forks) {
    new (std::nothrow) SharedList(std::move(sinks));
  } else if (g_sinks->replacements != replacements) {
    WriteOut(sinks, 0);  // Whoever replaced them may have done so before this event's rows came.
  }
  return result;
}

uint32_t oxEventSinkFlush(uint32_t timeout_ms) {
  SharedList sinks;
  SharedList last;
  {
    oxEventLock lock(g_sinks->mutex);
    sinks = g_sinks->active;
    last = g_sinks->delivered.lock();
  }
  if (last != sinks) WriteOut(last, timeout_ms);  // A reload is about to, and may take its time.
  const bool flushed = FlushAll(sinks, &oxEventSink::Flush, timeout_ms);
  if (g_sinks->rows_missing.exchange(false) || !flushed) {
    constexpr oxEventErrorText<0> kError(oxEventErrors::kSinkFlushFailed);
    SetSinkError(kError.text);
    oxEventSetLastError(kError.text);
    return kError.code;
  }
  ClearSinkError();
  return OXEVENT_OK;
}

uint32_t oxEventSinkShutdown() {
  SharedList released;
  {
    oxEventLock lock(g_sinks->mutex);
    released.swap(g_sinks->active);
    g_sinks->delivered.reset();
    g_sinks->callbacks.UnregisterAll();
    g_sinks->rows_missing = false;
    ClearSinkError();
  }
  FlushAll(released, &oxEventSink::WriteOut, 0);  // Who shuts down has flushed before, and told.
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
  SharedList sinks;
  {
    oxEventLock lock(g_sinks->mutex);
    sinks = g_sinks->active;
  }
  std::vector<oxEventSinkStatus> report;
  if (sinks == nullptr) return report;
  for (const auto& sink : *sinks) report.push_back(sink->Status());
  return report;
}

void oxEventSinkForgetInChild() { g_sinks.Renew(); }

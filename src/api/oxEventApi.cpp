#include <cxxabi.h>

#include <atomic>
#include <exception>
#include <optional>
#include <string>

#include "api/oxEventNormalize.h"
#include "api/oxEventProcess.h"
#include "base/oxEventErrorText.h"
#include "base/oxEventLastError.h"
#include "base/oxEventMutex.h"
#include "base/oxEventNoDestructor.h"
#include "base/oxEventTrace.h"
#include "config/oxEventConfigLoad.h"
#include "core/oxEventRouter.h"
#include "oxEvent.h"
#include "platform/oxEventPlatformSystem.h"
#include "platform/oxEventSignalBlock.h"
#include "sinks/oxEventAlertmanager.h"
#include "sinks/oxEventSinkSet.h"

namespace {

constexpr uint32_t kShutdownDrainMs = 5000;
constexpr uint64_t kFirstGeneratedId = 1;

// Taken before every other lock except g_oxEventReloadMutex. Held while sinks are opened, but not while the settings
// file is read or host names are resolved, which may take a long time (except if a shutdown overtakes an Initialize on
// another thread). Submit and Flush do not take it: they only read g_oxEventInitialized.
constinit oxEventNoDestructor<oxEventMutex> g_oxEventMutex;
// Held during a complete reload, so that a slow earlier reload cannot overwrite the settings of a later one. Taken
// before g_oxEventMutex.
constinit oxEventNoDestructor<oxEventMutex> g_oxEventReloadMutex;
// Changed with g_oxEventMutex held, except at unload, at process exit and in the child of a fork.
constinit std::atomic<bool> g_oxEventInitialized = false;
constinit std::atomic<uint64_t> g_oxEventStarts = 0;  // Counts successful starts. Changed with g_oxEventMutex held.
constinit std::atomic<bool> g_oxEventClosed = false;  // Set at unload and process exit; no start succeeds then.
constinit bool g_oxEventShutdownInProgress = false;   // Guarded by g_oxEventMutex.
constinit oxEventNoDestructor<std::optional<std::string>> g_oxEventConfigPath;  // Guarded by g_oxEventMutex.
constinit std::atomic<uint64_t> g_oxEventNextGeneratedId = kFirstGeneratedId;

uint32_t Fail(uint32_t code, std::string_view text) {
  oxEventSetLastError(text);
  return code;
}

uint32_t Fail(uint32_t code, oxEventErrorText<0> error) { return Fail(code, error.text); }

uint32_t Fail(oxEventErrorText<0> error) { return Fail(error.code, error); }

uint32_t FailWith(uint32_t code, const std::string& text, oxEventErrorText<0> error_if_empty) {
  return Fail(code, text.empty() ? error_if_empty.text : std::string_view(text));
}

uint32_t NotInitialized() { return Fail(oxEventErrors::kNotInitialized); }

// Sets the last error if `code` is a failure, clears it otherwise. Returns `code`.
uint32_t Finish(uint32_t code, oxEventErrorText<0> error) {
  if (code != OXEVENT_OK) return Fail(code, error);
  oxEventClearLastError();
  return OXEVENT_OK;
}

uint32_t ReturnExceptionError(const char* entry_point, const std::exception& exception) {
  std::string text;
  const uint32_t code = oxEventSetErrorText(oxEventErrors::kEntryPointFailed, {entry_point, exception.what()}, &text);
  return Fail(code, text);
}

uint32_t ReturnUnknownError(const char* entry_point) {
  std::string text;
  const uint32_t code = oxEventSetErrorText(oxEventErrors::kUnknownException, {entry_point}, &text);
  return Fail(code, text);
}

// Converts every exception of `body` to a result code, except the unwinding of a cancelled thread, which must continue.
template <class Body>
uint32_t Guarded(const char* entry_point, Body body) {
  try {
    return body();
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& exception) {
    return ReturnExceptionError(entry_point, exception);
  } catch (...) {
    return ReturnUnknownError(entry_point);
  }
}

// Returns the next id other than 0, which would mean "no id".
uint64_t NextGeneratedId() {
  const uint64_t id = g_oxEventNextGeneratedId.fetch_add(1, std::memory_order_relaxed);
  return id != 0 ? id : g_oxEventNextGeneratedId.fetch_add(1, std::memory_order_relaxed);
}

// Initializing an event would take half as long as reading a record.
union UninitializedEvent {
  UninitializedEvent() {}
  oxEventNormalizedEvent value;
};

// Submits the event that `normalize` writes to its argument. If the call is refused, `normalize` returns an error.
template <class Normalize>
uint32_t SubmitEvent(const char* entry_point, Normalize normalize) {
  UninitializedEvent event;
  bool is_valid = false;
  // Nothing in it throws, because a thread's first exception may allocate memory: Guarded is only a safety net here.
  const uint32_t result = Guarded(entry_point, [&] {
    if (normalize(&event.value) != OXEVENT_OK) return Fail(oxEventErrors::kInvalidRecord);
    is_valid = true;
    if (!g_oxEventInitialized) return NotInitialized();
    return Finish(oxEventCoreSubmit(event.value), oxEventErrors::kSubmitFailed);
  });
  oxEventTraceSubmit(result, is_valid ? event.value.event_id : 0,
                     is_valid ? event.value.severity : OXEVENT_SEVERITY_INFO);
  return result;
}

// Its destructor shuts the sinks down unless Dismiss was called.
class SinkShutdownGuard {
 public:
  SinkShutdownGuard() = default;
  ~SinkShutdownGuard() {
    if (!dismissed_) oxEventSinkShutdown();
  }
  SinkShutdownGuard(const SinkShutdownGuard&) = delete;
  SinkShutdownGuard& operator=(const SinkShutdownGuard&) = delete;
  void Dismiss() { dismissed_ = true; }

 private:
  bool dismissed_ = false;
};

uint32_t Initialize(const char* config_path) {
  const oxEventCancelBlock cancel_block;
  oxEventCoreRouter().Reap();
  oxEventConfig config;
  std::string error;
  if (const uint32_t result = oxEventConfigLoad(config_path, &config, &error); result != OXEVENT_OK) {
    return FailWith(result, error, oxEventErrors::kConfigLoadFailed);
  }
  std::string remembered_path = config.config_path;
  if (!g_oxEventInitialized) oxEventSinkLookUpHosts(&config);

  oxEventLock lock(*g_oxEventMutex);
  if (g_oxEventInitialized || g_oxEventShutdownInProgress) {
    return Fail(oxEventErrors::kAlreadyInitialized);
  }
  // The router checks this too, but only after the sinks are open: shutting them down then would remove callbacks that
  // a delivery still needs.
  if (g_oxEventClosed) return Fail(oxEventErrors::kStartFailed);
  if (const uint32_t result = oxEventSinkInitialize(config); result != OXEVENT_OK) {
    return FailWith(result, oxEventSinkGetLastError(), oxEventErrors::kSinkStartFailed);
  }
  SinkShutdownGuard sinks;
  if (const uint32_t result = oxEventCoreStart(&config); result != OXEVENT_OK) {
    return Fail(result, oxEventErrors::kStartFailed);
  }
  sinks.Dismiss();
  *g_oxEventConfigPath = std::move(remembered_path);
  ++g_oxEventStarts;
  g_oxEventInitialized = true;
  oxEventClearLastError();
  return OXEVENT_OK;
}

uint32_t ReloadConfig(const char* config_path) {
  const oxEventCancelBlock cancel_block;
  const oxEventLock reload_lock(*g_oxEventReloadMutex);
  const uint64_t starts = g_oxEventStarts;
  std::string path = config_path == nullptr ? "" : config_path;
  if (path.empty()) {
    oxEventLock lock(*g_oxEventMutex);
    path = g_oxEventConfigPath->value_or("");
  }
  oxEventConfig config;
  std::string error;
  if (const uint32_t result = oxEventConfigLoad(path.c_str(), &config, &error); result != OXEVENT_OK) {
    return FailWith(result, error, oxEventErrors::kConfigReloadFailed);
  }
  if (g_oxEventInitialized) oxEventSinkLookUpHosts(&config);

  oxEventLock lock(*g_oxEventMutex);
  // The library is not running, or it was shut down during the load and has been started again, with other settings.
  if (!g_oxEventInitialized || g_oxEventStarts != starts) return NotInitialized();
  if (const uint32_t result = oxEventSinkReloadConfig(config); result != OXEVENT_OK) {
    return FailWith(result, oxEventSinkGetLastError(), oxEventErrors::kConfigReloadFailed);
  }
  if (const uint32_t result = oxEventCoreReloadConfig(&config); result != OXEVENT_OK) {
    return Fail(result, oxEventErrors::kReloadFailed);
  }
  *g_oxEventConfigPath = std::move(path);
  oxEventClearLastError();
  return OXEVENT_OK;
}

// A shutdown is in progress while an object of this class exists. Construct it with g_oxEventMutex held, and destroy it
// with the mutex released.
class ShutdownInProgress {
 public:
  ShutdownInProgress() { g_oxEventShutdownInProgress = true; }
  ~ShutdownInProgress() {
    oxEventLock lock(*g_oxEventMutex);
    g_oxEventShutdownInProgress = false;
  }
  ShutdownInProgress(const ShutdownInProgress&) = delete;
  ShutdownInProgress& operator=(const ShutdownInProgress&) = delete;
};

uint32_t Shutdown() {
  const oxEventCancelBlock cancel_block;
  std::optional<ShutdownInProgress> in_progress;
  {
    oxEventLock lock(*g_oxEventMutex);
    if (!g_oxEventInitialized) return NotInitialized();
    in_progress.emplace();
    g_oxEventConfigPath->reset();
    g_oxEventInitialized = false;
  }
  SinkShutdownGuard sinks;
  const uint32_t stop_result = oxEventCoreStop(kShutdownDrainMs);
  const std::string stop_text = oxEventSinkGetLastError();
  sinks.Dismiss();
  const uint32_t sink_result = oxEventSinkShutdown();
  if (stop_result != OXEVENT_OK) return FailWith(stop_result, stop_text, oxEventErrors::kShutdownFailed);
  return Finish(sink_result, oxEventErrors::kSinkShutdownFailed);
}

}  // namespace

uint32_t oxEventInitialize(const char* config_path) {
  return Guarded("oxEventInitialize", [&] { return Initialize(config_path); });
}

uint32_t oxEventShutdown() { return Guarded("oxEventShutdown", Shutdown); }

uint32_t oxEventSubmit(const oxEventRecord* record) {
  const uint64_t id = NextGeneratedId();  // Used up even if the record is refused.
  return SubmitEvent("oxEventSubmit",
                     [&](oxEventNormalizedEvent* event) { return oxEventNormalizeEvent(record, id, event); });
}

uint32_t oxEventSubmitSimple(uint32_t event_id, uint32_t severity, const char* source_name, const char* message) {
  const uint64_t assigned_id = NextGeneratedId();
  const uint64_t id = event_id != 0 ? event_id : assigned_id;
  return SubmitEvent("oxEventSubmitSimple", [&](oxEventNormalizedEvent* event) {
    return oxEventNormalizeSimple(id, severity, source_name, message, event);
  });
}

uint32_t oxEventFlush(uint32_t timeout_ms) {
  const uint32_t result = Guarded("oxEventFlush", [&] {
    if (!g_oxEventInitialized) return NotInitialized();
    return Finish(oxEventCoreFlush(timeout_ms), oxEventErrors::kFlushTimedOut);
  });
  oxEventTraceFlush(result);
  return result;
}

uint32_t oxEventReloadConfig(const char* config_path) {
  return Guarded("oxEventReloadConfig", [&] { return ReloadConfig(config_path); });
}

uint32_t oxEventRegisterCallback(oxEventCallback callback, void* user_data, uint32_t* id_out) {
  return Guarded("oxEventRegisterCallback", [&] {
    if (callback == nullptr || id_out == nullptr) {
      return Fail(oxEventErrors::kCallbackArguments);
    }
    return Finish(oxEventSinkRegisterCallback(callback, user_data, id_out), oxEventErrors::kCallbackFailed);
  });
}

uint32_t oxEventUnregisterCallback(uint32_t id) {
  return Guarded("oxEventUnregisterCallback", [&] {
    const bool found = oxEventSinkUnregisterCallback(id) == OXEVENT_OK;
    return Finish(found ? OXEVENT_OK : OXEVENT_NOT_FOUND, oxEventErrors::kCallbackNotFound);
  });
}

uint32_t oxEventGetLastError(char* buffer, uint32_t buffer_size) {
  return Guarded("oxEventGetLastError", [&] {
    if (buffer == nullptr || buffer_size == 0) return Fail(oxEventErrors::kLastErrorBuffer);
    oxEventCopyLastError(buffer, buffer_size);
    return OXEVENT_OK;
  });
}

uint32_t oxEventGetApiVersion() { return OXEVENT_API_VERSION; }

uint32_t oxEventInstallWindowsEventSource(const char* source_name, const char* message_file) {
  return Guarded("oxEventInstallWindowsEventSource", [&] {
    std::string error;
    const uint32_t result = oxEventPlatformInstallWindowsEventSource(source_name, message_file, &error);
    return FailWith(result, error, oxEventErrors::kWindowsInstallFailed);
  });
}

uint32_t oxEventRemoveWindowsEventSource(const char* source_name) {
  return Guarded("oxEventRemoveWindowsEventSource", [&] {
    std::string error;
    const uint32_t result = oxEventPlatformRemoveWindowsEventSource(source_name, &error);
    return FailWith(result, error, oxEventErrors::kWindowsRemoveFailed);
  });
}

uint32_t oxEventFormatAlertmanagerRecord(const oxEventRecord* record, const oxEventAlertmanagerFormatterConfig& config,
                                         std::string* out) {
  return Guarded("oxEventFormatAlertmanagerRecord", [&]() -> uint32_t {
    if (record == nullptr || out == nullptr) return OXEVENT_INVALID_ARGUMENT;
    oxEventNormalizedEvent event;
    const uint32_t result = oxEventNormalizeEvent(record, record->struct_size, &event);  // Uses up no generated id.
    if (result != OXEVENT_OK) return result;
    std::string document;  // So that *out is unchanged if memory runs out.
    oxEventFormatAlertmanagerAlert(event, config, &document);
    out->swap(document);
    return OXEVENT_OK;
  });
}

void oxEventApiResetAfterFork() {
  g_oxEventMutex.Reset();
  g_oxEventReloadMutex.Reset();
  g_oxEventConfigPath.Reset();
  g_oxEventClosed = false;
  g_oxEventInitialized = false;
  g_oxEventShutdownInProgress = false;
  g_oxEventNextGeneratedId = kFirstGeneratedId;
}

void oxEventApiClose() {
  g_oxEventClosed = true;  // First, so that no other thread can start the library again.
  g_oxEventInitialized = false;
  // If a call holds the lock, the process is exiting (unloading the library during a call is not allowed), and nothing
  // needs to be freed.
  if (!g_oxEventMutex->TryLock()) return;
  g_oxEventConfigPath->reset();
  g_oxEventMutex->Unlock();
}

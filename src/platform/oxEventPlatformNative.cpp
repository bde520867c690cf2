#include <pthread.h>
#include <syslog.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <thread>

#include "base/oxEventErrorText.h"
#include "base/oxEventImmortal.h"
#include "base/oxEventMutex.h"
#include "base/oxEventOrDefault.h"
#include "base/oxEventSeverity.h"
#include "config/oxEventSettings.h"
#include "platform/oxEventPlatform.h"

namespace {

// How long a fork or a reload waits for a line of ours that is being written; with a log daemon that stalls it may be
// forever.
constexpr uint32_t kPatienceMs = 20;

int FacilityValue(std::string_view name) {
  constexpr uint32_t kCodeUnit = LOG_USER;  // The facility with the code 1.
  const auto code = oxEventFindWord(g_oxEventNativeFacilityWords, name);
  return code ? static_cast<int>(*code * kCodeUnit) : LOG_LOCAL4;
}

int Level(uint32_t severity) {
  constexpr int kLevels[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR};
  return severity < std::size(kLevels) ? kLevels[severity] : LOG_INFO;
}

// Held over every openlog, syslog and closelog of ours, so that no line goes out under another sink's identity. Longer
// than the C library's own lock by nothing that waits.
struct SystemLog {
  oxEventMutex mutex;
  std::atomic<pthread_t> forking_thread = 0;  // The one that holds `mutex` over its fork.
  std::atomic<int> forks_waiting = 0;         // For `mutex`. A busy worker leaves it to them between two lines.
  std::atomic<bool> writing = false;          // A line goes out, under its sink's identity. Changed with `mutex` held.
  // False in the child of a fork that found a line half written: the C library's log is locked there for good.
  bool usable = true;  // Guarded by `mutex`.
};
constinit oxEventImmortal<SystemLog> g_system_log;

}  // namespace

struct oxEventNativeLogHandle {
  std::string ident;  // syslog keeps a pointer into it.
  std::string facility_name;
  std::string subsystem;
  std::string category;
  int facility = LOG_LOCAL4;
  std::string line;  // Reused for each event.
};

namespace {

void AppendItem(std::string_view name, std::string_view value, std::string* line) { line->append(name).append(value); }

// For people who read the system log: nothing is escaped.
void FormatNativeMessage(const oxEventNormalizedEvent& event, std::string_view ident, std::string* line) {
  const auto or_dash = [](std::string_view text) { return text.empty() ? "-" : text; };
  char id[20];
  const char* id_end = std::to_chars(id, std::end(id), event.event_id).ptr;
  line->clear();
  AppendItem("oxEvent event_id=", std::string_view(id, static_cast<size_t>(id_end - id)), line);
  AppendItem(" severity=", oxEventSeverityName(event.severity), line);
  AppendItem(" action=", or_dash(event.action), line);
  AppendItem(" event_type=", or_dash(event.event_type), line);
  AppendItem(" source_id=", or_dash(event.source_id), line);
  AppendItem(" source_name=", or_dash(event.source_name), line);
  AppendItem(" native_source=", ident.empty() ? "oxEvent" : ident, line);
  AppendItem(" message=\"", event.message, line);
  line->push_back('"');
  if (!event.dedupe_key.empty()) AppendItem(" dedupe_key=", event.dedupe_key, line);
  if (!event.correlation_id.empty()) AppendItem(" correlation_id=", event.correlation_id, line);
  if (!event.details_json.empty()) AppendItem(" details_json=", event.details_json, line);
}

}  // namespace

uint32_t oxEventPlatformNativeOpen(const oxEventNativePlatformConfig& config, oxEventNativeLogHandle** handle,
                                   std::string* error) {
  if (handle == nullptr) {
    return oxEventSetErrorText(oxEventErrors::kNativeHandleOutput, error);
  }
  *handle = nullptr;
  std::unique_ptr<oxEventNativeLogHandle> opened(new (std::nothrow) oxEventNativeLogHandle);
  if (opened == nullptr) {
    return oxEventSetErrorText(oxEventErrors::kNativeNoMemory, error);
  }
  const oxEventNativePlatformConfig defaults;
  opened->ident = oxEventOrDefault(config.source, defaults.source);
  opened->facility_name = oxEventOrDefault(config.facility, defaults.facility);
  opened->subsystem = oxEventOrDefault(config.subsystem, defaults.subsystem);
  opened->category = oxEventOrDefault(config.category, defaults.category);
  opened->facility = FacilityValue(opened->facility_name);
  if (g_system_log->mutex.TryLockFor(kPatienceMs)) {  // Else the first line opens it.
    if (g_system_log->usable) openlog(opened->ident.c_str(), LOG_PID, opened->facility);
    g_system_log->mutex.Unlock();
  }
  *handle = opened.release();
  return OXEVENT_OK;
}

uint32_t oxEventPlatformNativeWrite(oxEventNativeLogHandle* handle, const oxEventNormalizedEvent& event, bool* warning,
                                    std::string* warning_text) {
  if (warning != nullptr) *warning = false;
  if (handle == nullptr) {
    return oxEventSetErrorText(oxEventErrors::kNativeHandle, warning_text);
  }
  if (warning_text != nullptr) warning_text->clear();
  FormatNativeMessage(event, handle->ident, &handle->line);
  while (g_system_log->forks_waiting != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  oxEventLock lock(g_system_log->mutex);
  if (!g_system_log->usable) return oxEventSetErrorText(oxEventErrors::kSinkFailed, warning_text);
  // Opened anew each time: the host, or a native sink that a reload replaced, may have opened or closed the log since.
  openlog(handle->ident.c_str(), LOG_PID, handle->facility);
  g_system_log->writing = true;
  syslog(handle->facility | Level(event.severity), "%s", handle->line.c_str());
  g_system_log->writing = false;
  oxEventReleaseLongText(&handle->line);
  return OXEVENT_OK;
}

void oxEventPlatformNativeClose(oxEventNativeLogHandle* handle) {
  if (handle == nullptr) return;
  bool locked = false;
  // A line of another sink's that hangs has put that sink's identity in the place of this one's: it may go.
  while (!(locked = g_system_log->mutex.TryLockFor(kPatienceMs)) && !g_system_log->writing) continue;
  if (locked) {
    if (g_system_log->usable) closelog();
    g_system_log->mutex.Unlock();
  }
  delete handle;
}

// The lock goes from this function to the next.
OX_THREAD(no_thread_safety_analysis) void oxEventPlatformNativeBeforeFork() {
  ++g_system_log->forks_waiting;
  if (g_system_log->mutex.TryLockFor(kPatienceMs)) g_system_log->forking_thread = pthread_self();
  --g_system_log->forks_waiting;
}

OX_THREAD(no_thread_safety_analysis) void oxEventPlatformNativeAfterForkInParent() {
  if (g_system_log->forking_thread != pthread_self()) return;
  g_system_log->forking_thread = 0;
  g_system_log->mutex.Unlock();
}

void oxEventPlatformNativeAfterForkInChild() {
  const bool usable = g_system_log->usable && g_system_log->forking_thread == pthread_self();
  g_system_log.Renew();
  g_system_log->usable = usable;
}

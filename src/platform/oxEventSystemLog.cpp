#include "platform/oxEventSystemLog.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <thread>

#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventNativeMessage.h"
#include "base/oxEventNoDestructor.h"
#include "base/oxEventOrDefault.h"
#include "config/oxEventSettings.h"

namespace {

// Limits how long a fork, or opening or closing a sink, waits for another thread's message: if the log daemon hangs, so
// does syslog(3).
constexpr uint32_t kLockTimeoutMs = 20;

int SyslogFacility(std::string_view name) {
  constexpr uint32_t kCodeUnit = LOG_USER;  // LOG_USER has the code 1.
  const auto code = oxEventFindWord(g_oxEventNativeFacilityWords, name);
  return code ? static_cast<int>(*code * kCodeUnit) : LOG_LOCAL4;
}

int SyslogLevel(uint32_t severity) {
  constexpr int kLevels[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR};
  return severity < std::size(kLevels) ? kLevels[severity] : LOG_INFO;
}

// This library holds `mutex` during each call of openlog, syslog and closelog, so that no message is written with
// another sink's ident, and during a fork, unless the fork cannot get it in time. While this library holds `mutex`, it
// makes no other blocking call.
struct SystemLog {
  oxEventMutex mutex;
  std::atomic<pthread_t> forking_thread = 0;  // The thread that holds `mutex` during its fork.
  int cancel_state = PTHREAD_CANCEL_ENABLE;   // The state of that thread before its fork. Guarded by `mutex`.
  // Number of forks that wait for `mutex`. A busy worker would starve them, so before each message it waits for 0.
  std::atomic<int> forks_waiting = 0;
  std::atomic<bool> writing = false;  // Whether syslog(3) is running. Changed with `mutex` held.
  // False in a child that was forked during a write: there the C library's log stays locked.
  bool usable = true;  // Guarded by `mutex`.
};
constinit oxEventNoDestructor<SystemLog> g_system_log;

}  // namespace

struct oxEventNativeLogHandle {
  std::string ident;  // The C library keeps a pointer to its characters.
  int facility = LOG_LOCAL4;
  std::string line;  // Reused for each event.
};

namespace {

// Returns the size of the largest datagram that the C library can send to the log, or SIZE_MAX if the log is a stream
// or the limit is unknown.
size_t MaxDatagramSize() {
  constexpr int kKernelOverhead = 32;  // The limit of a Unix datagram socket on Linux is SO_SNDBUF less this.
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return SIZE_MAX;
  int send_buffer = 0;
  socklen_t size = sizeof(send_buffer);
  getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, &size);  // Leaves 0 if it fails.
  constexpr sockaddr_un kLog = {AF_UNIX, _PATH_LOG};
  const auto* const address = reinterpret_cast<const sockaddr*>(&kLog);
  const bool stream = connect(fd, address, sizeof(kLog)) != 0 && errno == EPROTOTYPE;
  close(fd);
  return send_buffer > kKernelOverhead && !stream ? static_cast<size_t>(send_buffer - kKernelOverhead) : SIZE_MAX;
}

// Truncates a message that is too long for the log's socket, because syslog(3) would lose it silently. Splits no
// character.
void TruncateToDatagram(std::string_view ident, std::string* line) {
  constexpr size_t kAlwaysFits = 2048;  // Below the smallest send buffer that Linux allows.
  constexpr size_t kHeader = sizeof("<191>Jan 01 00:00:00 [2147483647]: ") - 1;  // The longest, without the ident.
  const size_t header = kHeader + ident.size();
  if (header + line->size() <= kAlwaysFits) return;
  const size_t limit = MaxDatagramSize();
  if (header + line->size() <= limit) return;
  size_t end = limit - std::min(header, limit);
  while ((static_cast<unsigned char>((*line)[end]) & 0xC0) == 0x80) --end;  // Ends at an ASCII character at the latest.
  line->resize(end);
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
  opened->facility = SyslogFacility(oxEventOrDefault(config.facility, defaults.facility));
  if (g_system_log->mutex.TryLockFor(kLockTimeoutMs)) {  // Otherwise the first write opens the log.
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
  oxEventFormatNativeMessage(event, handle->ident, &handle->line);
  TruncateToDatagram(handle->ident, &handle->line);
  while (g_system_log->forks_waiting != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  oxEventLock lock(g_system_log->mutex);
  if (!g_system_log->usable) return oxEventSetErrorText(oxEventErrors::kSinkFailed, warning_text);
  // Opened each time: the host or another sink (of these settings, or replaced by a reload) may have opened or closed
  // the log in the meantime.
  openlog(handle->ident.c_str(), LOG_PID, handle->facility);
  g_system_log->writing = true;
  syslog(handle->facility | SyslogLevel(event.severity), "%s", handle->line.c_str());
  g_system_log->writing = false;
  oxEventReleaseLongText(&handle->line);
  return OXEVENT_OK;
}

void oxEventPlatformNativeClose(oxEventNativeLogHandle* handle) {
  if (handle == nullptr) return;
  bool locked = false;
  // If the lock is not free because another sink's write hangs, the C library uses that sink's ident: this handle can
  // be freed without closelog.
  while (!(locked = g_system_log->mutex.TryLockFor(kLockTimeoutMs)) && !g_system_log->writing) continue;
  if (locked) {
    if (g_system_log->usable) closelog();
    g_system_log->mutex.Unlock();
  }
  delete handle;
}

// If it gets `mutex` within the timeout, keeps it locked, and cancellation disabled, until one of the two functions
// below is called. Fork handlers that were registered before the library was loaded run in between. Otherwise changes
// nothing.
OX_THREAD(no_thread_safety_analysis) void oxEventPlatformNativeBeforeFork() {
  int cancel_state = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  ++g_system_log->forks_waiting;
  const bool locked = g_system_log->mutex.TryLockFor(kLockTimeoutMs);
  --g_system_log->forks_waiting;
  if (!locked) {
    pthread_setcancelstate(cancel_state, nullptr);
    return;
  }
  g_system_log->forking_thread = pthread_self();
  g_system_log->cancel_state = cancel_state;
}

OX_THREAD(no_thread_safety_analysis) void oxEventPlatformNativeAfterForkInParent() {
  if (g_system_log->forking_thread != pthread_self()) return;
  const int cancel_state = g_system_log->cancel_state;
  g_system_log->forking_thread = 0;
  g_system_log->mutex.Unlock();
  pthread_setcancelstate(cancel_state, nullptr);
}

void oxEventPlatformNativeAfterForkInChild() {
  const bool locked = g_system_log->forking_thread == pthread_self();
  const bool usable = g_system_log->usable && locked;
  const int cancel_state = g_system_log->cancel_state;
  g_system_log.Reset();
  g_system_log->usable = usable;
  if (locked) pthread_setcancelstate(cancel_state, nullptr);
}

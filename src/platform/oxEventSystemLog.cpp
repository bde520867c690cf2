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

// How long a fork or a reload waits for a line of ours that is being written; with a log daemon that stalls it may be
// forever.
constexpr uint32_t kLockTimeoutMs = 20;

int SyslogFacility(std::string_view name) {
  constexpr uint32_t kCodeUnit = LOG_USER;  // The facility with the code 1.
  const auto code = oxEventFindWord(g_oxEventNativeFacilityWords, name);
  return code ? static_cast<int>(*code * kCodeUnit) : LOG_LOCAL4;
}

int SyslogLevel(uint32_t severity) {
  constexpr int kLevels[] = {LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERR};
  return severity < std::size(kLevels) ? kLevels[severity] : LOG_INFO;
}

// Held over every openlog, syslog and closelog of ours, so that no line goes out under another sink's identity. Longer
// than the C library's own lock by nothing that waits.
struct SystemLog {
  oxEventMutex mutex;
  std::atomic<pthread_t> forking_thread = 0;  // The one that holds `mutex` over its fork.
  int cancel_state = PTHREAD_CANCEL_ENABLE;   // Its own, before the fork. Guarded by `mutex`.
  std::atomic<int> forks_waiting = 0;         // For `mutex`. A busy worker leaves it to them between two lines.
  std::atomic<bool> writing = false;          // A line goes out, under its sink's identity. Changed with `mutex` held.
  // False in the child of a fork that found a line half written: the C library's log is locked there for good.
  bool usable = true;  // Guarded by `mutex`.
};
constinit oxEventNoDestructor<SystemLog> g_system_log;

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

// The largest datagram that a socket of the C library's sends to the log; SIZE_MAX: the log takes a stream, or the
// limit cannot be known.
size_t MaxDatagramSize() {
  constexpr int kKernelOverhead = 32;  // Linux refuses more than SO_SNDBUF less this on a Unix datagram socket.
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return SIZE_MAX;
  int send_buffer = 0;
  socklen_t size = sizeof(send_buffer);
  const bool known = getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer, &size) == 0 && send_buffer > kKernelOverhead;
  constexpr sockaddr_un kLog = {AF_UNIX, _PATH_LOG};
  const auto* const address = reinterpret_cast<const sockaddr*>(&kLog);
  const bool stream = connect(fd, address, sizeof(kLog)) != 0 && errno == EPROTOTYPE;
  close(fd);
  return known && !stream ? static_cast<size_t>(send_buffer - kKernelOverhead) : SIZE_MAX;
}

// Cuts a line that the log's socket would refuse, between two characters: syslog(3) would lose all of it silently.
void TruncateToDatagram(std::string_view ident, std::string* line) {
  constexpr size_t kAlwaysFits = 2048;  // Below the least send buffer that Linux can be set to.
  constexpr size_t kHeader = sizeof("<191>Jan 01 00:00:00 [2147483647]: ") - 1;  // The longest that syslog(3) writes.
  const size_t header = kHeader + ident.size();
  if (header + line->size() <= kAlwaysFits) return;
  const size_t limit = MaxDatagramSize();
  if (header + line->size() <= limit) return;
  size_t end = limit - std::min(header, limit);
  while (end != 0 && (static_cast<unsigned char>((*line)[end]) & 0xC0) == 0x80) --end;
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
  opened->facility_name = oxEventOrDefault(config.facility, defaults.facility);
  opened->subsystem = oxEventOrDefault(config.subsystem, defaults.subsystem);
  opened->category = oxEventOrDefault(config.category, defaults.category);
  opened->facility = SyslogFacility(opened->facility_name);
  if (g_system_log->mutex.TryLockFor(kLockTimeoutMs)) {  // Else the first line opens it.
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
  // Opened anew each time: the host, or a native sink that a reload replaced, may have opened or closed the log since.
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
  // A line of another sink's that hangs has put that sink's identity in the place of this one's: it may go.
  while (!(locked = g_system_log->mutex.TryLockFor(kLockTimeoutMs)) && !g_system_log->writing) continue;
  if (locked) {
    if (g_system_log->usable) closelog();
    g_system_log->mutex.Unlock();
  }
  delete handle;
}

// The lock goes from this function to the next. A cancellation waits meanwhile, also in other handlers of the fork.
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

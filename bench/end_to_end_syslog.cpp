// syslog(3). A child process that discards all messages replaces the log daemon.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "end_to_end.h"

namespace {

constexpr char kLogSocket[] = "/dev/log";
pid_t g_daemon = 0;

[[noreturn]] void DiscardMessages(int fd) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  char line[8192];
  while (true) static_cast<void>(read(fd, line, sizeof(line)) == 0);
}

void Start(const std::string& /*directory*/, uint32_t /*queue_size*/) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, {}};
  std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kLogSocket);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    perror(kLogSocket);  // Another log daemon is running: do not flood the machine's log.
    exit(3);
  }
  g_daemon = fork();
  if (g_daemon == 0) DiscardMessages(fd);
  close(fd);
  openlog("bench", LOG_PID | LOG_NDELAY, LOG_LOCAL4);
}

void Submit(const oxEventRecord& e) {
  syslog(LOG_WARNING,
         "%" PRIu64 ",%s,%s,%s,%s,%s,%s,%s,%.17g,%.17g,%s,%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRId64 ",%s,%s",
         e.event_id, e.action, e.event_type, e.source_id, e.source_name, e.dedupe_key, e.correlation_id, e.message,
         e.value, e.threshold, e.units, e.duration_ms, e.utc_ns, e.ptp_ns, e.pts, e.timecode, e.details_json);
}

void Drain() {}

void Stop() {
  closelog();
  kill(g_daemon, SIGKILL);
  unlink(kLogSocket);
}

}  // namespace

const Logger kLogger = {false, Start, Submit, Drain, Stop};

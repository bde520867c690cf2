/*
 * Watches this machine: a file system, a spool directory, load and memory. Each problem is a condition that is raised,
 * updated and cleared through oxEvent; every delivered event is printed.
 */
#define _POSIX_C_SOURCE 200809L  // NOLINT(bugprone-reserved-identifier)

#include <errno.h>
#include <inttypes.h>
#include <oxEvent.h>
#include <oxEvent/alert_poster.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "options.h"
#include "probes.h"
#include "report.h"

typedef struct Watcher {
  Options options;
  uint32_t posters[kMaxAlertmanagers];  // One for each URL in the options.
  bool post_failed[kMaxAlertmanagers];  // Whether the first failure of the poster is printed.
  char* host;
  char* directory;  // This and `spool` are as in the options, but valid UTF-8 on one line.
  char* spool;
  Reporter reporter;
  Condition file_system_full;
  Condition spool_full;
  Condition spool_stale;
  Condition load_high;
  Condition memory_low;
  // The measurement itself failed. The condition that it checks keeps its state.
  Condition file_system_unreadable;
  Condition spool_unreadable;
  Condition load_unreadable;
  Condition memory_unreadable;
} Watcher;

static Condition Describe(const char* event_type, const char* source_id, uint32_t severity, double threshold,
                          double step, const char* units) {
  return (Condition){.event_type = event_type,
                     .source_id = source_id,
                     .severity = severity,
                     .threshold = threshold,
                     .step = step,
                     .units = units};
}

static Condition DescribeUnreadable(const char* source_id) {
  return Describe("probe.failed", source_id, OXEVENT_SEVERITY_ERROR, 0, 1, "errno");
}

static void Setup(Watcher* watcher) {
  const Options* options = &watcher->options;
  char host[256] = "";
  gethostname(host, sizeof(host) - 1);
  watcher->host = CleanText(host);
  watcher->directory = CleanText(options->directory);
  watcher->spool = CleanText(options->spool != NULL ? options->spool : "");
  watcher->reporter.host = watcher->host;
  watcher->reporter.started_ms = MonotonicMs();

  const char* directory = watcher->directory;
  const char* spool = watcher->spool;
  const bool percent = options->min_memory_is_percent;
  watcher->file_system_full =
      Describe("folder.full", directory, OXEVENT_SEVERITY_ERROR, options->max_used_percent.value, 1, "percent");
  watcher->spool_full = Describe("spool.full", spool, OXEVENT_SEVERITY_WARNING, options->max_files.value, 1, "files");
  // The age grows all the time: report it again only after it has grown by more than the limit.
  watcher->spool_stale = Describe("spool.stale", spool, OXEVENT_SEVERITY_WARNING, options->max_age_s.value,
                                  options->max_age_s.value + 1, "s");
  watcher->load_high = Describe("load.high", "load", OXEVENT_SEVERITY_WARNING, options->max_load.value, 0.5, "");
  watcher->memory_low = Describe("memory.low", "memory", OXEVENT_SEVERITY_ERROR, options->min_memory.value,
                                 percent ? 1 : 64, percent ? "percent" : "MB");
  watcher->file_system_unreadable = DescribeUnreadable(directory);
  watcher->spool_unreadable = DescribeUnreadable(spool);
  watcher->load_unreadable = DescribeUnreadable("load");
  watcher->memory_unreadable = DescribeUnreadable("memory");
}

// Reports the result of a measurement: `error` is its errno value, or 0. Returns whether the measurement succeeded.
static bool Measured(Watcher* watcher, Condition* unreadable, int error) {
  JsonObject details;
  JsonBegin(&details);
  char* message = error != 0 ? FormatText("%s cannot be measured: %s", unreadable->source_id, strerror(error))
                             : FormatText("%s can be measured again", unreadable->source_id);
  ReportCondition(&watcher->reporter, unreadable, error != 0, error, message, &details);
  return error == 0;
}

static void CheckFileSystem(Watcher* watcher) {
  const Options* options = &watcher->options;
  FileSystemReading reading;
  if (!options->max_used_percent.on) return;
  if (!Measured(watcher, &watcher->file_system_unreadable, ReadFileSystem(options->directory, &reading))) return;

  JsonObject details;
  JsonBegin(&details);
  JsonAddText(&details, "folder", options->directory);
  JsonAddNumber(&details, "free_mb", reading.free_mb);
  char* message = FormatText("The file system is %.1f percent full, limit %g: %s", reading.used_percent,
                             options->max_used_percent.value, watcher->directory);
  ReportCondition(&watcher->reporter, &watcher->file_system_full,
                  reading.used_percent > options->max_used_percent.value, reading.used_percent, message, &details);
}

static void AddSpoolDetails(JsonObject* details, const Options* options, const SpoolReading* reading) {
  JsonBegin(details);
  JsonAddText(details, "spool", options->spool);
  JsonAddNumber(details, "files", (double)reading->files);
  JsonAddText(details, "oldest", reading->oldest_name);
  JsonAddNumber(details, "oldest_age_s", reading->oldest_age_s);
}

static void CheckSpool(Watcher* watcher) {
  const Options* options = &watcher->options;
  SpoolReading reading;
  if (options->spool == NULL) return;
  if (!Measured(watcher, &watcher->spool_unreadable, ReadSpool(options->spool, &reading))) return;

  JsonObject details;
  if (options->max_files.on) {
    const double files = (double)reading.files;
    AddSpoolDetails(&details, options, &reading);
    char* message = FormatText("The spool holds %" PRIu64 " files, limit %g: %s", reading.files,
                               options->max_files.value, watcher->spool);
    ReportCondition(&watcher->reporter, &watcher->spool_full, files > options->max_files.value, files, message,
                    &details);
  }
  if (options->max_age_s.on) {
    AddSpoolDetails(&details, options, &reading);
    char* message = FormatText("The oldest file in the spool is %.0f s old, limit %g: %s", reading.oldest_age_s,
                               options->max_age_s.value, watcher->spool);
    ReportCondition(&watcher->reporter, &watcher->spool_stale, reading.oldest_age_s > options->max_age_s.value,
                    reading.oldest_age_s, message, &details);
  }
}

static void CheckLoad(Watcher* watcher) {
  const Limit limit = watcher->options.max_load;
  double load = 0;
  if (!limit.on) return;
  if (!Measured(watcher, &watcher->load_unreadable, ReadLoad(&load))) return;

  JsonObject details;
  JsonBegin(&details);
  JsonAddNumber(&details, "processors", (double)sysconf(_SC_NPROCESSORS_ONLN));
  char* message = FormatText("The load average is %.2f, limit %g", load, limit.value);
  ReportCondition(&watcher->reporter, &watcher->load_high, load > limit.value, load, message, &details);
}

static void CheckMemory(Watcher* watcher) {
  const Limit limit = watcher->options.min_memory;
  MemoryReading reading;
  if (!limit.on) return;
  if (!Measured(watcher, &watcher->memory_unreadable, ReadMemory(&reading))) return;

  JsonObject details;
  JsonBegin(&details);
  JsonAddNumber(&details, "total_mb", reading.total_mb);
  JsonAddNumber(&details, "available_mb", reading.available_mb);
  const bool percent = watcher->options.min_memory_is_percent;
  const double available = percent ? 100.0 * reading.available_mb / reading.total_mb : reading.available_mb;
  char* message =
      FormatText("%.1f %s of memory are available, limit %g", available, watcher->memory_low.units, limit.value);
  ReportCondition(&watcher->reporter, &watcher->memory_low, available < limit.value, available, message, &details);
}

static void CheckAll(Watcher* watcher) {
  CheckFileSystem(watcher);
  CheckSpool(watcher);
  CheckLoad(watcher);
  CheckMemory(watcher);
}

static void Reload(Watcher* watcher) {
  const uint32_t code = oxEventReloadConfig(NULL);
  if (code != OXEVENT_OK) {
    PrintFailure("reload failed, the old settings stay in force", code);
    return;
  }
  ReportNotice(&watcher->reporter, "watch.reloaded", "The settings have been reloaded");
}

// Waits for one of `signals` and returns it, or 0 at `deadline_ms`. The signals are blocked, so that none is lost
// between rounds.
static int WaitForSignal(const sigset_t* signals, uint64_t deadline_ms) {
  for (;;) {
    const uint64_t now_ms = MonotonicMs();
    const uint64_t left_ms = deadline_ms > now_ms ? deadline_ms - now_ms : 0;
    const struct timespec left = {(time_t)(left_ms / 1000), (long)(left_ms % 1000) * 1000000};
    const int signal = sigtimedwait(signals, NULL, &left);
    if (signal > 0) return signal;
    if (errno != EINTR) return 0;
  }
}

// Reports the first failure of each poster. If no later post has succeeded, the status distinguishes a wrong URL from
// an Alertmanager that is down.
static void PrintFailedPosts(Watcher* watcher) {
  for (size_t i = 0; i < watcher->options.alertmanager_count; ++i) {
    oxEventAlertPosterState state = {.struct_size = sizeof(state)};
    if (watcher->post_failed[i] || oxEventAlertPosterGetState(watcher->posters[i], &state) != OXEVENT_OK) continue;
    watcher->post_failed[i] = state.failed_posts + state.refused > 0;
    if (!watcher->post_failed[i]) continue;
    fprintf(stderr, "oxevent-watch: a post to %s failed; HTTP status of the last post: %d%s\n",
            watcher->options.alertmanagers[i], (int)state.last_status, state.last_status == 0 ? " (no response)" : "");
  }
}

static void Watch(Watcher* watcher, const sigset_t* signals) {
  const Options* options = &watcher->options;
  uint64_t deadline_ms = MonotonicMs();
  for (uint64_t round = 1;; ++round) {
    CheckAll(watcher);
    if (round == options->rounds) return;
    deadline_ms += options->period_ms;
    if (deadline_ms < MonotonicMs()) deadline_ms = MonotonicMs();  // Skips missed rounds.
    int signal = 0;
    while ((signal = WaitForSignal(signals, deadline_ms)) == SIGHUP) Reload(watcher);
    PrintFailedPosts(watcher);
    if (signal != 0) return;
  }
}

// Runs on the library's worker thread. The counter is read only after oxEventShutdown, which waits for that thread.
static void PrintEvent(const oxEventRecord* event, void* delivered) {
  ++*(uint64_t*)delivered;
  const time_t seconds = (time_t)(event->utc_ns / 1000000000u);
  const unsigned ms = (unsigned)(event->utc_ns / 1000000u % 1000u);
  struct tm utc;
  char time_text[32] = "";
  if (gmtime_r(&seconds, &utc) != NULL) strftime(time_text, sizeof(time_text), "%H:%M:%S", &utc);
  static const char* const kSeverities[] = {"debug", "info", "warning", "error"};
  printf("%s.%03u %-7s %-6s %-14s %s\n", time_text, ms, kSeverities[event->severity],
         event->action[0] != '\0' ? event->action : "-", event->event_type, event->message);
}

// Returns whether the library was started and shut down without an error.
static bool WatchAndReport(Watcher* watcher, const sigset_t* signals) {
  uint64_t delivered = 0;
  uint32_t callback_id = 0;
  uint32_t code = oxEventRegisterCallback(PrintEvent, &delivered, &callback_id);
  if (code == OXEVENT_OK) code = oxEventInitialize(watcher->options.settings);
  if (code != OXEVENT_OK) {
    PrintFailure("start failed", code);
    return false;
  }
  Reporter* reporter = &watcher->reporter;
  ReportNotice(reporter, "watch.started", "The watcher has started");
  Watch(watcher, signals);
  ReportNotice(reporter, "watch.stopped", "The watcher is stopping");

  code = oxEventShutdown();
  if (code != OXEVENT_OK) PrintFailure("shutdown failed", code);
  printf("%s; reported %" PRIu64 " events, %" PRIu64 " delivered to the callback, %" PRIu64 " refused\n",
         code == OXEVENT_OK ? "clean shutdown" : "shutdown failed", reporter->reported, delivered, reporter->refused);
  return code == OXEVENT_OK;
}

static int Run(Watcher* watcher) {
  // Blocked before any thread starts, so that only Watch receives the signals.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, NULL);

  const Options* options = &watcher->options;
  for (size_t i = 0; i < options->alertmanager_count; ++i) {
    const oxEventAlertPosterConfig config = {.struct_size = sizeof(config), .url = options->alertmanagers[i]};
    const uint32_t result = oxEventAlertPosterStart(&config, &watcher->posters[i]);
    if (result == OXEVENT_OK) continue;
    const char* reason = result == OXEVENT_INVALID_ARGUMENT ? "the URL must be http(s)://HOST[:PORT]/api/v2/alerts"
                                                            : "the poster could not be started";
    fprintf(stderr, "oxevent-watch: cannot post alerts to %s: %s (0x%08" PRIX32 ")\n", config.url, reason, result);
    return EXIT_FAILURE;
  }
  const bool good = WatchAndReport(watcher, &signals);
  unsigned left = 0;
  for (size_t i = 0; i < options->alertmanager_count; ++i) {
    uint32_t unposted = 0;
    oxEventAlertPosterStop(watcher->posters[i], &unposted);
    if (unposted != 0)
      fprintf(stderr, "oxevent-watch: alerts not posted to %s: %" PRIu32 "\n", options->alertmanagers[i], unposted);
    left += unposted;
  }
  return good && left == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  Watcher watcher = {0};
  const int refused = ParseOptions(argc, argv, &watcher.options);
  if (refused >= 0) return refused;
  Setup(&watcher);
  const int status = Run(&watcher);
  free(watcher.host);
  free(watcher.directory);
  free(watcher.spool);
  return status;
}

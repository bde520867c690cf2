#define _POSIX_C_SOURCE 200809L  // NOLINT(bugprone-reserved-identifier)

#include "report.h"

#include <inttypes.h>
#include <stdlib.h>
#include <unistd.h>

#include "probes.h"

void PrintFailure(const char* what, uint32_t code) {
  char error[1024];
  oxEventGetLastError(error, sizeof(error));
  fprintf(stderr, "oxevent-watch: %s: %s (0x%08" PRIX32 ")\n", what, error, code);
}

static bool Submit(Reporter* reporter, const oxEventRecord* record) {
  const uint32_t code = oxEventSubmit(record);
  if (code == OXEVENT_OK) {
    ++reporter->reported;
    return true;
  }
  ++reporter->refused;
  PrintFailure(record->event_type, code);
  return false;
}

static bool HasChanged(const Condition* condition, double value) {
  const double difference = value - condition->value;
  return difference >= condition->step || -difference >= condition->step;
}

/* Begins an occurrence with a correlation id of its own. Process id and start time distinguish the id from those of
 * other runs. */
static void Begin(Reporter* reporter, Condition* condition, uint64_t now_ms) {
  condition->since_ms = now_ms;
  snprintf(condition->correlation_id, sizeof(condition->correlation_id), "%ld-%" PRIu64 "-%u", (long)getpid(),
           reporter->started_ms, ++reporter->occurrences);
}

static void ReportStep(Reporter* reporter, Condition* condition, bool present, double value, const char* message,
                       const char* details_json) {
  const uint64_t now_ms = MonotonicMs();
  const bool changed = condition->raised && HasChanged(condition, value);
  if (!condition->raised) Begin(reporter, condition, now_ms);
  // Includes the host's name: otherwise "load" of all machines would be one alert.
  char* source = FormatText("%s:%s", reporter->host, condition->source_id);
  char* key = FormatText("%s:%s", source, condition->event_type);
  const oxEventRecord record = {.struct_size = sizeof(record),
                                .version = OXEVENT_API_VERSION,
                                .event_type = condition->event_type,
                                .source_id = source,
                                .source_name = reporter->host,
                                .message = message,
                                // A clear has the severity of its raise, so that the same filters let it pass.
                                .severity = condition->severity,
                                .action = !present  ? "clear"
                                          : changed ? "update"
                                                    : "raise",
                                .dedupe_key = key,
                                .correlation_id = condition->correlation_id,
                                .value = value,
                                .threshold = condition->threshold,
                                .units = condition->units,
                                .duration_ms = now_ms - condition->since_ms,
                                .details_json = details_json};
  if (Submit(reporter, &record)) {  // After a refusal the next round tries again.
    if (changed || !condition->raised) condition->value = value;
    condition->raised = present;
  }
  free(key);
  free(source);
}

void ReportCondition(Reporter* reporter, Condition* condition, bool present, double value, char* message,
                     JsonObject* details) {
  JsonAddNumber(details, "watch_uptime_s", (double)(MonotonicMs() - reporter->started_ms) / 1000.0);
  char* details_json = JsonEnd(details);
  if (present || condition->raised) ReportStep(reporter, condition, present, value, message, details_json);
  free(details_json);
  free(message);
}

void ReportNotice(Reporter* reporter, const char* event_type, const char* message) {
  char* source = FormatText("%s:watch", reporter->host);
  const oxEventRecord record = {.struct_size = sizeof(record),
                                .version = OXEVENT_API_VERSION,
                                .event_type = event_type,
                                .source_id = source,
                                .source_name = reporter->host,
                                .message = message,
                                .severity = OXEVENT_SEVERITY_INFO,
                                .duration_ms = MonotonicMs() - reporter->started_ms};
  Submit(reporter, &record);
  free(source);
}

/*
 * How the watcher's findings become events. A condition is raised when it is found, reported again every round while it
 * stands, updated when its value moves and cleared when it is gone. The library drops the repetitions and lets one
 * through as "repeat" whenever the repeat interval has passed.
 */
#ifndef WATCH_REPORT_H
#define WATCH_REPORT_H

#include <oxEvent.h>
#include <stdbool.h>

#include "text.h"

typedef struct Reporter {
  const char* host;
  uint64_t started_ms;
  uint64_t reported; /* Accepted by the library. */
  uint64_t refused;
  unsigned occurrences; /* Conditions raised so far. */
} Reporter;

typedef struct Condition {
  const char* event_type;
  const char* source_id; /* What is watched. */
  uint32_t severity;
  double threshold;
  double step; /* A value that moved by less has not changed. */
  const char* units;

  bool raised;
  double value; /* As last reported. */
  uint64_t since_ms;
  char correlation_id[64]; /* The same from raise to clear. */
} Condition;

/*
 * Reports what a round has found: `present` with `value`. Takes `message` and `details`, ends and frees both. Reports
 * nothing of a condition that neither is nor was.
 */
void ReportCondition(Reporter* reporter, Condition* condition, bool present, double value, char* message,
                     JsonObject* details);

/* Reports something that is no condition: the watcher's own start, reload and stop. */
void ReportNotice(Reporter* reporter, const char* event_type, const char* message);

/* Prints the library's last error: what was tried, the code, the text. */
void PrintFailure(const char* tried, uint32_t code);

#endif

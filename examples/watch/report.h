/*
 * Reports the watcher's findings as events. A condition is raised when it is found, reported again in every round while
 * it lasts, updated when its value changes and cleared when it has ended. The library suppresses the repetitions, but
 * passes one on as "repeat" after each repeat interval.
 */
#ifndef WATCH_REPORT_H
#define WATCH_REPORT_H

#include <oxEvent.h>
#include <stdbool.h>

#include "text.h"

typedef struct Reporter {
  const char* host;
  uint64_t started_ms;
  uint64_t reported; /* Events that the library accepted. */
  uint64_t refused;
  unsigned occurrences; /* Number of conditions raised so far. */
} Reporter;

typedef struct Condition {
  const char* event_type;
  const char* source_id; /* The watched object. */
  uint32_t severity;
  double threshold;
  double step; /* Smaller changes of the value are not reported. */
  const char* units;

  bool raised;
  double value; /* Value at the raise or at the last update. */
  uint64_t since_ms;
  char correlation_id[64]; /* The same from raise to clear. */
} Condition;

/*
 * Reports whether a condition is `present`, and its `value`. Reports nothing if the condition is neither present nor
 * raised. Ends `details`, and frees its text and `message`.
 */
void ReportCondition(Reporter* reporter, Condition* condition, bool present, double value, char* message,
                     JsonObject* details);

/* Reports an event that is not a condition: the watcher's own start, reload and stop. */
void ReportNotice(Reporter* reporter, const char* event_type, const char* message);

/* Prints what failed, the library's last error and `code`. */
void PrintFailure(const char* what, uint32_t code);

#endif

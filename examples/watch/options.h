/* The watcher's command line. */
#ifndef WATCH_OPTIONS_H
#define WATCH_OPTIONS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

typedef struct Limit {
  double value;
  bool on;
} Limit;

enum { kMaxAlertmanagers = 4 };

typedef struct Options {
  const char* settings;
  const char* directory;
  const char* spool;                            /* Null: no spool is watched. */
  const char* option_needing_spool;             /* An option on the command line that requires --spool, or null. */
  const char* alertmanagers[kMaxAlertmanagers]; /* URLs. */
  size_t alertmanager_count;
  uint64_t period_ms;
  uint64_t rounds; /* 0: no limit. */
  Limit max_files;
  Limit max_age_s;
  Limit max_used_percent;
  Limit max_load;
  Limit min_memory;
  bool min_memory_is_percent; /* Else megabytes. */
} Options;

/* Returns -1 if the program may continue, or else the exit status, after printing the help or an error. */
int ParseOptions(int argc, char** argv, Options* options);

#endif

/*
 * What the watcher measures. Each function fills *reading and returns 0, or returns the errno value of what failed and
 * leaves *reading unspecified.
 */
#ifndef WATCH_PROBES_H
#define WATCH_PROBES_H

#include <limits.h>
#include <stdint.h>

typedef struct FolderReading {
  double used_percent; /* As df tells it: of what is open to everyone. */
  double free_mb;
} FolderReading;

typedef struct SpoolReading {
  uint64_t files; /* Regular files; what lies in folders of the spool does not count. */
  double oldest_age_s;
  char oldest_name[NAME_MAX + 1]; /* Empty without files. */
} SpoolReading;

typedef struct MemoryReading {
  double total_mb;
  double available_mb;
} MemoryReading;

int ReadFolder(const char* path, FolderReading* reading);
int ReadSpool(const char* path, SpoolReading* reading);
int ReadLoad(double* load_of_one_minute);
int ReadMemory(MemoryReading* reading);

/* Milliseconds of a clock that never jumps. */
uint64_t MonotonicMs(void);

#endif

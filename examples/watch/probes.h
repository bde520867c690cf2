/*
 * The watcher's measurements. Each Read function stores its result and returns 0, or returns an errno value and leaves
 * the result unspecified.
 */
#ifndef WATCH_PROBES_H
#define WATCH_PROBES_H

#include <limits.h>
#include <stdint.h>

typedef struct FileSystemReading {
  double used_percent; /* Like df: relative to the space that unprivileged users can use. */
  double free_mb;
} FileSystemReading;

typedef struct SpoolReading {
  uint64_t files; /* Regular files; subdirectories are ignored. */
  double oldest_age_s;
  char oldest_name[NAME_MAX + 1]; /* Empty if there are no files. */
} SpoolReading;

typedef struct MemoryReading {
  double total_mb;
  double available_mb;
} MemoryReading;

int ReadFileSystem(const char* path, FileSystemReading* reading);
int ReadSpool(const char* path, SpoolReading* reading);
int ReadLoad(double* load_of_one_minute);
int ReadMemory(MemoryReading* reading);

/* Milliseconds of a clock that never jumps. */
uint64_t MonotonicMs(void);

#endif

#define _POSIX_C_SOURCE 200809L  // NOLINT(bugprone-reserved-identifier)

#include "probes.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>

static const double kMb = 1024.0 * 1024.0;

int ReadFileSystem(const char* path, FileSystemReading* reading) {
  struct statvfs fs;
  if (statvfs(path, &fs) != 0) return errno;
  const double used = (double)(fs.f_blocks - fs.f_bfree);
  const double usable = used + (double)fs.f_bavail;  // Less than f_blocks: root has a reserve.
  reading->used_percent = usable > 0 ? 100.0 * used / usable : 0.0;
  reading->free_mb = (double)fs.f_bavail * (double)fs.f_frsize / kMb;
  return 0;
}

static double Seconds(struct timespec time) { return (double)time.tv_sec + (double)time.tv_nsec / 1e9; }

/* Counts one entry of the spool. Ignores a file that was removed after readdir. */
static int AddEntry(int directory, const char* name, double now_s, SpoolReading* reading) {
  struct stat entry;
  if (fstatat(directory, name, &entry, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : errno;
  if (!S_ISREG(entry.st_mode)) return 0;
  const double age_s = now_s - Seconds(entry.st_mtim);
  if (reading->files == 0 || age_s > reading->oldest_age_s) {
    reading->oldest_age_s = age_s > 0 ? age_s : 0;
    snprintf(reading->oldest_name, sizeof(reading->oldest_name), "%s", name);
  }
  ++reading->files;
  return 0;
}

int ReadSpool(const char* path, SpoolReading* reading) {
  memset(reading, 0, sizeof(*reading));
  DIR* directory = opendir(path);
  if (directory == NULL) return errno;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  int error = 0;
  const struct dirent* entry = NULL;
  do {
    errno = 0;  // Only errno distinguishes a failure of readdir from the end of the directory.
    entry = readdir(directory);
    error = entry != NULL ? AddEntry(dirfd(directory), entry->d_name, Seconds(now), reading) : errno;
  } while (entry != NULL && error == 0);
  closedir(directory);
  return error;
}

int ReadLoad(double* load_of_one_minute) {
  FILE* file = fopen("/proc/loadavg", "re");
  if (file == NULL) return errno;
  const int found = fscanf(file, "%lf", load_of_one_minute);
  fclose(file);
  return found == 1 ? 0 : EPROTO;
}

int ReadMemory(MemoryReading* reading) {
  FILE* file = fopen("/proc/meminfo", "re");
  if (file == NULL) return errno;
  char line[128];
  double kb = 0;
  int found = 0;
  while (found != 2 && fgets(line, sizeof(line), file) != NULL) {
    if (sscanf(line, "MemTotal: %lf kB", &kb) == 1) {
      reading->total_mb = kb / 1024.0;
      ++found;
    } else if (sscanf(line, "MemAvailable: %lf kB", &kb) == 1) {
      reading->available_mb = kb / 1024.0;
      ++found;
    }
  }
  fclose(file);
  return found == 2 ? 0 : EPROTO;
}

uint64_t MonotonicMs(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
}

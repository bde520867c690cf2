// Usage: load_host LIBRARY [LOADED_BEFORE]
// Loads LOADED_BEFORE, then LIBRARY. Prints what the second load costs, including the libraries that LIBRARY needs: the
// time of dlopen in nanoseconds, the resident memory that it adds, and the private part of that memory, which no other
// process can share, both in KiB.
#include <dlfcn.h>
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

struct Memory {
  long resident_kib;
  long private_kib;
};

static struct Memory ReadMemory(void) {
  struct Memory memory = {0, 0};
  FILE* const rollup = fopen("/proc/self/smaps_rollup", "r");
  char line[256];
  while (rollup != NULL && fgets(line, sizeof(line), rollup) != NULL) {
    long kib = 0;
    if (sscanf(line, "Rss: %ld", &kib) == 1) memory.resident_kib = kib;
    if (sscanf(line, "Private_Dirty: %ld", &kib) == 1) memory.private_kib = kib;
  }
  if (rollup != NULL) fclose(rollup);
  return memory;
}

static int64_t NowNs(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

static void Load(const char* library) {
  if (dlopen(library, RTLD_NOW) != NULL) return;
  fprintf(stderr, "load_host: %s\n", dlerror());
  exit(1);
}

int main(int argc, char** argv) {
  if (argc != 2 && argc != 3) return 2;
  if (argc == 3) Load(argv[2]);
  ReadMemory();  // The first call makes the C library's own pages resident.
  const struct Memory before = ReadMemory();
  const int64_t start = NowNs();
  Load(argv[1]);
  const int64_t end = NowNs();
  const struct Memory after = ReadMemory();
  if (before.resident_kib == 0) {
    fprintf(stderr, "load_host: /proc/self/smaps_rollup cannot be read\n");
    return 1;
  }
  printf("{\"load_ns\":%" PRId64 ",\"resident_kib\":%ld,\"private_kib\":%ld}\n", end - start,
         after.resident_kib - before.resident_kib, after.private_kib - before.private_kib);
  return 0;
}

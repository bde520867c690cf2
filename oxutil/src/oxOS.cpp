// Memory, directories and clocks.
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>

#include "oxutil.h"

namespace {

timespec Now(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return now;
}

}  // namespace

void OXFree(void* buffer) { free(buffer); }

int32_t oxOSFileIsDir(const char* path) {
  struct stat status;
  return path != nullptr && stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

int32_t oxOSMakeDir(const char* path, uint32_t permissions) {
  return path == nullptr ? -1 : mkdir(path, static_cast<mode_t>(permissions));
}

uint64_t oxOSGetTimePTPNano(void) {
  const timespec now = Now(CLOCK_REALTIME);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

uint32_t oxOSGetMs(void) {
  const timespec now = Now(CLOCK_MONOTONIC);
  return static_cast<uint32_t>(static_cast<uint64_t>(now.tv_sec) * 1000u +
                               static_cast<uint64_t>(now.tv_nsec) / 1000000u);
}

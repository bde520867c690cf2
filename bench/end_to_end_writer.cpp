// A minimal synchronous logger: formats the row on the caller's thread, and holds a mutex only while it writes.
#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "end_to_end.h"

namespace {

FILE* g_file = nullptr;
std::mutex g_mutex;

void Start(const std::string& directory, uint32_t /*queue_size*/) {
  g_file = fopen((directory + "/events.csv").c_str(), "a");
  if (g_file != nullptr) return;
  perror(directory.c_str());
  exit(1);
}

void Submit(const oxEventRecord& e) {
  const auto second = static_cast<time_t>(e.utc_ns / 1'000'000'000);
  tm utc;
  gmtime_r(&second, &utc);
  char row[4096];
  const int size = snprintf(
      row, sizeof(row),
      "%04d-%02d-%02dT%02d:%02d:%02d.%09" PRIu64 "Z,%" PRIu32 ",%" PRIu64
      ",%s,%s,%s,%s,%s,%s,%s,%.17g,%.17g,%s,%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRId64 ",%s,%s\n",
      utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, e.utc_ns % 1'000'000'000,
      e.severity, e.event_id, e.action, e.event_type, e.source_id, e.source_name, e.dedupe_key, e.correlation_id,
      e.message, e.value, e.threshold, e.units, e.duration_ms, e.utc_ns, e.ptp_ns, e.pts, e.timecode, e.details_json);
  const std::lock_guard lock(g_mutex);
  if (fwrite(row, 1, static_cast<size_t>(size), g_file) == static_cast<size_t>(size)) return;
  perror("fwrite");
  exit(1);
}

void Drain() { fflush(g_file); }

void Stop() { fclose(g_file); }

}  // namespace

const Logger kLogger = {false, Start, Submit, Drain, Stop};

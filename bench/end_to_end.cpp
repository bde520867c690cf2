#include "end_to_end.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "allocations.h"
#include "event.h"

namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr uint32_t kEventsPerStorm = 1000;

enum class Pace { kStorms, kSpinning, kSleeping, kBackToBack };

struct Load {
  const char* name;
  Pace pace;
  uint32_t threads;
  uint32_t events;
  uint64_t interval_ns;  // Between storms, or between events.
  uint32_t queue_size;
};

constexpr Load kLoads[] = {
    {"storm_1", Pace::kStorms, 1, 40 * kEventsPerStorm, 10 * kNsPerMs, 1024},
    {"storm_2", Pace::kStorms, 2, 40 * kEventsPerStorm, 10 * kNsPerMs, 1024},
    {"storm_8", Pace::kStorms, 8, 40 * kEventsPerStorm, 10 * kNsPerMs, 1024},
    {"storm_64", Pace::kStorms, 64, 40 * 960, 10 * kNsPerMs, 1024},  // 15 events of each thread.
    {"paced_20000", Pace::kSpinning, 1, 20'000, kNsPerSecond / 20'000, 1024},
    {"paced_1000", Pace::kSleeping, 1, 1500, kNsPerSecond / 1000, 1024},
    {"idle", Pace::kSleeping, 1, 60, 20 * kNsPerMs, 1024},
    {"million", Pace::kBackToBack, 1, 1'000'000, 0, 1 << 20},
    {"million_1024", Pace::kBackToBack, 1, 1'000'000, 0, 1024},
    {"million_10000", Pace::kBackToBack, 1, 1'000'000, 0, 10'000},
    {"million_100000", Pace::kBackToBack, 1, 1'000'000, 0, 100'000},
};

uint64_t Now(clockid_t clock = CLOCK_MONOTONIC) {
  timespec time;
  clock_gettime(clock, &time);
  return static_cast<uint64_t>(time.tv_sec) * kNsPerSecond + static_cast<uint64_t>(time.tv_nsec);
}

void SleepUntil(uint64_t time_ns) {
  const timespec time = {static_cast<time_t>(time_ns / kNsPerSecond), static_cast<long>(time_ns % kNsPerSecond)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) != 0) {
  }
}

// The delivering thread.
struct Worker {
  std::atomic<pid_t> tid = 0;  // 0: has not delivered yet.
  clockid_t cpu_clock = 0;
  std::atomic<size_t> allocations = 0;  // Up to the last delivered event.

  uint64_t CpuNs() const { return tid == 0 ? 0 : Now(cpu_clock); }

  // Number of times that the thread has blocked, each followed by a wakeup.
  uint64_t Wakeups() const {
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    constexpr std::string_view kLabel = "voluntary_ctxt_switches:";
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with(kLabel)) return std::strtoull(line.c_str() + kLabel.size(), nullptr, 10);
    }
    return 0;
  }
};
Worker g_worker;
std::atomic<bool> g_hold_worker = false;  // Keeps the worker in Delivered.
const Logger* g_logger = nullptr;

// Indexed by event id minus g_first_id. The ids of the warm-up start at 0, those of the measurement after them.
std::vector<uint64_t> g_submitted_ns;
std::vector<uint64_t> g_submit_duration_ns;
std::vector<uint64_t> g_delivered_ns;  // 0: lost.
uint64_t g_first_id = 0;
const uint64_t g_utc_minus_monotonic = Now(CLOCK_REALTIME) - Now();

void SubmitOne(oxEventRecord* record, uint64_t index) {
  record->event_id = g_first_id + index;
  record->pts = static_cast<int64_t>(index) * 3600;  // An update equal to the previous one would be suppressed.
  record->value = 60 + static_cast<double>(index % 100) / 10;
  record->utc_ns = record->ptp_ns = Now() + g_utc_minus_monotonic;
  const uint64_t start = Now();
  g_submitted_ns[index] = start;
  g_logger->submit(*record);
  g_submit_duration_ns[index] = Now() - start;
}

// Returns the callers' allocations.
size_t RunStorms(const Load& load, uint32_t events) {
  const uint32_t events_per_thread = kEventsPerStorm / load.threads;
  const uint32_t storms = events / (events_per_thread * load.threads);
  std::barrier start(load.threads + 1);
  std::barrier end(load.threads + 1);
  std::atomic<size_t> allocations = 0;
  const auto body = [&](uint32_t thread) {
    oxEventRecord record = OrdinaryRecord();
    for (uint32_t storm = 0; storm < storms; ++storm) {
      start.arrive_and_wait();
      const size_t allocations_before = t_allocations;
      const uint32_t first = (storm * load.threads + thread) * events_per_thread;
      for (uint32_t i = 0; i < events_per_thread; ++i) SubmitOne(&record, first + i);
      allocations += t_allocations - allocations_before;
      end.arrive_and_wait();
    }
  };
  std::vector<std::thread> threads;
  for (uint32_t i = 0; i < load.threads; ++i) threads.emplace_back(body, i);
  for (uint32_t storm = 0; storm < storms; ++storm) {
    SleepUntil(Now() + load.interval_ns);
    start.arrive_and_wait();
    end.arrive_and_wait();
    g_logger->drain();
  }
  for (std::thread& thread : threads) thread.join();
  return allocations;
}

// Returns the caller's allocations.
size_t RunOneThread(const Load& load, uint32_t events) {
  oxEventRecord record = OrdinaryRecord();
  const size_t allocations_before = t_allocations;
  const uint64_t start = Now();
  for (uint32_t i = 0; i < events; ++i) {
    const uint64_t due = start + (i + 1) * load.interval_ns;  // The first event, too, finds the worker idle.
    if (load.pace == Pace::kSleeping) SleepUntil(due);
    while (load.pace == Pace::kSpinning && Now() < due) {
    }
    SubmitOne(&record, i);
  }
  const size_t allocations = t_allocations - allocations_before;
  g_logger->drain();
  return allocations;
}

// Returns the callers' allocations.
size_t Run(const Load& load, uint32_t events) {
  return load.pace == Pace::kStorms ? RunStorms(load, events) : RunOneThread(load, events);
}

// Warm-up: fills the queue, so that it allocates all of its memory.
void FillQueue(const Load& load) {
  oxEventRecord record = OrdinaryRecord();
  g_hold_worker = true;
  for (uint32_t i = 0; i < load.queue_size; ++i) SubmitOne(&record, i % load.events);
  g_hold_worker = false;
  g_hold_worker.notify_one();
  g_logger->drain();
}

// Exact, unlike /proc/self/statm.
uint64_t ResidentKib() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  constexpr std::string_view kLabel = "Rss:";
  for (std::string line; std::getline(rollup, line);) {
    if (line.starts_with(kLabel)) return std::strtoull(line.c_str() + kLabel.size(), nullptr, 10);
  }
  return 0;
}

uint64_t PeakResidentKib() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<uint64_t>(usage.ru_maxrss);
}

// Nearest-rank percentile. `fraction`: 0 to 1.
uint64_t Percentile(const std::vector<uint64_t>& sorted, double fraction) {
  const auto rank = static_cast<size_t>(std::ceil(fraction * static_cast<double>(sorted.size()) - 1e-6));
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

void PrintSubmitTimes() {
  uint64_t sum = 0;
  for (const uint64_t duration : g_submit_duration_ns) sum += duration;
  const double mean = static_cast<double>(sum) / static_cast<double>(g_submit_duration_ns.size());
  std::sort(g_submit_duration_ns.begin(), g_submit_duration_ns.end());
  printf(R"("submit_ns":{"p50":%lu,"p99":%lu,"p999":%lu,"mean":%.1f},)", Percentile(g_submit_duration_ns, 0.5),
         Percentile(g_submit_duration_ns, 0.99), Percentile(g_submit_duration_ns, 0.999), mean);
}

// Prints the delays of the delivered events, and returns the number of lost events.
size_t PrintDelays() {
  std::vector<uint64_t> delays;
  for (size_t i = 0; i < g_delivered_ns.size(); ++i) {
    if (g_delivered_ns[i] != 0) delays.push_back(g_delivered_ns[i] - g_submitted_ns[i]);
  }
  std::sort(delays.begin(), delays.end());
  const size_t lost = g_delivered_ns.size() - delays.size();
  if (delays.empty()) {
    fprintf(stderr, "no events were delivered\n");
    exit(1);
  }
  printf(R"("delay_ns":{"p50":%lu,"p99":%lu},)", Percentile(delays, 0.5), Percentile(delays, 0.99));
  return lost;
}

// Loads the logger's module, which lies beside this program, and with it the logger's libraries.
const Logger* LoadLogger(const std::string& name) {
  const auto program = std::filesystem::read_symlink("/proc/self/exe");
  void* const module = dlopen((program.parent_path() / ("end_to_end_" + name + ".so")).c_str(), RTLD_NOW);
  void* const logger = module == nullptr ? nullptr : dlsym(module, "kLogger");
  if (logger != nullptr) return static_cast<const Logger*>(logger);
  fprintf(stderr, "%s\n", dlerror());
  exit(1);
}

void Measure(const std::string& name, const Load& load, const std::string& directory) {
  g_submitted_ns.assign(load.events, 1);
  g_submit_duration_ns.assign(load.events, 1);
  g_delivered_ns.assign(load.events, 1);
  const uint64_t resident_before = ResidentKib();
  g_logger = LoadLogger(name);
  g_logger->start(directory, load.queue_size);
  g_first_id = 0;
  if (g_logger->has_worker) FillQueue(load);
  Run(load, load.pace == Pace::kStorms ? 5 * kEventsPerStorm : load.events / 10);

  std::fill(g_delivered_ns.begin(), g_delivered_ns.end(), 0);
  g_first_id = load.events;
  const size_t allocations_before = g_worker.allocations;
  const uint64_t cpu_before = g_worker.CpuNs();
  const uint64_t wakeups_before = g_worker.Wakeups();
  const auto caller_allocations = static_cast<double>(Run(load, load.events));
  SleepUntil(Now() + 5 * kNsPerMs);  // Lets the worker become idle.
  const auto worker_allocations = static_cast<double>(g_worker.allocations - allocations_before);
  const auto worker_cpu = static_cast<double>(g_worker.CpuNs() - cpu_before);
  const auto wakeups = static_cast<double>(g_worker.Wakeups() - wakeups_before);
  // The kernel updates the peak late.
  const uint64_t memory = std::max(PeakResidentKib(), ResidentKib()) - resident_before;

  const auto events = static_cast<double>(load.events);
  printf(R"({"logger":"%s","load":"%s","threads":%u,"events":%u,)", name.c_str(), load.name, load.threads, load.events);
  size_t lost = 0;
  if (g_logger->has_worker) {
    lost = PrintDelays();
    const auto delivered = static_cast<double>(load.events - lost);
    const uint64_t end = *std::max_element(g_delivered_ns.begin(), g_delivered_ns.end());
    const double seconds = static_cast<double>(end - g_submitted_ns[0]) / kNsPerSecond;
    printf(R"("lost":%zu,"events_per_s":%.0f,)", lost, delivered / seconds);
    printf(R"("worker_allocations":%.6g,"worker_cpu_ns":%.1f,"worker_wakeups":%.6g,)", worker_allocations / delivered,
           worker_cpu / delivered, wakeups / delivered);
    if (std::string_view(load.name) == "idle") {
      const uint64_t quiet_cpu_before = g_worker.CpuNs();
      const uint64_t quiet_wakeups_before = g_worker.Wakeups();
      SleepUntil(Now() + kNsPerSecond);
      printf(R"("quiet_cpu_ns":%lu,"quiet_wakeups":%lu,)", g_worker.CpuNs() - quiet_cpu_before,
             g_worker.Wakeups() - quiet_wakeups_before);
    }
  } else {
    const uint64_t last = *std::max_element(g_submitted_ns.begin(), g_submitted_ns.end());
    const double seconds = static_cast<double>(last - g_submitted_ns[0]) / kNsPerSecond;
    printf(R"("delay_ns":null,"lost":0,"events_per_s":%.0f,)", events / seconds);
    printf(R"("worker_allocations":null,"worker_cpu_ns":null,"worker_wakeups":null,)");
    printf(R"("quiet_cpu_ns":null,"quiet_wakeups":null,)");
  }
  PrintSubmitTimes();
  printf(R"("caller_allocations":%.6g,"memory_kib":%lu})"
         "\n",
         caller_allocations / events, memory);
  g_logger->stop();
}

}  // namespace

void Delivered(uint64_t event_id) {
  if (g_worker.tid == 0) {
    pthread_getcpuclockid(pthread_self(), &g_worker.cpu_clock);
    g_worker.tid = gettid();
  }
  g_hold_worker.wait(true);
  g_worker.allocations.store(t_allocations, std::memory_order_relaxed);
  const uint64_t index = event_id - g_first_id;
  if (index < g_delivered_ns.size()) g_delivered_ns[index] = Now();
}

int main(int argc, char** argv) {
  const Load* load = std::find_if(std::begin(kLoads), std::end(kLoads), [&](const Load& candidate) {
    return argc == 3 && std::string_view(argv[2]) == candidate.name;
  });
  if (load == std::end(kLoads)) {
    fprintf(stderr, "usage: %s LOGGER LOAD, where LOAD is one of:", argv[0]);
    for (const Load& known : kLoads) fprintf(stderr, " %s", known.name);
    fprintf(stderr, "\n");
    return 2;
  }
  const char* const parent = getenv("TMPDIR");
  std::string directory = std::string(parent == nullptr ? "/tmp" : parent) + "/oxevent_bench_XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    perror(directory.c_str());
    return 1;
  }
  Measure(argv[1], *load, directory);
  std::filesystem::remove_all(directory);
}

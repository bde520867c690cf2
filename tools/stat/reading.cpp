#include "stat/reading.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "base/oxEventStat.h"
#include "stat/library.h"

namespace {

// Thrown if an object was changed or freed while it was read.
struct TornReading {};

// Reads one block. The kernel's copies are ordered: each of them takes and releases references to the pages, with full
// memory barriers.
class BlockReader {
 public:
  BlockReader(const Process& process, uint64_t address) : process_(process), address_(address) {}

  // Throws TornReading, or std::runtime_error if the process or the library cannot be read.
  Reading Read() const {
    const auto before = Sequences();
    const auto block = Get<oxEventStatBlock>(address_);
    if (block.version != kOxEventStatVersion) {
      throw std::runtime_error("the library in process " + std::to_string(process_.Pid()) +
                               " publishes its counters in format version " + std::to_string(block.version) +
                               ", but this oxevent-stat reads version " + std::to_string(kOxEventStatVersion) +
                               "; use the oxevent-stat that belongs to that library");
    }
    Reading reading;
    reading.pid = process_.Pid();
    reading.name = process_.Name();
    if (block.run.running != 0) ReadRun(block.run, &reading);
    ReadSinks(block.first_sink, &reading);
    if (Sequences() != before || before.first % 2 != 0 || before.second % 2 != 0) throw TornReading();
    return reading;
  }

 private:
  static constexpr size_t kMaxTextBytes = 4096;
  static constexpr size_t kMaxSinks = 10'000;  // Bounds the time if a torn list is circular.

  template <class T>
  T Get(uint64_t address) const {
    T value;
    if (!process_.Read(address, &value, sizeof(value))) throw TornReading();
    return value;
  }

  std::pair<uint64_t, uint64_t> Sequences() const {
    return {Get<uint64_t>(address_ + offsetof(oxEventStatBlock, run_sequence)),
            Get<uint64_t>(address_ + offsetof(oxEventStatBlock, sinks_sequence))};
  }

  std::string GetText(const oxEventStatText& text) const {
    std::string copy(std::min(text.size, uint64_t{kMaxTextBytes}), '\0');
    if (!copy.empty() && !process_.Read(text.address, copy.data(), copy.size())) throw TornReading();
    return copy;
  }

  void ReadRun(const oxEventStatRun& run, Reading* reading) const {
    const auto get = [this](uint64_t address) { return Get<uint64_t>(address); };
    reading->has_run = true;
    reading->running = get(run.running) != 0;
    const auto drops = Get<oxEventDropCounts>(run.drops);
    const uint64_t emitted = get(run.emitted);  // Read before `enqueued`, so that it is never greater.
    reading->counters = {get(run.enqueued) + oxEventDropsBeforeQueue(drops),
                         emitted,
                         std::reduce(drops.begin(), drops.end()),
                         get(run.sink_failures),
                         get(run.sink_warnings),
                         drops};
    reading->pending = get(run.pending_debug_info) + get(run.pending_warning_error);
    reading->conditions = get(run.conditions);
    reading->capacity = Get<uint32_t>(run.capacity);
    reading->active = Get<uint32_t>(run.active);
  }

  void ReadSinks(uint64_t address, Reading* reading) const {
    while (address != 0) {
      if (reading->sinks.size() == kMaxSinks) throw TornReading();
      const uint64_t failures_address = address + offsetof(oxEventStatSink, failures);
      const auto failures = Get<uint64_t>(failures_address);
      const auto sink = Get<oxEventStatSink>(address);
      reading->sinks.push_back({GetText(sink.section), GetText(sink.name), sink.delivered, failures,
                                failures != 0 ? GetText(sink.errors[failures % 2]) : ""});
      if (Get<uint64_t>(failures_address) != failures) throw TornReading();
      address = sink.next;
    }
  }

  const Process& process_;
  const uint64_t address_;
};

Reading ReadBlocks(const Process& process) {
  std::optional<Reading> first;
  for (const uint64_t block : FindBlocks(process)) {
    Reading reading = BlockReader(process, block).Read();
    if (reading.running) return reading;
    if (!first) first = std::move(reading);
  }
  if (first) return *first;
  throw std::runtime_error("process " + std::to_string(process.Pid()) + " (" + process.Name() +
                           ") has not loaded the library oxEvent");
}

}  // namespace

Reading ReadProcess(const Process& process) {
  constexpr int kTries = 200;
  for (int i = 0; i < kTries; ++i) {
    try {
      return ReadBlocks(process);
    } catch (const TornReading&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  throw std::runtime_error("process " + std::to_string(process.Pid()) + " is busy: its runs or sinks have changed " +
                           "during each of " + std::to_string(kTries) + " readings; try again");
}

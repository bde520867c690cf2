// oxEventState: each action, with tables from one that fits into the CPU caches to one that is far larger.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "core/oxEventState.h"
#include "micro.h"

namespace {

constexpr uint64_t kRepeatIntervalNs = 1'800'000'000'000;  // The default.

// A report of a raised condition, and the expected result.
struct Report {
  const char* name;
  const char* action;
  bool after_interval;    // The repeat interval has passed since the condition's last forwarded event.
  bool changed;           // The value differs from that event's.
  const char* forwarded;  // Action of the forwarded event; null: the report is suppressed.
};

constexpr Report kReports[] = {{"raise_suppressed", "raise", false, false, nullptr},
                               {"raise_repeat", "raise", true, false, "repeat"},
                               {"update_changed", "update", false, true, "update"},
                               {"update_same", "update", false, false, nullptr},
                               {"repeat_elapsed", "repeat", true, false, "repeat"}};

size_t ResidentBytes() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// A state with `raised` raised conditions, and a quarter as many clear ones. The benchmark visits the conditions in an
// order that is random with respect to the state's memory. Its own data is stored in the order of the visits, so that
// the cache misses are those of the state.
class Conditions {
 public:
  explicit Conditions(uint32_t raised);

  // Reports the next raised condition. Returns whether the result was as expected, like the two methods below.
  bool Next(const Report& report) {
    if (++visit_ == raised_) visit_ = 0;
    return Evaluate(report, &At(visit_));
  }

  // Raises the condition that has been clear the longest, and clears the one that has been raised the longest.
  bool RaiseAndClear() {
    const bool ok = Evaluate({"", "raise", false, false, "raise"}, &At(raised_)) &&
                    Evaluate({"", "clear", false, false, "clear"}, &At(0));
    if (++first_ == conditions_.size()) first_ = 0;
    return ok;
  }

  // If `report` is an update that is to be suppressed, forwards one update for every raised condition: an update is
  // suppressed only if it equals the last event that was forwarded for its condition.
  bool Prepare(const Report& report) {
    if (report.forwarded != nullptr || std::string_view(report.action) != "update") return true;
    bool ok = true;
    for (uint32_t i = 0; i < raised_; ++i) {
      if (!At(i).updated) ok &= Evaluate({"", "update", false, true, "update"}, &At(i));
    }
    return ok;
  }

  double BytesPerCondition() const { return static_cast<double>(bytes_) / raised_; }

 private:
  struct Condition {
    std::array<char, 31> key;
    bool updated = false;  // The last forwarded event was an update.
    bool odd = false;      // Selects one of two values.
    uint64_t last_forwarded_ns = 0;
  };

  Condition& At(size_t visit) {
    const size_t i = first_ + visit;
    return conditions_[i < conditions_.size() ? i : i - conditions_.size()];
  }

  bool Evaluate(const Report& report, Condition* condition) {
    condition->odd ^= report.changed;
    event_.action = report.action;
    event_.dedupe_key = {condition->key.data(), condition->key.size()};
    event_.utc_ns = condition->last_forwarded_ns + (report.after_interval ? kRepeatIntervalNs : 0);
    event_.value = condition->odd ? 71.3 : 71.4;
    bool route = false;
    if (state_.Evaluate(event_, &out_, &route) != OXEVENT_OK || route != (report.forwarded != nullptr)) return false;
    if (!route) return true;
    condition->updated = event_.action == "update";
    condition->last_forwarded_ns = event_.utc_ns;
    return out_.action == report.forwarded;
  }

  const uint32_t raised_;
  std::vector<Condition> conditions_;
  size_t first_ = 0;  // Index of the first raised condition. The raised ones may wrap around the end of the vector.
  uint32_t visit_ = 0;
  size_t bytes_ = 0;
  oxEventNormalizedEvent event_ = CompleteEvent();
  oxEventNormalizedEvent out_;
  oxEventState state_;
};

Conditions::Conditions(uint32_t raised) : raised_(raised), conditions_(raised + raised / 4) {
  std::vector<uint32_t> numbers(conditions_.size());
  std::iota(numbers.begin(), numbers.end(), 0);
  std::shuffle(numbers.begin(), numbers.end(), std::mt19937(1));
  for (size_t i = 0; i < numbers.size(); ++i) {
    char key[32];
    snprintf(key, sizeof(key), "rack-%08u/psu-2/temperature", numbers[i] % 100'000'000);
    std::copy_n(key, conditions_[i].key.size(), conditions_[i].key.begin());
    conditions_[i].last_forwarded_ns = event_.utc_ns;
  }
  std::vector<uint32_t> by_number(raised_);
  std::iota(by_number.begin(), by_number.end(), 0);
  std::sort(by_number.begin(), by_number.end(), [&](uint32_t a, uint32_t b) { return numbers[a] < numbers[b]; });

  const size_t resident_before = ResidentBytes();
  bool ok = true;
  for (const uint32_t i : by_number) ok &= Evaluate({"", "raise", false, false, "raise"}, &conditions_[i]);
  bytes_ = ResidentBytes() - resident_before;
  if (!ok) abort();
}

}  // namespace

void RegisterStateBenchmarks() {
  for (const uint32_t size : {1'000u, 10'000u, 100'000u, 1'000'000u}) {
    // Created on first use, and shared by the benchmarks of this size.
    const auto shared = std::make_shared<std::unique_ptr<Conditions>>();
    const auto get = [shared, size]() -> Conditions& {
      if (*shared == nullptr) *shared = std::make_unique<Conditions>(size);
      return **shared;
    };
    const auto name = [size](const char* action) {
      return std::string("State/").append(action).append("/").append(std::to_string(size));
    };
    for (const Report& report : kReports) {
      benchmark::RegisterBenchmark(name(report.name).c_str(), [get, report](benchmark::State& state) {
        Conditions& conditions = get();
        if (!conditions.Prepare(report)) return state.SkipWithError("unexpected result");
        Repeat(state, [&] { return conditions.Next(report); });
      });
    }
    // Raise and clear together, so that the size of the table does not change.
    benchmark::RegisterBenchmark(name("raise_clear").c_str(), [get](benchmark::State& state) {
      Conditions& conditions = get();
      Repeat(state, [&] { return conditions.RaiseAndClear(); });
      state.counters["bytes_per_condition"] = conditions.BytesPerCondition();
    });
  }
}

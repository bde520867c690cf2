// The state by itself: each action, with a table that the caches hold and with one that they do not.
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
#include "pieces.h"

namespace {

constexpr uint64_t kRepeatIntervalNs = 1'800'000'000'000;  // As by default.

// What is reported of a raised condition, and what must become of it.
struct Report {
  const char* name;
  const char* action;
  bool after_interval;    // Since the condition's last event that went on.
  bool changed;           // Against that event.
  const char* forwarded;  // The action that goes on; null: none.
};

constexpr Report kReports[] = {{"raise_suppressed", "raise", false, false, nullptr},
                               {"raise_repeat", "raise", true, false, "repeat"},
                               {"update_changed", "update", false, true, "update"},
                               {"update_same", "update", false, false, nullptr},
                               {"repeat_elapsed", "repeat", true, false, "repeat"}};

// Resident memory of the process.
size_t ResidentBytes() {
  size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// A state with so many raised conditions, and a quarter as many that are not. They are visited in an order that has
// nothing to do with that of their memory; what is needed for the next event lies in the order of the visits, so that
// only the state's own memory is missed.
class Conditions {
 public:
  explicit Conditions(uint32_t raised);

  // Reports the next raised condition. False: not what was to be expected.
  bool Next(const Report& report) {
    if (++visit_ == raised_) visit_ = 0;
    return Evaluate(report, &At(visit_));
  }

  // Raises the one that has been clear for longest, and clears the one that has been raised for longest.
  bool RaiseAndClear() {
    const bool good = Evaluate({"", "raise", false, false, "raise"}, &At(raised_)) &&
                      Evaluate({"", "clear", false, false, "clear"}, &At(0));
    if (++first_ == conditions_.size()) first_ = 0;
    return good;
  }

  // Makes the last event of every raised condition one that `report` can repeat: with the same action.
  bool Prepare(const Report& report) {
    if (report.forwarded != nullptr || std::string_view(report.action) != "update") return true;
    bool good = true;
    for (uint32_t i = 0; i < raised_; ++i) {
      if (!At(i).updated) good &= Evaluate({"", "update", false, true, "update"}, &At(i));
    }
    return good;
  }

  double BytesPerCondition() const { return static_cast<double>(bytes_) / raised_; }

 private:
  struct Condition {
    std::array<char, 31> key;
    bool updated = false;  // By its last event that went on.
    bool odd = false;      // Which of two values that event had.
    uint64_t last_sent_ns = 0;
  };

  Condition& At(size_t visit) {
    const size_t i = first_ + visit;
    return conditions_[i < conditions_.size() ? i : i - conditions_.size()];
  }

  bool Evaluate(const Report& report, Condition* condition) {
    condition->odd ^= report.changed;
    event_.action = report.action;
    event_.dedupe_key = {condition->key.data(), condition->key.size()};
    event_.utc_ns = condition->last_sent_ns + (report.after_interval ? kRepeatIntervalNs : 0);
    event_.value = condition->odd ? 71.3 : 71.4;
    bool route = false;
    if (state_.Evaluate(event_, &out_, &route) != OXEVENT_OK || route != (report.forwarded != nullptr)) return false;
    if (!route) return true;
    condition->updated = event_.action == "update";
    condition->last_sent_ns = event_.utc_ns;
    return out_.action == report.forwarded;
  }

  const uint32_t raised_;
  std::vector<Condition> conditions_;
  size_t first_ = 0;  // The raised ones begin here, and go on at the begin.
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
    conditions_[i].last_sent_ns = event_.utc_ns;
  }
  std::vector<uint32_t> by_number(raised_);
  std::iota(by_number.begin(), by_number.end(), 0);
  std::sort(by_number.begin(), by_number.end(), [&](uint32_t a, uint32_t b) { return numbers[a] < numbers[b]; });

  const size_t before = ResidentBytes();
  bool good = true;
  for (const uint32_t i : by_number) good &= Evaluate({"", "raise", false, false, "raise"}, &conditions_[i]);
  bytes_ = ResidentBytes() - before;
  if (!good) abort();
}

}  // namespace

void RegisterState() {
  for (const uint32_t size : {1'000u, 1'000'000u}) {
    // Made when first needed, for all of the process.
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
    // Both of them: there is no raise of a new condition in a table of steady size without a clear.
    benchmark::RegisterBenchmark(name("raise_clear").c_str(), [get](benchmark::State& state) {
      Conditions& conditions = get();
      Repeat(state, [&] { return conditions.RaiseAndClear(); });
      state.counters["bytes_per_condition"] = conditions.BytesPerCondition();
    });
  }
}

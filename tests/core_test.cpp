// The queue, the state and numbers by themselves.
#include <atomic>
#include <chrono>
#include <cmath>
#include <random>
#include <thread>

#include "base/oxEventNumber.h"
#include "core/oxEventQueue.h"
#include "core/oxEventState.h"
#include "host_fixture.h"

namespace {

bool Enqueue(oxEventQueue* queue) {
  bool accepted = false, dropped = true;
  return queue->Enqueue({}, &accepted, &dropped) == OXEVENT_OK && accepted && !dropped;
}

TEST(oxEventQueue, FlushEndsWhenDrainedAndNotBefore) {
  for (const char last_call : {'c', 'D', 'R'}) {
    oxEventQueue queue;
    queue.Start(1, oxEventDropPolicy::kDropNewest);
    EXPECT_TRUE(Enqueue(&queue) && (last_call == 'D' || queue.WaitPop() != nullptr));
    std::atomic<bool> drained = false;
    std::jthread flusher([&] { EXPECT_TRUE(!queue.Flush(last_call == 'c' ? 0xFFFFFFFF : 0) && drained); });
    queue.RequestStop();  // Wakes it for nothing.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(queue.Flush(50) == OXEVENT_FAILURE &&
                std::chrono::steady_clock::now() >= start + std::chrono::milliseconds(50));
    drained = true;
    last_call == 'c' ? queue.CompleteActiveEvent() : last_call == 'R' ? queue.Reset() : (void)queue.DropPending();
    queue.Start(1, oxEventDropPolicy::kDropNewest);
    EXPECT_TRUE(Enqueue(&queue));  // Before the flush has a look.
  }
}

TEST(oxEventNumber, ReadsAsPrintfWritesIt) {
  std::mt19937_64 random(1);
  std::vector<double> values = {0, -0.0, 0.5, 5e-324, 1e308, 1e15, 0x1p53, INFINITY, -INFINITY};
  for (double power = 1; power < 1e18; power *= 10) {  // What lies at a power, and halfway between two texts.
    for (const double v : {power, std::nextafter(power, 0), power * 1.5, power - 0.05, power - 5e-7})
      values.push_back(v);
  }
  for (int i = 0; i < 100000; ++i) values.push_back(std::ldexp(int64_t(random()), int(random() % 80) - 70));
  for (int i = 0; i < 100000; ++i) values.push_back(double(random() % 100000000) / double(1 << random() % 12));
  for (const double value : values) {
    for (const int digits : {6, 17}) {
      char expected[64], text[kOxEventNumberSize];
      snprintf(expected, sizeof expected, "%.*g", digits, value);
      ASSERT_EQ(std::string(text, oxEventWriteNumber(value, digits, text)), expected);
    }
  }
}

TEST(oxEventState, GoesByActionKeyTimeAndContent) {
  // What is not as by default, the interval, and steps: action, key, time in ns, and the action that goes on or "-".
  const std::tuple<bool oxEventConfig::*, uint32_t, const char*> cases[] = {
      {nullptr, 1800, "raise k 1e9 raise raise k 1800999999999 - RAISE k 1801e9 repeat raise k 1801e9 -"},
      {nullptr, 1800, "raise k 1e9 repeat update k 1e9 update UPDATE k 2e9 - update k 1800999999999 - clear y 9 -"},
      {nullptr, 1800, "Update k 1801e9 Update update k 1801e9 - repeat k 3600999999999 - Repeat k 3601e9 Repeat"},
      {nullptr, 1800, "update k 3601e9 update update u 2 raise update u 3 - raise x 0 raise raise x 0 repeat"},
      {nullptr, 1800, "repeat y 9 - cleaR k 9 cleaR clear k 9 - raise j 2 raise raise j 3 - raise k 2 raise"},
      {nullptr, 1800, "raise none 1 raise raise s:t 1 - clear s:t 1 clear raises k 1 raises rais\xC5 k 1 rais\xC5"},
      {nullptr, 0, "raise k 1 repeat raise k 1 repeat update u 3 update update u 3 update"},
      {&oxEventConfig::state_enabled, 1800, "raise k 1 raise clear k 1 clear repeat y 1 repeat"},
      {&oxEventConfig::dedupe_enabled, 1800, "raise k 1 raise clear k 1 clear repeat y 1 repeat"},
      {&oxEventConfig::send_clear, 1800, "raise k 3 - clear k 3 - raise k 1 raise clear y 1 -"},
      {&oxEventConfig::route_orphan_clear, 1800, "clear y 1 clear clear y 1 clear repeat y 1 -"},
      {nullptr, UINT32_MAX, "raise k 4294967295e9 - raise k 1.8e19 repeat raise k 5 repeat"}};
  oxEventState state;
  oxEventNormalizedEvent event, out;
  const auto outcome = [&] {
    bool route = false;
    EXPECT_EQ(state.Evaluate(event, &out, &route), OXEVENT_OK);
    return std::string(route ? out.action : "-");
  };
  const auto twice = [&] { return outcome().append(outcome()); };
  event.source_id = "s", event.event_type = "t";
  for (const auto& [flipped, seconds, steps] : cases) {
    oxEventConfig config;
    config.default_repeat_interval_sec = seconds;
    if (flipped != nullptr) config.*flipped = !(config.*flipped);
    state.Configure(config);  // Keeps what is active.
    std::istringstream in(steps);
    for (std::string action, key, time, expected; in >> action >> key >> time >> expected;) {
      event.action = action, event.dedupe_key = key == "none" ? std::string_view() : key;
      event.utc_ns = static_cast<uint64_t>(std::stold(time));
      EXPECT_EQ(outcome(), expected) << steps << ": " << event.action << " " << time;
    }
  }
  state.Reset();
  event.action = "update", event.dedupe_key = "k";
  EXPECT_EQ(twice(), "raise-");
  for (const auto text : {&event.event_type, &event.source_id, &event.source_name, &event.message, &event.timecode,
                          &event.units, &event.correlation_id, &event.details_json}) {
    EXPECT_EQ((*text = "x", twice()), "update-");
  }
  EXPECT_EQ((event.severity = 3, twice()), "update-");
  EXPECT_EQ((event.pts = -1, twice()), "update-");
  EXPECT_EQ((event.duration_ms = 1, twice()), "update-");
  EXPECT_EQ((event.value = -0.0, twice()), "update-");
  EXPECT_EQ((event.threshold = 1.00001, twice()), "update-");
  event.threshold = 1.00001000001, event.event_id = event.ptp_ns = 9;  // No change in six digits.
  EXPECT_EQ(outcome(), "-");
  std::string raised[4000];  // The conditions' messages; empty: not raised.
  const auto draw = [](size_t below) { return static_cast<size_t>(random()) % below; };
  for (int i = 0; i < 160'000; ++i) {  // They become many, few, and many again.
    const size_t number = draw(4000);
    const std::string key = std::string(number % 60, 'k') + std::to_string(number), message(draw(3) * 40 + 1, 'm');
    const bool clear = draw(8) < (i / 40'000 % 2 == 0 ? 1u : 7u);
    const std::string was = std::exchange(raised[number], clear ? "" : message);
    event.dedupe_key = key, event.message = message, event.action = clear ? "clear" : "update";
    ASSERT_EQ(outcome(), was.empty() ? (clear ? "-" : "raise") : clear ? "clear" : was == message ? "-" : "update");
  }
}

}  // namespace

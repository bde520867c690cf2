// Which events the state lets through to the sinks, and with which action.
#include <random>
#include <utility>

#include "core/oxEventState.h"
#include "host_fixture.h"

namespace {

struct StateTest : testing::Test {
  static constexpr const char* kSuppressed = "suppressed";

  // The action with which the event goes on.
  std::string Evaluate() {
    bool route = false;
    EXPECT_EQ(state.Evaluate(event, &out, &route), OXEVENT_OK);
    return std::string(route ? out.action : kSuppressed);
  }

  oxEventState state;
  oxEventNormalizedEvent event;
  oxEventNormalizedEvent out;
};

constexpr uint64_t kSecond = 1'000'000'000;  // ns.

TEST_F(StateTest, FollowsItsRules) {
  struct Step {
    const char* action;
    const char* key;
    uint64_t utc_ns;
    const char* sent;
  };
  const char* const no = kSuppressed;
  const uint64_t due = 1801 * kSecond;  // One repeat interval after the first second.
  const struct {
    const char* name;
    std::vector<Step> steps;
    bool oxEventConfig::*flipped = nullptr;  // The setting that is not at its default.
    uint32_t interval_sec = 1800;
  } rules[] = {
      {"a raise is sent once", {{"raise", "k", kSecond, "raise"}, {"raise", "k", due - 1, no}}},
      {"a late raise is a repeat", {{"raise", "k", kSecond, "raise"}, {"RAISE", "k", due, "repeat"}}},
      {"a repeat restarts the interval",
       {{"raise", "k", kSecond, "raise"}, {"raise", "k", due, "repeat"}, {"raise", "k", due + 1, no}}},
      {"a clock set back does not delay a repeat", {{"raise", "k", due, "raise"}, {"raise", "k", 5, "repeat"}}},
      {"a time of 0 is always due", {{"raise", "k", 0, "raise"}, {"raise", "k", 0, "repeat"}}},
      {"an update with news is sent", {{"raise", "k", kSecond, "raise"}, {"update", "k", kSecond, "update"}}},
      {"an update without news is not", {{"update", "k", kSecond, "raise"}, {"UPDATE", "k", due - 1, no}}},
      {"a late update is sent as it is", {{"update", "k", kSecond, "raise"}, {"Update", "k", due, "Update"}}},
      {"a repeat of an unknown condition is not sent", {{"repeat", "k", kSecond, no}, {"raise", "k", 2, "raise"}}},
      {"an early repeat is not sent", {{"raise", "k", kSecond, "raise"}, {"repeat", "k", due - 1, no}}},
      {"a late repeat is sent as it is", {{"raise", "k", kSecond, "raise"}, {"Repeat", "k", due, "Repeat"}}},
      {"a sent repeat counts as the last state",
       {{"raise", "k", kSecond, "raise"}, {"repeat", "k", due, "repeat"}, {"update", "k", due, "update"}}},
      {"a clear ends the condition",
       {{"raise", "k", 1, "raise"}, {"cleaR", "k", 2, "cleaR"}, {"raise", "k", 4, "raise"}}},
      {"without a key the source and the type name it",
       {{"raise", "", 1, "raise"}, {"raise", "s:t", 1, no}, {"clear", "s:t", 1, "clear"}, {"clear", "", 1, no}}},
      {"any other action passes", {{"raises", "k", 1, "raises"}, {"rais\xC5", "k", 1, "rais\xC5"}, {"", "k", 1, ""}}},
      {"an interval of 0 repeats each time", {{"raise", "k", 1, "raise"}, {"raise", "k", 1, "repeat"}}, nullptr, 0},
      {"the longest interval is exact",
       {{"raise", "k", 1, "raise"}, {"raise", "k", UINT32_MAX * kSecond, no}, {"raise", "k", UINT64_MAX, "repeat"}},
       nullptr,
       UINT32_MAX},
      {"switched off, everything passes",
       {{"raise", "k", 1, "raise"}, {"raise", "k", 1, "raise"}, {"repeat", "y", 1, "repeat"}},
       &oxEventConfig::state_enabled},
      {"without deduplication, everything passes",
       {{"raise", "k", 1, "raise"}, {"raise", "k", 1, "raise"}, {"repeat", "y", 1, "repeat"}},
       &oxEventConfig::dedupe_enabled},
      {"a clear that is not sent ends the condition",
       {{"raise", "k", 1, "raise"}, {"clear", "k", 1, no}, {"raise", "k", 1, "raise"}},
       &oxEventConfig::send_clear},
      {"an orphan clear is sent if configured",
       {{"clear", "y", 1, "clear"}, {"clear", "y", 1, "clear"}, {"repeat", "y", 1, no}},
       &oxEventConfig::route_orphan_clear}};
  event.source_id = "s";
  event.event_type = "t";
  for (const auto& rule : rules) {
    oxEventConfig config;
    config.default_repeat_interval_sec = rule.interval_sec;
    if (rule.flipped != nullptr) config.*rule.flipped = !(config.*rule.flipped);
    state.Reset();
    state.Configure(config);
    for (const Step& step : rule.steps) {
      event.action = step.action;
      event.dedupe_key = step.key;
      event.utc_ns = step.utc_ns;
      EXPECT_EQ(Evaluate(), step.sent) << rule.name << ": " << step.action << " at " << step.utc_ns;
    }
  }
}

TEST_F(StateTest, RefusesNullResults) {
  bool route = false;
  EXPECT_EQ(state.Evaluate(event, nullptr, &route), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(state.Evaluate(event, &out, nullptr), OXEVENT_INVALID_ARGUMENT);
}

TEST_F(StateTest, KeepsConditionsWhenItsSettingsChange) {
  event.action = "raise";
  event.utc_ns = 1;
  EXPECT_EQ(Evaluate(), "raise");
  state.Configure(oxEventConfig());
  EXPECT_EQ(Evaluate(), kSuppressed);
}

TEST_F(StateTest, ComparesEveryFieldButTheIdAndTheTimes) {
  event.action = "update";
  event.dedupe_key = "k";
  event.utc_ns = 1;
  EXPECT_EQ(Evaluate(), "raise");
  const auto expect_update_once = [&](const char* field) {
    EXPECT_EQ(Evaluate(), "update") << field;
    EXPECT_EQ(Evaluate(), kSuppressed) << field;
  };
  const std::pair<const char*, std::string_view oxEventNormalizedEvent::*> texts[] = {
      {"event_type", &oxEventNormalizedEvent::event_type},
      {"source_id", &oxEventNormalizedEvent::source_id},
      {"source_name", &oxEventNormalizedEvent::source_name},
      {"message", &oxEventNormalizedEvent::message},
      {"timecode", &oxEventNormalizedEvent::timecode},
      {"units", &oxEventNormalizedEvent::units},
      {"correlation_id", &oxEventNormalizedEvent::correlation_id},
      {"details_json", &oxEventNormalizedEvent::details_json}};
  for (const auto& [name, text] : texts) {
    event.*text = "x";
    expect_update_once(name);
  }
  event.severity = 3;
  expect_update_once("severity");
  event.pts = -1;
  expect_update_once("pts");
  event.duration_ms = 1;
  expect_update_once("duration_ms");
  event.value = -0.0;
  expect_update_once("value");
  event.threshold = 1.00001;
  expect_update_once("threshold");
  event.threshold = 1.00001000001;  // No change in six digits.
  event.event_id = 9;
  event.ptp_ns = 9;
  EXPECT_EQ(Evaluate(), kSuppressed);
}

// Compares with a plain array while the number of conditions grows, shrinks and grows again.
TEST_F(StateTest, FindsEachOfThousandsOfConditions) {
  std::mt19937_64 random(1);
  const auto draw = [&](size_t below) { return static_cast<size_t>(random()) % below; };
  std::vector<std::string> raised(4000);  // The message of each condition; empty: not raised.
  event.utc_ns = 1;
  for (int i = 0; i < 160'000; ++i) {
    const size_t number = draw(raised.size());
    const std::string key = std::string(number % 60, 'k') + std::to_string(number);
    const std::string message(draw(3) * 40 + 1, 'm');
    const bool clear = draw(8) < (i / 40'000 % 2 == 0 ? 1u : 7u);
    const std::string before = std::exchange(raised[number], clear ? "" : message);
    event.dedupe_key = key;
    event.message = message;
    event.action = clear ? "clear" : "update";
    const char* const unraised = clear ? kSuppressed : "raise";
    const char* const changed = clear ? "clear" : before == message ? kSuppressed : "update";
    ASSERT_EQ(Evaluate(), before.empty() ? unraised : changed);
  }
}

}  // namespace

// Which events the state lets through to the sinks, and with which action.
#include <random>
#include <utility>

#include "core/oxEventState.h"
#include "host_fixture.h"

namespace {

struct StateTest : testing::Test {
  static constexpr const char* kSuppressed = "suppressed";

  // Returns the action with which the event goes on to the sinks, or kSuppressed.
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
  const uint64_t due = 1 + kSecond;  // One repeat interval after the first step.
  const struct {
    const char* name;
    std::vector<Step> steps;
    bool oxEventConfig::*flipped = nullptr;  // The setting that is not at its default.
    uint32_t interval_sec = 1;
  } rules[] = {
      {"a raise is sent once per interval",
       {{"raise", "k", 1, "raise"},
        {"raise", "k", due - 1, no},
        {"RAISE", "k", due, "repeat"},
        {"raise", "k", due + 1, no}}},
      {"a clock set back does not delay a repeat", {{"raise", "k", due, "raise"}, {"raise", "k", 5, "repeat"}}},
      {"a time of 0 is always due", {{"raise", "k", 0, "raise"}, {"raise", "k", 0, "repeat"}}},
      {"an update that differs is sent", {{"raise", "k", 1, "raise"}, {"update", "k", 1, "update"}}},
      {"an update that does not differ is sent once per interval",
       {{"update", "k", 1, "raise"}, {"UPDATE", "k", due - 1, no}, {"Update", "k", due, "Update"}}},
      {"a repeat of a condition that is not raised is not sent", {{"repeat", "k", 1, no}, {"raise", "k", 2, "raise"}}},
      {"a repeat is sent unchanged once it is due",
       {{"raise", "k", 1, "raise"}, {"repeat", "k", due - 1, no}, {"Repeat", "k", due, "Repeat"}}},
      {"a clear ends the condition",
       {{"raise", "k", 1, "raise"}, {"cleaR", "k", 2, "cleaR"}, {"raise", "k", 4, "raise"}}},
      {"without a key, source and type identify the condition",
       {{"raise", "", 1, "raise"}, {"raise", "s:t", 1, no}, {"clear", "s:t", 1, "clear"}, {"clear", "", 1, no}}},
      {"any other action passes",
       {{"repeats", "k", 1, "repeats"},
        {"sepeat", "k", 1, "sepeat"},
        {"repea\xD4", "k", 1, "repea\xD4"},
        {"", "k", 1, ""}}},
      {"an interval of 0 repeats each time", {{"raise", "k", 1, "raise"}, {"raise", "k", 1, "repeat"}}, nullptr, 0},
      {"the longest interval is exact",
       {{"raise", "k", 1, "raise"}, {"raise", "k", UINT32_MAX * kSecond, no}, {"raise", "k", UINT64_MAX, "repeat"}},
       nullptr,
       UINT32_MAX},
      {"with the state off, everything passes", {{"repeat", "k", 1, "repeat"}}, &oxEventConfig::state_enabled},
      {"without deduplication, everything passes", {{"repeat", "k", 1, "repeat"}}, &oxEventConfig::dedupe_enabled},
      {"a clear that is not sent ends the condition",
       {{"raise", "k", 1, "raise"}, {"clear", "k", 1, no}, {"raise", "k", 1, "raise"}},
       &oxEventConfig::send_clear},
      {"an orphan clear is sent if configured", {{"clear", "k", 1, "clear"}}, &oxEventConfig::route_orphan_clear}};
  event.source_id = "s";
  event.event_type = "t";
  for (const auto& rule : rules) {
    oxEventConfig config;
    config.default_repeat_interval_sec = rule.interval_sec;
    if (rule.flipped != nullptr) config.*rule.flipped = !(config.*rule.flipped);
    state.Reset();
    for (const Step& step : rule.steps) {
      state.Configure(config);  // As a reload does, which keeps the conditions.
      event.action = step.action;
      event.dedupe_key = step.key;
      event.utc_ns = step.utc_ns;
      EXPECT_EQ(Evaluate(), step.sent) << rule.name << ": " << step.action << " at " << step.utc_ns;
    }
  }
}

TEST_F(StateTest, ComparesEveryFieldButTheIdAndTheTimes) {
  event.action = "update";
  event.dedupe_key = "k";
  event.utc_ns = 1;
  EXPECT_EQ(Evaluate(), "raise");
  const struct {
    const char* field;
    std::function<void()> change;
  } changes[] = {{"event_type", [&] { event.event_type = "x"; }},
                 {"source_id", [&] { event.source_id = "x"; }},
                 {"source_name", [&] { event.source_name = "x"; }},
                 {"message", [&] { event.message = "x"; }},
                 {"severity", [&] { event.severity = 3; }},
                 {"correlation_id", [&] { event.correlation_id = "x"; }},
                 {"pts", [&] { event.pts = -1; }},
                 {"timecode", [&] { event.timecode = "x"; }},
                 {"value", [&] { event.value = -0.0; }},
                 {"threshold", [&] { event.threshold = 1; }},
                 {"threshold in six digits", [&] { event.threshold = 1.00001; }},
                 {"units", [&] { event.units = "x"; }},
                 {"duration_ms", [&] { event.duration_ms = 1; }},
                 {"details_json", [&] { event.details_json = "x"; }}};
  for (const auto& [field, change] : changes) {
    change();
    EXPECT_EQ(Evaluate(), "update") << field;
    EXPECT_EQ(Evaluate(), kSuppressed) << field;
  }
  EXPECT_EQ(event.TextBytes(), 15u);  // Nine strings of one character, and "update".
  event.threshold = 1.0000149;        // No change in six digits.
  event.event_id = 9;
  event.ptp_ns = 9;
  EXPECT_EQ(Evaluate(), kSuppressed);
}

// Compares with a plain array while the number of conditions grows and shrinks, twice.
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
    const char* const if_not_raised = clear ? kSuppressed : "raise";
    const char* const if_raised = clear ? "clear" : before == message ? kSuppressed : "update";
    ASSERT_EQ(Evaluate(), before.empty() ? if_not_raised : if_raised);
  }
}

}  // namespace

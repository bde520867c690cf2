// oxEvent/chatter.hpp: when a value raises and clears its alarm. Times are in seconds.
#include "../include/oxEvent/chatter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace {

using oxEvent::AlarmChange;
using oxEvent::LimitAlarm;
using oxEvent::LimitAlarmConfig;
using std::chrono::seconds;

// Passes values like "0:101 9:99 20:same", each with its time; "same" is NaN, which counts as the previous value.
// Returns the changes, like "0:raise 9:clear ".
std::string Changes(LimitAlarm* alarm, const std::string& values) {
  std::istringstream in(values);
  std::string changes;
  std::string value;
  char colon = 0;
  for (int time = 0; in >> time >> colon >> value;) {
    const AlarmChange change = alarm->Update(value == "same" ? NAN : std::stod(value), seconds(time));
    if (change == AlarmChange::kNothing) continue;
    changes += std::to_string(time) + (change == AlarmChange::kRaise ? ":raise " : ":clear ");
  }
  return changes;
}

TEST(oxEventLimitAlarm, FollowsItsConfiguration) {
  const LimitAlarmConfig low = {.type = LimitAlarmConfig::Limit::kLow, .limit = 100, .deadband = 5};
  const LimitAlarmConfig high = {.limit = 100, .deadband = 5};
  const LimitAlarmConfig delayed = {.limit = 100, .on_delay = seconds(10), .off_delay = seconds(20)};
  const LimitAlarmConfig chattering = {.limit = 100, .chatter_count = 3};  // Three in a minute, the usual criterion.
  const struct {
    const char* rule;
    LimitAlarmConfig config;
    const char *values, *changes;
  } cases[] = {{"the deadband of a high limit", high, "0:100 1:100.1 2:95.1 3:101 4:95 5:99", "1:raise 4:clear "},
               {"the deadband of a low limit", low, "0:100 1:99.9 2:104.9 3:105 4:101", "1:raise 3:clear "},
               {"an interruption of the on-delay", delayed, "0:101 9:101 10:99 20:101 29:101 30:101", "30:raise "},
               {"an interruption of the off-delay", delayed, "0:101 10:same 40:99 59:99 60:101 61:99 80:99 81:same",
                "10:raise 81:clear "},
               {"a clock that is set back", delayed, "100:same 50:101 60:101 109:same 110:same 50:99 130:same",
                "110:raise 130:clear "},
               {"the third raise after a minute", chattering, "0:101 10:99 30:101 40:99 60:101 65:99",
                "0:raise 10:clear 30:raise 40:clear 60:raise 65:clear "},
               {"chattering ends after a minute without a change", chattering,
                "0:101 10:99 30:101 40:99 59:101 75:99 134:101 140:99 199:99 200:same 210:101 211:99",
                "0:raise 10:clear 30:raise 40:clear 59:raise 200:clear 210:raise 211:clear "}};
  for (const auto& c : cases) {
    LimitAlarm alarm(c.config);
    EXPECT_EQ(Changes(&alarm, c.values), c.changes) << c.rule;
  }
}

TEST(oxEventLimitAlarm, WithholdsTheRaiseOfAShelvedAlarm) {
  LimitAlarm alarm({.limit = 100});
  ASSERT_TRUE(alarm.TimedShelve(seconds(60), seconds(0)));
  EXPECT_EQ(Changes(&alarm, "1:101 2:99 3:101"), "");
  EXPECT_TRUE(alarm.IsActive());
  EXPECT_EQ(alarm.Poll(seconds(59)), AlarmChange::kNothing);
  EXPECT_EQ(alarm.Poll(seconds(60)), AlarmChange::kRaise);
  ASSERT_TRUE(alarm.TimedShelve(seconds(60), seconds(70)));
  EXPECT_EQ(Changes(&alarm, "71:99 72:101"), "71:clear ");
  EXPECT_EQ(alarm.Unshelve(seconds(73)), AlarmChange::kRaise);
}

// The transitions of the ShelvedStateMachineType (OPC UA Part 9).
TEST(oxEventLimitAlarm, UnshelvesAfterTheMaximumTimeAtTheLatest) {
  LimitAlarm alarm({.limit = 100, .max_time_shelved = seconds(100)});
  EXPECT_FALSE(alarm.TimedShelve(seconds(101), seconds(0)));
  EXPECT_FALSE(alarm.TimedShelve(seconds(0), seconds(0)));
  EXPECT_FALSE(alarm.IsShelved());
  ASSERT_TRUE(alarm.OneShotShelve(seconds(0)));  // Unshelved to OneShotShelved.
  EXPECT_EQ(Changes(&alarm, "1:99 2:101 3:99 4:101 5:99"), "4:raise 5:clear ");
  ASSERT_TRUE(alarm.TimedShelve(seconds(10), seconds(10)));  // Unshelved to TimedShelved.
  ASSERT_TRUE(alarm.OneShotShelve(seconds(19)));             // TimedShelved to OneShotShelved.
  EXPECT_EQ(Changes(&alarm, "50:101"), "");
  ASSERT_TRUE(alarm.TimedShelve(seconds(100), seconds(60)));  // OneShotShelved to TimedShelved.
  EXPECT_EQ(Changes(&alarm, "109:same 110:same"), "110:raise ");
}

}  // namespace

// oxEvent/chatter.hpp: when a value raises and clears its alarm. Times are in seconds.
#include "../include/oxEvent/chatter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using oxEvent::LimitAlarm;
using oxEvent::LimitAlarmConfig;
using std::chrono::seconds;

constexpr auto kNothing = oxEvent::AlarmChange::kNothing;
constexpr auto kRaise = oxEvent::AlarmChange::kRaise;
constexpr auto kClear = oxEvent::AlarmChange::kClear;

struct Step {
  int time;
  double value;
  oxEvent::AlarmChange expected;
};

void ExpectSteps(LimitAlarm* alarm, const std::vector<Step>& steps) {
  for (const Step& step : steps) {
    EXPECT_EQ(alarm->Update(step.value, seconds(step.time)), step.expected) << "at " << step.time;
  }
}

struct oxEventLimitAlarm : testing::Test {
  oxEventLimitAlarm() { config.limit = 100; }

  LimitAlarmConfig config;
};

TEST_F(oxEventLimitAlarm, ReturnsToNormalOnlyBeyondTheDeadband) {
  config.deadband = 5;
  LimitAlarm high(config);
  ExpectSteps(&high, {{0, 100, kNothing},
                      {1, 100.1, kRaise},
                      {2, 95.1, kNothing},
                      {3, 101, kNothing},
                      {4, 95, kClear},
                      {5, 99, kNothing}});
  config.type = LimitAlarmConfig::Limit::kLow;
  LimitAlarm low(config);
  ExpectSteps(&low,
              {{0, 100, kNothing}, {1, 99.9, kRaise}, {2, 104.9, kNothing}, {3, 105, kClear}, {4, 101, kNothing}});
}

TEST_F(oxEventLimitAlarm, WaitsForTheDelaysWithoutInterruption) {
  config.on_delay = seconds(10);
  config.off_delay = seconds(20);
  LimitAlarm alarm(config);
  ExpectSteps(&alarm, {{0, 101, kNothing}, {9, 101, kNothing}, {10, 99, kNothing}});  // A fleeting alarm.
  ExpectSteps(&alarm, {{20, 101, kNothing}, {29, 101, kNothing}, {30, 101, kRaise}});
  ExpectSteps(&alarm, {{40, 99, kNothing}, {59, 99, kNothing}, {60, 101, kNothing}, {61, 99, kNothing}});
  EXPECT_EQ(alarm.Poll(seconds(80)), kNothing);
  EXPECT_EQ(alarm.Poll(seconds(81)), kClear);
}

TEST_F(oxEventLimitAlarm, IgnoresValuesThatAreNotNumbersAndAClockThatIsSetBack) {
  config.on_delay = seconds(10);
  LimitAlarm alarm(config);
  ExpectSteps(&alarm, {{100, NAN, kNothing}, {50, 101, kNothing}, {60, 101, kNothing}, {110, NAN, kRaise}});
  ExpectSteps(&alarm, {{111, NAN, kNothing}, {50, 99, kClear}});
}

// Three in a minute, the usual criterion for a chattering alarm.
TEST_F(oxEventLimitAlarm, HoldsAChatteringAlarmUntilTheValueIsStable) {
  config.chatter_count = 3;
  LimitAlarm alarm(config);
  ExpectSteps(&alarm, {{0, 101, kRaise}, {10, 99, kClear}, {30, 101, kRaise}, {40, 99, kClear}, {60, 101, kRaise}});
  EXPECT_FALSE(alarm.IsChattering());  // The first and the third are a minute apart.
  ExpectSteps(&alarm, {{65, 99, kClear}, {70, 101, kRaise}});
  EXPECT_TRUE(alarm.IsChattering());
  ExpectSteps(&alarm, {{75, 99, kNothing}, {134, 101, kNothing}, {140, 99, kNothing}, {199, 99, kNothing}});
  EXPECT_EQ(alarm.Poll(seconds(200)), kClear);
  ExpectSteps(&alarm, {{210, 101, kRaise}, {211, 99, kClear}});
}

TEST_F(oxEventLimitAlarm, WithholdsTheRaiseOfAShelvedAlarm) {
  LimitAlarm alarm(config);
  ASSERT_TRUE(alarm.TimedShelve(seconds(60), seconds(0)));
  ExpectSteps(&alarm, {{1, 101, kNothing}, {2, 99, kNothing}, {3, 101, kNothing}});
  EXPECT_TRUE(alarm.IsActive());
  EXPECT_EQ(alarm.Poll(seconds(59)), kNothing);
  EXPECT_EQ(alarm.Poll(seconds(60)), kRaise);
  ASSERT_TRUE(alarm.TimedShelve(seconds(60), seconds(70)));
  ExpectSteps(&alarm, {{71, 99, kClear}, {72, 101, kNothing}});
  EXPECT_EQ(alarm.Unshelve(seconds(73)), kRaise);
}

// The transitions of the ShelvedStateMachineType (OPC UA Part 9).
TEST_F(oxEventLimitAlarm, UnshelvesAfterTheMaximumTimeAtTheLatest) {
  config.max_time_shelved = seconds(100);
  LimitAlarm alarm(config);
  EXPECT_FALSE(alarm.TimedShelve(seconds(101), seconds(0)));
  EXPECT_FALSE(alarm.TimedShelve(seconds(0), seconds(0)));
  EXPECT_FALSE(alarm.IsShelved());
  ASSERT_TRUE(alarm.OneShotShelve(seconds(0)));  // Unshelved to OneShotShelved.
  ExpectSteps(&alarm, {{1, 99, kNothing}, {2, 101, kNothing}, {3, 99, kNothing}, {4, 101, kRaise}, {5, 99, kClear}});
  ASSERT_TRUE(alarm.TimedShelve(seconds(10), seconds(10)));  // Unshelved to TimedShelved.
  ASSERT_TRUE(alarm.OneShotShelve(seconds(19)));             // TimedShelved to OneShotShelved.
  EXPECT_EQ(alarm.Update(101, seconds(50)), kNothing);
  ASSERT_TRUE(alarm.TimedShelve(seconds(100), seconds(60)));  // OneShotShelved to TimedShelved.
  EXPECT_EQ(alarm.Poll(seconds(109)), kNothing);
  EXPECT_EQ(alarm.Poll(seconds(110)), kRaise);
}

}  // namespace

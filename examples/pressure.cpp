// A measured value and its alarm: oxevent-pressure SETTINGS.xml < MEASUREMENTS
// Reads lines from standard input: a time in seconds and a pressure in bar. Reports that the pressure is low, without
// an alarm storm if it varies around its limit. Prints each event that is delivered.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <oxEvent.hpp>
#include <oxEvent/chatter.hpp>
#include <system_error>

namespace {

using oxEvent::AlarmChange;
using oxEvent::Event;

constexpr double kLimit = 4;

int Fail(const char* what, const std::error_code& error) {
  std::fprintf(stderr, "oxevent-pressure: %s: %s\n", what, oxEvent::ErrorText(error).c_str());
  return 1;
}

// Runs on the library's worker thread.
void Print(const oxEventRecord& event) {
  std::printf("%s: %s, %g %s\n", event.action, event.message, event.value, event.units);
}

oxEvent::LimitAlarm MakeAlarm() {
  oxEvent::LimitAlarmConfig config;
  config.type = oxEvent::LimitAlarmConfig::Limit::kLow;
  config.limit = kLimit;
  config.deadband = 0.2;
  config.on_delay = std::chrono::seconds(5);
  config.off_delay = std::chrono::seconds(5);
  config.chatter_count = 3;
  config.chatter_period = std::chrono::minutes(1);
  return oxEvent::LimitAlarm(config);
}

oxEvent::Condition MakeCondition() {
  return oxEvent::Condition(Event()
                                .severity(oxEvent::Severity::kError)
                                .event_type("pressure.low")
                                .source_id("press-4")
                                .source_name("Press 4")
                                .threshold(kLimit)
                                .units("bar"));
}

std::error_code Report(AlarmChange change, bool chattering, double pressure, oxEvent::Condition* condition) {
  switch (change) {
    case AlarmChange::kRaise:
      return condition->Raise(Event(chattering ? "Pressure low, chattering" : "Pressure low").value(pressure));
    case AlarmChange::kClear:
      return condition->Clear(Event("Pressure is back").value(pressure));
    case AlarmChange::kNothing:
      break;
  }
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("Usage: oxevent-pressure SETTINGS.xml < MEASUREMENTS\n", stderr);
    return 2;
  }
  std::error_code error;
  const oxEvent::Callback callback(Print, error);
  if (error) return Fail("register", error);
  oxEvent::Session session(argv[1], error);
  if (error) return Fail("initialize", error);

  oxEvent::LimitAlarm alarm = MakeAlarm();
  oxEvent::Condition condition = MakeCondition();
  double pressure = 0;
  for (unsigned second = 0; std::cin >> second >> pressure;) {
    const AlarmChange change = alarm.Update(pressure, std::chrono::seconds(second));
    error = Report(change, alarm.IsChattering(), pressure, &condition);
    if (error) return Fail("report", error);
  }
  error = session.Shutdown();
  return error ? Fail("shutdown", error) : 0;
}

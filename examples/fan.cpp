// A host in C++ with oxEvent.hpp: oxevent-fan SETTINGS.xml < SPEEDS
// Reads the speeds of a fan from standard input. The speed 0 raises a condition, another speed clears it. Prints each
// event that is delivered. Compiles in C++17, also without exceptions and run-time type information.
#include <cstdio>
#include <iostream>
#include <oxEvent.hpp>
#include <system_error>

namespace {

using oxEvent::Event;

int Fail(const char* what, const std::error_code& error) {
  std::fprintf(stderr, "oxevent-fan: %s: %s\n", what, oxEvent::ErrorText(error).c_str());
  return 1;
}

// Runs on the library's worker thread.
void Print(const oxEventRecord& event) {
  std::printf("%s %s, %g %s\n", event.action, event.message, event.value, event.units);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("Usage: oxevent-fan SETTINGS.xml < SPEEDS\n", stderr);
    return 2;
  }
  std::error_code error;
  const oxEvent::Callback callback(Print, error);
  if (error) return Fail("register", error);
  oxEvent::Session session(argv[1], error);
  if (error) return Fail("initialize", error);

  oxEvent::Condition stopped(Event()
                                 .severity(oxEvent::Severity::kWarning)
                                 .event_type("fan.stopped")
                                 .source_id("fan-2")
                                 .source_name("Fan 2")
                                 .units("1/min"));
  for (double speed = 0; std::cin >> speed;) {
    error = speed == 0 ? stopped.Raise(Event("Fan 2 stands still").location())
                       : stopped.Clear(Event("Fan 2 turns again").value(speed));
    if (error) return Fail("report", error);
  }
  error = session.Shutdown();
  return error ? Fail("shutdown", error) : 0;
}

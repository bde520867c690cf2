// oxEvent with the CSV sink and a callback, deduplication enabled.
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "end_to_end.h"

namespace {

void Check(uint32_t result, const char* what) {
  if (result == OXEVENT_OK) return;
  char error[256];
  oxEventGetLastError(error, sizeof(error));
  fprintf(stderr, "%s: 0x%x %s\n", what, result, error);
  exit(1);
}

void Start(const std::string& directory, uint32_t queue_size) {
  const std::string settings = directory + "/settings.xml";
  std::ofstream(settings) << R"(<config><key name="QVX"><key name="Events">
    <key name="core"><value name="queue_size">)"
                          << queue_size << R"(</value></key>
    <key name="sink">
      <key name="csv"><key name="default"><value name="enabled">1</value>
        <value name="path">)"
                          << directory << R"(/events.csv</value></key></key>
      <key name="native"><key name="main"><value name="enabled">0</value></key></key>
    </key></key></key></config>)";
  Check(oxEventInitialize(settings.c_str()), "oxEventInitialize");
  uint32_t id = 0;
  const auto callback = [](const oxEventRecord* event, void*) { Delivered(event->event_id); };
  Check(oxEventRegisterCallback(callback, nullptr, &id), "oxEventRegisterCallback");
}

void Submit(const oxEventRecord& record) { Check(oxEventSubmit(&record), "oxEventSubmit"); }

void Drain() { Check(oxEventFlush(0), "oxEventFlush"); }

void Stop() { Check(oxEventShutdown(), "oxEventShutdown"); }

}  // namespace

const Logger kLogger = {true, Start, Submit, Drain, Stop};

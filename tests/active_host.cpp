// A host for active_test.py: reports the conditions in a file, until it is killed or the file ends with "stop".
// active_host SETTINGS TRUTH CONDITIONS URL   Each line of TRUTH is "SOURCE SEVERITY".
#include <cstdio>
#include <fstream>
#include <map>
#include <string>
#include <thread>

#include "../include/oxEvent.hpp"
#include "../include/oxEvent/active_file.hpp"
#include "../include/oxEvent/alert_poster.h"

namespace {

using Conditions = std::map<std::string, std::uint32_t>;

void Submit(const char* action, const std::string& source, std::uint32_t severity) {
  const auto level = static_cast<oxEvent::Severity>(severity);
  if (oxEvent::Event("m").event_type("test").action(action).source_id(source).severity(level).Submit()) std::exit(1);
}

// Returns false if the host is to stop.
bool Report(const char* truth, Conditions* reported) {
  Conditions now;
  std::ifstream file(truth);
  std::string source;
  for (std::uint32_t severity = 0; file >> source && source != "stop" && file >> severity;) now[source] = severity;
  for (const auto& [one, severity] : now) {
    if (reported->count(one) == 0 || reported->at(one) != severity) Submit("update", one, severity);
  }
  for (const auto& one : *reported) {
    if (now.count(one.first) == 0) Submit("clear", one.first, OXEVENT_SEVERITY_INFO);
  }
  *reported = now;
  return source != "stop";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  std::error_code error;
  oxEvent::ActiveFile::Options options;
  options.grace = std::chrono::milliseconds(100);
  oxEvent::ActiveFile conditions(argv[3], options, error);
  oxEventAlertPosterConfig config = {};
  config.struct_size = sizeof(config);
  config.url = argv[4];
  config.repeat_interval_ms = 100;
  const oxEvent::AlertPoster poster(config);
  if (error || poster.Result() != OXEVENT_OK || oxEventInitialize(argv[1]) != OXEVENT_OK) return 1;
  std::puts("running");
  std::fflush(stdout);
  for (Conditions reported; Report(argv[2], &reported);) {
    conditions.Poll();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return oxEventShutdown() == OXEVENT_OK ? 0 : 1;
}

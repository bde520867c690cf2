#include "send/options.h"

#include <cstring>

#include "send/fields.h"
#include "send/json.h"

namespace {

constexpr char kUsageText[] = R"(Usage: oxevent-send [OPTION]... SETTINGS MESSAGE
       oxevent-send [OPTION]... SETTINGS --json
Reports an event through the sinks that the settings file SETTINGS enables, waits for its delivery
and tells what became of it. The file has to exist and may be empty: as always, the library completes
it with the settings that it lacks.
)";

constexpr char kNotes[] = R"(
With --json, or - in the place of MESSAGE, each line of standard input is an event: a JSON object whose
members are named as the fields of oxEventRecord, as in the documents that the webhook sink sends:
  {"message": "Fan 2 stands still", "severity": "warning", "source_id": "fan-2", "value": 0}
severity is a name or a number, utc_ns a number or an RFC 3339 time, details_json a text, an object or
an array. null counts as not given. The options above, and MESSAGE, hold for every line that does not
say otherwise. Empty lines are passed over. A line that is refused is named with its number and column;
the others go out.

Without --rate events are reported as fast as they are delivered, and none is lost to a full queue.
With it they keep their time, and a full queue drops by its drop_policy.

Which conditions are raised is known to one run alone, and each begins with none: a raise goes out, a
second one in the same run is suppressed as a duplicate for state\default_repeat_interval_sec, and a
clear is suppressed unless its raise was in the same run or state\route_orphan_clear is on.

What was sent by UDP or handed to the system log need not have arrived: neither tells. The Alertmanager
sink sends nothing itself. A CSV file whose writes hang, as a pipe that nobody reads, can hold the tool
up whatever --wait says.

SIGHUP, SIGINT and SIGTERM end the reporting; what is queued is delivered, and the process ends by the
signal. A second one ends it at once.

Exit status:
  0  every event went out, and every sink that it concerned took it
  1  an event was refused, dropped or suppressed, concerned no sink, or a sink failed; stderr says what
  2  the command line cannot be followed, or the library did not start
)";

}  // namespace

Tool DescribeTool(Options* options) {
  std::vector<Option> list;
  for (const Field& field : g_fields) {
    if (field.option == nullptr) continue;
    list.push_back({field.option, field.argument, field.help,
                    [&field, options](const char* value) { SetField(field, value, &options->record); }});
  }
  list[0].heading = "Fields of the event";
  list.push_back({"json", nullptr, "read events from standard input, one JSON object a line",
                  [options](const char*) { options->json = true; }, "Reporting"});
  list.push_back({"count", "N", "report the event N times (default 1)",
                  [options](const char* value) { options->count = NumberFrom<uint64_t>(value, 1); }});
  list.push_back({"rate", "PER_SECOND", "report so many events a second",
                  [options](const char* value) { options->rate = NumberFrom<double>(value, 0.001, 1e6); }});
  list.push_back({"wait", "SECONDS",
                  "give up when nothing was delivered for so long (default 60,\n"
                  "0: never)",
                  [options](const char* value) { options->wait_s = NumberFrom<uint32_t>(value); }});
  list.push_back({"quiet", nullptr, "print only what went wrong", [options](const char*) { options->quiet = true; }});
  return {"oxevent-send", kUsageText, kNotes, std::move(list)};
}

void TakeArguments(const std::vector<const char*>& arguments, Options* options) {
  if (arguments.empty()) throw UsageError("SETTINGS is missing; see oxevent-send --help");
  options->settings = arguments[0];
  if (arguments.size() > 2) {
    throw UsageError("'" + std::string(arguments[2]) + "' is one argument too many: SETTINGS is '" + arguments[0] +
                     "', MESSAGE is '" + arguments[1] + "'");
  }
  const char* const message = arguments.size() == 2 ? arguments[1] : nullptr;
  if (message != nullptr && std::strcmp(message, "-") == 0) {
    options->json = true;
  } else {
    options->record.message = message;
  }
  if (message != nullptr && message[0] == '\0') throw UsageError("MESSAGE is empty");
  if (!options->json && message == nullptr) throw UsageError("MESSAGE is missing; see oxevent-send --help");
  if (options->json && options->count != 0) throw UsageError("--count: not with events from standard input");
}

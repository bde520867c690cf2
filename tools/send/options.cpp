#include "send/options.h"

#include <cstring>

#include "send/fields.h"
#include "send/json.h"

namespace {

constexpr char kUsageText[] = R"(Usage: oxevent-send [OPTION]... SETTINGS MESSAGE
       oxevent-send [OPTION]... SETTINGS --json
Reports an event through the sinks that the settings file SETTINGS enables, waits for its delivery
and prints the result. The file must exist but may be empty: the library adds missing settings.
)";

constexpr char kNotes[] = R"(
With --json, or - instead of MESSAGE, each line of standard input is an event: a JSON object whose
members are named like the fields of oxEventRecord, as in the documents that the webhook sink sends:
  {"message": "Fan 2 stands still", "severity": "warning", "source_id": "fan-2", "value": 0}
severity is a name or a number, utc_ns a number or an RFC 3339 time, details_json a string, an object
or an array. null means that the field is not given. The options for fields of the event, and
MESSAGE if it is given with --json, are the defaults for every line. Empty lines are ignored. A line
that is refused is reported with its number and column; the other lines are sent. A line that is
longer than 64 MiB is refused and ends the input.

Without --rate, events are reported as fast as they are delivered, and none is lost to a full queue.
With --rate, they are reported on time, and a full queue drops events according to its drop_policy.

Conditions exist only within one run of the tool: a raise is sent, a second raise in the same run is
suppressed as a duplicate until state\default_repeat_interval_sec seconds after the last event sent
for the condition, and a clear is suppressed unless the condition was raised in the same run or
state\route_orphan_clear is on.

UDP and the system log do not confirm that an event has arrived. The Alertmanager sink sends nothing
itself: an event that no other sink accepts counts as sent to no sink. If writing to a CSV file
blocks, as with a pipe that no process reads, the tool can hang longer than --wait allows.

SIGHUP, SIGINT and SIGTERM stop the reporting: the tool delivers the queued events, and the signal
then ends it. A second signal of the same kind ends it immediately.

Exit status:
  0  every event was sent, and every sink whose minimum severity it meets accepted it
  1  an event was refused, dropped, suppressed or sent to no sink, a sink failed, or the output could
     not be written; see stderr
  2  invalid command line, or the library did not start
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
  list.push_back({"json", nullptr, "read events from standard input, one JSON object per line",
                  [options](const char*) { options->json = true; }, "Reporting"});
  list.push_back({"count", "N", "report the event N times (default 1)",
                  [options](const char* value) { options->count = ParseNumber<uint64_t>(value, 1); }});
  list.push_back({"rate", "PER_SECOND", "report this many events per second",
                  [options](const char* value) { options->rate = ParseNumber<double>(value, 0.001, 1e6); }});
  list.push_back({"wait", "SECONDS",
                  "give up when nothing has been delivered for this long (default 60,\n"
                  "0: never)",
                  [options](const char* value) { options->wait_s = ParseNumber<uint32_t>(value); }});
  list.push_back({"quiet", nullptr, "print only problems", [options](const char*) { options->quiet = true; }});
  return {"oxevent-send", kUsageText, kNotes, std::move(list)};
}

void ParseArguments(const std::vector<const char*>& arguments, Options* options) {
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
  if (options->json && options->count != 0)
    throw UsageError("--count: cannot be combined with events from standard input");
}

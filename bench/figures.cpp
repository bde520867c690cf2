// What an event costs on its way, section by section. For scripts/figures, which runs this under callgrind in a folder
// of its own: each section leaves a dump of callgrind's counts that carries its name, and a line on standard output:
// name, events, allocations. Nobody waits for a lock in a section, so that its counts are exact: the worker is held in
// a callback while the caller submits, and the caller rests while the worker delivers.
#include <netinet/in.h>
#include <sys/socket.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <semaphore>
#include <string>
#include <string_view>

#include "allocations.h"
#include "event.h"
#include "oxEvent.h"
#include "sinks/oxEventText.h"

// Stands before the companion's: a time that takes the same number of bytes in every trap.
extern "C" uint32_t oxOSGetMs() { return 0x40000000; }

namespace {

constexpr size_t kEvents = 1000;  // Of a section.
constexpr size_t kQueueSize = 2 * kEvents;
constexpr uint64_t kUsual = 1234567, kHold = 1, kLast = 2;  // Ids of events.

void Check(bool holds, const char* complaint) {
  if (holds) return;
  std::fprintf(stderr, "figures: %s\n", complaint);
  std::exit(1);
}

// What one thread does between Begin and End.
class Section {
 public:
  void Begin() {
    CALLGRIND_DUMP_STATS_AT("before");  // Zeroes the counts of system calls too, which go on all the time.
    allocations_ = t_allocations;
    CALLGRIND_TOGGLE_COLLECT;  // This thread's only.
  }
  void End() {
    CALLGRIND_TOGGLE_COLLECT;
    allocations_ = t_allocations - allocations_;
  }
  void Report(const char* name) const {
    CALLGRIND_DUMP_STATS_AT(name);
    ReportAllocations(name, kEvents);
  }
  void ReportAllocations(const char* name, size_t events) const {
    std::printf("%s %zu %zu\n", name, events, allocations_);
  }

 private:
  size_t allocations_ = 0;
};

// The worker's side.
struct Worker {
  std::binary_semaphore held{0}, go{0}, done{0};
  Section section;       // From the event that holds it to the last one.
  size_t delivered = 0;  // In the section.
} g_worker;

void OnEvent(const oxEventRecord* event, void* /*user_data*/) {
  if (event->event_id == kHold) {
    g_worker.held.release();
    g_worker.go.acquire();
    g_worker.delivered = 0;
    g_worker.section.Begin();
  } else if (event->event_id == kLast) {
    g_worker.section.End();
    g_worker.done.release();
  } else {
    ++g_worker.delivered;
  }
}

oxEventRecord UsualRecord() {
  oxEventRecord record = OrdinaryRecord();
  record.event_id = kUsual;
  record.utc_ns = 1700000000123456789;
  record.ptp_ns = 1700000037123456789;
  return record;
}

const std::string& LongestText() {
  static const std::string text(300, 'x');
  return text;
}

void Submit(const oxEventRecord& record) { Check(oxEventSubmit(&record) == OXEVENT_OK, "an event is refused"); }

// With texts as long as any, so that what it leaves to be used again will do for every event.
void SubmitMark(uint64_t id) {
  oxEventRecord record = UsualRecord();
  record.event_id = id;
  record.action = "";
  record.message = LongestText().c_str();
  record.dedupe_key = "rack-07/psu-2/temperature/sensor-00";
  Submit(record);
}

void Hold() {
  SubmitMark(kHold);
  g_worker.held.acquire();
}

void Flush() { Check(oxEventFlush(0) == OXEVENT_OK, "a flush fails"); }

void LetGo() {
  g_worker.go.release();
  g_worker.done.acquire();
  Flush();
}

// A port that takes datagrams and reads none.
uint16_t ReceiverPort() {
  static const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  const auto any = reinterpret_cast<sockaddr*>(&address);
  static const bool bound = bind(receiver, any, size) == 0;
  Check(bound && getsockname(receiver, any, &size) == 0, "no socket on loopback");
  return ntohs(address.sin_port);
}

// With the sinks that are named in `sinks`.
void Start(std::string_view sinks) {
  const auto enabled = [sinks](std::string_view name) {
    return std::string("<value name='enabled'>") + (sinks.find(name) == sinks.npos ? "0" : "1") + "</value>";
  };
  const std::string port = "<value name='port'>" + std::to_string(ReceiverPort()) + "</value>";
  std::ofstream("settings.xml") << "<config><key name='QVX'><key name='Events'>"
                                << "<key name='core'><value name='queue_size'>" << kQueueSize
                                << "</value></key><key name='sink'>"
                                << "<key name='csv'><key name='default'>" << enabled("csv")
                                << "<value name='path'>events.csv</value></key></key>"
                                << "<key name='syslog'><key name='udp'><key name='default'>" << enabled("syslog")
                                << port << "</key></key></key>"
                                << "<key name='native'><key name='main'>" << enabled("native") << "</key></key>"
                                << "<key name='snmp'><key name='trap'><key name='default'>" << enabled("snmp") << port
                                << "</key></key></key>"
                                << "<key name='alertmanager'><key name='main'>" << enabled("alertmanager")
                                << "</key></key>"
                                << "</key></key></key></config>\n";
  uint32_t id = 0;
  const uint32_t result = oxEventInitialize("settings.xml") | oxEventRegisterCallback(OnEvent, nullptr, &id);
  Check(result == OXEVENT_OK, "the library does not start");
  Check(t_allocations > 0, "allocations are not counted");
}

void Stop() { Check(oxEventShutdown() == OXEVENT_OK, "the shutdown fails"); }

// Of an event through the library.
struct Road {
  const char* submit;  // Name of the caller's section; null: not reported.
  const char* worker;  // Name of the worker's section.
  std::string_view sinks;
  const char* actions[2];  // On the one condition, in turn.
  size_t delivered;        // Of the section's events.
};

constexpr Road kRoads[] = {{"submit", "worker_callback", "", {"raise", "clear"}, kEvents},
                           {nullptr, "worker_update", "", {"update", "update"}, kEvents},
                           {nullptr, "worker_suppressed", "", {"raise", "raise"}, 0},
                           {nullptr, "worker_csv", "csv", {"raise", "clear"}, kEvents},
                           {nullptr, "worker_syslog", "syslog", {"raise", "clear"}, kEvents},
                           {nullptr, "worker_snmp", "snmp", {"raise", "clear"}, kEvents},
                           {nullptr, "worker_alertmanager", "alertmanager", {"raise", "clear"}, kEvents}};

void Travel(const Road& road, bool warm) {
  Section caller;
  oxEventRecord record = UsualRecord();
  Hold();
  caller.Begin();
  for (size_t i = 0; i < kEvents; ++i) {
    record.action = road.actions[i % 2];
    record.value = i % 2 == 0 ? 71.3 : 72.5;  // So that no update repeats the one before.
    Submit(record);
  }
  caller.End();
  if (warm && road.submit != nullptr) caller.Report(road.submit);
  SubmitMark(kLast);
  LetGo();
  if (!warm) return;
  g_worker.section.Report(road.worker);
  Check(g_worker.delivered == road.delivered, "other events are delivered than expected");
}

void MeasureRoads() {
  for (const Road& road : kRoads) {
    Start(road.sinks);
    Travel(road, false);
    Travel(road, false);
    Travel(road, true);
    Stop();
  }
}

// Of events that the caller loses.
void MeasureLosses() {
  const auto measure = [](const char* name, const oxEventRecord& record) {
    Section caller;
    caller.Begin();
    for (size_t i = 0; i < kEvents; ++i) Submit(record);
    caller.End();
    caller.Report(name);
  };
  Start("");
  oxEventRecord record = UsualRecord();
  record.action = "";
  Hold();
  SubmitMark(kLast);
  for (size_t i = 1; i < kQueueSize; ++i) Submit(record);
  measure("submit_dropped", record);
  record.severity = OXEVENT_SEVERITY_DEBUG;
  measure("submit_filtered", record);
  LetGo();
  Check(g_worker.delivered == kQueueSize - 1, "the events were not lost");
  Stop();
}

void MeasureDocument() {
  const oxEventRecord r = UsualRecord();
  const oxEventNormalizedEvent event = {r.event_id, r.event_type,  r.source_id,   r.source_name,    r.message,
                                        r.severity, r.action,      r.dedupe_key,  r.correlation_id, r.utc_ns,
                                        r.ptp_ns,   r.pts,         r.timecode,    r.value,          r.threshold,
                                        r.units,    r.duration_ms, r.details_json};
  std::string document;
  document.reserve(4096);
  Section section;
  section.Begin();
  for (size_t i = 0; i < kEvents; ++i) {
    document.clear();
    oxEventText::FormatNativeJsonData(event, &document);
  }
  section.End();
  section.Report("native_json");
}

// Five actions on each of fifty keys, every event followed by another. `lengths`: of the messages.
void SubmitCycle(size_t lengths) {
  constexpr const char* kSteps[] = {"raise", "raise", "update", "repeat", "clear"};
  static size_t sent = 0;
  oxEventRecord record = UsualRecord();
  for (size_t i = 0; i < 250; ++i) {
    char key[64];
    std::snprintf(key, sizeof(key), "rack-07/psu-2/temperature/sensor-%zu", 10 + i % 50);
    record.action = kSteps[i / 50];
    record.dedupe_key = key;
    record.message = LongestText().c_str() + sent++ * 7 % lengths;
    record.utc_ns = 1 + i / 150 * 4000000000000;  // Repeat and clear come after the repeat interval.
    record.value = i < 100 ? 71.3 : 72.5;
    Submit(record);
    const bool simple = lengths > 1;
    const uint32_t result = simple ? oxEventSubmitSimple(0, OXEVENT_SEVERITY_INFO, "Power supply 2", record.message)
                                   : oxEventSubmit(&record);
    Check(result == OXEVENT_OK, "an event is refused");
  }
}

// Allocations alone, since caller and worker run at the same time: all sinks, while the queue fills and empties,
// conditions come and go and texts vary in length.
void MeasureMixture() {
  constexpr size_t kRounds = 20;
  Start("csv syslog snmp alertmanager");
  for (int i = 0; i < 3; ++i) {  // Warms up with the longest texts and a deeper queue than ever later.
    Hold();
    SubmitCycle(1);
    SubmitCycle(1);
    SubmitMark(kLast);
    LetGo();
  }
  Section caller;
  Hold();
  caller.Begin();
  g_worker.go.release();
  for (size_t i = 0; i < kRounds; ++i) {
    SubmitCycle(250);
    Flush();
  }
  caller.End();
  SubmitMark(kLast);
  g_worker.done.acquire();
  caller.ReportAllocations("mixture_submit", kRounds * 500);
  g_worker.section.ReportAllocations("mixture_worker", kRounds * 500);
  Stop();
}

}  // namespace

int main() {
  MeasureRoads();
  MeasureLosses();
  MeasureDocument();
  MeasureMixture();
}

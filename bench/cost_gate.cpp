// Counts what an event costs in each section of its path. scripts/figures runs this under callgrind in an empty
// directory. Each section writes a callgrind dump with its name as the trigger, and a line to standard output: name,
// events, allocations. The counts are exact because no thread waits for a lock in a section: a callback blocks the
// worker while the caller submits, and the caller blocks while the worker delivers. Only in the mixed load do both run
// at the same time; its sections write no dump.
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

// Replaces liboxutil's clock with a constant, so that the sysUpTime of every trap takes the same number of bytes.
extern "C" uint32_t oxOSGetMs() { return 0x40000000; }

namespace {

constexpr size_t kEvents = 1000;  // Per section.
constexpr size_t kQueueSize = 2 * kEvents;
constexpr uint64_t kEventId = 1234567, kHoldId = 1, kEndId = 2;

void Check(bool condition, const char* failure) {
  if (condition) return;
  std::fprintf(stderr, "cost_gate: %s\n", failure);
  std::exit(1);
}

// Counts what one thread does between Begin and End.
class Section {
 public:
  void Begin() {
    CALLGRIND_DUMP_STATS_AT("before");  // Zeroes the system call counts, which ignore the toggle.
    allocations_ = t_allocations;
    CALLGRIND_TOGGLE_COLLECT;  // For the calling thread only.
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

struct Worker {
  std::binary_semaphore held{0}, resume{0}, done{0};
  Section section;       // From the hold event to the end event.
  size_t delivered = 0;  // Events in the section.
} g_worker;

void OnEvent(const oxEventRecord* event, void* /*user_data*/) {
  if (event->event_id == kHoldId) {
    g_worker.held.release();
    g_worker.resume.acquire();
    g_worker.delivered = 0;
    g_worker.section.Begin();
  } else if (event->event_id == kEndId) {
    g_worker.section.End();
    g_worker.done.release();
  } else {
    ++g_worker.delivered;
  }
}

oxEventRecord CompleteRecord() {
  oxEventRecord record = OrdinaryRecord();
  record.event_id = kEventId;
  record.utc_ns = 1700000000123456789;
  record.ptp_ns = 1700000037123456789;
  return record;
}

const std::string& LongestMessage() {
  static const std::string message(300, 'x');
  return message;
}

void Submit(const oxEventRecord& record) { Check(oxEventSubmit(&record) == OXEVENT_OK, "oxEventSubmit failed"); }

// Submits an event that begins or ends the worker's section. Its strings are the longest of all events, so that the
// buffers that it leaves for reuse fit every event.
void SubmitMarker(uint64_t id) {
  oxEventRecord record = CompleteRecord();
  record.event_id = id;
  record.action = "";
  record.message = LongestMessage().c_str();
  record.dedupe_key = "rack-07/psu-2/temperature/sensor-00";
  Submit(record);
}

void HoldWorker() {
  SubmitMarker(kHoldId);
  g_worker.held.acquire();
}

void Flush() { Check(oxEventFlush(0) == OXEVENT_OK, "oxEventFlush failed"); }

void ReleaseWorker() {
  g_worker.resume.release();
  g_worker.done.acquire();
  Flush();
}

// Returns the port of a UDP socket that nothing reads.
uint16_t ReceiverPort() {
  static const int receiver = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  const auto generic = reinterpret_cast<sockaddr*>(&address);
  static const bool bound = bind(receiver, generic, size) == 0;
  Check(bound && getsockname(receiver, generic, &size) == 0, "no UDP socket on the loopback interface");
  return ntohs(address.sin_port);
}

// Starts the library with the sinks named in `sinks`.
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
  Check(result == OXEVENT_OK, "oxEventInitialize or oxEventRegisterCallback failed");
  Check(t_allocations > 0, "allocations are not counted");
}

void Stop() { Check(oxEventShutdown() == OXEVENT_OK, "oxEventShutdown failed"); }

struct Scenario {
  const char* submit;  // Name of the caller's section; null: not reported.
  const char* worker;  // Name of the worker's section.
  std::string_view sinks;
  const char* actions[2];  // Alternating reports of one condition.
  size_t delivered;        // Expected number of events in the worker's section.
};

constexpr Scenario kScenarios[] = {{"submit", "worker_callback", "", {"raise", "clear"}, kEvents},
                                   {nullptr, "worker_update", "", {"update", "update"}, kEvents},
                                   {nullptr, "worker_suppressed", "", {"raise", "raise"}, 0},
                                   {nullptr, "worker_csv", "csv", {"raise", "clear"}, kEvents},
                                   {nullptr, "worker_syslog", "syslog", {"raise", "clear"}, kEvents},
                                   {nullptr, "worker_snmp", "snmp", {"raise", "clear"}, kEvents},
                                   {nullptr, "worker_alertmanager", "alertmanager", {"raise", "clear"}, kEvents}};

void RunScenario(const Scenario& scenario, bool report) {
  Section caller;
  oxEventRecord record = CompleteRecord();
  HoldWorker();
  caller.Begin();
  for (size_t i = 0; i < kEvents; ++i) {
    record.action = scenario.actions[i % 2];
    record.value = i % 2 == 0 ? 71.3 : 72.5;  // No update repeats the previous one.
    Submit(record);
  }
  caller.End();
  if (report && scenario.submit != nullptr) caller.Report(scenario.submit);
  SubmitMarker(kEndId);
  ReleaseWorker();
  if (!report) return;
  g_worker.section.Report(scenario.worker);
  Check(g_worker.delivered == scenario.delivered, "unexpected number of delivered events");
}

void MeasureScenarios() {
  for (const Scenario& scenario : kScenarios) {
    Start(scenario.sinks);
    for (const bool report : {false, false, true}) RunScenario(scenario, report);
    Stop();
  }
}

// Events with few fields.
void MeasureSmallEvents() {
  const auto measure = [](const char* name, auto submit) {
    for (const bool report : {false, true}) {
      Section caller;
      HoldWorker();
      caller.Begin();
      for (size_t i = 0; i < kEvents; ++i) submit();
      caller.End();
      if (report) caller.Report(name);
      SubmitMarker(kEndId);
      ReleaseWorker();
    }
  };
  oxEventRecord record = {};
  record.struct_size = sizeof(record);
  record.version = OXEVENT_API_VERSION;
  record.source_name = CompleteRecord().source_name;
  record.message = CompleteRecord().message;
  record.severity = OXEVENT_SEVERITY_WARNING;
  record.utc_ns = CompleteRecord().utc_ns;
  record.ptp_ns = CompleteRecord().ptp_ns;
  Start("");
  measure("submit_small", [&record] { Submit(record); });
  measure("submit_simple", [&record] {
    const uint32_t result = oxEventSubmitSimple(0, record.severity, record.source_name, record.message);
    Check(result == OXEVENT_OK, "oxEventSubmitSimple failed");
  });
  Stop();
}

// Events that Submit drops: the queue is full, or their severity is below the minimum.
void MeasureDrops() {
  const auto measure = [](const char* name, const oxEventRecord& record) {
    Section caller;
    caller.Begin();
    for (size_t i = 0; i < kEvents; ++i) Submit(record);
    caller.End();
    caller.Report(name);
  };
  Start("");
  oxEventRecord record = CompleteRecord();
  record.action = "";
  HoldWorker();
  SubmitMarker(kEndId);
  for (size_t i = 1; i < kQueueSize; ++i) Submit(record);
  measure("submit_dropped", record);
  record.severity = OXEVENT_SEVERITY_DEBUG;
  measure("submit_filtered", record);
  ReleaseWorker();
  Check(g_worker.delivered == kQueueSize - 1, "unexpected number of dropped events");
  Stop();
}

void MeasureDocuments() {
  const oxEventRecord r = CompleteRecord();
  const oxEventNormalizedEvent event = {r.event_id, r.event_type,  r.source_id,   r.source_name,    r.message,
                                        r.severity, r.action,      r.dedupe_key,  r.correlation_id, r.utc_ns,
                                        r.ptp_ns,   r.pts,         r.timecode,    r.value,          r.threshold,
                                        r.units,    r.duration_ms, r.details_json};
  std::string document;
  document.reserve(4096);
  const auto measure = [&document](const char* name, auto format) {
    Section section;
    section.Begin();
    for (size_t i = 0; i < kEvents; ++i) {
      document.clear();
      format(&document);
    }
    section.End();
    section.Report(name);
  };
  measure("native_json", [&event](auto* out) { oxEventText::FormatNativeJsonData(event, out); });
  measure("cloudevents_json",
          [&event](auto* out) { oxEventText::FormatCloudEventsJson(event, "/oxEvent", "racks/", out); });
}

// Reports each of 50 conditions with five actions, and submits a second event after each report. The messages have
// `lengths` different lengths. If that is 1, all messages are the longest one, and the second event repeats the first;
// otherwise the second event is submitted by oxEventSubmitSimple.
void SubmitCycle(size_t lengths) {
  constexpr const char* kActions[] = {"raise", "raise", "update", "repeat", "clear"};
  static size_t sent = 0;
  oxEventRecord record = CompleteRecord();
  for (size_t i = 0; i < 250; ++i) {
    char key[64];
    std::snprintf(key, sizeof(key), "rack-07/psu-2/temperature/sensor-%zu", 10 + i % 50);
    record.action = kActions[i / 50];
    record.dedupe_key = key;
    record.message = LongestMessage().c_str() + sent++ * 7 % lengths;
    record.utc_ns = 1 + i / 150 * 4000000000000;  // Repeat and clear follow after the repeat interval.
    record.value = i < 100 ? 71.3 : 72.5;
    Submit(record);
    const bool simple = lengths > 1;
    const uint32_t result = simple ? oxEventSubmitSimple(0, OXEVENT_SEVERITY_INFO, "Power supply 2", record.message)
                                   : oxEventSubmit(&record);
    Check(result == OXEVENT_OK, "oxEventSubmit failed");
  }
}

// Counts only allocations, because caller and worker run concurrently: with four sinks and the callback, while the
// queue fills and drains, conditions are raised and cleared, and message lengths vary.
void MeasureMixedLoad() {
  constexpr size_t kRounds = 20;
  Start("csv syslog snmp alertmanager");
  for (int i = 0; i < 3; ++i) {  // Warm-up: the longest messages, the deepest queue.
    HoldWorker();
    SubmitCycle(1);
    SubmitCycle(1);
    SubmitMarker(kEndId);
    ReleaseWorker();
  }
  Section caller;
  HoldWorker();
  caller.Begin();
  g_worker.resume.release();
  for (size_t i = 0; i < kRounds; ++i) {
    SubmitCycle(250);
    Flush();
  }
  caller.End();
  SubmitMarker(kEndId);
  g_worker.done.acquire();
  caller.ReportAllocations("mixed_submit", kRounds * 500);
  g_worker.section.ReportAllocations("mixed_worker", kRounds * 500);
  Stop();
}

}  // namespace

int main() {
  MeasureScenarios();
  MeasureSmallEvents();
  MeasureDrops();
  MeasureDocuments();
  MeasureMixedLoad();
}

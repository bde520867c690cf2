#include "stat/format.h"

#include <initializer_list>

#include "common/command_line.h"
#include "sinks/oxEventText.h"

namespace {

std::string Counted(uint64_t count, std::string_view what) { return std::to_string(count) + ' ' + std::string(what); }

std::string DescribeDrops(const oxEventDropCounts& drops) {
  std::string text;
  for (size_t i = 0; i < drops.size(); ++i) {
    if (drops[i] == 0) continue;
    text += (text.empty() ? "" : ", ") + Counted(drops[i], kOxEventDropTexts[i]);
  }
  return text.empty() ? "none" : text;
}

std::string DescribeSink(const SinkReading& sink) {
  std::string text = "  " + Printable(sink.section) + (sink.name.empty() ? "" : " " + Printable(sink.name)) + ": " +
                     Counted(sink.delivered, "delivered, ");
  if (sink.failures == 0) return text + "no failure\n";
  text += Counted(sink.failures, "failures, the last: ") + Printable(sink.last_error);
  return text + '\n';
}

std::string DescribeRun(const Reading& reading) {
  const oxEventCounters& c = reading.counters;
  return "counters: " + Counted(c.submitted, "submitted, ") + Counted(c.emitted, "emitted, ") +
         Counted(c.dropped, "dropped, ") + Counted(c.sink_failures, "sink failures, ") +
         Counted(c.sink_warnings, "sink warnings\n") + "dropped: " + DescribeDrops(c.drops_by_reason) +
         "\nqueue: " + Counted(reading.pending, "of ") + Counted(reading.capacity, "pending; ") +
         Counted(reading.active, "in delivery\nconditions: ") + Counted(reading.conditions, "raised\n");
}

std::string JsonString(std::string_view text) {
  std::string json;
  {
    oxEventWriter writer(&json);
    oxEventText::AddJsonString(ValidUtf8(text), &writer);
  }
  return json;
}

// Collects the members of a JSON object.
class JsonMembers {
 public:
  void Add(std::string_view name, const std::string& json) {
    text_ += (text_.empty() ? "" : ", ") + JsonString(name) + ": " + json;
  }
  void Add(std::string_view name, uint64_t number) { Add(name, std::to_string(number)); }
  std::string Object() const { return '{' + text_ + '}'; }

 private:
  std::string text_;
};

std::string SinkJson(const SinkReading& sink) {
  JsonMembers members;
  members.Add("section", JsonString(sink.section));
  members.Add("name", JsonString(sink.name));
  members.Add("delivered", sink.delivered);
  members.Add("failures", sink.failures);
  members.Add("last_error", sink.failures == 0 ? "null" : JsonString(sink.last_error));
  return members.Object();
}

std::string DropsJson(const oxEventDropCounts& drops) {
  JsonMembers members;
  for (size_t i = 0; i < drops.size(); ++i) members.Add(kOxEventDropTexts[i], drops[i]);
  return members.Object();
}

std::string QueueJson(const Reading& reading) {
  JsonMembers members;
  members.Add("pending", reading.pending);
  members.Add("in_delivery", reading.active);
  members.Add("capacity", reading.capacity);
  return members.Object();
}

std::string SinksJson(const std::vector<SinkReading>& sinks) {
  std::string json;
  for (const SinkReading& sink : sinks) json += (json.empty() ? "" : ", ") + SinkJson(sink);
  return '[' + json + ']';
}

// A label of a sample: name="value".
std::string Label(std::string_view name, std::string_view value) {
  std::string label = std::string(name) + "=\"";
  for (const char c : ValidUtf8(value)) {
    if (c == '\\' || c == '"') label += '\\';
    label += c == '\n' ? "\\n" : std::string(1, c);
  }
  return label + '"';
}

class Metrics {
 public:
  explicit Metrics(std::string_view process) : process_(Label("process", process)) {}

  // Begins a metric, to which Add adds samples.
  void Begin(const char* name, const char* type, const char* help) {
    name_ = name;
    text_ += "# HELP " + name_ + ' ' + help + "\n# TYPE " + name_ + ' ' + type + '\n';
  }
  void Add(uint64_t value, std::initializer_list<std::string> labels = {}) {
    text_ += name_ + '{' + process_;
    for (const std::string& label : labels) text_ += ',' + label;
    text_ += "} " + std::to_string(value) + '\n';
  }
  void AddSingle(const char* name, const char* type, const char* help, uint64_t value) {
    Begin(name, type, help);
    Add(value);
  }
  const std::string& Text() const { return text_; }

 private:
  const std::string process_;
  std::string name_;
  std::string text_;
};

constexpr char kCounter[] = "counter";
constexpr char kGauge[] = "gauge";

void AddCounters(const oxEventCounters& c, Metrics* metrics) {
  metrics->AddSingle("oxevent_events_submitted_total", kCounter, "Events that the host has reported in this run.",
                     c.submitted);
  metrics->AddSingle("oxevent_events_emitted_total", kCounter, "Events passed to the sinks.", c.emitted);
  metrics->Begin("oxevent_dropped_events_total", kCounter, "Events that were dropped, by reason.");
  for (size_t i = 0; i < c.drops_by_reason.size(); ++i)
    metrics->Add(c.drops_by_reason[i], {Label("reason", kOxEventDropTexts[i])});
  metrics->AddSingle("oxevent_delivery_failures_total", kCounter,
                     "Failed deliveries to sinks, and events that were not evaluated because there was no memory.",
                     c.sink_failures);
  metrics->AddSingle("oxevent_delivery_warnings_total", kCounter, "Warnings of sinks.", c.sink_warnings);
}

void AddGauges(const Reading& reading, Metrics* metrics) {
  metrics->AddSingle("oxevent_queue_events", kGauge, "Events in the queue.", reading.pending);
  metrics->AddSingle("oxevent_queue_capacity_events", kGauge, "Maximum number of events in the queue.",
                     reading.capacity);
  metrics->AddSingle("oxevent_events_in_delivery", kGauge, "Events that the worker is delivering.", reading.active);
  metrics->AddSingle("oxevent_raised_conditions", kGauge, "Conditions that are raised.", reading.conditions);
}

void AddSinks(const std::vector<SinkReading>& sinks, Metrics* metrics) {
  if (sinks.empty()) return;
  const auto add = [&](const SinkReading& sink, uint64_t value) {
    metrics->Add(value, {Label("section", sink.section), Label("name", sink.name)});
  };
  metrics->Begin("oxevent_sink_delivered_events_total", kCounter,
                 "Events that the sink has accepted since the settings were loaded.");
  for (const SinkReading& sink : sinks) add(sink, sink.delivered);
  metrics->Begin("oxevent_sink_failures_total", kCounter,
                 "Deliveries and flushes of the sink that have failed since the settings were loaded.");
  for (const SinkReading& sink : sinks) add(sink, sink.failures);
}

}  // namespace

std::string FormatText(const Reading& reading) {
  std::string text =
      "process " + Counted(static_cast<uint64_t>(reading.pid), "(") + Printable(reading.name) + "): oxEvent ";
  text += reading.running ? "is running\n" : reading.has_run ? "has been shut down\n" : "has not been initialized\n";
  if (reading.has_run) text += DescribeRun(reading);
  text += reading.sinks.empty() ? "sinks: none\n" : "sinks:\n";
  for (const SinkReading& sink : reading.sinks) text += DescribeSink(sink);
  return text;
}

std::string FormatJson(const Reading& reading) {
  const oxEventCounters& c = reading.counters;
  JsonMembers members;
  members.Add("pid", static_cast<uint64_t>(reading.pid));
  members.Add("process", JsonString(reading.name));
  members.Add("initialized", reading.has_run ? "true" : "false");
  members.Add("running", reading.running ? "true" : "false");
  members.Add("submitted", c.submitted);
  members.Add("emitted", c.emitted);
  members.Add("dropped", c.dropped);
  members.Add("dropped_by_reason", DropsJson(c.drops_by_reason));
  members.Add("sink_failures", c.sink_failures);
  members.Add("sink_warnings", c.sink_warnings);
  members.Add("queue", QueueJson(reading));
  members.Add("conditions", reading.conditions);
  members.Add("sinks", SinksJson(reading.sinks));
  return members.Object();
}

std::string FormatMetrics(const Reading* reading, std::string_view process) {
  Metrics metrics(process);
  metrics.AddSingle("oxevent_up", kGauge, "Whether oxevent-stat could read the process.", reading != nullptr ? 1 : 0);
  if (reading == nullptr) return metrics.Text();
  metrics.AddSingle("oxevent_running", kGauge, "Whether the library is initialized.", reading->running ? 1 : 0);
  if (reading->has_run) {
    AddCounters(reading->counters, &metrics);
    AddGauges(*reading, &metrics);
  }
  AddSinks(reading->sinks, &metrics);
  return metrics.Text();
}

std::string FormatChange(const Reading& earlier, const Reading& later) {
  const oxEventCounters& a = earlier.counters;
  const oxEventCounters& b = later.counters;
  if (earlier.pid != later.pid || b.submitted < a.submitted || b.emitted < a.emitted || b.dropped < a.dropped ||
      b.sink_failures < a.sink_failures) {
    return "";
  }
  return "since the previous reading: " + Counted(b.submitted - a.submitted, "submitted, ") +
         Counted(b.emitted - a.emitted, "emitted, ") + Counted(b.dropped - a.dropped, "dropped, ") +
         Counted(b.sink_failures - a.sink_failures, "sink failures\n");
}

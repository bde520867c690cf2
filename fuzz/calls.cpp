// Compares sequences of calls with a model of the whole library: result codes, error texts, counters, and the events
// that callbacks receive. A callback can block on an event, so that later events wait in the queue.
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <random>

#include "base/oxEventAscii.h"
#include "core/oxEventRouter.h"
#include "fuzz.h"

namespace {

const TemporaryDirectory g_directory;
struct File {
  std::string path;
  const char* load_error;  // Empty if the file can be loaded.
};
const File g_files[] = {
    {g_directory.path + "/a.xml", ""},
    {g_directory.path + "/b.xml", ""},
    {g_directory.path + "/bad-sink.xml", ""},  // Can be loaded, but has a sink that cannot be opened.
    {"/missing", "Unable to open oxEvent config: /missing"},
    {"", "oxEvent requires a oxCFG XML config path"}};
constexpr char kBadSinkText[] = "oxEvent webhook sink requires an http:// or https:// endpoint_url";
constexpr size_t kValidFiles = 2;          // The files that are valid come first.
constexpr size_t kBadSink = 2, kNone = 4;  // Indexes in g_files.

bool DropsLow(const oxEventConfig& c) { return c.drop_policy == oxEventDropPolicy::kDropDebugInfoFirst; }

void WriteSettings(size_t file, const oxEventConfig& c, const char* sink = "") {
  std::ofstream(g_files[file].path) << Format(
      R"(<config><key name="QVX"><key name="Events">
<key name="core"><value name="enabled">%d</value><value name="minimum_severity">%u</value>
<value name="queue_size">%u</value><value name="drop_policy">%s</value></key>
<key name="state"><value name="enabled">%d</value><value name="dedupe_enabled">%d</value>
<value name="default_repeat_interval_sec">%u</value><value name="send_clear">%d</value>
<value name="route_orphan_clear">%d</value></key>
<key name="sink"><key name="native"><key name="main"><value name="enabled">0</value></key></key>%s</key>
</key></key></config>)",
      c.enabled, c.minimum_severity, c.queue_size, DropsLow(c) ? "drop_debug_info_first" : "newest", c.state_enabled,
      c.dedupe_enabled, c.default_repeat_interval_sec, c.send_clear, c.route_orphan_clear, sink);
}

// State of the callbacks. The user_data of a callback selects its behavior: 1 throws, 2 flushes.
std::mutex g_mutex;
std::condition_variable g_changed;
std::string g_seen;      // A line for each call of a callback. Guarded by g_mutex, like the next two.
bool g_holding = false;  // Whether a callback must block on the event "hold".
bool g_waiting = false;  // Whether a callback is blocked on that event.

std::string Line(uintptr_t user, const oxEventRecord& e, uint32_t flushed) {
  std::ostringstream line;
  line << user << ' ' << e.event_id << ' ' << e.severity << ' ' << e.action << ' ' << e.dedupe_key << ' ' << e.message
       << ' ' << e.source_name << ' ' << flushed << '\n';
  return line.str();
}

void Callback(const oxEventRecord* event, void* user_data) {
  const auto user = reinterpret_cast<uintptr_t>(user_data);
  const uint32_t flushed = user == 2 ? oxEventFlush(0) : 0;
  std::unique_lock lock(g_mutex);
  g_seen += Line(user, *event, flushed);
  if (g_holding && event->message == std::string_view("hold")) {
    g_waiting = true;
    g_changed.notify_all();
    g_changed.wait(lock, [] { return !g_holding; });
  }
  if (user == 1) throw user;
}

std::string Text(const oxEventCounters& c) {
  return Format("%lu %lu %lu %lu %lu", c.submitted, c.emitted, c.dropped, c.sink_failures, c.sink_warnings);
}

struct Registration {
  uint32_t id;
  uintptr_t user;
};

// The expected state of the library.
class Model {
 public:
  bool up = false;
  oxEventConfig config;
  size_t path = kNone;
  oxEventCounters counters;
  std::deque<Event> pending;
  std::optional<Event> held;
  std::vector<Registration> callbacks;
  std::string seen;

  void Submit(const Event& event) {
    ++counters.submitted;
    if (!config.enabled || event.severity < config.minimum_severity) {
      ++counters.dropped;
      return;
    }
    if (!held) return Deliver(event);
    if (pending.size() >= config.queue_size) {
      ++counters.dropped;
      if (!DropLow()) return;
    }
    pending.push_back(event);
  }

  // The first callback receives the event and blocks.
  void Hold(const Event& event) {
    ++counters.submitted;
    held = event;
    held_for_ = callbacks;
    Call(held_for_[0], event);
  }

  // Calls the other callbacks that were registered when Hold was called, and still are.
  void Release() {
    bool failed = held_for_[0].user == 1;
    for (const Registration& registration : std::vector(held_for_.begin() + 1, held_for_.end())) {
      const bool stays =
          std::any_of(callbacks.begin(), callbacks.end(), [&](auto& r) { return r.id == registration.id; });
      if (stays) failed |= Call(registration, *held);
    }
    held.reset();
    Count(failed);
    while (!pending.empty()) {
      const Event event = pending.front();
      pending.pop_front();
      Deliver(event);
    }
  }

  void Reload(const oxEventConfig& changed) {
    config = changed;
    while (pending.size() > config.queue_size) {
      if (!DropLow()) pending.pop_back();
      ++counters.dropped;
    }
  }

  void Start(const oxEventConfig& first) {
    config = first;
    counters = {};
    raised_.clear();
    up = true;
  }

 private:
  bool DropLow() {
    if (!DropsLow(config)) return false;
    const auto low = std::find_if(pending.begin(), pending.end(), [](const Event& e) { return e.severity < 2; });
    if (low == pending.end()) return false;
    pending.erase(low);
    return true;
  }

  bool Call(const Registration& registration, const Event& event) {
    const uint32_t flushed = registration.user == 2 && !pending.empty() ? OXEVENT_FAILURE : OXEVENT_OK;
    seen += Line(registration.user, event.ToPublicView(), flushed);
    return registration.user == 1;
  }

  void Count(bool failed) {
    ++counters.emitted;
    counters.sink_failures += failed ? 1 : 0;
  }

  void Deliver(Event event) {
    if (!Decide(&event)) {
      ++counters.dropped;
      return;
    }
    bool failed = false;
    for (const Registration& registration : callbacks) failed |= Call(registration, event);
    Count(failed);
  }

  bool Decide(Event* e) {
    const std::string action = oxEventAsciiLower(e->action);
    const bool known = action == "raise" || action == "update" || action == "repeat" || action == "clear";
    if (!config.state_enabled || !config.dedupe_enabled || !known) return true;
    const std::string key = e->dedupe_key.empty() ? e->source_id + ":" + e->event_type : e->dedupe_key;
    const auto found = raised_.find(key);
    const bool raised = found != raised_.end();
    if (action == "clear") return raised_.erase(key) != 0 ? config.send_clear : config.route_orphan_clear;
    if (action == "repeat" && !raised) return false;
    const std::string signature = e->event_type + "\n" + e->source_id + "\n" + e->message + "\n" + action + "\n" +
                                  e->dedupe_key + std::to_string(e->severity) + Format("\n%g", e->value);
    const uint64_t interval = config.default_repeat_interval_sec * uint64_t{1'000'000'000};
    const bool due = !raised || e->utc_ns < found->second.second || e->utc_ns - found->second.second >= interval;
    if (!due && !(action == "update" && signature != found->second.first)) return false;
    if (action == "update" && !raised) e->action = "raise";
    if (action == "raise" && raised) e->action = "repeat";
    raised_[key] = {signature, e->utc_ns};
    return true;
  }

  std::map<std::string, std::pair<std::string, uint64_t>> raised_;  // Signature and time by key.
  std::vector<Registration> held_for_;                              // The callbacks that receive `held`.
};

class Run {
 public:
  explicit Run(Input& in) : in_(in) {
    model_.counters = oxEventCoreGetCounters();  // They still count the previous input's events.
    if (in_.ConsumeBool()) Register();
    Load();
    while (in_.remaining_bytes() != 0) Step();
    if (model_.up) Shutdown();
    Settle();
    while (!model_.callbacks.empty()) Unregister(model_.callbacks[0].id);
  }

 private:
  using Method = void (Run::*)();

  void Step() {
    constexpr Method kSteps[] = {&Run::SubmitEvent, &Run::SubmitEvent, &Run::SubmitSimple, &Run::SubmitBad,
                                 &Run::Load,        &Run::Load,        &Run::Hold,         &Run::Hold,
                                 &Run::Release,     &Run::Register,    &Run::Unregister,   &Run::Flush,
                                 &Run::Shutdown,    &Run::BadCalls};
    const bool queues = model_.held && in_.ConsumeBool();
    (this->*(queues ? &Run::SubmitEvent : in_.PickValueInArray(kSteps)))();
    Settle();
  }

  // Checks the result code and the last error text of a call.
  void Expect(uint32_t result, uint32_t code, const std::string& text = "") {
    CHECK_EQ(result, code);
    char buffer[300] = "";
    const uint32_t size = in_.ConsumeBool() ? sizeof buffer : in_.ConsumeIntegralInRange<uint32_t>(1, 30);
    CHECK_EQ(oxEventGetLastError(buffer, size), OXEVENT_OK);
    CHECK_EQ(std::string(buffer), text.substr(0, size - 1));
  }
  void ExpectDown(uint32_t result) { Expect(result, OXEVENT_NOT_INITIALIZED, "oxEvent is not initialized"); }

  // Waits until the worker is idle or blocked, and compares the library with the model.
  void Settle() {
    if (model_.up && !model_.held) CHECK_EQ(oxEventFlush(0), OXEVENT_OK);
    const std::lock_guard lock(g_mutex);
    CHECK_EQ(g_seen, model_.seen);
    g_seen.clear();
    model_.seen.clear();
    const oxEventCounters now = oxEventCoreGetCounters();
    CHECK_EQ(Text(now), Text(model_.counters));
    CHECK_EQ(now.submitted, now.emitted + now.dropped + model_.pending.size() + (model_.held ? 1 : 0));
  }

  size_t AnyPath() {
    const auto path = in_.PickValueInArray<size_t>({0, 0, 1, 1, kBadSink, 3, kNone});
    if (path >= kValidFiles) return path;
    constexpr uint32_t kSizes[] = {1, 2, 3, 4294967295, 0}, kIntervals[] = {0, 10, 4294967295};
    oxEventConfig& c = files_[path];
    c.enabled = in_.ConsumeIntegral<uint8_t>() != 7;
    c.minimum_severity = in_.ConsumeBool() ? 0 : in_.ConsumeIntegralInRange<uint32_t>(1, 3);
    c.queue_size = in_.PickValueInArray(kSizes);
    c.drop_policy = in_.PickValueInArray({oxEventDropPolicy::kDropNewest, oxEventDropPolicy::kDropDebugInfoFirst});
    c.default_repeat_interval_sec = in_.PickValueInArray(kIntervals);
    c.state_enabled = in_.ConsumeIntegral<uint8_t>() != 7;
    c.dedupe_enabled = in_.ConsumeIntegral<uint8_t>() != 7;
    c.send_clear = in_.ConsumeBool();
    c.route_orphan_clear = in_.ConsumeBool();
    WriteSettings(path, c);
    return path;
  }

  void Load() {
    const bool reload = in_.ConsumeBool();
    const size_t given = reload && in_.ConsumeBool() ? kNone : AnyPath();
    const char* const name = given == kNone && in_.ConsumeBool() ? nullptr : g_files[given].path.c_str();
    const size_t path = reload && given == kNone ? model_.path : given;
    const uint32_t result = reload ? oxEventReloadConfig(name) : oxEventInitialize(name);
    const bool empty_queue = path < kValidFiles && files_[path].queue_size == 0;
    const std::string load_error = empty_queue ? "queue_size must be greater than zero" : g_files[path].load_error;
    if (!load_error.empty()) return Expect(result, OXEVENT_INVALID_ARGUMENT, load_error);
    if (reload && !model_.up) return ExpectDown(result);
    if (!reload && model_.up) return Expect(result, OXEVENT_ALREADY_INITIALIZED, "oxEvent is already initialized");
    if (path == kBadSink) return Expect(result, OXEVENT_INVALID_ARGUMENT, kBadSinkText);
    Expect(result, OXEVENT_OK);
    reload ? model_.Reload(files_[path]) : model_.Start(files_[path]);
    model_.path = path;
  }

  void Shutdown() {
    if (!model_.up) return ExpectDown(oxEventShutdown());
    if (model_.held) {
      // Shutdown delivers the queued events. If a callback flushes, deliver them first: the result of that flush would
      // otherwise depend on timing.
      const bool flushes =
          std::any_of(model_.callbacks.begin(), model_.callbacks.end(), [](auto& r) { return r.user == 2; });
      Release();
      if (flushes) Settle();
    }
    Expect(oxEventShutdown(), OXEVENT_OK);
    model_.up = false;
    model_.path = kNone;
    model_.callbacks.clear();
  }

  void Flush() {
    if (!model_.up) return ExpectDown(oxEventFlush(1));
    if (model_.held) return Expect(oxEventFlush(1), OXEVENT_FAILURE, "oxEvent core flush timed out");
    Expect(oxEventFlush(in_.ConsumeBool() ? 0 : 100'000), OXEVENT_OK);
  }

  void Register() {
    static uint32_t next_id = 1;
    const auto user = in_.ConsumeIntegralInRange<uintptr_t>(0, 2);
    uint32_t id = 0;
    Expect(oxEventRegisterCallback(Callback, reinterpret_cast<void*>(user), &id), OXEVENT_OK);
    CHECK_EQ(id, next_id);
    model_.callbacks.push_back({next_id++, user});
  }

  void Unregister() {
    const auto at = in_.ConsumeIntegral<uint8_t>();
    Unregister(at < model_.callbacks.size() ? model_.callbacks[at].id : in_.ConsumeIntegralInRange<uint32_t>(0, 9));
  }
  void Unregister(uint32_t id) {
    const size_t gone = std::erase_if(model_.callbacks, [id](const Registration& r) { return r.id == id; });
    const uint32_t result = oxEventUnregisterCallback(id);
    if (gone != 0) return Expect(result, OXEVENT_OK);
    Expect(result, OXEVENT_NOT_FOUND, "Callback id was not found");
  }

  Event AnyCondition() {
    constexpr const char *kActions[] = {"raise", "update", "repeat", "clear", "RAISE", "Update", "ack", ""},
                         *kKeys[] = {"k", "", "k:"};
    constexpr double kValues[] = {0.5, 0.50000001, 0.6};
    Event event;
    event.event_id = in_.ConsumeIntegralInRange<uint64_t>(0, 3);
    event.severity = in_.ConsumeIntegralInRange<uint32_t>(0, 3);
    event.action = in_.PickValueInArray(kActions);
    event.dedupe_key = in_.PickValueInArray(kKeys);
    event.source_id = in_.PickValueInArray(kKeys);
    event.event_type = in_.ConsumeBool() ? "" : "t";
    event.message = in_.ConsumeBool() ? "m" : "n";
    event.value = in_.PickValueInArray(kValues);
    event.utc_ns = 1'700'000'000'000'000'000 + in_.ConsumeIntegralInRange<uint64_t>(0, 25) * 1'000'000'000;
    return event;
  }

  void Submitted(uint32_t result, Event event) {
    const uint64_t id = g_next_id++;
    if (event.event_id == 0) event.event_id = id;
    if (!model_.up) return ExpectDown(result);
    Expect(result, OXEVENT_OK);
    model_.Submit(event);
  }
  void SubmitEvent() {
    const Event event = AnyCondition();
    const oxEventRecord record = event.ToPublicView();
    Submitted(oxEventSubmit(&record), event);
  }

  void SubmitSimple() {
    Event event;
    event.severity = in_.ConsumeIntegralInRange<uint32_t>(0, 3);
    event.message = "simple";
    const bool named = in_.ConsumeBool();
    event.source_name = named ? "" : "oxEvent";
    Submitted(oxEventSubmitSimple(0, event.severity, named ? "" : nullptr, "simple"), event);
  }

  void SubmitBad() {
    const Event event = AnyCondition();
    oxEventRecord record = event.ToPublicView();
    const auto how = in_.ConsumeIntegralInRange(0, 5);
    if (how == 0) record.struct_size = 47;
    if (how == 1) record.version = 1;
    if (how == 2) record.message = nullptr;
    if (how == 3) record.severity = 4;
    const uint32_t result = how == 5 ? oxEventSubmitSimple(1, 4, "", "m") : oxEventSubmit(how == 4 ? nullptr : &record);
    ++g_next_id;
    Expect(result, OXEVENT_INVALID_ARGUMENT, "Invalid OXEvent");
  }

  void BadCalls() {
    uint32_t id = 7;
    const char* const text = "Invalid callback registration arguments";
    Expect(oxEventRegisterCallback(nullptr, nullptr, &id), OXEVENT_INVALID_ARGUMENT, text);
    Expect(oxEventRegisterCallback(Callback, nullptr, nullptr), OXEVENT_INVALID_ARGUMENT, text);
    CHECK_EQ(id, 7u);
    char buffer[4] = "abc";
    Expect(oxEventGetLastError(nullptr, 4), OXEVENT_INVALID_ARGUMENT, "Invalid last-error buffer");
    Expect(oxEventGetLastError(buffer, 0), OXEVENT_INVALID_ARGUMENT, "Invalid last-error buffer");
    Expect(oxEventInstallWindowsEventSource(nullptr, ""), OXEVENT_NOT_FOUND,
           "Windows Event Log source installation is only available on Windows");
    Expect(oxEventRemoveWindowsEventSource("x"), OXEVENT_NOT_FOUND,
           "Windows Event Log source removal is only available on Windows");
    CHECK_EQ(oxEventGetApiVersion(), 0x00010000u);
  }

  void Hold() {
    if (!model_.up || model_.held || !model_.config.enabled || model_.callbacks.empty()) return;
    Event event;
    event.event_id = 99;
    event.severity = OXEVENT_SEVERITY_ERROR;
    event.message = "hold";
    const oxEventRecord record = event.ToPublicView();
    g_holding = true;  // No lock needed: no event is in delivery, so the worker does not read it.
    ++g_next_id;
    model_.Hold(event);
    Expect(oxEventSubmit(&record), OXEVENT_OK);
    std::unique_lock lock(g_mutex);
    CHECK(g_changed.wait_for(lock, std::chrono::seconds(60), [] { return g_waiting; }));
  }

  void Release() {
    if (!model_.held) return;
    model_.Release();
    const std::lock_guard lock(g_mutex);
    g_holding = g_waiting = false;
    g_changed.notify_all();
  }

  static inline uint64_t g_next_id = 1;  // Counts across inputs, like the callbacks' ids.
  Input& in_;
  Model model_;
  oxEventConfig files_[kValidFiles];
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  WriteSettings(
      kBadSink, {},
      "<key name=\"webhook\"><key name=\"http\"><key name=\"x\"><value name=\"enabled\">1</value></key></key></key>");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Uses inputs of odd size as random seeds: mutations alone repeat too much to produce long, varied sequences.
  std::vector<uint32_t> random(120);
  std::seed_seq(data, data + size).generate(random.begin(), random.end());
  const bool is_seed = size % 2 != 0;
  Input in(is_seed ? reinterpret_cast<const uint8_t*>(random.data()) : data, is_seed ? random.size() * 4 : size);
  const Run run(in);
  return 0;
}

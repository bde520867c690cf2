// Checks combinations of settings: severities, destinations, delays, settings without effect.
#include <algorithm>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "base/oxEventAscii.h"
#include "base/oxEventOrDefault.h"
#include "base/oxEventSeverity.h"
#include "check/settings_file.h"
#include "check/syntax.h"
#include "common/system_log.h"
#include "oxEvent.h"

namespace {

using Type = oxEventSinkType;
using Sink = oxEventSinkConfig;

constexpr uint64_t kDrainMs = 5000;              // oxEventShutdown's timeout for draining the queue.
constexpr uint64_t kLongDeliveryMs = 60 * 1000;  // A warning above this: oxEventShutdown waits for the delivery.
constexpr uint32_t kNoAttempt = 0xFFFFFFFF;      // The number of attempts, retry_count + 1, wraps to 0.

constexpr uint64_t kCenturyMs = 3'155'760'000'000;

std::string Seconds(uint64_t ms) {
  if (ms >= kCenturyMs) return "a century or more";
  const uint64_t tenths = (ms + 50) / 100;
  return std::to_string(tenths / 10) + (tenths % 10 == 0 ? "" : "." + std::to_string(tenths % 10)) + " s";
}

// Returns how long the delivery of one event can take, retries included.
uint64_t LongestDeliveryMs(const Sink& sink) {
  constexpr uint64_t kDefaultTimeoutMs = 5000;
  constexpr uint64_t kDefaultBackoffMs = 250;
  const uint32_t attempts = sink.retry_count + 1;  // Modulo 2^32.
  if (attempts == 0) return 0;
  const uint64_t timeout_ms = sink.request_timeout_ms != 0 ? sink.request_timeout_ms : kDefaultTimeoutMs;
  const uint64_t backoff_ms = sink.backoff_ms != 0 ? sink.backoff_ms : kDefaultBackoffMs;
  if (attempts > kCenturyMs / (timeout_ms + backoff_ms)) return kCenturyMs;  // The product could overflow 64 bits.
  return attempts * timeout_ms + (attempts - 1) * backoff_ms;
}

// Returns the setting whose default would shorten the delivery most.
std::string_view SlowestSetting(const Sink& sink) {
  if (sink.type == Type::kCloudEventsHttp) return "timeout_ms";
  Sink one_attempt = sink;
  one_attempt.retry_count = Sink().retry_count;
  Sink default_timeout = sink;
  default_timeout.request_timeout_ms = Sink().request_timeout_ms;
  const uint64_t otherwise_ms = std::min(LongestDeliveryMs(sink), LongestDeliveryMs(one_attempt));
  return LongestDeliveryMs(default_timeout) < otherwise_ms ? "request_timeout_ms" : "retry_count";
}

// The file or address that a sink writes or sends to, and the setting that determines it. `target` is empty if the sink
// has none.
struct Destination {
  std::string target;
  std::string_view setting;
};

// Resolves symbolic links in the part of the path that exists.
std::string CanonicalPath(const std::string& path) {
  std::error_code failure;
  const std::filesystem::path absolute = std::filesystem::absolute(path, failure);
  const std::filesystem::path canonical = std::filesystem::weakly_canonical(absolute, failure);
  return failure ? absolute.lexically_normal().string() : canonical.string();
}

std::string LowerHost(const std::string& host) { return oxEventAsciiLower(oxEventOrDefault(host, "127.0.0.1")); }

uint32_t NativeFacility(const Sink& sink) {  // An unknown name means the default.
  const auto code = oxEventFindWord(g_oxEventNativeFacilityWords, sink.native_facility);
  return code ? *code : NativeFacility(Sink());
}

Destination DestinationOf(const Sink& sink) {
  switch (sink.type) {
    case Type::kCsv:
      if (sink.path.empty()) return {};
      return {"file " + CanonicalPath(sink.path), "path"};
    case Type::kSyslogUdp:
      return {"syslog " + LowerHost(sink.host) + ":" + std::to_string(sink.port == 0 ? 514 : sink.port), "host"};
    case Type::kNative:
      return {"log " + std::to_string(NativeFacility(sink)), "facility"};
    case Type::kCloudEventsHttp:
    case Type::kWebhookHttp:
      if (!UrlFault(sink.endpoint_url).empty()) return {};
      return {ParseUrl(sink.endpoint_url).normalized, "endpoint_url"};
    case Type::kSnmpTrap:
      return {"trap " + LowerHost(sink.snmp_host) + ":" + std::to_string(sink.snmp_port == 0 ? 162 : sink.snmp_port),
              "host"};
    case Type::kAlertmanager:
      break;
  }
  return {};
}

class CombinationChecker {
 public:
  CombinationChecker(const SettingsFile& file, std::vector<Finding>* findings) : file_(file), findings_(*findings) {}

  void Run() {
    core_ = &file_.groups.at(0);
    CheckCore();
    CheckSeverities();
    CheckDestinations();
    CheckDelays();
    CheckEffects();
  }

 private:
  void Add(Severity severity, const char* code, const Group& group, std::string_view name, std::string text,
           std::string remedy) {
    findings_.push_back(
        {severity, code, group.PositionOf(name), group.PathOf(name), std::move(text), std::move(remedy)});
  }

  template <class Visit>
  void ForEachEnabled(Visit visit) {
    for (const Group& group : file_.groups) {
      if (group.sink != nullptr && group.sink->enabled) visit(group, *group.sink);
    }
  }

  void CheckCore() {
    if (!file_.config.enabled) {
      Add(Severity::kWarning, "all-off", *core_, "enabled", "the library is off: every event is dropped",
          "Set it to 1.");
    }
    bool any = false;
    ForEachEnabled([&](const Group&, const Sink& sink) { any = any || sink.type != Type::kAlertmanager; });
    if (!any) WarnAboutNoSink();
    const oxEventConfig& config = file_.config;
    if (config.minimum_severity == OXEVENT_SEVERITY_ERROR && config.state_enabled && config.dedupe_enabled) {
      const uint32_t interval_s = config.default_repeat_interval_sec;
      const std::string effect = interval_s == 0 ? "a new raise is sent as a repeat"
                                                 : "after the last event sent for it, new raises are suppressed for " +
                                                       std::to_string(interval_s) + " s";
      Add(Severity::kWarning, "clears-hidden", *core_, "minimum_severity",
          "a clear below error is dropped: its condition stays raised, and " + effect,
          "Set it to the severity that the host gives its clears, and minimum_severity of the sinks to error.");
    }
  }

  // Reports the problem at the `enabled` of a native sink: only these sinks are enabled by default.
  void WarnAboutNoSink() {
    for (const Group& group : file_.groups) {
      if (group.sink == nullptr || group.sink->type != Type::kNative) continue;
      Add(Severity::kWarning, "no-sink", group, "enabled",
          "no sink that delivers events is enabled: only callbacks that the host registers receive the events",
          "Set enabled of a sink to 1.");
      break;
    }
  }

  bool IsValid(const Group& group, std::string_view name) const {
    return file_.bad_values.count(group.PathOf(name)) == 0;
  }

  void CheckSeverities() {
    const uint32_t core = file_.config.minimum_severity;
    bool reported = false;
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      if (group.Find("minimum_severity") == nullptr || sink.minimum_severity >= core) return;
      if (!IsValid(group, "minimum_severity")) return;
      Add(Severity::kWarning, "severity-hidden", group, "minimum_severity",
          "accepts events that minimum_severity of the core, " + std::string(oxEventSeverityName(core)) + ", drops",
          "Lower core\\minimum_severity, or raise this setting.");
      if (!std::exchange(reported, true)) {
        Add(Severity::kNote, "severity-hidden", *core_, "minimum_severity", "drops events that a sink accepts",
            "Lower it, or raise minimum_severity of the sink.");
      }
    });
  }

  void CheckDestinations() {
    std::map<std::string, const Group*> known;
    const std::string settings_file = "file " + CanonicalPath(file_.path);
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      const Destination destination = DestinationOf(sink);
      if (destination.target.empty()) return;
      if (destination.target == settings_file) {
        Add(Severity::kWarning, "own-file", group, destination.setting,
            "is the settings file itself, which the rows would corrupt", "Choose another file.");
      }
      const auto [first, is_new] = known.emplace(destination.target, &group);
      if (is_new) return;
      const bool is_file = sink.type == Type::kCsv;
      Add(Severity::kWarning, "same-destination", group, destination.setting,
          (is_file ? "writes to the same file as " : "sends to the same destination as ") + first->second->key +
              ": each event appears twice" + (is_file ? ", in any order" : ""),
          "Change one of the two destinations, or disable one of the two sinks.");
      Add(Severity::kNote, "same-destination", *first->second, destination.setting,
          "is the first setting with this destination",
          "Change one of the two destinations, or disable one of the two sinks.");
    });
  }

  void CheckDelays() {
    uint64_t total_ms = 0;
    const Group* longest = nullptr;
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      if (sink.type != Type::kWebhookHttp && sink.type != Type::kCloudEventsHttp) return;
      if (sink.retry_count == kNoAttempt) {
        Add(Severity::kWarning, "no-try", group, "retry_count", "4294967295 means no attempt at all: every event fails",
            "Set it to 0 for one attempt.");
      }
      total_ms += LongestDeliveryMs(sink);
      if (longest == nullptr || LongestDeliveryMs(*longest->sink) < LongestDeliveryMs(sink)) longest = &group;
    });
    if (longest == nullptr) return;
    const bool is_long = total_ms > kLongDeliveryMs;
    Add(is_long ? Severity::kWarning : Severity::kDetail, "shutdown-delay", *longest, SlowestSetting(*longest->sink),
        "while endpoints do not answer, one event takes up to " + Seconds(total_ms) +
            " in the HTTP sinks, and oxEventShutdown up to " + Seconds(kDrainMs + total_ms),
        "Use fewer retries or shorter timeouts: later events wait meanwhile, and the queue fills.");
  }

  // Reports settings that have no effect because of the value of another setting, sinks that deliver nothing, and what
  // a native sink does to the host's own lines.
  void CheckEffects() {
    const bool state_off = !file_.config.state_enabled || !file_.config.dedupe_enabled;
    if (state_off) {
      Add(Severity::kDetail, "no-state", file_.groups.at(1), file_.config.state_enabled ? "dedupe_enabled" : "enabled",
          "every event is delivered as reported: no duplicate is suppressed", "Set it to 1 to suppress duplicates.");
    }
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      if (sink.type == Type::kAlertmanager) {
        Add(Severity::kNote, "sends-nothing", group, "enabled",
            "this sink sends nothing: the host must post the alerts to an Alertmanager itself",
            "Have the host post the result of oxEventFormatAlertmanagerRecord, or set enabled to 0.");
      }
      if (sink.type == Type::kNative) {
        if (const std::string fault = SystemLogFault(); !fault.empty()) {
          Add(Severity::kNote, "no-system-log", group, "enabled", "on this machine, " + fault + " without an error",
              "Start a log daemon, mount its socket into the container, or use another sink.");
        }
        Add(Severity::kDetail, "host-lines", group, "facility",
            "the host's own lines in the system log also go to this facility, under this source_name, once the sink "
            "has sent an event",
            "Let the host pass the facility in each call to syslog, or call openlog again before it.");
      }
      if (sink.type != Type::kWebhookHttp) return;
      if (sink.connect_timeout_ms > sink.request_timeout_ms && sink.request_timeout_ms != 0) {
        Add(Severity::kDetail, "no-effect", group, "connect_timeout_ms",
            "exceeds request_timeout_ms, which limits the whole request", "Lower it, or raise request_timeout_ms.");
      }
      if (oxEventFindWord(g_oxEventPayloadModeWords, sink.payload_mode) == kOxEventPayloadCloudEvents) return;
      for (const char* name : {"cloudevents_source", "cloudevents_subject_prefix"}) {
        const Value* const value = group.Find(name);
        if (value == nullptr || value->text.empty() || value->text == oxEventSettingDefault(*value->setting)) continue;
        Add(Severity::kWarning, "no-effect", group, name, "has no effect with this payload_mode",
            "Set payload_mode to cloudevents.");
      }
    });
  }

  const SettingsFile& file_;
  std::vector<Finding>& findings_;
  const Group* core_ = nullptr;
};

}  // namespace

void CheckCombinations(const SettingsFile& file, std::vector<Finding>* findings) {
  CombinationChecker(file, findings).Run();
}

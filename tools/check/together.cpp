// The rules for settings of several keys together: severities, destinations, delays.
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
#include "oxEvent.h"

namespace {

using Type = oxEventSinkType;
using Sink = oxEventSinkConfig;

constexpr uint64_t kDrainMs = 5000;              // What a Shutdown gives the queue.
constexpr uint64_t kLongShutdownMs = 60 * 1000;  // What hardly any host has meant.
constexpr uint32_t kNoTry = 0xFFFFFFFF;          // The value of retry_count that makes no try.

constexpr uint64_t kCenturyMs = uint64_t{36525} * 24 * 3600 * 1000;

std::string Seconds(uint64_t ms) {
  if (ms >= kCenturyMs) return "a century and more";
  const uint64_t tenths = (ms + 50) / 100;
  return std::to_string(tenths / 10) + (tenths % 10 == 0 ? "" : "." + std::to_string(tenths % 10)) + " s";
}

// How long one event can be in delivery, as the sink tries it.
uint64_t LongestDeliveryMs(const Sink& sink) {
  constexpr uint64_t kDefaultTimeoutMs = 5000;
  constexpr uint64_t kDefaultBackoffMs = 250;
  const uint32_t tries = sink.retry_count + 1;  // Modulo 2^32.
  if (tries == 0) return 0;
  const uint64_t timeout_ms = sink.request_timeout_ms != 0 ? sink.request_timeout_ms : kDefaultTimeoutMs;
  const uint64_t backoff_ms = sink.backoff_ms != 0 ? sink.backoff_ms : kDefaultBackoffMs;
  if (tries > kCenturyMs / (timeout_ms + backoff_ms)) return kCenturyMs;  // The whole may outgrow 64 bits.
  return tries * timeout_ms + (tries - 1) * backoff_ms;
}

// The setting that, with its default, would shorten the delivery most.
std::string_view Longest(const Sink& sink) {
  if (sink.type == Type::kCloudEventsHttp) return "timeout_ms";
  Sink one_try = sink;
  one_try.retry_count = Sink().retry_count;
  Sink usual_timeout = sink;
  usual_timeout.request_timeout_ms = Sink().request_timeout_ms;
  const uint64_t otherwise_ms = std::min(LongestDeliveryMs(sink), LongestDeliveryMs(one_try));
  return LongestDeliveryMs(usual_timeout) < otherwise_ms ? "request_timeout_ms" : "retry_count";
}

// Where a sink sends to, with the setting that says so; empty: nowhere.
struct Destination {
  std::string place;
  std::string_view setting;
};

// As far as the path is there, without symbolic links.
std::string WholePath(const std::string& path) {
  std::error_code failure;
  const std::filesystem::path absolute = std::filesystem::absolute(path, failure);
  const std::filesystem::path canonical = std::filesystem::weakly_canonical(absolute, failure);
  return failure ? absolute.lexically_normal().string() : canonical.string();
}

std::string LowerHost(const std::string& host) { return oxEventAsciiLower(oxEventOrDefault(host, "127.0.0.1")); }

Destination DestinationOf(const Sink& sink) {
  switch (sink.type) {
    case Type::kCsv:
      if (sink.path.empty()) return {};
      return {"file " + WholePath(sink.path), "path"};
    case Type::kSyslogUdp:
      return {"syslog " + LowerHost(sink.host) + ":" + std::to_string(sink.port == 0 ? 514 : sink.port), "host"};
    case Type::kNative:
      return {"log " + std::to_string(oxEventFindWord(g_oxEventNativeFacilityWords, sink.native_facility).value_or(20)),
              "facility"};
    case Type::kCloudEventsHttp:
    case Type::kWebhookHttp:
      if (!UrlFault(sink.endpoint_url).empty()) return {};
      return {PartsOf(sink.endpoint_url).place, "endpoint_url"};
    case Type::kSnmpTrap:
      return {"trap " + LowerHost(sink.snmp_host) + ":" + std::to_string(sink.snmp_port == 0 ? 162 : sink.snmp_port),
              "host"};
    case Type::kAlertmanager:
      break;
  }
  return {};
}

class Rules {
 public:
  Rules(const SettingsFile& file, std::vector<Finding>* findings) : file_(file), findings_(*findings) {}

  void Run() {
    core_ = &file_.groups.at(0);
    CheckCore();
    CheckSeverities();
    CheckDestinations();
    CheckDelays();
    CheckUnused();
  }

 private:
  void Add(Grade grade, const char* code, const Group& group, std::string_view name, std::string text,
           std::string remedy) {
    findings_.push_back({grade, code, group.At(name), group.PathOf(name), std::move(text), std::move(remedy)});
  }

  template <class Take>
  void ForEachEnabled(Take take) {
    for (const Group& group : file_.groups) {
      if (group.sink != nullptr && group.sink->enabled) take(group, *group.sink);
    }
  }

  void CheckCore() {
    if (!file_.config.enabled && IsGood(*core_, "enabled")) {
      Add(Grade::kWarning, "all-off", *core_, "enabled", "the library is off: every event is dropped", "Set it to 1.");
    }
    bool any = false;
    ForEachEnabled([&](const Group&, const Sink&) { any = true; });
    if (!any && !file_.config.sinks.empty()) CheckAllOff();
    const oxEventConfig& config = file_.config;
    if (config.minimum_severity == OXEVENT_SEVERITY_ERROR && config.state_enabled && config.dedupe_enabled) {
      Add(Grade::kWarning, "clears-hidden", *core_, "minimum_severity",
          "a clear below error is dropped, so that its condition stays raised and is not reported again before " +
              std::to_string(config.default_repeat_interval_sec) + " s",
          "Set it to the severity that the host gives its clears, and minimum_severity of the sinks to error.");
    }
  }

  // At what switches the last one off: the native sink's, which is on by default.
  void CheckAllOff() {
    for (const Group& group : file_.groups) {
      if (group.sink == nullptr || group.sink->type != Type::kNative || !IsGood(group, "enabled")) continue;
      Add(Grade::kWarning, "no-sink", group, "enabled",
          "no sink is enabled: only callbacks that the host registers get the events", "Set enabled of a sink to 1.");
      break;
    }
  }

  bool IsGood(const Group& group, std::string_view name) const {
    return file_.bad_values.count(group.PathOf(name)) == 0;
  }

  void CheckSeverities() {
    const uint32_t core = file_.config.minimum_severity;
    bool told = false;
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      if (group.Find("minimum_severity") == nullptr || sink.minimum_severity >= core) return;
      if (!IsGood(group, "minimum_severity")) return;
      Add(Grade::kWarning, "severity-hidden", group, "minimum_severity",
          "asks for events that minimum_severity of the core, " + std::string(oxEventSeverityName(core)) + ", drops",
          "Lower the core's, or raise this one.");
      if (!std::exchange(told, true)) {
        Add(Grade::kNote, "severity-hidden", *core_, "minimum_severity", "drops what a sink asks for",
            "Lower it, or raise the sink's.");
      }
    });
  }

  void CheckDestinations() {
    std::map<std::string, const Group*> known;
    const std::string own = "file " + WholePath(file_.path);
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      const Destination destination = DestinationOf(sink);
      if (destination.place.empty()) return;
      if (destination.place == own) {
        Add(Grade::kWarning, "own-file", group, destination.setting,
            "is the settings file itself, which the rows would spoil", "Choose another file.");
      }
      const auto [first, is_new] = known.emplace(destination.place, &group);
      if (is_new) return;
      const bool file = sink.type == Type::kCsv;
      Add(Grade::kWarning, "same-destination", group, destination.setting,
          (file ? "writes to the same file as " : "sends to the same place as ") + first->second->key +
              ": each event comes twice" + (file ? ", in any order" : ""),
          "Change one, or switch one of the two off.");
      Add(Grade::kNote, "same-destination", *first->second, destination.setting, "is the first of the two",
          "Change one, or switch one of the two off.");
    });
  }

  void CheckDelays() {
    uint64_t total_ms = 0;
    const Group* longest = nullptr;
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      if (sink.type != Type::kWebhookHttp && sink.type != Type::kCloudEventsHttp) return;
      if (sink.retry_count == kNoTry) {
        Add(Grade::kWarning, "no-try", group, "retry_count", "4294967295 makes no try at all: every event fails",
            "0 makes one try.");
      }
      total_ms += LongestDeliveryMs(sink);
      if (longest == nullptr || LongestDeliveryMs(*longest->sink) < LongestDeliveryMs(sink)) longest = &group;
    });
    if (longest == nullptr) return;
    const bool is_long = total_ms > kLongShutdownMs;
    Add(is_long ? Grade::kWarning : Grade::kDetail, "shutdown-delay", *longest, Longest(*longest->sink),
        "while endpoints do not answer, one event takes up to " + Seconds(total_ms) +
            " by the HTTP sinks, and oxEventShutdown up to " + Seconds(kDrainMs + total_ms),
        "Fewer tries, shorter time-outs: later events wait meanwhile, and the queue fills.");
  }

  // Settings that need another one.
  void CheckUnused() {
    const bool state_off = !file_.config.state_enabled || !file_.config.dedupe_enabled;
    if (state_off) {
      Add(Grade::kDetail, "no-state", file_.groups.at(1), file_.config.state_enabled ? "dedupe_enabled" : "enabled",
          "every event goes out as reported: no duplicate is recognised", "Set it to 1 to have duplicates suppressed.");
    }
    ForEachEnabled([&](const Group& group, const Sink& sink) {
      if (sink.type == Type::kAlertmanager) {
        Add(Grade::kDetail, "sends-nothing", group, "enabled", "the host posts the documents; this sink sends nothing",
            "Have the host post what oxEventFormatAlertmanagerRecord gives.");
      }
      if (sink.type == Type::kNative) {
        Add(Grade::kDetail, "host-lines", group, "facility",
            "the host's own lines in the system log also go to this facility, under this source_name, once an event "
            "has "
            "gone there",
            "Have the host name the facility in each call of syslog, or call openlog again before it.");
      }
      if (sink.type != Type::kWebhookHttp) return;
      if (sink.connect_timeout_ms > sink.request_timeout_ms && sink.request_timeout_ms != 0) {
        Add(Grade::kDetail, "no-effect", group, "connect_timeout_ms", "is over request_timeout_ms, which ends all",
            "Lower it, or raise request_timeout_ms.");
      }
      if (oxEventFindWord(g_oxEventPayloadModeWords, sink.payload_mode) == kOxEventPayloadCloudEvents) return;
      for (const char* name : {"cloudevents_source", "cloudevents_subject_prefix"}) {
        const Value* const value = group.Find(name);
        if (value == nullptr || value->text.empty() || value->text == oxEventSettingDefault(*value->setting)) continue;
        Add(Grade::kWarning, "no-effect", group, name, "has no effect with this payload_mode",
            "Set payload_mode to cloudevents.");
      }
    });
  }

  const SettingsFile& file_;
  std::vector<Finding>& findings_;
  const Group* core_ = nullptr;
};

}  // namespace

void CheckTogether(const SettingsFile& file, std::vector<Finding>* findings) { Rules(file, findings).Run(); }

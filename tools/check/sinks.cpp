// Reports sinks that would not start, and sinks that are configured but disabled.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>

#include "check/settings_file.h"
#include "check/syntax.h"
#include "common/remedy.h"
#include "sinks/oxEventSink.h"

namespace {

using Form = oxEventSettingForm;
using Type = oxEventSinkType;
using Sink = oxEventSinkConfig;

constexpr uint32_t kMaxPort = 65535;

// A setting whose value alone can keep a sink from starting, on any machine. `fix_others` makes the sink's other
// settings valid, so that the factory fails because of this setting, before it accesses files or the network.
struct StartRequirement {
  Type type;
  const char* setting;
  bool (*is_violated)(const Sink& sink);
  void (*fix_others)(Sink* sink);
  uint32_t (*create)(const Sink& sink, std::shared_ptr<oxEventSink>* out, std::string* error);
  const char* remedy = nullptr;  // Replaces the remedy of the error table where that is too general.
};

constexpr char kPortRemedy[] = "Set a port from 0 to 65535; 0 means the default port.";

bool LacksPath(const Sink& sink) { return sink.path.empty(); }
bool LacksUrl(const Sink& sink) { return !HasHttpScheme(sink.endpoint_url); }
bool HasBadMode(const Sink& sink) {
  return !sink.payload_mode.empty() && !oxEventFindWord(g_oxEventPayloadModeWords, sink.payload_mode);
}
bool HasBadVersion(const Sink& sink) { return !oxEventFindWord(g_oxEventSnmpVersionWords, sink.version); }
bool HasBadPort(const Sink& sink) { return sink.port > kMaxPort; }
bool HasBadSnmpPort(const Sink& sink) { return sink.snmp_port > kMaxPort; }

void FixNothing(Sink* /*sink*/) {}
void FixUrl(Sink* sink) { sink->endpoint_url = "http://localhost"; }
void FixVersion(Sink* sink) { sink->version = "2c"; }

constexpr StartRequirement kStartRequirements[] = {  // In the order in which a sink checks them.
    {Type::kCsv, "path", LacksPath, FixNothing, oxEventCreateCsvSink},
    {Type::kSyslogUdp, "port", HasBadPort, FixNothing, oxEventCreateSyslogUdpSink, kPortRemedy},
    {Type::kCloudEventsHttp, "endpoint_url", LacksUrl, FixNothing, oxEventCreateHttpSink},
    {Type::kWebhookHttp, "endpoint_url", LacksUrl, FixNothing, oxEventCreateHttpSink},
    {Type::kWebhookHttp, "payload_mode", HasBadMode, FixUrl, oxEventCreateHttpSink},
    {Type::kSnmpTrap, "version", HasBadVersion, FixNothing, oxEventCreateSnmpTrapSink},
    {Type::kSnmpTrap, "port", HasBadSnmpPort, FixVersion, oxEventCreateSnmpTrapSink, kPortRemedy}};

struct WriteFault {
  int error;         // 0: this user can write the file or create it.
  std::string text;  // What fails, and why.
};

// Returns why this user can neither write the file nor create it. Creates nothing. The library creates missing
// directories, so the nearest one that exists counts.
WriteFault FindWriteFault(const std::filesystem::path& file) {
  std::error_code failure;
  std::filesystem::path nearest = file;
  while (!std::filesystem::exists(nearest, failure) && nearest.has_relative_path()) nearest = nearest.parent_path();
  const bool exists = nearest == file;
  const bool is_directory = std::filesystem::is_directory(nearest, failure);
  if (exists && is_directory) return {};  // CheckValues reports it.
  int error = exists || is_directory ? 0 : ENOTDIR;
  if (error == 0 && faccessat(AT_FDCWD, nearest.c_str(), exists ? W_OK : W_OK | X_OK, AT_EACCESS) != 0) error = errno;
  return {error, nearest.string() + ": " + std::generic_category().message(error)};
}

class SinkChecker {
 public:
  SinkChecker(SettingsFile* file, std::vector<Finding>* findings) : file_(*file), findings_(*findings) {}

  void Check(const Group& group) {
    for (const StartRequirement& requirement : kStartRequirements) {
      if (requirement.type == group.sink->type && requirement.is_violated(*group.sink))
        ReportStartError(group, requirement);
    }
    if (!group.sink->enabled) return CheckDisabled(group);
    if (group.sink->type == Type::kCsv && group.sink->path.starts_with('/')) CheckFile(group);
  }

 private:
  void ReportStartError(const Group& group, const StartRequirement& requirement) {
    Sink sink = *group.sink;
    requirement.fix_others(&sink);
    std::shared_ptr<oxEventSink> none;
    std::string error;
    requirement.create(sink, &none, &error);
    const Value* const value = group.Find(requirement.setting);
    const Position position = group.PositionOf(requirement.setting);
    const std::string path = group.PathOf(requirement.setting);
    std::vector<std::string> words;
    if (value != nullptr) {
      for (const oxEventWord& word : value->setting->words) words.emplace_back(word.text);
    }
    std::string remedy(requirement.remedy != nullptr ? requirement.remedy : RemedyFor(error));
    if (const std::string suggestion = words.empty() ? "" : Suggestion(value->text, words); !suggestion.empty()) {
      remedy.pop_back();  // The full stop.
      remedy += suggestion;
    }
    if (sink.enabled) {
      if (file_.start_error.empty()) file_.start_error = error;
      findings_.push_back({Severity::kError, "sink-refused", position, path, error, remedy});
    } else if (value != nullptr && !value->text.empty()) {
      findings_.push_back({Severity::kWarning, "sink-refused", position, path,
                           "the library would not start with this sink enabled: " + error, remedy});
    }
  }

  // A relative path depends on the working directory of the host.
  void CheckFile(const Group& group) {
    const WriteFault fault = FindWriteFault(group.sink->path);
    if (fault.error == ENOTDIR) {
      findings_.push_back(
          {Severity::kWarning, "bad-path", group.PositionOf("path"), group.PathOf("path"),
           "needs a directory where this machine has a file (" + fault.text + "): the library would not start",
           "Set a path below a directory."});
    } else if (fault.error != 0) {
      findings_.push_back({Severity::kNote, "not-writable", group.PositionOf("path"), group.PathOf("path"),
                           "on this machine, the user of this tool cannot write or create the file (" + fault.text +
                               "): the library would not start",
                           "Let the user of the host write there, or set another path."});
    }
  }

  // A disabled sink with a destination or a secret was probably meant to be enabled.
  void CheckDisabled(const Group& group) {
    // An invalid value may have been meant to enable the sink.
    if (file_.bad_values.count(group.PathOf("enabled")) != 0) return;
    for (const Value& value : group.values) {
      const oxEventSetting& setting = *value.setting;
      const bool is_destination_or_secret = setting.form == Form::kUrl || setting.form == Form::kHost ||
                                            setting.form == Form::kPath || setting.form == Form::kSecret ||
                                            setting.form == Form::kHeaderLines;
      const std::string text = value.text;
      if (!is_destination_or_secret || !setting.has_effect || text.empty() || text == oxEventSettingDefault(setting))
        continue;
      const bool missing = group.Find("enabled") == nullptr;
      findings_.push_back({Severity::kWarning, "filled-in-but-off", group.PositionOf("enabled"),
                           group.PathOf("enabled"),
                           std::string("the sink is ") + (missing ? "off by default" : "off") + ", but configured",
                           "Set enabled to 1, or remove " + std::string(setting.name) + "."});
      findings_.push_back({Severity::kNote, "filled-in-but-off", value.position, group.PathOf(setting.name),
                           "has no effect while the sink is off", "Remove it, or set enabled to 1."});
      return;
    }
  }

  SettingsFile& file_;
  std::vector<Finding>& findings_;
};

}  // namespace

void CheckSinks(SettingsFile* file, std::vector<Finding>* findings) {
  SinkChecker checker(file, findings);
  for (const Group& group : file->groups) {
    if (group.sink != nullptr) checker.Check(group);
  }
}

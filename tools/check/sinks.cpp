// Sinks that would not start, and those that are filled in but switched off.
#include <memory>

#include "check/settings_file.h"
#include "check/syntax.h"
#include "common/remedy.h"
#include "sinks/oxEventSink.h"

namespace {

using Form = oxEventSettingForm;
using Type = oxEventSinkType;
using Sink = oxEventSinkConfig;

constexpr uint32_t kMaxPort = 65535;

// The settings for which a sink refuses to start, whatever the machine is like. `mend` puts right what else could be
// refused, so that the refusal is this one's; and no factory that is called here comes so far as to touch the machine.
struct Refusable {
  Type type;
  const char* setting;
  bool (*is_refused)(const Sink& sink);
  void (*mend)(Sink* sink);
  uint32_t (*create)(const Sink& sink, std::shared_ptr<oxEventSink>* out, std::string* error);
  const char* remedy = nullptr;  // Where the table of errors has one for more than this.
};

constexpr char kSetPort[] = "A port is 0 to 65535; 0: the usual one.";

bool LacksPath(const Sink& sink) { return sink.path.empty(); }
bool LacksUrl(const Sink& sink) { return !HasHttpScheme(sink.endpoint_url); }
bool HasBadMode(const Sink& sink) {
  return !sink.payload_mode.empty() && !oxEventFindWord(g_oxEventPayloadModeWords, sink.payload_mode);
}
bool HasBadVersion(const Sink& sink) { return !oxEventFindWord(g_oxEventSnmpVersionWords, sink.version); }
bool HasBadPort(const Sink& sink) { return sink.port > kMaxPort; }
bool HasBadSnmpPort(const Sink& sink) { return sink.snmp_port > kMaxPort; }

void MendNothing(Sink* /*sink*/) {}
void MendUrl(Sink* sink) { sink->endpoint_url = "http://localhost"; }
void MendVersion(Sink* sink) { sink->version = "2c"; }

constexpr Refusable kRefusables[] = {  // In the order in which a sink looks at them.
    {Type::kCsv, "path", LacksPath, MendNothing, oxEventCreateCsvSink},
    {Type::kSyslogUdp, "port", HasBadPort, MendNothing, oxEventCreateSyslogUdpSink, kSetPort},
    {Type::kCloudEventsHttp, "endpoint_url", LacksUrl, MendNothing, oxEventCreateCloudEventsHttpSink},
    {Type::kWebhookHttp, "endpoint_url", LacksUrl, MendNothing, oxEventCreateCloudEventsHttpSink},
    {Type::kWebhookHttp, "payload_mode", HasBadMode, MendUrl, oxEventCreateCloudEventsHttpSink},
    {Type::kSnmpTrap, "version", HasBadVersion, MendNothing, oxEventCreateSnmpTrapSink},
    {Type::kSnmpTrap, "port", HasBadSnmpPort, MendVersion, oxEventCreateSnmpTrapSink, kSetPort}};

class Rules {
 public:
  Rules(SettingsFile* file, std::vector<Finding>* findings) : file_(*file), findings_(*findings) {}

  void Check(const Group& group) {
    for (const Refusable& refusable : kRefusables) {
      if (refusable.type == group.sink->type && refusable.is_refused(*group.sink)) CheckRefusal(group, refusable);
    }
    if (!group.sink->enabled) CheckDisabled(group);
  }

 private:
  void CheckRefusal(const Group& group, const Refusable& refusable) {
    Sink sink = *group.sink;
    refusable.mend(&sink);
    std::shared_ptr<oxEventSink> none;
    std::string error;
    refusable.create(sink, &none, &error);
    const Value* const value = group.Find(refusable.setting);
    const Position where = group.At(refusable.setting);
    const std::string path = group.PathOf(refusable.setting);
    std::vector<std::string> words;
    if (value != nullptr) {
      for (const oxEventWord& word : value->setting->words) words.emplace_back(word.text);
    }
    std::string remedy(refusable.remedy != nullptr ? refusable.remedy : RemedyFor(error));
    if (const std::string meant = words.empty() ? "" : Suggestion(value->text, words); !meant.empty()) {
      remedy.replace(remedy.size() - 1, 1, meant);  // For the full stop.
    }
    if (sink.enabled) {
      if (file_.refusal.empty()) file_.refusal = error;
      findings_.push_back({Grade::kError, "sink-refused", where, path, error, remedy});
    } else if (value != nullptr && !value->text.empty()) {
      findings_.push_back({Grade::kWarning, "sink-refused", where, path,
                           "the library would not start with this sink enabled: " + error, remedy});
    }
  }

  // Whoever fills in where a sink sends to, or its secrets, means it to send.
  void CheckDisabled(const Group& group) {
    if (file_.bad_values.count(group.PathOf("enabled")) != 0) return;  // Which may well mean on.
    for (const Value& value : group.values) {
      const oxEventSetting& setting = *value.setting;
      const bool tells = setting.form == Form::kUrl || setting.form == Form::kHost || setting.form == Form::kPath ||
                         setting.form == Form::kSecret || setting.form == Form::kHeaderLines;
      const std::string text = value.text;
      if (!tells || !setting.has_effect || text.empty() || text == oxEventSettingDefault(setting)) continue;
      const bool missing = group.Find("enabled") == nullptr;
      findings_.push_back({Grade::kWarning, "filled-in-but-off", group.At("enabled"), group.PathOf("enabled"),
                           std::string("the sink is ") + (missing ? "off by default" : "off") + ", but filled in",
                           "Set enabled to 1; or else take its " + std::string(setting.name) + " out."});
      findings_.push_back({Grade::kNote, "filled-in-but-off", value.where, group.PathOf(setting.name),
                           "has no effect while the sink is off", "Take it out, or set enabled to 1."});
      return;
    }
  }

  SettingsFile& file_;
  std::vector<Finding>& findings_;
};

}  // namespace

void CheckSinks(SettingsFile* file, std::vector<Finding>* findings) {
  Rules rules(file, findings);
  for (const Group& group : file->groups) {
    if (group.sink != nullptr) rules.Check(group);
  }
}

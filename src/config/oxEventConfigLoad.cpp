#include "config/oxEventConfigLoad.h"

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "base/oxEventErrorText.h"
#include "config/oxEventConfigStore.h"
#include "config/oxEventSettings.h"
#include "oxEvent.h"

namespace {

std::string KeyPath(const oxEventSection& section) { return std::string(kOxEventSettingsRoot) + "\\" + section.key; }

// Reads one setting into its field. The default of a number is the previous value of the field; other types take their
// default from the table.
class SettingReader {
 public:
  SettingReader(oxEventConfigStore& store, const std::string& key, const oxEventSetting& setting, std::string* error)
      : store_(store), key_(key), setting_(setting), error_(error) {}

  uint32_t Read(bool* field) {
    const bool default_value = oxEventFindWord(g_oxEventSwitchWords, oxEventSettingDefault(setting_)) == 1u;
    *field = store_.ReadBool(key_, setting_.name, default_value);
    return OXEVENT_OK;
  }
  uint32_t Read(uint32_t* field) {
    const bool is_severity = setting_.form == oxEventSettingForm::kSeverity;
    *field = is_severity ? store_.ReadSeverity(key_, *field) : store_.ReadDword(key_, setting_.name, *field);
    if (*field != 0 || setting_.form != oxEventSettingForm::kCapacity) return OXEVENT_OK;
    return oxEventSetErrorText(oxEventErrors::kNotAboveZero, {setting_.name}, error_);
  }
  uint32_t Read(std::string* field) {
    *field = store_.ReadString(key_, setting_.name, oxEventSettingDefault(setting_));
    return OXEVENT_OK;
  }
  uint32_t Read(oxEventDropPolicy* field) {
    const std::string text = store_.ReadString(key_, setting_.name, oxEventSettingDefault(setting_));
    const auto policy = oxEventFindWord(setting_.words, text);
    if (!policy) return oxEventSetErrorText(oxEventErrors::kBadDropPolicy, {key_, text}, error_);
    *field = static_cast<oxEventDropPolicy>(*policy);
    return OXEVENT_OK;
  }

 private:
  oxEventConfigStore& store_;
  const std::string& key_;
  const oxEventSetting& setting_;
  std::string* const error_;
};

template <class Value>
Value* FieldOf(Value oxEventConfig::*field, oxEventConfig* config, oxEventSinkConfig* /*sink*/) {
  return &(config->*field);
}

template <class Value>
Value* FieldOf(Value oxEventSinkConfig::*field, oxEventConfig* /*config*/, oxEventSinkConfig* sink) {
  return &(sink->*field);
}

using BadValues = std::vector<oxEventBadValue>;

// Reads the settings of one key. `sink` is null for a section without instances. Appends every invalid value to
// *bad_values and continues; if `bad_values` is null, stops at an invalid queue_size or drop_policy. In both cases the
// store remembers whether a switch or a severity was invalid (HasInvalidSwitchOrSeverity).
uint32_t ReadSettings(oxEventConfigStore& store, const oxEventSection& section, const std::string& key,
                      oxEventConfig* config, oxEventSinkConfig* sink, BadValues* bad_values, std::string* error) {
  for (const oxEventSetting& setting : section.settings) {
    SettingReader reader(store, key, setting, error);
    const uint32_t result =
        std::visit([&](auto field) { return reader.Read(FieldOf(field, config, sink)); }, setting.field);
    if (bad_values == nullptr && result != OXEVENT_OK) return result;
    if (bad_values == nullptr || error->empty()) continue;
    bad_values->push_back({key, setting.name, *error});
    error->clear();
  }
  return OXEVENT_OK;
}

// The CloudEvents sink reads the webhook fields. Its section has no tls_verify: certificates are not verified.
void CopyToWebhookFields(oxEventSinkConfig* sink) {
  sink->endpoint_url = sink->ce_endpoint_url;
  sink->payload_mode = "cloudevents";
  sink->headers = sink->ce_auth_header;
  sink->connect_timeout_ms = sink->ce_timeout_ms;
  sink->request_timeout_ms = sink->ce_timeout_ms;
  sink->cloudevents_source = sink->ce_source;
  sink->cloudevents_subject_prefix = sink->ce_subject_prefix;
  sink->tls_verify = false;
}

uint32_t ReadSink(oxEventConfigStore& store, const oxEventSection& section, const std::string& name,
                  oxEventConfig* config, BadValues* bad_values, std::string* error) {
  const std::string key = KeyPath(section) + "\\" + name;
  store.EnsureKey(key);
  oxEventSinkConfig sink;
  sink.type = section.type;
  sink.name = name;
  const uint32_t result = ReadSettings(store, section, key, config, &sink, bad_values, error);
  if (section.type == oxEventSinkType::kCloudEventsHttp) CopyToWebhookFields(&sink);
  config->sinks.push_back(std::move(sink));
  return result;
}

// Returns the instance names of each section, in the order of g_oxEventSections; none for a key that holds its settings
// itself.
std::vector<std::vector<std::string>> InstanceNames(oxEventConfigStore& store) {
  std::vector<std::vector<std::string>> instances;
  for (const oxEventSection& section : g_oxEventSections) {
    instances.emplace_back();
    if (section.default_instance == nullptr) continue;
    instances.back() = store.EnumChildren(KeyPath(section));
    if (instances.back().empty()) instances.back().emplace_back(section.default_instance);
  }
  return instances;
}

uint32_t Load(const char* path, oxEventConfig* config, BadValues* bad_values, std::string* error) {
  if (config == nullptr) return oxEventSetErrorText(oxEventErrors::kConfigOutput, error);
  *config = oxEventConfig();
  if (path == nullptr || path[0] == '\0') return oxEventSetErrorText(oxEventErrors::kNoConfigPath, error);
  oxEventConfigStore store(error);
  if (!store.Open(path)) return oxEventSetErrorText(oxEventErrors::kConfigUnreadable, {path}, error);

  store.EnsureKey(kOxEventSettingsRoot);
  for (const oxEventSection& section : g_oxEventSections) store.EnsureKey(KeyPath(section));
  config->config_path = path;
  for (const oxEventSection& section : g_oxEventSections) {
    if (section.default_instance != nullptr) continue;
    const uint32_t result = ReadSettings(store, section, KeyPath(section), config, nullptr, bad_values, error);
    if (result != OXEVENT_OK) return result;
  }
  const auto instances = InstanceNames(store);
  for (size_t i = 0; i < instances.size(); ++i) {
    for (const std::string& name : instances[i]) {
      const uint32_t result = ReadSink(store, g_oxEventSections[i], name, config, bad_values, error);
      if (result != OXEVENT_OK) return result;
    }
  }
  if (store.HasInvalidSwitchOrSeverity()) return OXEVENT_INVALID_ARGUMENT;
  store.Save();
  return OXEVENT_OK;
}

}  // namespace

uint32_t oxEventConfigLoad(const char* path, oxEventConfig* config, std::string* error) {
  std::string own_error;
  if (error == nullptr) error = &own_error;
  error->clear();
  return Load(path, config, nullptr, error);
}

uint32_t oxEventConfigLoadReportingAll(const char* path, oxEventConfig* config,
                                       std::vector<oxEventBadValue>* bad_values, std::string* error) {
  error->clear();
  return Load(path, config, bad_values, error);
}

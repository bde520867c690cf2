#include "config/oxEventConfigLoad.h"

#include <algorithm>
#include <span>
#include <variant>

#include "base/oxEventAscii.h"
#include "base/oxEventErrorText.h"
#include "config/oxEventConfigStore.h"
#include "oxEvent.h"

namespace {

constexpr char kRoot[] = "QVX\\Events";
constexpr char kCore[] = "QVX\\Events\\core";
constexpr char kState[] = "QVX\\Events\\state";

// A value of a sink: its name in the store and the field that it fills, which tells its type. Where the default to
// write differs from the field's own, it stands here.
struct Setting {
  const char* name;
  std::variant<std::string oxEventSinkConfig::*, uint32_t oxEventSinkConfig::*, bool oxEventSinkConfig::*> field;
  const char* default_text = nullptr;
};

using S = oxEventSinkConfig;

// In reading order, which is the order in a completed file.
constexpr Setting kCsv[] = {{"path", &S::path, "oxEvent.csv"}, {"flush_each_event", &S::flush_each_event}};

constexpr Setting kSyslogUdp[] = {{"host", &S::host, "127.0.0.1"},
                                  {"port", &S::port},
                                  {"facility", &S::facility, "local0"},
                                  {"app_name", &S::app_name, "oxEvent"}};

constexpr Setting kNative[] = {{"source_name", &S::source_name, "oxEvent"},
                               {"facility", &S::native_facility},
                               {"subsystem", &S::subsystem},
                               {"category", &S::category}};

constexpr Setting kCloudEventsHttp[] = {{"endpoint_url", &S::ce_endpoint_url},
                                        {"source", &S::ce_source},
                                        {"subject_prefix", &S::ce_subject_prefix},
                                        {"auth_header", &S::ce_auth_header},
                                        {"timeout_ms", &S::ce_timeout_ms}};

constexpr Setting kWebhookHttp[] = {{"endpoint_url", &S::endpoint_url},
                                    {"payload_mode", &S::payload_mode},
                                    {"headers", &S::headers},
                                    {"bearer_token", &S::bearer_token},
                                    {"basic_username", &S::basic_username},
                                    {"basic_password", &S::basic_password},
                                    {"connect_timeout_ms", &S::connect_timeout_ms},
                                    {"request_timeout_ms", &S::request_timeout_ms},
                                    {"tls_verify", &S::tls_verify},
                                    {"retry_count", &S::retry_count},
                                    {"backoff_ms", &S::backoff_ms},
                                    {"cloudevents_source", &S::cloudevents_source},
                                    {"cloudevents_subject_prefix", &S::cloudevents_subject_prefix}};

constexpr Setting kSnmpTrap[] = {{"host", &S::snmp_host},
                                 {"port", &S::snmp_port},
                                 {"community", &S::community},
                                 {"version", &S::version},
                                 {"enterprise_oid", &S::enterprise_oid},
                                 {"trap_oid", &S::trap_oid}};

constexpr Setting kAlertmanager[] = {{"url", &S::url},
                                     {"send_resolved", &S::send_resolved},
                                     {"allow_source_label", &S::allow_source_label},
                                     {"alertname_prefix", &S::alertname_prefix},
                                     {"authorization_type", &S::authorization_type},
                                     {"authorization_token", &S::authorization_token},
                                     {"connect_timeout_ms", &S::am_connect_timeout_ms},
                                     {"request_timeout_ms", &S::am_request_timeout_ms},
                                     {"verify_tls", &S::verify_tls},
                                     {"retry_count", &S::am_retry_count},
                                     {"retry_backoff_ms", &S::retry_backoff_ms}};

struct SinkKind {
  oxEventSinkType type;
  const char* key;
  const char* default_instance;
  std::span<const Setting> settings;
};

constexpr SinkKind kSinkKinds[] = {
    {oxEventSinkType::kCsv, "QVX\\Events\\sink\\csv", "default", kCsv},
    {oxEventSinkType::kSyslogUdp, "QVX\\Events\\sink\\syslog\\udp", "default", kSyslogUdp},
    {oxEventSinkType::kNative, "QVX\\Events\\sink\\native", "main", kNative},
    {oxEventSinkType::kCloudEventsHttp, "QVX\\Events\\sink\\cloudevents\\http", "default", kCloudEventsHttp},
    {oxEventSinkType::kWebhookHttp, "QVX\\Events\\sink\\webhook\\http", "default", kWebhookHttp},
    {oxEventSinkType::kSnmpTrap, "QVX\\Events\\sink\\snmp\\trap", "default", kSnmpTrap},
    {oxEventSinkType::kAlertmanager, "QVX\\Events\\sink\\alertmanager", "main", kAlertmanager}};

uint32_t Fail(std::initializer_list<std::string_view> text, std::string* error) {
  oxEventSetErrorText(text, error);
  return OXEVENT_INVALID_ARGUMENT;
}

uint32_t ReadDropPolicy(oxEventConfigStore& store, oxEventDropPolicy* policy, std::string* error) {
  const std::string text = store.ReadString(kCore, "drop_policy", "drop_newest");
  const std::string lower = oxEventAsciiLower(text);
  if (lower == "drop_newest" || lower == "newest" || lower == "drop") {
    *policy = oxEventDropPolicy::kDropNewest;
  } else if (lower == "drop_debug_info_first" || lower == "debug_info_first" || lower == "drop_low_severity_first") {
    *policy = oxEventDropPolicy::kDropDebugInfoFirst;
  } else {
    return Fail({"Invalid drop_policy value for ", kCore, "\\drop_policy: ", text}, error);
  }
  return OXEVENT_OK;
}

uint32_t ReadCoreAndState(oxEventConfigStore& store, oxEventConfig* config, std::string* error) {
  config->enabled = store.ReadBool(kCore, "enabled", config->enabled);
  config->minimum_severity = store.ReadSeverity(kCore, config->minimum_severity);
  config->queue_size = store.ReadDword(kCore, "queue_size", config->queue_size);
  if (config->queue_size == 0) return Fail({"queue_size must be greater than zero"}, error);
  if (const uint32_t result = ReadDropPolicy(store, &config->drop_policy, error); result != OXEVENT_OK) return result;

  config->state_enabled = store.ReadBool(kState, "enabled", config->state_enabled);
  config->dedupe_enabled = store.ReadBool(kState, "dedupe_enabled", config->dedupe_enabled);
  config->default_repeat_interval_sec =
      store.ReadDword(kState, "default_repeat_interval_sec", config->default_repeat_interval_sec);
  config->send_clear = store.ReadBool(kState, "send_clear", config->send_clear);
  config->route_orphan_clear = store.ReadBool(kState, "route_orphan_clear", config->route_orphan_clear);
  return OXEVENT_OK;
}

void ReadSetting(oxEventConfigStore& store, const std::string& key, const Setting& setting, oxEventSinkConfig* sink) {
  if (const auto* text = std::get_if<std::string S::*>(&setting.field)) {
    std::string& field = sink->**text;
    field = store.ReadString(key, setting.name, setting.default_text == nullptr ? field : setting.default_text);
  } else if (const auto* number = std::get_if<uint32_t S::*>(&setting.field)) {
    sink->** number = store.ReadDword(key, setting.name, sink->**number);
  } else if (const auto* flag = std::get_if<bool S::*>(&setting.field)) {
    sink->** flag = store.ReadBool(key, setting.name, sink->**flag);
  }
}

// The CloudEvents sink goes by the webhook fields. Its section has no switch for TLS: it never verifies.
void ExpressAsWebhook(oxEventSinkConfig* sink) {
  sink->endpoint_url = sink->ce_endpoint_url;
  sink->payload_mode = "cloudevents";
  sink->headers = sink->ce_auth_header;
  sink->connect_timeout_ms = sink->ce_timeout_ms;
  sink->request_timeout_ms = sink->ce_timeout_ms;
  sink->cloudevents_source = sink->ce_source;
  sink->cloudevents_subject_prefix = sink->ce_subject_prefix;
  sink->tls_verify = false;
}

oxEventSinkConfig ReadSink(oxEventConfigStore& store, const SinkKind& kind, const std::string& name,
                           uint32_t core_severity) {
  const std::string key = std::string(kind.key) + "\\" + name;
  store.EnsureKey(key);
  oxEventSinkConfig sink;
  sink.type = kind.type;
  sink.name = name;
  sink.enabled = store.ReadBool(key, "enabled", kind.type == oxEventSinkType::kNative);
  const bool alarms_only = kind.type == oxEventSinkType::kSnmpTrap || kind.type == oxEventSinkType::kAlertmanager;
  sink.minimum_severity = store.ReadSeverity(key, alarms_only ? 2 : core_severity);
  for (const Setting& setting : kind.settings) ReadSetting(store, key, setting, &sink);
  if (kind.type == oxEventSinkType::kCloudEventsHttp) ExpressAsWebhook(&sink);
  return sink;
}

void EnsureKeys(oxEventConfigStore& store) {
  for (const char* key : {kRoot, kCore, kState}) store.EnsureKey(key);
  for (const SinkKind& kind : kSinkKinds) store.EnsureKey(kind.key);
}

uint32_t Load(const char* path, oxEventConfig* config, std::string* error) {
  if (config == nullptr) return Fail({"Invalid oxEventConfig output"}, error);
  *config = oxEventConfig();
  if (path == nullptr || path[0] == '\0') return Fail({"oxEvent requires a oxCFG XML config path"}, error);
  oxEventConfigStore store(error);
  if (!store.Open(path)) return Fail({"Unable to open oxEvent config: ", path}, error);

  EnsureKeys(store);
  config->config_path = path;
  if (const uint32_t result = ReadCoreAndState(store, config, error); result != OXEVENT_OK) return result;

  std::vector<std::string> instances[std::size(kSinkKinds)];
  for (size_t i = 0; i < std::size(kSinkKinds); ++i) {
    instances[i] = store.EnumChildren(kSinkKinds[i].key);
    if (instances[i].empty()) instances[i].emplace_back(kSinkKinds[i].default_instance);
  }
  for (size_t i = 0; i < std::size(kSinkKinds); ++i) {
    for (const std::string& name : instances[i]) {
      config->sinks.push_back(ReadSink(store, kSinkKinds[i], name, config->minimum_severity));
    }
  }
  if (store.HasBadValue()) return OXEVENT_INVALID_ARGUMENT;
  store.Save();
  return OXEVENT_OK;
}

}  // namespace

uint32_t oxEventConfigLoad(const char* path, oxEventConfig* config, std::string* error) {
  std::string own_error;
  if (error == nullptr) error = &own_error;
  error->clear();
  return Load(path, config, error);
}

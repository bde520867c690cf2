#include "config/oxEventSettings.h"

#include <algorithm>

#include "base/oxEventAscii.h"

namespace {

using C = oxEventConfig;
using S = oxEventSinkConfig;
using Form = oxEventSettingForm;

constexpr oxEventWord kSwitchWords[] = {{"1", 1}, {"true", 1},  {"yes", 1}, {"on", 1},  {"enabled", 1},
                                        {"0", 0}, {"false", 0}, {"no", 0},  {"off", 0}, {"disabled", 0}};

constexpr oxEventWord kSeverityWords[] = {{"debug", 0}, {"info", 1},  {"information", 1}, {"warning", 2},
                                          {"warn", 2},  {"error", 3}, {"err", 3}};

constexpr auto kDropNewest = static_cast<uint32_t>(oxEventDropPolicy::kDropNewest);
constexpr auto kDropDebugInfoFirst = static_cast<uint32_t>(oxEventDropPolicy::kDropDebugInfoFirst);
constexpr oxEventWord kDropPolicyWords[] = {{"drop_newest", kDropNewest},
                                            {"newest", kDropNewest},
                                            {"drop", kDropNewest},
                                            {"drop_debug_info_first", kDropDebugInfoFirst},
                                            {"debug_info_first", kDropDebugInfoFirst},
                                            {"drop_low_severity_first", kDropDebugInfoFirst}};

constexpr oxEventWord kSyslogFacilityWords[] = {
    {"kern", 0},    {"user", 1},    {"mail", 2},    {"daemon", 3},  {"auth", 4},      {"security", 4}, {"syslog", 5},
    {"lpr", 6},     {"news", 7},    {"uucp", 8},    {"cron", 9},    {"authpriv", 10}, {"ftp", 11},     {"local0", 16},
    {"local1", 17}, {"local2", 18}, {"local3", 19}, {"local4", 20}, {"local5", 21},   {"local6", 22},  {"local7", 23}};

constexpr oxEventWord kNativeFacilityWords[] = {
    {"kern", 0},    {"user", 1},      {"mail", 2},    {"daemon", 3},  {"auth", 4},    {"security", 4},
    {"cron", 9},    {"authpriv", 10}, {"ftp", 11},    {"local0", 16}, {"local1", 17}, {"local2", 18},
    {"local3", 19}, {"local4", 20},   {"local5", 21}, {"local6", 22}, {"local7", 23}};

constexpr oxEventWord kPayloadModeWords[] = {{"native_json", kOxEventPayloadNativeJson},
                                             {"native", kOxEventPayloadNativeJson},
                                             {"cloudevents", kOxEventPayloadCloudEvents},
                                             {"cloudevents_structured", kOxEventPayloadCloudEvents}};

constexpr oxEventWord kSnmpVersionWords[] = {
    {"2c", kOxEventSnmpVersion2c}, {"v2c", kOxEventSnmpVersion2c}, {"snmpv2c", kOxEventSnmpVersion2c}};

constexpr oxEventSetting kCore[] = {
    {"enabled", &C::enabled, Form::kSwitch, "Off: every event is dropped."},
    {"minimum_severity", &C::minimum_severity, Form::kSeverity, "Events below this severity are dropped."},
    {"queue_size", &C::queue_size, Form::kCapacity, "The most events that may wait for the worker."},
    {"drop_policy", &C::drop_policy, Form::kWord,
     "What a full queue does with the next event: refuses it, or discards its oldest event below warning instead.",
     nullptr, kDropPolicyWords}};

constexpr oxEventSetting kState[] = {
    {"enabled", &C::state_enabled, Form::kSwitch, "Off: every event goes out as reported."},
    {"dedupe_enabled", &C::dedupe_enabled, Form::kSwitch, "Off: every event goes out as reported."},
    {"default_repeat_interval_sec", &C::default_repeat_interval_sec, Form::kSeconds,
     "After this time, the next report of a raised condition goes out again; a raise goes out as a repeat. 0: every "
     "report goes out."},
    {"send_clear", &C::send_clear, Form::kSwitch, "Whether the clear of a raised condition goes out."},
    {"route_orphan_clear", &C::route_orphan_clear, Form::kSwitch,
     "Whether the clear of a condition that is not raised goes out."}};

constexpr std::string_view kEnabledMeaning = "Whether events go to this sink.";
constexpr oxEventSetting kEnabled = {"enabled", &S::enabled, Form::kSwitch, kEnabledMeaning};
constexpr oxEventSetting kMinimumSeverity = {"minimum_severity", &S::minimum_severity, Form::kSeverity,
                                             "This sink skips events below this severity."};

constexpr oxEventSetting kCsv[] = {
    kEnabled,
    kMinimumSeverity,
    {"path", &S::path, Form::kPath, "The file that rows are appended to. Missing directories are created.",
     "oxEvent.csv"},
    {"flush_each_event", &S::flush_each_event, Form::kSwitch,
     "On: each row is written at once. Off: rows are written in blocks."}};

constexpr oxEventSetting kSyslogUdp[] = {
    kEnabled,
    kMinimumSeverity,
    {"host", &S::host, Form::kHost,
     "The collector: a name, or an IPv4 or IPv6 address. A name is looked up when the settings are loaded; the start "
     "fails if it is not found.",
     "127.0.0.1"},
    {"port", &S::port, Form::kPort, "The collector's UDP port. 0: 514."},
    {"facility", &S::facility, Form::kWord, "Syslog facility of the messages. An unknown name means local0.", "local0",
     kSyslogFacilityWords},
    {"app_name",
     &S::app_name,
     Form::kText,
     "The APP-NAME of the messages, at most 48 characters.",
     "oxEvent",
     {},
     true,
     kOxEventAppNameMaxBytes}};

constexpr oxEventSetting kNative[] = {
    {"enabled", &S::enabled, Form::kSwitch, kEnabledMeaning, "1"},
    kMinimumSeverity,
    {"source_name", &S::source_name, Form::kText,
     "The identity that the log shows. It belongs to the process: after an event, the host's own lines carry it too, "
     "until the host calls openlog again.",
     "oxEvent"},
    {"facility", &S::native_facility, Form::kWord,
     "Syslog facility of the lines. An unknown name means local4. It belongs to the process: after an event, the "
     "host's own lines that name no facility use it too, until the host calls openlog again.",
     nullptr, kNativeFacilityWords},
    {"subsystem", &S::subsystem, Form::kText, "Carried, without effect on Linux.", nullptr, {}, false},
    {"category", &S::category, Form::kText, "Carried, without effect on Linux.", nullptr, {}, false}};

constexpr oxEventSetting kCloudEventsHttp[] = {
    kEnabled,
    kMinimumSeverity,
    {"endpoint_url", &S::ce_endpoint_url, Form::kUrl, "The URL that events are posted to."},
    {"source", &S::ce_source, Form::kUriReference,
     "The source attribute of the events. Choose one that tells machines and restarts apart. Empty: /oxEvent."},
    {"subject_prefix", &S::ce_subject_prefix, Form::kText, "Prefix of the subject attribute."},
    {"auth_header", &S::ce_auth_header, Form::kHeaderLines,
     "Additional header lines, separated by line ends or \"|\"."},
    {"timeout_ms", &S::ce_timeout_ms, Form::kMilliseconds,
     "Timeout of the whole request: name lookup, connection, response. 0: 5000."}};

constexpr oxEventSetting kWebhookHttp[] = {
    kEnabled,
    kMinimumSeverity,
    {"endpoint_url", &S::endpoint_url, Form::kUrl, "The URL that events are posted to."},
    {"payload_mode", &S::payload_mode, Form::kWord,
     "The body: a plain JSON document, or CloudEvents 1.0 in structured mode.", nullptr, kPayloadModeWords},
    {"headers", &S::headers, Form::kHeaderLines, "Additional header lines, separated by line ends or \"|\"."},
    {"bearer_token", &S::bearer_token, Form::kSecret, "Sent as Authorization: Bearer."},
    {"basic_username", &S::basic_username, Form::kText, "Sent, with the password, as Authorization: Basic."},
    {"basic_password", &S::basic_password, Form::kSecret, "Sent, with the user's name, as Authorization: Basic."},
    {"connect_timeout_ms", &S::connect_timeout_ms, Form::kMilliseconds,
     "Timeout of name lookup, connection and TLS together. 0: as long as request_timeout_ms."},
    {"request_timeout_ms", &S::request_timeout_ms, Form::kMilliseconds, "Timeout of the whole request. 0: 5000."},
    {"tls_verify", &S::tls_verify, Form::kSwitch, "Off: any certificate is accepted."},
    {"retry_count", &S::retry_count, Form::kNumber,
     "Retries after a failed attempt; later events wait meanwhile. 4294967295: no attempt at all."},
    {"backoff_ms", &S::backoff_ms, Form::kMilliseconds, "The wait before each retry. 0: 250."},
    {"cloudevents_source", &S::cloudevents_source, Form::kUriReference,
     "The source attribute of CloudEvents. Choose one that tells machines and restarts apart. Empty: /oxEvent."},
    {"cloudevents_subject_prefix", &S::cloudevents_subject_prefix, Form::kText,
     "Prefix of the subject attribute of CloudEvents."}};

constexpr oxEventSetting kSnmpTrap[] = {
    kEnabled,
    kMinimumSeverity,
    {"host", &S::snmp_host, Form::kHost,
     "The manager: a name, or an IPv4 or IPv6 address. A name is looked up when the settings are loaded; the start "
     "fails if it is not found."},
    {"port", &S::snmp_port, Form::kPort, "The manager's UDP port. 0: 162."},
    {"community", &S::community, Form::kSecret, "The community of the traps. It travels unencrypted. Empty: cobalt."},
    {"version", &S::version, Form::kWord, "SNMP version. Only 2c is supported.", nullptr, kSnmpVersionWords},
    {"enterprise_oid", &S::enterprise_oid, Form::kOid, "OID prefix of the objects in the trap."},
    {"trap_oid", &S::trap_oid, Form::kOid, "OID that identifies the trap."}};

constexpr std::string_view kNotSent = "Carried, without effect: the host posts the documents.";
constexpr oxEventSetting kAlertmanager[] = {
    kEnabled,
    kMinimumSeverity,
    {"url", &S::url, Form::kUrl, kNotSent, nullptr, {}, false},
    {"send_resolved", &S::send_resolved, Form::kSwitch, "Whether the end of a condition makes a document."},
    {"allow_source_label", &S::allow_source_label, Form::kSwitch,
     "Whether source_id becomes a label, and so part of the alert's identity."},
    {"alertname_prefix", &S::alertname_prefix, Form::kText,
     "Prefix of the alert's name; only letters, digits and \"_\" in it are used. If it has none of these: OxEvent."},
    {"authorization_type", &S::authorization_type, Form::kText, kNotSent, nullptr, {}, false},
    {"authorization_token", &S::authorization_token, Form::kSecret, kNotSent, nullptr, {}, false},
    {"connect_timeout_ms", &S::am_connect_timeout_ms, Form::kMilliseconds, kNotSent, nullptr, {}, false},
    {"request_timeout_ms", &S::am_request_timeout_ms, Form::kMilliseconds, kNotSent, nullptr, {}, false},
    {"verify_tls", &S::verify_tls, Form::kSwitch, kNotSent, nullptr, {}, false},
    {"retry_count", &S::am_retry_count, Form::kNumber, kNotSent, nullptr, {}, false},
    {"retry_backoff_ms", &S::retry_backoff_ms, Form::kMilliseconds, kNotSent, nullptr, {}, false}};

using Type = oxEventSinkType;
constexpr oxEventSection kSections[] = {
    {"core", nullptr, {}, "Which events are accepted, and the queue.", kCore},
    {"state", nullptr, {}, "Raised conditions: duplicates, repeats, clears.", kState},
    {"sink\\csv", "default", Type::kCsv,
     "A file of comma-separated values (RFC 4180, but lines end in a single line feed).", kCsv},
    {"sink\\syslog\\udp", "default", Type::kSyslogUdp,
     "RFC 5424 messages over UDP, with all fields but the message in the structured data velmora@32473.", kSyslogUdp},
    {"sink\\native", "main", Type::kNative, "The system log of this machine.", kNative},
    {"sink\\cloudevents\\http", "default", Type::kCloudEventsHttp,
     "CloudEvents 1.0 in structured mode, one POST per event, without further tries; TLS is never verified.",
     kCloudEventsHttp},
    {"sink\\webhook\\http", "default", Type::kWebhookHttp, "One POST per event.", kWebhookHttp},
    {"sink\\snmp\\trap", "default", Type::kSnmpTrap, "SNMPv2c traps.", kSnmpTrap},
    {"sink\\alertmanager", "main", Type::kAlertmanager, "Formats alerts for an Alertmanager, and sends nothing.",
     kAlertmanager}};

// As a file has it: the first word of those that mean the value.
std::string WordFor(oxEventWords words, uint32_t value) {
  return std::string(
      std::find_if(words.begin(), words.end(), [=](const oxEventWord& w) { return w.value == value; })->text);
}

std::string TextOf(const oxEventSetting& /*setting*/, bool value) { return WordFor(kSwitchWords, value ? 1 : 0); }
std::string TextOf(const oxEventSetting& /*setting*/, std::string value) { return value; }
std::string TextOf(const oxEventSetting& setting, oxEventDropPolicy value) {
  return WordFor(setting.words, static_cast<uint32_t>(value));
}
std::string TextOf(const oxEventSetting& setting, uint32_t value) {
  return setting.form == Form::kSeverity ? WordFor(kSeverityWords, value) : std::to_string(value);
}

template <class Record, class Value>
Value DefaultOf(Value Record::*field) {
  return Record().*field;
}

}  // namespace

const oxEventWords g_oxEventSwitchWords = kSwitchWords;
const oxEventWords g_oxEventSeverityWords = kSeverityWords;
const oxEventWords g_oxEventSyslogFacilityWords = kSyslogFacilityWords;
const oxEventWords g_oxEventNativeFacilityWords = kNativeFacilityWords;
const oxEventWords g_oxEventPayloadModeWords = kPayloadModeWords;
const oxEventWords g_oxEventSnmpVersionWords = kSnmpVersionWords;
const std::span<const oxEventSection> g_oxEventSections = kSections;

std::optional<uint32_t> oxEventFindWord(oxEventWords words, std::string_view text) {
  const std::string lower = oxEventAsciiLower(text);
  const auto word = std::find_if(words.begin(), words.end(), [&](const oxEventWord& w) { return w.text == lower; });
  return word == words.end() ? std::nullopt : std::optional(word->value);
}

std::string oxEventSettingDefault(const oxEventSetting& setting) {
  if (setting.default_text != nullptr) return setting.default_text;
  return std::visit([&](auto field) { return TextOf(setting, DefaultOf(field)); }, setting.field);
}

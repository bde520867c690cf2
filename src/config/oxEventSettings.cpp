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
    {"enabled", &C::enabled, Form::kSwitch, "If off, every event is dropped."},
    {"minimum_severity", &C::minimum_severity, Form::kSeverity, "Events below this severity are dropped."},
    {"queue_size", &C::queue_size, Form::kCapacity, "Maximum number of events that wait for the worker thread."},
    {"drop_policy", &C::drop_policy, Form::kWord,
     "What is dropped when the queue is full: the new event, or the oldest queued event below warning, if there is "
     "one.",
     nullptr, kDropPolicyWords}};

constexpr oxEventSetting kState[] = {
    {"enabled", &C::state_enabled, Form::kSwitch, "If off, every event is delivered as reported."},
    {"dedupe_enabled", &C::dedupe_enabled, Form::kSwitch,
     "Has the same effect as enabled: if either is off, every event is delivered as reported."},
    {"default_repeat_interval_sec", &C::default_repeat_interval_sec, Form::kSeconds,
     "How long raises, repeats and unchanged updates of a raised condition are suppressed, measured from the utc_ns of "
     "the last event delivered for it to that of the report. After that, a raise is delivered as a repeat. Changed "
     "updates are always delivered. 0: every report of a raised condition is delivered."},
    {"send_clear", &C::send_clear, Form::kSwitch, "Whether the clear of a raised condition is delivered."},
    {"route_orphan_clear", &C::route_orphan_clear, Form::kSwitch,
     "Whether the clear of a condition that is not raised is delivered."}};

constexpr std::string_view kEnabledDescription = "Whether this sink receives events.";
constexpr oxEventSetting kEnabled = {"enabled", &S::enabled, Form::kSwitch, kEnabledDescription};
constexpr oxEventSetting kMinimumSeverity = {"minimum_severity", &S::minimum_severity, Form::kSeverity,
                                             "The sink ignores events below this severity."};

constexpr oxEventSetting kCsv[] = {
    kEnabled,
    kMinimumSeverity,
    {"path", &S::path, Form::kPath, "File to which rows are appended. Missing directories are created.", "oxEvent.csv"},
    {"flush_each_event", &S::flush_each_event, Form::kSwitch,
     "If on, each row is written immediately. If off, rows are written in blocks of about 64 KiB, and by a flush, a "
     "reload and a shutdown."}};

constexpr oxEventSetting kSyslogUdp[] = {
    kEnabled,
    kMinimumSeverity,
    {"host", &S::host, Form::kHost,
     "Name, IPv4 address or IPv6 address of the collector. A name is resolved when the settings are loaded; if that "
     "fails, so does the start or the reload. Empty: 127.0.0.1.",
     "127.0.0.1"},
    {"port", &S::port, Form::kPort, "UDP port of the collector. 0: 514."},
    {"facility", &S::facility, Form::kWord, "Syslog facility of the messages. An unknown name means local0.", "local0",
     kSyslogFacilityWords},
    {"app_name",
     &S::app_name,
     Form::kText,
     "APP-NAME of the messages, at most 48 bytes. Empty: oxEvent.",
     "oxEvent",
     {},
     true,
     kOxEventAppNameMaxBytes}};

constexpr oxEventSetting kNative[] = {
    {"enabled", &S::enabled, Form::kSwitch, kEnabledDescription, "1"},
    kMinimumSeverity,
    {"source_name", &S::source_name, Form::kText,
     "Identity shown in the log. It applies to the whole process: after the start and after each event, the host's own "
     "messages carry it too, until the host calls openlog again. Empty: oxEvent.",
     "oxEvent"},
    {"facility", &S::native_facility, Form::kWord,
     "Syslog facility of the messages. An unknown name means local4. It applies to the whole process: after the start "
     "and after each event, the host's own messages without a facility use it too, until the host calls openlog again.",
     nullptr, kNativeFacilityWords},
    {"subsystem", &S::subsystem, Form::kText, "Read, but has no effect on Linux.", nullptr, {}, false},
    {"category", &S::category, Form::kText, "Read, but has no effect on Linux.", nullptr, {}, false}};

constexpr oxEventSetting kCloudEventsHttp[] = {
    kEnabled,
    kMinimumSeverity,
    {"endpoint_url", &S::ce_endpoint_url, Form::kUrl, "URL to which events are posted."},
    {"source", &S::ce_source, Form::kUriReference,
     "The source attribute of the events. Receivers identify an event by its source and id, and the ids begin at 1 in "
     "each process, so each process needs a source of its own. The value in the file does not change by itself: write "
     "a new one before each start. Empty: /oxEvent."},
    {"subject_prefix", &S::ce_subject_prefix, Form::kText, "Prefix of the subject attribute."},
    {"auth_header", &S::ce_auth_header, Form::kHeaderLines,
     "Additional HTTP header lines, separated by line ends or \"|\"."},
    {"timeout_ms", &S::ce_timeout_ms, Form::kMilliseconds,
     "Timeout of the whole request: name resolution, connection and response. 0: 5000."}};

constexpr oxEventSetting kWebhookHttp[] = {
    kEnabled,
    kMinimumSeverity,
    {"endpoint_url", &S::endpoint_url, Form::kUrl, "URL to which events are posted."},
    {"payload_mode", &S::payload_mode, Form::kWord,
     "Format of the body: plain JSON, or CloudEvents 1.0 in structured mode. Empty: native_json.", nullptr,
     kPayloadModeWords},
    {"headers", &S::headers, Form::kHeaderLines, "Additional HTTP header lines, separated by line ends or \"|\"."},
    {"bearer_token", &S::bearer_token, Form::kSecret, "Token sent as Authorization: Bearer."},
    {"basic_username", &S::basic_username, Form::kText, "User name sent, with the password, as Authorization: Basic."},
    {"basic_password", &S::basic_password, Form::kSecret,
     "Password sent, with the user name, as Authorization: Basic."},
    {"connect_timeout_ms", &S::connect_timeout_ms, Form::kMilliseconds,
     "Timeout of name resolution, connection and TLS handshake together. 0: the same as request_timeout_ms."},
    {"request_timeout_ms", &S::request_timeout_ms, Form::kMilliseconds, "Timeout of the whole request. 0: 5000."},
    {"tls_verify", &S::tls_verify, Form::kSwitch, "If off, any certificate is accepted."},
    {"retry_count", &S::retry_count, Form::kNumber,
     "Maximum number of retries after a failed attempt; later events wait in the meantime. 4294967295: no attempt is "
     "made."},
    {"backoff_ms", &S::backoff_ms, Form::kMilliseconds, "Delay before each retry. 0: 250."},
    {"cloudevents_source", &S::cloudevents_source, Form::kUriReference,
     "The source attribute of CloudEvents. Receivers identify an event by its source and id, and the ids begin at 1 in "
     "each process, so each process needs a source of its own. The value in the file does not change by itself: write "
     "a new one before each start. Empty: /oxEvent."},
    {"cloudevents_subject_prefix", &S::cloudevents_subject_prefix, Form::kText,
     "Prefix of the subject attribute of CloudEvents."}};

constexpr oxEventSetting kSnmpTrap[] = {
    kEnabled,
    kMinimumSeverity,
    {"host", &S::snmp_host, Form::kHost,
     "Name, IPv4 address or IPv6 address of the manager. A name is resolved when the settings are loaded; if that "
     "fails, so does the start or the reload. Empty: 127.0.0.1."},
    {"port", &S::snmp_port, Form::kPort, "UDP port of the manager. 0: 162."},
    {"community", &S::community, Form::kSecret, "Community string of the traps, sent unencrypted. Empty: cobalt."},
    {"version", &S::version, Form::kWord, "SNMP version. Only 2c is supported.", nullptr, kSnmpVersionWords},
    {"enterprise_oid", &S::enterprise_oid, Form::kOid, "OID prefix of the objects in the trap. Empty: the default."},
    {"trap_oid", &S::trap_oid, Form::kOid, "OID that identifies the trap. Empty: the default."}};

constexpr std::string_view kNotSent = "Read, but has no effect: this sink sends nothing.";
constexpr oxEventSetting kAlertmanager[] = {
    kEnabled,
    kMinimumSeverity,
    {"url", &S::url, Form::kUrl, kNotSent, nullptr, {}, false},
    {"send_resolved", &S::send_resolved, Form::kSwitch, "Whether the end of a condition produces a document."},
    {"allow_source_label", &S::allow_source_label, Form::kSwitch,
     "Whether source_id becomes a label and thus part of the alert's identity."},
    {"alertname_prefix", &S::alertname_prefix, Form::kText,
     "Prefix of the alert's name. Characters other than letters, digits and \"_\" are removed. If nothing is "
     "left, the prefix is OxEvent."},
    {"authorization_type", &S::authorization_type, Form::kText, kNotSent, nullptr, {}, false},
    {"authorization_token", &S::authorization_token, Form::kSecret, kNotSent, nullptr, {}, false},
    {"connect_timeout_ms", &S::am_connect_timeout_ms, Form::kMilliseconds, kNotSent, nullptr, {}, false},
    {"request_timeout_ms", &S::am_request_timeout_ms, Form::kMilliseconds, kNotSent, nullptr, {}, false},
    {"verify_tls", &S::verify_tls, Form::kSwitch, kNotSent, nullptr, {}, false},
    {"retry_count", &S::am_retry_count, Form::kNumber, kNotSent, nullptr, {}, false},
    {"retry_backoff_ms", &S::retry_backoff_ms, Form::kMilliseconds, kNotSent, nullptr, {}, false}};

using Type = oxEventSinkType;
constexpr oxEventSection kSections[] = {
    {"core", nullptr, {}, "Which events are accepted, and how many are queued.", kCore},
    {"state", nullptr, {}, "Raised conditions: which duplicates, repeats and clears are delivered.", kState},
    {"sink\\csv", "default", Type::kCsv, "A CSV file (RFC 4180, but lines end in a single line feed).", kCsv},
    {"sink\\syslog\\udp", "default", Type::kSyslogUdp,
     "RFC 5424 messages over UDP, with all fields but the message in the structured data velmora@32473.", kSyslogUdp},
    {"sink\\native", "main", Type::kNative, "The system log of this machine.", kNative},
    {"sink\\cloudevents\\http", "default", Type::kCloudEventsHttp,
     "CloudEvents 1.0 in structured mode, one POST request per event, without retries. TLS certificates are not "
     "verified.",
     kCloudEventsHttp},
    {"sink\\webhook\\http", "default", Type::kWebhookHttp, "One POST request per event.", kWebhookHttp},
    {"sink\\snmp\\trap", "default", Type::kSnmpTrap, "SNMPv2c traps.", kSnmpTrap},
    {"sink\\alertmanager", "main", Type::kAlertmanager,
     "The sink formats each event as an alert for an Alertmanager, keeps only the document of the last one in memory, "
     "and sends nothing. A host that posts alerts formats them itself with oxEventFormatAlertmanagerRecord, whose "
     "options are not these settings.",
     kAlertmanager}};

// Returns the first word for the value.
std::string WordFor(oxEventWords words, uint32_t value) {
  return std::string(
      std::find_if(words.begin(), words.end(), [=](const oxEventWord& w) { return w.value == value; })->text);
}

std::string FormatValue(const oxEventSetting& /*setting*/, bool value) { return WordFor(kSwitchWords, value ? 1 : 0); }
std::string FormatValue(const oxEventSetting& /*setting*/, std::string value) { return value; }
std::string FormatValue(const oxEventSetting& setting, oxEventDropPolicy value) {
  return WordFor(setting.words, static_cast<uint32_t>(value));
}
std::string FormatValue(const oxEventSetting& setting, uint32_t value) {
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
  return std::visit([&](auto field) { return FormatValue(setting, DefaultOf(field)); }, setting.field);
}

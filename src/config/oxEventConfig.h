#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// The settings as loaded from the settings file. Constant once they are passed to the router.

// What a full queue drops.
enum class oxEventDropPolicy : uint32_t {
  kDropNewest = 0,          // The new event.
  kDropDebugInfoFirst = 1,  // The oldest queued event below warning; if there is none, the new event.
};

enum class oxEventSinkType : uint32_t {
  kCsv = 0,
  kSyslogUdp = 1,
  kNative = 2,
  kCloudEventsHttp = 3,
  kSnmpTrap = 4,
  kWebhookHttp = 5,
  kAlertmanager = 6,
};

// One configured sink. A flat struct for all types. A sink reads only the fields of its own type, except that a webhook
// sink whose own field is empty or 0 uses the corresponding CloudEvents field.
struct oxEventSinkConfig {
  oxEventSinkType type = oxEventSinkType::kNative;
  std::string name;  // Instance name: the name of its key.
  bool enabled = false;
  uint32_t minimum_severity = 1;

  // CSV.
  std::string path;
  bool flush_each_event = false;

  // Syslog over UDP.
  std::string host;
  uint32_t port = 5140;
  std::string facility;
  std::string app_name;

  // System log.
  std::string source_name;
  std::string native_facility = "local4";
  std::string subsystem = "com.velmora.oxEvent";
  std::string category = "events";

  // CloudEvents over HTTP, as read from the file. The loader copies these to the webhook fields, which the sink uses.
  std::string ce_endpoint_url;
  std::string ce_source = "/oxEvent";
  std::string ce_subject_prefix;
  std::string ce_auth_header;
  uint32_t ce_timeout_ms = 5000;

  // Webhook, and CloudEvents after loading.
  std::string endpoint_url;
  std::string payload_mode = "native_json";
  std::string headers;
  std::string bearer_token;
  std::string basic_username;
  std::string basic_password;
  uint32_t connect_timeout_ms = 2000;
  uint32_t request_timeout_ms = 5000;
  bool tls_verify = true;
  uint32_t retry_count = 0;
  uint32_t backoff_ms = 250;
  std::string cloudevents_source = "/oxEvent";
  std::string cloudevents_subject_prefix;

  // SNMP trap.
  std::string snmp_host = "127.0.0.1";
  uint32_t snmp_port = 162;
  std::string community = "cobalt";
  std::string version = "2c";
  std::string enterprise_oid = "1.3.6.1.4.1.32473.1.1";  // Both OIDs are also in docs/OX-EVENT-MIB.txt.
  std::string trap_oid = "1.3.6.1.4.1.32473.1.1.0.1";

  // Alertmanager.
  std::string url = "http://127.0.0.1:9093/api/v2/alerts";
  bool send_resolved = true;
  bool allow_source_label = false;
  std::string alertname_prefix = "OxEvent";
  std::string authorization_type = "none";
  std::string authorization_token;
  uint32_t am_connect_timeout_ms = 3000;
  uint32_t am_request_timeout_ms = 5000;
  bool verify_tls = true;
  uint32_t am_retry_count = 3;
  uint32_t retry_backoff_ms = 500;

  // Result of resolving the host of a syslog or SNMP sink, which is done before the lock of the library's lifecycle is
  // taken. If null, the sink resolves its host when it is opened.
  std::shared_ptr<const struct oxEventUdpLookup> lookup;

  bool operator==(const oxEventSinkConfig&) const = default;
};

struct oxEventConfig {
  std::string config_path;  // Path of the settings file.
  bool enabled = true;
  uint32_t minimum_severity = 1;
  uint32_t queue_size = 1024;  // Events; above 0.
  oxEventDropPolicy drop_policy = oxEventDropPolicy::kDropNewest;
  bool state_enabled = true;
  bool dedupe_enabled = true;
  uint32_t default_repeat_interval_sec = 1800;
  bool send_clear = true;
  bool route_orphan_clear = false;
  std::vector<oxEventSinkConfig> sinks;  // In the order in which they were read.

  bool operator==(const oxEventConfig&) const = default;
};

// Configuration of the system log.
struct oxEventNativePlatformConfig {
  std::string source = "oxEvent";
  std::string facility = "local4";
  std::string subsystem = "com.velmora.oxEvent";
  std::string category = "events";
};

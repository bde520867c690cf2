#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "config/oxEventConfig.h"

// Tables of all settings: key, field, accepted values and description. A default is the initial value of the field,
// unless the row has another one. The loader reads and completes a settings file from these tables; the tools explain
// and check settings with them. The tables are constant.

constexpr char kOxEventSettingsRoot[] = "QVX\\Events";

// A word that a setting accepts, in lower case, and its value.
struct oxEventWord {
  std::string_view text;
  uint32_t value;
};
using oxEventWords = std::span<const oxEventWord>;

// Returns the value of a word, ignoring case; nullopt if it is not one of `words`.
std::optional<uint32_t> oxEventFindWord(oxEventWords words, std::string_view text);

extern const oxEventWords g_oxEventSwitchWords;
extern const oxEventWords g_oxEventSeverityWords;
extern const oxEventWords g_oxEventSyslogFacilityWords;  // RFC 5424, table 1.
extern const oxEventWords g_oxEventNativeFacilityWords;  // Without syslog, lpr, news and uucp.
extern const oxEventWords g_oxEventPayloadModeWords;
constexpr uint32_t kOxEventPayloadNativeJson = 0;
constexpr uint32_t kOxEventPayloadCloudEvents = 1;
extern const oxEventWords g_oxEventSnmpVersionWords;  // Values as encoded in messages.
constexpr uint32_t kOxEventSnmpVersion2c = 1;         // RFC 1901, section 3.

// The values that a setting accepts.
enum class oxEventSettingForm {
  kSwitch,        // One of g_oxEventSwitchWords, or a number: 0 is off, any other is on.
  kSeverity,      // One of g_oxEventSeverityWords, or 0 to 3.
  kWord,          // One of oxEventSetting::words.
  kCapacity,      // A number above 0.
  kNumber,        // 0 to 4294967295.
  kSeconds,       // 0 to 4294967295.
  kMilliseconds,  // 0 to 4294967295.
  kPort,          // 0 to 65535; 0: the default port of the protocol.
  kText,
  kPath,
  kHost,          // A host name or an IP address.
  kUrl,           // With the scheme http or https.
  kUriReference,  // RFC 3986, section 4.1.
  kHeaderLines,   // HTTP header lines, separated by line ends or "|".
  kSecret,
  kOid,  // In dotted notation.
};

constexpr uint32_t kOxEventTextMaxBytes = 2047;   // Longer strings are truncated.
constexpr uint32_t kOxEventAppNameMaxBytes = 48;  // RFC 5424, section 6.

struct oxEventSetting {
  const char* name;
  std::variant<bool oxEventConfig::*, uint32_t oxEventConfig::*, oxEventDropPolicy oxEventConfig::*,
               std::string oxEventSinkConfig::*, uint32_t oxEventSinkConfig::*, bool oxEventSinkConfig::*>
      field;
  oxEventSettingForm form;
  std::string_view description;
  const char* default_text = nullptr;  // Null: the initial value of the field.
  oxEventWords words = {};
  bool has_effect = true;                     // False if the setting is read, but not used.
  uint32_t max_bytes = kOxEventTextMaxBytes;  // For strings only.
};

// A key that holds settings itself or, for a sink type, one sub-key with settings per instance.
struct oxEventSection {
  const char* key;               // Relative to kOxEventSettingsRoot.
  const char* default_instance;  // Created if there is no instance. Null: the key holds the settings itself.
  oxEventSinkType type;          // The type of every instance in this section.
  std::string_view description;
  std::span<const oxEventSetting> settings;  // In the order in which they are read and added to the file.
};

extern const std::span<const oxEventSection> g_oxEventSections;  // In reading order.

// Returns the value that the loader adds to the file if the setting is missing. An empty value is not added.
std::string oxEventSettingDefault(const oxEventSetting& setting);

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "config/oxEventConfig.h"

// Every setting: where it stands in the store, which field it fills, what it accepts and what it means. The loader
// reads and completes a file by these tables; whoever explains or checks settings goes by them too. All of it is
// constant.

constexpr char kOxEventSettingsRoot[] = "QVX\\Events";

// A word that a setting accepts, in lower case, and what it stands for.
struct oxEventWord {
  std::string_view text;
  uint32_t value;
};
using oxEventWords = std::span<const oxEventWord>;

// The value of a word, in whatever case it is written; none: it is not accepted.
std::optional<uint32_t> oxEventFindWord(oxEventWords words, std::string_view text);

extern const oxEventWords g_oxEventSwitchWords;
extern const oxEventWords g_oxEventSeverityWords;
extern const oxEventWords g_oxEventSyslogFacilityWords;  // RFC 5424, table 1.
extern const oxEventWords g_oxEventNativeFacilityWords;  // The same codes; fewer, as the C library names them.
extern const oxEventWords g_oxEventPayloadModeWords;
constexpr uint32_t kOxEventPayloadNativeJson = 0;
constexpr uint32_t kOxEventPayloadCloudEvents = 1;
extern const oxEventWords g_oxEventSnmpVersionWords;  // Versions as messages have them.
constexpr uint32_t kOxEventSnmpVersion2c = 1;         // RFC 1901, section 3.

// What a value has to be.
enum class oxEventSettingForm {
  kSwitch,        // One of g_oxEventSwitchWords, or a number: 0 is off.
  kSeverity,      // One of g_oxEventSeverityWords, or 0 to 3.
  kWord,          // One of its own words.
  kCapacity,      // A number above 0.
  kNumber,        // 0 to 4294967295.
  kSeconds,       // The same.
  kMilliseconds,  // The same.
  kPort,          // 0 to 65535; 0: the usual one.
  kText,
  kPath,
  kHost,          // A name or an address.
  kUrl,           // http or https.
  kUriReference,  // RFC 3986, section 4.1.
  kHeaderLines,   // HTTP header lines, separated by line ends or "|".
  kSecret,
  kOid,  // Dotted.
};

constexpr uint32_t kOxEventTextMaxBytes = 2047;   // Longer texts are cut off.
constexpr uint32_t kOxEventAppNameMaxBytes = 48;  // RFC 5424, section 6.

struct oxEventSetting {
  const char* name;
  std::variant<bool oxEventConfig::*, uint32_t oxEventConfig::*, oxEventDropPolicy oxEventConfig::*,
               std::string oxEventSinkConfig::*, uint32_t oxEventSinkConfig::*, bool oxEventSinkConfig::*>
      field;
  oxEventSettingForm form;
  std::string_view description;
  const char* default_text = nullptr;  // The default to write, where it is not the field's own.
  oxEventWords words = {};
  bool has_effect = true;                     // False: read and carried only.
  uint32_t max_bytes = kOxEventTextMaxBytes;  // For texts only.
};

// A key that holds settings, or, of a sink's kind, one sub-key with them per instance.
struct oxEventSection {
  const char* key;               // Below the root.
  const char* default_instance;  // Made where there is none. Null: the key holds the settings itself.
  oxEventSinkType type;          // The type of every instance in this section.
  std::string_view description;
  std::span<const oxEventSetting> settings;  // In reading order, which is the order in a completed file.
};

extern const std::span<const oxEventSection> g_oxEventSections;  // In reading order.

// What the loader writes where the setting is missing; empty: nothing.
std::string oxEventSettingDefault(const oxEventSetting& setting);

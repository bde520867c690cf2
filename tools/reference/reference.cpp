// Prints a reference in Markdown, from the tables that the library itself goes by: oxevent-reference settings
// scripts/reference writes the files with it. Not installed.
#include <cstdio>
#include <string>
#include <string_view>

#include "config/oxEventSettings.h"

namespace {

using Form = oxEventSettingForm;

void Print(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

std::string Code(std::string_view text) { return text.empty() ? "" : "`" + std::string(text) + "`"; }

// In a table.
std::string Cell(std::string_view text) {
  std::string cell;
  for (const char c : text) cell += c == '|' ? "\\|" : std::string(1, c);
  return cell;
}

// "`debug`, `warn` = `warning`": in the order of the table, those of one value joined.
std::string ListOf(oxEventWords words) {
  std::string list;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) list += words[i].value == words[i - 1].value ? " = " : ", ";
    list += Code(words[i].text);
  }
  return list;
}

std::string TakesOf(const oxEventSetting& setting) {
  switch (setting.form) {
    case Form::kSwitch:
      return "switch";
    case Form::kSeverity:
      return "severity";
    case Form::kWord:
      return ListOf(setting.words);
    case Form::kCapacity:
      return "number above 0";
    case Form::kNumber:
      return "number";
    case Form::kSeconds:
      return "seconds";
    case Form::kMilliseconds:
      return "milliseconds";
    case Form::kPort:
      return "port";
    case Form::kText:
      return "text";
    case Form::kPath:
      return "path";
    case Form::kHost:
      return "host name or address";
    case Form::kUrl:
      return "URL, http or https";
    case Form::kUriReference:
      return "URI reference";
    case Form::kHeaderLines:
      return "header lines";
    case Form::kSecret:
      return "secret text";
    case Form::kOid:
      return "OID, dotted";
  }
  return {};
}

constexpr std::string_view kSettingsBegin = R"(# Settings of the library oxEvent

An XML file of keys and values. What is missing is added with its default when the file is loaded, so that an empty file
will do to begin with; everything else in the file, comments included, stays. A file that the loader refuses is not
touched, and the error text names the culprit. `oxevent-check` judges a file without running anything.

```xml
<?xml version="1.0" encoding="UTF-8"?>
<config>
  <key name="QVX"><key name="Events">
    <key name="core">
      <value name="minimum_severity">warning</value>
    </key>
    <key name="sink"><key name="csv"><key name="default">
      <value name="enabled">1</value>
      <value name="path">events.csv</value>
    </key></key></key>
  </key></key>
</config>
```

The keys below stand within `QVX\Events`; a backslash stands between a key and the key within it. NAME is any name: each
sub-key of a kind of sink is a sink of its own. Names count byte for byte, words in any case. Of two values with one name
the first counts.

)";

constexpr std::string_view kSettingsForms = R"(
A number, also of seconds or milliseconds, is decimal, 0 to 4294967295, without white space; any other text is replaced by
the default. A port is 0 to 65535. A line end within a value is written `&#10;`. Secrets stand in the file in clear: its
mode is the host's to set.
)";

void PrintSettings() {
  Print(kSettingsBegin);
  Print("A switch takes one of " + ListOf(g_oxEventSwitchWords) + ", or a number: 0 is off. A severity takes one of " +
        ListOf(g_oxEventSeverityWords) + ", or 0 to 3.\n");
  Print(kSettingsForms);
  for (const oxEventSection& section : g_oxEventSections) {
    const bool has_instances = section.default_instance != nullptr;
    Print("\n## " + std::string(section.key) + (has_instances ? "\\NAME" : "") + "\n\n" + std::string(section.meaning));
    if (has_instances) Print(" Where there is none, " + Code(section.default_instance) + " is made.");
    Print("\n\n| Value | Meaning | Takes | Default |\n|---|---|---|---|\n");
    for (const oxEventSetting& setting : section.settings) {
      Print("| " + Code(setting.name) + " | " + Cell(setting.meaning) + " | " + TakesOf(setting) + " | " +
            Code(oxEventSettingDefault(setting)) + " |\n");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view reference = argc == 2 ? argv[1] : "";
  if (reference == "settings") {
    PrintSettings();
    return 0;
  }
  std::fputs("usage: oxevent-reference settings\n", stderr);
  return 2;
}

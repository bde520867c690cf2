// Prints a reference in Markdown, from the tables that the library itself goes by: oxevent-reference settings|errors
// scripts/reference writes the files with it. Not installed.
#include <cstdio>
#include <string>
#include <string_view>

#include "base/oxEventErrors.h"
#include "common/setting_forms.h"
#include "config/oxEventSettings.h"

namespace {

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
  if (setting.form == oxEventSettingForm::kWord) return ListOf(setting.words);
  const bool is_short = setting.max_bytes < kOxEventTextMaxBytes;
  return FormOf(setting.form) + (is_short ? ", at most " + std::to_string(setting.max_bytes) + " bytes" : "");
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
the first counts. A name has 1 to 511 bytes and no backslash: the library cannot see a section with any other, and starts
without it, even when it is enabled; `oxevent-check` reports it as an error.

The file is refused where a save could not write it as it is: with a comment that holds `--`, a control byte, or a reference
to a character that XML cannot hold, such as `&#0;`. `oxevent-check` gives the position. The file keeps its owner, mode and
extended attributes when it is completed; where it cannot, it is not completed, and the library starts all the same.

)";

constexpr std::string_view kSettingsForms = R"(
A number is decimal; white space around it is ignored. Any other text is replaced by the default. Of a text the first 2047
bytes count. A line end within a value is written `&#10;`. Secrets stand in the file in clear: its mode is the host's to set.
)";

void PrintSettings() {
  Print(kSettingsBegin);
  Print("A switch takes one of " + ListOf(g_oxEventSwitchWords) + ". A severity takes one of " +
        ListOf(g_oxEventSeverityWords) + ".\n");
  Print(kSettingsForms);
  for (const oxEventSection& section : g_oxEventSections) {
    const bool has_instances = section.default_instance != nullptr;
    Print("\n## " + std::string(section.key) + (has_instances ? "\\NAME" : "") + "\n\n" + std::string(section.meaning));
    if (has_instances) Print(" Where there is none, " + Code(section.default_instance) + " is made.");
    Print("\n\n| Value | Meaning | Takes | Default |\n|---|---|---|---|\n");
    for (const oxEventSetting& setting : section.settings) {
      Print("| " + Code(setting.name) + " | " + Cell(setting.meaning) + " | " + Cell(TakesOf(setting)) + " | " +
            Code(oxEventSettingDefault(setting)) + " |\n");
    }
  }
}

constexpr std::string_view kErrorsBegin = R"(# Error texts of the library oxEvent

What a call leaves for `oxEventGetLastError` when it fails, and what the sinks tell of a delivery that failed. A word in
braces stands for what was found.
)";

// The rows of those met there.
void PrintErrors(oxEventErrors::Met met, bool with_cause) {
  struct Named {
    uint32_t code;
    const char* name;
  };
  constexpr Named kCodes[] = {{OXEVENT_NOT_INITIALIZED, "`OXEVENT_NOT_INITIALIZED`"},
                              {OXEVENT_ALREADY_INITIALIZED, "`OXEVENT_ALREADY_INITIALIZED`"},
                              {OXEVENT_INVALID_ARGUMENT, "`OXEVENT_INVALID_ARGUMENT`"},
                              {OXEVENT_NOT_FOUND, "`OXEVENT_NOT_FOUND`"},
                              {OXEVENT_FAILURE, "`OXEVENT_FAILURE`"}};
  Print(with_cause ? "\n| Text | Cause | Remedy | Code |\n|---|---|---|---|\n" : "\n| Text | Code |\n|---|---|\n");
  for (const oxEventErrors::Entry& entry : oxEventErrors::kTable) {
    if (entry.met != met) continue;
    std::string codes;
    for (const Named& one : kCodes) {
      if (one.code == entry.codes[0] || one.code == entry.codes[1])
        codes += (codes.empty() ? "" : ", ") + std::string(one.name);
    }
    Print("| " + Code(Cell(entry.text)) + " | ");
    if (with_cause) Print(Cell(entry.cause) + " | " + Cell(entry.remedy) + " | ");
    Print(codes + " |\n");
  }
}

void PrintErrors() {
  Print(kErrorsBegin);
  Print("\n## Of a call\n\nThe calling thread's last error; the call has returned the code.\n");
  PrintErrors(oxEventErrors::Met::kCall, true);
  Print(
      "\n## Of a delivery\n\nThe sink's own last error, as `oxevent-send` tells it: the call that reported the event "
      "has "
      "returned before. The code is the sink's.\n");
  PrintErrors(oxEventErrors::Met::kDelivery, true);
  Print("\n## Of the library's own checks\n\n" + std::string(oxEventErrors::kInternalCause) + " " +
        std::string(oxEventErrors::kInternalRemedy) + "\n");
  PrintErrors(oxEventErrors::Met::kNever, false);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view reference = argc == 2 ? argv[1] : "";
  if (reference == "settings") {
    PrintSettings();
    return 0;
  }
  if (reference == "errors") {
    PrintErrors();
    return 0;
  }
  std::fputs("usage: oxevent-reference settings|errors\n", stderr);
  return 2;
}

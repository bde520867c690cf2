// Prints a reference in Markdown, generated from the library's own tables: oxevent-reference settings|errors
// Used by scripts/reference. Not installed.
#include <cstdio>
#include <string>
#include <string_view>

#include "base/oxEventErrors.h"
#include "common/error_causes.h"
#include "common/setting_forms.h"
#include "config/oxEventSettings.h"

namespace {

void Print(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

std::string Code(std::string_view text) { return text.empty() ? "" : "`" + std::string(text) + "`"; }

// Escapes a string for a cell of a table.
std::string Cell(std::string_view text) {
  std::string cell;
  for (const char c : text) cell += c == '|' ? "\\|" : std::string(1, c);
  return cell;
}

// Returns a list such as "`debug`, `warning` = `warn`", in the order of the table: "=" joins words with the same value.
std::string ListOf(oxEventWords words) {
  std::string list;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) list += words[i].value == words[i - 1].value ? " = " : ", ";
    list += Code(words[i].text);
  }
  return list;
}

std::string AcceptedBy(const oxEventSetting& setting) {
  if (setting.form == oxEventSettingForm::kWord) return ListOf(setting.words);
  const bool is_short = setting.max_bytes < kOxEventTextMaxBytes;
  return DescribeForm(setting.form) + (is_short ? ", at most " + std::to_string(setting.max_bytes) + " bytes" : "");
}

constexpr std::string_view kSettingsBegin = R"(# Settings of the library oxEvent

The settings are stored in an XML file of keys and values. When the library loads the file, it adds missing settings
with their defaults, except those whose default is empty, so an empty file is enough to start with. Everything else in
the file, comments included, is kept. A file that the library refuses is not modified. The error text names an invalid
setting, but does not say what is wrong with the XML; `oxevent-check`, which does not start the library, reports both.

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

The keys below are relative to `QVX\Events`; a backslash separates a key from its sub-key. NAME is any name: each
sub-key of a sink type is a separate sink. Names are case-sensitive, the words that settings accept are not. If two
sub-keys or two values of a key have the same name, the library uses the first one. A name has 1 to 511 bytes and no
backslash: the library does not see a section with any other name, and starts without that section even if the section
is enabled; `oxevent-check` reports such a name as an error. Within `QVX\Events`, a key or a value whose name the
library does not know is kept and has no effect; `oxevent-check` warns about it.

The library refuses a file that it could not save without changing its contents: a file that contains a comment with
`--` inside, a control character, or a reference to a character that XML does not allow, such as `&#0;`. `oxevent-check`
reports the position. When the library completes a file, it keeps the file's owner, mode and extended attributes; if it
cannot keep them, it does not complete the file, and starts nevertheless.

)";

constexpr std::string_view kSettingsForms = R"(
A number is decimal; surrounding white space is ignored. If the value of a numeric setting is not a number, the library
uses the default, and writes it to the file. A string is truncated to 2047 bytes. A line end within a value can be
written as `&#10;`. Secrets are stored in clear text: protecting the file by its mode is the host's task.
)";

void PrintSettings() {
  Print(kSettingsBegin);
  Print("A switch is one of " + ListOf(g_oxEventSwitchWords) + ". A severity is one of " +
        ListOf(g_oxEventSeverityWords) + ".\n");
  Print(kSettingsForms);
  for (const oxEventSection& section : g_oxEventSections) {
    const bool has_instances = section.default_instance != nullptr;
    Print("\n## " + std::string(section.key) + (has_instances ? "\\NAME" : "") + "\n\n" +
          std::string(section.description));
    if (has_instances) Print(" If there is no instance, " + Code(section.default_instance) + " is created.");
    Print("\n\n| Setting | Default | Description | Accepts |\n|---|---|---|---|\n");
    for (const oxEventSetting& setting : section.settings) {
      Print("| " + Code(setting.name) + " | " + Code(oxEventSettingDefault(setting)) + " | " +
            Cell(setting.description) + " | " + Cell(AcceptedBy(setting)) + " |\n");
    }
  }
}

constexpr std::string_view kErrorsBegin = R"(# Error texts of the library oxEvent

This page lists the texts that `oxEventGetLastError` returns after a failed call, and those that a sink reports when a
delivery fails. A word in braces is a placeholder for the actual value. Errors have no numbers, and many share a result
code: a program that must distinguish them compares the texts, which later versions keep.
)";

// Prints the errors of one origin as a table.
void PrintErrors(ErrorOrigin origin, bool with_cause) {
  struct CodeName {
    uint32_t code;
    const char* name;
  };
  constexpr CodeName kCodes[] = {{OXEVENT_NOT_INITIALIZED, "`OXEVENT_NOT_INITIALIZED`"},
                                 {OXEVENT_ALREADY_INITIALIZED, "`OXEVENT_ALREADY_INITIALIZED`"},
                                 {OXEVENT_INVALID_ARGUMENT, "`OXEVENT_INVALID_ARGUMENT`"},
                                 {OXEVENT_NOT_FOUND, "`OXEVENT_NOT_FOUND`"},
                                 {OXEVENT_FAILURE, "`OXEVENT_FAILURE`"}};
  Print(with_cause ? "\n| Text | Cause | Remedy | Code |\n|---|---|---|---|\n" : "\n| Text | Code |\n|---|---|\n");
  for (const oxEventErrors::Entry& entry : oxEventErrors::kTable) {
    const ErrorCause& why = kErrorCauses[entry.id];
    if (why.origin != origin) continue;
    std::string codes;
    for (const CodeName& one : kCodes) {
      if (one.code == entry.codes[0] || one.code == entry.codes[1])
        codes += (codes.empty() ? "" : ", ") + std::string(one.name);
    }
    Print("| " + Code(Cell(entry.text)) + " | ");
    if (with_cause) Print(Cell(why.cause) + " | " + Cell(why.remedy) + " | ");
    Print(codes + " |\n");
  }
}

void PrintErrors() {
  Print(kErrorsBegin);
  Print(
      "\n## Failed calls\n\nEach text is the last error of the thread whose call failed. Code is what the call "
      "returned.\n");
  PrintErrors(ErrorOrigin::kCall, true);
  Print(
      "\n## Failed deliveries\n\nEach text is the last error of a sink, which `oxevent-send` prints. Code is the "
      "sink's result. ");
  Print("The call that reported the event has already returned.\n");
  PrintErrors(ErrorOrigin::kDelivery, true);
  Print("\n## Internal errors\n\n" + std::string(kInternalCause) + " " + std::string(kInternalRemedy) + "\n");
  PrintErrors(ErrorOrigin::kInternal, false);
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

// Checks single values, according to the form of their setting.
#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "base/oxEventAscii.h"
#include "check/settings_file.h"
#include "check/syntax.h"

namespace {

using Form = oxEventSettingForm;

std::optional<uint32_t> ParseNumber32(std::string_view text) {
  oxCFGNumberParser parser;
  parser.Append(text);
  return parser.Number();
}

bool IsNumber(Form form) {
  switch (form) {
    case Form::kCapacity:
    case Form::kNumber:
    case Form::kSeconds:
    case Form::kMilliseconds:
    case Form::kPort:
      return true;
    default:
      return false;
  }
}

// The range of a form for which IsNumber is true.
const char* RangeOf(Form form) {
  switch (form) {
    case Form::kCapacity:
      return "1 to 4294967295";
    case Form::kPort:
      return "0 to 65535";
    default:
      return "0 to 4294967295";
  }
}

std::string List(oxEventWords words) {
  std::string text;
  for (const oxEventWord& word : words) text.append(text.empty() ? "" : ", ").append(word.text);
  return text;
}

std::vector<std::string> NamesOf(oxEventWords words) {
  std::vector<std::string> texts;
  for (const oxEventWord& word : words) texts.emplace_back(word.text);
  return texts;
}

// Lists the words, and suggests one that resembles `text`, but not its opposite: drop_newest resembles drop_oldest.
std::string WordsRemedy(std::string_view text, Form form, oxEventWords words) {
  const std::string suggestion = Suggestion(text, NamesOf(words));
  const bool is_opposite =
      oxEventAsciiLower(text).find("old") != std::string::npos && suggestion.find("new") != std::string::npos;
  return "Accepted (case-insensitive): " + List(words) +
         (form == Form::kSeverity ? "; error is the highest severity" : "") + (is_opposite ? "" : suggestion);
}

class ValueChecker {
 public:
  ValueChecker(const SettingsFile& file, std::vector<Finding>* findings) : file_(file), findings_(*findings) {}

  void Check(const Group& group, const Value& value) {
    group_ = &group;
    value_ = &value;
    const oxEventSetting& setting = *value.setting;
    const std::string& text = value.text;
    if (CheckInvalid()) return;
    if (!setting.has_effect) return CheckUnused();
    if (IsNumber(setting.form)) return CheckNumber();
    if (setting.form == Form::kSwitch && ParseNumber32(text) > 1U) {
      return Warn("odd-switch", Quoted(text) + " counts as on", "Write 1 or 0.");
    }
    if (setting.form == Form::kWord) return CheckWord();
    if (setting.form == Form::kSwitch || setting.form == Form::kSeverity)
      return;  // CheckInvalid has reported invalid values.
    if (text.size() > setting.max_bytes) {
      Warn("cut",
           "has " + std::to_string(text.size()) + " bytes; everything beyond " + std::to_string(setting.max_bytes) +
               " is cut off",
           "Shorten it.");
    }
    if (HasOuterWhiteSpace(text) && setting.form != Form::kHeaderLines) {
      return Warn("blanks", "has leading or trailing white space, which is part of the value",
                  "Remove the white space; the library does not trim.");
    }
    if (!text.empty()) return CheckSyntax();
    if (setting.form == Form::kHost || setting.form == Form::kOid ||
        (setting.form == Form::kSecret && !Default().empty())) {
      Warn("empty", "is empty: the default " + Default() + " applies", "Set it, or remove the value.");
    }
  }

 private:
  void Warn(const char* code, std::string text, std::string remedy) {
    findings_.push_back({Severity::kWarning, code, value_->position, group_->PathOf(value_->setting->name),
                         std::move(text), std::move(remedy)});
  }

  std::string Default() const { return oxEventSettingDefault(*value_->setting); }

  // If the loader refuses the value, reports it and returns true.
  bool CheckInvalid() {
    const oxEventSetting& setting = *value_->setting;
    const auto bad = file_.bad_values.find(group_->PathOf(setting.name));
    if (bad == file_.bad_values.end()) return false;
    const oxEventWords words = setting.form == Form::kSwitch     ? g_oxEventSwitchWords
                               : setting.form == Form::kSeverity ? g_oxEventSeverityWords
                                                                 : setting.words;
    const std::string remedy = words.empty() ? "Set a number above 0; the default is " + Default() + "."
                               : HasOuterWhiteSpace(value_->text) && !ParseNumber32(value_->text)
                                   ? "Remove the leading or trailing white space, which is part of the value."
                                   : WordsRemedy(value_->text, setting.form, words);
    findings_.push_back({Severity::kError, "bad-value", value_->position, bad->first, bad->second, remedy});
    return true;
  }

  void CheckUnused() {
    if (value_->text.empty() || value_->text == Default()) return;
    Warn("no-effect", "is read but not used: changing it has no effect",
         "Leave its default. " + std::string(value_->setting->description));
  }

  void CheckNumber() {
    const auto number = ParseNumber32(value_->text);
    const std::string name = value_->setting->name;
    if (!number) {
      const bool writes = file_.start_error.empty();
      const std::string range = RangeOf(value_->setting->form);
      const bool is_too_large =
          !value_->text.empty() && value_->text.find_first_not_of("0123456789") == std::string::npos;
      Warn("no-number",
           Quoted(value_->text) + " is not a number from " + range + ": the default " + Default() + " applies" +
               (writes ? ", and the library writes it to the file" : ""),
           is_too_large ? "Set a number from " + range + "." : "Write only digits.");
    } else if (name.ends_with("timeout_ms") && *number > 0 && *number < 50) {
      Warn("short-time", std::to_string(*number) + " ms is hardly enough for a request",
           "Set a longer time. The unit is milliseconds.");
    }
  }

  // CheckSinks reports words that keep a sink from starting.
  void CheckWord() {
    const oxEventSetting& setting = *value_->setting;
    if (std::string_view(setting.name) != "facility" || oxEventFindWord(setting.words, value_->text)) return;
    Warn("unknown-word", Quoted(value_->text) + " is not a facility: the default " + Default() + " applies",
         WordsRemedy(value_->text, setting.form, setting.words));
  }

  void CheckSyntax() {
    const std::string& text = value_->text;
    switch (value_->setting->form) {
      case Form::kUrl:
        if (!HasHttpScheme(text)) return;  // CheckSinks reports that the sink would not start.
        if (const std::string fault = UrlFault(text); !fault.empty()) {
          const std::string shown = text.find('@') == text.npos ? Quoted(text) + " " : "";  // Do not print a password.
          Warn("bad-url", shown + "is not an http or https URL: " + fault, "Use a URL such as https://HOST:PORT/PATH.");
        }
        return;
      case Form::kUriReference:
        if (const std::string fault = UriReferenceFault(text); !fault.empty()) {
          Warn("bad-uri", Quoted(text) + " is not a URI reference: " + fault,
               "CloudEvents requires one (RFC 3986, section 4.1), such as /plant/7 or urn:uuid:UUID.");
        }
        return;
      case Form::kOid:
        if (const std::string fault = OidFault(text); !fault.empty()) {
          Warn("bad-oid", Quoted(text) + " " + fault,
               "Use numbers up to 4294967295, separated by single dots. The first is at most 2, the second at most 39 "
               "(after 2: 47). For example: " +
                   Default());
        }
        return;
      case Form::kHost:
        if (const std::string fault = HostFault(text); !fault.empty()) {
          Warn("bad-host", Quoted(text) + " is not a host name or address: " + fault,
               "Use only a name, an IPv4 address or an IPv6 address.");
        }
        return;
      case Form::kPath:
        if (std::error_code failure; text.back() == '/' || std::filesystem::is_directory(text, failure)) {
          Warn("bad-path", Quoted(text) + " names a directory", "Set the full path of the file.");
        } else if (text.starts_with("~/") || text.starts_with("file:") || text.find('$') != text.npos) {
          Warn("bad-path", Quoted(text) + " is used literally: ~, variables and URLs are not expanded",
               "Set the full path of the file.");
        }
        return CheckCharacters();
      default:
        CheckCharacters();
    }
  }

  void CheckCharacters() {
    const std::string_view name = value_->setting->name;
    const std::string& text = value_->text;
    const auto has_other = [&](auto kept) { return !std::all_of(text.begin(), text.end(), kept); };
    if (name == "app_name" && has_other([](char c) { return c >= '!' && c <= '~'; })) {
      Warn("changed", "contains characters that are replaced by _ in messages", "Use printable ASCII without spaces.");
    } else if (name == "alertname_prefix" && has_other([](char c) { return oxEventAsciiIsAlnum(c) || c == '_'; })) {
      Warn("changed", "contains characters that are removed from the alert name", "Use letters, digits and _.");
    } else if (has_other([](char c) { return static_cast<unsigned char>(c) >= ' ' && c != 0x7F; }) &&
               value_->setting->form != Form::kHeaderLines) {
      Warn("control", "contains a line end or another control character", "Remove the character.");
    }
  }

  const SettingsFile& file_;
  std::vector<Finding>& findings_;
  const Group* group_ = nullptr;
  const Value* value_ = nullptr;
};

}  // namespace

void CheckValues(const SettingsFile& file, std::vector<Finding>* findings) {
  ValueChecker checker(file, findings);
  for (const Group& group : file.groups) {
    for (const Value& value : group.values) checker.Check(group, value);
  }
}

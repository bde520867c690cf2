// The rules for one value alone, by the form of its setting.
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

std::optional<uint32_t> NumberIn(std::string_view text) {
  oxCFGNumberParser parser;
  parser.Append(text);
  return parser.Number();
}

bool IsNumber(Form form) {
  return form == Form::kCapacity || form == Form::kNumber || form == Form::kSeconds || form == Form::kMilliseconds ||
         form == Form::kPort;
}

std::string Listed(oxEventWords words) {
  std::string text;
  for (const oxEventWord& word : words) text.append(text.empty() ? "" : ", ").append(word.text);
  return text;
}

std::vector<std::string> TextsOf(oxEventWords words) {
  std::vector<std::string> texts;
  for (const oxEventWord& word : words) texts.emplace_back(word.text);
  return texts;
}

class Rules {
 public:
  Rules(const SettingsFile& file, std::vector<Finding>* findings) : file_(file), findings_(*findings) {}

  void Check(const Group& group, const Value& value) {
    group_ = &group;
    value_ = &value;
    const oxEventSetting& setting = *value.setting;
    const std::string& text = value.text;
    if (CheckBad()) return;
    if (!setting.has_effect) return CheckCarried();
    if (IsNumber(setting.form)) return CheckNumber();
    if (setting.form == Form::kSwitch && NumberIn(text) > 1U) {
      return Warn("odd-switch", Quoted(text) + " counts as on", "Write 1 or 0.");
    }
    if (setting.form == Form::kWord) return CheckWord();
    if (setting.form == Form::kSwitch || setting.form == Form::kSeverity) return;  // Good, or CheckBad has named it.
    if (text.size() > setting.max_bytes) {
      Warn("cut",
           "has " + std::to_string(text.size()) + " bytes; what is beyond " + std::to_string(setting.max_bytes) +
               " is cut off",
           "Shorten it.");
    }
    if (HasBlankEnds(text) && setting.form != Form::kHeaderLines) {
      return Warn("blanks", "has blanks at its ends, which count", "Remove them; nothing is trimmed.");
    }
    if (!text.empty()) return CheckSyntax();
    if (setting.form == Form::kHost || setting.form == Form::kOid ||
        (setting.form == Form::kSecret && !Default().empty())) {
      Warn("empty", "is empty: " + Default() + " counts", "Set it, or remove the value.");
    }
  }

 private:
  void Warn(const char* code, std::string text, std::string remedy) {
    findings_.push_back({Grade::kWarning, code, value_->where, group_->PathOf(value_->setting->name), std::move(text),
                         std::move(remedy)});
  }

  std::string Default() const { return oxEventSettingDefault(*value_->setting); }

  // What the loader refuses.
  bool CheckBad() {
    const oxEventSetting& setting = *value_->setting;
    const auto bad = file_.bad_values.find(group_->PathOf(setting.name));
    if (bad == file_.bad_values.end()) return false;
    const oxEventWords words = setting.form == Form::kSwitch     ? g_oxEventSwitchWords
                               : setting.form == Form::kSeverity ? g_oxEventSeverityWords
                                                                 : setting.words;
    const std::string remedy =
        words.empty() ? "A number above 0 is needed; the default is " + Default() + "."
        : HasBlankEnds(value_->text) && !NumberIn(value_->text)
            ? "Remove the blanks at its ends, which count."
            : "Accepted, in any case: " + Listed(words) + Suggestion(value_->text, TextsOf(words));
    findings_.push_back({Grade::kError, "bad-value", value_->where, bad->first, bad->second, remedy});
    return true;
  }

  void CheckCarried() {
    if (value_->text.empty() || value_->text == Default()) return;
    Warn("no-effect", "is read and carried only: changing it has no effect",
         "Leave its default. " + std::string(value_->setting->description));
  }

  void CheckNumber() {
    const auto number = NumberIn(value_->text);
    const std::string name = value_->setting->name;
    if (!number) {
      const bool writes = file_.refusal.empty();
      Warn("no-number",
           Quoted(value_->text) + " is no number from 0 to 4294967295: " + Default() + " counts" +
               (writes ? ", and the library writes that over it in the file" : ""),
           "Write digits alone.");
    } else if (name.ends_with("timeout_ms") && *number > 0 && *number < 50) {
      Warn("short-time", std::to_string(*number) + " ms is hardly enough for a request", "The unit is milliseconds.");
    }
  }

  // Where a sink would not start because of the word, CheckSinks tells.
  void CheckWord() {
    const oxEventSetting& setting = *value_->setting;
    if (std::string_view(setting.name) != "facility" || oxEventFindWord(setting.words, value_->text)) return;
    Warn("unknown-word", Quoted(value_->text) + " is no facility: it counts as " + Default(),
         "Accepted, in any case: " + Listed(setting.words) + Suggestion(value_->text, TextsOf(setting.words)));
  }

  void CheckSyntax() {
    const std::string& text = value_->text;
    switch (value_->setting->form) {
      case Form::kUrl:
        if (!HasHttpScheme(text)) return;  // For which the sink would not start, as CheckSinks tells.
        if (const std::string fault = UrlFault(text); !fault.empty()) {
          const std::string shown = text.find('@') == text.npos ? Quoted(text) + " " : "";  // Before it are passwords.
          Warn("bad-url", shown + "is no URL of http or https: " + fault, "Such as https://HOST:PORT/PATH.");
        }
        return;
      case Form::kUriReference:
        if (const std::string fault = UriReferenceFault(text); !fault.empty()) {
          Warn("bad-uri", Quoted(text) + " is no URI reference: " + fault,
               "CloudEvents want one (RFC 3986, section 4.1), such as /plant/7 or urn:uuid:UUID.");
        }
        return;
      case Form::kOid:
        if (const std::string fault = OidFault(text); !fault.empty()) {
          Warn("bad-oid", Quoted(text) + " is no object identifier: " + fault,
               "Numbers up to 4294967295 with one dot between two of them, such as " + Default() + ".");
        }
        return;
      case Form::kHost:
        if (const std::string fault = HostFault(text); !fault.empty()) {
          Warn("bad-host", Quoted(text) + " is no host: " + fault, "A name, an IPv4 or an IPv6 address alone.");
        }
        return;
      case Form::kPath:
        if (std::error_code failure; text.back() == '/' || std::filesystem::is_directory(text, failure)) {
          Warn("bad-path", Quoted(text) + " names a folder", "Give the file's whole path.");
        } else if (text.starts_with("~/") || text.starts_with("file:") || text.find('$') != text.npos) {
          Warn("bad-path", Quoted(text) + " is taken as it stands: no ~, no variable, no URL is resolved",
               "Give the file's whole path.");
        }
        return CheckCharacters();
      default:
        CheckCharacters();
    }
  }

  void CheckCharacters() {
    const std::string_view name = value_->setting->name;
    const std::string& text = value_->text;
    const auto changed = [&](auto kept) { return !std::all_of(text.begin(), text.end(), kept); };
    if (name == "app_name" && changed([](char c) { return c >= '!' && c <= '~'; })) {
      Warn("changed", "holds characters that messages carry as _", "Use printable ASCII without blanks.");
    } else if (name == "alertname_prefix" && changed([](char c) { return oxEventAsciiIsAlnum(c) || c == '_'; })) {
      Warn("changed", "holds characters that are left out of the alert's name", "Use letters, digits and _.");
    } else if (changed([](char c) { return static_cast<unsigned char>(c) >= ' ' && c != 0x7F; }) &&
               value_->setting->form != Form::kHeaderLines) {
      Warn("control", "holds a line end or another control character", "Remove it.");
    }
  }

  const SettingsFile& file_;
  std::vector<Finding>& findings_;
  const Group* group_ = nullptr;
  const Value* value_ = nullptr;
};

}  // namespace

void CheckValues(const SettingsFile& file, std::vector<Finding>* findings) {
  Rules rules(file, findings);
  for (const Group& group : file.groups) {
    for (const Value& value : group.values) rules.Check(group, value);
  }
}

#include "check/explain.h"

#include <algorithm>
#include <vector>

#include "check/settings_file.h"
#include "common/command_line.h"
#include "common/setting_forms.h"

namespace {

using Names = std::vector<std::string>;

constexpr char kInstancePlaceholder[] = "NAME";

Names Split(std::string_view path) {
  Names names;
  while (!path.empty()) {
    const size_t size = std::min(path.find_first_of("\\/."), path.size());
    if (size > 0) names.emplace_back(path.substr(0, size));
    path.remove_prefix(std::min(size + 1, path.size()));
  }
  return names;
}

std::string Join(const Names& names) {
  std::string path;
  for (const std::string& name : names) path += (path.empty() ? "" : "\\") + name;
  return path;
}

// A setting or, if `setting` is null, a section.
struct Topic {
  const oxEventSection* section;
  const oxEventSetting* setting;

  Names Path(bool with_instance) const {
    Names path = Split(section->key);
    if (with_instance && section->default_instance != nullptr) path.emplace_back(kInstancePlaceholder);
    if (setting != nullptr) path.emplace_back(setting->name);
    return path;
  }
  bool HasKey(const std::string& name) const {
    const Names keys = Split(section->key);
    return std::find(keys.begin(), keys.end(), name) != keys.end();
  }
  bool IsBelow(const Names& key) const {
    const Names path = Path(true);
    if (key.size() > path.size()) return false;
    return std::equal(key.begin(), key.end(), path.begin(), [](const std::string& given, const std::string& known) {
      return known == given || known == kInstancePlaceholder;
    });
  }
};

std::vector<Topic> AllTopics() {
  std::vector<Topic> topics;
  for (const oxEventSection& section : g_oxEventSections) {
    topics.push_back({&section, nullptr});
    for (const oxEventSetting& setting : section.settings) topics.push_back({&section, &setting});
  }
  return topics;
}

template <class Matches>
std::vector<Topic> FilterTopics(Matches matches) {
  std::vector<Topic> topics = AllTopics();
  std::erase_if(topics, [&](const Topic& topic) { return !matches(topic); });
  return topics;
}

std::vector<Topic> FindTopics(const Names& key) {
  auto topics = FilterTopics([&](const Topic& t) { return t.setting != nullptr && t.Path(false) == key; });
  if (topics.empty()) topics = FilterTopics([&](const Topic& t) { return t.IsBelow(key); });
  if (!topics.empty() || key.size() != 1) return topics;
  topics = FilterTopics([&](const Topic& t) { return t.setting != nullptr && t.setting->name == key[0]; });
  return topics.empty() ? FilterTopics([&](const Topic& t) { return t.HasKey(key[0]); }) : topics;
}

oxEventWords AcceptedWords(const oxEventSetting& setting) {
  if (setting.form == oxEventSettingForm::kSwitch) return g_oxEventSwitchWords;
  return setting.form == oxEventSettingForm::kSeverity ? g_oxEventSeverityWords : setting.words;
}

void Append(const Topic& topic, std::string* text) {
  if (!text->empty()) text->push_back('\n');
  *text += std::string(kOxEventSettingsRoot) + "\\" + Join(topic.Path(true)) + "\n";
  if (topic.setting == nullptr) {
    *text += "    " + std::string(topic.section->description) + "\n";
    if (topic.section->default_instance == nullptr) return;
    *text += std::string("    Instances:  any number, each a key; ") + topic.section->default_instance +
             " is added if there is none\n";
    return;
  }
  const oxEventSetting& setting = *topic.setting;
  *text += "    " + std::string(setting.description) + "\n    Type:       " + DescribeForm(setting.form) + "\n";
  if (setting.max_bytes < kOxEventTextMaxBytes)
    *text += "    At most:    " + std::to_string(setting.max_bytes) + " bytes\n";
  const std::string default_text = oxEventSettingDefault(setting);
  *text += "    Default:    " + (default_text.empty() ? "none" : default_text) + "\n";
  std::string words;
  for (const oxEventWord& word : AcceptedWords(setting)) words.append(words.empty() ? "" : ", ").append(word.text);
  if (!words.empty()) *text += "    Accepts:    " + words + " (case-insensitive)\n";
}

}  // namespace

std::string Explain(std::string_view key) {
  Names names = Split(key);
  const Names root = Split(kOxEventSettingsRoot);
  for (const std::string& name : root) {
    if (!names.empty() && names[0] == name) names.erase(names.begin());
  }
  const std::vector<Topic> topics = FindTopics(names);
  if (topics.empty()) {
    Names known;
    for (const Topic& topic : AllTopics()) {
      known.push_back(Join(topic.Path(true)));
      known.push_back(Join(topic.Path(false)));
      if (topic.setting != nullptr && names.size() == 1) known.emplace_back(topic.setting->name);
    }
    throw UsageError(std::string(key) + ": no such key" + Suggestion(Join(names), known));
  }
  std::string text;
  for (const Topic& topic : topics) Append(topic, &text);
  return text;
}

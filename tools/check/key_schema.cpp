#include "check/key_schema.h"

#include <iterator>

#include "oxCFGText.h"

namespace {

void AddPath(std::string_view path, const oxEventSection* section, KeySchema* key) {
  while (!path.empty()) {
    const std::string name(path.substr(0, path.find('\\')));
    path.remove_prefix(std::min(name.size() + 1, path.size()));
    if (key->Find(name) == nullptr) key->children.push_back({JoinPath(key->parent_path, key->name), name});
    key = const_cast<KeySchema*>(key->Find(name));
  }
  key->section = section;
}

// Counts the values in `key` that are settings of the section, except enabled and minimum_severity, which most sections
// have.
size_t CountSettings(const oxEventSection& section, pugi::xml_node key) {
  size_t count = 0;
  for (const pugi::xml_node child : key.children("value")) {
    const std::string name = NameOf(child);
    if (name != "enabled" && name != "minimum_severity" && FindSetting(section, name) != nullptr) ++count;
  }
  return count;
}

}  // namespace

const oxEventSetting* FindSetting(const oxEventSection& section, std::string_view name) {
  for (const oxEventSetting& setting : section.settings) {
    if (setting.name == name) return &setting;
  }
  return nullptr;
}

std::string JoinPath(const std::string& path, const std::string& name) {
  return path.empty() ? name : path + "\\" + name;
}

KeySchema BuildKeySchema() {
  KeySchema root;
  for (const oxEventSection& section : g_oxEventSections) AddPath(PathOf(section), &section, &root);
  return root;
}

std::vector<std::string> NamesOf(const std::vector<KeySchema>& keys) {
  std::vector<std::string> names;
  std::transform(keys.begin(), keys.end(), std::back_inserter(names), [](const KeySchema& key) { return key.name; });
  return names;
}

std::vector<std::string> NamesOf(const oxEventSection& section) {
  std::vector<std::string> names;
  for (const oxEventSetting& setting : section.settings) names.emplace_back(setting.name);
  return names;
}

std::string PathOf(const oxEventSection& section) { return std::string(kOxEventSettingsRoot) + "\\" + section.key; }

std::string NameOf(pugi::xml_node node) { return oxCFGDecoded(node.attribute("name").value()); }
bool IsKey(pugi::xml_node node) { return std::string_view(node.name()) == "key"; }
bool IsValue(pugi::xml_node node) { return std::string_view(node.name()) == "value"; }

const oxEventSection* FindSimilarSection(pugi::xml_node key, const oxEventSection* preferred) {
  const auto is_preferred = [&](pugi::xml_node child) {
    return preferred != nullptr && IsValue(child) && FindSetting(*preferred, NameOf(child)) != nullptr;
  };
  const oxEventSection* best = std::any_of(key.begin(), key.end(), is_preferred) ? preferred : nullptr;
  size_t most = best == nullptr ? 0 : CountSettings(*best, key);
  for (const oxEventSection& section : g_oxEventSections) {
    const size_t count = CountSettings(section, key);
    if (count <= most) continue;
    most = count;
    best = &section;
  }
  return best;
}

bool MatchesSchema(const KeySchema& schema, pugi::xml_node key) {
  const auto is_expected = [&](pugi::xml_node child) {
    if (schema.HasSettings()) return IsValue(child) && FindSetting(*schema.section, NameOf(child)) != nullptr;
    if (schema.HasInstances()) return IsKey(child) && CountSettings(*schema.section, child) > 0;
    const KeySchema* const child_schema = IsKey(child) ? schema.Find(NameOf(child)) : nullptr;
    return child_schema != nullptr && MatchesSchema(*child_schema, child);
  };
  return std::any_of(key.begin(), key.end(), is_expected);
}

const KeySchema* FindMatchingSchema(const KeySchema& parent, pugi::xml_node key) {
  for (const KeySchema& child : parent.children) {
    if (child.name == NameOf(key) && MatchesSchema(child, key)) return &child;
    if (const KeySchema* const match = FindMatchingSchema(child, key)) return match;
  }
  return nullptr;
}

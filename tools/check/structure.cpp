// Reports keys, values and other elements that the loader ignores, except those that may belong to another program.
#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "check/key_schema.h"
#include "check/settings_file.h"

namespace {

class StructureChecker {
 public:
  StructureChecker(SettingsFile* file, std::vector<Finding>* findings) : file_(*file), findings_(*findings) {}

  void Run() {
    const KeySchema schema = BuildKeySchema();
    CheckKey(schema, file_.store.Root(), "");
    AddGroups();
  }

 private:
  void Warn(const char* code, pugi::xml_node node, const std::string& key, std::string text, std::string remedy) {
    findings_.push_back({Severity::kWarning, code, file_.PositionOf(node), key, std::move(text), std::move(remedy)});
  }

  // Outside QVX\Events the host may keep keys of its own.
  static bool IsInEvents(std::string_view path) { return path.starts_with(kOxEventSettingsRoot); }

  // Calls `visit` for each key and value in `key` that the store does not hide. Reports what the store hides
  // (duplicates, bad or missing names), stray text, and unknown elements. Outside QVX\Events, reports only what
  // resembles an `expected` name, and bad names that begin with QVX. `has_sections`: the keys in `key` are sections or
  // contain sections.
  template <class Visit>
  void ForEach(pugi::xml_node key, const std::string& path, const std::vector<std::string>& expected, bool has_sections,
               Visit visit) {
    std::set<std::pair<bool, std::string>> seen;
    for (const pugi::xml_node child : key.children()) {
      if (child.type() != pugi::node_element) {
        CheckText(child, key, path);
        continue;
      }
      const std::string name = NameOf(child);
      const bool resembles = !Suggestion(name, expected).empty();
      if (!IsKey(child) && !IsValue(child)) {
        CheckUnknownElement(child, path, expected);
      } else if (!child.attribute("name")) {
        CheckMissingName(child, path, expected);
      } else if (name.empty() || name.size() > oxCFGStore::kMaxNameBytes || name.find('\\') != name.npos) {
        if (IsInEvents(path) || name.find("QVX") == 0 || resembles) CheckBadName(child, path, name, has_sections);
      } else if (!seen.emplace(IsKey(child), name).second) {
        if (IsInEvents(path) || resembles) {
          Warn("twice", child, JoinPath(path, name),
               "is a duplicate: the library uses the first one and ignores this one", "Remove one of the two.");
        }
      } else {
        visit(child, name);
      }
    }
  }

  // The store hides a key with such a name, so the library would start without that section: an error, not a warning.
  void CheckBadName(pugi::xml_node node, const std::string& path, const std::string& name, bool among_sections) {
    const bool is_section = among_sections && IsKey(node);
    const std::string fault = name.empty() ? "empty" : name.find('\\') != name.npos ? "a path" : "too long";
    findings_.push_back(
        {is_section ? Severity::kError : Severity::kWarning, "bad-name", file_.PositionOf(node),
         JoinPath(path, name.substr(0, 80)),
         "its name is " + fault + ": the library ignores it" + (is_section ? ", with everything in it" : ""),
         "Use a name with 1 to 511 bytes and no backslash; each key of a path is an element of its own."});
  }

  void CheckText(pugi::xml_node node, pugi::xml_node key, const std::string& path) {
    const std::string text = node.type() == pugi::node_cdata ? node.value() : oxCFGDecoded(node.value());
    const bool is_text = node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
    if (!is_text || !IsInEvents(path) || text.find_first_not_of(kWhiteSpace) == text.npos) return;
    Warn("stray-text", key, path, "contains the text " + Quoted(text) + ", which the library ignores",
         "A setting is an element of its own: <value name=\"NAME\">TEXT</value>.");
  }

  void CheckUnknownElement(pugi::xml_node node, const std::string& path, const std::vector<std::string>& expected) {
    const std::string name = NameOf(node);
    const std::string suggestion = Suggestion(node.name(), {"key", "value"});
    const bool resembles_expected = (!name.empty() && !Suggestion(name, expected).empty()) ||
                                    std::find(expected.begin(), expected.end(), node.name()) != expected.end();
    if (resembles_expected || (IsInEvents(path) && !suggestion.empty())) {
      Warn("unknown-element", node, name.empty() ? path : JoinPath(path, name),
           "the library ignores the element <" + std::string(node.name()) + ">" + suggestion,
           "Write <key name=\"NAME\"> or <value name=\"NAME\">TEXT</value>, with key, value and name in lower case.");
    }
  }

  void CheckMissingName(pugi::xml_node node, const std::string& path, const std::vector<std::string>& expected) {
    const auto resembles_expected = [&](const pugi::xml_attribute& a) {
      return !Suggestion(a.value(), expected).empty();
    };
    if (!IsInEvents(path) && std::none_of(node.attributes_begin(), node.attributes_end(), resembles_expected)) return;
    Warn("no-name", node, path, "a <" + std::string(node.name()) + "> without a name attribute: the library ignores it",
         std::string("Write <") + node.name() + " name=\"NAME\">.");
  }

  void CheckKey(const KeySchema& schema, pugi::xml_node key, const std::string& path) {
    if (schema.HasInstances()) return CheckInstances(*schema.section, key, path);
    if (schema.HasSettings()) return CheckSettings(*schema.section, key, path);
    const std::vector<std::string> expected = NamesOf(schema.children);
    ForEach(key, path, expected, true, [&](pugi::xml_node child, const std::string& name) {
      const KeySchema* const child_schema = schema.Find(name);
      if (child_schema != nullptr && IsKey(child)) {
        CheckKey(*child_schema, child, JoinPath(path, name));
      } else if (child_schema != nullptr) {
        Warn("value-for-key", child, JoinPath(path, name), "is a value, but the library expects a key here",
             "Write <key name=\"" + name + "\">.");
      } else {
        CheckUnknownName(schema, child, path, name);
      }
    });
  }

  // Returns whether a name is a path that begins with two known keys, such as QVX/Events/core. A path with only one
  // known key may belong to another program.
  static bool IsKnownPath(const KeySchema& schema, std::string_view name) {
    const size_t end = std::min(name.find_first_of("/."), name.size());
    const KeySchema* const first = schema.Find(name.substr(0, end));
    if (first == nullptr || end == name.size()) return false;
    name.remove_prefix(end + 1);
    return first->Find(name.substr(0, name.find_first_of("/."))) != nullptr;
  }

  // Reports a key or a value whose name is none of the schema's keys.
  void CheckUnknownName(const KeySchema& schema, pugi::xml_node child, const std::string& path,
                        const std::string& name) {
    std::string suggestion = Suggestion(name, NamesOf(schema.children));
    for (const KeySchema& known : schema.children) {
      if (suggestion.empty() && IsKey(child) && !IsInEvents(path) && MatchesSchema(known, child))
        suggestion = "; did you mean " + known.name + "?";
    }
    if (suggestion.empty() && !IsInEvents(path) && IsKnownPath(schema, name)) {
      suggestion = "; each key of a path is an element of its own";
    }
    const oxEventSection* const only = schema.OnlySection();
    const oxEventSection* const similar = IsKey(child) ? FindSimilarSection(child, only) : nullptr;
    const std::string child_path = JoinPath(path, name);
    const KeySchema* const match = IsKey(child) ? FindMatchingSchema(schema, child) : nullptr;
    if (IsInEvents(path) && suggestion.empty() && similar != nullptr) {
      const std::string instance = similar->default_instance == nullptr ? "" : "\\" + name;
      Warn("misplaced", child, child_path,
           "the library ignores it: its settings belong in " + PathOf(*similar) + instance, "Move it there.");
    } else if (match != nullptr) {
      Warn("misplaced", child, child_path, "the library ignores it: it belongs in " + match->parent_path,
           "Move it there.");
    } else if (IsInEvents(path) || !suggestion.empty()) {
      const bool is_setting = only != nullptr && IsValue(child) && FindSetting(*only, name) != nullptr;
      Warn(IsKey(child) ? "unknown-key" : "unknown-value", child, child_path,
           std::string("no such ") + (IsKey(child) ? "key" : "value") + " here" + suggestion,
           is_setting
               ? InstanceRemedy(*only)
               : "Keys below " + (path.empty() ? "the root" : path) + ": " + Listed(NamesOf(schema.children)) + ".");
    }
  }

  static std::string InstanceRemedy(const oxEventSection& section) {
    return "Settings belong in an instance key below " + PathOf(section) + ", such as " + section.default_instance +
           ".";
  }

  static std::string Listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
  }

  void CheckInstances(const oxEventSection& section, pugi::xml_node key, const std::string& path) {
    bool reported = false;
    ForEach(key, path, NamesOf(section), true, [&](pugi::xml_node child, const std::string& name) {
      if (IsKey(child)) {
        CheckInstance(section, child, path, name);
        CheckSettings(section, child, JoinPath(path, name));
        return;
      }
      Warn("misplaced", child, JoinPath(path, name), "a value next to instances: the library ignores it",
           InstanceRemedy(section));
      if (!std::exchange(reported, true)) {
        findings_.push_back({Severity::kNote, "misplaced", file_.PositionOf(key), path,
                             "contains instances, not settings",
                             "Put a key with the name of an instance around the settings."});
      }
    });
  }

  void CheckInstance(const oxEventSection& section, pugi::xml_node key, const std::string& path,
                     const std::string& name) {
    if (FindSetting(section, name) != nullptr && !key.child("value")) {
      Warn("key-for-value", key, JoinPath(path, name), "is a key, so the library takes it for an instance of this name",
           "Settings are values in an instance key below " + path + ", such as " + section.default_instance + ".");
    } else if (HasOuterWhiteSpace(name)) {
      Warn("blanks", key, JoinPath(path, name),
           "the name has leading or trailing white space, which is part of the name", "Remove the white space.");
    }
  }

  void CheckSettings(const oxEventSection& section, pugi::xml_node key, const std::string& path) {
    Group group = {&section, path, file_.PositionOf(key), {}};
    ForEach(key, path, NamesOf(section), false, [&](pugi::xml_node child, const std::string& name) {
      const oxEventSetting* const setting = FindSetting(section, name);
      const std::string child_path = JoinPath(path, name);
      if (IsKey(child)) {
        if (setting != nullptr) {
          Warn("key-for-value", child, child_path, "is a key, but the library expects a value here",
               "Write <value name=\"" + name + "\">TEXT</value>.");
        } else {
          Warn("misplaced", child, child_path, "a key among settings: the library ignores it",
               FindSimilarSection(child) == nullptr
                   ? "Remove it."
                   : "Move it to " + PathOf(*FindSimilarSection(child)) + ", where its settings belong.");
        }
      } else if (setting == nullptr) {
        Warn("unknown-value", child, child_path, "no such setting here" + SuggestElsewhere(section, name),
             "The settings of this key: " + Listed(NamesOf(section)) + ".");
      } else {
        CheckContent(child, child_path);
        Value value = {setting, "", file_.PositionOf(child)};
        file_.store.Read(path, name, [&](std::string_view piece) { value.text += piece; });
        group.values.push_back(std::move(value));
      }
    });
    found_.emplace(path, std::move(group));
  }

  static std::string SuggestElsewhere(const oxEventSection& here, const std::string& name) {
    std::string suggestion = Suggestion(name, NamesOf(here));
    if (!suggestion.empty()) return suggestion;
    for (const oxEventSection& section : g_oxEventSections) {
      if (FindSetting(section, name) != nullptr) return "; " + PathOf(section) + " has one of that name";
    }
    return "";
  }

  void CheckContent(pugi::xml_node value, const std::string& key) {
    for (const pugi::xml_node child : value.children()) {
      if (child.type() != pugi::node_element) continue;
      Warn("nested", value, key, "contains the element <" + std::string(child.name()) + ">, which the library ignores",
           "Remove the element: a value contains only text.");
      break;
    }
    if (value.attribute("value")) {
      Warn("text-in-attribute", value, key, "has its text in an attribute, which the library ignores",
           "Write <value name=\"NAME\">TEXT</value>.");
    }
  }

  // Adds the groups to file_ in the order in which the loader reads them, including groups that the file lacks.
  void AddGroups() {
    for (const oxEventSection& section : g_oxEventSections) {
      if (section.default_instance == nullptr) AddGroup(section, PathOf(section), nullptr);
    }
    for (const oxEventSinkConfig& sink : file_.config.sinks) {
      for (const oxEventSection& section : g_oxEventSections) {
        if (section.default_instance == nullptr || section.type != sink.type) continue;
        AddGroup(section, PathOf(section) + "\\" + sink.name, &sink);
      }
    }
  }

  void AddGroup(const oxEventSection& section, const std::string& key, const oxEventSinkConfig* sink) {
    const auto found = found_.find(key);
    Group group = found == found_.end() ? Group{&section, key, {}, {}} : std::move(found->second);
    group.sink = sink;
    file_.groups.push_back(std::move(group));
  }

  SettingsFile& file_;
  std::vector<Finding>& findings_;
  std::map<std::string, Group> found_;  // By path of the key.
};

}  // namespace

void CheckStructure(SettingsFile* file, std::vector<Finding>* findings) { StructureChecker(file, findings).Run(); }

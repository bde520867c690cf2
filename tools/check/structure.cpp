// What has no place in the file: keys, values and elements that the loader passes over.
#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "check/places.h"
#include "check/settings_file.h"

namespace {

class Walk {
 public:
  Walk(SettingsFile* file, std::vector<Finding>* findings) : file_(*file), findings_(*findings) {}

  void Run() {
    const Place places = AllPlaces();
    EnterPlace(places, file_.store.Root(), "");
    AddMissing();
  }

 private:
  void Warn(const char* code, pugi::xml_node node, const std::string& key, std::string text, std::string remedy) {
    findings_.push_back({Grade::kWarning, code, file_.PositionOf(node), key, std::move(text), std::move(remedy)});
  }

  // Above the library's own keys other parts of the host may keep theirs.
  static bool IsOurs(std::string_view path) { return path.starts_with(kOxEventSettingsRoot); }

  // Calls `take` with the keys and values of a key that count. Reports what is passed over: only what resembles
  // `expected`, where it is not the library's own. `sections`: the keys within are sections, or lead to some.
  template <class Take>
  void ForEach(pugi::xml_node key, const std::string& path, const std::vector<std::string>& expected, bool sections,
               Take take) {
    std::set<std::pair<bool, std::string>> seen;
    for (const pugi::xml_node child : key.children()) {
      if (child.type() != pugi::node_element) {
        CheckText(child, key, path);
        continue;
      }
      const std::string name = NameOf(child);
      const bool resembles = !Suggestion(name, expected).empty();
      if (!IsKey(child) && !IsValue(child)) {
        CheckForeign(child, path, expected);
      } else if (!child.attribute("name")) {
        CheckNameless(child, path, expected);
      } else if (name.empty() || name.size() > oxCFGStore::kMaxNameBytes || name.find('\\') != name.npos) {
        if (IsOurs(path) || name.find("QVX") == 0 || resembles) CheckBadName(child, path, name, sections);
      } else if (!seen.emplace(IsKey(child), name).second) {
        if (IsOurs(path) || resembles) {
          Warn("twice", child, Join(path, name), "is here a second time: the first counts, this one is passed over",
               "Remove one of the two.");
        }
      } else {
        take(child, name);
      }
    }
  }

  // The loader cannot even see a section with such a name: it starts without it.
  void CheckBadName(pugi::xml_node node, const std::string& path, const std::string& name, bool sections) {
    const bool is_section = sections && IsKey(node);
    const std::string fault = name.empty() ? "empty" : name.find('\\') != name.npos ? "a path" : "too long";
    findings_.push_back(
        {is_section ? Grade::kError : Grade::kWarning, "bad-name", file_.PositionOf(node),
         Join(path, name.substr(0, 80)),
         "its name is " + fault + ": the library passes it over" + (is_section ? ", with everything in it" : ""),
         "A name has 1 to 511 bytes and no backslash; each key of a path is an element of its own."});
  }

  void CheckText(pugi::xml_node node, pugi::xml_node key, const std::string& path) {
    const std::string text = node.type() == pugi::node_cdata ? node.value() : oxCFGDecoded(node.value());
    const bool is_text = node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
    if (!is_text || !IsOurs(path) || text.find_first_not_of(kBlanks) == text.npos) return;
    Warn("stray-text", key, path, "holds the text " + Quoted(text) + ", which the library passes over",
         "A setting is an element of its own: <value name=\"NAME\">TEXT</value>.");
  }

  void CheckForeign(pugi::xml_node node, const std::string& path, const std::vector<std::string>& expected) {
    const std::string name = NameOf(node);
    const std::string meant = Suggestion(node.name(), {"key", "value"});
    const bool expects = !name.empty() && !Suggestion(name, expected).empty();
    if (expects || (IsOurs(path) && !meant.empty())) {
      Warn("unknown-element", node, Join(path, name),
           "the library passes the element <" + std::string(node.name()) + "> over" + meant,
           "Only <key> and <value>, in lower case, count.");
    }
  }

  void CheckNameless(pugi::xml_node node, const std::string& path, const std::vector<std::string>& expected) {
    const auto meant = [&](const pugi::xml_attribute& a) { return !Suggestion(a.value(), expected).empty(); };
    if (!IsOurs(path) && std::none_of(node.attributes_begin(), node.attributes_end(), meant)) return;
    Warn("no-name", node, path,
         "a <" + std::string(node.name()) + "> without the attribute name: the library passes it over",
         std::string("Write <") + node.name() + " name=\"NAME\">.");
  }

  void EnterPlace(const Place& place, pugi::xml_node key, const std::string& path) {
    if (place.HasInstances()) return EnterInstances(*place.section, key, path);
    if (place.HasSettings()) return EnterSettings(*place.section, key, path);
    const std::vector<std::string> expected = NamesOf(place.below);
    ForEach(key, path, expected, true, [&](pugi::xml_node child, const std::string& name) {
      const Place* const known = place.Find(name);
      if (known != nullptr && IsKey(child)) {
        EnterPlace(*known, child, Join(path, name));
      } else if (known != nullptr) {
        Warn("value-for-key", child, Join(path, name), "is a value, where the library looks for a key",
             "Write <key name=\"" + name + "\">.");
      } else {
        CheckUnknown(place, child, path, name);
      }
    });
  }

  // As in QVX/Events/core. Two of its keys tell it from another program's name.
  static bool IsPathBelow(const Place& place, std::string_view name) {
    const size_t end = std::min(name.find_first_of("/."), name.size());
    const Place* const first = place.Find(name.substr(0, end));
    if (first == nullptr || end == name.size()) return false;
    name.remove_prefix(end + 1);
    return first->Find(name.substr(0, name.find_first_of("/."))) != nullptr;
  }

  // A key or a value in a place that holds only certain keys.
  void CheckUnknown(const Place& place, pugi::xml_node child, const std::string& path, const std::string& name) {
    std::string meant = Suggestion(name, NamesOf(place.below));
    for (const Place& known : place.below) {
      if (meant.empty() && IsKey(child) && !IsOurs(path) && Fits(known, child))
        meant = "; did you mean " + known.name + "?";
    }
    if (meant.empty() && !IsOurs(path) && IsPathBelow(place, name)) {
      meant = "; each key of a path is an element of its own";
    }
    const oxEventSection* const resembled = IsKey(child) ? Resembled(child) : nullptr;
    const std::string whole = Join(path, name);
    const Place* const fitting = IsKey(child) ? FindFitting(place, child) : nullptr;
    if (IsOurs(path) && meant.empty() && resembled != nullptr) {
      const std::string instance = resembled->default_instance == nullptr ? "" : "\\" + name;
      Warn("misplaced", child, whole,
           "the library passes it over: its settings belong in " + KeyOf(*resembled) + instance, "Move it there.");
    } else if (fitting != nullptr) {
      Warn("misplaced", child, whole, "the library passes it over: it belongs in " + fitting->above, "Move it there.");
    } else if (IsOurs(path) || !meant.empty()) {
      Warn(IsKey(child) ? "unknown-key" : "unknown-value", child, whole,
           std::string("the library knows no such ") + (IsKey(child) ? "key" : "value") + " here" + meant,
           "Below " + (path.empty() ? "the root" : path) + " it reads: " + Listed(NamesOf(place.below)) + ".");
    }
  }

  static std::string Listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
  }

  void EnterInstances(const oxEventSection& section, pugi::xml_node key, const std::string& path) {
    bool told = false;
    ForEach(key, path, NamesOf(section), true, [&](pugi::xml_node child, const std::string& name) {
      if (IsKey(child)) {
        CheckInstance(section, child, path, name);
        EnterSettings(section, child, Join(path, name));
        return;
      }
      Warn("misplaced", child, Join(path, name), "a value beside the instances: the library passes it over",
           "Settings belong in a key of their own below " + path + ", such as " + section.default_instance + ".");
      if (!std::exchange(told, true)) {
        findings_.push_back({Grade::kNote, "misplaced", file_.PositionOf(key), path, "holds instances, not settings",
                             "Put a key with the name of an instance around the settings."});
      }
    });
  }

  void CheckInstance(const oxEventSection& section, pugi::xml_node key, const std::string& path,
                     const std::string& name) {
    if (FindSetting(section, name) != nullptr && !key.child("value")) {
      Warn("key-for-value", key, Join(path, name), "is a key, which makes it an instance with this name",
           "Settings are values in a key of their own below " + path + ", such as " + section.default_instance + ".");
    } else if (HasBlankEnds(name)) {
      Warn("blanks", key, Join(path, name), "the name has blanks at its ends, which count", "Remove them.");
    }
  }

  void EnterSettings(const oxEventSection& section, pugi::xml_node key, const std::string& path) {
    Group group = {&section, path, file_.PositionOf(key), {}};
    ForEach(key, path, NamesOf(section), false, [&](pugi::xml_node child, const std::string& name) {
      const oxEventSetting* const setting = FindSetting(section, name);
      const std::string whole = Join(path, name);
      if (IsKey(child)) {
        if (setting != nullptr) {
          Warn("key-for-value", child, whole, "is a key, where the library looks for a value",
               "Write <value name=\"" + name + "\">TEXT</value>.");
        } else {
          Warn("misplaced", child, whole, "a key among settings: the library passes it over",
               Resembled(child) == nullptr ? "Remove it."
                                           : "Move it to " + KeyOf(*Resembled(child)) + ", where its settings belong.");
        }
      } else if (setting == nullptr) {
        Warn("unknown-value", child, whole, "the library knows no such setting here" + Elsewhere(section, name),
             "The settings of this key: " + Listed(NamesOf(section)) + ".");
      } else {
        CheckContent(child, whole);
        Value value = {setting, "", file_.PositionOf(child)};
        file_.store.Read(path, name, [&](std::string_view piece) { value.text += piece; });
        group.values.push_back(std::move(value));
      }
    });
    found_.emplace(path, std::move(group));
  }

  static std::string Elsewhere(const oxEventSection& here, const std::string& name) {
    std::string meant = Suggestion(name, NamesOf(here));
    if (!meant.empty()) return meant;
    for (const oxEventSection& section : g_oxEventSections) {
      if (FindSetting(section, name) != nullptr) return "; " + KeyOf(section) + " has one of that name";
    }
    return "";
  }

  void CheckContent(pugi::xml_node value, const std::string& key) {
    for (const pugi::xml_node child : value.children()) {
      if (child.type() != pugi::node_element) continue;
      Warn("nested", value, key, "holds the element <" + std::string(child.name()) + ">, which the library passes over",
           "A value holds text alone.");
      break;
    }
    if (value.attribute("value")) {
      Warn("text-in-attribute", value, key, "has its text in an attribute, which the library passes over",
           "Write <value name=\"NAME\">TEXT</value>.");
    }
  }

  // What the loader reads although the file has no such key, and what it makes of each sink.
  void AddMissing() {
    for (const oxEventSection& section : g_oxEventSections) {
      if (section.default_instance == nullptr) AddGroup(section, KeyOf(section), nullptr);
    }
    for (const oxEventSinkConfig& sink : file_.config.sinks) {
      for (const oxEventSection& section : g_oxEventSections) {
        if (section.default_instance == nullptr || section.type != sink.type) continue;
        AddGroup(section, KeyOf(section) + "\\" + sink.name, &sink);
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
  std::map<std::string, Group> found_;  // By key.
};

}  // namespace

void FindGroups(SettingsFile* file, std::vector<Finding>* findings) { Walk(file, findings).Run(); }

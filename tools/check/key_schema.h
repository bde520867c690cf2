// The schema of the keys that the library knows, and functions that match elements of a settings file against it.
#pragma once

#include <algorithm>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "config/oxEventSettings.h"

// A key that the library knows, with the keys below it. Instances of a sink are not part of the schema.
struct KeySchema {
  std::string parent_path;
  std::string name;
  std::vector<KeySchema> children = {};
  const oxEventSection* section = nullptr;  // The section whose settings or instances the key contains; may be null.

  bool HasInstances() const { return section != nullptr && section->default_instance != nullptr; }
  bool HasSettings() const { return section != nullptr && section->default_instance == nullptr; }
  // Returns the section whose instances the key's only child contains, or null.
  const oxEventSection* OnlySection() const {
    return children.size() == 1 && children[0].HasInstances() ? children[0].section : nullptr;
  }
  const KeySchema* Find(std::string_view child_name) const {
    const auto child =
        std::find_if(children.begin(), children.end(), [&](const KeySchema& key) { return key.name == child_name; });
    return child == children.end() ? nullptr : &*child;
  }
};

// Builds the schema of the root key. Its pointers refer only to static tables.
KeySchema BuildKeySchema();

std::vector<std::string> NamesOf(const std::vector<KeySchema>& keys);
std::vector<std::string> NamesOf(const oxEventSection& section);
std::string PathOf(const oxEventSection& section);
std::string JoinPath(const std::string& path, const std::string& name);
const oxEventSetting* FindSetting(const oxEventSection& section, std::string_view name);

// Elements of the settings file.
std::string NameOf(pugi::xml_node node);
bool IsKey(pugi::xml_node node);
bool IsValue(pugi::xml_node node);

// Returns the section that has the most settings in common with the key, or null if no section has one in common.
// enabled and minimum_severity do not count. Of sections that have equally many in common, returns `preferred` (may be
// null), which may also have only enabled or minimum_severity in common.
const oxEventSection* FindSimilarSection(pugi::xml_node key, const oxEventSection* preferred = nullptr);

// Returns whether `key` contains any element that `schema` expects.
bool MatchesSchema(const KeySchema& schema, pugi::xml_node key);

// Searches all schemas below `parent` for one that has the name of `key` and that `key` matches. Returns null if there
// is none.
const KeySchema* FindMatchingSchema(const KeySchema& parent, pugi::xml_node key);

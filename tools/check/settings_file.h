// A settings file as the library reads it, with the places where everything stands. Nothing is written anywhere.
#pragma once

#include <map>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "check/findings.h"
#include "config/oxEventConfigLoad.h"
#include "config/oxEventSettings.h"
#include "oxCFGStore.h"

// A value of the file.
struct Value {
  const oxEventSetting* setting;
  std::string text;
  Position where;
};

// A key with settings.
struct Group {
  const oxEventSection* section;
  std::string key;                          // Its path.
  Position where;                           // Position of the key; the beginning of the file if it has no such key.
  std::vector<Value> values;                // The first of each name.
  const oxEventSinkConfig* sink = nullptr;  // What the loader makes of it; null: the core's.

  const Value* Find(std::string_view name) const;
  Position At(std::string_view name) const;  // Position of the value or, if it is missing, of the key.
  std::string PathOf(std::string_view name) const { return key + "\\" + std::string(name); }
};

struct SettingsFile {
  std::string path;
  oxCFGStore store;
  std::string refusal;                            // The loader's error text; empty: it takes the file.
  oxEventConfig config;                           // With defaults for the bad values.
  std::map<std::string, std::string> bad_values;  // The loader's error text by path.
  std::string completed;                          // The bytes that a load leaves.
  std::vector<Group> groups;                      // In reading order.
  std::vector<size_t> lines;                      // Where each begins.

  explicit SettingsFile(const std::string& its_path) : path(its_path) {}

  // False: it is no settings file, as the findings tell. The groups are left to FindGroups.
  bool Read(std::vector<Finding>* findings);
  Position PositionAt(size_t offset) const;
  Position PositionOf(pugi::xml_node element) const { return PositionAt(store.OffsetOf(element)); }
};

// Goes through the elements: fills in the groups, and tells of everything that has no place in the file.
void FindGroups(SettingsFile* file, std::vector<Finding>* findings);

// The rules for one value alone, for the start of the sinks, which may add to the refusal, and for values together.
void CheckValues(const SettingsFile& file, std::vector<Finding>* findings);
void CheckSinks(SettingsFile* file, std::vector<Finding>* findings);
void CheckHttp(const SettingsFile& file, std::vector<Finding>* findings);
void CheckTogether(const SettingsFile& file, std::vector<Finding>* findings);

// "; did you mean NAME?", with case, blanks, dashes and the order of letters overlooked; empty where no name comes
// close.
std::string Suggestion(std::string_view word, const std::vector<std::string>& names);

constexpr std::string_view kBlanks = " \t\r\n\v\f";
bool HasBlankEnds(std::string_view text);
std::string Quoted(std::string_view text);  // Cut where it is long.

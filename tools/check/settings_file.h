// A settings file as the library reads it, with the position of each element. Writes no file.
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

// A setting that the file contains.
struct Value {
  const oxEventSetting* setting;
  std::string text;
  Position position;
};

// A key that contains settings.
struct Group {
  const oxEventSection* section;
  std::string key;                          // Path of the key.
  Position position;                        // Position of the key; the start of the file if the key is missing.
  std::vector<Value> values;                // Of values with the same name, only the first.
  const oxEventSinkConfig* sink = nullptr;  // The loader's result; null if the key is not a sink.

  const Value* Find(std::string_view name) const;
  Position PositionOf(std::string_view name) const;  // Position of the value or, if it is missing, of the key.
  std::string PathOf(std::string_view name) const { return key + "\\" + std::string(name); }
};

struct SettingsFile {
  std::string path;
  oxCFGStore store;
  std::string start_error;                        // What oxEventInitialize would report; empty: it would succeed.
  oxEventConfig config;                           // Has the defaults of invalid values; only a queue_size of 0 stays.
  std::map<std::string, std::string> bad_values;  // Maps a value's path to the loader's error text.
  std::string completed;                          // Contents of the file after the library has completed it.
  std::vector<Group> groups;                      // In the order in which the library reads them.
  std::vector<size_t> line_offsets;               // Offset of the start of each line.

  explicit SettingsFile(const std::string& file_path) : path(file_path) {}

  // Returns false, after adding a finding, if the file cannot be read or parsed. CheckStructure fills in `groups`.
  bool Read(std::vector<Finding>* findings);
  Position PositionAt(size_t offset) const;
  Position PositionOf(pugi::xml_node element) const { return PositionAt(store.OffsetOf(element)); }
};

// Fills in the groups, and reports elements that the library ignores, except those that may belong to another program.
void CheckStructure(SettingsFile* file, std::vector<Finding>* findings);

// These functions check single values, whether the sinks would start (may set start_error), HTTP settings, and
// combinations of settings.
void CheckValues(const SettingsFile& file, std::vector<Finding>* findings);
void CheckSinks(SettingsFile* file, std::vector<Finding>* findings);
void CheckHttp(const SettingsFile& file, std::vector<Finding>* findings);
void CheckCombinations(const SettingsFile& file, std::vector<Finding>* findings);

// Returns "; did you mean NAME?", or an empty string if no name is similar. Prefers a name that differs only in case,
// white space, dashes, underscores or the order of the letters.
std::string Suggestion(std::string_view word, const std::vector<std::string>& names);

constexpr std::string_view kWhiteSpace = " \t\r\n\v\f";
bool HasOuterWhiteSpace(std::string_view text);
std::string Quoted(std::string_view text);  // In quotes; truncated if it is long.

// The keys that the library knows, and how elements of a file compare with them.
#pragma once

#include <algorithm>
#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "config/oxEventSettings.h"

// A key that the library knows, and those below it. The instances of a sink are not among them.
struct Place {
  std::string above;  // The path of the key that it is in.
  std::string name;
  std::vector<Place> below = {};
  const oxEventSection* section = nullptr;  // Whose settings or instances it holds.

  bool HasInstances() const { return section != nullptr && section->default_instance != nullptr; }
  bool HasSettings() const { return section != nullptr && section->default_instance == nullptr; }
  const Place* Find(std::string_view its_name) const {
    const auto place = std::find_if(below.begin(), below.end(), [&](const Place& p) { return p.name == its_name; });
    return place == below.end() ? nullptr : &*place;
  }
};

// The root, with everything below it. Refers to the tables alone.
Place AllPlaces();

std::vector<std::string> NamesOf(const std::vector<Place>& places);
std::vector<std::string> NamesOf(const oxEventSection& section);
std::string KeyOf(const oxEventSection& section);
std::string Join(const std::string& path, const std::string& name);
const oxEventSetting* FindSetting(const oxEventSection& section, std::string_view name);

// Elements of the settings file.
std::string NameOf(pugi::xml_node node);
bool IsKey(pugi::xml_node node);
bool IsValue(pugi::xml_node node);

// The section whose settings the key holds; null: of none.
const oxEventSection* Resembled(pugi::xml_node key);

// Whether the key holds what the place does.
bool Fits(const Place& place, pugi::xml_node key);

// The place of the key's name, however deep, that it fits; null: none.
const Place* FindFitting(const Place& above, pugi::xml_node key);

#include "check/places.h"

#include <iterator>

#include "oxCFGText.h"

namespace {

void Add(std::string_view path, const oxEventSection* section, Place* place) {
  while (!path.empty()) {
    const std::string name(path.substr(0, path.find('\\')));
    path.remove_prefix(std::min(name.size() + 1, path.size()));
    if (place->Find(name) == nullptr) place->below.push_back({Join(place->above, place->name), name});
    place = const_cast<Place*>(place->Find(name));
  }
  place->section = section;
}

// How many of the section's own settings the key holds.
size_t Matches(const oxEventSection& section, pugi::xml_node key) {
  size_t matches = 0;
  for (const pugi::xml_node child : key.children("value")) {
    const std::string name = NameOf(child);
    if (name != "enabled" && name != "minimum_severity" && FindSetting(section, name) != nullptr) ++matches;
  }
  return matches;
}

}  // namespace

const oxEventSetting* FindSetting(const oxEventSection& section, std::string_view name) {
  for (const oxEventSetting& setting : section.settings) {
    if (setting.name == name) return &setting;
  }
  return nullptr;
}

std::string Join(const std::string& path, const std::string& name) { return path.empty() ? name : path + "\\" + name; }

Place AllPlaces() {
  Place root;
  for (const oxEventSection& section : g_oxEventSections) {
    Add(std::string(kOxEventSettingsRoot) + "\\" + section.key, &section, &root);
  }
  return root;
}

std::vector<std::string> NamesOf(const std::vector<Place>& places) {
  std::vector<std::string> names;
  std::transform(places.begin(), places.end(), std::back_inserter(names),
                 [](const Place& place) { return place.name; });
  return names;
}

std::vector<std::string> NamesOf(const oxEventSection& section) {
  std::vector<std::string> names;
  for (const oxEventSetting& setting : section.settings) names.emplace_back(setting.name);
  return names;
}

std::string NameOf(pugi::xml_node node) { return oxCFGDecoded(node.attribute("name").value()); }
bool IsKey(pugi::xml_node node) { return std::string_view(node.name()) == "key"; }
bool IsValue(pugi::xml_node node) { return std::string_view(node.name()) == "value"; }

const oxEventSection* Resembled(pugi::xml_node key) {
  const oxEventSection* best = nullptr;
  size_t most = 0;
  for (const oxEventSection& section : g_oxEventSections) {
    const size_t matches = Matches(section, key);
    if (matches <= most) continue;
    most = matches;
    best = &section;
  }
  return best;
}

bool Fits(const Place& place, pugi::xml_node key) {
  const auto fits = [&](pugi::xml_node child) {
    if (place.HasSettings()) return IsValue(child) && FindSetting(*place.section, NameOf(child)) != nullptr;
    if (place.HasInstances()) return IsKey(child) && Matches(*place.section, child) > 0;
    const Place* const below = IsKey(child) ? place.Find(NameOf(child)) : nullptr;
    return below != nullptr && Fits(*below, child);
  };
  return std::any_of(key.begin(), key.end(), fits);
}

const Place* FindFitting(const Place& above, pugi::xml_node key) {
  for (const Place& place : above.below) {
    if (place.name == NameOf(key) && Fits(place, key)) return &place;
    if (const Place* const below = FindFitting(place, key)) return below;
  }
  return nullptr;
}

std::string KeyOf(const oxEventSection& section) { return std::string(kOxEventSettingsRoot) + "\\" + section.key; }

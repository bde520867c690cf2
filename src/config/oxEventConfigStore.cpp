#include "config/oxEventConfigStore.h"

#include <cstring>
#include <iterator>

#include "base/oxEventCopyString.h"
#include "base/oxEventErrorText.h"
#include "config/oxEventSettings.h"
#include "oxutil.h"

namespace {

constexpr uint32_t kGet = 0;
constexpr uint32_t kSet = 1;
constexpr uint32_t kValueCapacity = kOxEventTextMaxBytes + 1;  // Including the terminating NUL.
constexpr uint32_t kNameCapacity = 512;
constexpr uint32_t kSubKey = 0;

}  // namespace

oxEventConfigStore::~oxEventConfigStore() {
  if (store_ != nullptr) oxCFGClose(store_, 1);
}

bool oxEventConfigStore::Open(const char* path) {
  store_ = oxCFGOpen(path, 0);
  return store_ != nullptr;
}

void oxEventConfigStore::Save() { oxCFGSave(store_, 0, 1); }

void oxEventConfigStore::EnsureKey(const std::string& path) {
  if (oxCFGKeyExists(store_, path.c_str()) != 0) return;
  const size_t separator = path.rfind('\\');
  if (separator == path.npos) {
    oxCFGAddKeyString(store_, path.c_str(), "", "", 0, 0);
    return;
  }
  const std::string parent = path.substr(0, separator);
  EnsureKey(parent);
  oxCFGAddKeyString(store_, parent.c_str(), path.substr(separator + 1).c_str(), "", 0, 0);
}

std::vector<std::string> oxEventConfigStore::EnumChildren(const std::string& path) {
  std::vector<std::string> names;
  char previous[kNameCapacity] = "";
  while (true) {
    char name[kNameCapacity] = "";
    uint32_t kind = kSubKey;
    if (oxCFGGetNext(store_, path.c_str(), name, previous, &kind) == OXCFG_NO_MORE) return names;
    *std::rbegin(name) = '\0';  // In case another liboxutil does not terminate it.
    if (name[0] != '\0' && kind == kSubKey) names.emplace_back(name);
    oxEventPlatformCopyString(previous, kNameCapacity, name);
  }
}

uint32_t oxEventConfigStore::ReadDword(const std::string& key, const char* name, uint32_t default_value) {
  uint32_t value = 0;
  if (oxCFGValueDword(store_, key.c_str(), name, &value, kGet) == 0) return value;
  value = default_value;
  oxCFGValueDword(store_, key.c_str(), name, &value, kSet);
  return default_value;
}

std::string oxEventConfigStore::ReadString(const std::string& key, const char* name, const std::string& default_value) {
  char buffer[kValueCapacity] = "";
  uint32_t length = kValueCapacity;
  if (oxCFGValueString(store_, key.c_str(), name, buffer, &length, kGet) == 0) {
    *std::rbegin(buffer) = '\0';
    return buffer;
  }
  oxEventPlatformCopyString(buffer, kValueCapacity, default_value.c_str());
  length = static_cast<uint32_t>(std::strlen(buffer));
  if (length != 0) oxCFGValueString(store_, key.c_str(), name, buffer, &length, kSet);
  return buffer;
}

bool oxEventConfigStore::ReadBool(const std::string& key, const char* name, bool default_value) {
  uint32_t number = 0;
  if (oxCFGValueDword(store_, key.c_str(), name, &number, kGet) == 0) return number != 0;
  const std::string text = ReadString(key, name, default_value ? "1" : "0");
  if (const auto value = oxEventFindWord(g_oxEventSwitchWords, text)) return *value != 0;
  has_invalid_switch_or_severity_ = true;
  oxEventSetErrorText(oxEventErrors::kBadSwitch, {key, name, text}, error_);
  return default_value;
}

uint32_t oxEventConfigStore::ReadSeverity(const std::string& key, uint32_t default_value) {
  constexpr const char* kName = "minimum_severity";
  uint32_t number = 0;
  if (oxCFGValueDword(store_, key.c_str(), kName, &number, kGet) == 0 && number <= 3) return number;
  const std::string text = ReadString(key, kName, "info");
  if (const auto value = oxEventFindWord(g_oxEventSeverityWords, text)) return *value;
  has_invalid_switch_or_severity_ = true;
  oxEventSetErrorText(oxEventErrors::kBadSeverity, {key, text}, error_);
  return default_value;
}

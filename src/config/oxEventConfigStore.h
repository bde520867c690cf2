#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A settings file, accessed through liboxutil. Reading a value that is missing sets it to its default in memory; Save
// writes it to the file. Owns the store's handle. Threads: one at a time.
class oxEventConfigStore {
 public:
  // ReadBool and ReadSeverity write the error text of the last invalid value to *error, which must outlive this object.
  explicit oxEventConfigStore(std::string* error) : error_(error) {}
  ~oxEventConfigStore();
  oxEventConfigStore(const oxEventConfigStore&) = delete;
  oxEventConfigStore& operator=(const oxEventConfigStore&) = delete;

  // Returns false if the file cannot be read or is not a valid store.
  bool Open(const char* path);

  // Writes added keys, and added or replaced values, to the file. A failure is ignored: the values that were read
  // remain valid.
  void Save();

  void EnsureKey(const std::string& path);                         // Adds the missing keys of the path.
  std::vector<std::string> EnumChildren(const std::string& path);  // Names of the sub-keys, in file order.

  // Sets the value to its default if it is missing or is not a number.
  uint32_t ReadDword(const std::string& key, const char* name, uint32_t default_value);
  // Returns at most the first 2047 bytes. A missing value stays missing if the default is empty.
  std::string ReadString(const std::string& key, const char* name, const std::string& default_value);
  // Returns `default_value` if the value is missing or invalid.
  bool ReadBool(const std::string& key, const char* name, bool default_value);
  // Reads "minimum_severity". A missing value becomes info; returns `default_value` only if the value is invalid.
  uint32_t ReadSeverity(const std::string& key, uint32_t default_value);

  // Whether ReadBool or ReadSeverity has found an invalid value.
  bool HasInvalidSwitchOrSeverity() const { return has_invalid_switch_or_severity_; }

 private:
  std::string* const error_;
  void* store_ = nullptr;
  bool has_invalid_switch_or_severity_ = false;
};

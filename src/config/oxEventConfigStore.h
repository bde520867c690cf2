#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A settings file, accessed through liboxutil. Reading a missing value adds it to the store with its default. Owns the
// store's handle. Threads: one at a time.
class oxEventConfigStore {
 public:
  // ReadBool and ReadSeverity write the error text of the last invalid value to *error, which must outlive this object.
  explicit oxEventConfigStore(std::string* error) : error_(error) {}
  ~oxEventConfigStore();
  oxEventConfigStore(const oxEventConfigStore&) = delete;
  oxEventConfigStore& operator=(const oxEventConfigStore&) = delete;

  // False: the file cannot be read or is not valid.
  bool Open(const char* path);

  // Writes the added values to the file. Failure is ignored: the values that were read remain valid.
  void Save();

  void EnsureKey(const std::string& path);
  std::vector<std::string> EnumChildren(const std::string& path);  // Names of the sub-keys, in file order.

  uint32_t ReadDword(const std::string& key, const char* name, uint32_t default_value);
  // Returns at most 2047 bytes. An empty default is not added.
  std::string ReadString(const std::string& key, const char* name, const std::string& default_value);
  bool ReadBool(const std::string& key, const char* name, bool default_value);
  // Reads "minimum_severity". A missing value becomes info; returns `default_value` only if the value is invalid.
  uint32_t ReadSeverity(const std::string& key, uint32_t default_value);

  bool HasBadValue() const { return has_bad_value_; }  // Set by ReadBool and ReadSeverity.

 private:
  std::string* const error_;
  void* store_ = nullptr;
  bool has_bad_value_ = false;
};

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The settings store of the companion library, completing itself: a value that is read and missing is added with its
// default. Owns the store's handle. Threads: one at a time.
class oxEventConfigStore {
 public:
  // Severity and bool readers put the text of the last bad value into *error, which must outlive this object.
  explicit oxEventConfigStore(std::string* error) : error_(error) {}
  ~oxEventConfigStore();
  oxEventConfigStore(const oxEventConfigStore&) = delete;
  oxEventConfigStore& operator=(const oxEventConfigStore&) = delete;

  bool Open(const char* path);

  // A file that cannot be written stays as it is, and what was read still holds.
  void Save();

  void EnsureKey(const std::string& path);
  std::vector<std::string> EnumChildren(const std::string& path);  // Names of the sub-keys, in the file's order.

  uint32_t ReadDword(const std::string& key, const char* name, uint32_t default_value);
  // At most 2047 bytes. An empty default is not written.
  std::string ReadString(const std::string& key, const char* name, const std::string& default_value);
  bool ReadBool(const std::string& key, const char* name, bool default_value);
  // Reads "minimum_severity". Missing, it becomes info; `default_value` is returned only with an error.
  uint32_t ReadSeverity(const std::string& key, uint32_t default_value);

  bool HasBadValue() const { return has_bad_value_; }  // A bool or a severity was none.

 private:
  std::string* const error_;
  void* store_ = nullptr;
  bool has_bad_value_ = false;
};

#include "check/settings_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/oxEventAscii.h"
#include "common/command_line.h"
#include "oxCFGFile.h"

namespace {

// Receives the bytes that the store would write to the file.
std::string* g_replacement = nullptr;

std::string WhyUnreadable(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  if (status.st_size > static_cast<off_t>(oxCFGFile::kMaxBytes)) return "larger than 64 MiB";
  return access(path.c_str(), R_OK) != 0 ? std::strerror(errno) : "it cannot be read";
}

// Makes a sentence of a reason: those of the companion library are noun phrases in lower case ("a second root
// element"), those of the XML parser are sentences.
std::string Sentence(const std::string& reason) {
  return (oxEventAsciiLower(reason[0]) == reason[0] ? "The file contains " : "") + reason;
}

// Returns the word's characters in lower case and sorted, without white space, dashes and underscores.
std::string SortedLetters(std::string_view word) {
  std::string letters;
  for (const char c : word) {
    if (kWhiteSpace.find(c) == kWhiteSpace.npos && c != '-' && c != '_') letters.push_back(oxEventAsciiLower(c));
  }
  std::sort(letters.begin(), letters.end());  // Makes words with swapped letters equal.
  return letters;
}

}  // namespace

// Replaces the companion's definition: in this program, saving leaves the file unchanged.
bool oxCFGFile::Replace(std::string_view bytes) {
  if (bytes.size() > kMaxBytes) return false;  // The companion's function also refuses this.
  *g_replacement = bytes;
  return true;
}

const Value* Group::Find(std::string_view name) const {
  const auto value =
      std::find_if(values.begin(), values.end(), [&](const Value& v) { return v.setting->name == name; });
  return value == values.end() ? nullptr : &*value;
}

Position Group::PositionOf(std::string_view name) const {
  const Value* const value = Find(name);
  return value == nullptr ? position : value->position;
}

bool SettingsFile::Read(std::vector<Finding>* findings) {
  g_replacement = &completed;
  oxEventConfigLoad(path.c_str(), &config, &start_error);
  store.Open(path.c_str());
  if (completed.empty()) completed = store.Bytes();
  line_offsets = {0};
  for (size_t i = 0; i < store.Bytes().size(); ++i) {
    if (store.Bytes()[i] == '\n') line_offsets.push_back(i + 1);
  }
  std::string error;
  std::vector<oxEventBadValue> invalid;
  oxEventConfigLoadReportingAll(path.c_str(), &config, &invalid, &error);
  for (const oxEventBadValue& value : invalid) bad_values.emplace(value.key + "\\" + value.name, value.text);
  if (error.empty()) return true;
  const oxCFGParseError& why = store.ParseError();
  const std::string remedy = why.reason == nullptr
                                 ? WhyUnreadable(path) + ". Name a readable file of at most 64 MiB; it may be empty."
                                 : Sentence(why.reason) + ". Fix the file at this position.";
  findings->push_back({Severity::kError, why.reason == nullptr ? "unreadable" : "not-xml", PositionAt(why.offset), "",
                       start_error, remedy});
  return false;
}

Position SettingsFile::PositionAt(size_t offset) const {
  const auto next = std::upper_bound(line_offsets.begin(), line_offsets.end(), offset);
  return {static_cast<size_t>(next - line_offsets.begin()), offset - *(next - 1) + 1};
}

std::string Suggestion(std::string_view word, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (SortedLetters(name) == SortedLetters(word)) return "; did you mean " + name + "?";
  }
  const std::string similar = DidYouMean(word, names);
  return similar.empty() ? DidYouMean(oxEventAsciiLower(word), names) : similar;
}

bool HasOuterWhiteSpace(std::string_view text) {
  return !text.empty() &&
         (kWhiteSpace.find(text.front()) != kWhiteSpace.npos || kWhiteSpace.find(text.back()) != kWhiteSpace.npos);
}

std::string Quoted(std::string_view text) {
  constexpr size_t kMaxBytes = 60;
  if (text.size() <= kMaxBytes) return "'" + std::string(text) + "'";
  size_t size = kMaxBytes;
  while (size > 0 && (text[size] & 0xC0) == 0x80) --size;  // Do not split a UTF-8 character.
  return "'" + std::string(text.substr(0, size)) + "...'";
}

#include "check/settings_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/oxEventAscii.h"
#include "common/command_line.h"
#include "common/remedy.h"
#include "oxCFGFile.h"

namespace {

// What the store of the load under way would have written.
std::string* g_replacement = nullptr;

std::string WhyUnreadable(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISREG(status.st_mode)) return "no regular file";
  if (status.st_size > static_cast<off_t>(oxCFGFile::kMaxBytes)) return "over 64 MiB";
  return access(path.c_str(), R_OK) != 0 ? std::strerror(errno) : "it cannot be read";
}

// The letters of a word.
std::string Folded(std::string_view word) {
  std::string folded;
  for (const char c : word) {
    if (kBlanks.find(c) == kBlanks.npos && c != '-' && c != '_') folded.push_back(oxEventAsciiLower(c));
  }
  std::sort(folded.begin(), folded.end());  // Letters that have changed places are the commonest slip.
  return folded;
}

}  // namespace

// In this program a save ends here, and the file stays as it is.
bool oxCFGFile::Replace(std::string_view bytes) {
  if (bytes.size() > kMaxBytes) return false;  // As the store's own, which leaves the file as it is then.
  *g_replacement = bytes;
  return true;
}

const Value* Group::Find(std::string_view name) const {
  const auto value =
      std::find_if(values.begin(), values.end(), [&](const Value& v) { return v.setting->name == name; });
  return value == values.end() ? nullptr : &*value;
}

Position Group::At(std::string_view name) const {
  const Value* const value = Find(name);
  return value == nullptr ? where : value->where;
}

bool SettingsFile::Read(std::vector<Finding>* findings) {
  g_replacement = &completed;
  oxEventConfigLoad(path.c_str(), &config, &refusal);
  const bool open = store.Open(path.c_str());
  if (completed.empty()) completed = store.Bytes();
  lines = {0};
  for (size_t i = 0; i < store.Bytes().size(); ++i) {
    if (store.Bytes()[i] == '\n') lines.push_back(i + 1);
  }
  std::string error;
  std::vector<oxEventBadValue> bad;
  oxEventConfigInspect(path.c_str(), &config, &bad, &error);
  for (const oxEventBadValue& value : bad) bad_values.emplace(value.key + "\\" + value.name, value.text);
  if (open && error.empty()) return true;
  const oxCFGParseError& why = store.ParseError();
  const std::string remedy = why.reason == nullptr ? WhyUnreadable(path) + ". " + std::string(RemedyFor(refusal))
                                                   : std::string(why.reason) + ". Mend the file there.";
  findings->push_back(
      {Grade::kError, why.reason == nullptr ? "unreadable" : "not-xml", PositionAt(why.offset), "", refusal, remedy});
  return false;
}

Position SettingsFile::PositionAt(size_t offset) const {
  const auto next = std::upper_bound(lines.begin(), lines.end(), offset);
  return {static_cast<size_t>(next - lines.begin()), offset - *(next - 1) + 1};
}

std::string Suggestion(std::string_view word, const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (Folded(name) == Folded(word)) return "; did you mean " + name + "?";
  }
  const std::string meant = DidYouMean(word, names);
  return meant.empty() ? DidYouMean(oxEventAsciiLower(word), names) : meant;
}

bool HasBlankEnds(std::string_view text) {
  return !text.empty() && (kBlanks.find(text.front()) != kBlanks.npos || kBlanks.find(text.back()) != kBlanks.npos);
}

std::string Quoted(std::string_view text) {
  constexpr size_t kLongest = 60;
  if (text.size() <= kLongest) return "'" + std::string(text) + "'";
  size_t size = kLongest;
  while (size > 0 && (text[size] & 0xC0) == 0x80) --size;  // Not within a character.
  return "'" + std::string(text.substr(0, size)) + "...'";
}

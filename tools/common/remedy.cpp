#include "common/remedy.h"

#include "base/oxEventErrors.h"
#include "common/error_causes.h"

namespace {

// Returns whether the text is the pattern with its placeholders, such as "{name}", replaced by values.
bool Matches(std::string_view pattern, std::string_view text) {
  const size_t begin = pattern.find('{');
  if (begin == pattern.npos) return text == pattern;
  if (!text.starts_with(pattern.substr(0, begin))) return false;
  pattern.remove_prefix(pattern.find('}') + 1);
  for (text.remove_prefix(begin); !Matches(pattern, text); text.remove_prefix(1)) {
    if (text.empty()) return false;
  }
  return true;
}

// Returns the number of bytes outside the pattern's placeholders.
size_t LiteralSize(std::string_view pattern) {
  size_t bytes = 0;
  for (size_t begin = 0; (begin = pattern.find('{')) != pattern.npos; pattern.remove_prefix(pattern.find('}') + 1)) {
    bytes += begin;
  }
  return bytes + pattern.size();
}

}  // namespace

std::string_view RemedyFor(std::string_view text) {
  size_t best = 0;  // A text may match several patterns: the one with the most literal bytes wins.
  std::string_view remedy;
  for (const oxEventErrors::Entry& entry : oxEventErrors::kTable) {
    if (LiteralSize(entry.text) <= best || !Matches(entry.text, text)) continue;
    best = LiteralSize(entry.text);
    remedy = kErrorCauses[entry.id].remedy;
  }
  return remedy;
}

std::string WithRemedy(std::string_view text, std::string_view reason) {
  std::string all(text);
  if (!reason.empty()) all.append(" (").append(reason).append(")");
  const std::string_view remedy = RemedyFor(text);
  if (!remedy.empty()) all.append("\n    ").append(remedy);
  return all;
}

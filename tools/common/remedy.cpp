#include "common/remedy.h"

#include "base/oxEventErrors.h"

namespace {

// Whether a text was made of the pattern, by putting values in its places, "{name}".
bool IsMadeOf(std::string_view pattern, std::string_view text) {
  const size_t place = pattern.find('{');
  if (place == pattern.npos) return text == pattern;
  if (!text.starts_with(pattern.substr(0, place))) return false;
  pattern.remove_prefix(pattern.find('}') + 1);
  for (text.remove_prefix(place); !IsMadeOf(pattern, text); text.remove_prefix(1)) {
    if (text.empty()) return false;
  }
  return true;
}

// Bytes of a pattern that are no place.
size_t Literal(std::string_view pattern) {
  size_t bytes = 0;
  for (size_t place = 0; (place = pattern.find('{')) != pattern.npos; pattern.remove_prefix(pattern.find('}') + 1)) {
    bytes += place;
  }
  return bytes + pattern.size();
}

}  // namespace

std::string_view RemedyFor(std::string_view text) {
  size_t best = 0;  // The text of one entry may fit a more general one too.
  std::string_view remedy;
  for (const oxEventErrors::Entry& entry : oxEventErrors::kTable) {
    if (Literal(entry.text) <= best || !IsMadeOf(entry.text, text)) continue;
    best = Literal(entry.text);
    remedy = entry.remedy;
  }
  return remedy;
}

std::string WithRemedy(std::string_view text) {
  const std::string_view remedy = RemedyFor(text);
  return std::string(text) + (remedy.empty() ? "" : "\n    ") + std::string(remedy);
}

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "base/oxEventErrors.h"

// A text of the table that has so many places. Made from the entry's id by the compiler alone, so that nothing else of
// the table comes into the library, and no text that is not in the table.
template <size_t places>
class oxEventErrorText {
 public:
  consteval oxEventErrorText(oxEventErrors::Id id)
      : text(oxEventErrors::kTable[id].text), code(oxEventErrors::kTable[id].codes[0]) {
    if (std::count(text.begin(), text.end(), '{') != places) throw "the text has another number of places";
  }

  std::string_view text;
  uint32_t code;  // The usual one.
};

// Puts the values into the places of a text; `error` may be null. Without memory for it the text is empty: the result
// code that it goes with stands.
void oxEventFillErrorText(std::string_view text, const std::string_view* values, std::string* error) noexcept;

// The same for an entry: oxEventSetErrorText(oxEventErrors::kCsvOpen, {path}, error). Returns its usual code.
template <size_t places>
uint32_t oxEventSetErrorText(std::type_identity_t<oxEventErrorText<places>> entry,
                             const std::string_view (&values)[places], std::string* error) noexcept {
  oxEventFillErrorText(entry.text, values, error);
  return entry.code;
}

inline uint32_t oxEventSetErrorText(oxEventErrorText<0> entry, std::string* error) noexcept {
  oxEventFillErrorText(entry.text, nullptr, error);
  return entry.code;
}

// Hands on a text that was made before; the rest as above.
void oxEventCopyErrorText(std::string_view text, std::string* error) noexcept;

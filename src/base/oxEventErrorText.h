#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "base/oxEventErrors.h"

// An error text of oxEventErrors::kTable with the given number of placeholders. Constructed from its id at compile
// time, so that the library contains only the texts that it uses.
template <size_t placeholders>
class oxEventErrorText {
 public:
  consteval oxEventErrorText(oxEventErrors::Id id)
      : text(oxEventErrors::kTable[id].text), code(oxEventErrors::kTable[id].codes[0]) {
    if (std::count(text.begin(), text.end(), '{') != placeholders) throw "wrong number of placeholders";
  }

  std::string_view text;
  uint32_t code;  // The usual result code.
};

// Sets *error to the text with its placeholders replaced by the values; `error` may be null. If out of memory, *error
// becomes empty, and the result code alone reports the failure.
void oxEventFillErrorText(std::string_view text, const std::string_view* values, std::string* error) noexcept;

// Does the same for the text with the given id, as in oxEventSetErrorText(oxEventErrors::kCsvOpen, {path}, error).
// Returns the usual result code of the text.
template <size_t placeholders>
uint32_t oxEventSetErrorText(std::type_identity_t<oxEventErrorText<placeholders>> entry,
                             const std::string_view (&values)[placeholders], std::string* error) noexcept {
  oxEventFillErrorText(entry.text, values, error);
  return entry.code;
}

inline uint32_t oxEventSetErrorText(oxEventErrorText<0> entry, std::string* error) noexcept {
  oxEventFillErrorText(entry.text, nullptr, error);
  return entry.code;
}

// Sets *error to a text without placeholders; `error` may be null. If out of memory, *error becomes empty.
void oxEventCopyErrorText(std::string_view text, std::string* error) noexcept;

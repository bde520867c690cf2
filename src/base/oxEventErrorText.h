#pragma once

#include <initializer_list>
#include <new>
#include <string>
#include <string_view>

// Puts an error text together; `error` may be null. Without memory for it the text is empty: the result code that it
// goes with stands.
inline void oxEventSetErrorText(std::initializer_list<std::string_view> parts, std::string* error) noexcept {
  if (error == nullptr) return;
  try {
    error->clear();
    for (const std::string_view part : parts) error->append(part);
  } catch (const std::bad_alloc&) {
    error->clear();
  }
}

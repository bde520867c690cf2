#include "base/oxEventErrorText.h"

#include <new>

void oxEventFillErrorText(std::string_view text, const std::string_view* values, std::string* error) noexcept {
  if (error == nullptr) return;
  try {
    error->clear();
    for (size_t begin; (begin = text.find('{')) != text.npos; text.remove_prefix(text.find('}') + 1)) {
      error->append(text.substr(0, begin)).append(*values++);
    }
    error->append(text);
  } catch (const std::bad_alloc&) {
    error->clear();
  }
}

void oxEventCopyErrorText(std::string_view text, std::string* error) noexcept {
  if (error == nullptr) return;
  try {
    error->assign(text);
  } catch (const std::bad_alloc&) {
    error->clear();
  }
}

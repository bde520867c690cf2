// Events from JSON.
#pragma once

#include <deque>
#include <stdexcept>
#include <string>
#include <string_view>

#include "oxEvent.h"

// Where a JSON text stops making sense, and why.
class JsonError : public std::runtime_error {
 public:
  JsonError(const std::string& text, size_t offset) : runtime_error(text), column(offset + 1) {}
  const size_t column;  // In bytes, from 1.
};

// Sets the fields of *record that are members of the object `json`, which has the names of the library's own JSON
// document. `texts` gets the texts that the record then points to. Throws JsonError.
void ReadEvent(std::string_view json, oxEventRecord* record, std::deque<std::string>* texts);

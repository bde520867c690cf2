// Reads events from JSON.
#pragma once

#include <deque>
#include <stdexcept>
#include <string>
#include <string_view>

#include "oxEvent.h"

// An error in a JSON text, with its position.
class JsonError : public std::runtime_error {
 public:
  JsonError(const std::string& text, size_t offset) : runtime_error(text), column(offset + 1) {}
  const size_t column;  // Counts bytes from 1.
};

// Sets the fields of *record from the members of the object `json`, which are named as in the library's JSON documents.
// The record then points into *strings. Throws JsonError.
void ReadEvent(std::string_view json, oxEventRecord* record, std::deque<std::string>* strings);

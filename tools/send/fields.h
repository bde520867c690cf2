// The fields of an event, with their names in the record, in JSON and on the command line.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

#include "oxEvent.h"

struct Field {
  const char* name;    // Name in the record and in JSON.
  const char* option;  // Name of the option; null: a positional argument.
  const char* argument;
  const char* help;
  std::variant<const char * oxEventRecord::*, uint32_t oxEventRecord::*, uint64_t oxEventRecord::*,
               int64_t oxEventRecord::*, double oxEventRecord::*>
      member;

  bool IsString() const { return member.index() == 0; }
};

extern const std::span<const Field> g_fields;

// Returns null if there is no field of this name.
const Field* FindField(std::string_view name);

// Parses a severity's name or number. Throws std::invalid_argument.
uint32_t ParseSeverity(std::string_view text);

// Parses `text` into the field; a string field keeps the pointer. Throws std::invalid_argument.
void SetField(const Field& field, const char* text, oxEventRecord* record);

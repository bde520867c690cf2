// The fields of an event, as they are named in the record, in JSON and on the command line.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <variant>

#include "oxEvent.h"

struct Field {
  const char* name;    // In the record and in JSON.
  const char* option;  // On the command line; null: an argument of its own.
  const char* argument;
  const char* help;
  std::variant<const char * oxEventRecord::*, uint32_t oxEventRecord::*, uint64_t oxEventRecord::*,
               int64_t oxEventRecord::*, double oxEventRecord::*>
      member;

  bool IsText() const { return member.index() == 0; }
};

extern const std::span<const Field> g_fields;

// Null: there is none of that name.
const Field* FindField(std::string_view name);

// A severity, by name or number.
uint32_t SeverityFrom(std::string_view text);

// Sets a field from its text; a field that is a text itself keeps the pointer. Throws std::invalid_argument.
void SetField(const Field& field, const char* text, oxEventRecord* record);

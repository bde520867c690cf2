// What the check of a settings file has found, and how it is told.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct Position {  // From 1; columns are bytes.
  size_t line = 1;
  size_t column = 1;
};

enum class Grade {
  kError,    // The library would not start, or would start without a section.
  kWarning,  // What a user would want to mend.
  kNote,     // Where else to look for one of these.
  kDetail    // Told only when asked for.
};

struct Finding {
  Grade grade;
  const char* code;  // For machines: short, and stays.
  Position where;
  std::string key;  // The path of the key or the value; empty: the file.
  std::string text;
  std::string remedy;
};

// In the order of the lines, the gravest first; the details only if they are asked for.
void Sort(bool with_details, std::vector<Finding>* findings);

// As compilers do: FILE:LINE:COLUMN: GRADE: KEY: TEXT, and the remedy on a line of its own.
std::string AsText(const std::string& file, const std::vector<Finding>& findings);

// Objects in JSON, separated by commas and line ends.
std::string AsJson(const std::string& file, const std::vector<Finding>& findings);

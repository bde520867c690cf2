// Findings about a settings file, and their output formats.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct Position {  // Both count from 1; columns count bytes.
  size_t line = 1;
  size_t column = 1;
};

enum class Severity {
  kError,    // The library would not start, or would start without a section.
  kWarning,  // Something that the user probably did not intend.
  kNote,     // Another position that belongs to an error or a warning, or information that may not need a fix.
  kDetail    // Printed only with --verbose.
};

struct Finding {
  Severity severity;
  const char* code;  // Short, stable identifier of the problem, for programs.
  Position position;
  std::string key;  // Path of the key or value; empty: the root element or the whole file.
  std::string text;
  std::string remedy;
};

// Sorts by line, column and severity, the most severe first. Removes the details unless `with_details`.
void Sort(bool with_details, std::vector<Finding>* findings);

// Formats findings as compilers do: FILE:LINE:COLUMN: SEVERITY: KEY: TEXT, and the remedy on the next line.
std::string FormatText(const std::string& file, const std::vector<Finding>& findings);

// Formats findings as JSON objects, separated by commas and line ends.
std::string FormatJson(const std::string& file, const std::vector<Finding>& findings);

#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

// The name of a severity; a value that is none has `other`.
inline std::string_view oxEventSeverityName(uint32_t severity, std::string_view other = "info") {
  constexpr std::string_view kNames[] = {"debug", "info", "warning", "error"};
  return severity < std::size(kNames) ? kNames[severity] : other;
}

inline bool oxEventSeverityMeetsMinimum(uint32_t severity, uint32_t minimum) { return severity >= minimum; }

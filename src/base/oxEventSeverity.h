#pragma once

#include <cstdint>
#include <iterator>
#include <string_view>

// Returns the name of a severity, or `fallback` for an invalid value.
inline std::string_view oxEventSeverityName(uint32_t severity, std::string_view fallback = "info") {
  constexpr std::string_view kNames[] = {"debug", "info", "warning", "error"};
  return severity < std::size(kNames) ? kNames[severity] : fallback;
}

inline bool oxEventSeverityMeetsMinimum(uint32_t severity, uint32_t minimum) { return severity >= minimum; }

// Functions that the command line tools share: options, help, exit statuses, output.
#pragma once

#include <charconv>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// An invalid command line. The message is one line and names the argument at fault.
class UsageError : public std::runtime_error {
  using runtime_error::runtime_error;
};

struct Option {
  const char* name;      // Without the dashes.
  const char* argument;  // Name of the value in the help, as [=NAME] if it may be missing; null: takes no value.
  const char* help;      // May contain line feeds.
  // `value` lives as long as the process, and is null if there is none. Throws std::invalid_argument if the
  // value is invalid.
  std::function<void(const char* value)> set;
  const char* heading = nullptr;  // Heading of the section of the help that begins with this option.
};

struct Tool {
  const char* name;
  const char* usage;            // Text of the help before the options.
  const char* notes;            // Text of the help after the options.
  std::vector<Option> options;  // Without --help and --version, which RunTool adds.
};

// Runs a tool: parses the options, calls `run` with the other arguments and returns the exit status. Handles --help and
// --version. Reports a UsageError and returns kExitUsage; reports any other std::exception and returns kExitFailure.
// Reports a failed write to stdout and returns kExitFailure instead of kExitSuccess.
int RunTool(Tool tool, int argc, char** argv, const std::function<int(std::vector<const char*> arguments)>& run);

// Prints "TOOL: MESSAGE" to stderr, with the name of the running tool.
void PrintError(std::string_view message);

// Escapes control characters, line feeds included: strings from a file must not reach the terminal unescaped.
std::string Printable(std::string_view text);

// Replaces bytes that are not UTF-8 by U+FFFD: JSON must be UTF-8 (RFC 8259, section 8.1).
std::string ValidUtf8(std::string_view text);

// Returns "; did you mean NAME?" with the most similar name, or an empty string if none is similar enough.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& names);

// Parses the whole string as a number from `min` to `max`. Throws std::invalid_argument.
template <class Number>
Number ParseNumber(std::string_view text, Number min = std::numeric_limits<Number>::lowest(),
                   Number max = std::numeric_limits<Number>::max()) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && rest == end && number >= min && number <= max) return number;  // Never true for NaN.
  std::string range;
  if (std::is_integral_v<Number> || min > std::numeric_limits<Number>::lowest()) {
    const auto decimal = [](Number limit) {
      char digits[32];
      return std::string(digits, std::to_chars(digits, digits + sizeof(digits), limit).ptr);
    };
    range = " from " + decimal(min) + " to " + decimal(max);
  }
  throw std::invalid_argument("'" + std::string(text) + "' is not a " + (std::is_integral_v<Number> ? "whole " : "") +
                              "number" + range);
}

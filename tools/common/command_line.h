// What the command line tools share.
#pragma once

#include <charconv>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// A command line that cannot be followed. The text is one line and names the culprit.
class UsageError : public std::runtime_error {
  using runtime_error::runtime_error;
};

struct Option {
  const char* name;      // Without its dashes.
  const char* argument;  // What the help calls its value; null: it takes none.
  const char* help;      // May have several lines.
  // Gets the value, which lives as long as the process; null where there is none. Throws std::invalid_argument.
  std::function<void(const char* value)> set;
  const char* heading = nullptr;  // Heading of the section of the help that begins with this option.
};

struct Tool {
  const char* name;
  const char* usage;  // The help's text before and after the options.
  const char* notes;
  std::vector<Option> options;  // --help and --version aside.
};

// Runs a tool: follows the options, hands the other arguments to `run` and returns the status to exit with. --help and
// --version are answered here, a UsageError is told and becomes kUsage. What could not be written to stdout is told
// too, and makes kDone kFailed.
int RunTool(Tool tool, int argc, char** argv, const std::function<int(std::vector<const char*> arguments)>& run);

// Prints "TOOL: TEXT" to stderr, where TOOL is the running one.
void Complain(std::string_view text);

// The text on one line and without control characters: what comes from a file may hold line ends and worse.
std::string Printable(std::string_view text);

// "; did you mean NAME?", with the name that comes close enough to the word; empty where none does.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& names);

// The text, all of it, as a number from `least` to `most`. Throws std::invalid_argument.
template <class Number>
Number NumberFrom(std::string_view text, Number least = std::numeric_limits<Number>::lowest(),
                  Number most = std::numeric_limits<Number>::max()) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && rest == end && number >= least && number <= most) return number;  // Not NaN.
  std::string range;
  if (std::is_integral_v<Number> || least > std::numeric_limits<Number>::lowest()) {
    const auto decimal = [](Number limit) {
      char digits[32];
      return std::string(digits, std::to_chars(digits, digits + sizeof(digits), limit).ptr);
    };
    range = " from " + decimal(least) + " to " + decimal(most);
  }
  throw std::invalid_argument("'" + std::string(text) + "' is not a " + (std::is_integral_v<Number> ? "whole " : "") +
                              "number" + range);
}

#include "command_line.h"

#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "oxUTF8.h"

namespace {

const char* g_tool = "";

constexpr int kFirstLongOption = 256;  // What getopt_long returns for the first long option; no character has it.

// Levenshtein distance.
size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);  // Distances of the processed prefix of `a` to each prefix of `b`.
  std::iota(row.begin(), row.end(), size_t{0});
  for (const char letter : a) {
    size_t diagonal = row[0]++;
    for (size_t i = 0; i < b.size(); ++i) {
      const size_t replaced = diagonal + (letter == b[i] ? 0 : 1);
      diagonal = row[i + 1];
      row[i + 1] = std::min({replaced, row[i] + 1, row[i + 1] + 1});
    }
  }
  return row.back();
}

bool IsOptional(const char* argument) { return argument[0] == '['; }

void PrintHelp(const Tool& tool) {
  constexpr int kColumn = 28;  // Column of the descriptions.
  std::fputs(tool.usage, stdout);
  for (const Option& option : tool.options) {
    if (option.heading != nullptr) std::printf("\n%s:\n", option.heading);
    std::string left = std::string("  --") + option.name;
    if (option.argument != nullptr) left.append(IsOptional(option.argument) ? "" : " ").append(option.argument);
    std::string help = option.help;
    for (size_t i = 0; (i = help.find('\n', i)) != help.npos;) help.insert(++i, kColumn, ' ');
    std::printf("%-*s %s\n", kColumn - 1, left.c_str(), help.c_str());
  }
  std::fputs(tool.notes, stdout);
}

UsageError MakeOptionError(const Tool& tool, const char* word, int option, bool lacks_value) {
  if (option >= kFirstLongOption) {
    const std::string name = std::string("--") + tool.options[static_cast<size_t>(option - kFirstLongOption)].name;
    return UsageError(name + (lacks_value ? ": requires a value" : ": takes no value"));
  }
  if (option != 0) return UsageError(std::string("-") + static_cast<char>(option) + ": no such option");
  const std::string name(word, std::strcspn(word, "="));
  std::vector<std::string> names;
  for (const Option& known : tool.options) names.push_back(std::string("--") + known.name);
  const auto begins_with_name = [&name](const std::string& known) { return known.starts_with(name); };
  // getopt_long accepts the beginning of a name unless it is ambiguous.
  if (std::any_of(names.begin(), names.end(), begins_with_name)) return UsageError(name + ": ambiguous option");
  return UsageError(name + ": no such option" + DidYouMean(name, names));
}

// Parses the options and returns the other arguments.
std::vector<const char*> ParseOptions(const Tool& tool, int argc, char** argv) {
  std::vector<option> known;
  for (const Option& option : tool.options) {
    const int has_argument = option.argument == nullptr    ? no_argument
                             : IsOptional(option.argument) ? optional_argument
                                                           : required_argument;
    known.push_back({option.name, has_argument, nullptr, kFirstLongOption + static_cast<int>(known.size())});
  }
  known.push_back({});
  while (true) {
    const int found = getopt_long(argc, argv, ":", known.data(), nullptr);  // The colon suppresses its own messages.
    if (found == -1) return {argv + optind, argv + argc};
    if (found == '?' || found == ':') throw MakeOptionError(tool, argv[optind - 1], optopt, found == ':');
    const Option& option = tool.options[static_cast<size_t>(found - kFirstLongOption)];
    try {
      option.set(optarg);
    } catch (const std::invalid_argument& error) {
      throw UsageError(std::string("--") + option.name + ": " + error.what());
    }
  }
}

// Opens /dev/null for each closed standard descriptor: otherwise the next file that is opened, such as a sink's, would
// get that number, and the tool would print into it. Opens stdin for writing and the others for reading, so that reads
// and writes still fail.
void ReserveStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
  }
}

int Run(Tool* tool, int argc, char** argv, const std::function<int(std::vector<const char*>)>& run) {
  enum { kRun, kHelp, kVersion } action = kRun;
  tool->options.push_back({"help", nullptr, "print this help and exit", [&action](const char*) { action = kHelp; }});
  tool->options.push_back(
      {"version", nullptr, "print the version and exit", [&action](const char*) { action = kVersion; }});
  const std::vector<const char*> arguments = ParseOptions(*tool, argc, argv);
  if (action == kRun) return run(arguments);
  if (action == kHelp) {
    PrintHelp(*tool);
  } else {
    std::printf("%s %s\n", tool->name, OXEVENT_VERSION);
  }
  return kExitSuccess;
}

}  // namespace

int RunTool(Tool tool, int argc, char** argv, const std::function<int(std::vector<const char*>)>& run) {
  ReserveStandardDescriptors();
  g_tool = tool.name;
  int status = kExitUsage;
  try {
    status = Run(&tool, argc, argv, run);
  } catch (const UsageError& error) {
    PrintError(error.what());
  } catch (const std::exception& error) {
    PrintError(error.what());
    status = kExitFailure;
  }
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  PrintError(std::string("standard output: ") + std::strerror(errno));
  return status == kExitSuccess ? kExitFailure : status;
}

void PrintError(std::string_view message) {
  std::fflush(stdout);  // Keeps the lines of both streams in order.
  std::fprintf(stderr, "%s: %.*s\n", g_tool, static_cast<int>(message.size()), message.data());
}

std::string DidYouMean(std::string_view word, const std::vector<std::string>& names) {
  constexpr size_t kMaxBytes = 128;  // Longer than every word that resembles a name; bounds the time.
  if (word.size() > kMaxBytes) return "";
  const auto is_nearer = [word](const std::string& a, const std::string& b) {
    return EditDistance(word, a) < EditDistance(word, b);
  };
  const auto nearest = std::min_element(names.begin(), names.end(), is_nearer);
  if (nearest == names.end() || EditDistance(word, *nearest) * 3 > word.size()) return "";
  return "; did you mean " + *nearest + "?";
}

std::string ValidUtf8(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    const size_t size = oxUTF8SequenceLength(text);
    const bool is_stray = size == 1 && (text[0] & 0x80) != 0;
    valid.append(is_stray ? "\xEF\xBF\xBD" : text.substr(0, size));
    text.remove_prefix(size);
  }
  return valid;
}

std::string Printable(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  // U+0080 to U+009F are control characters too.
  const auto begins_c1 = [text](size_t i) {
    const std::string_view character = text.substr(i, 2);
    return character >= "\xC2\x80" && character <= "\xC2\x9F";
  };
  std::string printable;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const auto byte = static_cast<unsigned char>(c);
    const bool is_c1 = begins_c1(i) || (i > 0 && begins_c1(i - 1));
    if (byte >= ' ' && byte != 0x7F && !is_c1) {
      printable.push_back(c);
    } else if (c == '\n' || c == '\t' || c == '\r') {
      printable.append(c == '\n' ? "\\n" : c == '\t' ? "\\t" : "\\r");
    } else {
      printable.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 0xF]);
    }
  }
  return printable;
}

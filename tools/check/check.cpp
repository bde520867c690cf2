// oxevent-check: reports what is wrong with settings files, without changing them.
#include <algorithm>
#include <cstdio>
#include <utility>

#include "check/explain.h"
#include "check/settings_file.h"
#include "common/command_line.h"

namespace {

constexpr int kExitWarnings = 1;
constexpr int kExitErrors = 2;

constexpr char kUsageText[] =
    "Usage: oxevent-check [OPTION]... FILE...\n"
    "       oxevent-check --complete FILE\n"
    "       oxevent-check --explain KEY\n"
    "\n"
    "Reads settings files as the library does and reports each problem with its line, key and remedy.\n"
    "Writes no file, opens no network connection and resolves no host name.\n"
    "\n";

constexpr char kNotes[] =
    "\n"
    "Each finding is a line of this form, followed by a line with the remedy:\n"
    "  FILE:LINE:COLUMN: SEVERITY: KEY: TEXT\n"
    "Columns count bytes. SEVERITY is error, warning, or note (additional information). An error means\n"
    "that the library would not start (TEXT is then the error text for this problem), or that it would\n"
    "start without a section because the section's name is invalid. If the library would not start, the\n"
    "last line about FILE shows the error text that oxEventInitialize would set.\n"
    "\n"
    "With --json each finding is an object with file, line, column, key, severity (error, warning or\n"
    "note), code (a short, stable name of the problem), text and remedy.\n"
    "\n"
    "KEY is a path such as core\\queue_size, QVX\\Events\\sink\\csv\\NAME\\path or sink/csv, with \\, / or .\n"
    "between names, or the name of a setting or a key.\n"
    "\n"
    "Exit status: 0 no errors or warnings, 1 warnings, or the output could not be written, 2 errors or an\n"
    "invalid command line.\n";

struct Options {
  bool complete = false;
  bool json = false;
  bool verbose = false;
  const char* explain = nullptr;
};

std::vector<Finding> CheckFile(SettingsFile* file, bool verbose) {
  std::vector<Finding> findings;
  if (file->Read(&findings)) {
    CheckStructure(file, &findings);
    CheckValues(*file, &findings);
    CheckSinks(file, &findings);
    CheckHttp(*file, &findings);
    CheckCombinations(*file, &findings);
  }
  Sort(verbose, &findings);
  return findings;
}

bool HasSeverity(const std::vector<Finding>& findings, Severity severity) {
  for (const Finding& finding : findings) {
    if (finding.severity == severity) return true;
  }
  return false;
}

int CheckAll(const Options& options, const std::vector<const char*>& paths) {
  int status = kExitSuccess;
  std::string json;
  for (const char* const path : paths) {
    SettingsFile file(path);
    const std::vector<Finding> findings = CheckFile(&file, options.verbose);
    const bool has_errors = !file.start_error.empty() || HasSeverity(findings, Severity::kError);
    const bool has_warnings = HasSeverity(findings, Severity::kWarning);
    status = std::max(status, has_errors ? kExitErrors : has_warnings ? kExitWarnings : kExitSuccess);
    if (options.json) {
      const std::string objects = FormatJson(path, findings);
      json += (json.empty() || objects.empty() ? "" : ",\n") + objects;
      continue;
    }
    std::fputs(FormatText(path, findings).c_str(), stdout);
    if (!file.start_error.empty()) {
      std::printf("%s: the library would not start: %s\n", path, file.start_error.c_str());
    } else if (has_errors) {
      std::printf("%s: the library would start without the sections named in the errors\n", path);
    } else if (!has_warnings) {
      std::printf("%s: no %s\n", path, findings.empty() ? "problems" : "errors or warnings");
    }
  }
  if (options.json) std::printf("[%s]\n", json.c_str());
  return status;
}

int Complete(const char* path) {
  SettingsFile file(path);
  std::vector<Finding> findings;
  file.Read(&findings);
  if (!file.start_error.empty()) {
    PrintError(file.start_error);
    return kExitErrors;
  }
  std::fwrite(file.completed.data(), 1, file.completed.size(), stdout);
  return kExitSuccess;
}

int Check(const Options& options, const std::vector<const char*>& paths) {
  if (options.explain != nullptr) {
    if (!paths.empty()) throw UsageError(std::string(paths[0]) + ": --explain takes no FILE");
    std::fputs(Explain(options.explain).c_str(), stdout);
    return kExitSuccess;
  }
  if (paths.empty()) throw UsageError("no FILE");
  if (!options.complete) return CheckAll(options, paths);
  if (paths.size() > 1) throw UsageError(std::string(paths[1]) + ": --complete takes one FILE");
  return Complete(paths[0]);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  Tool tool = {"oxevent-check",
               kUsageText,
               kNotes,
               {{"complete", nullptr, "print FILE as the library would complete it",
                 [&](const char*) { options.complete = true; }},
                {"explain", "KEY", "explain a setting, or all settings below a key",
                 [&](const char* key) { options.explain = key; }},
                {"json", nullptr, "print the findings as one JSON array", [&](const char*) { options.json = true; }},
                {"verbose", nullptr, "also print findings that need no fix, such as how\nlong oxEventShutdown can take",
                 [&](const char*) { options.verbose = true; }}}};
  return RunTool(std::move(tool), argc, argv,
                 [&](const std::vector<const char*>& paths) { return Check(options, paths); });
}

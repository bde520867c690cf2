// oxevent-check: what is wrong with a settings file, without a change to it.
#include <algorithm>
#include <cstdio>
#include <utility>

#include "check/explain.h"
#include "check/settings_file.h"
#include "common/command_line.h"

namespace {

constexpr int kErrors = 2;

constexpr char kUsageText[] =
    "Usage: oxevent-check [OPTION]... FILE...\n"
    "       oxevent-check --complete FILE\n"
    "       oxevent-check --explain KEY\n"
    "\n"
    "Reads settings files as the library does and tells, with line, key and remedy, what is\n"
    "wrong with them. Changes and creates no file, opens no connection, looks up no name.\n"
    "\n";

constexpr char kNotes[] =
    "\n"
    "A finding is a line FILE:LINE:COLUMN: GRADE: KEY: TEXT; the remedy is on the next. Columns count\n"
    "bytes. GRADE is error, warning, or note (where else to look). An error is what the library would\n"
    "not start with (TEXT is what oxEventInitialize gives as its last error), or a section that it\n"
    "cannot see for its name, so that it starts without it. Where the library would not start, the\n"
    "last line is the text that oxEventInitialize gives for the file as it is.\n"
    "\n"
    "With --json each finding is an object with file, line, column, key, severity (error, warning or\n"
    "note), code (short, stays the same), text and remedy.\n"
    "\n"
    "KEY is a path such as core\\queue_size, QVX\\Events\\sink\\csv\\NAME\\path or sink/csv, with \\, / or .\n"
    "between names, or the name of a setting.\n"
    "\n"
    "Exit status: 0 no problems, 1 warnings, 2 errors, or the command line cannot be followed.\n";

struct Wanted {
  bool complete = false;
  bool json = false;
  bool verbose = false;
  const char* explain = nullptr;
};

std::vector<Finding> FindingsOf(SettingsFile* file, bool verbose) {
  std::vector<Finding> findings;
  if (file->Read(&findings)) {
    FindGroups(file, &findings);
    CheckValues(*file, &findings);
    CheckSinks(file, &findings);
    CheckHttp(*file, &findings);
    CheckTogether(*file, &findings);
  }
  Sort(verbose, &findings);
  return findings;
}

bool Has(const std::vector<Finding>& findings, Grade grade) {
  for (const Finding& finding : findings) {
    if (finding.grade == grade) return true;
  }
  return false;
}

int CheckAll(const Wanted& wanted, const std::vector<const char*>& paths) {
  int status = kDone;
  std::string json;
  for (const char* const path : paths) {
    SettingsFile file(path);
    const std::vector<Finding> findings = FindingsOf(&file, wanted.verbose);
    const bool has_errors = !file.refusal.empty() || Has(findings, Grade::kError);
    const bool warned = Has(findings, Grade::kWarning);
    status = std::max(status, has_errors ? kErrors : warned ? kFailed : kDone);
    if (wanted.json) {
      const std::string objects = AsJson(path, findings);
      json += (json.empty() || objects.empty() ? "" : ",\n") + objects;
      continue;
    }
    std::fputs(AsText(path, findings).c_str(), stdout);
    if (!file.refusal.empty()) {
      std::printf("%s: the library does not start with it: %s\n", path, file.refusal.c_str());
    } else if (has_errors) {
      std::printf("%s: the library starts without the sections that the errors name\n", path);
    } else if (!warned) {
      std::printf("%s: no problems\n", path);
    }
  }
  if (wanted.json) std::printf("[%s]\n", json.c_str());
  return status;
}

int Complete(const char* path) {
  SettingsFile file(path);
  std::vector<Finding> findings;
  file.Read(&findings);
  if (!file.refusal.empty()) {
    Complain(file.refusal);
    return kErrors;
  }
  std::fwrite(file.completed.data(), 1, file.completed.size(), stdout);
  return kDone;
}

int Check(const Wanted& wanted, const std::vector<const char*>& paths) {
  if (wanted.explain != nullptr) {
    if (!paths.empty()) throw UsageError(std::string(paths[0]) + ": --explain takes no FILE");
    std::fputs(Explanation(wanted.explain).c_str(), stdout);
    return kDone;
  }
  if (paths.empty()) throw UsageError("no FILE");
  if (!wanted.complete) return CheckAll(wanted, paths);
  if (paths.size() > 1) throw UsageError(std::string(paths[1]) + ": --complete takes one FILE");
  return Complete(paths[0]);
}

}  // namespace

int main(int argc, char** argv) {
  Wanted wanted;
  Tool tool = {"oxevent-check",
               kUsageText,
               kNotes,
               {{"complete", nullptr, "print FILE as the library would complete it",
                 [&](const char*) { wanted.complete = true; }},
                {"explain", "KEY", "print what a setting means, or all below a key",
                 [&](const char* key) { wanted.explain = key; }},
                {"json", nullptr, "print the findings as one JSON array", [&](const char*) { wanted.json = true; }},
                {"verbose", nullptr, "tell also what need not be mended, such as how\nlong oxEventShutdown can take",
                 [&](const char*) { wanted.verbose = true; }}}};
  return RunTool(std::move(tool), argc, argv,
                 [&](const std::vector<const char*>& paths) { return Check(wanted, paths); });
}

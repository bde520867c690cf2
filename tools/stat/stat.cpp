// oxevent-stat: shows what the library counts in a running process.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/command_line.h"
#include "stat/format.h"
#include "stat/process.h"
#include "stat/reading.h"
#include "stat/serve.h"

namespace {

constexpr char kUsageText[] = R"(Usage: oxevent-stat [OPTION]... PID|NAME
Shows what the library oxEvent counts in the process PID, or in the one called NAME: events, drops by
reason, the queue, raised conditions, and the deliveries, failures and last error of each sink.
)";

constexpr char kNotes[] = R"(
NAME is the name of the process's main thread or of its program. If several processes have this name,
exactly one of them must have loaded the library and be readable. The tool looks the name up for each
reading, so that --listen, and --watch with metrics, continue after a restart of the process.

The counters of events are those of one run: each oxEventInitialize starts them again at 0, and after
a shutdown those of the last run are shown. The counters of the sinks start again at 0 at each reload.
An event that a CSV sink has accepted may still be in its buffer; one that was sent by UDP may be
lost. The counters are read one after the other while the process runs, so they need not add up.

Each metric has the label process. If the process cannot be read, oxevent_up is 0, and there is no
other metric. --listen accepts connections only from this machine, without encryption or a password.

The tool can read a process of the same user if kernel.yama.ptrace_scope is 0, or if it is 1 and the
process has permitted this with PR_SET_PTRACER. Otherwise the tool needs the capability
CAP_SYS_PTRACE, which root has.

The tool only reads the memory of the process: it does not stop the process, call a function or change
anything in it, and needs no symbols. It does not show single events or the keys of conditions
(oxevent-alarms and the gdb commands of oxEvent do), does not read core files, keeps no history, and
does not know events that the host did not report.

Exit status:
  0  done
  1  the process or the library could not be read, or the output could not be written
  2  invalid command line
)";

struct Options {
  std::string target;
  bool json = false;
  bool metrics = false;              // --output and --listen set it too.
  const char* label = nullptr;       // Null: the target.
  const char* output = nullptr;      // Null: standard output.
  std::optional<uint16_t> port;      // Of --listen.
  std::optional<uint32_t> period_s;  // Of --watch.
};

// Reads the processes, of which exactly one must be readable. If none is, throws the reason for the first one.
Reading ReadSingle(const std::string& name, const std::vector<Process>& processes) {
  std::vector<Reading> readings;
  std::exception_ptr error;
  for (const Process& process : processes) {
    try {
      readings.push_back(ReadProcess(process));
    } catch (const std::runtime_error&) {
      if (!error) error = std::current_exception();
    }
  }
  if (readings.size() == 1) return readings[0];
  if (readings.empty()) std::rethrow_exception(error);
  std::string pids;
  for (const Reading& reading : readings) pids += ' ' + std::to_string(reading.pid);
  throw std::runtime_error("several processes called '" + name + "' have loaded oxEvent; give one of the PIDs" + pids);
}

bool IsNumber(std::string_view text) { return text.find_first_not_of("0123456789") == text.npos; }

Reading ReadTarget(const std::string& target) {
  if (IsNumber(target)) return ReadProcess(Process(ParseNumber<pid_t>(target)));
  const std::vector<Process> processes = FindProcesses(target);
  if (processes.empty()) throw std::runtime_error("there is no process '" + target + "'");
  return ReadSingle(target, processes);
}

std::runtime_error FileError(const std::string& path) { return std::runtime_error(path + ": " + std::strerror(errno)); }

// Replaces the file as a whole, so that no reader sees an incomplete file. Other users, such as that of the node
// exporter, can read the new file unless the umask prevents this.
void ReplaceFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new." + std::to_string(getpid());
  std::FILE* const file = std::fopen(temporary.c_str(), "wx");
  if (file == nullptr) throw FileError(temporary);
  const bool written = std::fputs(text.c_str(), file) != EOF;
  if (std::fclose(file) == 0 && written && std::rename(temporary.c_str(), path.c_str()) == 0) return;
  const int reason = errno;
  unlink(temporary.c_str());
  errno = reason;
  throw FileError(path);
}

class StatTool {
 public:
  explicit StatTool(const Options& options) : options_(options) {}

  int Run() {
    if (options_.port) Serve(*options_.port, [this] { return ReadMetrics(); });
    int status = ShowOnce();
    while (options_.period_s && (status == kExitSuccess || options_.metrics)) {
      std::this_thread::sleep_for(std::chrono::seconds(*options_.period_s));
      status = ShowOnce();
    }
    return status;
  }

 private:
  // Returns the exit status.
  int ShowOnce() {
    failed_ = false;
    Write(options_.metrics ? ReadMetrics() : FormatReading());
    return failed_ ? kExitFailure : kExitSuccess;
  }

  std::optional<Reading> Read() {
    try {
      return ReadTarget(options_.target);
    } catch (const std::runtime_error& error) {
      PrintError(error.what());
      failed_ = true;
      return std::nullopt;
    }
  }

  std::string ReadMetrics() {
    const std::optional<Reading> reading = Read();
    return FormatMetrics(reading ? &*reading : nullptr, options_.label != nullptr ? options_.label : options_.target);
  }

  std::string FormatReading() {
    std::optional<Reading> reading = Read();
    if (!reading) return "";
    std::string text = options_.json ? FormatJson(*reading) + '\n' : FormatText(*reading);
    if (!options_.json && options_.period_s) text += (last_ ? FormatChange(*last_, *reading) : "") + '\n';
    last_ = std::move(reading);
    return text;
  }

  void Write(const std::string& text) const {
    if (options_.output != nullptr) {
      ReplaceFile(options_.output, text);
    } else if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
      throw FileError("standard output");
    }
  }

  const Options& options_;
  bool failed_ = false;          // Whether the last reading has failed.
  std::optional<Reading> last_;  // The previous reading, with which the text output compares the next one.
};

int RunStat(Options* options, const std::vector<const char*>& arguments) {
  if (arguments.empty()) throw UsageError("PID or NAME is missing; see oxevent-stat --help");
  if (arguments.size() > 1) throw UsageError(std::string(arguments[1]) + ": there can be only one PID or NAME");
  options->target = arguments[0];
  try {
    if (IsNumber(options->target)) ParseNumber<pid_t>(options->target, 1);
  } catch (const std::invalid_argument& error) {
    throw UsageError(std::string("PID: ") + error.what());
  }
  if (options->port && options->period_s) throw UsageError("--listen: cannot be combined with --watch");
  if (options->port && options->output != nullptr) throw UsageError("--listen: cannot be combined with --output");
  options->metrics |= options->port.has_value() || options->output != nullptr;
  if (options->json && options->metrics)
    throw UsageError("--json: cannot be combined with --prometheus, --output or --listen");
  return StatTool(*options).Run();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  Tool tool = {
      "oxevent-stat",
      kUsageText,
      kNotes,
      {{"json", nullptr, "print one JSON object per line", [&](const char*) { options.json = true; }, "Output"},
       {"prometheus", nullptr, "print metrics in the text format of Prometheus",
        [&](const char*) { options.metrics = true; }},
       {"output", "FILE", "replace FILE with the metrics, for the textfile collector of the\nnode exporter",
        [&](const char* path) { options.output = path; }},
       {"listen", "PORT", "serve the metrics at http://127.0.0.1:PORT/metrics (0: any free port)",
        [&](const char* port) { options.port = ParseNumber<uint16_t>(port); }},
       {"label", "TEXT", "value of the metrics' label process (default: PID or NAME)",
        [&](const char* text) { options.label = text; }},
       {"watch", "[=SECONDS]",
        "repeat (default: every 2 seconds); except with metrics, end when the\nprocess cannot be read",
        [&](const char* seconds) { options.period_s = seconds != nullptr ? ParseNumber<uint32_t>(seconds, 1) : 2; }}}};
  return RunTool(std::move(tool), argc, argv,
                 [&](const std::vector<const char*>& arguments) { return RunStat(&options, arguments); });
}

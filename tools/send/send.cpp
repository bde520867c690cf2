// oxevent-send: reports events from the command line or from JSON lines, and prints the result of their delivery.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>

#include "base/oxEventAscii.h"
#include "common/command_line.h"
#include "common/remedy.h"
#include "config/oxEventConfigLoad.h"
#include "core/oxEventRouter.h"
#include "send/input.h"
#include "send/json.h"
#include "send/options.h"
#include "send/report.h"
#include "sinks/oxEventSinkSet.h"

namespace {

std::string LastError() {
  char text[4096];
  oxEventGetLastError(text, sizeof(text));
  return text;
}

// The progress display on a terminal. Appears after one second.
class Progress {
 public:
  explicit Progress(const Options& options)
      : total_(options.count), enabled_(!options.quiet && isatty(STDERR_FILENO)) {}

  void Update() {
    if (!enabled_ || Clock::now() < next_) return;
    next_ = Clock::now() + std::chrono::milliseconds(200);
    const oxEventCounters counters = oxEventCoreGetCounters();
    const std::string of = total_ > 1 ? " of " + std::to_string(total_) : "";
    std::fprintf(stderr, "\r%s%s submitted, %s emitted\033[K", std::to_string(counters.submitted).c_str(), of.c_str(),
                 std::to_string(counters.emitted).c_str());
    visible_ = true;
  }

  void Hide() {
    if (visible_) std::fputs("\r\033[K", stderr);
    visible_ = false;
  }

 private:
  const uint64_t total_;
  const bool enabled_;
  Clock::time_point next_ = Clock::now() + std::chrono::seconds(1);  // Time of the next update.
  bool visible_ = false;
};

class Sender {
 public:
  Sender(const Options& options, const oxEventConfig& config)
      : options_(options), queue_size_(config.queue_size), progress_(options) {}

  // Sends until there are no more events, a stop signal is received, or the delivery times out. Then waits until all
  // events are delivered, unless the delivery has timed out.
  void Run(SendResult* result) {
    result_ = result;
    if (options_.json) {
      SendLines();
    } else {
      const uint64_t count = options_.count == 0 ? 1 : options_.count;
      for (uint64_t i = 0; i < count && WaitToSubmit(); ++i) Submit(options_.record);
    }
    if (!result->gave_up) Drain();
    progress_.Hide();
  }

 private:
  void SendLines() {
    LineReader lines;
    std::string line;
    uint64_t number = 0;
    try {
      while (!result_->gave_up && lines.Next(&line)) {
        ++number;
        if (line.find_first_not_of(" \t\r") != line.npos) SendLine(line, number);
      }
    } catch (const std::runtime_error& error) {
      ReportRefused("line " + std::to_string(number + 1) + ": " + error.what());
    }
  }

  void SendLine(const std::string& line, uint64_t number) {
    oxEventRecord record = options_.record;
    std::deque<std::string> strings;
    try {
      ReadEvent(line, &record, &strings);
    } catch (const JsonError& error) {
      constexpr size_t kMaxBytes = 500;  // The message can contain a name or value of any length.
      return ReportRefused("line " + std::to_string(number) + ", column " + std::to_string(error.column) + ": " +
                           Printable(std::string_view(error.what()).substr(0, kMaxBytes)));
    }
    if (WaitToSubmit()) Submit(record);
  }

  // With --rate, waits until the next event is due, otherwise for space in the queue. Returns false if sending must
  // stop.
  bool WaitToSubmit() {
    progress_.Update();
    if (options_.rate != 0) {
      SleepUntil(next_);
      // After a delay, such as a pause of the input, catches up on at most one second of events.
      const std::chrono::duration<double> interval(1 / options_.rate);
      next_ = std::max(next_ + std::chrono::duration_cast<Clock::duration>(interval),
                       Clock::now() - std::chrono::seconds(1));
    } else if (submitted_ == queue_size_) {
      Drain();
    }
    return StopSignal() == 0 && !result_->gave_up;
  }

  void Submit(const oxEventRecord& record) {
    ++submitted_;
    if (oxEventSubmit(&record) != OXEVENT_OK) ReportRefused("event not reported: " + WithRemedy(LastError()));
  }

  void ReportRefused(const std::string& text) {
    progress_.Hide();
    PrintError(text);
    ++result_->refused;
  }

  // Waits until all events are delivered, and flushes the sinks. Gives up after `wait_s` without a delivery.
  void Drain() {
    constexpr uint32_t kSliceMs = 200;  // Interval at which the progress display is updated.
    uint64_t done = 0;
    bool idle = false;
    for (auto since = Clock::now(); oxEventFlush(kSliceMs) != OXEVENT_OK; progress_.Update()) {
      const oxEventCounters counters = oxEventCoreGetCounters();
      // All events had been delivered before this flush, so a sink caused its failure.
      if (idle) {
        result_->flushed = false;
        break;
      }
      const uint64_t now_done = counters.emitted + counters.dropped + counters.failed_evaluations;
      idle = now_done == counters.submitted;
      if (now_done != done) since = Clock::now();
      done = now_done;
      if (options_.wait_s != 0 && Clock::now() - since >= std::chrono::seconds(options_.wait_s)) {
        result_->gave_up = true;
        oxEventSinkFlush(kSliceMs);
        break;
      }
    }
    submitted_ = 0;
  }

  const Options& options_;
  const uint32_t queue_size_;
  Clock::time_point next_ = Clock::now();  // Time at which the next event is due.
  Progress progress_;
  SendResult* result_ = nullptr;
  uint32_t submitted_ = 0;  // Events submitted since the queue was last known to be empty.
};

void Count(const oxEventRecord* event, void* result) { ++static_cast<SendResult*>(result)->emitted[event->severity]; }

// Starts the library and loads its configuration again, for the report. Returns false after printing what is wrong.
bool Start(const Options& options, SendResult* result, oxEventConfig* config) {
  uint32_t callback = 0;
  std::string error;
  if (oxEventRegisterCallback(Count, result, &callback) != OXEVENT_OK ||
      oxEventInitialize(options.settings) != OXEVENT_OK) {
    const std::string text = LastError();
    std::error_code failure;
    const bool exists = std::filesystem::exists(options.settings, failure) || failure;
    PrintError(exists ? WithRemedy(text)
                      : text + "\n    No such file; an empty file is enough: create one with touch.");
    return false;
  }
  if (oxEventConfigLoad(options.settings, config, &error) == OXEVENT_OK) return true;
  PrintError(WithRemedy(error));
  return false;
}

// The library takes any action, so a misspelt one is not an error.
void NoteUnknownAction(const Options& options) {
  const std::string action = options.record.action == nullptr ? "" : options.record.action;
  constexpr std::string_view kKnown[] = {"", "raise", "update", "repeat", "clear"};
  if (options.quiet || std::ranges::find(kKnown, oxEventAsciiLower(action)) != std::end(kKnown)) return;
  PrintError("note: action " + Printable(action) +
             " is none of raise, update, repeat, clear: the event is passed on unchanged");
}

int Send(const Options& options) {
  signal(SIGPIPE, SIG_IGN);  // Finish the delivery even if the reader of stdout is gone.
  CatchStopSignals();
  SendResult result;
  oxEventConfig config;
  if (!Start(options, &result, &config)) return kExitUsage;
  NoteUnknownAction(options);
  Sender(options, config).Run(&result);
  const int stopped_by = StopSignal();
  if (stopped_by != 0) PrintError(std::string("stopped by SIG") + sigabbrev_np(stopped_by));
  bool succeeded = PrintReport(config, result, options.quiet);
  // After giving up, oxEventShutdown would wait for the sink that hangs.
  if (!result.gave_up && oxEventShutdown() != OXEVENT_OK && succeeded) {
    PrintError(WithRemedy(LastError()));
    succeeded = false;
  }
  if (stopped_by != 0) {
    std::fflush(stdout);
    signal(stopped_by, SIG_DFL);
    raise(stopped_by);
  }
  if (result.gave_up) {
    std::fflush(stdout);
    _exit(kExitFailure);
  }
  return succeeded ? kExitSuccess : kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.record.struct_size = sizeof(options.record);
  options.record.version = OXEVENT_API_VERSION;
  options.record.severity = OXEVENT_SEVERITY_INFO;
  return RunTool(DescribeTool(&options), argc, argv, [&options](const std::vector<const char*>& arguments) {
    ParseArguments(arguments, &options);
    return Send(options);
  });
}

// oxevent-send: reports events from the command line or from JSON lines, and tells what became of them.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>

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

// Shown on a terminal once the work takes more than a second.
class Progress {
 public:
  explicit Progress(const Options& options) : total_(options.count), shown_(!options.quiet && isatty(STDERR_FILENO)) {}

  void Update() {
    if (!shown_ || Clock::now() < next_) return;
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
  const bool shown_;
  Clock::time_point next_ = Clock::now() + std::chrono::seconds(1);
  bool visible_ = false;
};

class Sending {
 public:
  Sending(const Options& options, const oxEventConfig& config)
      : options_(options), queue_size_(config.queue_size), progress_(options) {}

  // Until there are no more events, a stop signal comes, or nothing is delivered any more.
  void Run(Outcome* outcome) {
    outcome_ = outcome;
    if (options_.json) {
      SendLines();
    } else {
      const uint64_t count = options_.count == 0 ? 1 : options_.count;
      for (uint64_t i = 0; i < count && MakeReady(); ++i) Submit(options_.record);
    }
    if (!outcome->gave_up) Drain();
    progress_.Hide();
  }

 private:
  void SendLines() {
    Lines lines;
    std::string line;
    uint64_t number = 0;
    try {
      while (!outcome_->gave_up && lines.Next(&line)) {
        ++number;
        if (line.find_first_not_of(" \t\r") != line.npos) SendLine(line, number);
      }
    } catch (const std::runtime_error& error) {
      Refuse("line " + std::to_string(number + 1) + ": " + error.what());
    }
  }

  void SendLine(const std::string& line, uint64_t number) {
    oxEventRecord record = options_.record;
    std::deque<std::string> texts;
    try {
      ReadEvent(line, &record, &texts);
    } catch (const JsonError& error) {
      constexpr size_t kMost = 500;  // Bytes of a text that a name or value of any length is part of.
      return Refuse("line " + std::to_string(number) + ", column " + std::to_string(error.column) + ": " +
                    Printable(std::string_view(error.what()).substr(0, kMost)));
    }
    if (MakeReady()) Submit(record);
  }

  // Waits for the time of the next event, or for room in the queue. False: the sending is over.
  bool MakeReady() {
    progress_.Update();
    if (options_.rate != 0) {
      SleepUntil(next_);
      // Behind time, as after a pause of the input, it makes good for no more than a second.
      const std::chrono::duration<double> interval(1 / options_.rate);
      next_ = std::max(next_ + std::chrono::duration_cast<Clock::duration>(interval),
                       Clock::now() - std::chrono::seconds(1));
    } else if (queued_ == queue_size_) {
      Drain();
    }
    return StopSignal() == 0 && !outcome_->gave_up;
  }

  void Submit(const oxEventRecord& record) {
    ++queued_;
    if (oxEventSubmit(&record) != OXEVENT_OK) Refuse("event not reported: " + WithRemedy(LastError()));
  }

  void Refuse(const std::string& text) {
    progress_.Hide();
    Complain(text);
    ++outcome_->refused;
  }

  // Waits until everything is delivered, and flushes the sinks.
  void Drain() {
    constexpr uint32_t kSliceMs = 200;  // How often the progress is shown while waiting.
    uint64_t done = 0;
    bool idle = false;
    for (auto since = Clock::now(); oxEventFlush(kSliceMs) != OXEVENT_OK; progress_.Update()) {
      const oxEventCounters counters = oxEventCoreGetCounters();
      // It was a sink's fault when all had been delivered before the flush.
      if (idle) {
        outcome_->flushed = false;
        break;
      }
      idle = counters.emitted + counters.dropped == counters.submitted;
      if (counters.emitted + counters.dropped != done) since = Clock::now();
      done = counters.emitted + counters.dropped;
      if (options_.wait_s != 0 && Clock::now() - since >= std::chrono::seconds(options_.wait_s)) {
        outcome_->gave_up = true;
        outcome_->flushed = oxEventSinkFlush(kSliceMs) == OXEVENT_OK;
        break;
      }
    }
    queued_ = 0;
  }

  const Options& options_;
  const uint32_t queue_size_;
  Clock::time_point next_ = Clock::now();  // When the next event is due.
  Progress progress_;
  Outcome* outcome_ = nullptr;
  uint32_t queued_ = 0;  // Since the queue was known to be empty.
};

void Count(const oxEventRecord* event, void* outcome) { ++static_cast<Outcome*>(outcome)->emitted[event->severity]; }

int Send(const Options& options) {
  signal(SIGPIPE, SIG_IGN);  // A reader of ours that goes away ends nothing half-way.
  CatchStopSignals();
  Outcome outcome;
  uint32_t callback = 0;
  oxEventConfig config;
  std::string error;
  if (oxEventRegisterCallback(Count, &outcome, &callback) != OXEVENT_OK ||
      oxEventInitialize(options.settings) != OXEVENT_OK) {
    const std::string text = LastError();
    std::error_code failure;
    if (std::filesystem::exists(options.settings, failure) || failure) {
      Complain(WithRemedy(text));
    } else {
      Complain(text + "\n    There is no such file; an empty one will do: : > '" + options.settings + "'");
    }
    return kUsage;
  }
  if (oxEventConfigLoad(options.settings, &config, &error) != OXEVENT_OK) {
    Complain(WithRemedy(error));
    return kUsage;
  }
  Sending(options, config).Run(&outcome);
  const int stopped_by = StopSignal();
  if (stopped_by != 0) Complain(std::string("stopped by SIG") + sigabbrev_np(stopped_by));
  bool all_well = Report(config, outcome, options.quiet);
  // After giving up, a shutdown would wait for the sink that does not come back.
  if (!outcome.gave_up && oxEventShutdown() != OXEVENT_OK && all_well) {
    Complain(WithRemedy(LastError()));
    all_well = false;
  }
  if (stopped_by != 0) {
    std::fflush(stdout);
    signal(stopped_by, SIG_DFL);
    raise(stopped_by);
  }
  if (outcome.gave_up) {
    std::fflush(stdout);
    _exit(kFailed);
  }
  return all_well ? kDone : kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  options.record.struct_size = sizeof(options.record);
  options.record.version = OXEVENT_API_VERSION;
  options.record.severity = OXEVENT_SEVERITY_INFO;
  return RunTool(DescribeTool(&options), argc, argv, [&options](const std::vector<const char*>& arguments) {
    TakeArguments(arguments, &options);
    return Send(options);
  });
}

// Adapter for spdlog: reports log records as events, and logs events. For C++17 and later; see log.hpp for what the
// adapters have in common.
//
//     logger->sinks().push_back(std::make_shared<oxEvent::SpdlogSink>());
//     oxEvent::Callback callback(oxEvent::SpdlogCallback(logger));
#ifndef OXEVENT_SPDLOG_HPP
#define OXEVENT_SPDLOG_HPP

#include <spdlog/logger.h>
#include <spdlog/sinks/sink.h>

#include "log.hpp"

namespace oxEvent {

// A sink for any number of loggers. The message of an event is the text of the log record, without what a pattern adds.
class SpdlogSink final : public spdlog::sinks::sink, public LogReporter {
 public:
  explicit SpdlogSink(const Event& fields = Event().event_type("log")) : LogReporter(fields) {}

  void log(const spdlog::details::log_msg& record) override {
    if (detail::IsOwnLog(record.source.filename)) return;
    const auto time = std::chrono::duration_cast<std::chrono::nanoseconds>(record.time.time_since_epoch());
    Report(SeverityOf(record.level), {record.payload.data(), record.payload.size()},
           {record.logger_name.data(), record.logger_name.size()}, record.source.filename, record.source.line,
           static_cast<std::uint64_t>(time.count()));
  }

  // Does not wait for the delivery: a logger may flush after each error. oxEvent::Flush waits.
  void flush() override {}
  void set_pattern(const std::string& /*pattern*/) override {}
  void set_formatter(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}

 private:
  static Severity SeverityOf(spdlog::level::level_enum level) noexcept {
    if (level >= spdlog::level::err) return Severity::kError;
    if (level == spdlog::level::warn) return Severity::kWarning;
    return level == spdlog::level::info ? Severity::kInfo : Severity::kDebug;
  }
};

// Logs each event with a level that corresponds to its severity.
class SpdlogCallback {
 public:
  explicit SpdlogCallback(std::shared_ptr<spdlog::logger> logger) noexcept : logger_(std::move(logger)) {}

  void operator()(const oxEventRecord& event) const {
    if (detail::IsFromLog(event)) return;
    logger_->log({detail::kLogFile, 0, ""}, LevelOf(event.severity), detail::LogText(event));
  }

 private:
  static spdlog::level::level_enum LevelOf(std::uint32_t severity) noexcept {
    if (severity >= OXEVENT_SEVERITY_ERROR) return spdlog::level::err;
    if (severity == OXEVENT_SEVERITY_WARNING) return spdlog::level::warn;
    return severity == OXEVENT_SEVERITY_INFO ? spdlog::level::info : spdlog::level::debug;
  }

  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace oxEvent

#endif

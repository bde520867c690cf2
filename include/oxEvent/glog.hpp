// Adapter for glog: reports log records as events, and logs events. For C++17 and later; see log.hpp for what the
// adapters have in common.
//
//     oxEvent::GlogSink sink;
//     oxEvent::Callback callback(oxEvent::GlogCallback{});
#ifndef OXEVENT_GLOG_HPP
#define OXEVENT_GLOG_HPP

#include <glog/logging.h>

#include "log.hpp"

namespace oxEvent {

// Receives log records as long as it exists. glog has neither debug messages nor names of loggers.
class GlogSink final : public google::LogSink, public LogReporter {
 public:
  explicit GlogSink(const Event& fields = Event().event_type("log")) : LogReporter(fields) { google::AddLogSink(this); }
  GlogSink(const GlogSink&) = delete;
  GlogSink& operator=(const GlogSink&) = delete;
  ~GlogSink() override { google::RemoveLogSink(this); }

  using google::LogSink::send;
  void send(google::LogSeverity severity, const char* file, const char* /*base_name*/, int line,
            const google::LogMessageTime& /*time*/, const char* message, std::size_t size) override {
    if (detail::IsOwnLog(file)) return;
    Report(SeverityOf(severity), {message, size}, "", file, line, 0);
    if (severity == google::GLOG_FATAL) fatal_ = true;
  }

  // glog calls it after each record, and ends the process after one of the severity FATAL: delivers that for at most 2
  // s.
  void WaitTillSent() override {
    if (fatal_) oxEventFlush(2000);
  }

 private:
  static Severity SeverityOf(google::LogSeverity severity) noexcept {
    if (severity >= google::GLOG_ERROR) return Severity::kError;
    return severity == google::GLOG_WARNING ? Severity::kWarning : Severity::kInfo;
  }

  std::atomic<bool> fatal_ = {false};
};

// Logs each event with the severity INFO, WARNING or ERROR.
class GlogCallback {
 public:
  void operator()(const oxEventRecord& event) const {
    if (detail::IsFromLog(event)) return;
    google::LogMessage(detail::kLogFile, 0, SeverityOf(event.severity)).stream() << detail::LogText(event);
  }

 private:
  static google::LogSeverity SeverityOf(std::uint32_t severity) noexcept {
    if (severity >= OXEVENT_SEVERITY_ERROR) return google::GLOG_ERROR;
    return severity == OXEVENT_SEVERITY_WARNING ? google::GLOG_WARNING : google::GLOG_INFO;
  }
};

}  // namespace oxEvent

#endif

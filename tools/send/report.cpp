#include "send/report.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

#include "base/oxEventOrDefault.h"
#include "base/oxEventSeverity.h"
#include "common/command_line.h"
#include "common/remedy.h"
#include "common/system_log.h"
#include "core/oxEventRouter.h"
#include "send/connection.h"
#include "sinks/oxEventSinkSet.h"

namespace {

class ReportPrinter {
 public:
  ReportPrinter(const oxEventConfig& config, const SendResult& result, bool quiet)
      : config_(config), result_(result), quiet_(quiet) {}

  bool Print() {
    const oxEventCounters counters = oxEventCoreGetCounters();
    PrintSuccess("submitted: " + std::to_string(counters.submitted));
    PrintSuccess("emitted: " + std::to_string(counters.emitted));
    if (result_.refused != 0) PrintProblem("refused: " + std::to_string(result_.refused));
    PrintDrops();
    if (result_.gave_up) {
      PrintProblem(
          "given up: " +
          std::to_string(counters.submitted - counters.emitted - counters.dropped - counters.failed_evaluations) +
          " still waiting for a sink");
    }
    PrintSinks();
    if (counters.failed_evaluations != 0) {
      PrintProblem("not evaluated, out of memory: " + std::to_string(counters.failed_evaluations));
    }
    if (!result_.flushed && succeeded_) PrintProblem("flush: " + WithRemedy(oxEventSinkGetLastError()));
    return succeeded_;
  }

 private:
  void PrintSuccess(const std::string& line) const {
    if (!quiet_) std::printf("%s\n", line.c_str());
  }

  void PrintProblem(const std::string& line) {
    PrintError(line);
    succeeded_ = false;
  }

  std::string DescribeDrop(oxEventDrop reason) const {
    switch (reason) {
      case oxEventDrop::kFiltered:
        if (!config_.enabled) return "core\\enabled is off";
        return "below core\\minimum_severity (" + std::string(oxEventSeverityName(config_.minimum_severity)) + ")";
      case oxEventDrop::kRefused:
        return "the queue was full (core\\queue_size is " + std::to_string(config_.queue_size) + ")";
      case oxEventDrop::kDisplaced:
        return "the queue was full, and a newer event replaced it";
      case oxEventDrop::kSuppressed:
        return std::string("suppressed as a duplicate, ") +
               (config_.send_clear ? "" : "as a clear (state\\send_clear is off), ") +
               "or as a clear or repeat of a condition that was not raised in this run";
      default:
        return oxEventDropText(reason);
    }
  }

  void PrintDrops() {
    const oxEventDropCounts drops = oxEventCoreGetCounters().drops_by_reason;
    for (size_t i = 0; i < drops.size(); ++i) {
      if (drops[i] != 0)
        PrintProblem("dropped: " + std::to_string(drops[i]) + ", " + DescribeDrop(static_cast<oxEventDrop>(i)));
    }
  }

  // Counts the emitted events that a sink with this minimum severity accepts.
  uint64_t CountEmitted(uint32_t minimum_severity) const {
    uint64_t sum = 0;
    for (uint32_t i = 0; i < result_.emitted.size(); ++i) {
      if (oxEventSeverityMeetsMinimum(i, minimum_severity)) sum += result_.emitted[i];
    }
    return sum;
  }

  // Claims no more than the sink knows: UDP and the system log do not confirm delivery.
  static std::string DescribeDelivery(const oxEventSinkConfig& sink) {
    const auto datagrams = [](const std::string& host, uint32_t port, uint32_t usual_port) {
      return " sent to " + oxEventOrDefault(host, "127.0.0.1") + " port " +
             std::to_string(port == 0 ? usual_port : port) + " by UDP, which does not confirm delivery";
    };
    switch (sink.type) {
      case oxEventSinkType::kCsv:
        return " written to " + std::filesystem::absolute(sink.path).lexically_normal().string();
      case oxEventSinkType::kNative:
        return " handed to the system log, which does not confirm delivery";
      case oxEventSinkType::kSyslogUdp:
        return datagrams(sink.host, sink.port, 514);
      case oxEventSinkType::kSnmpTrap:
        return datagrams(sink.snmp_host, sink.snmp_port, 162);
      case oxEventSinkType::kWebhookHttp:
      case oxEventSinkType::kCloudEventsHttp:
        return " accepted by " + sink.endpoint_url;
      case oxEventSinkType::kAlertmanager:
        return " formatted, not sent: posting them is the host's task";
    }
    return "";
  }

  // Returns what the sink's error text leaves out, or an empty string.
  static std::string FailureReason(const oxEventSinkConfig& sink, const oxEventSinkStatus& status) {
    if (!status.detail.empty() || sink.endpoint_url.empty()) return status.detail;  // Only HTTP sinks have an endpoint.
    const std::string fault = ConnectionFault(sink.endpoint_url, sink.tls_verify);
    return fault.empty() ? "no response, although the endpoint accepts connections" : fault;
  }

  void PrintSink(const oxEventSinkConfig& sink, const oxEventSinkStatus& status) {
    const std::string name = std::string(status.section) + "\\" + status.name + ": ";
    const uint64_t accepted = CountEmitted(sink.minimum_severity);
    if (status.failures != 0) {
      // The rows of a CSV file fail together at a flush, and later flushes fail too, so the number of failures is not
      // that of the lost rows.
      const std::string share = std::to_string(status.failures) + " of " + std::to_string(accepted) + " failed";
      return PrintProblem(name + (sink.type == oxEventSinkType::kCsv ? "failed" : share) + ": " +
                          WithRemedy(status.last_error, FailureReason(sink, status)));
    }
    if (sink.type == oxEventSinkType::kNative && accepted != 0) {
      const std::string fault = SystemLogFault();
      if (!fault.empty()) return PrintProblem(name + fault);
    }
    if (accepted == 0 && CountEmitted(0) != 0) {
      return PrintSuccess(name + "0: every event is below its minimum_severity (" +
                          std::string(oxEventSeverityName(sink.minimum_severity)) + ")");
    }
    PrintSuccess(name + std::to_string(accepted) + DescribeDelivery(sink));
  }

  // Prints the result of each sink.
  void PrintSinks() {
    // The enabled sinks in the order of the settings, then the callbacks.
    const std::vector<oxEventSinkStatus> statuses = oxEventSinkReport();
    uint32_t min_severity = UINT32_MAX;
    auto status = statuses.begin();
    for (const oxEventSinkConfig& sink : config_.sinks) {
      if (!sink.enabled || status == statuses.end()) continue;
      if (sink.type != oxEventSinkType::kAlertmanager) min_severity = std::min(min_severity, sink.minimum_severity);
      PrintSink(sink, *status++);
    }
    const uint64_t without_sink = CountEmitted(0) - CountEmitted(min_severity);
    if (min_severity == UINT32_MAX) {
      PrintProblem("no sink that delivers events is enabled: no event was delivered");
    } else if (without_sink != 0) {
      PrintProblem("reached no sink: " + std::to_string(without_sink) +
                   ", below the minimum_severity of every enabled sink that delivers events");
    }
  }

  const oxEventConfig& config_;
  const SendResult& result_;
  const bool quiet_;
  bool succeeded_ = true;
};

}  // namespace

bool PrintReport(const oxEventConfig& config, const SendResult& result, bool quiet) {
  return ReportPrinter(config, result, quiet).Print();
}

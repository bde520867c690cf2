#include "send/report.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>

#include "base/oxEventOrDefault.h"
#include "base/oxEventSeverity.h"
#include "common/command_line.h"
#include "common/remedy.h"
#include "core/oxEventRouter.h"
#include "sinks/oxEventSinkSet.h"

namespace {

class Reporter {
 public:
  Reporter(const oxEventConfig& config, const Outcome& outcome, bool quiet)
      : config_(config), outcome_(outcome), quiet_(quiet) {}

  bool Tell() {
    const oxEventCounters counters = oxEventCoreGetCounters();
    Good("submitted: " + std::to_string(counters.submitted));
    Good("emitted: " + std::to_string(counters.emitted));
    if (outcome_.refused != 0) Bad("refused: " + std::to_string(outcome_.refused));
    TellDrops();
    if (outcome_.gave_up) {
      Bad("given up: " + std::to_string(counters.submitted - counters.emitted - counters.dropped) +
          " still waiting for a sink");
    }
    const uint64_t sink_failures = TellSinks();
    if (counters.sink_failures > sink_failures) {
      Bad("not evaluated for want of memory: " + std::to_string(counters.sink_failures - sink_failures));
    }
    if (!outcome_.flushed && all_well_) Bad("flush: " + WithRemedy(oxEventSinkGetLastError()));
    return all_well_;
  }

 private:
  void Good(const std::string& line) const {
    if (!quiet_) std::printf("%s\n", line.c_str());
  }

  void Bad(const std::string& line) {
    Complain(line);
    all_well_ = false;
  }

  std::string WhyDropped(oxEventDrop reason) const {
    switch (reason) {
      case oxEventDrop::kFiltered:
        if (!config_.enabled) return "core\\enabled is off";
        return "below core\\minimum_severity (" + std::string(oxEventSeverityName(config_.minimum_severity)) + ")";
      case oxEventDrop::kRefused:
        return "the queue was full (core\\queue_size is " + std::to_string(config_.queue_size) + ")";
      case oxEventDrop::kDisplaced:
        return "the queue was full, and a newer event took the place";
      case oxEventDrop::kSuppressed:
        return std::string("suppressed by the state, as a duplicate, ") +
               (config_.send_clear ? "" : "as a clear (state\\send_clear is off), ") +
               "or as the clear or repeat of what was not raised in this run";
      default:
        return oxEventDropText(reason);
    }
  }

  void TellDrops() {
    const oxEventDropCounts drops = oxEventCoreGetCounters().drops_by_reason;
    for (size_t i = 0; i < drops.size(); ++i) {
      if (drops[i] != 0) Bad("dropped: " + std::to_string(drops[i]) + ", " + WhyDropped(static_cast<oxEventDrop>(i)));
    }
  }

  // How many events went out that a sink with this minimum takes.
  uint64_t EmittedFrom(uint32_t minimum_severity) const {
    uint64_t sum = 0;
    for (uint32_t i = 0; i < outcome_.emitted.size(); ++i) {
      if (oxEventSeverityMeetsMinimum(i, minimum_severity)) sum += outcome_.emitted[i];
    }
    return sum;
  }

  // No more than the sink knows itself.
  static std::string WhatBecame(const oxEventSinkConfig& sink) {
    const auto datagrams = [](const std::string& host, uint32_t port, uint32_t usual_port) {
      return " sent to " + oxEventOrDefault(host, "127.0.0.1") + " port " +
             std::to_string(port == 0 ? usual_port : port) + " by UDP, which does not tell whether they arrived";
    };
    switch (sink.type) {
      case oxEventSinkType::kCsv:
        return " written to " + std::filesystem::absolute(sink.path).lexically_normal().string();
      case oxEventSinkType::kNative:
        return " handed to the system log, which does not tell whether it took them";
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

  void TellSink(const oxEventSinkConfig& sink, const oxEventSinkStatus& status) {
    const std::string name = std::string(status.section) + "\\" + status.name + ": ";
    const uint64_t concerned = EmittedFrom(sink.minimum_severity);
    if (status.failures != 0) {
      // A CSV file's rows fail together, at a flush, and each flush after it fails again.
      const std::string share = std::to_string(status.failures) + " of " + std::to_string(concerned) + " failed";
      return Bad(name + (sink.type == oxEventSinkType::kCsv ? "failed" : share) + ": " + WithRemedy(status.last_error));
    }
    if (concerned == 0 && EmittedFrom(0) != 0) {
      return Good(name + "0, all are below its minimum_severity (" +
                  std::string(oxEventSeverityName(sink.minimum_severity)) + ")");
    }
    Good(name + std::to_string(concerned) + WhatBecame(sink));
  }

  // Returns the failures of deliveries that were told of.
  uint64_t TellSinks() {
    const std::vector<oxEventSinkStatus> statuses = oxEventSinkReport();  // The enabled sinks, in their order.
    uint64_t failures = 0;
    uint32_t lowest = UINT32_MAX;
    auto status = statuses.begin();
    for (const oxEventSinkConfig& sink : config_.sinks) {
      if (!sink.enabled || status == statuses.end()) continue;
      failures += status->failures;
      lowest = std::min(lowest, sink.minimum_severity);
      TellSink(sink, *status++);
    }
    const uint64_t unheard = EmittedFrom(0) - EmittedFrom(lowest);
    if (lowest == UINT32_MAX) {
      Bad("no sink is enabled: the events went nowhere");
    } else if (unheard != 0) {
      Bad("went nowhere: " + std::to_string(unheard) + ", below the minimum_severity of every enabled sink");
    }
    return failures;
  }

  const oxEventConfig& config_;
  const Outcome& outcome_;
  const bool quiet_;
  bool all_well_ = true;
};

}  // namespace

bool Report(const oxEventConfig& config, const Outcome& outcome, bool quiet) {
  return Reporter(config, outcome, quiet).Tell();
}

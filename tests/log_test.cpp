// The adapters for logging libraries, with the loggers that a host uses.
#include <spdlog/sinks/ostream_sink.h>

#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/log/utility/setup/console.hpp>
#include <boost/make_shared.hpp>
#include <iostream>

#include "../include/oxEvent/boost_log.hpp"
#include "../include/oxEvent/glog.hpp"
#include "../include/oxEvent/spdlog.hpp"
#include "host_fixture.h"

// glog calls tzset for each message; ThreadSanitizer does not see the lock that libc takes there.
extern "C" const char* __tsan_default_suppressions() { return "race:tzset_internal"; }

namespace {

using Strings = std::vector<std::string>;
using namespace oxEvent;

// Each has a logger with the sink of an adapter, and with a stream of lines as its other destination.
struct Spdlog {
  explicit Spdlog(std::ostream* lines) {
    const auto to_lines = std::make_shared<spdlog::sinks::ostream_sink_mt>(*lines);
    to_lines->set_pattern("%v");
    logger->set_level(spdlog::level::trace);
    logger->sinks() = {sink, to_lines};
  }
  void Log(Severity severity, const char* text) {
    constexpr spdlog::level::level_enum kLevels[] = {spdlog::level::debug, spdlog::level::info, spdlog::level::warn,
                                                     spdlog::level::critical};
    logger->log({"fan.cpp", 7, "Poll"}, kLevels[static_cast<size_t>(severity)], text);
  }
  SpdlogCallback LogEvents() { return SpdlogCallback(logger); }

  static constexpr const char* kDetails = R"({"log":{"logger":"hydraulics","file":"fan.cpp","line":7}})";
  const std::shared_ptr<SpdlogSink> sink = std::make_shared<SpdlogSink>();
  const std::shared_ptr<spdlog::logger> logger = std::make_shared<spdlog::logger>("hydraulics");
};

struct Glog {
  struct Lines : google::LogSink {
    explicit Lines(std::ostream* stream) : lines(*stream) { google::AddLogSink(this); }
    ~Lines() override { google::RemoveLogSink(this); }
    using google::LogSink::send;
    void send(google::LogSeverity, const char*, const char*, int, const google::LogMessageTime&, const char* message,
              size_t size) override {
      lines << std::string(message, size) << std::endl;
    }
    std::ostream& lines;
  };

  explicit Glog(std::ostream* stream) : lines(stream) {}  // Before InitGoogleLogging, glog writes to no file.
  static void Log(Severity severity, const char* text) {
    constexpr google::LogSeverity kSeverities[] = {google::GLOG_INFO, google::GLOG_INFO, google::GLOG_WARNING,
                                                   google::GLOG_ERROR};
    google::LogMessage("fan.cpp", 7, kSeverities[static_cast<size_t>(severity)]).stream() << text;
  }
  static GlogCallback LogEvents() { return {}; }

  static constexpr const char* kDetails = R"({"log":{"logger":"","file":"fan.cpp","line":7}})";
  const std::shared_ptr<GlogSink> sink = std::make_shared<GlogSink>();
  const Lines lines;
};

struct BoostLog {
  explicit BoostLog(std::ostream* lines) {
    boost::log::core::get()->add_sink(boost::make_shared<boost::log::sinks::unlocked_sink<BoostLogBackend>>(sink));
    const auto message = boost::log::expressions::stream << boost::log::expressions::smessage;
    boost::log::add_console_log(*lines, boost::log::keywords::format = message);
    logger.add_attribute("Channel", boost::log::attributes::constant<std::string>("hydraulics"));
  }
  ~BoostLog() { boost::log::core::get()->remove_all_sinks(); }
  void Log(Severity severity, const char* text) {
    constexpr boost::log::trivial::severity_level kLevels[] = {boost::log::trivial::debug, boost::log::trivial::info,
                                                               boost::log::trivial::warning,
                                                               boost::log::trivial::fatal};
    BOOST_LOG_SEV(logger, kLevels[static_cast<size_t>(severity)]) << text;
  }
  static BoostLogCallback LogEvents() { return {}; }

  static constexpr const char* kDetails = R"({"log":{"logger":"hydraulics"}})";
  const boost::shared_ptr<BoostLogBackend> sink = boost::make_shared<BoostLogBackend>();
  boost::log::sources::severity_logger<boost::log::trivial::severity_level> logger{};
};

template <class Adapter>
struct oxEventLog : testing::Test {
  oxEventLog() {
    WriteSettings(folder.path + "/settings", "");
    session.emplace((folder.path + "/settings").c_str());
    recorder = Callback([this](const oxEventRecord& event) {
      events.push_back(std::to_string(event.severity) + ' ' + event.event_type + ' ' + event.source_id + ' ' +
                       event.action + ": " + event.message);
      details.emplace_back(event.details_json);
    });
  }

  const HostFolder folder{};
  Strings events;
  Strings details;
  std::ostringstream lines;
  Adapter adapter{&lines};
  std::optional<Session> session;
  Callback recorder;
};

using Adapters = testing::Types<Spdlog, Glog, BoostLog>;
TYPED_TEST_SUITE(oxEventLog, Adapters);

TYPED_TEST(oxEventLog, ALogRecordBecomesANotice) {
  this->adapter.Log(Severity::kInfo, "raise: started");
  this->adapter.Log(Severity::kWarning, "slow");
  this->adapter.Log(Severity::kError, "failed");
  ASSERT_FALSE(Flush());
  EXPECT_EQ(this->events, (Strings{"1 log  : raise: started", "2 log  : slow", "3 log  : failed"}));
  EXPECT_EQ(this->details, Strings(3, TypeParam::kDetails));
}

TYPED_TEST(oxEventLog, ALogRecordWithinLogAsIsAReportOfTheCondition) {
  Condition fan(Event().event_type("fan.stopped").source_id("fan-2").severity(Severity::kWarning));
  {
    const LogAs update(fan, Action::kUpdate);
    {
      const LogAs raise(fan, Action::kRaise);
      this->adapter.Log(Severity::kError, "Fan stopped");
      this->adapter.Log(Severity::kError, "suppressed");
    }
    this->adapter.Log(Severity::kError, "Fan is hot");
  }
  {
    const LogAs clear(fan, Action::kClear);
    this->adapter.Log(Severity::kError, "Fan runs");
  }
  this->adapter.Log(Severity::kInfo, "notice");
  ASSERT_FALSE(Flush());
  EXPECT_EQ(this->events, (Strings{"2 fan.stopped fan-2 raise: Fan stopped", "2 fan.stopped fan-2 update: Fan is hot",
                                   "2 fan.stopped fan-2 clear: Fan runs", "1 log  : notice"}));
  EXPECT_FALSE(fan.IsRaised());
}

TYPED_TEST(oxEventLog, NothingIsReportedOrLoggedTwice) {
  const Callback log_events(this->adapter.LogEvents());
  Event("Fan stopped").event_type("fan.stopped").source_id("fan-2").action("raise").Submit();
  Event("watched").Submit();
  this->adapter.Log(Severity::kInfo, "logged");
  ASSERT_FALSE(Flush());
  ASSERT_FALSE(Flush());  // A second time, for what the first events might have caused.
  EXPECT_EQ(this->events.size(), 3u);
  const std::string text = this->lines.str();
  for (const char* const line : {"logged\n", "event: watched\n", "fan.stopped fan-2 raise: Fan stopped\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "is not in:\n" << text;
  }
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
}

TEST(oxEventGlog, AFatalRecordIsDeliveredBeforeTheProcessEnds) {
  const HostFolder folder{};
  const std::string csv = folder.path + "/events.csv";
  WriteSettings(folder.path + "/settings", csv);
  InChild([&] {
    const Session session((folder.path + "/settings").c_str());
    const Glog adapter(&std::cerr);
    LOG(FATAL) << "corrupt";
    return 0;
  });
  EXPECT_NE(ReadFile(csv).find(",corrupt,"), std::string::npos) << ReadFile(csv);
}

}  // namespace

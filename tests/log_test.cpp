// The adapters for logging libraries, with the loggers that a host uses.
#include <boost/log/core.hpp>
#include <boost/log/sinks/unlocked_frontend.hpp>
#include <boost/make_shared.hpp>

#include "../include/oxEvent/boost_log.hpp"
#include "../include/oxEvent/glog.hpp"
#include "../include/oxEvent/spdlog.hpp"
#include "host_fixture.h"

namespace {

using Strings = std::vector<std::string>;
using namespace oxEvent;

// Each adapter has a logger with a sink of the adapter and, as the logger's other destination, the list of lines.
struct Spdlog {
  struct Lines : spdlog::sinks::sink {
    explicit Lines(Strings* list) : lines(list) {}
    void log(const spdlog::details::log_msg& record) override { lines->emplace_back(fmt::to_string(record.payload)); }
    void flush() override {}
    void set_pattern(const std::string& /*pattern*/) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}
    Strings* const lines;
  };

  explicit Spdlog(Strings* lines) {
    logger->set_level(spdlog::level::trace);
    logger->sinks() = {sink, std::make_shared<Lines>(lines)};
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
    explicit Lines(Strings* list) : lines(list) { google::AddLogSink(this); }
    ~Lines() override { google::RemoveLogSink(this); }
    using google::LogSink::send;
    void send(google::LogSeverity, const char*, const char*, int, const google::LogMessageTime&, const char* message,
              size_t size) override {
      lines->emplace_back(message, size);
    }
    Strings* const lines;
  };

  explicit Glog(Strings* list) : lines(list) {}  // Before InitGoogleLogging, glog writes to stderr, not to files.
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
  struct LinesBackend : boost::log::sinks::basic_sink_backend<boost::log::sinks::concurrent_feeding> {
    explicit LinesBackend(Strings* list) : lines(list) {}
    void consume(const boost::log::record_view& record) {
      lines->push_back(*boost::log::extract<std::string>("Message", record));
    }
    Strings* const lines;
  };
  template <class Backend>
  using Frontend = boost::log::sinks::unlocked_sink<Backend>;

  explicit BoostLog(Strings* lines) {
    const auto core = boost::log::core::get();
    core->add_sink(boost::make_shared<Frontend<BoostLogBackend>>(sink));
    core->add_sink(boost::make_shared<Frontend<LinesBackend>>(boost::make_shared<LinesBackend>(lines)));
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
  Strings lines;  // What the logger's other destination has got.
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
  Condition other(Event().event_type("other").source_id("x"));
  {
    const LogAs raise(fan, Action::kRaise);
    this->adapter.Log(Severity::kError, "Fan stopped");
    {
      const LogAs raise_other(other, Action::kRaise);
      this->adapter.Log(Severity::kError, "other");
    }
    this->adapter.Log(Severity::kError, "suppressed");
  }
  {
    const LogAs update(fan, Action::kUpdate);
    this->adapter.Log(Severity::kError, "Fan is hot");
  }
  {
    const LogAs clear(fan, Action::kClear);
    this->adapter.Log(Severity::kInfo, "Fan runs");
  }
  this->adapter.Log(Severity::kInfo, "notice");
  ASSERT_FALSE(Flush());
  EXPECT_EQ(this->events, (Strings{"2 fan.stopped fan-2 raise: Fan stopped", "1 other x raise: other",
                                   "2 fan.stopped fan-2 update: Fan is hot", "2 fan.stopped fan-2 clear: Fan runs",
                                   "1 log  : notice"}));
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
  std::sort(this->lines.begin(), this->lines.end());
  EXPECT_EQ(this->lines, (Strings{"event: watched", "fan.stopped fan-2 raise: Fan stopped", "logged"}));
}

TYPED_TEST(oxEventLog, CountsTheRecordsThatTheLibraryRefuses) {
  this->session.reset();
  this->adapter.Log(Severity::kError, "too late");
  EXPECT_EQ(this->adapter.sink->refused(), 1u);
}

TEST(oxEventGlog, AFatalRecordIsDeliveredBeforeTheProcessEnds) {
  const HostFolder folder{};
  const std::string csv = folder.path + "/events.csv";
  WriteSettings(folder.path + "/settings", csv);
  InChild([&] {
    const Session session((folder.path + "/settings").c_str());
    Strings lines;
    const Glog adapter(&lines);
    LOG(FATAL) << "corrupt";
    return 0;
  });
  EXPECT_NE(ReadFile(csv).find(",corrupt,"), std::string::npos) << ReadFile(csv);
}

}  // namespace

// Adapter for Boost.Log: reports log records as events, and logs events. For C++17 and later; see log.hpp for what the
// adapters have in common.
//
//     using Sink = boost::log::sinks::unlocked_sink<oxEvent::BoostLogBackend>;
//     boost::log::core::get()->add_sink(boost::make_shared<Sink>(boost::make_shared<oxEvent::BoostLogBackend>()));
//     oxEvent::Callback callback(oxEvent::BoostLogCallback{});
#ifndef OXEVENT_BOOST_LOG_HPP
#define OXEVENT_BOOST_LOG_HPP

#include <boost/log/attributes/constant.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_logger.hpp>
#include <boost/log/trivial.hpp>

#include "log.hpp"

namespace oxEvent {

// Reads the attributes Message, Severity (boost::log::trivial::severity_level; without it the severity is info) and
// Channel (std::string). Any thread may call consume, so that the front end needs no lock.
class BoostLogBackend final : public boost::log::sinks::basic_sink_backend<boost::log::sinks::concurrent_feeding>,
                              public LogReporter {
 public:
  explicit BoostLogBackend(const Event& fields = Event().event_type("log")) : LogReporter(fields) {}

  void consume(const boost::log::record_view& record) {
    if (boost::log::extract<std::string>("OxEvent", record)) return;
    const auto message = boost::log::extract<std::string>("Message", record);
    const auto channel = boost::log::extract<std::string>("Channel", record);
    const auto level = boost::log::extract<boost::log::trivial::severity_level>("Severity", record);
    Report(level ? SeverityOf(*level) : Severity::kInfo, message ? std::string_view(*message) : std::string_view(),
           channel ? std::string_view(*channel) : std::string_view(), nullptr, 0, 0);
  }

 private:
  static Severity SeverityOf(boost::log::trivial::severity_level level) noexcept {
    if (level >= boost::log::trivial::error) return Severity::kError;
    if (level == boost::log::trivial::warning) return Severity::kWarning;
    return level == boost::log::trivial::info ? Severity::kInfo : Severity::kDebug;
  }
};

// Logs each event with a boost::log::trivial::severity_level that corresponds to its severity, and with the attribute
// OxEvent, by which BoostLogBackend recognizes it.
class BoostLogCallback {
 public:
  BoostLogCallback() {
    logger_.add_attribute("OxEvent", boost::log::attributes::constant<std::string>(detail::kLogFile));
  }

  void operator()(const oxEventRecord& event) {
    if (detail::IsFromLog(event)) return;
    BOOST_LOG_SEV(logger_, LevelOf(event.severity)) << detail::LogText(event);
  }

 private:
  static boost::log::trivial::severity_level LevelOf(std::uint32_t severity) noexcept {
    if (severity >= OXEVENT_SEVERITY_ERROR) return boost::log::trivial::error;
    if (severity == OXEVENT_SEVERITY_WARNING) return boost::log::trivial::warning;
    return severity == OXEVENT_SEVERITY_INFO ? boost::log::trivial::info : boost::log::trivial::debug;
  }

  boost::log::sources::severity_logger<boost::log::trivial::severity_level> logger_ = {};
};

}  // namespace oxEvent

#endif

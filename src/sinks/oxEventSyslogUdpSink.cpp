#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventNumber.h"
#include "base/oxEventOrDefault.h"
#include "base/oxEventSeverity.h"
#include "config/oxEventSettings.h"
#include "platform/oxEventUdpSender.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkFactory.h"
#include "sinks/oxEventText.h"

namespace {

constexpr uint32_t kDefaultPort = 514;  // RFC 5426, section 3.3.
constexpr size_t kMaxLine = 8192;       // Bytes; a longer line is truncated.
constexpr int kDisplayDigits = 6;       // Significant digits of a double.
constexpr oxEventUdpErrors kUdpErrors = {oxEventErrors::kSyslogResolve, oxEventErrors::kSyslogSocket,
                                         oxEventErrors::kSyslogSend};

constexpr uint32_t kDefaultFacility = 16;  // local0: RFC 5424, table 1.

uint32_t SyslogSeverity(uint32_t severity) {  // RFC 5424, table 2.
  constexpr uint32_t kSeverities[] = {7, 6, 4, 3};
  return severity < std::size(kSeverities) ? kSeverities[severity] : 6;
}

// Appends a header field, in which "_" replaces all but printable US-ASCII; "-" if `text` is empty.
void AppendHeaderField(std::string_view text, size_t max_length, std::string* line) {
  if (text.empty()) line->push_back('-');
  for (const char c : text.substr(0, max_length)) line->push_back(c >= '!' && c <= '~' ? c : '_');
}

// Appends a PARAM-VALUE. Skips bytes beyond kMaxLine, because the line is truncated there anyway.
void AppendParamValue(std::string_view text, std::string* line) {
  const auto is_special = [](auto c) { return (c == '"') | (c == '\\') | (c == ']'); };
  text = text.substr(0, kMaxLine - std::min(line->size(), kMaxLine));
  oxEventText::AppendEscaped(text, is_special, line, [line](char c) { line->append(1, '\\').append(1, c); });
}

void BeginParameter(std::string_view name, std::string* line) { line->append(1, ' ').append(name).append("=\""); }

void AddStringParameter(std::string_view name, std::string_view text, std::string* line) {
  BeginParameter(name, line);
  AppendParamValue(text, line);
  line->push_back('"');
}

template <class... NumberArguments>
void AddNumberParameter(std::string_view name, std::string* line, NumberArguments... number) {
  BeginParameter(name, line);
  oxEventAppendNumber(line, number...);
  line->push_back('"');
}

void AppendStructuredData(const oxEventNormalizedEvent& event, std::string* line) {
  line->append("[velmora@32473");
  AddNumberParameter("version", line, uint64_t{OXEVENT_API_VERSION});
  AddNumberParameter("event_id", line, event.event_id);
  AddStringParameter("severity", oxEventSeverityName(event.severity), line);
  AddStringParameter("action", event.action, line);
  AddStringParameter("event_type", event.event_type, line);
  AddStringParameter("source_id", event.source_id, line);
  AddStringParameter("source_name", event.source_name, line);
  AddStringParameter("dedupe_key", event.dedupe_key, line);
  AddStringParameter("correlation_id", event.correlation_id, line);
  AddNumberParameter("utc_ns", line, event.utc_ns);
  AddNumberParameter("ptp_ns", line, event.ptp_ns);
  AddNumberParameter("pts", line, event.pts);
  AddStringParameter("timecode", event.timecode, line);
  AddNumberParameter("value", line, event.value, kDisplayDigits);
  AddNumberParameter("threshold", line, event.threshold, kDisplayDigits);
  AddStringParameter("units", event.units, line);
  AddNumberParameter("duration_ms", line, event.duration_ms);
  AddStringParameter("details_json", event.details_json, line);
  line->push_back(']');
}

std::string HostName() {
  char name[255] = {};
  const bool known = gethostname(name, sizeof(name)) == 0;
  name[sizeof(name) - 1] = '\0';
  return known && name[0] != '\0' ? name : "-";
}

std::string Host(const oxEventSinkConfig& config) { return oxEventOrDefault(config.host, "127.0.0.1"); }

uint32_t Port(const oxEventSinkConfig& config) { return config.port == 0 ? kDefaultPort : config.port; }

// Sends each event as one RFC 5424 message in one datagram (RFC 5426). The timestamp has nine fractional digits, where
// the standard allows six, so that it keeps the nanoseconds.
class oxEventSyslogUdpSink : public oxEventSink {
 public:
  explicit oxEventSyslogUdpSink(const oxEventSinkConfig& config)
      : oxEventSink(config.minimum_severity),
        facility_code_(oxEventFindWord(g_oxEventSyslogFacilityWords, config.facility).value_or(kDefaultFacility)),
        sender_(kUdpErrors, Host(config), Port(config), config.lookup) {
    const auto add = [this](std::string_view text, size_t max_length) {
      origin_.push_back(' ');
      AppendHeaderField(text, max_length, &origin_);
    };
    add(HostName(), 255);
    add(oxEventOrDefault(config.app_name, "oxEvent"), kOxEventAppNameMaxBytes);
    add(std::to_string(getpid()), 128);
    origin_.push_back(' ');
    line_.reserve(kMaxLine);
  }

  uint32_t Open(std::string* error) override OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    return sender_.Open(error);
  }

 private:
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* /*warnings*/, std::string* error) override
      OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    FormatLocked(event);
    return sender_.Send(line_, error);
  }

  void FormatLocked(const oxEventNormalizedEvent& event) OX_REQUIRES(mutex_) {
    line_.assign(1, '<');
    oxEventAppendNumber(&line_, facility_code_ * 8 + SyslogSeverity(event.severity));
    line_.append(">1 ");
    oxEventText::UtcIsoNanoFromNs(event.utc_ns, &line_, &utc_cache_);
    line_.append(origin_);
    AppendHeaderField(event.event_type, 32, &line_);
    line_.push_back(' ');
    AppendStructuredData(event, &line_);
    line_.push_back(' ');
    line_.append(event.message, 0, kMaxLine);
    line_.resize(std::min(line_.size(), kMaxLine));
  }

  oxEventMutex mutex_;
  const uint32_t facility_code_;
  std::string origin_;  // " HOSTNAME APP-NAME PROCID ". Constant after construction.
  oxEventUdpSender sender_ OX_GUARDED_BY(mutex_);
  std::string line_ OX_GUARDED_BY(mutex_);  // Reused for each event.
  oxEventText::UtcCache utc_cache_ OX_GUARDED_BY(mutex_);
};

}  // namespace

std::shared_ptr<const oxEventUdpLookup> oxEventLookUpSyslogUdp(const oxEventSinkConfig& config) {
  return oxEventUdpLookUp(Host(config), Port(config));
}

uint32_t oxEventCreateSyslogUdpSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                    std::string* error) {
  return oxEventCreateSink<oxEventSyslogUdpSink>(oxEventErrors::kSyslogOutput, config, out, error);
}

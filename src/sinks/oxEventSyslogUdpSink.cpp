#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventOrDefault.h"
#include "base/oxEventSeverity.h"
#include "base/oxEventWriter.h"
#include "config/oxEventSettings.h"
#include "platform/oxEventUdpSender.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkFactory.h"
#include "sinks/oxEventText.h"

namespace {

constexpr uint32_t kDefaultPort = 514;  // RFC 5426, section 3.3.
constexpr size_t kMaxLine = 8192;       // Bytes; a longer line is truncated, even within a UTF-8 character.
constexpr int kDisplayDigits = 6;       // Significant digits of a double.
constexpr oxEventUdpErrors kUdpErrors = {oxEventErrors::kSyslogResolve, oxEventErrors::kSyslogSocket,
                                         oxEventErrors::kSyslogSend};

constexpr uint32_t kDefaultFacility = 16;  // local0: RFC 5424, table 1.

uint32_t SyslogSeverity(uint32_t severity) {  // RFC 5424, table 2.
  constexpr uint32_t kSeverities[] = {7, 6, 4, 3};
  return severity < std::size(kSeverities) ? kSeverities[severity] : 6;
}

// Adds a header field: at most max_length bytes, with "_" for each byte that is not PRINTUSASCII (RFC 5424, section 6),
// or "-" if `text` is empty.
void AddHeaderField(std::string_view text, size_t max_length, oxEventWriter* line) {
  if (text.empty()) return line->Add('-');
  text = text.substr(0, max_length);
  const auto or_underscore = [](char c) { return c >= '!' && c <= '~' ? c : '_'; };
  line->Advance(std::transform(text.begin(), text.end(), line->Room(text.size()), or_underscore));
}

char* WriteParamValue(std::string_view text, char* at) {
  const auto is_special = [](auto c) { return (c == '"') | (c == '\\') | (c == ']'); };
  const auto escape = [](unsigned char byte, char* to) {
    *to++ = '\\';
    *to++ = static_cast<char>(byte);
    return to;
  };
  return oxEventWriteEscaped(text, is_special, escape, at);
}

// Adds a PARAM-VALUE. Skips bytes beyond kMaxLine, because the line is truncated there anyway.
void AddParamValue(std::string_view text, oxEventWriter* line) {
  line->AddEscaped<2>(text.substr(0, kMaxLine - std::min(line->Size(), kMaxLine)), WriteParamValue);
}

template <size_t kSize>
void BeginParameter(const char (&name)[kSize], oxEventWriter* line) {
  char* at = line->Room(kSize + sizeof(" =\""));
  *at++ = ' ';
  std::memcpy(at, name, kSize - 1);
  at += kSize - 1;
  *at++ = '=';
  *at++ = '"';
  line->Advance(at);
}

template <size_t kSize>
void AddStringParameter(const char (&name)[kSize], std::string_view text, oxEventWriter* line) {
  BeginParameter(name, line);
  AddParamValue(text, line);
  line->Add('"');
}

template <size_t kSize, class... NumberArguments>
void AddNumberParameter(const char (&name)[kSize], oxEventWriter* line, NumberArguments... number) {
  BeginParameter(name, line);
  line->AddNumber(number...);
  line->Add('"');
}

void AddStructuredData(const oxEventNormalizedEvent& event, oxEventWriter* line) {
  line->Add("[velmora@32473");
  AddNumberParameter("version", line, OXEVENT_API_VERSION);
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
  line->Add(']');
}

std::string HostName() {
  char name[255] = {};
  const bool known = gethostname(name, sizeof(name)) == 0;
  name[sizeof(name) - 1] = '\0';
  return known && name[0] != '\0' ? name : "-";
}

std::string Host(const oxEventSinkConfig& config) { return oxEventOrDefault(config.host, "127.0.0.1"); }

uint32_t Port(const oxEventSinkConfig& config) { return config.port == 0 ? kDefaultPort : config.port; }

// Sends each event as one RFC 5424 message in one datagram (RFC 5426). The timestamp has nine fractional digits,
// although the standard allows at most six, so that no nanoseconds are lost. Invalid UTF-8 is passed on unchanged.
class oxEventSyslogUdpSink : public oxEventSink {
 public:
  explicit oxEventSyslogUdpSink(const oxEventSinkConfig& config)
      : oxEventSink(config.minimum_severity),
        facility_code_(oxEventFindWord(g_oxEventSyslogFacilityWords, config.facility).value_or(kDefaultFacility)),
        sender_(kUdpErrors, Host(config), Port(config), config.lookup) {
    oxEventWriter origin(&origin_);
    const auto add = [&origin](std::string_view text, size_t max_length) {
      origin.Add(' ');
      AddHeaderField(text, max_length, &origin);
    };
    add(HostName(), 255);
    add(oxEventOrDefault(config.app_name, "oxEvent"), kOxEventAppNameMaxBytes);
    add(std::to_string(getpid()), 128);
    origin.Add(' ');
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
    line_.clear();
    oxEventWriter line(&line_);
    line.Add('<');
    line.AddNumber(facility_code_ * 8 + SyslogSeverity(event.severity));
    line.Add(">1 ");
    oxEventText::UtcIsoNanoFromNs(event.utc_ns, &line, &utc_cache_);
    line.Add(std::string_view(origin_));
    AddHeaderField(event.event_type, 32, &line);
    line.Add(' ');
    AddStructuredData(event, &line);
    line.Add(' ');
    line.Add(event.message.substr(0, kMaxLine));
    line.Truncate(std::min(line.Size(), kMaxLine));
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

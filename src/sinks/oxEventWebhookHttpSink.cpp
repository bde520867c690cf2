#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>
#include <thread>

#include "base/oxEventAscii.h"
#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventOrDefault.h"
#include "config/oxEventSettings.h"
#include "platform/oxEventPlatformHttp.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkFactory.h"
#include "sinks/oxEventText.h"

namespace {

constexpr uint32_t kDefaultRequestTimeoutMs = 5000;
constexpr uint32_t kDefaultBackoffMs = 250;
constexpr char kLineSeparator = '\xA7';  // Between two lines of the HTTP client's header block.

void AppendBase64(std::string_view bytes, std::string* out) {  // RFC 4648, section 4.
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const std::string_view group = bytes.substr(i, 3);
    uint32_t bits = 0;
    for (size_t j = 0; j < 3; ++j) bits = bits << 8 | (j < group.size() ? static_cast<unsigned char>(group[j]) : 0u);
    for (size_t j = 0; j < 4; ++j) out->push_back(j <= group.size() ? kAlphabet[bits >> (18 - 6 * j) & 0x3F] : '=');
  }
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kSpaces = " \t\n\v\f\r";
  const size_t begin = text.find_first_not_of(kSpaces);
  if (begin == text.npos) return {};
  return text.substr(begin, text.find_last_not_of(kSpaces) + 1 - begin);
}

// Calls `add` with each header line of the setting, trimmed.
template <class Add>
void SplitHeaders(std::string_view text, Add add) {
  while (!text.empty()) {
    const size_t end = text.find_first_of("\n\r|");
    const std::string_view line = Trim(text.substr(0, end));
    if (!line.empty()) add(line);
    text.remove_prefix(end == text.npos ? text.size() : end + 1);
  }
}

// Returns whether the text ends inside a UTF-8 sequence: a separator after it would be taken for its next byte.
bool EndsInsideUtf8Sequence(std::string_view text) {
  for (size_t length = 1; length <= std::min<size_t>(text.size(), 3); ++length) {
    const auto byte = static_cast<unsigned char>(text[text.size() - length]);
    if (byte >= 0xC0) return length < (byte >= 0xF0 ? 4u : byte >= 0xE0 ? 3u : 2u);
    if (byte < 0x80) return false;
  }
  return false;
}

// The CloudEvents section's setting applies if the webhook's is empty.
std::string EndpointUrl(const oxEventSinkConfig& config) {
  return oxEventOrDefault(config.endpoint_url, config.ce_endpoint_url);
}

constexpr uint32_t FirstNonZero(uint32_t a, uint32_t b, uint32_t c) { return a != 0 ? a : b != 0 ? b : c; }

// Posts each event as one JSON document. Blocks the worker during all attempts, so that events are sent in order, one
// at a time.
class oxEventWebhookHttpSink : public oxEventSink {
 public:
  explicit oxEventWebhookHttpSink(const oxEventSinkConfig& config)
      : oxEventSink(config.minimum_severity),
        endpoint_url_(EndpointUrl(config)),
        cloudevents_(config.type == oxEventSinkType::kCloudEventsHttp ||
                     oxEventFindWord(g_oxEventPayloadModeWords, config.payload_mode) == kOxEventPayloadCloudEvents),
        request_timeout_ms_(FirstNonZero(config.request_timeout_ms, config.ce_timeout_ms, kDefaultRequestTimeoutMs)),
        retry_count_(config.retry_count),
        backoff_ms_(config.backoff_ms == 0 ? kDefaultBackoffMs : config.backoff_ms),
        cloudevents_source_(
            oxEventOrDefault(oxEventOrDefault(config.cloudevents_source, config.ce_source), "/oxEvent")),
        cloudevents_subject_prefix_(oxEventOrDefault(config.cloudevents_subject_prefix, config.ce_subject_prefix)) {
    BuildHeaderBlock(config);
  }

  std::string FailureDetail() const override {
    const int32_t status = failed_status_;
    return status == 0 ? module_error_ : "the response had status " + std::to_string(status);
  }

 private:
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* /*warnings*/, std::string* error) override
      OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    body_.clear();
    if (cloudevents_) {
      oxEventText::FormatCloudEventsJson(event, cloudevents_source_, cloudevents_subject_prefix_, &body_);
    } else {
      oxEventText::FormatNativeJsonData(event, &body_);
    }
    const uint32_t result = PostLocked(error);
    oxEventReleaseLongText(&body_);
    return result;
  }

  uint32_t PostLocked(std::string* error) OX_REQUIRES(mutex_) {
    const uint32_t attempts = retry_count_ + 1;  // Wraps to 0, no attempt at all, if retry_count_ is UINT32_MAX.
    if (attempts == 0) return OXEVENT_FAILURE;
    for (uint32_t i = 0; i < attempts; ++i) {
      if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(backoff_ms_));
      int32_t status = 0;
      if (oxEventPlatformHttpPost(endpoint_url_, header_block_, body_, request_timeout_ms_, &status)) return OXEVENT_OK;
      failed_status_ = status;
    }
    return oxEventSetErrorText(oxEventErrors::kWebhookPost, {endpoint_url_}, error);
  }

  void BuildHeaderBlock(const oxEventSinkConfig& config) {
    const auto add = [this](std::string_view name, std::string_view value = "") {
      if (EndsInsideUtf8Sequence(header_block_)) header_block_.push_back(' ');  // Servers ignore trailing spaces.
      if (!header_block_.empty()) header_block_.push_back(kLineSeparator);
      header_block_.append(name).append(value);
    };
    add("Content-Type: ",
        cloudevents_ ? "application/cloudevents+json; charset=utf-8" : "application/json; charset=utf-8");
    add("Accept: application/json");
    add("User-Agent: oxEvent/1.0");
    add("X-oxEvent-TLS-Verify: ", config.tls_verify ? "1" : "0");
    if (config.connect_timeout_ms != 0) {
      add("X-oxEvent-Connect-Timeout-Ms: ", std::to_string(config.connect_timeout_ms));
    }
    SplitHeaders(oxEventOrDefault(config.headers, config.ce_auth_header), add);
    if (!config.bearer_token.empty()) add("Authorization: Bearer ", config.bearer_token);
    if (!config.basic_username.empty() || !config.basic_password.empty()) {
      add("Authorization: Basic ");
      AppendBase64(config.basic_username + ":" + config.basic_password, &header_block_);
    }
  }

  oxEventMutex mutex_;
  const std::string endpoint_url_;
  const bool cloudevents_;
  const uint32_t request_timeout_ms_;
  const uint32_t retry_count_;
  const uint32_t backoff_ms_;
  const std::string cloudevents_source_;
  const std::string cloudevents_subject_prefix_;
  const std::string module_error_ = oxEventPlatformHttpPrepare();  // Why the HTTP module is not loaded; empty if it is.
  std::string header_block_;  // In the HTTP client's format. Constant after construction.
  std::string body_ OX_GUARDED_BY(mutex_);
  std::atomic<int32_t> failed_status_ = 0;  // Status of the last request that failed; 0 if it got no response.
};

uint32_t CheckSettings(const oxEventSinkConfig& config, std::string* error) {
  const std::string url = oxEventAsciiLower(EndpointUrl(config));
  if (!url.starts_with("http://") && !url.starts_with("https://")) {
    return oxEventSetErrorText(oxEventErrors::kWebhookUrl, error);
  }
  const bool known = config.payload_mode.empty() || oxEventFindWord(g_oxEventPayloadModeWords, config.payload_mode);
  if (!known && config.type != oxEventSinkType::kCloudEventsHttp) {
    return oxEventSetErrorText(oxEventErrors::kWebhookPayloadMode, error);
  }
  if (const char* const variable = oxEventPlatformHttpUnsafeVariable()) {
    return oxEventSetErrorText(oxEventErrors::kWebhookEnvironment, {variable}, error);
  }
  return OXEVENT_OK;
}

}  // namespace

uint32_t oxEventCreateHttpSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out, std::string* error) {
  return oxEventCreateSink<oxEventWebhookHttpSink>(oxEventErrors::kWebhookOutput, config, out, error, CheckSettings);
}

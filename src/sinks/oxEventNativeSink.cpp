#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventSeverity.h"
#include "platform/oxEventSystemLog.h"
#include "sinks/oxEventSink.h"

namespace {

// Writes each event as one line to the operating system's log.
class oxEventNativeSink : public oxEventSink {
 public:
  explicit oxEventNativeSink(const oxEventSinkConfig& config)
      : minimum_severity_(config.minimum_severity),
        platform_config_{config.source_name, config.native_facility, config.subsystem, config.category} {}
  ~oxEventNativeSink() override { oxEventPlatformNativeClose(handle_); }

  uint32_t Open(std::string* error) OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    return OpenLocked(error);
  }

  uint32_t Submit(const oxEventNormalizedEvent& event, uint64_t* warnings, std::string* error) override
      OX_EXCLUDES(mutex_) {
    if (!oxEventSeverityMeetsMinimum(event.severity, minimum_severity_)) return OXEVENT_OK;
    oxEventLock lock(mutex_);
    if (const uint32_t result = OpenLocked(error); result != OXEVENT_OK) return result;
    bool warning = false;
    const uint32_t result = oxEventPlatformNativeWrite(handle_, event, &warning, error);
    if (warning && warnings != nullptr) ++*warnings;
    return result;
  }

 private:
  uint32_t OpenLocked(std::string* error) OX_REQUIRES(mutex_) {
    return handle_ != nullptr ? OXEVENT_OK : oxEventPlatformNativeOpen(platform_config_, &handle_, error);
  }

  oxEventMutex mutex_;
  const uint32_t minimum_severity_;
  const oxEventNativePlatformConfig platform_config_;
  oxEventNativeLogHandle* handle_ OX_GUARDED_BY(mutex_) = nullptr;  // Owned.
};

}  // namespace

uint32_t oxEventCreateNativeSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                 std::string* error) {
  if (out == nullptr) return oxEventSetErrorText(oxEventErrors::kNativeOutput, error);
  auto sink = std::make_shared<oxEventNativeSink>(config);
  const uint32_t result = sink->Open(error);
  if (result == OXEVENT_OK) *out = std::move(sink);
  return result;
}

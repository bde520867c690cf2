#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "platform/oxEventSystemLog.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkFactory.h"

namespace {

// Writes each event as one message to the operating system's log.
class oxEventNativeSink : public oxEventSink {
 public:
  explicit oxEventNativeSink(const oxEventSinkConfig& config)
      : oxEventSink(config.minimum_severity),
        platform_config_{config.source_name, config.native_facility, config.subsystem, config.category} {}
  ~oxEventNativeSink() override { oxEventPlatformNativeClose(handle_); }

  uint32_t Open(std::string* error) override OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    return oxEventPlatformNativeOpen(platform_config_, &handle_, error);
  }

 private:
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* warnings, std::string* error) override
      OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    bool warning = false;
    const uint32_t result = oxEventPlatformNativeWrite(handle_, event, &warning, error);
    if (warning && warnings != nullptr) ++*warnings;
    return result;
  }

  oxEventMutex mutex_;
  const oxEventNativePlatformConfig platform_config_;
  oxEventNativeLogHandle* handle_ OX_GUARDED_BY(mutex_) = nullptr;  // Owned.
};

}  // namespace

uint32_t oxEventCreateNativeSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                 std::string* error) {
  return oxEventCreateSink<oxEventNativeSink>(oxEventErrors::kNativeOutput, config, out, error);
}

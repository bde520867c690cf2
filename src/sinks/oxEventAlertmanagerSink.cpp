#include <memory>

#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventOrDefault.h"
#include "sinks/oxEventAlertmanager.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkFactory.h"

namespace {

constexpr size_t kInitialCapacity = 2048;  // Bytes; enough for a typical document.

// Keeps the document of the latest event. Sends nothing: the host formats documents itself and posts them.
class oxEventAlertmanagerSink : public oxEventSink {
 public:
  explicit oxEventAlertmanagerSink(const oxEventSinkConfig& config)
      : oxEventSink(config.minimum_severity),
        formatter_config_{config.send_resolved, config.allow_source_label,
                          oxEventOrDefault(config.alertname_prefix, "OxEvent")} {
    latest_document_.reserve(kInitialCapacity);
    spare_document_.reserve(kInitialCapacity);
  }

 private:
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* /*warnings*/, std::string* /*error*/) override
      OX_EXCLUDES(mutex_) {
    std::string document;
    oxEventText::UtcCache utc_cache;
    {
      oxEventLock lock(mutex_);
      document.swap(spare_document_);
      utc_cache = utc_cache_;
    }
    oxEventFormatAlertmanagerAlert(event, formatter_config_, &document, &utc_cache);
    oxEventLock lock(mutex_);
    document.swap(latest_document_);
    document.swap(spare_document_);
    oxEventReleaseLongText(&spare_document_);
    utc_cache_ = utc_cache;
    return OXEVENT_OK;
  }

  oxEventMutex mutex_;
  const oxEventAlertmanagerFormatterConfig formatter_config_;
  std::string latest_document_ OX_GUARDED_BY(mutex_);
  std::string spare_document_ OX_GUARDED_BY(mutex_);  // Its memory is reused for the next document.
  oxEventText::UtcCache utc_cache_ OX_GUARDED_BY(mutex_);
};

}  // namespace

uint32_t oxEventCreateAlertmanagerSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                       std::string* error) {
  return oxEventCreateSink<oxEventAlertmanagerSink>(oxEventErrors::kAlertmanagerOutput, config, out, error);
}

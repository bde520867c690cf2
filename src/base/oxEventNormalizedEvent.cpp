#include "base/oxEventNormalizedEvent.h"

#include <cstddef>
#include <iterator>

namespace {

constexpr size_t kLongText = 4096;  // Bytes.

}  // namespace

void oxEventNormalizedEvent::Assign(const oxEventView& from) {
  CopyNumbers(from);
  for (size_t i = 0; i < std::size(kTexts); ++i) (this->*kTexts[i]).assign(from.*oxEventView::kTexts[i]);
}

oxEventRecord oxEventNormalizedEvent::ToPublicView() const {
  oxEventRecord record;
  record.struct_size = sizeof(oxEventRecord);
  record.version = OXEVENT_API_VERSION;
  record.event_id = event_id;
  record.event_type = event_type.c_str();
  record.source_id = source_id.c_str();
  record.source_name = source_name.c_str();
  record.message = message.c_str();
  record.severity = severity;
  record.action = action.c_str();
  record.dedupe_key = dedupe_key.c_str();
  record.correlation_id = correlation_id.c_str();
  record.utc_ns = utc_ns;
  record.ptp_ns = ptp_ns;
  record.pts = pts;
  record.timecode = timecode.c_str();
  record.value = value;
  record.threshold = threshold;
  record.units = units.c_str();
  record.duration_ms = duration_ms;
  record.details_json = details_json.c_str();
  return record;
}

void oxEventNormalizedEvent::ReleaseLongTexts() {
  for (std::string oxEventFields::*text : kTexts) oxEventReleaseLongText(&(this->*text));
}

void oxEventReleaseLongText(std::string* text) {
  if (text->capacity() > kLongText) std::string().swap(*text);
}

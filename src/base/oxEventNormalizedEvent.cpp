#include "base/oxEventNormalizedEvent.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>

#include "base/oxEventSlab.h"

namespace {

constexpr size_t kLongText = 4096;  // Bytes.

using Event = oxEventNormalizedEvent;

constexpr std::string_view Event::*kTexts[] = {
    &Event::event_type, &Event::source_id,      &Event::source_name, &Event::message, &Event::action,
    &Event::dedupe_key, &Event::correlation_id, &Event::timecode,    &Event::units,   &Event::details_json};

// Bytes that all texts need, with a NUL behind each.
size_t SizeOfTexts(const Event& event) {
  size_t size = std::size(kTexts);
  for (const auto text : kTexts) size += (event.*text).size();
  return size;
}

}  // namespace

oxEventRecord oxEventNormalizedEvent::ToPublicView() const {
  oxEventRecord record;
  record.struct_size = sizeof(oxEventRecord);
  record.version = OXEVENT_API_VERSION;
  record.event_id = event_id;
  record.event_type = event_type.data();
  record.source_id = source_id.data();
  record.source_name = source_name.data();
  record.message = message.data();
  record.severity = severity;
  record.action = action.data();
  record.dedupe_key = dedupe_key.data();
  record.correlation_id = correlation_id.data();
  record.utc_ns = utc_ns;
  record.ptp_ns = ptp_ns;
  record.pts = pts;
  record.timecode = timecode.data();
  record.value = value;
  record.threshold = threshold;
  record.units = units.data();
  record.duration_ms = duration_ms;
  record.details_json = details_json.data();
  return record;
}

bool oxEventStoredEvent::HasRoomFor(const oxEventNormalizedEvent& event) const {
  return SizeOfTexts(event) <= capacity_;
}

bool oxEventStoredEvent::Assign(const oxEventNormalizedEvent& from) {
  if (const size_t size = SizeOfTexts(from); size > capacity_) {
    const size_t capacity = std::bit_ceil(size);  // So that events of all sizes soon fit.
    void* const texts = memory_->Allocate(capacity);
    if (texts == nullptr) return false;
    ReleaseTexts();
    texts_ = static_cast<char*>(texts);
    capacity_ = capacity;
  }
  event_ = from;
  char* at = texts_;
  for (const auto text : kTexts) {
    const std::string_view source = from.*text;
    std::memcpy(at, source.data(), source.size());
    at[source.size()] = '\0';
    event_.*text = {at, source.size()};
    at += source.size() + 1;
  }
  return true;
}

void oxEventStoredEvent::ReleaseLongTexts() {
  if (capacity_ <= kLongText) return;  // None can be that long.
  const auto is_long = [this](auto text) { return (event_.*text).size() > kLongText; };
  if (!std::any_of(std::begin(kTexts), std::end(kTexts), is_long)) return;
  event_ = {};
  ReleaseTexts();
}

void oxEventStoredEvent::ReleaseTexts() {
  if (texts_ != nullptr) memory_->Free(texts_, capacity_);
  texts_ = nullptr;
  capacity_ = 0;
}

void oxEventReleaseLongText(std::string* text) {
  if (text->capacity() > kLongText) std::string().swap(*text);
}

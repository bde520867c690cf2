#include "base/oxEventNormalizedEvent.h"

#include <algorithm>
#include <bit>
#include <iterator>

#include "base/oxEventSlab.h"
#include "base/oxEventWriter.h"

namespace {

constexpr size_t kMaxKeptStringBytes = 4096;  // The memory of longer strings is not kept for reuse.

using Event = oxEventNormalizedEvent;

constexpr std::string_view Event::*kStrings[] = {
    &Event::event_type, &Event::source_id,      &Event::source_name, &Event::message, &Event::action,
    &Event::dedupe_key, &Event::correlation_id, &Event::timecode,    &Event::units,   &Event::details_json};

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

bool oxEventStoredEvent::Assign(const oxEventNormalizedEvent& from) {
  if (const size_t size = StoredBytes(from); size > capacity_) {
    const size_t capacity = std::bit_ceil(size);  // Rounded up, to allocate less often.
    void* const block = memory_->Allocate(capacity);
    if (block == nullptr) return false;
    FreeBlock();
    block_ = static_cast<char*>(block);
    capacity_ = capacity;
  }
  char* at = block_;
  const auto store = [&at](std::string_view text) {
    const std::string_view stored(at, text.size());
    at = oxEventWriteText(text, at);
    *at++ = '\0';
    return stored;
  };
  event_.event_id = from.event_id;
  event_.event_type = store(from.event_type);
  event_.source_id = store(from.source_id);
  event_.source_name = store(from.source_name);
  event_.message = store(from.message);
  event_.severity = from.severity;
  event_.action = store(from.action);
  event_.dedupe_key = store(from.dedupe_key);
  event_.correlation_id = store(from.correlation_id);
  event_.utc_ns = from.utc_ns;
  event_.ptp_ns = from.ptp_ns;
  event_.pts = from.pts;
  event_.timecode = store(from.timecode);
  event_.value = from.value;
  event_.threshold = from.threshold;
  event_.units = store(from.units);
  event_.duration_ms = from.duration_ms;
  event_.details_json = store(from.details_json);
  return true;
}

void oxEventStoredEvent::ReleaseLongTexts() {
  if (capacity_ <= kMaxKeptStringBytes) return;  // No string in the block can be longer.
  const auto is_long = [this](auto field) { return (event_.*field).size() > kMaxKeptStringBytes; };
  if (!std::any_of(std::begin(kStrings), std::end(kStrings), is_long)) return;
  event_ = {};
  FreeBlock();
}

void oxEventStoredEvent::FreeBlock() {
  if (block_ != nullptr) memory_->Free(block_, capacity_);
  block_ = nullptr;
  capacity_ = 0;
}

void oxEventReleaseLongText(std::string* text) {
  if (text->capacity() > kMaxKeptStringBytes) std::string().swap(*text);
}

#include "base/oxEventNormalizedEvent.h"

#include <algorithm>
#include <bit>
#include <iterator>
#include <utility>

#include "base/oxEventSlab.h"
#include "base/oxEventWriter.h"

namespace {

using Event = oxEventNormalizedEvent;

constexpr std::string_view Event::*kStrings[] = {
    &Event::event_type, &Event::source_id,      &Event::source_name, &Event::message, &Event::action,
    &Event::dedupe_key, &Event::correlation_id, &Event::timecode,    &Event::units,   &Event::details_json};

// Copies the text and a terminating NUL to the buffer `to`, unless it is a default text, and makes *text refer to the
// copy. Returns the end of what it wrote.
[[gnu::always_inline]] inline char* MoveText(std::string_view* text, char* to) {
  if (oxEventDefaults::Contains(text->data())) return to;
  char* const end = oxEventWriteText(*text, to);
  *end = '\0';
  *text = std::string_view(to, text->size());
  return end + 1;
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

bool oxEventStoredEvent::TryAssign(const oxEventNormalizedEvent& from) {
  if (StoredBytes(from) > capacity_) return false;
  event_ = from;
  char* at = block_;
  const auto move = [&]<size_t... i>(std::index_sequence<i...>) __attribute__((always_inline)) {
    ((at = MoveText(&(event_.*kStrings[i]), at)), ...);
  };
  move(std::make_index_sequence<std::size(kStrings)>());
  return true;
}

bool oxEventStoredEvent::Assign(const oxEventNormalizedEvent& from) {
  return TryAssign(from) || (Reserve(StoredBytes(from)) && TryAssign(from));
}

// Replaces the block by one of at least `size` bytes.
bool oxEventStoredEvent::Reserve(size_t size) {
  const size_t capacity = std::bit_ceil(size);  // Rounded up, to allocate less often.
  void* const block = memory_->Allocate(capacity);
  if (block == nullptr) return false;
  FreeBlock();
  block_ = static_cast<char*>(block);
  capacity_ = capacity;
  return true;
}

void oxEventStoredEvent::ReleaseBlockOfLongTexts() {
  static_assert(std::size(kStrings) == kStringCount);
  const auto is_long = [this](auto field) { return (event_.*field).size() > kOxEventMaxKeptBytes; };
  if (!std::any_of(std::begin(kStrings), std::end(kStrings), is_long)) return;
  event_ = {};
  FreeBlock();
}

void oxEventStoredEvent::FreeBlock() {
  if (block_ != nullptr) memory_->Free(block_, capacity_);
  block_ = nullptr;
  capacity_ = 0;
}

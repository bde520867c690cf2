#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "oxEvent.h"

class oxEventSharedSlab;

constexpr size_t kOxEventMaxKeptBytes = 4096;  // The memory of longer strings is not kept for reuse.

// The texts of fields that a record does not set. A copy of an event refers to them as well, instead of copying them.
// All are in one array, so that comparing addresses distinguishes them from a host's texts, which must be copied.
class oxEventDefaults {
 public:
  static bool Contains(const char* text) {
    return reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(kTexts) < sizeof(kTexts);
  }

 private:
  static constexpr char kTexts[] = "\0event\0simple\0oxEvent\0{}";  // Each view ends before a NUL.

 public:
  static constexpr std::string_view kEmpty = kTexts;
  static constexpr std::string_view kEventType = kTexts + 1;
  static constexpr std::string_view kSimpleEventType = kTexts + 7;
  static constexpr std::string_view kSourceName = kTexts + 14;
  static constexpr std::string_view kDetailsJson = kTexts + 22;
};

// An event with all defaults applied and its id and timestamps set. Does not own its strings, which are NUL-terminated.
struct oxEventNormalizedEvent {
  // NOLINTBEGIN(readability-redundant-string-init): a default-constructed view has no NUL.
  uint64_t event_id = 0;
  std::string_view event_type = "";
  std::string_view source_id = "";
  std::string_view source_name = "";
  std::string_view message = "";
  uint32_t severity = OXEVENT_SEVERITY_INFO;
  std::string_view action = "";
  std::string_view dedupe_key = "";
  std::string_view correlation_id = "";
  uint64_t utc_ns = 0;  // Nanoseconds since 1970-01-01T00:00:00Z.
  uint64_t ptp_ns = 0;
  int64_t pts = 0;
  std::string_view timecode = "";
  double value = 0.0;
  double threshold = 0.0;
  std::string_view units = "";
  uint64_t duration_ms = 0;
  std::string_view details_json = "";
  // NOLINTEND(readability-redundant-string-init)

  // Returns the size of all strings together, without their NULs.
  size_t TextBytes() const {
    return event_type.size() + source_id.size() + source_name.size() + message.size() + action.size() +
           dedupe_key.size() + correlation_id.size() + timecode.size() + units.size() + details_json.size();
  }

  // Returns a record with the same strings. Its padding bytes are not initialized.
  oxEventRecord ToPublicView() const;
};

// A copy of a normalized event that owns its strings, in one block of memory that is reused for the next event.
class oxEventStoredEvent {
 public:
  // `memory` allocates the block and must outlive this object.
  explicit oxEventStoredEvent(oxEventSharedSlab* memory) : memory_(memory) {}
  ~oxEventStoredEvent() { FreeBlock(); }
  oxEventStoredEvent(const oxEventStoredEvent&) = delete;
  oxEventStoredEvent& operator=(const oxEventStoredEvent&) = delete;

  // Copies the event. Returns false, and changes nothing, if the block is too small.
  [[nodiscard]] bool TryAssign(const oxEventNormalizedEvent& from);
  // Copies the event, to a larger block if necessary. Returns false, and changes nothing, if out of memory.
  [[nodiscard]] bool Assign(const oxEventNormalizedEvent& from);

  // Valid until the next Assign or ReleaseLongTexts.
  const oxEventNormalizedEvent& Get() const { return event_; }
  oxEventNormalizedEvent& Get() { return event_; }

  // If a string is too long to be kept, clears the event and frees the block.
  void ReleaseLongTexts() {
    if (capacity_ > kOxEventMaxKeptBytes) ReleaseBlockOfLongTexts();
  }

  oxEventSharedSlab* Memory() const { return memory_; }

 private:
  static constexpr size_t kStringCount = 10;

  // Returns how many bytes a copy of the strings needs at most: it contains a NUL after each, but no default texts.
  static size_t StoredBytes(const oxEventNormalizedEvent& event) { return event.TextBytes() + kStringCount; }
  bool Reserve(size_t size);
  void ReleaseBlockOfLongTexts();
  void FreeBlock();

  oxEventNormalizedEvent event_;
  char* block_ = nullptr;
  size_t capacity_ = 0;  // Size of the block in bytes.
  oxEventSharedSlab* const memory_;
};

// For a string that is kept for reuse: if its memory is too large to be kept, frees the memory, which clears the
// string.
inline void oxEventReleaseLongText(std::string* text) {
  if (text->capacity() > kOxEventMaxKeptBytes) std::string().swap(*text);
}

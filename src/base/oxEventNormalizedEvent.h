#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "oxEvent.h"

class oxEventSharedSlab;

// A normalized event: every default applied, a definite event id and time stamps. Its texts belong to someone else, and
// behind each stands a NUL.
struct oxEventNormalizedEvent {
  // NOLINTBEGIN(readability-redundant-string-init): else no NUL stands behind them.
  uint64_t event_id = 0;
  std::string_view event_type = "";
  std::string_view source_id = "";
  std::string_view source_name = "";
  std::string_view message = "";
  uint32_t severity = OXEVENT_SEVERITY_INFO;
  std::string_view action = "";
  std::string_view dedupe_key = "";
  std::string_view correlation_id = "";
  uint64_t utc_ns = 0;  // Since 1970-01-01T00:00:00Z.
  uint64_t ptp_ns = 0;
  int64_t pts = 0;
  std::string_view timecode = "";
  double value = 0.0;
  double threshold = 0.0;
  std::string_view units = "";
  uint64_t duration_ms = 0;
  std::string_view details_json = "";
  // NOLINTEND(readability-redundant-string-init)

  // A record with the same texts. Its padding bytes are not written.
  oxEventRecord ToPublicView() const;
};

// A copy of a normalized event, with the texts in one block of memory that serves the next event too.
class oxEventStoredEvent {
 public:
  // `memory`: for the texts; outlives this.
  explicit oxEventStoredEvent(oxEventSharedSlab* memory) : memory_(memory) {}
  ~oxEventStoredEvent() { ReleaseTexts(); }
  oxEventStoredEvent(const oxEventStoredEvent&) = delete;
  oxEventStoredEvent& operator=(const oxEventStoredEvent&) = delete;

  // Whether Assign will do without more memory.
  bool HasRoomFor(const oxEventNormalizedEvent& event) const;

  // False: no memory, and nothing has changed.
  [[nodiscard]] bool Assign(const oxEventNormalizedEvent& from);

  // Valid until the next Assign or ReleaseLongTexts.
  const oxEventNormalizedEvent& Get() const { return event_; }
  oxEventNormalizedEvent& Get() { return event_; }

  // Forgets the event, and gives the memory back, if a text is of uncommon length: over 4 KiB.
  void ReleaseLongTexts();

  oxEventSharedSlab* Memory() const { return memory_; }

 private:
  void ReleaseTexts();

  oxEventNormalizedEvent event_;
  char* texts_ = nullptr;
  size_t capacity_ = 0;  // Bytes allocated in texts_.
  oxEventSharedSlab* const memory_;
};

// The same for a text that is kept for reuse.
void oxEventReleaseLongText(std::string* text);

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "oxEvent.h"

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
  // Whether Assign will do without more memory.
  bool HasRoomFor(const oxEventNormalizedEvent& event) const;

  // False when there is no memory; then nothing has changed. Does not throw.
  bool Assign(const oxEventNormalizedEvent& from);

  // Valid until the next Assign or ReleaseLongTexts.
  const oxEventNormalizedEvent& Get() const { return event_; }

  // Forgets the event, and gives the memory back, if a text is of uncommon length: over 4 KiB.
  void ReleaseLongTexts();

 private:
  oxEventNormalizedEvent event_;
  struct Free {
    void operator()(char* texts) const { std::free(texts); }
  };
  std::unique_ptr<char[], Free> texts_;
  size_t capacity_ = 0;  // Of texts_.
};

// The same for a text that is kept for reuse.
void oxEventReleaseLongText(std::string* text);

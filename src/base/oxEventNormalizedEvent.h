#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

#include "oxEvent.h"

// The fields of a normalized event: every default applied, a definite event id and time stamps.
template <class Text>
struct oxEventFields {
  uint64_t event_id = 0;
  Text event_type;
  Text source_id;
  Text source_name;
  Text message;
  uint32_t severity = OXEVENT_SEVERITY_INFO;
  Text action;
  Text dedupe_key;
  Text correlation_id;
  uint64_t utc_ns = 0;  // Since 1970-01-01T00:00:00Z.
  uint64_t ptp_ns = 0;
  int64_t pts = 0;
  Text timecode;
  double value = 0.0;
  double threshold = 0.0;
  Text units;
  uint64_t duration_ms = 0;
  Text details_json;

  static constexpr Text oxEventFields::*kTexts[10] = {
      &oxEventFields::event_type,     &oxEventFields::source_id,   &oxEventFields::source_name, &oxEventFields::message,
      &oxEventFields::action,         &oxEventFields::dedupe_key,  &oxEventFields::timecode,    &oxEventFields::units,
      &oxEventFields::correlation_id, &oxEventFields::details_json};

 protected:
  template <class OtherText>
  void CopyNumbers(const oxEventFields<OtherText>& from) {
    event_id = from.event_id;
    severity = from.severity;
    utc_ns = from.utc_ns;
    ptp_ns = from.ptp_ns;
    pts = from.pts;
    value = from.value;
    threshold = from.threshold;
    duration_ms = from.duration_ms;
  }
};

// A normalized event whose texts belong to someone else: what Submit hands through to the queue's one copy.
struct oxEventView : oxEventFields<std::string_view> {
  template <class OtherText>
  static oxEventView Of(const oxEventFields<OtherText>& from) {
    oxEventView view;
    view.CopyNumbers(from);
    for (size_t i = 0; i < std::size(kTexts); ++i) view.*kTexts[i] = from.*oxEventFields<OtherText>::kTexts[i];
    return view;
  }
};

// A normalized event that owns its texts.
struct oxEventNormalizedEvent : oxEventFields<std::string> {
  // Copies every field, reusing the memory of the texts held before.
  void Assign(const oxEventView& from);

  // A record that points into this event; valid while the event lives unchanged. Its padding bytes are not written.
  oxEventRecord ToPublicView() const;

  // For an event that is kept for reuse.
  void ReleaseLongTexts();
};

// Gives the memory of an uncommonly long text (over 4 KiB) back, of one that is kept for reuse.
void oxEventReleaseLongText(std::string* text);

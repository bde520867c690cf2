// What the tests of the sinks share.
#pragma once

#include <gtest/gtest.h>

#include <cmath>

#include "sinks/oxEventSink.h"

// clang-format off
// Has the characters that some format must escape, and extreme numbers.
inline constexpr oxEventNormalizedEvent kFullEvent = {
    .event_id = UINT64_MAX, .event_type = "t t", .source_id = "s\"\\]", .source_name = "[n]\1\xFF",
    .message = "\"a\n\n\",b", .severity = 3, .action = "A\t", .dedupe_key = "d\\",
    .correlation_id = "\b\f\v\x1F\x7F/", .utc_ns = 1'700'000'000'123'456'789, .ptp_ns = UINT64_MAX - 1,
    .pts = INT64_MIN, .timecode = "]", .value = NAN, .threshold = 1.0 / 7, .units = "\xC2\xB0\r",
    .duration_ms = UINT64_MAX - 2, .details_json = "{\"]"};
// clang-format on

// Creates a sink and gives it the event. Returns the error, which is empty on success.
inline std::string SubmitThroughNewSink(decltype(oxEventCreateCsvSink)* create, const oxEventSinkConfig& config,
                                        const oxEventNormalizedEvent& event = kFullEvent) {
  std::shared_ptr<oxEventSink> sink;
  std::string error;
  uint32_t result = create(config, &sink, &error);
  EXPECT_EQ(result == OXEVENT_OK, sink != nullptr);
  if (sink != nullptr) result = sink->Submit(event, nullptr, &error);
  EXPECT_EQ(result == OXEVENT_OK, error.empty()) << error;
  return error;
}

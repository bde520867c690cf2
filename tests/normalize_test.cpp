// The normalization of records, the formatting of numbers, and code that depends on the processor.
#include <cmath>
#include <random>

#include "api/oxEventNormalize.h"
#include "base/oxEventArchitecture.h"
#include "base/oxEventNumber.h"
#include "host_fixture.h"

namespace {

TEST(oxEventArchitecture, FindsTheFirstMatchAmongSixteenBytes) {
  oxEventByteMatches matches = {};
  EXPECT_GE(oxEventFirstMatch(matches), 16u);
  EXPECT_GE(oxEventFirstMatchPortable(matches), 16u);
  for (size_t i = 16; i-- > 0;) {
    matches[i] = 0xFF;
    EXPECT_EQ(oxEventFirstMatch(matches), i);
    EXPECT_EQ(oxEventFirstMatchPortable(matches), i);
  }
}

TEST(oxEventNumber, FormatsNumbersAsPrintfDoes) {
  std::mt19937_64 random(1);
  std::vector<double> values = {0, -0.0, 0.5, 5e-324, 1e308, 1e15, 0x1p53, INFINITY, -INFINITY};
  for (double power = 1; power < 1e18; power *= 10) {  // At powers of ten, and halfway between two decimal strings.
    values.insert(values.end(), {power, std::nextafter(power, 0), std::nextafter(power, INFINITY), power * 1.5});
    values.insert(values.end(), {power - 0.05, power - 5e-7});
  }
  for (int i = 0; i < 100000; ++i) {
    values.push_back(std::ldexp(int64_t(random()), int(random() % 80) - 70));
    values.push_back(double(random() % 100000000) / double(1 << random() % 12));
  }
  for (const double value : values) {
    for (const int digits : {6, 17}) {
      char expected[64], text[kOxEventNumberSize];
      snprintf(expected, sizeof expected, "%.*g", digits, value);
      ASSERT_EQ(std::string(text, oxEventWriteNumber(value, digits, text)), expected);
    }
  }
}

TEST(oxEventNormalize, ReadsOnlyFieldsThatAreWhollyWithinStructSize) {
  oxEventRecord record = MakeRecord("m");
  record.action = record.details_json = "x";
  record.severity = OXEVENT_SEVERITY_ERROR;
  record.utc_ns = record.duration_ms = 7;
  record.pts = 7;
  record.value = 7;
  oxEventNormalizedEvent event;
  record.struct_size = 47;
  EXPECT_EQ(oxEventNormalizeEvent(&record, 1, &event), OXEVENT_INVALID_ARGUMENT);
  for (record.struct_size = 48; record.struct_size <= 160; ++record.struct_size) {
    SCOPED_TRACE(record.struct_size);
    ASSERT_EQ(oxEventNormalizeEvent(&record, 1, &event), OXEVENT_OK);
    // Returns `given` if the whole field is within struct_size, else `absent`.
    const auto expected = [&](const auto& field, auto given, decltype(given) absent) {
      const auto end = reinterpret_cast<const char*>(&field + 1) - reinterpret_cast<const char*>(&record);
      return record.struct_size >= static_cast<size_t>(end) ? given : absent;
    };
    EXPECT_EQ(event.severity, expected(record.severity, OXEVENT_SEVERITY_ERROR, OXEVENT_SEVERITY_INFO));
    EXPECT_EQ(event.action, expected(record.action, "x", ""));
    EXPECT_EQ(event.utc_ns, expected(record.utc_ns, uint64_t{7}, event.ptp_ns));
    EXPECT_GT(event.ptp_ns, 7u) << "is not the current time";
    EXPECT_EQ(event.pts, expected(record.pts, 7, 0));
    EXPECT_EQ(event.value, expected(record.value, 7, 0));
    EXPECT_EQ(event.duration_ms, expected(record.duration_ms, 7u, 0u));
    EXPECT_EQ(event.details_json, expected(record.details_json, "x", "{}"));
  }
  std::swap(record.utc_ns, record.ptp_ns);
  ASSERT_EQ(oxEventNormalizeEvent(&record, 1, &event), OXEVENT_OK);
  EXPECT_EQ(event.ptp_ns, 7u);
  EXPECT_GT(event.utc_ns, 7u) << "is not the current time";
}

}  // namespace

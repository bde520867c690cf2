#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <locale>

#include "api/oxEventNormalize.h"
#include "sinks/oxEventText.h"

namespace {

using namespace oxEventText;
using std::string_literals::operator""s;
using Event = oxEventNormalizedEvent;

struct Grouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\1"; }
};

// What a rendering appends, on a host with a locale and a time zone of its own.
std::string Text(const auto& render, const auto&... values) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  setenv("TZ", "UTC-11:30", 1);
  std::string out = "before ";
  render(values..., &out);
  std::locale::global(before);
  return out.substr(0, 7) == "before " ? out.substr(7) : "(replaced)";
}

TEST(oxEventText, EscapesBytesAndSpellsTimes) {
  EXPECT_EQ(Text(JsonEscape, "/\"\\\b\t\n\f\r\1\v\x1F\0\x7F\xFF"s),
            "/\\\"\\\\\\b\\t\\n\\f\\r\\u0001\\u000b\\u001f\\u0000\x7F\xFF");
  EXPECT_EQ(Text(CsvQuote, " a;\t'\\\x7F\xFF") + Text(CsvQuote, "\r"), " a;\t'\\\x7F\xFF\"\r\"");
  EXPECT_EQ(Text(UtcIsoFromNs, 951'868'799'000'000'000u), "2000-02-29T23:59:59Z");
  EXPECT_EQ(Text(UtcIsoFromNs, 4'107'542'400'000'000'020u), "2100-03-01T00:00:00.000000020Z");
  EXPECT_EQ(Text(UtcIsoFromNs, UINT64_MAX), "2554-07-21T23:34:33.709551615Z");
}

constexpr uint64_t kUtc = 1'700'000'000'000'000'001;
const oxEventRecord kRecord = {152,   0x10000, ~0ul, "temp",    "s,1", "a\"b", "a\nb",   3,   "raise", "k\\",
                               "\x1", kUtc,    ~1ul, INT64_MIN, "1:0", 0.1,    -DBL_MAX, "°", ~2ul,    "{\"a\":1}"};

TEST(oxEventText, WritesWholeDocuments) {
  Event event;
  ASSERT_EQ(oxEventNormalizeEvent(&kRecord, 99, &event), OXEVENT_OK);
  const std::string json =
      R"({"version":65536,"event_id":18446744073709551615,"severity":"error","severity_value":3,"severity_code":3,)"
      R"("action":"raise","event_type":"temp","source_id":"s,1","source_name":"a\"b","dedupe_key":"k\\",)"
      R"("correlation_id":"\u0001","message":"a\nb","utc_ns":1700000000000000001,"ptp_ns":18446744073709551614,)"
      R"("pts":-9223372036854775808,"timecode":"1:0","value":0.10000000000000001,"threshold":-1.7976931348623157e+308,)"
      R"("units":"°","duration_ms":18446744073709551613,"details_json":"{\"a\":1}"})";
  const std::string cloud_event =
      R"({"specversion":"1.0","id":"18446744073709551615","source":"/o\"x","type":"temp",)"
      R"("time":"2023-11-14T22:13:20.000000001Z","subject":"p\\s,1","datacontenttype":"application/json","data":)";
  EXPECT_EQ(Text(FormatNativeJsonData, event), json);
  EXPECT_EQ(Text(FormatCloudEventsJson, event, "/o\"x", "p\\"), cloud_event + json + "}");
  EXPECT_EQ(Text(AppendCsvRow, event),
            "65536,18446744073709551615,2023-11-14T22:13:20.000000001Z,1700000000000000001,error,raise,temp,\"s,1\","
            "\"a\"\"b\",k\\,\x1,\"a\nb\",0.10000000000000001,-1.7976931348623157e+308,°,18446744073709551613,"
            "18446744073709551614,-9223372036854775808,1:0,\"{\"\"a\"\":1}\"\n");
}

TEST(oxEventText, HasDefaults) {
  Event event;
  event.value = NAN, event.threshold = -INFINITY, event.severity = 4, event.event_type = "t";
  EXPECT_EQ(Text(AppendCsvRow, event), "65536,0,1970-01-01T00:00:00.000000000Z,0,unknown,,t,,,,,,nan,-inf,,0,0,0,,\n");
  const std::string document = Text(FormatCloudEventsJson, event, "", "");
  for (const char* part : {R"("source":"/oxEvent","type":"t","time":"1970-01-01T00:00:00.000000000Z","subject":"t",)",
                           R"("severity":"info","severity_value":4,)", R"("value":null,"threshold":null,)"})
    EXPECT_NE(document.find(part), document.npos) << part;
  event.source_name = "n";
  EXPECT_NE(Text(FormatCloudEventsJson, event, "", "").find(R"("source":"n",)"), document.npos);
}

}  // namespace

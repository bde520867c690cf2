#include <gtest/gtest.h>

#include <cfloat>
#include <charconv>
#include <cmath>
#include <locale>

#include "api/oxEventNormalize.h"
#include "sinks/oxEventText.h"

namespace {

using namespace oxEventText;
using std::string_literals::operator""s;
using Event = oxEventNormalizedEvent;

// What a rendering appends.
std::string Text(const auto& render, const auto&... values) {
  std::string out = "before ";
  return render(values..., &out), out.substr(0, 7) == "before " ? out.substr(7) : "(replaced)";
}
const auto General = [](double value, int digits, std::string* out) { ToString(value, digits, out); };

// On a host with a locale and a time zone of its own.
struct oxEventTexts : testing::Test {
  oxEventTexts() {
    std::locale::global(std::locale(std::locale::classic(), new Grouping));
    setenv("TZ", "UTC-11:30", 1);
  }
  ~oxEventTexts() override { std::locale::global(std::locale::classic()), unsetenv("TZ"); }
  struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\1"; }
  };
};

TEST_F(oxEventTexts, AreEscaped) {
  std::string all, json;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    const size_t named = "\"\\\b\t\n\f\r"s.find(all.back());
    const std::string hex = "\\u00"s + "01"[byte / 16 & 1] + "0123456789abcdef"[byte % 16];
    json += named < 7 ? "\\"s + "\"\\btnfr"[named] : byte < 32 ? hex : all.substr(all.size() - 1);
  }
  EXPECT_EQ(Text(JsonEscape, all), json);
  for (const char* plain : {"", " a;\t'\\ ", "\x7F\xFF"}) EXPECT_EQ(Text(CsvQuote, plain), plain);
  EXPECT_EQ(Text(CsvQuote, "a\"b") + Text(CsvQuote, "\"") + Text(CsvQuote, ","), R"("a""b"""""",")");
  EXPECT_EQ(Text(CsvQuote, "a\nb") + Text(CsvQuote, "\r"), "\"a\nb\"\"\r\"");
}

TEST_F(oxEventTexts, SpellNumbers) {
  for (const std::string text :
       {"nan", "-nan", "inf", "-inf", "0", "-0", "0.5", "0.10000000000000001", "-123456.75", "10000000000000000",
        "1e+17", "0.0001", "1.0000000000000001e-05", "1.7976931348623157e+308", "4.9406564584124654e-324"}) {
    double value = 1;
    std::from_chars(text.data(), text.data() + text.size(), value);
    EXPECT_EQ(Text(General, value, 17) + Text(DoubleToJson, value), text + (std::isfinite(value) ? text : "null"));
  }
  EXPECT_EQ(Text(General, 123456.5, 6) + Text(General, 999999.5, 6) + Text(General, -1e-5, 6), "1234561e+06-1e-05");
}

TEST_F(oxEventTexts, SpellTimes) {
  const std::pair<uint64_t, std::string> cases[] = {{0, "1970-01-01T00:00:00"},
                                                    {951'868'799'000'000'000, "2000-02-29T23:59:59"},
                                                    {4'107'542'399'000'000'000, "2100-02-28T23:59:59"},
                                                    {4'107'542'400'000'000'000, "2100-03-01T00:00:00"}};
  for (const auto& [ns, text] : cases) {
    EXPECT_EQ(Text(UtcIsoFromNs, ns) + Text(UtcIsoNanoFromNs, ns), text + "Z" + text + ".000000000Z");
    EXPECT_EQ(Text(UtcIsoFromNs, ns + 20), text + ".000000020Z");
  }
  EXPECT_EQ(Text(UtcIsoFromNs, UINT64_MAX), "2554-07-21T23:34:33.709551615Z");
}

constexpr uint64_t kUtc = 1'700'000'000'000'000'001;
const oxEventRecord kRecord = {152,   0x10000, ~0ul, "temp",    "s,1", "a\"b", "a\nb",   3,   "raise", "k\\",
                               "\x1", kUtc,    ~1ul, INT64_MIN, "1:0", 0.1,    -DBL_MAX, "°", ~2ul,    "{\"a\":1}"};

std::string Row(const Event& event) { return Text(AppendCsvRow, event); }

TEST_F(oxEventTexts, AreWholeDocuments) {
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
  EXPECT_EQ(Row(event),
            "65536,18446744073709551615,2023-11-14T22:13:20.000000001Z,1700000000000000001,error,raise,temp,\"s,1\","
            "\"a\"\"b\",k\\,\x1,\"a\nb\",0.10000000000000001,-1.7976931348623157e+308,°,18446744073709551613,"
            "18446744073709551614,-9223372036854775808,1:0,\"{\"\"a\"\":1}\"\n");
}

TEST_F(oxEventTexts, HaveDefaults) {
  Event event;
  event.value = NAN, event.threshold = -INFINITY;
  const auto has = [&](const char* source, const char* prefix, const std::string& part) {
    EXPECT_NE(Text(FormatCloudEventsJson, event, source, prefix).find(part), part.npos) << part;
  };
  const std::string names[] = {"debug", "info", "warning", "error", "info"};
  for (event.severity = 0; event.severity < 5; ++event.severity)
    has("", "", names[event.severity] + R"(","severity_value":)" + std::to_string(event.severity) + ",");
  EXPECT_EQ(Row(event), "65536,0,1970-01-01T00:00:00.000000000Z,0,unknown,,,,,,,,nan,-inf,,0,0,0,,\n");
  has("", "", R"(source":"/oxEvent","type":"oxEvent.event","time":"1970-01-01T00:00:00.000000000Z","subject":"event")");
  event.source_name = "n", event.event_type = "t";
  has("", "p", R"("source":"n","type":"t","time":"1970-01-01T00:00:00.000000000Z","subject":"pt",)");
  event.event_type = "", event.source_id = "i";
  has("s", "", R"("source":"s","type":"oxEvent.event","time":"1970-01-01T00:00:00.000000000Z","subject":"i",)");
}

}  // namespace

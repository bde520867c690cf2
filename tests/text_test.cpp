#include <fenv.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <bit>
#include <cfloat>
#include <clocale>
#include <cmath>
#include <cstring>
#include <ctime>
#include <locale>
#include <random>
#include <vector>

#include "api/oxEventNormalize.h"
#include "sinks/oxEventText.h"

namespace {

using namespace oxEventText;
using std::string_literals::operator""s;
using Event = oxEventNormalizedEvent;
using Spellings = std::vector<std::pair<double, std::string>>;

std::string Printf(const char* format, auto... values) {
  char text[400];
  return {text, static_cast<size_t>(snprintf(text, sizeof text, format, values...))};
}

// What a rendering appends.
std::string Text(const auto& render, const auto&... values) {
  std::string out = "before ";
  return render(values..., &out), out.substr(0, 7) == "before " ? out.substr(7) : "(replaced)";
}
const auto General = [](double value, int digits, std::string* out) { ToString(value, digits, out); };

// On a host that has set what a process can set about numbers and times, and on one that has not.
struct oxEventTexts : testing::TestWithParam<bool> {
  oxEventTexts() { SetHost(GetParam()); }
  ~oxEventTexts() override { SetHost(false); }

  struct Commas : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\1"; }
  };
  static void SetHost(bool odd) {
    setlocale(LC_ALL, odd ? "de_DE.UTF-8" : "C");  // Where it is installed.
    std::locale::global(odd ? std::locale(std::locale::classic(), new Commas) : std::locale::classic());
    setenv("TZ", odd ? "UTC-11:30" : "UTC", 1);
    fesetround(odd ? FE_UPWARD : FE_TONEAREST);
  }
};
INSTANTIATE_TEST_SUITE_P(Host, oxEventTexts, testing::Bool());

TEST_P(oxEventTexts, AreEscaped) {
  std::string all, json;
  for (int byte = 0; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    const size_t named = "\"\\\b\t\n\f\r"s.find(all.back());
    json += named < 7 ? "\\"s + "\"\\btnfr"[named] : byte < 32 ? Printf("\\u%04x", byte) : all.substr(all.size() - 1);
  }
  EXPECT_EQ(Text(JsonEscape, all), json);
  for (const char* plain : {"", " a;\t'\\ ", "\x7F\xFF"}) EXPECT_EQ(Text(CsvQuote, plain), plain);
  EXPECT_EQ(Text(CsvQuote, "a\"b") + Text(CsvQuote, "\"") + Text(CsvQuote, ","), R"("a""b"""""",")");
  EXPECT_EQ(Text(CsvQuote, "a\nb") + Text(CsvQuote, "\r"), "\"a\nb\"\"\r\"");
}

// Made before any test changes the host.
const Spellings kNumbers = [] {
  Spellings numbers = {{NAN, "nan"}, {-NAN, "-nan"}, {INFINITY, "inf"}, {-INFINITY, "-inf"}};
  for (const char* text :
       {"0", "-0", "1", "0.5", "0.10000000000000001", "1e+20", "1.7976931348623157e+308", "4.9406564584124654e-324"}) {
    numbers.emplace_back(strtod(text, nullptr), text);
  }
  std::mt19937_64 random(1);
  for (int i = 0; i < 20000; ++i) {
    const auto value = std::bit_cast<double>(random());
    if (std::isfinite(value)) numbers.emplace_back(value, Printf("%.17g", value));
  }
  return numbers;
}();

TEST_P(oxEventTexts, SpellNumbers) {
  for (const auto& [value, text] : kNumbers) {
    ASSERT_EQ(Text(General, value, 17) + Text(DoubleToJson, value), text + (std::isfinite(value) ? text : "null"));
  }
  EXPECT_EQ(Text(General, 123456.5, 6) + Text(General, 999999.5, 6) + Text(General, -1e-5, 6), "1234561e+06-1e-05");
}

TEST_P(oxEventTexts, SpellTimes) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t ns = random(), whole = ns - ns % 1'000'000'000;
    const auto seconds = static_cast<time_t>(ns / 1'000'000'000);
    char text[20];
    tm utc;
    ASSERT_EQ(strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &utc)), 19u);
    ASSERT_EQ(Text(UtcIsoFromNs, ns), text + Printf(".%09uZ", static_cast<unsigned>(ns % 1'000'000'000)));
    ASSERT_EQ(Text(UtcIsoFromNs, whole) + Text(UtcIsoNanoFromNs, whole), text + "Z"s + text + ".000000000Z");
  }
  EXPECT_EQ(Text(UtcIsoFromNs, 1'700'000'000'000'000'000u), "2023-11-14T22:13:20Z");
  EXPECT_EQ(Text(UtcIsoFromNs, UINT64_MAX), "2554-07-21T23:34:33.709551615Z");
}

constexpr uint64_t kUtc = 1'700'000'000'000'000'001;
const oxEventRecord kRecord = {152,   0x10000, ~0ul, "temp",    "s,1", "a\"b", "a\nb",   3,   "raise", "k\\",
                               "\x1", kUtc,    ~1ul, INT64_MIN, "1:0", 0.1,    -DBL_MAX, "°", ~2ul,    "{\"a\":1}"};

std::string Row(const Event& event) { return Text(AppendCsvRow, event); }

Event Normalized(const oxEventRecord& record) {
  Event event;
  EXPECT_EQ(oxEventNormalizeEvent(&record, 99, &event), OXEVENT_OK);
  return event;
}

TEST_P(oxEventTexts, AreWholeDocuments) {
  const Event event = Normalized(Normalized(kRecord).ToPublicView());
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

TEST_P(oxEventTexts, HaveDefaults) {
  Event event;
  event.value = NAN, event.threshold = -INFINITY;
  const char* const names[] = {"debug", "info", "warning", "error"};
  for (const uint32_t severity : {0u, 1u, 2u, 3u, 4u, 7u, 9u, UINT32_MAX}) {
    event.severity = severity;
    const char* const name = severity < 4 ? names[severity] : nullptr;
    const std::string json = Text(FormatNativeJsonData, event);
    const auto head =
        Printf(R"("severity":"%s","severity_value":%u,"severity_code":%u,)", name ? name : "info", severity, severity);
    EXPECT_TRUE(json.find(head) != json.npos && json.find(R"(,"value":null,"threshold":null,)") != json.npos) << json;
    EXPECT_EQ(Row(event), Printf("65536,0,1970-01-01T00:00:00.000000000Z,0,%s,,,,,,,,nan,-inf,,0,0,0,,\n",
                                 name ? name : "unknown"));
  }
  const auto has = [&](const char* source, const char* prefix, const std::string& part) {
    EXPECT_NE(Text(FormatCloudEventsJson, event, source, prefix).find(part), part.npos) << part;
  };
  has("", "", R"(source":"/oxEvent","type":"oxEvent.event","time":"1970-01-01T00:00:00.000000000Z","subject":"event")");
  event.source_name = "n", event.event_type = "t";
  has("", "p", R"("source":"n","type":"t","time":"1970-01-01T00:00:00.000000000Z","subject":"pt",)");
  event.event_type = "", event.source_id = "i";
  has("s", "", R"("source":"s","type":"oxEvent.event","time":"1970-01-01T00:00:00.000000000Z","subject":"i",)");
}

char* Bytes(oxEventRecord& record) { return reinterpret_cast<char*>(&record); }

TEST(oxEventNormalize, TakesTheFieldsWhollyWithinTheRecord) {
  constexpr size_t kPages = 65536;  // A multiple of any page size.
  void* const pages = mmap(nullptr, 2 * kPages, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  char* const end = static_cast<char*>(pages) + kPages;
  ASSERT_EQ(mprotect(end, kPages, PROT_NONE), 0);
  for (uint32_t size = 0; size <= 200; ++size) {
    SCOPED_TRACE(size);
    const size_t readable = std::max(8u, (size + 7) / 8 * 8);  // Alignment allows no less.
    auto* const record = reinterpret_cast<oxEventRecord*>(end - readable);
    std::memcpy(record, &kRecord, std::min(readable, sizeof kRecord));
    if (size > 48 && size < 52) record->severity = 9;
    record->struct_size = size;
    Event event;
    ASSERT_EQ(oxEventNormalizeEvent(record, 99, &event), size < 48 ? OXEVENT_INVALID_ARGUMENT : OXEVENT_OK);
    if (size < 48) continue;
    const uint64_t now = size < 88 ? event.utc_ns : event.ptp_ns;
    EXPECT_TRUE(size >= 96 || now > kUtc);
    oxEventRecord absent = {0, 0, 0, "", "", "", "", 1, "", "", "", now, now, 0, "", 0, 0, "", 0, "{}"};
    oxEventRecord expected = kRecord;
    for (const uint32_t field_end : {52u, 64u, 72u, 80u, 88u, 96u, 104u, 112u, 120u, 128u, 136u, 144u, 152u}) {
      const uint32_t at = field_end == 52 ? 48 : field_end - 8;
      if (size < field_end) std::copy(Bytes(absent) + at, Bytes(absent) + field_end, Bytes(expected) + at);
    }
    EXPECT_EQ(Row(event), Row(Normalized(expected)));
  }
  munmap(pages, 2 * kPages);
}

TEST(oxEventNormalize, FillsWhatIsNullOrZeroAndKeepsWhatIsEmpty) {
  const char* none = nullptr;
  const std::string head = "65536,99,2023-11-14T22:13:20.000000001Z,1700000000000000001,debug,";
  oxEventRecord record = {152,  0x10000, 0, none, none, none, "m", 0,    none, none,
                          none, kUtc,    5, 0,    none, 0,    0,   none, 0,    none};
  EXPECT_EQ(Row(Normalized(record)), head + ",event,,oxEvent,,,m,0,0,,0,5,0,,{}\n");
  record.event_type = record.source_name = record.details_json = "";
  EXPECT_EQ(Row(Normalized(record)), head + ",,,,,,m,0,0,,0,5,0,,\n");
  record.utc_ns = record.ptp_ns = 0;
  EXPECT_TRUE(Normalized(record).utc_ns > kUtc && Normalized(record).ptp_ns > kUtc);
  EXPECT_EQ(Event().ToPublicView().struct_size, 152u);
  EXPECT_STREQ(Event().ToPublicView().message, "");
}

TEST(oxEventNormalize, RefusesInvalidRecords) {
  Event event;
  const std::string untouched = Row(event);
  const struct {
    uint32_t size, version, severity;
    const char* message;
  } cases[] = {{152, 0x10001, 0, "m"},  {152, 1, 0, "m"},      {152, 0x10000, 4, "m"},
               {52, 0x10000, ~0u, "m"}, {152, 0x10000, 0, ""}, {152, 0x10000, 0, nullptr}};
  for (const auto& [size, version, severity, message] : cases) {
    oxEventRecord record = kRecord;
    record.struct_size = size, record.version = version, record.message = message, record.severity = severity;
    EXPECT_EQ(oxEventNormalizeEvent(&record, 99, &event), OXEVENT_INVALID_ARGUMENT) << size << " " << version;
  }
  EXPECT_EQ(oxEventNormalizeEvent(nullptr, 99, &event), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(oxEventNormalizeEvent(&kRecord, 99, nullptr), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(Row(event), untouched);
}

}  // namespace

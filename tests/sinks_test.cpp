// What the sinks write and send, to the byte: rows, datagrams to receivers on loopback, posts to a client in the
// companion's place.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <locale>

#include "faults.h"
#include "host_fixture.h"
#include "oxutil.h"
#include "platform/oxEventUdpSender.h"
#include "sinks/oxEventAlertmanager.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkSet.h"
#include "sinks/oxEventText.h"

using std::string;
using std::string_literals::operator""s;
using Event = oxEventNormalizedEvent;
using Config = oxEventSinkConfig;

static const int g_time_zone = setenv("TZ", "UTC-11:30", 1);
static string g_posts;  // With line ends for 0xA7.
static uint32_t g_ms, g_posts_to_refuse, g_responses;

// These stand before the C library's and the companion's.
extern "C" int NoHostName(char*, size_t) __asm__("gethostname");  // clang has an inline body for the name itself.
int NoHostName(char*, size_t) { return -1; }
uint32_t oxOSGetMs() { return g_ms; }
void OXFree(void* buffer) {
  g_responses -= buffer != nullptr;
  free(buffer);
}
int32_t oxOSHTTPCommand(const char* url, const char* method, const char* headers, const char* body, int32_t body_length,
                        char** response, int32_t* status, uint32_t timeout_ms) {
  EXPECT_EQ(*response, nullptr);
  EXPECT_EQ(*status, 0);
  EXPECT_EQ(body[body_length], '\0');
  string lines = headers;
  if (lines.find_first_of("\r\n") != lines.npos) return 0;  // Nothing is sent.
  std::replace(lines.begin(), lines.end(), '\xA7', '\n');
  lines += "\n\n" + string(body, size_t(body_length));
  g_posts += method + " "s + url + " " + std::to_string(timeout_ms) + "\n" + lines;
  *response = static_cast<char*>(malloc(1));
  ++g_responses;
  const bool accepted = g_posts_to_refuse == 0;
  if (!accepted) --g_posts_to_refuse;
  return accepted;
}

namespace {

constexpr auto kSyslog = oxEventCreateSyslogUdpSink, kTrap = oxEventCreateSnmpTrapSink,
               kPost = oxEventCreateCloudEventsHttpSink;

// clang-format off
constexpr Event kFullEvent = {
    .event_id = UINT64_MAX, .event_type = "t t", .source_id = "s\"\\]", .source_name = "[n]\1\xFF",
    .message = "\"a\n\n\",b", .severity = 3, .action = "A\t", .dedupe_key = "d\\",
    .correlation_id = "\b\f\v\x1F\x7F/", .utc_ns = 1'700'000'000'123'456'789, .ptp_ns = UINT64_MAX - 1,
    .pts = INT64_MIN, .timecode = "]", .value = NAN, .threshold = 0.1, .units = "\xC2\xB0\r",
    .duration_ms = UINT64_MAX - 2, .details_json = "{\"]"};
// clang-format on
const string kJson =
    R"({"version":65536,"event_id":18446744073709551615,"severity":"error","severity_value":3,"severity_code":3,)"
    R"("action":"A\t","event_type":"t t","source_id":"s\"\\]",)"
    "\"source_name\":\"[n]\\u0001\xFF\",\"dedupe_key\":\"d\\\\\",\"correlation_id\":\"\\b\\f\\u000b\\u001f\x7F/\","
    R"("message":"\"a\n\n\",b","utc_ns":1700000000123456789,"ptp_ns":18446744073709551614,)"
    R"("pts":-9223372036854775808,"timecode":"]","value":null,"threshold":0.10000000000000001,"units":"°\r",)"
    R"("duration_ms":18446744073709551613,"details_json":"{\"]"})";
const string kCloudEvent =
    R"({"specversion":"1.0","id":"18446744073709551615","source":"/s","type":"t t",)"
    R"("time":"2023-11-14T22:13:20.123456789Z","subject":"p\"s\"\\]","datacontenttype":"application/json","data":)" +
    kJson + "}";

struct Grouping : std::numpunct<char> {
  string do_grouping() const override { return "\1"; }
};

// What a new sink does with an event, on a host with a locale of its own: its posts, "!" if it fails,
// or the code and text with which there is no sink.
string SubmitThroughNewSink(decltype(kPost) create, const Config& config, const Event& event = kFullEvent) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
  std::shared_ptr<oxEventSink> sink;
  string error = g_posts = "";
  uint64_t warnings = 7;
  const uint32_t made = create(config, &sink, &error);
  const uint32_t result = sink == nullptr ? OXEVENT_OK : sink->Submit(event, &warnings, nullptr);
  std::locale::global(before);
  EXPECT_EQ(sink == nullptr, made != OXEVENT_OK);
  EXPECT_EQ(result % OXEVENT_FAILURE, 0u);
  EXPECT_EQ(warnings, 7u);
  EXPECT_EQ(g_responses, 0u);
  return made != 0 ? std::to_string(made - 0x80050000) + " " + error : g_posts + (result != 0 ? "!" : "");
}

// A socket for datagrams, and the settings of a sink that sends to it.
struct Receiver : Config {
  explicit Receiver(sa_family_t family = AF_INET) : fd(LoopbackSocket(family, SOCK_DGRAM, &free_port)) {
    port = free_port;
    snmp_port = free_port;
    host = family == AF_INET ? "127.0.0.1" : "::1";
    snmp_host = host;
    minimum_severity = 0;
  }
  ~Receiver() { close(fd); }
  string Receive(decltype(kPost) create, const Event& event = kFullEvent) const {
    const string result = SubmitThroughNewSink(create, *this, event);
    string bytes(65536, 0);
    pollfd ready = {fd, POLLIN, 0};
    const ssize_t size = poll(&ready, 1, 20000) == 1 ? recv(fd, bytes.data(), bytes.size(), 0) : 0;
    return result + bytes.substr(0, static_cast<size_t>(size));
  }
  uint16_t free_port = 0;
  const int fd;
};

// The line for kFullEvent with this event type. `header`: APP-NAME, PROCID and MSGID.
string SyslogLine(int priority, const string& header, const string& event_type) {
  return "<" + std::to_string(priority) + ">1 2023-11-14T22:13:20.123456789Z - " + header +
         " [velmora@32473 version=\"65536\" event_id=\"18446744073709551615\" severity=\"error\" action=\"A\t\""
         " event_type=\"" +
         event_type +
         "\" source_id=\"s\\\"\\\\\\]\" source_name=\"[n\\]\1\xFF\" dedupe_key=\"d\\\\\" "
         "correlation_id=\"\b\f\v\x1F\x7F/\" utc_ns=\"1700000000123456789\" ptp_ns=\"18446744073709551614\""
         " pts=\"-9223372036854775808\" timecode=\"\\]\" value=\"nan\" threshold=\"0.1\" units=\"\xC2\xB0\r\""
         " duration_ms=\"18446744073709551613\" details_json=\"{\\\"\\]\"] \"a\n\n\",b";
}

const string kPid = " " + std::to_string(getpid()) + " ";

TEST(oxEventSyslogUdpSink, SendsItsFacility) {
  const std::pair<const char*, int> cases[] = {
      {"kern", 3},     {"user", 11},    {"mail", 19},    {"daemon", 27},  {"auth", 35},    {"Security", 35},
      {"syslog", 43},  {"lpr", 51},     {"news", 59},    {"uucp", 67},    {"cron", 75},    {"AuthPriv", 83},
      {"ftp", 91},     {"local0", 131}, {"local1", 139}, {"local2", 147}, {"local3", 155}, {"local4", 163},
      {"local5", 171}, {"local6", 179}, {"LOCAL7", 187}, {"local8", 131}, {"local/", 131}, {"x", 131}};
  Receiver receiver(Receiver(AF_INET6).port != 0 ? AF_INET6 : AF_INET);
  for (const auto& [facility, priority] : cases) {
    receiver.facility = facility;
    EXPECT_EQ(receiver.Receive(kSyslog), SyslogLine(priority, "oxEvent" + kPid + "t_t", "t t"));
  }
}

TEST(oxEventSyslogUdpSink, SendsHeaderFieldsThatRfc5424Allows) {
  const string long_name(96, '5');
  const struct {
    string app_name, event_type, header;
  } cases[] = {{" ", "\x7F/!~ \xC3\xA9", "_" + kPid + "_/!~___"},
               {"", "", "oxEvent" + kPid + "-"},
               {long_name, long_name, long_name.substr(0, 48) + kPid + long_name.substr(0, 32)}};
  Receiver receiver;
  for (const auto& c : cases) {
    Event event = kFullEvent;
    event.event_type = c.event_type;
    receiver.app_name = c.app_name;
    EXPECT_EQ(receiver.Receive(kSyslog, event), SyslogLine(131, c.header, c.event_type));
  }
}

TEST(oxEventSyslogUdpSink, TruncatesALineTo8192Bytes) {
  const Receiver receiver;
  const string line = SyslogLine(131, "oxEvent" + kPid + "t_t", "t t");
  for (const size_t size : {8192 - line.size(), 8193 - line.size()}) {
    const string more(size, 'm');
    const string message = string(kFullEvent.message) + more;
    Event event = kFullEvent;
    event.message = message;
    EXPECT_EQ(receiver.Receive(kSyslog, event), (line + more).substr(0, 8192));
  }
}

string Bytes(const string& hex, string bytes = {}) {
  for (size_t i = 0; i < hex.size(); i += 2) bytes += char(std::stoi(hex.substr(i, 2), nullptr, 16));
  return bytes;
}

string Tlv(int tag, const string& content) {
  const size_t size = content.size();
  return char(tag) + (size > 255 ? "\x82"s + char(size >> 8) : size > 127 ? "\x81" : "") + char(size) + content;
}

// Encoded OIDs and integers, in hexadecimal.
TEST(oxEventSnmpTrapSink, SendsTheWholeEvent) {
  const string long_text(2049, 'm');
  const struct {
    uint32_t severity, now_ms;
    string up_time, request_id, severity_value, severity_name;
    string community, enterprise_oid, trap_oid;
    string encoded_community, encoded_object_oid, encoded_trap_oid;
    std::string_view message;
  } cases[] = {
      {3, 2147483776, "040cccccd9", "020080", "020103", "error", "", "", "", "cobalt", "060d2b0601040181fd59010101",
       "060c2b0601040181fd5901010001", kFullEvent.message},
      {4294967295, 4294967295, "0419999999", "047fffffff", "020500ffffffff", "info", "c\xFF", "1", "1.3.128", "c\xFF",
       "060329", "06032b8100", long_text},
      {2, 9, "0100", "0109", "020102", "warning", "c\xFF", "1", "1.3.128", "c\xFF", "060329", "06032b8100", long_text},
      {0, 1290, "020081", "02050a", "020100", "debug", "c\xFF", "1", "1.3.128", "c\xFF", "060329", "06032b8100",
       long_text}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.severity_name);
    Receiver receiver;
    receiver.community = c.community;
    receiver.enterprise_oid = c.enterprise_oid;
    receiver.trap_oid = c.trap_oid;
    g_ms = c.now_ms;
    Event event = kFullEvent;
    event.severity = c.severity;
    event.message = c.message;
    if (c.message == long_text) event.details_json = long_text;
    const std::string_view strings[] = {c.severity_name,
                                        "18446744073709551615",
                                        event.event_type,
                                        event.source_id,
                                        event.source_name,
                                        event.action,
                                        event.message.substr(0, 2048),
                                        event.dedupe_key,
                                        event.correlation_id,
                                        "1700000000123456789",
                                        event.details_json.substr(0, 2048)};
    string bindings = Tlv(0x30, Bytes("06082b0601020101030043" + c.up_time));
    bindings += Tlv(0x30, Bytes("060a2b060106030101040100" + c.encoded_trap_oid));
    bindings += Tlv(0x30, Bytes(c.encoded_object_oid + "0100" + c.severity_value));
    char number = 2;
    for (const std::string_view text : strings) {
      bindings += Tlv(0x30, Bytes(c.encoded_object_oid) + number++ + '\0' + Tlv(4, string(text)));
    }
    const string pdu = Tlv(0xA7, Bytes("02" + c.request_id + "020100020100") + Tlv(0x30, bindings));
    EXPECT_EQ(receiver.Receive(kTrap, event), Tlv(0x30, "\2\1\1" + Tlv(4, c.encoded_community) + pdu));
  }
}

TEST(oxEventSnmpTrapSink, FailsForATrapOfMoreThan8192Bytes) {
  Receiver receiver;
  receiver.community.assign(1000, 'c');
  receiver.community.append(8192 - receiver.Receive(kTrap).size(), 'c');
  EXPECT_EQ(receiver.Receive(kTrap).size(), 8192u);
  receiver.community += 'c';
  EXPECT_EQ(SubmitThroughNewSink(kTrap, receiver), "!");
}

TEST(oxEventSnmpTrapSink, FailsForOidsThatAreNotValid) {
  for (const auto oid : {&Config::trap_oid, &Config::enterprise_oid}) {
    Receiver receiver;
    receiver.*oid = "1.3.";
    EXPECT_EQ(SubmitThroughNewSink(kTrap, receiver), "!");
  }
}

TEST(oxEventSnmpTrapSink, StartsForVersion2cOnly) {
  const char* const other = "3 oxEvent SNMP trap sink currently supports SNMP v2c only";
  const char* const version_3 = "3 SNMPv3 requires a future external-library backend";
  const std::pair<const char*, string> cases[] = {
      {"1", other},      {"v1", other},         {"2", other}, {"2c.", other}, {"3", version_3},
      {"V3", version_3}, {"SnmpV3", version_3}, {"2C", ""},   {"V2c", ""},    {"SNMPv2c", ""}};
  Receiver receiver;
  for (const auto& [version, result] : cases) {
    receiver.version = version;
    EXPECT_EQ(SubmitThroughNewSink(kTrap, receiver), result) << version;
  }
}

// Wherever a write breaks off, the file ends on a whole row. What others have written behind stays.
TEST(oxEventCsvSink, WritesRowsAndTakesATornOneBack) {
  const HostFolder folder;
  Config csv;
  csv.path = folder.path + "/rows";
  const string row =
      "65536,18446744073709551615,2023-11-14T22:13:20.123456789Z,1700000000123456789,error,A\t,t t,\"s\"\"\\]\","
      "[n]\1\xFF,d\\,\b\f\v\x1F\x7F/,\"\"\"a\n\n\"\",b\",nan,0.10000000000000001,\"\xC2\xB0\r\",18446744073709551613,"
      "18446744073709551614,-9223372036854775808,],\"{\"\"]\"\n";
  const auto write = [&](std::shared_ptr<oxEventSink> sink = nullptr) {
    if (oxEventCreateCsvSink(csv, &sink, nullptr) != OXEVENT_OK) return false;
    const bool taken = sink->Submit(kFullEvent, nullptr, nullptr) == OXEVENT_OK &&
                       sink->Submit(kFullEvent, nullptr, nullptr) == OXEVENT_OK;
    return sink->Flush(0, nullptr) == OXEVENT_OK && taken;
  };
  EXPECT_TRUE(write());
  const string whole = ReadFile(csv.path);
  const size_t header = whole.find('\n') + 1;
  EXPECT_EQ(whole.substr(header), row + row);
  for (size_t end = 0; end < whole.size(); ++end) {  // In the write of the header, or in the next.
    for (const string& behind : {""s, "behind\n"s}) {
      std::ofstream(csv.path) << "";
      size_t left = end;
      {
        const Faults faults([&](std::string_view call, long) {
          if (call != "write") return 0;
          const auto taken = std::exchange(left, left == end && end > header ? end - header : 0);
          if (taken == 0) std::ofstream(csv.path, std::ios::app) << behind;
          return taken == 0 ? ENOSPC : -static_cast<int>(taken);
        });
        EXPECT_FALSE(write());
      }
      const size_t kept = end < header ? 0 : header + (end - header) / row.size() * row.size();
      // A header that found no room fails with the first row only.
      const string behind_rows = end < header ? behind : "";
      EXPECT_EQ(ReadFile(csv.path), whole.substr(0, behind.empty() ? kept : end) + behind + behind_rows) << end;
    }
  }
}

TEST(oxEventCsvSink, OpensOnAFullDiskAndWritesNoHeaderBehindWhatOthersWriteMeanwhile) {
  const HostFolder folder;
  std::shared_ptr<oxEventSink> sink;
  Config csv;
  csv.path = folder.path + "/rows";
  {
    const Faults full([](std::string_view call, long) { return call == "write" ? ENOSPC : 0; });
    EXPECT_EQ(oxEventCreateCsvSink(csv, &sink, nullptr), OXEVENT_OK);
    EXPECT_EQ(sink->Flush(0, nullptr), OXEVENT_OK);
  }
  std::ofstream(csv.path) << "x\n";
  EXPECT_EQ(sink->Submit(kFullEvent, nullptr, nullptr), OXEVENT_OK);
  EXPECT_EQ(sink->Flush(0, nullptr), OXEVENT_OK);
  EXPECT_EQ(ReadFile(csv.path).substr(0, 8), "x\n65536,");
}

TEST(oxEventCsvSink, HasRoomForARowOfQuotes) {
  const string quotes(1000, '"');
  Event event;
  event.source_id = event.source_name = event.dedupe_key = event.correlation_id = event.message = quotes;
  event.action = event.event_type = event.units = event.timecode = event.details_json = quotes;
  string row(100'000, 0);
  const char* const end = oxEventText::WriteCsvRow(event, row.data());
  EXPECT_GE(oxEventText::CsvRowCapacity(event), static_cast<size_t>(end - row.data()));
}

struct CsvSinkSet : testing::Test {  // The process's sinks: one CSV file, which may be a pipe with little room.
  CsvSinkSet() {
    config.sinks.resize(1);
    config.sinks[0].type = oxEventSinkType::kCsv;
    config.sinks[0].enabled = true;
    config.sinks[0].path = path;
  }
  ~CsvSinkSet() override { oxEventSinkShutdown(), close(reader); }
  void MakePipe() {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(fcntl(reader, F_SETPIPE_SZ, 4096), 4096);
  }
  size_t Ready() const {  // Bytes in the pipe.
    int ready = 0;
    return ioctl(reader, FIONREAD, &ready), static_cast<size_t>(ready);
  }
  string Read(size_t size) const {  // Waits for so many bytes.
    string bytes(size, 0);
    pollfd ready = {reader, POLLIN, 0};
    for (size_t done = 0; done < size && poll(&ready, 1, 20000) == 1;) {
      done += static_cast<size_t>(std::max<ssize_t>(0, read(reader, &bytes[done], size - done)));
    }
    return bytes;
  }
  static uint32_t Submit(const string& message) {
    Event event;
    event.message = message;
    return oxEventSinkSubmit(event, nullptr, nullptr);
  }
  static string Row(const string& message) {
    return "65536,0,1970-01-01T00:00:00.000000000Z,0,info,,,,,,," + message + ",0,0,,0,0,0,,\n";
  }
  static auto InBackground(auto call) { return std::async(std::launch::async, call); }

  const HostFolder folder{};
  const string path = folder.path + "/rows", large = string(5000, 'm');
  const size_t header_size = 182;
  oxEventConfig config;
  int reader = -1;
};

TEST_F(CsvSinkSet, FailsTheFlushAfterAReloadOnceAndOnlyIfRowsWereLost) {
  const struct {
    const char* name;
    bool flushed_before, lost;
  } cases[] = {{"late", false, false}, {"late, and flushed before", true, false}, {"lost", false, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    MakePipe();
    config.sinks[0].flush_each_event = true;
    ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
    Read(header_size);
    auto delivery = InBackground([&] { return Submit(large); });
    while (Ready() < 4096) ASSERT_EQ(delivery.wait_for(std::chrono::milliseconds(1)), std::future_status::timeout);
    EXPECT_EQ(oxEventSinkReloadConfig({}), OXEVENT_OK);
    EXPECT_EQ(c.flushed_before ? oxEventSinkFlush(1) : OXEVENT_FAILURE, OXEVENT_FAILURE);
    if (c.lost) {
      close(std::exchange(reader, -1));
    } else {
      EXPECT_EQ(Read(Row(large).size()), Row(large));
    }
    const uint32_t expected = c.lost ? OXEVENT_FAILURE : OXEVENT_OK;
    EXPECT_EQ(delivery.get(), expected);
    EXPECT_EQ(oxEventSinkFlush(0), expected);
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
    EXPECT_EQ(oxEventSinkShutdown(), OXEVENT_OK);
    close(reader);
    unlink(path.c_str());
  }
}

TEST_F(CsvSinkSet, FailsTheFlushAfterAReloadForRowsLostAfterTheFlushBefore) {
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  for (const bool lost : {true, false}) {
    const Faults faults([](std::string_view call, long) { return call == "write" ? EIO : 0; });
    Submit("a");
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
    EXPECT_EQ(lost ? Submit("b") : OXEVENT_FAILURE, OXEVENT_FAILURE);
    EXPECT_EQ(oxEventSinkReloadConfig(config), OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), lost ? OXEVENT_FAILURE : OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
  }
}

TEST_F(CsvSinkSet, WritesOldRowsBeforeNewOnesThroughSeveralReloads) {
  config.sinks[0].flush_each_event = true;
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  std::promise<void> writes, go;
  std::atomic<int> calls = 0;
  const Faults faults([&](std::string_view call, long) {
    if (call != "write" || calls++ != 0) return 0;
    writes.set_value();
    go.get_future().wait();
    return 0;
  });
  auto old_row = InBackground([] { return Submit("old"); });
  writes.get_future().wait();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(oxEventSinkReloadConfig(config), OXEVENT_OK);
  auto new_row = InBackground([] { return Submit("new"); });
  EXPECT_EQ(new_row.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  go.set_value();
  EXPECT_EQ(old_row.get(), OXEVENT_OK);
  EXPECT_EQ(new_row.get(), OXEVENT_OK);
  EXPECT_EQ(ReadFile(path).substr(header_size), Row("old") + Row("new"));
}

TEST_F(CsvSinkSet, TriesAFlushWithoutWaitingForTheReaderOfAPipe) {
  MakePipe();
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  Read(header_size);
  EXPECT_EQ(Submit("a"), OXEVENT_OK);
  EXPECT_EQ(Submit(large), OXEVENT_OK);
  oxEventSinkTryFlush();
  EXPECT_EQ(Ready(), 4096u);
  auto flush = InBackground([] { return oxEventSinkFlush(0); });
  usleep(10'000);  // In which it mostly begins to wait.
  oxEventSinkTryFlush();
  EXPECT_EQ(Read((Row("a") + Row(large)).size()), Row("a") + Row(large));
  EXPECT_EQ(flush.get(), OXEVENT_OK);
}

TEST(oxEventUdpSender, AcceptsPortsUpTo65535) {
  for (const uint32_t port : {65535u, 65536u}) {
    Receiver receiver;
    receiver.port = port;
    std::shared_ptr<oxEventSink> sink;
    EXPECT_EQ(oxEventCreateSyslogUdpSink(receiver, &sink, nullptr), port == 65535 ? OXEVENT_OK : OXEVENT_FAILURE);
  }
}

TEST(oxEventUdpSender, ClosesOnlyTheSocketThatItHasOpened) {
  const int standard_input = fcntl(STDIN_FILENO, F_GETFD);
  constexpr oxEventUdpErrors kErrors = {oxEventErrors::kSyslogResolve, oxEventErrors::kSyslogSocket,
                                        oxEventErrors::kSyslogSend};
  { const oxEventUdpSender never_opened(kErrors, "127.0.0.1", 9, nullptr); }
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), standard_input);
}

TEST(oxEventSinks, SendNothingBelowTheirMinimumSeverity) {
  Config config = Receiver();
  config.endpoint_url = "http://h";
  config.host = "127.255.255.255";  // A broadcast address, to which a send would fail.
  config.snmp_host = config.host;
  config.minimum_severity = OXEVENT_SEVERITY_ERROR + 1;
  for (const auto create : {kSyslog, kTrap, kPost}) EXPECT_EQ(SubmitThroughNewSink(create, config), "");
}

TEST(oxEventSinks, SendDatagramsWhetherOrNotAnyoneListens) {
  Config config = Receiver();  // Closed already.
  config.host = "";
  config.snmp_host = "";
  for (const auto create : {kSyslog, kTrap}) {
    std::shared_ptr<oxEventSink> sink;
    EXPECT_EQ(create(config, &sink, nullptr), OXEVENT_OK);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(sink->Submit(kFullEvent, nullptr, nullptr), OXEVENT_OK);
  }
}

TEST(oxEventSinks, ReportTheirFailures) {
  const HostFolder folder;
  oxEventConfig config;
  const auto enabled = [](oxEventSinkType type, const char* name) {
    Config sink;
    sink.type = type;
    sink.name = name;
    sink.enabled = true;
    return sink;
  };
  Config csv = enabled(oxEventSinkType::kCsv, "a");
  csv.path = folder.path + "/rows";
  Config syslog = enabled(oxEventSinkType::kSyslogUdp, "b");
  syslog.host = "127.255.255.255";
  syslog.port = 0;  // Means 514.
  Config webhook = enabled(oxEventSinkType::kWebhookHttp, "c");
  webhook.endpoint_url = "http://h";
  webhook.retry_count = UINT32_MAX;  // No attempt, and no error text.
  config.sinks = {csv, Config(), syslog, webhook};
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  uint32_t id = 0;
  ASSERT_EQ(oxEventSinkRegisterCallback([](const oxEventRecord*, void*) { throw 1; }, nullptr, &id), OXEVENT_OK);
  const Faults faults([](std::string_view call, long) { return call == "write" ? ENOSPC : 0; });
  uint64_t failed = 0;
  EXPECT_EQ(oxEventSinkSubmit(kFullEvent, &failed, nullptr), OXEVENT_FAILURE);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
  EXPECT_EQ(failed, 3u);
  string report;
  for (const oxEventSinkStatus& s : oxEventSinkReport()) {
    report += string(s.section) + ' ' + s.name + ' ' + std::to_string(s.failures) + ' ' + s.last_error + '\n';
  }
  EXPECT_EQ(report, "sink\\csv a 1 Unable to flush oxEvent CSV file: " + csv.path +
                        "\nsink\\syslog\\udp b 1 oxEvent syslog UDP send failed to 127.255.255.255:514 error=13\n"
                        "sink\\webhook\\http c 1 \n"
                        "callbacks  1 oxEvent callback " +
                        std::to_string(id) + " threw\n");
  EXPECT_EQ(oxEventSinkShutdown(), OXEVENT_OK);
  EXPECT_TRUE(oxEventSinkReport().empty());
}

TEST(oxEventWebhookHttpSink, PostsHeadersAndCredentials) {
  const string post =
      "POST HTTPS://h 5000\nContent-Type: application/json; charset=utf-8\nAccept: application/json\n"
      "User-Agent: oxEvent/1.0\nX-oxEvent-TLS-Verify: 1\nX-oxEvent-Connect-Timeout-Ms: 2000";
  Config c;
  c.endpoint_url = "HTTPS://h";
  c.headers = "X-A: 1| X-B: 2\r\n\r\nX-C: 3 \t|\v\f|B\xE2\x80|B\xC0|B\xC3\xA9|B\xF0\x80\x80|B\xEF\x80\x80|D\x80\x80";
  c.bearer_token = "t";
  const string lines =
      "\nX-A: 1\nX-B: 2\nX-C: 3\nB\xE2\x80 \nB\xC0 \nB\xC3\xA9\nB\xF0\x80\x80 "
      "\nB\xEF\x80\x80\nD\x80\x80\nAuthorization: Bearer t\nAuthorization: Basic ";
  const struct {
    string payload_mode, username, password, base64;
  } credentials[] = {{"", "\xFB\xEF", "\xFF\xFF", "++86//8="}, {"NATIVE_JSON", "abc", "", "YWJjOg=="}};
  for (const auto& by : credentials) {
    c.payload_mode = by.payload_mode;
    c.basic_username = by.username;
    c.basic_password = by.password;
    EXPECT_EQ(SubmitThroughNewSink(kPost, c), post + lines + by.base64 + "\n\n" + kJson);
  }
  for (const string& bad : {"a\rb"s, "a\nb"s, "a\0b"s}) {
    c.bearer_token = bad;
    EXPECT_EQ(SubmitThroughNewSink(kPost, c), "!");
  }
}

TEST(oxEventWebhookHttpSink, TriesAgainAfterABackoff) {
  const string post =
      "POST http://h 5000\nContent-Type: application/json; charset=utf-8\nAccept: application/json\n"
      "User-Agent: oxEvent/1.0\nX-oxEvent-TLS-Verify: 1\nX-oxEvent-Connect-Timeout-Ms: 2000\n\n" +
      kJson;
  Config c;
  c.endpoint_url = "http://h";
  c.retry_count = UINT32_MAX;
  EXPECT_EQ(SubmitThroughNewSink(kPost, c), "!");
  c.retry_count = 2;
  c.backoff_ms = 0;  // Means 250.
  g_posts_to_refuse = 3;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(SubmitThroughNewSink(kPost, c), post + post + post + "!");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  c.backoff_ms = g_posts_to_refuse = 1;
  EXPECT_EQ(SubmitThroughNewSink(kPost, c), post + post);
}

TEST(oxEventWebhookHttpSink, PostsCloudEventsToAnHttpUrl) {
  Config c;
  c.tls_verify = false;
  c.connect_timeout_ms = c.request_timeout_ms = 0;
  c.cloudevents_source = "/s";
  c.cloudevents_subject_prefix = "p\"";
  c.ce_endpoint_url = "http://c";
  c.ce_auth_header = "X: c";
  c.ce_timeout_ms = 9;
  for (const char* url : {"ftp://h", "http:/h", " http://h"}) {
    c.endpoint_url = url;
    EXPECT_EQ(SubmitThroughNewSink(kPost, c), "3 oxEvent webhook sink requires an http:// or https:// endpoint_url");
  }
  c.endpoint_url = "";
  c.payload_mode = "json";
  EXPECT_EQ(SubmitThroughNewSink(kPost, c), "3 oxEvent webhook payload_mode must be native_json or cloudevents");
  for (const char* mode : {"CloudEvents", "CLOUDEVENTS_structured", "json"}) {
    if (mode == "json"s) c.type = oxEventSinkType::kCloudEventsHttp;  // There the mode is without effect.
    c.payload_mode = mode;
    EXPECT_EQ(SubmitThroughNewSink(kPost, c),
              "POST http://c 9\nContent-Type: application/cloudevents+json; charset=utf-8\nAccept: application/json\n"
              "User-Agent: oxEvent/1.0\nX-oxEvent-TLS-Verify: 0\nX: c\n\n" +
                  kCloudEvent);
  }
}

TEST(oxEventAlertmanager, FormatsEventsAndRecords) {
  Event e = kFullEvent, bare;
  e.event_type = "9-DISK usage_%";
  e.source_id = "__a.B:/\xC3\xA9__";
  e.source_name = "n";
  e.message = "Full";
  const string time = R"(At":"2023-11-14T22:13:20.123456789Z")", source = R"(,"source_id":"_a.b:")";
  const string start = R"([{"labels":{"alertname":"Ox_19DiskUsage","severity":"critical","event_type":"9-disk_usage",)"
                       R"("action":"raise")";
  const string end =
      R"(},"annotations":{"summary":"Full","description":"Full on n","ox_event_id":"18446744073709551615",)"
      R"("ox_dedupe_key":"d\\","ox_source_name":"n","ox_units":"°\r","ox_value":"","ox_threshold":"0.1"},"starts)" +
      time;
  string out;
  for (const char* action : {"raise", "clear ", "", "resolves", "Clear", "RESOLVE", "CLEAR", "Resolved"}) {
    const bool resolved = action[0] == 'C' || action[0] == 'R';
    e.action = action;
    EXPECT_EQ(oxEventFormatAlertmanagerAlert(e, {true, true, "O-x_1\xC3"}, &out), OXEVENT_OK);
    EXPECT_EQ(out, start + source + end + (resolved ? R"(,"ends)" + time + "}]" : "}]"));
    EXPECT_EQ(oxEventFormatAlertmanagerAlert(e, {false, false, "O-x_1\xC3"}, &out), OXEVENT_OK);
    EXPECT_EQ(out, resolved ? "[]" : start + end + "}]");
  }
  bare.event_type = "%";
  bare.source_id = "_";
  bare.source_name = "on";
  bare.message = "on m";
  bare.severity = OXEVENT_SEVERITY_WARNING;
  EXPECT_EQ(oxEventFormatAlertmanagerAlert(bare, {true, true, "-|"}, &out), OXEVENT_OK);
  EXPECT_EQ(out, R"([{"labels":{"alertname":"OxEventEvent","severity":"warning","event_type":"event","action":"raise",)"
                 R"("source_id":"source"},"annotations":{"summary":"on m","description":"on m","ox_event_id":"0",)"
                 R"("ox_dedupe_key":"%:_","ox_source_name":"on","ox_units":"","ox_value":"0","ox_threshold":"0"},)"
                 R"("startsAt":"1970-01-01T00:00:00Z"}])");
  oxEventRecord record = e.ToPublicView();
  record.event_id = 0;
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&record, {}, &out), OXEVENT_OK);
  EXPECT_NE(out.find(R"("ox_event_id":"152","ox_dedupe_key":"d\\","ox_source_name":"n")"), out.npos) << out;
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&record, {}, nullptr), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(nullptr, {}, &out), OXEVENT_INVALID_ARGUMENT);
  record.version = 0;
  EXPECT_EQ(oxEventFormatAlertmanagerRecord(&record, {}, &out), OXEVENT_INVALID_ARGUMENT);
}

}  // namespace

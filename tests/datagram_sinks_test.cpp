// What the syslog and SNMP sinks send to a receiver on loopback, to the byte.
#include <netdb.h>
#include <poll.h>

#include "faults.h"
#include "host_fixture.h"
#include "oxutil.h"
#include "sinks_fixture.h"

using std::string;
using std::string_view;
using std::string_literals::operator""s;

static uint32_t g_now_ms;

// The loader finds these before the functions of the C library and the companion library.
extern "C" int NoHostName(char*, size_t) __asm__("gethostname");  // The headers define gethostname inline for clang.
int NoHostName(char*, size_t) { return -1; }
uint32_t oxOSGetMs() { return g_now_ms; }

namespace {

constexpr auto kSyslog = oxEventCreateSyslogUdpSink;
constexpr auto kTrap = oxEventCreateSnmpTrapSink;

// A UDP socket, and the settings of a sink that sends to it.
struct DatagramReceiver : oxEventSinkConfig {
  explicit DatagramReceiver(sa_family_t family = AF_INET) : fd(LoopbackSocket(family, SOCK_DGRAM, &free_port)) {
    port = free_port;
    snmp_port = free_port;
    host = family == AF_INET ? "127.0.0.1" : "::1";
    snmp_host = host;
    minimum_severity = 0;
  }
  ~DatagramReceiver() { close(fd); }
  // Returns the datagram that a new sink sends, or the sink's error.
  string Receive(decltype(kSyslog) create, const oxEventNormalizedEvent& event = kFullEvent) const {
    const string error = SubmitThroughNewSink(create, *this, event);
    if (!error.empty()) return error;
    string bytes(65536, 0);
    pollfd ready = {fd, POLLIN, 0};
    const ssize_t size = poll(&ready, 1, 20000) == 1 ? recv(fd, bytes.data(), bytes.size(), 0) : 0;
    return bytes.substr(0, static_cast<size_t>(size));
  }
  uint16_t free_port = 0;
  const int fd;
};

// What follows the header, which ends with MSGID, in the message for kFullEvent.
const string kSyslogMessage =
    " [velmora@32473 version=\"65536\" event_id=\"18446744073709551615\" severity=\"error\" action=\"A\t\""
    " event_type=\"t t\" source_id=\"s\\\"\\\\\\]\" source_name=\"[n\\]\1\xFF\" dedupe_key=\"d\\\\\" "
    "correlation_id=\"\b\f\v\x1F\x7F/\" utc_ns=\"1700000000123456789\" ptp_ns=\"18446744073709551614\""
    " pts=\"-9223372036854775808\" timecode=\"\\]\" value=\"nan\" threshold=\"0.142857\" units=\"\xC2\xB0\r\""
    " duration_ms=\"18446744073709551613\" details_json=\"{\\\"\\]\"] \"a\n\n\",b";

TEST(oxEventSyslogUdpSink, SendsTheWholeEventWithTheConfiguredFacility) {
  const std::pair<const char*, const char*> cases[] = {
      {"kern", "3"},     {"user", "11"},    {"mail", "19"},    {"daemon", "27"},  {"auth", "35"},    {"Security", "35"},
      {"syslog", "43"},  {"lpr", "51"},     {"news", "59"},    {"uucp", "67"},    {"cron", "75"},    {"AuthPriv", "83"},
      {"ftp", "91"},     {"local0", "131"}, {"local1", "139"}, {"local2", "147"}, {"local3", "155"}, {"local4", "163"},
      {"local5", "171"}, {"local6", "179"}, {"LOCAL7", "187"}, {"local8", "131"}, {"x", "131"}};
  DatagramReceiver receiver(DatagramReceiver(AF_INET6).port != 0 ? AF_INET6 : AF_INET);
  receiver.app_name = "! ~\x7F" + string(95, 'c');
  const string header = " - !_~_" + string(44, 'c') + " " + std::to_string(getpid()) + " t_t";
  for (const auto& [facility, priority] : cases) {
    receiver.facility = facility;
    EXPECT_EQ(receiver.Receive(kSyslog),
              "<"s + priority + ">1 2023-11-14T22:13:20.123456789Z" + header + kSyslogMessage);
  }
}

TEST(oxEventSyslogUdpSink, TruncatesAMessageTo8192Bytes) {
  const DatagramReceiver receiver;
  const string whole = receiver.Receive(kSyslog);
  for (const size_t size : {8192 - whole.size(), 8193 - whole.size()}) {
    const string more(size, 'm');
    const string message = string(kFullEvent.message) + more;
    oxEventNormalizedEvent event = kFullEvent;
    event.message = message;
    EXPECT_EQ(receiver.Receive(kSyslog, event), (whole + more).substr(0, 8192));
  }
}

string Hex(string_view bytes) {
  std::ostringstream hex;
  for (const char c : bytes) hex << std::hex << (c >> 4 & 15) << (c & 15);
  return hex.str();
}

// Shows BER values (X.690): strings in quotes, constructed values with their contents in braces, the rest in
// hexadecimal. Checks that each length takes the fewest bytes.
string Show(string_view ber) {
  string shown;
  while (!ber.empty()) {
    const auto byte = [&](size_t at) -> size_t { return static_cast<unsigned char>(ber.at(at)); };
    const size_t length_bytes = byte(1) < 128 ? 0 : byte(1) - 128;
    size_t size = length_bytes == 0 ? byte(1) : 0;
    for (size_t i = 0; i < length_bytes; ++i) size = size * 256 + byte(2 + i);
    EXPECT_EQ(length_bytes, size < 128 ? 0u : size < 256 ? 1u : 2u);
    const string_view content = ber.substr(2 + length_bytes, size);
    const bool is_string = byte(0) == 4, is_constructed = (byte(0) & 32) != 0;
    if (is_string) shown += "'" + string(content) + "'";
    if (is_constructed) shown += Hex(ber.substr(0, 1)) + "{" + Show(content) + "}";
    if (!is_string && !is_constructed) shown += Hex(ber.substr(0, 1)) + ":" + Hex(content) + " ";
    ber.remove_prefix(2 + length_bytes + size);
  }
  return shown;
}

TEST(oxEventSnmpTrapSink, SendsTwelveObjectsWithTheTimeAsUptimeAndRequestId) {
  DatagramReceiver receiver;
  receiver.community = "c\xFF";
  receiver.enterprise_oid = "1.39";
  receiver.trap_oid = "2.40.128.4294967295";
  g_now_ms = 1290;
  EXPECT_EQ(Show(receiver.Receive(kTrap)),
            "30{02:01 'c\xFF'a7{02:050a 02:00 02:00 30{"
            "30{06:2b06010201010300 43:0081 }30{06:2b060106030101040100 06:7881008fffffff7f }"
            "30{06:4f010100 02:03 }30{06:4f010200 'error'}30{06:4f010300 '18446744073709551615'}"
            "30{06:4f010400 't t'}30{06:4f010500 's\"\\]'}30{06:4f010600 '[n]\1\xFF'}30{06:4f010700 'A\t'}"
            "30{06:4f010800 '\"a\n\n\",b'}30{06:4f010900 'd\\'}30{06:4f010a00 '\b\f\v\x1F\x7F/'}"
            "30{06:4f010b00 '1700000000123456789'}30{06:4f010c00 '{\"]'}}}}");
  g_now_ms = UINT32_MAX;  // The clock is the uptime, and its lower 31 bits are the request id.
  const string last = "a7{02:7fffffff 02:00 02:00 30{30{06:2b06010201010300 43:19999999 }";
  const string trap = Show(receiver.Receive(kTrap));
  EXPECT_NE(trap.find(last), string::npos) << last << " is not in:\n" << trap;
}

TEST(oxEventSnmpTrapSink, TruncatesMessageAndDetailsTo2048Bytes) {
  const DatagramReceiver receiver;
  for (const size_t size : {0u, 127u, 128u, 255u, 256u, 2048u, 2049u}) {
    const string text(size, 'x');
    oxEventNormalizedEvent event = kFullEvent;
    event.message = text;
    event.details_json = text;
    const string trap = Show(receiver.Receive(kTrap, event)), kept = "00 '" + text.substr(0, 2048) + "'}";
    EXPECT_TRUE(trap.ends_with(kept + "}}}")) << size;
    EXPECT_NE(trap.find(kept), trap.rfind(kept)) << size;
  }
}

TEST(oxEventSnmpTrapSink, FailsForATrapOfMoreThan8192Bytes) {
  DatagramReceiver receiver;
  receiver.community.assign(1000, 'c');
  receiver.community.append(8192 - receiver.Receive(kTrap).size(), 'c');
  EXPECT_EQ(receiver.Receive(kTrap).size(), 8192u);
  receiver.community += 'c';
  EXPECT_EQ(receiver.Receive(kTrap), "oxEvent SNMP trap exceeds maximum datagram size");
}

TEST(oxEventSnmpTrapSink, RefusesOtherVersionsAndInvalidOids) {
  DatagramReceiver receiver;
  receiver.version = "SnmpV3";
  EXPECT_EQ(SubmitThroughNewSink(kTrap, receiver), "SNMPv3 requires a future external-library backend");
  receiver.version = "1";
  EXPECT_EQ(SubmitThroughNewSink(kTrap, receiver), "oxEvent SNMP trap sink currently supports SNMP v2c only");
  receiver.version = "V2c";
  receiver.enterprise_oid = "1.3.";
  EXPECT_EQ(SubmitThroughNewSink(kTrap, receiver), "Invalid SNMP enterprise_oid: 1.3.");
  for (const char* oid : {"1.40", "3.0", "1", "x.3", "1.3x", "1.3..4", "1.4294967296"}) {
    receiver.trap_oid = oid;
    EXPECT_EQ(SubmitThroughNewSink(kTrap, receiver), "Invalid SNMP trap_oid: "s + oid);
  }
}

TEST(oxEventUdpSender, LooksUpTheConfiguredPortOrTheDefaultHostAndPort) {
  const int standard_input = fcntl(STDIN_FILENO, F_GETFD);
  const Faults faults([](string_view call, long) { return call == "getaddrinfo" ? EAI_AGAIN : 0; });
  const string syslog = "oxEvent syslog UDP resolve failed for 127.0.0.1:",
               trap = "oxEvent SNMP trap resolve failed for ";
  oxEventSinkConfig config;
  config.snmp_host = "";
  for (const auto& [port, error] :
       {std::pair(0u, "514 error=-3"), {65535u, "65535 error=-3"}, {65536u, "65536 error=-8"}}) {
    config.port = port;
    EXPECT_EQ(SubmitThroughNewSink(kSyslog, config), syslog + error);
  }
  config.snmp_port = 0;
  EXPECT_EQ(SubmitThroughNewSink(kTrap, config), trap + "127.0.0.1:162 error=-3");
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), standard_input);  // The sender closes only what it has opened.
}

TEST(oxEventUdpSender, SendsWhetherOrNotAnyoneListens) {
  oxEventSinkConfig config = DatagramReceiver();  // The receiver's socket is closed by now.
  for (const auto create : {kSyslog, kTrap}) {
    std::shared_ptr<oxEventSink> sink;
    EXPECT_EQ(create(config, &sink, nullptr), OXEVENT_OK);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(sink->Submit(kFullEvent, nullptr, nullptr), OXEVENT_OK);
  }
}

}  // namespace

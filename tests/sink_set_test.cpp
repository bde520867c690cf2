// The set of sinks: reloads, failures, and the CSV file to the byte.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <future>

#include "faults.h"
#include "host_fixture.h"
#include "sinks/oxEventSinkSet.h"
#include "sinks/oxEventText.h"
#include "sinks_fixture.h"

namespace {

using std::string;

const string kHeader =
    "version,event_id,utc_iso,utc_ns,severity,action,event_type,source_id,source_name,dedupe_key,correlation_id,"
    "message,value,threshold,units,duration_ms,ptp_ns,pts,timecode,details_json\n";
const string kFullRow =
    "65536,18446744073709551615,2023-11-14T22:13:20.123456789Z,1700000000123456789,error,A\t,t t,\"s\"\"\\]\","
    "[n]\1\xFF,d\\,\b\f\v\x1F\x7F/,\"\"\"a\n\n\"\",b\",nan,0.10000000000000001,\"\xC2\xB0\r\",18446744073709551613,"
    "18446744073709551614,-9223372036854775808,],\"{\"\"]\"\n";
string Row(const string& message) {
  return "65536,0,1970-01-01T00:00:00.000000000Z,0,info,,,,,,," + message + ",0,0,,0,0,0,,\n";
}

uint32_t Submit(const oxEventNormalizedEvent& event) { return oxEventSinkSubmit(event, nullptr, nullptr); }
uint32_t Submit(const string& message) { return Submit(oxEventNormalizedEvent{.message = message}); }
auto InBackground(auto call) { return std::async(std::launch::async, call); }

oxEventSinkConfig EnabledSink(oxEventSinkType type, const string& path = "") {
  oxEventSinkConfig sink;
  sink.type = type;
  sink.enabled = true;
  sink.path = path;
  return sink;
}
const Faults::Hook kDiskIsFull = [](std::string_view call, long) { return call == "write" ? ENOSPC : 0; };

struct oxEventCsvSink : testing::Test {  // Its file may be a pipe with room for 4096 bytes.
  oxEventCsvSink() { config.sinks = {EnabledSink(oxEventSinkType::kCsv, path)}; }
  ~oxEventCsvSink() override {
    oxEventSinkShutdown();
    close(reader);
  }
  void InitializeWithPipe() {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(fcntl(reader, F_SETPIPE_SZ, 4096), 4096);
    ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
    ASSERT_EQ(Read(kHeader.size()), kHeader);
  }
  int BytesInPipe() const {
    int bytes = 0;
    EXPECT_EQ(ioctl(reader, FIONREAD, &bytes), 0);
    return bytes;
  }
  string Read(size_t size) const {  // Waits for this many bytes.
    string bytes(size, 0);
    pollfd ready = {reader, POLLIN, 0};
    for (size_t done = 0; done < size && poll(&ready, 1, 20000) == 1;) {
      done += static_cast<size_t>(std::max<ssize_t>(0, read(reader, &bytes[done], size - done)));
    }
    return bytes;
  }
  // Returns a delivery that hangs because the pipe is full, after a reload that has replaced its sink.
  std::future<uint32_t> ReloadDuringADelivery() {
    config.sinks[0].flush_each_event = true;
    InitializeWithPipe();
    auto delivery = InBackground([this] { return Submit(large); });
    while (BytesInPipe() < 4096) usleep(1000);
    EXPECT_EQ(oxEventSinkReloadConfig({}), OXEVENT_OK);
    return delivery;
  }

  const HostFolder folder{};
  const string path = folder.path + "/rows", large = string(5000, 'm');
  oxEventConfig config;
  int reader = -1;
};

// The disk has room for some bytes of two rows. Then another process may append.
TEST_F(oxEventCsvSink, TruncatesATornRowUnlessOthersHaveWrittenAfterIt) {
  const string rows = kFullRow + kFullRow;
  for (size_t room = 1; room < rows.size(); ++room) {
    for (const string appended : {"", "appended\n"}) {
      SCOPED_TRACE(std::to_string(room) + appended);
      std::ofstream(path) << "";
      ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
      EXPECT_EQ(Submit(kFullEvent), OXEVENT_OK);
      EXPECT_EQ(Submit(kFullEvent), OXEVENT_OK);
      int writes = 0;
      const Faults faults([&](std::string_view call, long) {
        if (call != "write") return 0;
        if (++writes == 1) return -static_cast<int>(room);
        std::ofstream(path, std::ios::app) << appended;
        return ENOSPC;
      });
      EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
      const string whole = room < kFullRow.size() ? "" : kFullRow;
      EXPECT_EQ(ReadFile(path), kHeader + (appended.empty() ? whole : rows.substr(0, room) + appended));
    }
  }
}

TEST_F(oxEventCsvSink, OpensOnAFullDiskAndWritesTheHeaderWithTheFirstRow) {
  for (const string appended : {"", "appended\n"}) {
    std::ofstream(path) << "";
    {
      bool is_full = false;
      const Faults faults([&](std::string_view call, long) {
        if (call != "write") return 0;
        return std::exchange(is_full, true) ? ENOSPC : -7;
      });
      EXPECT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
      EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
      EXPECT_EQ(ReadFile(path), "");
    }
    std::ofstream(path) << appended;  // By another process.
    EXPECT_EQ(Submit("a"), OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
    EXPECT_EQ(ReadFile(path), (appended.empty() ? kHeader : appended) + Row("a"));
  }
}

TEST_F(oxEventCsvSink, HasRoomForARowOfQuotes) {
  const string quotes(1000, '"');
  oxEventNormalizedEvent event;
  event.source_id = event.source_name = event.dedupe_key = event.correlation_id = event.message = quotes;
  event.action = event.event_type = event.units = event.timecode = event.details_json = quotes;
  string row(100'000, 0);
  const char* const end = oxEventText::WriteCsvRow(event, row.data());
  EXPECT_GE(oxEventText::CsvRowCapacity(event), static_cast<size_t>(end - row.data()));
}

TEST_F(oxEventCsvSink, FlushFailsUntilADeliveryToTheReplacedSinkEnds) {
  auto delivery = ReloadDuringADelivery();
  EXPECT_EQ(oxEventSinkFlush(1), OXEVENT_FAILURE);
  EXPECT_EQ(Read(Row(large).size()), Row(large));
  EXPECT_EQ(delivery.get(), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
}

TEST_F(oxEventCsvSink, FlushFailsOnceIfADeliveryToTheReplacedSinkFails) {
  auto delivery = ReloadDuringADelivery();
  close(std::exchange(reader, -1));
  EXPECT_EQ(delivery.get(), OXEVENT_FAILURE);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
}

TEST_F(oxEventCsvSink, FlushFailsAfterAReloadForRowsLostSinceTheLastFlush) {
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  for (const bool loses_another : {true, false}) {
    const Faults faults(kDiskIsFull);
    EXPECT_EQ(Submit("a"), OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
    if (loses_another) Submit("b");
    EXPECT_EQ(oxEventSinkReloadConfig(config), OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), loses_another ? OXEVENT_FAILURE : OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
  }
}

TEST_F(oxEventCsvSink, WritesOldRowsBeforeNewOnesThroughSeveralReloads) {
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
  EXPECT_EQ(ReadFile(path), kHeader + Row("old") + Row("new"));
}

TEST_F(oxEventCsvSink, TryFlushWaitsNeitherForTheReaderOfAPipeNorForAFlush) {
  InitializeWithPipe();
  EXPECT_EQ(Submit(large), OXEVENT_OK);
  oxEventSinkTryFlush();
  EXPECT_EQ(BytesInPipe(), 4096);
  std::promise<void> writes;
  const Faults faults([&](std::string_view call, long) {
    if (call == "write") writes.set_value();
    return 0;
  });
  auto flush = InBackground([] { return oxEventSinkFlush(0); });
  writes.get_future().wait();
  oxEventSinkTryFlush();
  EXPECT_EQ(Read(Row(large).size()), Row(large));
  EXPECT_EQ(flush.get(), OXEVENT_OK);
}

TEST(oxEventSinkSet, ReportsTheFailuresOfEachSink) {
  const HostFolder folder;
  const oxEventSinkConfig csv = EnabledSink(oxEventSinkType::kCsv, folder.path + "/rows");
  oxEventSinkConfig syslog = EnabledSink(oxEventSinkType::kSyslogUdp);
  syslog.host = "127.255.255.255";  // A broadcast address, to which a send fails.
  syslog.port = 0;                  // Means 514.
  oxEventSinkConfig webhook = EnabledSink(oxEventSinkType::kWebhookHttp);
  webhook.name = "n";
  webhook.endpoint_url = "http://h";
  webhook.retry_count = UINT32_MAX;  // No attempt, and no error text.
  oxEventConfig config;
  config.sinks = {csv, oxEventSinkConfig(), syslog, webhook};
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  uint32_t id = 0;
  ASSERT_EQ(oxEventSinkRegisterCallback([](const oxEventRecord*, void*) { throw 1; }, nullptr, &id), OXEVENT_OK);
  const Faults faults(kDiskIsFull);
  uint64_t failed_sinks = 0;
  EXPECT_EQ(oxEventSinkSubmit(kFullEvent, &failed_sinks, nullptr), OXEVENT_FAILURE);
  EXPECT_EQ(failed_sinks, 3u);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
  std::ostringstream report;
  for (const oxEventSinkStatus& sink : oxEventSinkReport()) {
    report << sink.section << '|' << sink.name << '|' << sink.failures << '|' << sink.last_error << '\n';
  }
  EXPECT_EQ(report.str(), "sink\\csv||1|Unable to flush oxEvent CSV file: " + csv.path +
                              "\nsink\\syslog\\udp||1|oxEvent syslog UDP send failed to 127.255.255.255:514 error=13\n"
                              "sink\\webhook\\http|n|1|\ncallbacks||1|oxEvent callback " +
                              std::to_string(id) + " threw\n");
  EXPECT_EQ(oxEventSinkShutdown(), OXEVENT_OK);
  EXPECT_TRUE(oxEventSinkReport().empty());
}

}  // namespace

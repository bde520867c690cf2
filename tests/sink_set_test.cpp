// The set of sinks: reloads, failures, and the CSV file to the byte.
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
    "[n]\1\xFF,d\\,\b\f\v\x1F\x7F/,\"\"\"a\n\n\"\",b\",nan,0.14285714285714285,\"\xC2\xB0\r\",18446744073709551613,"
    "18446744073709551614,-9223372036854775808,],\"{\"\"]\"\n";
string Row(const string& message) {
  return "65536,0,1970-01-01T00:00:00.000000000Z,0,info,,,,,,," + message + ",0,0,,0,0,0,,\n";
}

uint32_t Submit(const oxEventNormalizedEvent& event) { return oxEventSinkSubmit(event, nullptr, nullptr); }
uint32_t Submit(const string& message) { return Submit(oxEventNormalizedEvent{.message = message}); }
auto InBackground(auto call) { return std::async(std::launch::async, call); }

const Faults::Hook kDiskIsFull = [](std::string_view call, long) { return call == "write" ? ENOSPC : 0; };

// A delivery whose write hangs until End is called.
class HeldDelivery {
 public:
  HeldDelivery() { is_held_.get_future().wait(); }
  // Lets the write go on or, if `error` is not 0, fail with it. Returns the result of the delivery.
  uint32_t End(int error = 0) {
    end_.set_value(error);
    return result_.get();
  }

 private:
  std::promise<void> is_held_;
  std::promise<int> end_;
  std::atomic<bool> is_first_ = true;
  const Faults faults_{[this](std::string_view call, long) {
    if (call != "write" || !is_first_.exchange(false)) return 0;
    is_held_.set_value();
    return end_.get_future().get();
  }};
  std::future<uint32_t> result_ = InBackground([] { return Submit("held"); });
};

struct CsvSinkTest : testing::Test {
  CsvSinkTest() {
    config.sinks.resize(1);
    config.sinks[0].type = oxEventSinkType::kCsv;
    config.sinks[0].enabled = true;
    config.sinks[0].path = path;
  }
  ~CsvSinkTest() override { oxEventSinkShutdown(); }
  void InitializeFlushingEachEvent() {
    config.sinks[0].flush_each_event = true;
    ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  }

  const HostFolder folder{};
  const string path = folder.path + "/rows";
  oxEventConfig config;
};

// The disk has room for `room` bytes of two rows. In the second case, another process appends before the write fails.
TEST_F(CsvSinkTest, TruncatesATornRowUnlessOthersHaveWrittenAfterIt) {
  const string rows = kFullRow + kFullRow;
  for (size_t room = 1; room < rows.size(); ++room) {
    for (const string appended : {"", "appended\n"}) {
      SCOPED_TRACE(std::to_string(room) + appended);
      std::ofstream(path) << "";
      ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
      EXPECT_EQ(Submit(kFullEvent), OXEVENT_OK);
      EXPECT_EQ(Submit(kFullEvent), OXEVENT_OK);
      int writes = 0, interruption = EINTR;
      const Faults faults([&](std::string_view call, long) {
        if (call == "ftruncate") return std::exchange(interruption, 0);
        if (call != "write") return 0;
        if (++writes == 1) return -static_cast<int>(room);
        std::ofstream(path, std::ios::app) << appended;
        return ENOSPC;
      });
      EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
      const string whole = room < kFullRow.size() ? "" : kFullRow;
      ASSERT_EQ(ReadFile(path), kHeader + (appended.empty() ? whole : rows.substr(0, room) + appended));
    }
  }
}

TEST_F(CsvSinkTest, OpensOnAFullDiskAndWritesTheHeaderWithTheFirstRow) {
  for (const string appended : {"", "\n"}) {
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
    std::ofstream(path) << appended;  // As another process could do.
    EXPECT_EQ(Submit("a"), OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
    EXPECT_EQ(ReadFile(path), (appended.empty() ? kHeader : appended) + Row("a"));
  }
}

// After a failed reload, the library still writes to the old file. If it left a new file with only a header, a log
// rotation would conclude that the library now writes to that one.
TEST_F(CsvSinkTest, AFailedReloadLeavesNoNewFile) {
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  config.sinks.push_back(config.sinks[0]);
  config.sinks[1].path = "";
  EXPECT_EQ(oxEventSinkReloadConfig(config), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(ReadFile(path), kHeader);
  std::filesystem::rename(path, path + ".1");
  for (const int error : {0, ENOSPC, EDQUOT}) {  // With a full disk, the new file is empty.
    const Faults faults([error](std::string_view call, long) { return call == "write" ? error : 0; });
    EXPECT_EQ(oxEventSinkReloadConfig(config), OXEVENT_INVALID_ARGUMENT);
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  EXPECT_EQ(Submit("a"), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
  EXPECT_EQ(ReadFile(path + ".1"), kHeader + Row("a"));
}

TEST_F(CsvSinkTest, FlushesAndDrainsEverySink) {
  config.sinks.push_back(config.sinks[0]);
  config.sinks[1].path = path + "2";
  std::ofstream(path + "2") << "\n";  // Not empty, so it gets no header.
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  EXPECT_EQ(Submit("a,b"), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
  EXPECT_EQ(ReadFile(path) + ReadFile(path + "2"), kHeader + Row("\"a,b\"") + "\n" + Row("\"a,b\""));
  EXPECT_EQ(Submit("\n"), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkReloadConfig({}), OXEVENT_OK);
  for (const char* name : {"", "2"}) EXPECT_TRUE(ReadFile(path + name).ends_with(Row("\"\n\"")));
  ASSERT_EQ(oxEventSinkReloadConfig(config), OXEVENT_OK);
  EXPECT_EQ(Submit("last"), OXEVENT_OK);
  const Faults faults([failed = false](std::string_view call, long) mutable {
    return call == "write" && !std::exchange(failed, true) ? EIO : 0;
  });
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
  EXPECT_TRUE(ReadFile(path + "2").ends_with(Row("last"))) << "The first sink's failure has kept the second from it.";
}

TEST_F(CsvSinkTest, HasRoomForARowOfQuotes) {
  const string quotes(1000, '"');
  const oxEventNormalizedEvent event = {.message = quotes};
  string row(10'000, 0);
  const char* const end = oxEventText::WriteCsvRow(event, row.data());
  EXPECT_GE(oxEventText::CsvRowCapacity(event), static_cast<size_t>(end - row.data()));
}

TEST_F(CsvSinkTest, NewRowsAndFlushesWaitForADeliveryToTheReplacedSink) {
  InitializeFlushingEachEvent();
  HeldDelivery held;
  for (int i = 0; i < 2; ++i) EXPECT_EQ(oxEventSinkReloadConfig(config), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkFlush(1), OXEVENT_FAILURE);
  auto flush = InBackground([] { return oxEventSinkFlush(UINT32_MAX); });
  auto new_row = InBackground([] { return Submit("new"); });
  EXPECT_EQ(new_row.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(held.End(), OXEVENT_OK);
  EXPECT_EQ(new_row.get(), OXEVENT_OK);
  EXPECT_EQ(flush.get(), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
  EXPECT_EQ(ReadFile(path), kHeader + Row("held") + Row("new"));
}

TEST_F(CsvSinkTest, FlushFailsOnceIfADeliveryToTheReplacedSinkFails) {
  InitializeFlushingEachEvent();
  HeldDelivery held;
  EXPECT_EQ(oxEventSinkReloadConfig({}), OXEVENT_OK);
  EXPECT_EQ(held.End(EIO), OXEVENT_FAILURE);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
}

TEST_F(CsvSinkTest, FlushFailsAfterAReloadForRowsLostSinceTheLastFlush) {
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  for (const bool loses_another : {true, false}) {
    const Faults faults(kDiskIsFull);
    EXPECT_EQ(Submit("a"), OXEVENT_OK);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_FAILURE);
    if (loses_another) {
      EXPECT_EQ(Submit("b"), OXEVENT_FAILURE);
    }
    EXPECT_EQ(oxEventSinkReloadConfig(config), OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), loses_another ? OXEVENT_FAILURE : OXEVENT_OK);
    EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
  }
}

TEST_F(CsvSinkTest, TryFlushDoesNotWaitForTheReaderOfAPipe) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int pipe = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(fcntl(pipe, F_SETPIPE_SZ, 4096), 4096);
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  const string large(5000, 'm');
  EXPECT_EQ(Submit(large), OXEVENT_OK);
  oxEventSinkTryFlush();
  auto content = InBackground([this] { return ReadFile(path); });
  EXPECT_EQ(oxEventSinkFlush(0), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkShutdown(), OXEVENT_OK);  // Closes the pipe, which ends the content.
  EXPECT_EQ(content.get(), kHeader + Row(large));
  close(pipe);
}

TEST_F(CsvSinkTest, TryFlushDoesNotWaitForADelivery) {
  InitializeFlushingEachEvent();
  HeldDelivery held;
  oxEventSinkTryFlush();
  EXPECT_EQ(held.End(), OXEVENT_OK);
}

TEST_F(CsvSinkTest, ACallbackThatThrowsFailsAloneAndLeavesTheOthersTheEvent) {
  const oxEventCallback throws = [](const oxEventRecord*, void*) { throw 1; };
  const oxEventCallback count = [](const oxEventRecord*, void* calls) { ++*static_cast<int*>(calls); };
  int calls = 0;
  uint32_t id = 0;
  ASSERT_EQ(oxEventSinkInitialize(config), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkRegisterCallback(throws, nullptr, &id), OXEVENT_OK);
  EXPECT_EQ(oxEventSinkRegisterCallback(count, &calls, &id), OXEVENT_OK);
  uint64_t failed_sinks = 0;
  EXPECT_EQ(oxEventSinkSubmit(kFullEvent, &failed_sinks, nullptr), OXEVENT_FAILURE);
  EXPECT_EQ(failed_sinks, 1u);
  EXPECT_EQ(calls, 1);
}

}  // namespace

// The queue, the state and numbers by themselves.
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <random>
#include <thread>

#include "api/oxEventNormalize.h"
#include "base/oxEventNumber.h"
#include "core/oxEventQueue.h"
#include "core/oxEventState.h"
#include "host_fixture.h"
#include "platform/oxEventPlatform.h"

namespace {

using Policy = oxEventDropPolicy;

struct QueueTest : testing::Test {
  struct Result {
    uint32_t code;
    bool accepted;
    bool dropped;
    bool operator==(const Result&) const = default;
  };
  static constexpr Result kQueued = {OXEVENT_OK, true, false};
  static constexpr Result kQueuedForAnOlder = {OXEVENT_OK, true, true};
  static constexpr Result kLost = {OXEVENT_OK, false, true};
  static constexpr Result kRefused = {OXEVENT_NOT_INITIALIZED, false, false};

  Result Enqueue(std::string_view message, uint32_t severity = OXEVENT_SEVERITY_WARNING) {
    oxEventNormalizedEvent event;
    event.message = message;
    event.severity = severity;
    Result result = {0, true, true};
    result.code = queue.Enqueue(event, &result.accepted, &result.dropped);
    return result;
  }
  // The messages of what is left, in order; ends the queue.
  std::string Rest() {
    queue.RequestStop();
    std::string messages;
    while (const oxEventNormalizedEvent* event = queue.WaitPop()) messages.append(event->message);
    return messages;
  }
  bool IsDrained() { return queue.Flush(1) == OXEVENT_OK; }

  oxEventQueue queue;
};

TEST_F(QueueTest, AcceptsFromStartToStop) {
  EXPECT_EQ(Enqueue("a"), kRefused);
  queue.Start(3, Policy::kDropNewest);
  EXPECT_EQ(Enqueue("b"), kQueued);
  queue.StopAccepting();
  EXPECT_EQ(Enqueue("c"), kRefused);
  queue.Start(3, Policy::kDropNewest);  // Empties it.
  EXPECT_EQ(Enqueue("d"), kQueued);
  EXPECT_EQ(Enqueue("e"), kQueued);
  queue.RequestStop();
  EXPECT_EQ(Enqueue("f"), kRefused);
  EXPECT_EQ(Rest(), "de");
  queue.Reset();
  EXPECT_EQ(Enqueue("g"), kRefused);
  EXPECT_EQ(queue.EnqueueCount(), 7u);  // With those that were refused.
}

TEST_F(QueueTest, RefusesAnEventWhoseCopyWasReadyBeforeTheStop) {
  oxEventQueue::Spare spare;
  queue.Start(3, Policy::kDropNewest);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(queue.Enqueue({}, nullptr, nullptr, &spare), OXEVENT_OK);
  for (int i = 0; i < 2; ++i) ASSERT_NE(queue.WaitPop(), nullptr);
  queue.CompleteActiveEvent();
  ASSERT_EQ(queue.Enqueue({}, nullptr, nullptr, &spare), OXEVENT_OK);
  ASSERT_NE(spare, nullptr);
  for (const auto stop : {&oxEventQueue::StopAccepting, &oxEventQueue::RequestStop}) {
    (queue.*stop)();
    const uint64_t before = queue.EnqueueCount();
    EXPECT_EQ(queue.Enqueue({}, nullptr, nullptr, &spare), OXEVENT_NOT_INITIALIZED);
    EXPECT_EQ(queue.EnqueueCount(), before + 1);
  }
  EXPECT_EQ(queue.DropPending(), 1u);
}

TEST_F(QueueTest, DropsByItsPolicy) {
  const struct {
    const char* name;
    Policy policy;
    std::array<uint32_t, 3> severities;  // Of "a", "b" and "c", which fill the queue.
    Result result;                       // Of "d".
    const char* rest;
  } cases[] = {{"the newest", Policy::kDropNewest, {0, 0, 0}, kLost, "abc"},
               {"no debug or info", Policy::kDropDebugInfoFirst, {2, 3, 2}, kLost, "abc"},
               {"the oldest info, not the lowest", Policy::kDropDebugInfoFirst, {2, 1, 0}, kQueuedForAnOlder, "acd"},
               {"the oldest of all", Policy::kDropDebugInfoFirst, {0, 1, 1}, kQueuedForAnOlder, "bcd"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const uint32_t severity : {0u, 3u}) {
      queue.Start(3, c.policy);
      EXPECT_EQ(Enqueue("a", c.severities[0]), kQueued);
      EXPECT_EQ(Enqueue("b", c.severities[1]), kQueued);
      EXPECT_EQ(Enqueue("c", c.severities[2]), kQueued);
      EXPECT_EQ(Enqueue("d", severity), c.result);
      EXPECT_EQ(Rest(), c.rest);
    }
  }
}

TEST_F(QueueTest, TrimsByItsPolicy) {
  const struct {
    Policy policy;
    uint32_t capacity;
    uint32_t discarded;
    const char* rest;
  } cases[] = {{Policy::kDropNewest, 5, 0, "abcde"},
               {Policy::kDropNewest, 2, 3, "ab"},
               {Policy::kDropDebugInfoFirst, 3, 2, "ace"},
               {Policy::kDropDebugInfoFirst, 2, 3, "ac"},
               {Policy::kDropDebugInfoFirst, 0, 4, "a"}};  // As 1.
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rest);
    queue.Start(5, Policy::kDropNewest);
    for (const char* message : {"a", "b", "c", "d", "e"}) {
      const bool low = *message == 'b' || *message == 'd';
      EXPECT_EQ(Enqueue(message, low ? OXEVENT_SEVERITY_INFO : OXEVENT_SEVERITY_WARNING), kQueued);
    }
    EXPECT_EQ(queue.Configure(c.capacity, c.policy), c.discarded);
    EXPECT_EQ(Rest(), c.rest);
  }
}

TEST_F(QueueTest, IsDrainedOnceTheActiveEventIsComplete) {
  queue.Start(0, Policy::kDropNewest);  // As 1.
  EXPECT_TRUE(IsDrained());
  queue.CompleteActiveEvent();  // There is none.
  EXPECT_EQ(Enqueue("a"), kQueued);
  EXPECT_EQ(Enqueue("b"), kLost);
  EXPECT_FALSE(IsDrained());
  ASSERT_NE(queue.WaitPop(), nullptr);
  EXPECT_FALSE(IsDrained());
  EXPECT_EQ(queue.DropPending(), 0u);
  EXPECT_FALSE(IsDrained());
  queue.CompleteActiveEvent();
  EXPECT_TRUE(IsDrained());
}

// What drains the queue ends the flush, although another event is queued before the flush has a look.
TEST_F(QueueTest, FlushEndsAtAMomentWithNothingPending) {
  const std::function<void()> drains[] = {[&] { queue.CompleteActiveEvent(); }, [&] { queue.Reset(); },
                                          [&] { queue.DropPending(); }};
  for (const auto& drain : drains) {
    queue.Start(1, Policy::kDropNewest);
    EXPECT_EQ(Enqueue("a"), kQueued);
    if (&drain != &drains[2]) {
      ASSERT_NE(queue.WaitPop(), nullptr);
    }
    std::atomic<bool> drained = false;
    std::jthread flusher([&] {
      EXPECT_EQ(queue.Flush(&drain == drains ? UINT32_MAX : 0), OXEVENT_OK);
      EXPECT_TRUE(drained);
    });
    queue.RequestStop();  // Wakes the flush, for nothing.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(queue.Flush(50), OXEVENT_FAILURE);
    EXPECT_GE(std::chrono::steady_clock::now(), start + std::chrono::milliseconds(50));
    drained = true;
    drain();
    queue.Start(1, Policy::kDropNewest);
    EXPECT_EQ(Enqueue("b"), kQueued);
  }
}

TEST(oxEventNumber, ReadsAsPrintfWritesIt) {
  std::mt19937_64 random(1);
  std::vector<double> values = {0, -0.0, 0.5, 5e-324, 1e308, 1e15, 0x1p53, INFINITY, -INFINITY};
  for (double power = 1; power < 1e18; power *= 10) {  // What lies at a power, and halfway between two texts.
    for (const double v : {power, std::nextafter(power, 0), power * 1.5, power - 0.05, power - 5e-7})
      values.push_back(v);
  }
  for (int i = 0; i < 100000; ++i) values.push_back(std::ldexp(int64_t(random()), int(random() % 80) - 70));
  for (int i = 0; i < 100000; ++i) values.push_back(double(random() % 100000000) / double(1 << random() % 12));
  for (const double value : values) {
    for (const int digits : {6, 17}) {
      char expected[64], text[kOxEventNumberSize];
      snprintf(expected, sizeof expected, "%.*g", digits, value);
      ASSERT_EQ(std::string(text, oxEventWriteNumber(value, digits, text)), expected);
    }
  }
}

constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kInterval = 1800 * kSecond;  // As by default.
constexpr uint64_t kRaisedAt = 5 * kSecond;

struct StateTest : testing::Test {
  // The action that goes on; "-": none does.
  std::string Evaluate(std::string_view action, uint64_t utc_ns = kRaisedAt, std::string_view message = "first") {
    event.action = action;
    event.utc_ns = utc_ns;
    event.message = message;
    bool route = false;
    EXPECT_EQ(state.Evaluate(event, &out, &route), OXEVENT_OK);
    return route ? std::string(out.action) : "-";
  }
  void Configure(bool oxEventConfig::*flipped, uint32_t interval_seconds = 1800) {
    oxEventConfig config;
    config.default_repeat_interval_sec = interval_seconds;
    if (flipped != nullptr) config.*flipped = !(config.*flipped);
    state.Configure(config);
  }

  oxEventState state;
  oxEventNormalizedEvent event;
  oxEventNormalizedEvent out;
};

// Each rule for an action that comes for a condition which was raised by "update", or which was not.
TEST_F(StateTest, DecidesByActionTimeAndContent) {
  const struct {
    const char* name;
    bool raised;
    const char* action;
    uint64_t utc_ns;
    const char* message;
    const char* forwarded;
    const char*
        next_update;  // The first update once more, just before it is due. A later one that is stored makes it due.
  } cases[] = {{"a raise begins", false, "Raise", kRaisedAt, "first", "Raise", "update"},
               {"an update begins", false, "Update", kRaisedAt, "first", "raise", "-"},
               {"a repeat does not begin", false, "repeat", kRaisedAt, "first", "-", "raise"},
               {"a clear of nothing", false, "clear", kRaisedAt, "first", "-", "raise"},
               {"another action", false, "ack", kRaisedAt, "first", "ack", "raise"},
               {"bytes that are no letters", false, "rais\xC5", kRaisedAt, "first", "rais\xC5", "raise"},
               {"no action", false, "", kRaisedAt, "first", "", "raise"},
               {"a raise too soon", true, "raise", kRaisedAt + kInterval - 1, "other", "-", "-"},
               {"a raise that is due", true, "RAISE", kRaisedAt + kInterval, "first", "repeat", "update"},
               {"a raise from before", true, "raise", kRaisedAt - 1, "first", "repeat", "update"},
               {"the same update too soon", true, "update", kRaisedAt + kInterval - 1, "first", "-", "-"},
               {"the same update that is due", true, "UPDATE", kRaisedAt + kInterval, "first", "UPDATE", "update"},
               {"another update at once", true, "update", kRaisedAt, "other", "update", "update"},
               {"a repeat too soon", true, "repeat", kRaisedAt + kInterval - 1, "other", "-", "-"},
               {"a repeat that is due", true, "Repeat", kRaisedAt + kInterval, "first", "Repeat", "update"},
               {"a clear", true, "Clear", kRaisedAt, "first", "Clear", "raise"},
               {"another action on a condition", true, "raises", kRaisedAt + kInterval, "first", "raises", "update"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    state.Reset();
    if (c.raised) {
      EXPECT_EQ(Evaluate("update"), "raise");
    }
    EXPECT_EQ(Evaluate(c.action, c.utc_ns, c.message), c.forwarded);
    const bool other = std::string_view(c.name) == "another action on a condition";
    EXPECT_EQ(Evaluate("update", kRaisedAt + kInterval - (other ? 0 : 1)), c.next_update);
  }
}

TEST_F(StateTest, GoesByItsSettings) {
  EXPECT_EQ(Evaluate("raise"), "raise");
  for (const auto off : {&oxEventConfig::state_enabled, &oxEventConfig::dedupe_enabled}) {
    Configure(off);
    EXPECT_EQ(Evaluate("raise"), "raise");
    EXPECT_EQ(Evaluate("clear"), "clear");
    EXPECT_EQ(Evaluate("repeat"), "repeat");
  }
  Configure(&oxEventConfig::send_clear);
  EXPECT_EQ(Evaluate("raise"), "-");  // Still raised.
  EXPECT_EQ(Evaluate("clear"), "-");
  EXPECT_EQ(Evaluate("raise"), "raise");
  Configure(&oxEventConfig::route_orphan_clear);
  EXPECT_EQ(Evaluate("clear"), "clear");
  EXPECT_EQ(Evaluate("clear"), "clear");
  Configure(nullptr, 0);  // Every raise is due.
  EXPECT_EQ(Evaluate("raise"), "raise");
  EXPECT_EQ(Evaluate("raise"), "repeat");
  Configure(nullptr, UINT32_MAX);  // No overflow.
  EXPECT_EQ(Evaluate("raise", UINT32_MAX * kSecond), "-");
  EXPECT_EQ(Evaluate("raise", kRaisedAt + UINT32_MAX * kSecond), "repeat");
  EXPECT_EQ(Evaluate("clear"), "clear");
  EXPECT_EQ(Evaluate("raise", 0), "raise");  // Counts as never sent.
  EXPECT_EQ(Evaluate("raise", 0), "repeat");
}

TEST_F(StateTest, TellsConditionsApartByTheirKeys) {
  event.source_id = "s";
  event.event_type = "t";
  EXPECT_EQ(Evaluate("raise"), "raise");
  event.dedupe_key = "s:t";  // The key that the other two make.
  EXPECT_EQ(Evaluate("raise"), "-");
  event.dedupe_key = "s";
  EXPECT_EQ(Evaluate("raise"), "raise");
  event.dedupe_key = "";
  event.event_type = "";
  EXPECT_EQ(Evaluate("raise"), "raise");  // "s:".
}

TEST_F(StateTest, RefusesNullAndChangesNothing) {
  bool route = false;
  event.action = "raise";
  EXPECT_EQ(state.Evaluate(event, nullptr, &route), OXEVENT_INVALID_ARGUMENT);
  EXPECT_EQ(state.Evaluate(event, &out, nullptr), OXEVENT_INVALID_ARGUMENT);
  EXPECT_FALSE(route);
  EXPECT_EQ(Evaluate("raise"), "raise");
}

TEST(oxEventNormalize, GivesOneTimeStampWithoutChangingTheOther) {
  const struct {
    uint64_t utc_ns;
    uint64_t ptp_ns;
  } cases[] = {{0, 0}, {7, 0}, {0, 8}, {7, 8}};
  oxEventRecord record = {};
  record.struct_size = sizeof(record);
  record.version = OXEVENT_API_VERSION;
  record.message = "m";
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.utc_ns) + " " + std::to_string(c.ptp_ns));
    record.utc_ns = c.utc_ns;
    record.ptp_ns = c.ptp_ns;
    oxEventNormalizedEvent event;
    const uint64_t before = oxEventPlatformGetPtpNano();
    ASSERT_EQ(oxEventNormalizeEvent(&record, 1, &event), OXEVENT_OK);
    const uint64_t after = oxEventPlatformGetPtpNano();
    for (const auto& [given, got] : {std::pair(c.utc_ns, event.utc_ns), std::pair(c.ptp_ns, event.ptp_ns)}) {
      EXPECT_GE(got, given != 0 ? given : before);
      EXPECT_LE(got, given != 0 ? given : after);
    }
    EXPECT_EQ(event.utc_ns == event.ptp_ns, c.utc_ns == 0 && c.ptp_ns == 0);
  }
}

TEST(oxEventState, NoticesEachChangeOfContent) {
  oxEventState state;
  oxEventNormalizedEvent event, out;
  const auto outcome = [&] {
    bool route = false;
    EXPECT_EQ(state.Evaluate(event, &out, &route), OXEVENT_OK);
    return std::string(route ? out.action : "-");
  };
  const auto twice = [&] { return outcome().append(outcome()); };
  event.utc_ns = 5;
  event.action = "update", event.dedupe_key = "k";
  EXPECT_EQ(twice(), "raise-");
  for (const auto text : {&event.event_type, &event.source_id, &event.source_name, &event.message, &event.timecode,
                          &event.units, &event.correlation_id, &event.details_json}) {
    EXPECT_EQ((*text = "x", twice()), "update-");
  }
  EXPECT_EQ((event.severity = 3, twice()), "update-");
  EXPECT_EQ((event.pts = -1, twice()), "update-");
  EXPECT_EQ((event.duration_ms = 1, twice()), "update-");
  EXPECT_EQ((event.value = -0.0, twice()), "update-");
  EXPECT_EQ((event.threshold = 1.00001, twice()), "update-");
  event.threshold = 1.00001000001, event.event_id = event.ptp_ns = 9;  // No change in six digits.
  EXPECT_EQ(outcome(), "-");
  std::string raised[4000];  // The conditions' messages; empty: not raised.
  const auto draw = [](size_t below) { return static_cast<size_t>(random()) % below; };
  for (int i = 0; i < 160'000; ++i) {  // They become many, few, and many again.
    const size_t number = draw(4000);
    const std::string key = std::string(number % 60, 'k') + std::to_string(number), message(draw(3) * 40 + 1, 'm');
    const bool clear = draw(8) < (i / 40'000 % 2 == 0 ? 1u : 7u);
    const std::string was = std::exchange(raised[number], clear ? "" : message);
    event.dedupe_key = key, event.message = message, event.action = clear ? "clear" : "update";
    ASSERT_EQ(outcome(), was.empty() ? (clear ? "-" : "raise") : clear ? "clear" : was == message ? "-" : "update");
  }
}

}  // namespace

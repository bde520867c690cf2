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
    result.code = queue.Enqueue(event, &result.accepted, &result.dropped, &spare);
    return result;
  }
  // The messages of what is left, in order; ends the queue.
  std::string Rest() {
    queue.RequestStop();
    std::string messages;
    while (const oxEventNormalizedEvent* event = queue.WaitPop()) messages.append(event->message);
    queue.CompleteActiveEvent();
    return messages;
  }

  oxEventQueue queue;
  oxEventQueue::Spare spare;  // As a submitting thread keeps it.
};

TEST_F(QueueTest, AcceptsFromStartToStop) {
  EXPECT_EQ(Enqueue("a"), kRefused);
  queue.Start(3, Policy::kDropNewest);
  EXPECT_EQ(Enqueue("b"), kQueued);
  queue.StopAccepting();
  EXPECT_EQ(Enqueue("c"), kRefused);  // Without memory for it.
  EXPECT_EQ(Rest(), "b");
  queue.Start(3, Policy::kDropNewest);
  EXPECT_EQ(Enqueue("d"), kQueued);
  EXPECT_EQ(Enqueue("e"), kQueued);
  EXPECT_EQ(Enqueue("f"), kQueued);
  EXPECT_EQ(Rest(), "def");
  queue.Start(3, Policy::kDropNewest);
  EXPECT_EQ(Enqueue("g"), kQueued);
  ASSERT_NE(spare, nullptr);
  queue.RequestStop();
  EXPECT_EQ(Enqueue("h"), kRefused);  // Although its copy is made.
  EXPECT_EQ(Rest(), "g");
  queue.Reset();
  EXPECT_EQ(Enqueue("i"), kRefused);
  EXPECT_EQ(queue.EnqueueCount(), 9u);  // With those that were refused.
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

TEST_F(QueueTest, TrimsManyEventsOfOneKind) {
  for (const uint32_t severity : {OXEVENT_SEVERITY_INFO, OXEVENT_SEVERITY_WARNING}) {
    SCOPED_TRACE(severity);
    queue.Start(1000, Policy::kDropNewest);
    for (int i = 0; i < 1000; ++i) EXPECT_EQ(Enqueue(std::to_string(i), severity), kQueued);
    EXPECT_EQ(queue.Configure(2, Policy::kDropNewest), 998u);
    EXPECT_EQ(Enqueue("more", severity), kLost);
    EXPECT_EQ(Rest(), "01");
  }
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

TEST(oxEventNormalize, FillsInOneTimeStampAndKeepsTheOther) {
  for (const auto given : {&oxEventRecord::utc_ns, &oxEventRecord::ptp_ns}) {
    oxEventRecord record = {};
    record.struct_size = sizeof(record);
    record.version = OXEVENT_API_VERSION;
    record.message = "m";
    record.*given = 7;
    oxEventNormalizedEvent event;
    const uint64_t now = oxEventPlatformGetPtpNano();
    ASSERT_EQ(oxEventNormalizeEvent(&record, 1, &event), OXEVENT_OK);
    EXPECT_EQ(given == &oxEventRecord::utc_ns ? event.utc_ns : event.ptp_ns, 7u);
    EXPECT_GE(given == &oxEventRecord::utc_ns ? event.ptp_ns : event.utc_ns, now);
  }
}

TEST(oxEventNormalize, ReadsOnlyTheFieldsThatTheCallersRecordHoldsWholly) {
  oxEventRecord record = {};
  record.version = OXEVENT_API_VERSION;
  record.message = record.action = record.dedupe_key = record.correlation_id = record.timecode = record.units =
      record.details_json = "x";
  record.severity = OXEVENT_SEVERITY_ERROR;
  record.utc_ns = record.duration_ms = 7;
  record.pts = 7;
  record.value = record.threshold = 7;
  for (record.struct_size = 0; record.struct_size <= 160; ++record.struct_size) {
    SCOPED_TRACE(record.struct_size);
    oxEventNormalizedEvent event;
    const uint32_t result = oxEventNormalizeEvent(&record, 1, &event);
    ASSERT_EQ(result, record.struct_size < 48 ? OXEVENT_INVALID_ARGUMENT : OXEVENT_OK);
    if (result != OXEVENT_OK) continue;
    const auto given = [&](const auto& field, auto value, decltype(value) absent) {
      const auto end = reinterpret_cast<const char*>(&field + 1) - reinterpret_cast<const char*>(&record);
      return record.struct_size >= static_cast<size_t>(end) ? value : absent;
    };
    using Text = std::string_view;
    EXPECT_EQ(event.severity, given(record.severity, OXEVENT_SEVERITY_ERROR, OXEVENT_SEVERITY_INFO));
    EXPECT_EQ(event.action, given(record.action, Text("x"), ""));
    EXPECT_EQ(event.dedupe_key, given(record.dedupe_key, Text("x"), ""));
    EXPECT_EQ(event.correlation_id, given(record.correlation_id, Text("x"), ""));
    EXPECT_EQ(event.utc_ns == 7, given(record.utc_ns, true, false));
    EXPECT_EQ(event.pts, given(record.pts, 7, 0));
    EXPECT_EQ(event.timecode, given(record.timecode, Text("x"), ""));
    EXPECT_EQ(event.value, given(record.value, 7, 0));
    EXPECT_EQ(event.threshold, given(record.threshold, 7, 0));
    EXPECT_EQ(event.units, given(record.units, Text("x"), ""));
    EXPECT_EQ(event.duration_ms, given(record.duration_ms, 7u, 0u));
    EXPECT_EQ(event.details_json, given(record.details_json, Text("x"), "{}"));
  }
}

TEST(oxEventState, GoesByActionKeyTimeAndContent) {
  // What is not as by default, the interval, and steps: action, key, time in ns, and the action that goes on or "-".
  const std::tuple<bool oxEventConfig::*, uint32_t, const char*> cases[] = {
      {nullptr, 1800, "raise k 1e9 raise raise k 1800999999999 - RAISE k 1801e9 repeat raise k 1801e9 -"},
      {nullptr, 1800, "raise k 1e9 repeat update k 1e9 update UPDATE k 2e9 - update k 1800999999999 - clear y 9 -"},
      {nullptr, 1800, "Update k 1801e9 Update update k 1801e9 - repeat k 3600999999999 - Repeat k 3601e9 Repeat"},
      {nullptr, 1800, "update k 3601e9 update update u 2 raise update u 3 - raise x 0 raise raise x 0 repeat"},
      {nullptr, 1800, "repeat y 9 - cleaR k 9 cleaR clear k 9 - raise j 2 raise raise j 3 - raise k 2 raise"},
      {nullptr, 1800, "raise none 1 raise raise s:t 1 - clear s:t 1 clear raises k 1 raises rais\xC5 k 1 rais\xC5"},
      {nullptr, 0, "raise k 1 repeat raise k 1 repeat update u 3 update update u 3 update"},
      {&oxEventConfig::state_enabled, 1800, "raise k 1 raise clear k 1 clear repeat y 1 repeat"},
      {&oxEventConfig::dedupe_enabled, 1800, "raise k 1 raise clear k 1 clear repeat y 1 repeat"},
      {&oxEventConfig::send_clear, 1800, "raise k 3 - clear k 3 - raise k 1 raise clear y 1 -"},
      {&oxEventConfig::route_orphan_clear, 1800, "clear y 1 clear clear y 1 clear repeat y 1 -"},
      {nullptr, UINT32_MAX, "raise k 4294967295e9 - raise k 1.8e19 repeat raise k 5 repeat"}};
  oxEventState state;
  oxEventNormalizedEvent event, out;
  const auto outcome = [&] {
    bool route = false;
    EXPECT_EQ(state.Evaluate(event, &out, &route), OXEVENT_OK);
    return std::string(route ? out.action : "-");
  };
  const auto twice = [&] { return outcome().append(outcome()); };
  event.source_id = "s", event.event_type = "t";
  for (const auto& [flipped, seconds, steps] : cases) {
    oxEventConfig config;
    config.default_repeat_interval_sec = seconds;
    if (flipped != nullptr) config.*flipped = !(config.*flipped);
    state.Configure(config);  // Keeps what is active.
    std::istringstream in(steps);
    for (std::string action, key, time, expected; in >> action >> key >> time >> expected;) {
      event.action = action, event.dedupe_key = key == "none" ? std::string_view() : key;
      event.utc_ns = static_cast<uint64_t>(std::stold(time));
      EXPECT_EQ(outcome(), expected) << steps << ": " << event.action << " " << time;
    }
  }
  state.Reset();
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

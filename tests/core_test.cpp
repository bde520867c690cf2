// The queue and the state against models of their own, and the router's counters.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <deque>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "core/oxEventQueue.h"
#include "core/oxEventRouter.h"
#include "core/oxEventState.h"
#include "sinks/oxEventSinkSet.h"

using namespace std::chrono_literals;

namespace {

constexpr uint64_t kAccepted = 1ull << 40, kDropped = 1ull << 48;

// An event whose other fields follow from its id.
uint64_t Enqueue(oxEventQueue* queue, uint64_t id, size_t text_size = 20) {
  const std::string text(text_size, static_cast<char>(id));
  oxEventView event;
  event.event_id = id;
  event.severity = static_cast<uint32_t>(id % 5);
  event.message = event.details_json = text;
  bool accepted = true, dropped = true;
  const uint32_t result = queue->Enqueue(event, &accepted, &dropped);
  return result + (accepted ? kAccepted : 0) + (dropped ? kDropped : 0);
}

uint64_t Pop(oxEventQueue* queue, oxEventNormalizedEvent* out) {
  if (!queue->WaitPop(out)) return 0;
  return out->message == std::string(out->message.size(), static_cast<char>(out->event_id)) ? out->event_id : 0;
}

// What the queue does, without a thought for speed or threads.
struct QueueModel {
  std::deque<uint64_t> pending = {};
  uint32_t capacity = 1, active = 0;
  bool debug_info_first = false, accepting = false, stop = false;

  bool DropDebugInfo() {
    const auto oldest = std::find_if(pending.begin(), pending.end(), [](uint64_t id) { return id % 5 < 2; });
    return debug_info_first && oldest != pending.end() && (pending.erase(oldest), true);
  }
  uint64_t Configure(uint32_t size, oxEventDropPolicy policy) {
    capacity = std::max(size, 1u), debug_info_first = policy == oxEventDropPolicy::kDropDebugInfoFirst;
    const uint64_t before = pending.size();
    while (pending.size() > capacity) DropDebugInfo() ? void() : pending.pop_back();
    return before - pending.size();
  }
  uint64_t Enqueue(uint64_t id) {
    if (!accepting) return OXEVENT_NOT_INITIALIZED;
    const uint64_t dropped = pending.size() < capacity ? 0 : kDropped;
    if (dropped && !DropDebugInfo()) return dropped;
    return pending.push_back(id), kAccepted + dropped;
  }
};

TEST(oxEventQueue, DoesAsTheModelDoes) {
  for (uint32_t seed = 1, bulk = 1; seed < 4000 && !HasFailure(); bulk = ++seed % 40 == 0 ? 30 : 1) {
    std::minstd_rand random(seed);
    const auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() >> 8) % n; };
    oxEventQueue queue;
    oxEventNormalizedEvent out;
    QueueModel model;
    for (int step = 0; step < 80; ++step) {
      const uint32_t id = below(900) + 1, size = below(30) == 0 ? 0xFFFFFFFF : below(7) * bulk;
      const auto policy = static_cast<oxEventDropPolicy>(below(2));
      const char call = step == 0 && seed % 8 != 0 ? 'S' : "EEEEEEEEEEEEEEPPPPPPcccccCCCDDSAQR"[below(34)];
      uint64_t got = 0, want = 0;
      for (uint32_t i = call == 'E' ? bulk : 0; i-- > 0;) got += Enqueue(&queue, id + i), want += model.Enqueue(id + i);
      if (call == 'C') got = queue.Configure(size, policy), want = model.Configure(size, policy);
      if (call == 'D') got = queue.DropPending(), want = model.pending.size(), model.pending.clear();
      if (call == 'S') queue.Start(size, policy), model = {.accepting = true}, model.Configure(size, policy);
      if (call == 'A') queue.StopAccepting(), model.accepting = false;
      if (call == 'Q') queue.RequestStop(), model.accepting = !(model.stop = true);
      if (call == 'R') queue.Reset(), model = {};
      if (call == 'c') queue.CompleteActiveEvent(), model.active -= model.active != 0;
      if (call == 'P' && !model.pending.empty()) want = model.pending[0], model.pending.pop_front(), ++model.active;
      if (call == 'P' && (model.stop || want != 0)) got = Pop(&queue, &out);  // Else it would wait.
      const bool drained = model.pending.empty() && model.active == 0, wait = seed % 50 == 0 && step == 79;
      const std::tuple wanted(want, !model.pending.empty(), drained);
      EXPECT_EQ(std::tuple(got, queue.HasPending(), (drained || wait) && queue.Flush(1) == OXEVENT_OK), wanted)
          << "seed " << seed << ", step " << step << ", call " << call;
    }
  }
}

TEST(oxEventQueue, FlushEndsWhenDrainedAndNotBefore) {
  for (const char last_call : {'c', 'D', 'R'}) {
    oxEventQueue queue;
    queue.Start(1, oxEventDropPolicy::kDropNewest);
    EXPECT_TRUE(Enqueue(&queue, 1) == kAccepted && (last_call == 'D' || queue.WaitPop(nullptr)));
    std::atomic<bool> drained = false;
    std::jthread flusher([&] { EXPECT_TRUE(!queue.Flush(last_call == 'c' ? 0xFFFFFFFF : 0) && drained); });
    queue.RequestStop();  // Wakes it for nothing.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(queue.Flush(50) == OXEVENT_FAILURE && std::chrono::steady_clock::now() >= start + 50ms);
    drained = true;
    last_call == 'c' ? queue.CompleteActiveEvent() : last_call == 'R' ? queue.Reset() : (void)queue.DropPending();
  }
}

TEST(oxEventQueue, KeepsNoMemoryOfLongTexts) {
  oxEventQueue queue;
  queue.Start(1, oxEventDropPolicy::kDropDebugInfoFirst);
  oxEventNormalizedEvent out, fresh;
  EXPECT_TRUE(Enqueue(&queue, 5, 1 << 20) && Pop(&queue, &out) && Enqueue(&queue, 5, 1 << 20));
  EXPECT_TRUE(Enqueue(&queue, 7) && Pop(&queue, &out) && Enqueue(&queue, 8) && Pop(&queue, &fresh));
  EXPECT_LE(std::max({out.message.capacity(), fresh.message.capacity(), fresh.details_json.capacity()}), 4096u);
}

using Event = oxEventNormalizedEvent;
constexpr uint64_t kSecond = 1'000'000'000;

std::string Signature(const Event& e, const std::string& action) {
  std::ostringstream text;
  text << e.event_type << '\n' << e.source_id << '\n' << e.source_name << '\n' << e.message << '\n' << e.severity;
  text << '\n' << action << '\n' << e.dedupe_key << '\n' << e.correlation_id << '\n' << e.pts << '\n' << e.timecode;
  text << '\n' << e.value << '\n' << e.threshold << '\n' << e.units << '\n' << e.duration_ms << '\n';
  return text.str() + e.details_json + '\n';
}

// What becomes of an event: "+" routed, "-" not; "s" stored, "r" removed; then the new action, if any.
const std::map<std::string, std::string> kTable = {
    {"raise new", "+s"},      {"raise early", "-"},  {"raise late", "+srepeat"}, {"update new", "+sraise"},
    {"update changed", "+s"}, {"update early", "-"}, {"update late", "+s"},      {"repeat new", "-"},
    {"repeat early", "-"},    {"repeat late", "+s"}, {"clear new", "-"},         {"clear known", "-r"},
    {"orphan clear", "+"},    {"sent clear", "+r"}};

// Goes by the table, on texts and ordered maps.
struct StateModel {
  oxEventConfig config = {};
  std::map<std::string, std::pair<std::string, uint64_t>> active = {};  // Signature and last sent by key.
  std::map<std::string, int> reached = {};                              // By row.

  bool Evaluate(const Event& event, Event* out) {
    std::string action = event.action;
    for (char& c : action) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
    const std::string key = event.dedupe_key.empty() ? event.source_id + ":" + event.event_type : event.dedupe_key;
    *out = event;
    if (!config.state_enabled || !config.dedupe_enabled || kTable.count(action + " new") == 0) return true;
    const bool known = active.count(key) != 0;
    const auto [signature, last] = known ? active[key] : std::pair<std::string, uint64_t>();
    const uint64_t interval = config.default_repeat_interval_sec * kSecond;
    const bool late = interval == 0 || last == 0 || last > event.utc_ns || event.utc_ns - last >= interval;
    const bool changed = action == "update" && Signature(event, action) != signature;
    std::string row = action + (!known ? " new" : changed ? " changed" : late ? " late" : " early");
    if (action == "clear" && known) row = config.send_clear ? "sent clear" : "clear known";
    if (action == "clear" && !known && config.route_orphan_clear) row = "orphan clear";
    ++reached[row];
    const std::string& outcome = kTable.at(row);
    if (outcome.size() > 2) out->action = outcome.substr(2);
    if (outcome[1] == 's') active[key] = {Signature(event, action), event.utc_ns};
    if (outcome[1] == 'r') active.erase(key);
    return outcome[0] == '+';
  }
};

TEST(oxEventState, DoesAsTheModelDoes) {
  StateModel model;
  for (uint32_t seed = 1; seed < 4000 && !HasFailure(); ++seed) {
    std::minstd_rand random(seed);
    const auto pick = [&](auto... choices) { return std::data({choices...})[(random() >> 8) % sizeof...(choices)]; };
    oxEventState state;
    Event out, expected;
    uint64_t now = 1800 * kSecond;
    for (int step = 0; step < 60; ++step) {
      if (step == 0 || pick(0, 0, 0, 0, 0, 0, 0, 1)) {
        model.config.state_enabled = pick(1, 1, 1, 1, 1, 0), model.config.dedupe_enabled = pick(1, 1, 1, 1, 1, 0);
        model.config.send_clear = pick(true, false), model.config.route_orphan_clear = pick(true, false);
        model.config.default_repeat_interval_sec = pick(0u, 1u, 1800u, 1800u, 0xFFFFFFFFu);
        state.Configure(model.config);
        if (step == 0 || pick(0, 0, 1)) state.Reset(), model.active.clear();
      }
      now += pick(0ul, 1ul, kSecond - 1, kSecond, 900 * kSecond, 1800 * kSecond - 1, 1800 * kSecond);
      Event event;
      event.event_id = event.ptp_ns = random();
      event.utc_ns = pick(now, now, now, now, now, now, 0ul, now - 1, now - kSecond, ~0ul);
      event.action = pick("raise", "RAISE", "update", "update", "Update", "clear", "cleaR", "repeat", "", "rais\xC5");
      event.dedupe_key = pick("", "k", "k", "k:");
      event.*pick(&Event::event_type, &Event::source_id, &Event::source_name, &Event::message, &Event::units,
                  &Event::timecode, &Event::correlation_id, &Event::details_json) = pick("", "", "k", "\n");
      if (pick(0, 0, 1)) {
        event.*pick(&Event::value, &Event::threshold) = pick(0.0, 0.0, 0.0, -0.0, 1.0000001, 1.00001, std::nan(""));
        event.severity = pick(1u, 1u, 1u, 9u), event.pts = pick(0, 0, 0, -1), event.duration_ms = pick(0u, 0u, 1u);
      }
      bool route = false;
      const bool expected_route = model.Evaluate(event, &expected);
      ASSERT_EQ(state.Evaluate(event, &out, &route), OXEVENT_OK);
      const auto text = [](const Event& e) { return Signature(e, e.action) + std::to_string(e.utc_ns + e.ptp_ns); };
      EXPECT_EQ(std::pair(route, text(out)), std::pair(expected_route, text(expected))) << seed << " " << step;
    }
  }
  for (const auto& [row, outcome] : kTable) EXPECT_GT(model.reached[row], 500) << row;
}

TEST(oxEventRouter, CountsEachEventOnce) {
  static std::atomic<int> held;  // 1: in the callback; 2: let go.
  const auto callback = [](const oxEventRecord* event, void*) {
    if (event->message[0] == 'x') throw 1;
    if (event->message[0] == 'g') held = 1, held.notify_all(), held.wait(1);
  };
  const auto submit = [](const char* message, uint32_t severity, const char* action = "") {
    oxEventView event;
    event.message = message, event.severity = severity, event.action = action, event.utc_ns = 1;
    return oxEventCoreSubmit(event);
  };
  const auto counts = [] {
    const oxEventCounters c = oxEventCoreGetCounters();
    return std::array<uint64_t, 4>{c.submitted, c.emitted, c.dropped, c.sink_failures};
  };
  oxEventConfig config;
  const auto shared = [&](uint32_t size) { return config.queue_size = size, std::make_shared<oxEventConfig>(config); };
  uint32_t id = 0;
  EXPECT_EQ(oxEventSinkInitialize(config) | oxEventSinkRegisterCallback(callback, nullptr, &id), 0u);
  EXPECT_EQ(oxEventCoreStart(shared(4)) | submit("low", 0) | submit("gate", 1), 0u);
  held.wait(0);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(submit("full", 2), 0u);
  EXPECT_EQ(counts(), (std::array<uint64_t, 4>{8, 0, 3, 0}));  // One below the minimum, two that found it full.
  EXPECT_EQ(oxEventCoreReloadConfig(shared(1)), 0u);           // Three more do not fit.
  held = 2, held.notify_all();
  for (const char* action : {"raise", "raise", "ack"}) EXPECT_EQ(oxEventCoreFlush(0) | submit("x", 1, action), 0u);
  EXPECT_EQ(oxEventCoreStop(9999) | oxEventSinkShutdown(), 0u);
  EXPECT_EQ(counts(), (std::array<uint64_t, 4>{11, 4, 7, 2}));
}

}  // namespace

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <sstream>

#include "core/oxEventState.h"

namespace {

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
struct Model {
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
  Model model;
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

}  // namespace

// oxEvent.hpp as a host uses it.
#include <future>
#include <optional>
#include <random>

#include "../include/oxEvent.hpp"
#include "../include/oxEvent/active_file.hpp"
#include "faults.h"
#include "host_fixture.h"

namespace {

using std::string_literals::operator""s;
using Strings = std::vector<std::string>;
using namespace oxEvent;

TEST(oxEventHppEvent, KeepsTheTextsThatItWasGiven) {
  using Setter = Event& (Event::*)(std::string_view);
  constexpr std::pair<Setter, const char * oxEventRecord::*> kTexts[] = {
      {&Event::message, &oxEventRecord::message},
      {&Event::event_type, &oxEventRecord::event_type},
      {&Event::source_id, &oxEventRecord::source_id},
      {&Event::source_name, &oxEventRecord::source_name},
      {&Event::action, &oxEventRecord::action},
      {&Event::dedupe_key, &oxEventRecord::dedupe_key},
      {&Event::correlation_id, &oxEventRecord::correlation_id},
      {&Event::timecode, &oxEventRecord::timecode},
      {&Event::units, &oxEventRecord::units},
      {&Event::details_json, &oxEventRecord::details_json}};
  std::mt19937 random(1);
  for (const size_t limit : {100u, 2000u}) {  // Texts that mostly fit into the object, and texts that do not.
    Strings expected(std::size(kTexts), "not set");
    Event event;
    for (int i = 0; i < 1000; ++i) {
      const size_t which = random() % std::size(kTexts);
      expected[which] = std::string(random() % limit, static_cast<char>('a' + i % 26));
      (event.*kTexts[which].first)(expected[which] + "\0ignored"s);
      if (i % 100 == 0) event = Event(event);
      event.CallWithRecord([&](const oxEventRecord& record) {
        for (size_t text = 0; text < std::size(kTexts); ++text) {
          const char* const actual = record.*kTexts[text].second;
          ASSERT_EQ(actual == nullptr ? "not set" : actual, expected[text]) << "text " << text;
        }
      });
    }
  }
}

#ifndef OXEVENT_SANITIZED  // A sanitizer's operator new[] does not call the operator new that the test lets fail.
TEST(oxEventHppEvent, IsNotSubmittedWithoutATextForWhichThereWasNoMemory) {
  const std::string long_text(1000, 'x');
  const Event whole(long_text);
  const Event fits(std::string(510, 'x'));
  const Faults faults([](std::string_view call, long) { return call == "malloc" ? ENOMEM : 0; });
  const Event copy = whole;
  EXPECT_EQ(copy.Submit(), std::errc::not_enough_memory);
  EXPECT_EQ(Event(Event("m").details_json(long_text)).Submit(), std::errc::not_enough_memory);
  EXPECT_EQ(Event("m").Submit(), Errc::kNotInitialized);
  EXPECT_EQ(Event(fits).Submit(), Errc::kNotInitialized);
}
#endif

TEST(oxEventHppEvent, WritesTheLocationAsJson) {
  const Event event = Event().location("a\\\"\n\x1f\x7f\xc3\xa9.cpp", 4294967296, "");
  event.CallWithRecord([](const oxEventRecord& record) {
    EXPECT_STREQ(record.details_json, R"({"file":"a\\\"\u000a\u001f)"
                                      "\x7f\xc3\xa9"
                                      R"(.cpp","line":4294967296,"function":""})");
  });
}

struct oxEventHpp : testing::Test {
  oxEventHpp() { WriteSettings(settings, "", {{"state\\route_orphan_clear", "1"}}); }
  ~oxEventHpp() override { oxEventShutdown(); }

  // Registers a callable that records the fields by which receivers match a clear with its raise, and some others.
  void RecordReports() {
    recorder.emplace([this](const oxEventRecord& event) {
      reports.push_back(std::to_string(event.severity) + ' ' + event.event_type + ' ' + event.source_id + ' ' +
                        event.source_name + ' ' + event.dedupe_key + ": " + event.action + ' ' + event.message + ' ' +
                        std::to_string(static_cast<int>(event.threshold)) + event.units + event.correlation_id);
    });
  }

  const HostFolder folder{};
  const std::string settings = folder.path + "/settings";
  Strings reports;
  std::optional<Callback> recorder;
};

TEST_F(oxEventHpp, SessionReportsWhyItDidNotStartAndShutsDownOnlyWhatItHasStarted) {
  const std::string missing(1000, 'x');
  std::error_code error;
  const Session failed(missing.c_str(), error);
  EXPECT_EQ(error, Errc::kInvalidArgument);
  EXPECT_EQ(oxEvent::ErrorText(error), "Unable to open oxEvent config: " + missing);
  EXPECT_THROW(Session(""), std::system_error);
  {
    const Session session(settings.c_str());
    { const Session second(settings.c_str(), error); }
    EXPECT_EQ(error, Errc::kAlreadyInitialized);
    EXPECT_FALSE(Event("m").Submit());
  }
  EXPECT_EQ(Event("m").Submit(), Errc::kNotInitialized);
}

TEST_F(oxEventHpp, ConditionClearsWithTheIdentityOfItsRaise) {
  RecordReports();
  Session session(settings.c_str());
  const Event identity = Event("ignored")
                             .severity(Severity::kError)
                             .event_type("fan.stopped")
                             .source_id("fan-2")
                             .source_name("Fan 2")
                             .dedupe_key("key")
                             .threshold(4)
                             .units("bar")
                             .correlation_id("c");
  Condition condition(identity);
  EXPECT_FALSE(condition.Raise("a"));
  EXPECT_FALSE(condition.Update(Event("b").severity(Severity::kDebug).threshold(5).units("psi")));
  EXPECT_TRUE(condition.IsRaised());
  EXPECT_FALSE(condition.Clear(Event("c").event_type("x").source_id("x").source_name("x").dedupe_key("x")));
  EXPECT_FALSE(condition.IsRaised());
  EXPECT_FALSE(session.Shutdown());
  EXPECT_EQ(reports,
            (Strings{"3 fan.stopped fan-2 Fan 2 key: raise a 4barc", "3 fan.stopped fan-2 Fan 2 key: update b 5psic",
                     "3 fan.stopped fan-2 Fan 2 key: clear c 4barc"}));
}

TEST_F(oxEventHpp, ConditionEndsTheAlarmOnlyIfAskedTo) {
  RecordReports();
  Session session(settings.c_str());
  {
    Condition not_asked(Event().dedupe_key("a"));
    EXPECT_FALSE(not_asked.Raise("raised"));
    Condition not_raised(Event().dedupe_key("b"));
    not_raised.ClearAtEnd("ended");
    Condition moved_from(Event().dedupe_key("c"));
    EXPECT_FALSE(moved_from.Raise("raised"));
    moved_from.ClearAtEnd("ended");
    const Condition asked(std::move(moved_from));
  }
  try {
    Condition unwound(Event().dedupe_key("d"));
    unwound.ClearAtEnd("ended");
    EXPECT_FALSE(unwound.Raise("raised"));
    throw std::runtime_error("failure of the host");
  } catch (const std::runtime_error&) {
  }
  EXPECT_FALSE(session.Shutdown());
  EXPECT_EQ(reports, (Strings{"1 event  oxEvent a: raise raised 0", "1 event  oxEvent c: raise raised 0",
                              "1 event  oxEvent c: clear ended 0", "1 event  oxEvent d: raise raised 0"}));
}

struct oxEventHppActiveFile : oxEventHpp {
  // Returns a file with a condition that a previous run has raised, and that the host no longer raises.
  ActiveFile RaiseInAPreviousRun(const std::string& key) const {
    const std::string file = folder.path + "/conditions";
    ActiveFile::Options options;
    options.grace = std::chrono::milliseconds(0);
    std::error_code error;
    {
      const ActiveFile previous(file, options, error);
      const Session session(settings.c_str());
      EXPECT_FALSE(Event("m").action("raise").dedupe_key(key).Submit());
    }
    return ActiveFile(file, options, error);
  }
};

TEST_F(oxEventHppActiveFile, ReportsASuppressedClear) {
  WriteSettings(settings, "", {{"state\\route_orphan_clear", "0"}});
  ActiveFile conditions = RaiseInAPreviousRun("k");
  const Session session(settings.c_str());
  EXPECT_EQ(conditions.Poll(), std::errc::operation_not_permitted);
}

TEST_F(oxEventHppActiveFile, WritesAtTheNextPollWhatItCouldNotWrite) {
  std::error_code error;
  ActiveFile conditions(folder.path + "/new/conditions", {}, error);
  const Session session(settings.c_str());
  EXPECT_FALSE(Event("m").action("raise").dedupe_key("k").Submit());
  EXPECT_FALSE(Flush());
  std::filesystem::create_directory(folder.path + "/new");
  EXPECT_FALSE(conditions.Poll()) << "It has not tried again.";
  EXPECT_NE(ReadFile(folder.path + "/new/conditions").find("\nraised\t"), std::string::npos);
}

#ifndef OXEVENT_SANITIZED  // A sanitizer replaces malloc itself.
TEST_F(oxEventHppActiveFile, TriesAFailedClearAgainAtTheNextPoll) {
  const std::string key(100000, 'k');  // The library's copy of an event with this key comes from malloc.
  ActiveFile conditions = RaiseInAPreviousRun(key);
  const Session session(settings.c_str());
  {
    const Faults no_copy([&](std::string_view call, long first) {
      return call == "malloc" && static_cast<size_t>(first) > key.size() + 100 ? ENOMEM : 0;
    });
    EXPECT_EQ(conditions.Poll(), std::errc::operation_canceled);
  }
  EXPECT_FALSE(conditions.Poll());
  EXPECT_FALSE(Flush());
  EXPECT_EQ(conditions.Unconfirmed(), 0u);
}
#endif

// Has a callback whose first call blocks until `release` is set.
struct oxEventHppCallback : oxEventHpp {
  void BlockInCallback() {
    callback.emplace([this, owned = std::make_unique<int>(0)](const oxEventRecord&) {
      if ((*owned)++ > 0) return;
      entered.set_value();
      release.get_future().wait();
      returned = true;
      throw std::runtime_error("failure of the callback");
    });
    EXPECT_FALSE(Event("m").Submit());
    entered.get_future().wait();
  }

  std::optional<Callback> callback;
  std::promise<void> entered;
  std::promise<void> release;
  std::atomic<bool> returned = false;
};

TEST_F(oxEventHppCallback, DestructorWaitsForTheRunningCall) {
  const Session session(settings.c_str());
  uint32_t id = 0;
  ASSERT_EQ(oxEventRegisterCallback([](const oxEventRecord*, void*) {}, nullptr, &id), OXEVENT_OK);
  BlockInCallback();
  EXPECT_NE(oxEvent::Flush(std::chrono::milliseconds(0)), std::error_code()) << "0 must not wait without a limit";
  auto removal = std::async(std::launch::async, [this] {
    callback.reset();
    return returned.load();
  });
  EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  release.set_value();
  EXPECT_TRUE(removal.get());
  EXPECT_EQ(oxEventUnregisterCallback(id + 1), OXEVENT_NOT_FOUND);
}

TEST_F(oxEventHppCallback, CanBeDestroyedInAForkedChild) {
  const Session session(settings.c_str());
  BlockInCallback();
  const auto replace_callback = [this] {
    callback.reset();
    std::error_code error;
    const Callback another([](const oxEventRecord&) {}, error);
    return error ? 1 : 0;
  };
  EXPECT_EQ(InChild(replace_callback), 0);
  release.set_value();
}

TEST_F(oxEventHppCallback, CanBeDestroyedInItsOwnCallAndAfterAShutdown) {
  const auto alive = std::make_shared<int>(0);
  Session session(settings.c_str());
  Callback until_shutdown([alive](const oxEventRecord&) { ++*alive; });
  callback.emplace([this, alive](const oxEventRecord&) {
    callback.reset();
    *alive += 10;
  });
  EXPECT_FALSE(Event("m").Submit());
  EXPECT_FALSE(Event("m").Submit());
  EXPECT_FALSE(session.Shutdown());
  EXPECT_EQ(*alive, 12);
  until_shutdown = Callback();
  EXPECT_EQ(alive.use_count(), 1);
}

}  // namespace

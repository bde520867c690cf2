// The system's log around forks, with a syslog(3) that takes as long as a test wants.
#include <pthread.h>

#include <atomic>
#include <thread>

#include "host_fixture.h"
#include "platform/oxEventPlatform.h"

namespace {

std::atomic<int> g_lines = 0;
std::atomic<bool> g_held = false;

void Line() {
  for (++g_lines; g_held;) usleep(100);
}

extern "C" void syslog(int, const char*, ...) { Line(); }
extern "C" void __syslog_chk(int, int, const char*, ...) { Line(); }

struct oxEventNativeLog : testing::Test {
  oxEventNativeLog() { EXPECT_EQ(oxEventPlatformNativeOpen({}, &handle, nullptr), OXEVENT_OK); }
  ~oxEventNativeLog() override { oxEventPlatformNativeClose(handle); }
  bool Writes() const { return oxEventPlatformNativeWrite(handle, {}, nullptr, nullptr) == OXEVENT_OK; }
  int LinesOfChild() const {  // 9: it is refused.
    return InChild([this] { return g_held = false, g_lines = 0, Writes() ? g_lines.load() : 9; });
  }
  void WhileALineGoesOut(const std::function<void()>& then) {
    g_held = true, g_lines = 0;
    std::thread writer([this] { EXPECT_TRUE(Writes()); });
    while (g_lines == 0) usleep(100);
    then();
    g_held = false, writer.join();
  }
  oxEventNativeLogHandle* handle = nullptr;
};

TEST_F(oxEventNativeLog, RefusesOnlyInAChildWhoseParentWasWriting) {
  WhileALineGoesOut([this] { EXPECT_EQ(LinesOfChild(), 9); });
  EXPECT_EQ(LinesOfChild(), 1);
  EXPECT_EQ(InChild([this] { return LinesOfChild(); }), 1);
}

TEST_F(oxEventNativeLog, SurvivesTheCancellationOfAFork) {
  const auto fork_while_cancelled = [] {
    pthread_cancel(pthread_self());
    fork() == 0 ? _exit(0) : void();
  };
  WhileALineGoesOut([&] { std::thread(fork_while_cancelled).join(); });
  EXPECT_TRUE(Writes());
}

}  // namespace

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
  uint32_t Write() const { return oxEventPlatformNativeWrite(handle, {}, nullptr, nullptr); }
  int LinesOfChild() const {  // Of two; 9: one is refused.
    return InChild([this] { return g_held = false, g_lines = 0, Write() | Write() ? 9 : g_lines.load(); });
  }
  void HoldLine() {
    g_held = true, g_lines = 0;
    writer = std::thread([this] { EXPECT_EQ(Write(), OXEVENT_OK); });
    while (g_lines == 0) usleep(100);
  }
  void LetGo() { g_held = false, writer.join(); }

  oxEventNativeLogHandle* handle = nullptr;
  std::thread writer;
};

TEST_F(oxEventNativeLog, WorksInTheChildOfAFork) {
  EXPECT_EQ(InChild([this] { return Write() == OXEVENT_OK ? LinesOfChild() : 9; }), 2);
  EXPECT_EQ(Write(), OXEVENT_OK);
}

TEST_F(oxEventNativeLog, RefusesInAChildWhoseParentWasWriting) {
  HoldLine();
  EXPECT_EQ(LinesOfChild(), 9);
  LetGo();
  EXPECT_EQ(LinesOfChild(), 2);
}

TEST_F(oxEventNativeLog, SurvivesTheCancellationOfAFork) {
  HoldLine();
  std::thread([] {
    pthread_cancel(pthread_self());
    if (fork() == 0) _exit(0);
    while (wait(nullptr) > 0) continue;
  }).join();
  LetGo();
  EXPECT_EQ(Write(), OXEVENT_OK);
}

}  // namespace

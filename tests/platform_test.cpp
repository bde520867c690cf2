// Folders, files and the system's log, with a syslog(3) that keeps the line and takes as long as a test wants.
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdarg>
#include <thread>

#include "faults.h"
#include "host_fixture.h"
#include "platform/oxEventAppendFile.h"
#include "platform/oxEventPlatformFiles.h"
#include "platform/oxEventSignalBlock.h"
#include "platform/oxEventSystemLog.h"

namespace {

using std::string;

std::atomic<int> g_lines = 0;
std::atomic<bool> g_held = false;
int g_priority = 0;  // Of the last line.
string g_line;

void Line(int priority, va_list arguments) {
  g_priority = priority;
  g_line = va_arg(arguments, const char*);
  for (++g_lines; g_held;) usleep(100);
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Line(priority, arguments);
  va_end(arguments);
}
extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Line(priority, arguments);
  va_end(arguments);
}

TEST(oxEventPlatformFiles, MakesTheFoldersAboveAFile) {
  const HostFolder holder;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(holder.path);
  std::ofstream("file") << "";
  const string name(250, 'n'), deep = name + '/' + name + '/' + name + '/' + name + '/' + name;
  const struct {
    string path, folder;  // Empty: none is needed.
  } cases[] = {{"x", ""},     {"./x", "."},          {"/x", "/"},   {"a/b/x", "a/b"},  {"1e/x", "1e"},
               {"c\\x", "c"}, {"d//e\\\\x", "d//e"}, {"f/g/", "f"}, {"C:\\x", "C:\\"}, {"D:\\y\\x", "D:\\y"},
               {"G:x", ""},   {"ab/", ""},           {"k:mn/", ""}, {"h\\\\x", "h"},   {deep + "/x", deep}};
  for (const auto& c : cases) {
    EXPECT_TRUE(oxEventPlatformEnsureParentDirectory(c.path, nullptr)) << c.path;
    EXPECT_TRUE(c.folder.empty() || std::filesystem::is_directory(c.folder)) << c.path;
  }
  for (const char* path : {"file/x", "file/y/x"}) {
    string error;
    EXPECT_FALSE(oxEventPlatformEnsureParentDirectory(path, &error)) << path;
    EXPECT_TRUE(error.ends_with(": file")) << error;
  }
  EXPECT_EQ(Entries("."), 11u);
  std::filesystem::current_path(before);
}

TEST(oxEventAppendFile, WaitsForRoomInAPipeThroughSignals) {
  const HostFolder folder;
  const string path = folder.path + "/pipe", bytes(5000, 'b');
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  for (const bool is_read : {true, false}) {
    const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(fcntl(reader, F_SETPIPE_SZ, 4096), 4096);
    int polls = 0;
    const Faults faults([&](std::string_view call, long) {
      if (call != "poll") return 0;
      if (++polls == 1) return EINTR;
      return is_read && read(reader, string(4096, 0).data(), 4096) != 4096 ? EIO : 0;
    });
    oxEventAppendFile file;
    EXPECT_TRUE(file.Open(path));
    EXPECT_EQ(file.Write(bytes.data(), bytes.size()), is_read ? 5000u : 4096u);
    EXPECT_EQ(file.IsFullPipe(), !is_read);
    EXPECT_EQ(polls, 2);
    close(reader);
  }
}

TEST(oxEventSignalBlock, LeavesTheHostsOwnPendingSignal) {
  sigset_t pipe, pending;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  for (const bool is_the_hosts : {false, true}) {
    if (is_the_hosts) raise(SIGPIPE);
    {
      const oxEventSignalBlock block(oxEventSignalBlock::kFileErrors);
      raise(SIGPIPE);
    }
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE) == 1, is_the_hosts);
  }
}

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
  WhileALineGoesOut([this] {
    EXPECT_EQ(LinesOfChild(), 9);
    EXPECT_EQ(InChild([this] { return LinesOfChild(); }), 9);
  });
  EXPECT_EQ(LinesOfChild(), 1);
  EXPECT_EQ(InChild([this] { return LinesOfChild(); }), 1);
}

TEST_F(oxEventNativeLog, OpensAndClosesWhileALineOfAnotherSinkHangs) {
  WhileALineGoesOut([] {
    oxEventNativeLogHandle* other = nullptr;
    EXPECT_EQ(oxEventPlatformNativeOpen({}, &other, nullptr), OXEVENT_OK);
    oxEventPlatformNativeClose(other);
  });
  EXPECT_TRUE(Writes());
}

TEST_F(oxEventNativeLog, SurvivesTheCancellationOfAFork) {
  const auto fork_while_cancelled = [] {
    pthread_cancel(pthread_self());
    fork() == 0 ? _exit(0) : void();
  };
  WhileALineGoesOut([&] { std::thread(fork_while_cancelled).join(); });
  EXPECT_TRUE(Writes());
}

TEST_F(oxEventNativeLog, WritesWithItsFacility) {
  std::istringstream rows(
      "user 11 mail 19 daemon 27 auth 35 Security 35 authpriv 83 cron 75 ftp 91 local0 131 local1 139 local2 147 "
      "local3 155 local4 163 local5 171 local6 179 LOCAL7 187 local9 163 x 163");
  oxEventNativePlatformConfig config;
  oxEventNormalizedEvent event;
  event.severity = OXEVENT_SEVERITY_ERROR;
  for (int priority = 0; rows >> config.facility >> priority;) {
    oxEventPlatformNativeClose(handle);
    EXPECT_EQ(oxEventPlatformNativeOpen(config, &handle, nullptr), OXEVENT_OK);
    EXPECT_EQ(oxEventPlatformNativeWrite(handle, event, nullptr, nullptr), OXEVENT_OK);
    EXPECT_EQ(g_priority, priority) << config.facility;
  }
}

TEST_F(oxEventNativeLog, CutsBetweenCharactersOnlyWhatADatagramSocketIsKnownToRefuse) {
  const struct {
    const char* call;
    int error;
    size_t characters;  // Of two bytes each.
    bool cut;
  } cases[] = {{"connect", ENOENT, 150'000, true},
               {"connect", ENOENT, 50'000, false},
               {"connect", EPROTOTYPE, 150'000, false},  // A log that takes a stream.
               {"socket", EMFILE, 150'000, false},
               {"getsockopt", EINVAL, 150'000, false}};
  for (const auto& c : cases) {
    for (string message : {"", "x"}) {
      SCOPED_TRACE(c.call + std::to_string(c.error) + message);
      for (size_t i = 0; i < c.characters; ++i) message += "\xC3\xA9";
      oxEventNormalizedEvent event;
      event.message = message;
      event.severity = 4;  // None of ours: it goes out all the same.
      const Faults faults([&](std::string_view call, long) { return call == c.call ? c.error : 0; });
      EXPECT_EQ(oxEventPlatformNativeWrite(handle, event, nullptr, nullptr), OXEVENT_OK);
      EXPECT_TRUE(g_line.ends_with(c.cut ? "\xA9" : "\xA9\""));
      EXPECT_TRUE(!c.cut || g_line.size() > 200'000);
    }
  }
}

}  // namespace

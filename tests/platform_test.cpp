// Directories, files and the system log, with a syslog(3) that keeps the line and takes as long as a test wants.
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "faults.h"
#include "host_fixture.h"
#include "platform/oxEventAppendFile.h"
#include "platform/oxEventPlatformFiles.h"
#include "platform/oxEventSystemLog.h"

namespace {

using std::string;

std::atomic<int> g_lines = 0;
std::atomic<bool> g_held = false;
int g_opened_or_closed = 0;  // How often the log was.
int g_priority = 0;          // Of the last line.
string g_line;
string g_ident;  // Of the last openlog.

// The C library declares both as variadic functions, so these have names of their own.
extern "C" void OwnSyslog(int priority, const char* format, const char* line) __asm__("syslog");
extern "C" void OwnCheckedSyslog(int priority, int, const char* format, const char* line) __asm__("__syslog_chk");
void OwnSyslog(int priority, const char* /*format*/, const char* line) {
  g_priority = priority;
  g_line = line;
  ++g_lines;
  while (g_held) usleep(100);
}
void OwnCheckedSyslog(int priority, int, const char* format, const char* line) { OwnSyslog(priority, format, line); }
extern "C" void openlog(const char* ident, int, int) {
  ++g_opened_or_closed;
  g_ident = ident;
}
extern "C" void closelog() { ++g_opened_or_closed; }

TEST(oxEventPlatformFiles, MakesTheDirectoriesAboveAFile) {
  const HostFolder working_directory;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(working_directory.path);
  const mode_t mask = umask(0);
  const string name(250, 'n'), deep = name + '/' + name + '/' + name + '/' + name + '/' + name;
  const struct {
    string path, directory;  // Empty: none is needed.
  } cases[] = {{"x", ""},           {"./x", "."},          {"/x", "/"},   {"a/b/x", "a/b"},
               {"ab/", ""},         {"d//e\\\\x", "d//e"}, {"f/g/", "f"}, {"C:\\x", "C:\\"},
               {deep + "/x", deep}, {"h:ij/x", "h:ij"},    {"k/", ""},    {"\\x", "\\"}};
  for (const auto& c : cases) {
    EXPECT_TRUE(oxEventPlatformEnsureParentDirectory(c.path, nullptr)) << c.path;
    EXPECT_TRUE(c.directory.empty() || std::filesystem::is_directory(c.directory)) << c.path;
  }
  EXPECT_EQ(Entries("."), 7u);
  EXPECT_EQ(Entries("d") + Entries("f"), 1u);
  EXPECT_EQ(std::filesystem::status("a/b").permissions(), std::filesystem::perms(0775));
  EXPECT_TRUE(oxEventAppendFile().Open("file"));
  EXPECT_EQ(std::filesystem::status("file").permissions(), std::filesystem::perms(0666));
  umask(mask);
  string error;
  EXPECT_FALSE(oxEventPlatformEnsureParentDirectory("file/y/x", &error));
  EXPECT_EQ(error, "Unable to create directory for oxEvent CSV sink: file");
  std::filesystem::current_path(before);
}

TEST(oxEventAppendFile, RemovesOnlyTheFileThatItCreated) {
  const HostFolder folder;
  const string path = folder.path + "/file", other = folder.path + "/other";
  std::ofstream(other) << "";
  oxEventAppendFile file;
  EXPECT_TRUE(file.Open(path));
  file.RemoveIfCreated(other, 0);
  file.RemoveIfCreated(path, 1);
  EXPECT_EQ(Entries(folder.path), 2u) << "It has removed another file, or its own with bytes of another process.";
  file.RemoveIfCreated(path, 0);
  EXPECT_EQ(Entries(folder.path), 1u);
}

// A pipe has room for 4096 bytes. Signals interrupt the first write and two waits, the second of which times out.
TEST(oxEventAppendFile, WritesEverythingToAPipeDespiteSignals) {
  const HostFolder folder;
  const string path = folder.path + "/pipe", bytes(5000, 'b');
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(oxEventAppendFile().Open(path));  // It has no reader.
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(fcntl(reader, F_SETPIPE_SZ, 4096), 4096);
  int writes = 0, polls = 0;
  const Faults faults([&](std::string_view call, long) {
    if (call == "write" && ++writes == 1) return EINTR;
    if (call != "poll") return 0;
    if (++polls == 1 || polls == 3) return EINTR;
    return polls == 2 && read(reader, string(4096, 0).data(), 4096) != 4096 ? EIO : 0;
  });
  oxEventAppendFile file;
  EXPECT_TRUE(file.Open(path));
  EXPECT_EQ(file.Write(bytes.data(), bytes.size()), 5000u);
  EXPECT_EQ(polls, 2);
  EXPECT_LT(file.Write(bytes.data(), bytes.size()), 5000u);
  EXPECT_EQ(polls, 4);
  close(reader);
}

struct oxEventSystemLog : testing::Test {
  oxEventSystemLog() { EXPECT_EQ(oxEventPlatformNativeOpen({}, &handle, nullptr), OXEVENT_OK); }
  ~oxEventSystemLog() override { oxEventPlatformNativeClose(handle); }
  uint32_t Write(const oxEventNormalizedEvent& event = {}) const {
    bool warning = true;
    const uint32_t result = oxEventPlatformNativeWrite(handle, event, &warning, nullptr);
    EXPECT_FALSE(warning);
    return result;
  }
  // Returns whether a child of a fork can write.
  bool ChildWrites() const {
    return InChild([this] {
             g_held = false;
             return Write() == OXEVENT_OK ? 1 : 0;
           }) == 1;
  }
  void WhileALineIsBeingWritten(const std::function<void()>& run) {
    g_held = true;
    g_lines = 0;
    std::jthread writer([this] { EXPECT_EQ(Write(), OXEVENT_OK); });
    while (g_lines == 0) usleep(100);
    run();
    g_held = false;
  }
  oxEventNativeLogHandle* handle = nullptr;
};

TEST_F(oxEventSystemLog, RefusesWritesOnlyInAChildForkedDuringAWrite) {
  WhileALineIsBeingWritten([this] {
    EXPECT_FALSE(ChildWrites());
    EXPECT_EQ(InChild([this] { return ChildWrites(); }), 0);
  });
  EXPECT_TRUE(ChildWrites());
  EXPECT_EQ(InChild([this] { return ChildWrites(); }), 1);
}

// The C library's functions would hang, also in a child of a fork.
TEST_F(oxEventSystemLog, OpensAndClosesTheLogUnlessAWriteOfAnotherSinkHangs) {
  const auto open_and_close = [] {
    g_opened_or_closed = 0;
    oxEventNativeLogHandle* other = nullptr;
    EXPECT_EQ(oxEventPlatformNativeOpen({}, &other, nullptr), OXEVENT_OK);
    oxEventPlatformNativeClose(other);
    return g_opened_or_closed;
  };
  WhileALineIsBeingWritten([&] {
    EXPECT_EQ(open_and_close(), 0);
    EXPECT_EQ(InChild(open_and_close), 0);
  });
  EXPECT_EQ(open_and_close(), 2);
}

TEST_F(oxEventSystemLog, WritesWithTheConfiguredFacility) {
  const std::pair<const char*, int> cases[] = {
      {"kern", 3},     {"user", 11},     {"mail", 19},    {"daemon", 27},  {"auth", 35},    {"Security", 35},
      {"cron", 75},    {"authpriv", 83}, {"ftp", 91},     {"local0", 131}, {"local1", 139}, {"local2", 147},
      {"local3", 155}, {"local4", 163},  {"local5", 171}, {"local6", 179}, {"LOCAL7", 187}, {"local9", 163}};
  oxEventNativePlatformConfig config;
  for (const auto& [facility, priority] : cases) {
    oxEventPlatformNativeClose(handle);
    config.facility = facility;
    EXPECT_EQ(oxEventPlatformNativeOpen(config, &handle, nullptr), OXEVENT_OK);
    openlog("host", 0, 0);
    EXPECT_EQ(Write({.severity = OXEVENT_SEVERITY_ERROR}), OXEVENT_OK);
    EXPECT_EQ(g_ident, "oxEvent") << "The line has the identity of another user of the log.";
    EXPECT_EQ(g_priority, priority) << facility;
  }
}

TEST_F(oxEventSystemLog, TruncatesBetweenCharactersWhatADatagramSocketIsKnownToRefuse) {
  const struct {
    const char* call;
    int error;
    size_t characters;  // Of two bytes each.
    bool truncates;
  } cases[] = {{"connect", ENOENT, 150'000, true},
               {"connect", ENOENT, 50'000, false},
               {"connect", EPROTOTYPE, 150'000, false},  // A log that takes a stream.
               {"socket", EMFILE, 150'000, false},
               {"getsockopt", ENOBUFS, 150'000, false}};
  int log[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, log), 0);
  for (const auto& c : cases) {
    for (string message : {"", "x"}) {
      SCOPED_TRACE(c.call + std::to_string(c.error) + message);
      for (size_t i = 0; i < c.characters; ++i) message += "\xC3\xA9";
      const Faults faults([&](std::string_view call, long) { return call == c.call ? c.error : 0; });
      EXPECT_EQ(Write({.message = message, .severity = 4}), OXEVENT_OK);  // An invalid severity is written as well.
      EXPECT_TRUE(g_line.ends_with(c.truncates ? "\xA9" : "\xA9\""));
      EXPECT_EQ(g_priority, 166);  // local4, info
      if (!c.truncates) continue;
      const string datagram = "<191>Jan 01 00:00:00 oxEvent[2147483647]: " + g_line + "\xC3\xA9";
      EXPECT_EQ(send(log[0], datagram.data(), datagram.size(), MSG_DONTWAIT), -1);
      EXPECT_GT(send(log[0], datagram.data(), datagram.size() - 2, MSG_DONTWAIT), 200'000);
      EXPECT_EQ(recv(log[1], nullptr, 0, MSG_DONTWAIT), 0);
    }
  }
  for (const int fd : log) close(fd);
}

}  // namespace

#include "oxutil.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include "failing_calls.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::string_literals::operator""s;

namespace {

struct Close {
  void operator()(void* store) const { EXPECT_EQ(oxCFGClose(store, 1), 0u); }
};
using Store = std::unique_ptr<void, Close>;

bool Add(const Store& store, const std::string& parent, const std::string& name) {
  return oxCFGAddKeyString(store.get(), parent.c_str(), name.c_str(), "", 0, 0) == 0;
}

bool Set(const Store& store, const std::string& key, const std::string& name, std::string text) {
  auto length = static_cast<uint32_t>(text.size());
  return oxCFGValueString(store.get(), key.c_str(), name.c_str(), text.data(), &length, 1) == 0;
}

std::string Get(const Store& store, const std::string& key, const std::string& name, uint32_t capacity = 300000) {
  std::string buffer(capacity, '#');
  uint32_t length = capacity;
  if (oxCFGValueString(store.get(), key.c_str(), name.c_str(), buffer.data(), &length, 0) != 0) return "(none)";
  EXPECT_EQ(buffer.at(length), '\0');
  return buffer.substr(0, length);
}

bool Save(const Store& store) { return oxCFGSave(store.get(), 0, 1) == 0; }

std::string Repeat(const std::string& text, int times) {
  std::string all;
  while (times-- > 0) all += text;
  return all;
}

// The function's result in a child process, -1 when a signal ended that.
int InChild(const std::function<int()>& function) {
  const pid_t child = fork();
  if (child == 0) _exit(function());
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class oxCFG : public testing::Test {
 protected:
  ~oxCFG() override { fs::remove_all(folder_); }

  void Write(const std::string& text) const { std::ofstream(path_) << text; }
  std::string Read() const {
    std::ifstream file(path_);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  Store Open() const { return Store(oxCFGOpen(path_.c_str(), 0)); }
  Store Open(const std::string& text) const {
    Write(text);
    return Open();
  }
  ptrdiff_t FileCount() const { return std::distance(fs::directory_iterator(folder_), {}); }

  char template_[24] = "/tmp/oxutil_test.XXXXXX";
  const fs::path folder_ = mkdtemp(template_);
  const fs::path path_ = folder_ / "store.xml";
  const uid_t user_ = geteuid() == 0 ? 12345 : geteuid();
};

TEST_F(oxCFG, RefusesWhatIsNoStoreAndLeavesIt) {
  for (const std::string& text : {"x"s,
                                  "<config>"s,
                                  "<config></confi>"s,
                                  "<Config/>"s,
                                  "<config/><config/>"s,
                                  "<config/>x"s,
                                  "x<config/>"s,
                                  "<![CDATA[ ]]><config/>"s,
                                  "<config/><"s,
                                  "<!-- only -->"s,
                                  "<config/>\0"s,
                                  "<config>\0</config>"s,
                                  "\xFF\xFE<\0"s,
                                  "<config a=1/>"s,
                                  "<config>" + Repeat("<a>", 64) + Repeat("</a>", 64) + "</config>",
                                  "<config>" + Repeat("<a>", 1000000) + Repeat("</a>", 1000000) + "</config>",
                                  Repeat("<a>", 1000000),
                                  Repeat("\x01\x80&#", 1000000),
                                  "<!DOCTYPE a" + Repeat("[<!", 1000000),
                                  "<!DOCTYPE c [<!ENTITY e 'x'>]><config/>"s}) {
    SCOPED_TRACE(text.substr(0, 60));
    EXPECT_EQ(Open(text), nullptr);
    EXPECT_TRUE(Read() == text);
  }
  Write("<config/>");
  EXPECT_EQ(oxCFGOpen(path_.c_str(), 1), nullptr);
  fs::resize_file(path_, (64 << 20) + 1);
  ASSERT_EQ(mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  fs::create_symlink("loop", folder_ / "loop");
  for (const char* name : {"store.xml", "fifo", "loop", "missing", ".", "/dev/zero"}) {
    EXPECT_EQ(oxCFGOpen((folder_ / name).c_str(), 0), nullptr) << name;
  }
}

TEST_F(oxCFG, RefusesNullAndUnknownModes) {
  const Store store = Open("");
  uint32_t one = 1;
  EXPECT_TRUE(oxCFGOpen(nullptr, 0) == nullptr && oxCFGKeyExists(nullptr, "") == 0 && oxCFGSave(nullptr, 0, 1) != 0);
  EXPECT_EQ(oxCFGGetNext(store.get(), "", nullptr, "", &one), OXCFG_NO_MORE);
  EXPECT_NE(oxCFGValueString(store.get(), "", "a", nullptr, &one, 1), 0u);
  EXPECT_TRUE(oxCFGValueDword(store.get(), "", "a", &one, 2) != 0 && Get(store, "", "a") == "(none)");
}

TEST_F(oxCFG, WritesOneElementPerLine) {
  for (const char* blank : {"", " \r\n\t", "\xEF\xBB\xBF"}) {
    const Store store = Open(blank);
    uint32_t size = 1024;
    EXPECT_TRUE(Add(store, "\\A\\\\B\\", "core") && Add(store, "A", "") && Add(store, "\"", ""));
    EXPECT_EQ(oxCFGValueDword(store.get(), "A\\B\\core", "queue_size", &size, 1), 0u);
    EXPECT_TRUE(Set(store, "A\\\\B\\core", "drop_policy", "drop_newest") && Set(store, "\"", "empty", ""));
    EXPECT_TRUE(!Set(store, "missing", "a", "b") && Save(store));
    EXPECT_EQ(Read(), (blank[0] == '\xEF' ? blank : ""s) + R"(<?xml version="1.0" encoding="UTF-8"?>
<config>
  <key name="A">
    <key name="B">
      <key name="core">
        <value name="queue_size">1024</value>
        <value name="drop_policy">drop_newest</value>
      </key>
    </key>
  </key>
  <key name="&quot;">
    <value name="empty"/>
  </key>
</config>
)");
  }
}

TEST_F(oxCFG, KeepsWhatItDoesNotSet) {
  const std::string head =
      "<!DOCTYPE config [<!ELEMENT p ANY>]>\r\n<?pi data?>\n\n<!-- \xE4 -->\n<config id=\"1\">\t"
      "<p>a <b>b</b> <i>c</i></p>\n\n<value name=\"n\">";
  const std::string tail =
      "<!--in--></value> text <![CDATA[<&>]]><key name=\"k\"><key/></key><key name=\"k\"/></config>\n<!-- z -->";
  const Store store = Open(head + "1<![CDATA[<]]>" + tail);
  g_before_call = [](const char* call, int) { return ADD_FAILURE() << call, EIO; };
  EXPECT_TRUE(Set(store, "", "n", "1<") && Add(store, "k", "") && Save(store));
  g_before_call = nullptr;
  EXPECT_TRUE(Set(store, "", "n", "2") && Add(store, "k", "new") && Save(store));
  std::string expected = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + head + tail;
  expected.insert(expected.find("</value>"), "2");
  expected.insert(expected.find("</key>"), "\n    <key name=\"new\"/>\n  ");
  EXPECT_EQ(Read(), expected);
}

TEST_F(oxCFG, CarriesAnyTextThroughTheFile) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all += static_cast<char>(byte);
  const std::string name = all.substr('\\');
  for (const std::string& text : {all, ""s, " "s, "\n"s, "\r"s, "\r\n\t "s, "]]>"s, "<!--&#10;&amp;-->"s,
                                  "\xFF\xC3(\xED\xA0\x80"s, Repeat("\xC3\xA4<", 90000)}) {
    const Store store = Open("");
    EXPECT_TRUE(Set(store, "", name, text) && Save(store));
    EXPECT_TRUE(Get(Open(), "", name) == text) << text.substr(0, 60);
  }
  EXPECT_FALSE(Set(Open(""), "", "v", "a\0b"s));
  const Store store = Open(
      "\xEF\xBB\xBF<?xml version='1.0' encoding='ISO-8859-1'?><config><value "
      "name='v'>&amp;b&#10;\xE4</value></config>");
  EXPECT_EQ(Get(store, "", "v"), "&b\n\xE4");
  EXPECT_EQ(Get(store, "", "v", 3) + Get(store, "", "v", 1) + Get(store, "", "v", 0), "&b(none)");
  EXPECT_TRUE(Set(store, "", "v", "") && Save(store) && Read().starts_with("\xEF\xBB\xBF<?xml"));
}

TEST_F(oxCFG, ReadsADwordOnlyFromDecimalDigits) {
  const auto read = [this](const std::string& text, uint32_t* value) {
    return oxCFGValueDword(Open("<config><value name='v'>" + text + "</value></config>").get(), "", "v", value, 0) == 0;
  };
  uint32_t value = 7;
  for (const char* text :
       {"", "4294967296", "99999999999999999999", " 1", "1\n", "+1", "-1", "-0", "0x1", "1.0", "a"}) {
    EXPECT_TRUE(!read(text, &value) && value == 7) << text;
  }
  EXPECT_TRUE(read("0", &value) && value == 0);
  EXPECT_TRUE(read("4294967295", &value) && value == 4294967295);
  EXPECT_TRUE(read("0000000000000000000<![CDATA[1]]>7", &value) && value == 17);
}

TEST_F(oxCFG, WalksEachReachableNameOnceInFileOrder) {
  const std::string long_name(511, 'n');
  const std::string long_key = "<key name='" + long_name + "'/><key name='n" + long_name + "'/>";
  const Store store = Open(
      "<config><key name='x'/><a name='no'/><value name='x'>1</value><key/><key name=''/><key name='b\\c'/><!-- c -->"
      "<value name='x'>2</value><p><key name='in'/></p><key name='x'><key name='lost'/></key>" +
      long_key + "<value name='last'><value name='in'/></value></config>");
  const auto walk = [&store](const std::string& key, std::string previous) {
    std::string names;
    char name[512];
    uint32_t kind = 0;
    for (int i = 0; i < 9 && oxCFGGetNext(store.get(), key.c_str(), name, previous.c_str(), &kind) == 0; ++i) {
      previous = name;
      names += previous + std::to_string(kind) + " ";
    }
    return names;
  };
  EXPECT_EQ(walk("", ""), "x0 x1 " + long_name + "0 last1 ");
  EXPECT_EQ(walk("", "x"), long_name + "0 last1 ");
  EXPECT_EQ(walk("", "absent") + walk("", "last") + walk("x", "") + walk("missing", ""), "");
  EXPECT_EQ(Get(store, "", "x") + Get(store, "", "in"), "1(none)");
  EXPECT_EQ(oxCFGKeyExists(store.get(), "x\\lost") + oxCFGKeyExists(store.get(), "in"), 0u);
}

TEST_F(oxCFG, CreatesNothingThatItCouldNotReadAgain) {
  const Store store = Open("");
  const std::string deepest = Repeat("a\\", 62);
  const std::string long_name(512, 'n');
  EXPECT_FALSE(Add(store, deepest, "a") || Add(store, "a", long_name) || oxCFGKeyExists(store.get(), "a") != 0);
  EXPECT_FALSE(Set(store, "", "", "1") || Set(store, "", "a\\b", "1") || Set(store, "", long_name, "1"));
  EXPECT_TRUE(Add(store, deepest, "") && Set(store, deepest, "v", "1") && Save(store));
  EXPECT_EQ(Get(Open(), deepest, "v"), "1");
  EXPECT_TRUE(Set(store, "", "big", std::string(64 << 20, 'x')) && !Save(store));
  const Store full = Open("<config>" + Repeat("<key name='a'>", 63) + Repeat("</key>", 63) + "</config>");
  EXPECT_TRUE(Add(full, deepest, "a") && !Set(full, deepest + "a", "v", "1"));
}

// Nor is the new file readable to more people while it is written. Calls that a signal interrupts are made again.
TEST_F(oxCFG, KeepsOwnerModeAndAccessList) {
  const std::string acl =  // Version 2; user rw, user 1 r, group none, mask r, other none.
      "\2\0\0\0\1\0\6\0\xFF\xFF\xFF\xFF\2\0\4\0\1\0\0\0\4\0\0\0\xFF\xFF\xFF\xFF\x10\0\4\0\xFF\xFF\xFF\xFF"
      "\x20\0\0\0\xFF\xFF\xFF\xFF"s;
  const char* const access = "system.posix_acl_access";
  const bool has_acl = setxattr(folder_.c_str(), "system.posix_acl_default", acl.data(), acl.size(), 0) == 0;
  for (const mode_t mode : {0600u, 0664u, 04755u, 0640u}) {
    const std::string expected_acl = has_acl && mode == 0640 ? acl : "";
    Write("<config/>");
    removexattr(path_.c_str(), access);
    ASSERT_EQ(chown(path_.c_str(), user_, getegid()) | chmod(path_.c_str(), mode), 0);
    if (!expected_acl.empty()) setxattr(path_.c_str(), access, acl.data(), acl.size(), 0);
    const Store store = Open();
    struct stat status;
    int calls = 0;
    g_before_call = [&](const char* call, int fd) {
      EXPECT_TRUE(call != "write"s || (fstat(fd, &status) == 0 && (status.st_mode & 0577) == 0));
      return (call == "write"s || call == "fsync"s) && ++calls % 2 == 1 ? EINTR : 0;
    };
    EXPECT_TRUE(Set(store, "", "v", std::string(1500, 'v')) && Save(store));
    g_before_call = nullptr;
    EXPECT_EQ(calls, 8);  // Two writes, two syncs, each made twice.
    EXPECT_TRUE(stat(path_.c_str(), &status) == 0 && status.st_uid == user_ && (status.st_mode & 07777) == mode)
        << mode;
    std::string kept(100, '\0');
    kept.resize(static_cast<size_t>(std::max<ssize_t>(getxattr(path_.c_str(), access, kept.data(), 100), 0)));
    EXPECT_EQ(kept, expected_acl);
  }
}

TEST_F(oxCFG, ReplacesTheTargetOfALinkAgainAndAgain) {
  fs::create_symlink(std::string(255, 't'), path_);  // The longest name.
  Write("<config/>");
  const fs::path before = fs::current_path();
  fs::current_path(folder_);
  const Store store(oxCFGOpen("store.xml", 0));
  fs::current_path(before);
  for (const char* text : {"1", "2"}) {
    EXPECT_TRUE(Set(store, "", "v", text) && Save(store));
    EXPECT_TRUE(Get(Open(), "", "v") == text && fs::is_symlink(path_));
  }
}

TEST_F(oxCFG, RefusesToReplaceWhatChangedMeanwhile) {
  const std::function<void()> changes[] = {
      [&] { Write("<config></config>"); }, [&] { fs::rename(path_, folder_ / "gone"); },
      [&] { fs::last_write_time(path_, fs::last_write_time(path_) - 1s); },
      [&] { fs::copy(path_, folder_ / "other"), fs::rename(folder_ / "other", path_); }};
  for (const auto& change : changes) {
    const Store store = Open("<config/>");
    change();
    const std::string text = Read();
    EXPECT_TRUE(Set(store, "", "v", "1") && !Save(store) && Read() == text);
  }
}

TEST_F(oxCFG, IsTheOldOrTheNewFileWhicheverCallFailsOrComesLast) {
  const std::string old_text = "<config>" + std::string(1500, ' ') + "</config>\n";
  const auto save = [&](int at, int error) {
    const Store store = Open();
    int calls = 0;
    g_before_call = [&](const char*, int) { return ++calls != at ? 0 : error != 0 ? error : (_exit(3), 0); };
    return !Set(store, "", "v", "new") || !Save(store) ? 1 : calls < at ? 0 : 2;
  };
  for (const int error : {ENOSPC, EPERM, 0}) {  // 0: the process ends instead.
    bool renamed = false;
    for (int at = 1, result = 1; result != 0; ++at) {
      SCOPED_TRACE(std::to_string(error) + " at call " + std::to_string(at));
      Write(old_text);
      result = InChild([&] { return save(at, error); });
      const bool is_new = Read() != old_text;
      EXPECT_TRUE(!is_new || Get(Open(), "", "v") == "new");
      EXPECT_GE(is_new, renamed || result == 0 || result == 2);
      EXPECT_TRUE(error == 0 || FileCount() == 1);
      renamed = is_new;
      fs::remove_all(folder_), fs::create_directory(folder_);
      ASSERT_LT(at, 50);
    }
  }
}

TEST_F(oxCFG, SurvivesTheFileSizeLimitOfTheProcess) {
  const Store store = Open("<config/>");
  const auto save = [&](bool pending) {
    const rlimit limit = {50, 50};
    sigset_t signals;
    sigemptyset(&signals), sigaddset(&signals, SIGXFSZ);
    if (pending) sigprocmask(SIG_BLOCK, &signals, nullptr), raise(SIGXFSZ);
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0 || !Set(store, "", "v", "1") || Save(store)) return 2;
    return sigpending(&signals), sigismember(&signals, SIGXFSZ);
  };
  EXPECT_EQ(InChild([&] { return save(false); }), 0);
  EXPECT_EQ(InChild([&] { return save(true); }), 1);  // What was pending before stays so.
  EXPECT_EQ(Read(), "<config/>");
  EXPECT_EQ(FileCount(), 1);
}

TEST_F(oxCFG, LeavesAProtectedFileOrFolder) {
  for (const auto& [mode, folder_mode] : {std::pair(0444, 0777), std::pair(0666, 0555)}) {
    Write("<config/>");
    ASSERT_EQ(chown(path_.c_str(), user_, getegid()) | chmod(path_.c_str(), static_cast<mode_t>(mode)), 0);
    ASSERT_EQ(chmod(folder_.c_str(), static_cast<mode_t>(folder_mode)), 0);
    const Store store = Open();
    EXPECT_EQ(InChild([&] { return seteuid(user_) == 0 && Set(store, "", "v", "1") && !Save(store) ? 0 : 1; }), 0);
    EXPECT_EQ(Read(), "<config/>");
    chmod(folder_.c_str(), 0777);
  }
}

TEST(oxOS, MakesDirectoriesAndReadsClocks) {
  char folder[] = "/tmp/oxutil_test.XXXXXX";
  const std::string made = mkdtemp(folder) + "/made"s;
  EXPECT_EQ(oxOSFileIsDir(made.c_str()) | oxOSFileIsDir("/dev/null") | oxOSFileIsDir(nullptr), 0);
  EXPECT_TRUE(oxOSMakeDir(made.c_str(), 0700) == 0 && oxOSFileIsDir(made.c_str()) != 0);
  EXPECT_TRUE(oxOSMakeDir(made.c_str(), 0700) != 0 && oxOSMakeDir(nullptr, 0700) != 0);
  EXPECT_EQ(fs::status(made).permissions(), fs::perms::owner_all);
  fs::remove_all(folder);
  EXPECT_NEAR(static_cast<double>(oxOSGetTimePTPNano()) / 1e9, static_cast<double>(time(nullptr)), 60);
  const auto ms = static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch() / 1ms);
  EXPECT_LT(oxOSGetMs() - ms, 60000u);
}

}  // namespace

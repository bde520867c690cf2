#include "oxutil.h"

#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "faults.h"
#include "host_fixture.h"

namespace fs = std::filesystem;
using std::string_literals::operator""s;

namespace {

using Store = std::shared_ptr<void>;

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

struct oxCFG : testing::Test {
  void Write(const std::string& text) const { std::ofstream(path_) << text; }
  Store Open() const {
    return Store(oxCFGOpen(path_.c_str(), 0), [](void* store) { oxCFGClose(store, 1); });
  }
  Store Open(const std::string& text) const { return Write(text), Open(); }

  const HostFolder holder_{};
  const fs::path folder_ = holder_.path, path_ = folder_ / "store.xml";
  const uid_t user_ = geteuid() == 0 ? 12345 : geteuid();
};

TEST_F(oxCFG, RefusesWhatIsNoStoreAndLeavesIt) {
  std::string too_deep = "<config></config>", dense = "<config>";
  for (size_t end = 8; end < 8 + 64 * 3; end += 3) too_deep.insert(end, "<a></a>");
  for (int i = 0; i < 66000; ++i) dense += "<a/>x";
  for (const std::string& text :
       {"<config>"s, "<Config/>"s, "<config/><config/>"s, "<config/>x"s, "<!-- only -->"s, "<![CDATA[ ]]><config/>"s,
        "<config>\0</config>"s, "<config a=1/>"s, too_deep, dense + "</config>",
        "<!DOCTYPE c [<!ENTITY e 'x'>]><config/>"s, "\xEF\xBB\xBF\xEF\xBB\xBF<config/>"s})
    EXPECT_TRUE(Open(text) == nullptr && ReadFile(path_) == text) << text.substr(0, 60);
  Write("<config/>" + std::string(64 << 20, ' '));
  ASSERT_EQ(mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  for (const char* name : {"store.xml", "fifo", "missing", ".", "/dev/zero"})
    EXPECT_EQ(oxCFGOpen((folder_ / name).c_str(), 0), nullptr) << name;
}

TEST_F(oxCFG, KeepsWhatItDoesNotSet) {
  const std::string head =
      "<!DOCTYPE c [ ]>\r\n<?p d?>\n<!-- \xE4 -->\n<config>\t<p a=\"1\">a <b>b</b></p><value name=\"n\">";
  const std::string tail = "<!--in--></value> text <![CDATA[<&>]]><key name=\"k\"><key/></key></config>\n<!-- z -->";
  const Store store = Open(head + "1<![CDATA[<]]>" + tail);
  EXPECT_TRUE(Set(store, "", "n", "2") && oxCFGAddKeyString(store.get(), "k", "new", "", 0, 0) == 0 && Save(store));
  std::string expected = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + head + tail;
  expected.insert(expected.find("</value>"), "2");
  expected.insert(expected.find("</key>"), "\n    <key name=\"new\"/>\n  ");
  EXPECT_EQ(ReadFile(path_), expected);
}

TEST_F(oxCFG, CarriesAnyTextThroughTheFile) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all += static_cast<char>(byte);
  for (const std::string& text : {all, ""s, " "s, "\r\n\t "s, "]]>"s, "<!--&#10;&amp;-->"s, std::string(90000, '<')}) {
    const Store store = Open("");
    EXPECT_TRUE(Set(store, "", all.substr('\\'), text) && Save(store));
    EXPECT_TRUE(Get(Open(), "", all.substr('\\')) == text) << text.substr(0, 60);
  }
  EXPECT_FALSE(Set(Open(""), "", "v", "a\0b"s));
  const std::string head = "\xEF\xBB\xBF<?xml version='1.0' encoding='ISO-8859-1'?>";
  const Store store = Open(head + "<config><value name='v'>&amp;b&#10;\xE4</value></config>");
  EXPECT_EQ(Get(store, "", "v") + Get(store, "", "v", 3) + Get(store, "", "v", 0), "&b\n\xE4&b(none)");
  EXPECT_TRUE(Set(store, "", "v", "") && Save(store) && ReadFile(path_).starts_with("\xEF\xBB\xBF<?xml"));
}

// Nor is the new file readable to more people while it is written. Calls that a signal interrupts are made again.
TEST_F(oxCFG, KeepsALinkAndItsTargetsOwnerAndMode) {
  fs::create_symlink(std::string(255, 't'), path_);  // The longest name.
  Write("<config/>");
  ASSERT_EQ(chown(path_.c_str(), user_, getegid()) | chmod(path_.c_str(), 04755), 0);
  const Store store = Open();
  int calls = 0;
  {
    const Faults faults([&](std::string_view call, long fd) {
      if (call != "write" && call != "fsync") return 0;
      const fs::perms perms = fs::status("/proc/self/fd/" + std::to_string(fd)).permissions();
      EXPECT_TRUE(call != "write" || (perms & fs::perms(0577)) == fs::perms::none);
      return ++calls % 2 == 1 ? EINTR : -1000;
    });
    EXPECT_TRUE(Set(store, "", "v", std::string(1500, 'v')) && Save(store));
  }
  EXPECT_EQ(calls, 8);  // Two writes, two syncs, each made twice.
  EXPECT_TRUE(Set(store, "", "v", "again") && Save(store) && fs::is_symlink(path_));
  struct stat status;
  EXPECT_TRUE(stat(path_.c_str(), &status) == 0 && status.st_uid == user_ && (status.st_mode & 07777) == 04755);
}

TEST_F(oxCFG, LeavesAFileThatChangedMeanwhileOrThatItMayNotWrite) {
  const std::function<void(Store&)> changes[] = {
      [&](Store&) { Write(""); },
      [&](Store&) { fs::rename(path_, folder_ / "gone"); },
      [&](Store&) { fs::last_write_time(path_, {}); },
      [&](Store&) { fs::copy(path_, folder_ / "other"), fs::rename(folder_ / "other", path_); },
      [&](Store& store) { store = chmod(folder_.c_str(), 0555) | seteuid(user_) ? nullptr : Open(); },
      [&](Store& store) { store = chmod(path_.c_str(), 0444) | seteuid(user_) ? nullptr : Open(); }};
  for (const auto& change : changes) {
    const auto saves = [&] {
      Store store = Open("<config/>");
      if (chown(path_.c_str(), user_, getegid()) != 0) return true;
      change(store);
      const auto before = std::pair(ReadFile(path_), Entries(folder_));
      return !Set(store, "", "v", "1") || Save(store) || std::pair(ReadFile(path_), Entries(folder_)) != before;
    };
    fs::permissions(folder_, fs::perms(0777));
    EXPECT_EQ(InChild(saves), 0);
  }
}

TEST_F(oxCFG, IsTheOldOrTheNewFileWhicheverCallFailsOrComesLast) {
  const std::string old_text = "<config>" + std::string(1500, ' ') + "</config>\n";
  for (const std::string how : {"once", "for good", "killed"}) {
    bool is_new = false;
    int at = 1;
    const auto save = [&] {
      const Store store = Open();
      int calls = 0;
      const Faults faults([&](std::string_view call, long) {
        if (++calls == at && how == "killed") _exit(3);
        return calls == at || (calls > at && how == "for good") ? ENOSPC : call == "write" ? -1000 : 0;
      });
      return !Set(store, "", "v", "new") || !Save(store) ? 1 : calls < at ? 0 : 2;
    };
    for (int result = 1; result != 0 && at < 200; ++at) {
      fs::remove_all(folder_), fs::create_directory(folder_);
      Write(old_text);
      result = InChild(save);
      const bool must_be_new = is_new || result == 0 || result == 2;
      is_new = ReadFile(path_) != old_text;
      EXPECT_TRUE(is_new ? Get(Open(), "", "v") == "new" : !must_be_new || how == "once") << how << " at call " << at;
      EXPECT_TRUE(how != "once" || Entries(folder_) == 1) << at;
    }
    EXPECT_TRUE(is_new && at > 16) << at;  // As many as the save makes system calls, at least.
  }
}

}  // namespace

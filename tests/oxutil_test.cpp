#include "oxutil.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "faults.h"
#include "host_fixture.h"

namespace fs = std::filesystem;
using std::string_literals::operator""s;

// Stands for a host that exports its own build of pugixml, which the companion must not call.
#define LOAD_BUFFER "_ZN4pugi12xml_document11load_bufferEPKvmjNS_12xml_encodingE"
extern "C" void LoadBuffer() __asm__(LOAD_BUFFER);
void LoadBuffer() { abort(); }

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

TEST(oxOS, ReadsTheClocksInTheirUnits) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
  EXPECT_LT(oxOSGetMs() - static_cast<uint32_t>(now), 600'000u);
  EXPECT_NEAR(static_cast<double>(oxOSGetTimePTPNano()) / 1e9, static_cast<double>(time(nullptr)), 600);
}

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

TEST_F(oxCFG, RefusesWhatASaveCouldNotWriteAsItIs) {
  for (const char* text : {"<!-- a--b -->", "<!-- a --->", "\x01", "<a b='&#0;'/>", "&#x0000;", "&#31;", "&#xD800;",
                           "&#xDFFF;", "&#xFFFE;", "&#xFFFF;", "&#x110000;", "&#4294967297;"})
    EXPECT_EQ(Open("<config>"s + text + "</config>"), nullptr) << text;
}

TEST_F(oxCFG, KeepsWhatItDoesNotSet) {
  const std::string head =
      "<!DOCTYPE c [ <!-- -- --> ]>\r\n<?p d?>\n<!-- \xE4 -->\n<config>\t<p a=\"1\">a <b>b</b></p>&#13;&#x41; &none; & "
      "]]&gt;<q q=\"&#9;'&quot;\"/><![CDATA[&#0;]]><!-- &#0; - - --><value name=\"n\">";
  const std::string tail = "<!--in--></value> text <![CDATA[<&>]]><key name=\"k\"><key/></key></config>\n<!-- z -->";
  const Store store = Open(head + "1<![CDATA[<]]>" + tail);
  EXPECT_TRUE(Set(store, "", "n", "2") && oxCFGAddKeyString(store.get(), "k", "new", "", 0, 0) == 0 && Save(store));
  std::string expected = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + head + tail;
  expected.insert(expected.find("</value>"), "2");
  expected.insert(expected.find("</key>"), "\n    <key name=\"new\"/>\n  ");
  EXPECT_EQ(ReadFile(path_), expected);
}

TEST_F(oxCFG, CarriesAnyTextThroughTheFile) {
  std::string all = "\t\r\n", name = all;
  for (int byte = ' '; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    if (byte != '\\') name += static_cast<char>(byte);
  }
  for (const std::string& text : {all, ""s, " "s, "\r\n\t "s, "]]>"s, "<!--&#10;&amp;-->"s, std::string(90000, '<')}) {
    const Store store = Open("");
    EXPECT_TRUE(oxCFGAddKeyString(store.get(), name.c_str(), "", "", 0, 0) == 0 && Set(store, name, name, text));
    EXPECT_TRUE(Get(store, name, name) == text && Save(store));
    EXPECT_TRUE(Get(Open(), name, name) == text) << text.substr(0, 60);
  }
  for (const std::string& text : {"a\0b"s, "\x01"s, "\x1F"s}) EXPECT_FALSE(Set(Open(""), "", "v", text));
  EXPECT_FALSE(Set(Open(""), "", "\x1F", "v"));
  const std::string head = "\xEF\xBB\xBF<?xml version='1.0' encoding='ISO-8859-1'?>";
  const Store store = Open(head + "<config><value name='v'>&amp;b&#10;\xE4</value></config>");
  EXPECT_EQ(Get(store, "", "v") + Get(store, "", "v", 3) + Get(store, "", "v", 0), "&b\n\xE4&b(none)");
  EXPECT_TRUE(Set(store, "", "v", "") && Save(store) && ReadFile(path_).starts_with("\xEF\xBB\xBF<?xml"));
}

TEST_F(oxCFG, DecodesReferencesAndKeepsThemInTheFile) {
  const std::string text =
      "<config><key a='' name='a&lt;&quot;\"'><value name='v'>"
      "&#65;&#x1F600;&#xe9;&#xfffd;&apos;&gt;&#;&#6x;&#x;&#1</value></key><key name=\"b\"/></config>";
  const Store store = Open(text);
  const std::string decoded = "A\xF0\x9F\x98\x80\xC3\xA9\xEF\xBF\xBD'>&#;&#6x;&#x;&#1";
  EXPECT_EQ(Get(store, "a<\"\"", "v"), decoded);
  EXPECT_EQ(Get(store, "a<\"\"", "v", 4), "A\xF0\x9F");
  EXPECT_TRUE(Set(store, "a<\"\"", "v", decoded) && Save(store));
  EXPECT_EQ(ReadFile(path_), text);
  for (const char* key : {"b", "b\\c", "b"}) EXPECT_EQ(oxCFGAddKeyString(store.get(), key, "", "", 0, 0), 0u);
  EXPECT_TRUE(Save(store));
  EXPECT_NE(ReadFile(path_).find("\"a&lt;&quot;&quot;\"><value name=\"v\">&#65;&#x1F600;&#xe9;"), text.npos);
}

TEST_F(oxCFG, TakesANumberWithWhiteSpaceAroundIt) {
  const auto number = [&](const std::string& text) -> int64_t {
    const Store store = Open("<config><value name=\"n\">" + text + "</value></config>");
    uint32_t value = 77;
    return oxCFGValueDword(store.get(), "", "n", &value, 0) == 0 ? int64_t{value} : value == 77 ? -1 : -2;
  };
  EXPECT_EQ(number("0"), 0);
  EXPECT_EQ(number("\r\n\t 5000 \n"), 5000);
  EXPECT_EQ(number(" 00429<![CDATA[4967295 ]]>&#32;"), 4294967295);
  for (const char* text :
       {"", " ", "4294967296", "99999999999999999999", "1 2", "+1", "-1", "\v1", "1x", "0x1", "1.0", "/", ":"})
    EXPECT_EQ(number(text), -1) << text;
  uint32_t most = 4294967295;
  const Store store = Open("");
  EXPECT_TRUE(oxCFGValueDword(store.get(), "", "n", &most, 1) == 0 && Get(store, "", "n") == "4294967295");
}

TEST_F(oxCFG, WalksEachNameOnceAndInOrder) {
  const std::string text =
      "<key name='a'/><value name='x'/><key name=''/><key name='a\\b'/><value name='" + std::string(512, 'n') +
      "'/><value name='a'/><key name='a'/><value name='m'/><key name='m'/><other name='o'/><key name='" +
      std::string(511, 'n') + "'/>";
  const Store store = Open("<config>" + text + "<key name='k'>" + text + "</key></config>");
  const auto next = [&](const char* key, const char* previous) {
    char name[512] = "";
    uint32_t kind = 2;
    const bool ends = oxCFGGetNext(store.get(), key, name, previous, &kind) == OXCFG_NO_MORE;
    return ends ? "end" : std::string(name) + (kind == 0 ? "/" : "");
  };
  const std::string longest(511, 'n');
  std::string previous;
  for (const std::string& expected : {"a/"s, "x"s, "a"s, "m"s, "m/"s, longest + "/"}) {
    EXPECT_EQ(next("", previous.c_str()), expected);
    EXPECT_EQ(next("k", previous.c_str()), expected);  // Two iterations at a time.
    previous = expected.substr(0, expected.find('/'));
  }
  EXPECT_EQ(next("", "x") + next("", "m"), "a" + longest + "/");
  EXPECT_EQ(next("", "a"), "m");
  EXPECT_EQ(next("", longest.c_str()) + next("k", longest.c_str()) + next("", "none"), "k/endend");
}

TEST_F(oxCFG, RefusesWhatAFileCannotHold) {
  const Store store = Open("");
  const auto adds = [&](const std::string& key) {
    return oxCFGAddKeyString(store.get(), "", key.c_str(), "", 0, 0) == 0;
  };
  std::string deepest = "k";
  for (int i = 1; i < 62; ++i) deepest += "\\k";
  EXPECT_TRUE(adds(deepest) && adds(std::string(511, 'n')));
  EXPECT_TRUE(Set(store, deepest, "v", "1"));
  for (const std::string& key : {deepest + "\\k", std::string(512, 'n'), "k\\\x01"s}) EXPECT_FALSE(adds(key)) << key;
  for (const std::string& name : {""s, "a\\b"s, std::string(512, 'n')}) EXPECT_FALSE(Set(store, "", name, "1")) << name;
  EXPECT_FALSE(Set(store, "missing", "v", "1"));
  std::string text = "<config></config>";
  for (size_t end = 8; end < 8 + 63 * 14; end += 14) text.insert(end, "<key name='k'></key>");
  EXPECT_FALSE(Set(Open(text), deepest + "\\k", "v", "1"));
  EXPECT_EQ(oxCFGOpen(nullptr, 0), nullptr);
  EXPECT_EQ(oxCFGOpen(path_.c_str(), 1), nullptr);
}

TEST_F(oxCFG, ReadsWithoutMemoryAndThenSavesOnlyWhatItWasGiven) {
  const Store store = Open("<config><key name='a&amp;b'><value name='n'>7</value></key></config>");
  char name[512] = "", text[8] = "";
  uint32_t kind = 0, number = 0, length = sizeof text;
  bool reads = false, sets = true;
  {
    const Faults faults([](std::string_view call, long) { return call == "malloc" ? ENOMEM : 0; });
    reads = oxCFGGetNext(store.get(), "", name, "", &kind) == 0 && oxCFGKeyExists(store.get(), name) != 0 &&
            oxCFGValueDword(store.get(), name, "n", &number, 0) == 0 &&
            oxCFGValueString(store.get(), name, "n", text, &length, 0) == 0;
    sets = oxCFGAddKeyString(store.get(), "a name that needs memory", "", "", 0, 0) == 0;
  }
  EXPECT_TRUE(reads && text == "7"s && !sets);
  EXPECT_FALSE(Set(store, "a&b", "n", "8") && Save(store));
}

TEST_F(oxCFG, CallsItsOwnPugixmlThoughTheHostExportsAnother) {
  EXPECT_EQ(dlsym(RTLD_DEFAULT, LOAD_BUFFER), reinterpret_cast<void*>(LoadBuffer));
  EXPECT_NE(Open("<config/>"), nullptr);
}

TEST_F(oxCFG, AnUnchangedStoreSavesAndLeavesItsFile) {
  const Store store = Open("<config><value  name='n'>7</value></config>");
  const Faults faults([](std::string_view call, long) { return call == "openat" || call == "open" ? EROFS : 0; });
  EXPECT_TRUE(Set(store, "", "n", "7") && Save(store));
}

TEST_F(oxCFG, KeepsExtendedAttributesOrFailsTheSave) {
  constexpr char kAcl[] = "system.posix_acl_access";
  const auto attribute = [&](const char* name) {
    char value[100];
    const ssize_t size = getxattr(path_.c_str(), name, value, sizeof value);
    return size < 0 ? "none" : std::string(value, static_cast<size_t>(size));
  };
  // A Linux access list, version 2, with an entry for one more user.
  const uint32_t list[] = {2, 0x60001, ~0u, 0x40002, user_ + 1, 0x40004, ~0u, 0x40010, ~0u, 0x20, ~0u};
  ASSERT_EQ(setxattr(folder_.c_str(), "system.posix_acl_default", list, sizeof list, 0), 0);
  Write("<config/>");
  const auto saves = [&](std::string_view failing, int error) {
    const Store store = Open();
    const Faults faults([&](std::string_view call, long fd) {
      const fs::path created = "/proc/self/fd/" + std::to_string(fd);  // The system may set its own label.
      if (call == "write") setxattr(created.c_str(), "user.a", "by rule", 7, 0);
      return call.ends_with(failing) ? error : 0;
    });
    return Set(store, "", "v", Get(store, "", "v") + "1") && Save(store);
  };
  ASSERT_EQ(removexattr(path_.c_str(), kAcl), 0);
  EXPECT_TRUE(saves("none", 0) && attribute(kAcl) == "none");
  ASSERT_EQ(setxattr(path_.c_str(), kAcl, list, sizeof list, 0), 0);
  ASSERT_EQ(setxattr(path_.c_str(), "user.empty", "", 0, 0) | setxattr(path_.c_str(), "user.a", "old", 3, 0), 0);
  EXPECT_TRUE(saves("none", 0));
  for (const char* call : {"llistxattr", "lgetxattr", "fsetxattr"}) EXPECT_FALSE(saves(call, EACCES)) << call;
  EXPECT_TRUE(Get(Open(), "", "v") == "(none)11" && attribute("user.empty") + attribute("user.a") == "old");
  EXPECT_EQ(attribute(kAcl), std::string(reinterpret_cast<const char*>(list), sizeof list));
  EXPECT_TRUE(saves("xattr", ENOTSUP));  // A file system without extended attributes.
}

// The new file is never readable for more users, and interrupted calls are repeated.
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
  EXPECT_EQ(calls, 8);  // Two writes and two syncs, each repeated once.
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
    EXPECT_TRUE(is_new && at > 16) << at;  // At least as many as a save makes system calls.
  }
}

}  // namespace

#include "oxutil.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>

#include "faults.h"
#include "host_fixture.h"

namespace fs = std::filesystem;
using std::string;
using std::string_literals::operator""s;

// A host may export its own build of pugixml, which the companion must not call: pugi::xml_document::load_buffer.
extern "C" void LoadBuffer() __asm__("_ZN4pugi12xml_document11load_bufferEPKvmjNS_12xml_encodingE");
void LoadBuffer() { abort(); }

namespace {

using Store = std::shared_ptr<void>;
bool AddKey(const Store& store, const string& parent, const string& name = "") {
  return oxCFGAddKeyString(store.get(), parent.c_str(), name.c_str(), "", 0, 0) == 0;
}
bool Set(const Store& store, const string& key, const string& name, string text) {
  auto length = static_cast<uint32_t>(text.size());
  return oxCFGValueString(store.get(), key.c_str(), name.c_str(), text.data(), &length, 1) == 0;
}
std::optional<string> Get(const Store& store, const string& key, const string& name, uint32_t capacity = 300000) {
  string buffer(capacity, '#');
  uint32_t length = capacity;
  if (oxCFGValueString(store.get(), key.c_str(), name.c_str(), buffer.data(), &length, 0) != 0) return std::nullopt;
  EXPECT_EQ(buffer.at(length), '\0');
  return buffer.substr(0, length);
}
bool Save(const Store& store) { return oxCFGSave(store.get(), 0, 1) == 0; }
void SetAndSave(const Store& store, const string& key, const string& name, const string& text) {
  EXPECT_TRUE(Set(store, key, name, text));
  EXPECT_TRUE(Save(store));
}

TEST(oxOS, ReadsTheClocksInTheirUnits) {
  using namespace std::chrono;
  const auto ms = [] { return static_cast<uint32_t>(steady_clock::now().time_since_epoch() / milliseconds(1)); };
  const auto ns = [] { return static_cast<uint64_t>(system_clock::now().time_since_epoch() / nanoseconds(1)); };
  const uint32_t ms_before = ms(), ms_read = oxOSGetMs();
  EXPECT_LE(ms_read - ms_before, ms() - ms_before);
  const uint64_t ns_before = ns(), ns_read = oxOSGetTimePTPNano();
  EXPECT_LE(ns_read - ns_before, ns() - ns_before);
}

struct oxCFG : testing::Test {
  void Write(const string& text) const { std::ofstream(path_) << text; }
  Store Open() const {
    return Store(oxCFGOpen(path_.c_str(), 0), [](void* store) { oxCFGClose(store, 1); });
  }
  Store Open(const string& text) const {
    Write(text);
    return Open();
  }

  const HostFolder holder_{};
  const fs::path directory_ = holder_.path, path_ = directory_ / "store.xml";
  const uid_t user_ = geteuid() == 0 ? 12345 : geteuid();
};

TEST_F(oxCFG, RefusesAFileThatIsNoStoreAndLeavesItAsItIs) {
  string too_deep = "<config></config>", dense = "<config>";
  for (size_t end = 8; end < 8 + 64 * 3; end += 3) too_deep.insert(end, "<a></a>");
  for (int i = 0; i < 66000; ++i) dense += "<a/>x";
  for (const string& text :
       {"<config>"s, "<Config/>"s, "<config/><config/>"s, "<config/>x"s, "<!-- only -->"s, "<![CDATA[ ]]><config/>"s,
        "<config>\0</config>"s, "<config a=1/>"s, too_deep, dense + "</config>",
        "<!DOCTYPE c [<!ENTITY e 'x'>]><config/>"s, "\xEF\xBB\xBF\xEF\xBB\xBF<config/>"s}) {
    EXPECT_EQ(Open(text), nullptr) << text.substr(0, 60);
    EXPECT_EQ(ReadFile(path_), text);
  }
}

TEST_F(oxCFG, OpensOnlyRegularFiles) {
  ASSERT_EQ(mkfifo((directory_ / "fifo").c_str(), 0600), 0);
  Write("<config/>");
  const Faults faults([&](std::string_view call, long fd) {
    EXPECT_TRUE(call != "read" || fcntl(static_cast<int>(fd), F_GETFD) == FD_CLOEXEC);
    if (call == "open") fs::rename(directory_ / "fifo", path_);
    return 0;
  });
  for (const char* name : {"fifo", "missing", ".", "/dev/zero"}) {
    EXPECT_EQ(oxCFGOpen((directory_ / name).c_str(), 0), nullptr) << name;
    EXPECT_TRUE(fs::is_regular_file(path_)) << "Opening a device can have side effects: " << name;
  }
  EXPECT_EQ(Open(), nullptr) << "the open found a fifo";
}

TEST_F(oxCFG, OpensAndSavesUpTo64MiB) {
  string text = "<?xml version=\"1.0\"?><config><value name=\"v\">1</value></config>";
  text.append((64 << 20) - text.size(), ' ');
  const Store store = Open(text);
  ASSERT_NE(store, nullptr);
  SetAndSave(store, "", "v", "2");
  EXPECT_EQ(fs::file_size(path_), 64u << 20);
  EXPECT_TRUE(Set(store, "", "v", "10"));
  EXPECT_FALSE(Save(store));
  EXPECT_EQ(Open(text + " "), nullptr);
}

TEST_F(oxCFG, RefusesAFileThatASaveCouldNotWriteBackUnchanged) {
  for (const char* text : {"<!-- a--b -->", "<!-- a --->", "\x01", "<a b='&#0;'/>", "&#x0000;", "&#31;", "&#xD800;",
                           "&#xDFFF;", "&#xFFFE;", "&#xFFFF;", "&#x110000;", "&#4294967297;", "&&#0;"})
    EXPECT_EQ(Open("<config>"s + text + "</config>"), nullptr) << text;
}

TEST_F(oxCFG, KeepsWhatItDoesNotSet) {
  const string byte_order_mark = "\xEF\xBB\xBF";
  const string head =
      "<!DOCTYPE c [ <!-- -- --> ]>\r\n<?p d?>\n<!-- \xE4 -->\n<config>\t<p a=\"1\">a <b>b</b></p>&#13;&#x41; &none; & "
      "]]&gt;<q q=\"&#9;'&quot;\"/><![CDATA[&#0;]]><!-- &#0; - - --><value name=\"n\">";
  const string tail = "<!--in--></value> text <![CDATA[<&>]]><key name=\"k\"><key/></key></config>\n<!-- z -->";
  const Store store = Open(byte_order_mark + head + "1<![CDATA[<]]>" + tail);
  EXPECT_TRUE(Set(store, "", "n", "2"));
  EXPECT_TRUE(AddKey(store, "k", "new"));
  EXPECT_TRUE(Save(store));
  EXPECT_TRUE(Save(store));  // Nothing has changed since.
  string expected = byte_order_mark + "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + head + tail;
  expected.insert(expected.find("</value>"), "2");
  expected.insert(expected.find("</key>"), "\n    <key name=\"new\"/>\n  ");
  EXPECT_EQ(ReadFile(path_), expected);
}

TEST_F(oxCFG, KeepsAnyStringInTheFile) {
  string all = "\t\r\n", name = all;
  for (int byte = ' '; byte < 256; ++byte) {
    all += static_cast<char>(byte);
    if (byte != '\\') name += static_cast<char>(byte);
  }
  for (const string& text : {all, ""s, " "s, "\r\n\t "s, "]]>"s, "<!--&#10;&amp;-->"s, string(90000, '<')}) {
    const Store store = Open("");
    EXPECT_TRUE(AddKey(store, name));
    EXPECT_TRUE(Set(store, name, name, text));
    EXPECT_EQ(Get(store, name, name), text);
    EXPECT_TRUE(Save(store));
    EXPECT_EQ(Get(Open(), name, name), text);
  }
}

TEST_F(oxCFG, WritesTextSoThatAnyXmlReaderReadsTheSame) {
  const Store store = Open("\n");
  EXPECT_TRUE(AddKey(store, "<>&'\"\t\r\n"));
  EXPECT_TRUE(Save(store));
  SetAndSave(store, "", "v", "<>&'\"\t\r\n");
  EXPECT_EQ(ReadFile(path_),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config>\n"
            "  <key name=\"&lt;&gt;&amp;'&quot;&#9;&#13;&#10;\"/>\n"
            "  <value name=\"v\">&lt;&gt;&amp;'\"\t&#13;\n</value>\n</config>\n");
}

TEST_F(oxCFG, DoesNotWriteAFileWhoseContentIsTheSame) {
  const string text = "<config><key name='a&lt;\"b\"c'><value name='v'>1</value></key></config>";
  SetAndSave(Open(text), "a<\"b\"c", "v", "1");
  EXPECT_EQ(ReadFile(path_), text);
}

TEST_F(oxCFG, DecodesReferences) {
  const Store store = Open(
      "<config><key a='' name='a&lt;&quot;\"'><value name='v'>"
      "&#65;&#x1F600;&#xe9;&#xfffd;&apos;&gt;&#;&#6x;&#/5;&#x;"
      "&#x7F;&#x80;&#x7FF;&#x800;&#xD7FF;&#xE000;&#x10000;&#x10FFFF;&#1</value></key></config>");
  const string decoded =
      "A\xF0\x9F\x98\x80\xC3\xA9\xEF\xBF\xBD'>&#;&#6x;&#/5;&#x;"
      "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF&#1";
  EXPECT_EQ(Get(store, "a<\"\"", "v"), decoded);
  EXPECT_EQ(Get(store, "a<\"\"", "v", 4), "A\xF0\x9F");
  EXPECT_EQ(Get(store, "a<\"\"", "v", 0), std::nullopt);
}

TEST_F(oxCFG, ReadsNumbersOf32Bits) {
  const auto number = [&](const string& text) -> std::optional<uint32_t> {
    const Store store = Open("<config><value name=\"n\">" + text + "</value></config>");
    uint32_t value = 0;
    const bool succeeded = oxCFGValueDword(store.get(), "", "n", &value, 0) == 0;
    return succeeded ? std::optional(value) : std::nullopt;
  };
  EXPECT_EQ(number("0"), 0u);
  EXPECT_EQ(number("\r\n\t 00429<![CDATA[4967295 ]]>&#32;"), 4294967295u);
  for (const char* text : {"", " ", "4294967296", "99999999999999999999", "1 2", "+1", "\v1", "1x", "/", ":"})
    EXPECT_EQ(number(text), std::nullopt) << text;
}

TEST_F(oxCFG, IteratesOverEachNameOnceAndInOrder) {
  const string longest(511, 'n');
  const Store store =
      Open("<config><key name='a'/><value name='x'/><key name=''/><key name='a\\b'/><value name='" + longest + "n'/>" +
           "<value name='a'/><key name='a'/><value name='m'/><key name='m'/><other name='o'/><key name='" + longest +
           "'/></config>");
  const auto names = [&](string name, const char* key = "") {
    string found;
    uint32_t kind = 2;
    name.resize(512);
    while (found.size() < 2000 && oxCFGGetNext(store.get(), key, name.data(), string(name).c_str(), &kind) == 0) {
      found += (kind == 0 ? "key " : "value ") + string(name.c_str()) + " ";
    }
    return found;
  };
  const string from_m = "value m key m key " + longest + " ";
  EXPECT_EQ(names(""), "key a value x value a " + from_m);
  EXPECT_EQ(names("x"), "value a " + from_m);  // Continues after any name.
  EXPECT_EQ(names("a"), from_m) << "after the later of two elements with this name";
  EXPECT_EQ(names("", "missing"), "");
}

TEST_F(oxCFG, RefusesWhatAFileCannotHold) {
  const Store store = Open("");
  const string longest(511, 'n');
  string deepest = "k";
  for (int i = 1; i < 62; ++i) deepest += "\\k";
  for (const string& key : {deepest, longest, deepest}) EXPECT_TRUE(AddKey(store, key)) << key;
  for (const string& key : {deepest + "\\k", longest + "n", "k\\\x01"s}) EXPECT_FALSE(AddKey(store, key)) << key;
  EXPECT_TRUE(Set(store, deepest, "v", "1"));
  EXPECT_FALSE(Set(store, "missing", "v", "1"));
  for (const string& name : {""s, "a\\b"s, "\x1F"s, longest + "n"}) EXPECT_FALSE(Set(store, "", name, "1")) << name;
  for (const string& text : {"a\0b"s, "\x01"s, "\x1F"s}) EXPECT_FALSE(Set(store, "", "v", text)) << text;
  string nested;
  for (int i = 0; i < 63; ++i) nested = "<key name='k'>" + nested + "</key>";
  const Store deep = Open("<config>" + nested + "</config>");
  EXPECT_TRUE(Set(deep, deepest, "v", "1"));
  EXPECT_FALSE(Set(deep, deepest + "\\k", "v", "1"));
}

TEST_F(oxCFG, DoesNotSaveAfterMemoryRanOut) {
  const Store store = Open("<config/>");
  const auto add_without_memory = [&] {
    const Faults faults([](std::string_view call, long) { return call == "malloc" ? ENOMEM : 0; });
    return oxCFGAddKeyString(store.get(), "a name that needs memory", "", "", 0, 0);
  };
  EXPECT_TRUE(Set(store, "", "v", "1"));
  EXPECT_NE(add_without_memory(), 0u);
  EXPECT_FALSE(Save(store));
}

TEST_F(oxCFG, KeepsExtendedAttributesOrFailsTheSave) {
  constexpr char kAcl[] = "system.posix_acl_access";
  const auto attribute = [&](const char* name) -> std::optional<string> {
    char value[100];
    const ssize_t size = getxattr(path_.c_str(), name, value, sizeof value);
    if (size < 0) return std::nullopt;
    return string(value, static_cast<size_t>(size));
  };
  const auto saves = [&](std::string_view failing_call, int error) {
    const Store store = Open();
    const Faults faults([&](std::string_view call, long fd) {
      if (call == "write") fsetxattr(int(fd), "user.a", "", 0, 0);  // As a system does that labels new files.
      return call.ends_with(failing_call) ? error : 0;
    });
    return Set(store, "", "v", Get(store, "", "v").value_or("") + "1") && Save(store);
  };
  // Version 2 of Linux's access lists, with an entry for one more user.
  uint32_t list[] = {2, 0x60001, ~0u, 0x40002, user_ + 1, 0x40004, ~0u, 0x40010, ~0u, 0x20, ~0u};
  std::transform(std::begin(list), std::end(list), list, [](uint32_t word) { return htole32(word); });
  Write("<config/>");
  EXPECT_TRUE(saves("fremovexattr", ENODATA));
  ASSERT_EQ(setxattr(directory_.c_str(), "system.posix_acl_default", list, sizeof list, 0), 0);
  Write("<config/>");
  ASSERT_EQ(removexattr(path_.c_str(), kAcl), 0);
  EXPECT_TRUE(saves("none", 0));
  EXPECT_EQ(attribute(kAcl), std::nullopt);
  EXPECT_TRUE(saves("fsetxattr", EACCES)) << "the new file has the same user.a already";
  ASSERT_EQ(setxattr(path_.c_str(), kAcl, list, sizeof list, 0), 0);
  ASSERT_EQ(setxattr(path_.c_str(), "user.a", "old", 3, 0), 0);
  EXPECT_TRUE(saves("none", 0));
  for (const char* call : {"llistxattr", "lgetxattr", "fsetxattr"}) EXPECT_FALSE(saves(call, EACCES)) << call;
  EXPECT_EQ(attribute("user.a"), "old");
  EXPECT_EQ(attribute(kAcl), string(reinterpret_cast<const char*>(list), sizeof list));
  EXPECT_TRUE(saves("xattr", ENOTSUP));  // As on a file system without extended attributes.
  const bool has_hash = setxattr(path_.c_str(), "security.ima", "", 0, 0) == 0;  // Only root may set it.
  EXPECT_EQ(saves("none", 0), !has_hash);
}

TEST_F(oxCFG, KeepsALinkAndItsTargetsOwnerAndModeAndHidesTheNewFileMeanwhile) {
  fs::create_symlink(string(255, 't'), path_);  // The longest name.
  Write("<config/>");
  ASSERT_EQ(chown(path_.c_str(), user_, getegid()), 0);
  ASSERT_EQ(chmod(path_.c_str(), 04755), 0);
  const Store store = Open();
  {
    const Faults faults([&](std::string_view call, long fd) {
      if (call != "write") return 0;
      const fs::perms perms = fs::status("/proc/self/fd/" + std::to_string(fd)).permissions();
      EXPECT_EQ(perms & fs::perms(0577), fs::perms::none);  // Nobody can read the file before it is complete.
      return 0;
    });
    SetAndSave(store, "", "v", "1");
  }
  SetAndSave(store, "", "v", "again");
  EXPECT_TRUE(fs::is_symlink(path_));
  struct stat status;
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, user_);
  EXPECT_EQ(status.st_mode & 07777, 04755u);
}

TEST_F(oxCFG, SyncsTheNewFileBeforeTheRenameAndTheDirectoryAfterIt) {
  for (const int directory_error : {0, EINVAL, ENOTSUP}) {  // Some file systems cannot sync directories.
    const Store store = Open("<config/>");
    string steps;
    const Faults faults([&](std::string_view call, long fd) {
      if (call != "fsync" && call != "renameat") return 0;
      EXPECT_EQ(fcntl(static_cast<int>(fd), F_GETFD), FD_CLOEXEC);
      steps.append(call) += ' ';
      return steps == "fsync renameat fsync " ? directory_error : 0;
    });
    SetAndSave(store, "", "v", "1");
    EXPECT_EQ(steps, "fsync renameat fsync ");
  }
}

TEST_F(oxCFG, OpensAndSavesAlthoughSignalsInterruptEachCall) {
  Write("<config/>");
  string last;
  const Faults faults([&](std::string_view call, long) {
    if (call != "read" && call != "write" && call != "fsync" && call != "close") return 0;
    if (std::exchange(last, call) != call) return EINTR;
    return call == "write" ? -1 : 0;
  });
  SetAndSave(Open(), "", "v", "1");
  EXPECT_EQ(Get(Open(), "", "v"), "1");
}

TEST_F(oxCFG, LeavesAFileThatChangedMeanwhile) {
  std::ofstream(directory_ / "other") << "<config/>";
  const fs::file_time_type::duration nanosecond(1);
  const std::function<void()> changes[] = {
      [&] { Write(""); }, [&] { fs::last_write_time(path_, fs::last_write_time(path_) + nanosecond); },
      [&] { fs::rename(directory_ / "other", path_); }, [&] { fs::rename(path_, directory_ / "gone"); }};
  for (const auto& change : changes) {
    const Store store = Open("<config/>");
    change();
    const auto before = std::pair(ReadFile(path_), Entries(directory_));
    EXPECT_TRUE(Set(store, "", "v", "1"));
    EXPECT_FALSE(Save(store));
    EXPECT_EQ(std::pair(ReadFile(path_), Entries(directory_)), before);
  }
}

TEST_F(oxCFG, LeavesAFileThatIsWriteProtected) {  // Although a rename could replace it.
  fs::permissions(directory_, fs::perms(0777));
  Write("<config/>");
  ASSERT_EQ(chown(path_.c_str(), user_, getegid()), 0);
  fs::permissions(path_, fs::perms(0555));
  const auto save = [&] {
    if (seteuid(user_) != 0) return 1;
    const Store store = Open();
    return Set(store, "", "v", "1") && !Save(store) ? 0 : 2;
  };
  EXPECT_EQ(InChild(save), 0);
  EXPECT_EQ(ReadFile(path_), "<config/>");
}

TEST_F(oxCFG, IsTheOldOrTheNewFileWhicheverSystemCallFails) {
  enum : int { kSaved, kFailed, kSavedBeforeTheCall, kWrong };
  const string old_text = "<config>" + string(1500, ' ') + "</config>\n";
  int n = 0;
  for (int result = kFailed; result != kSavedBeforeTheCall;) {
    ++n;
    SCOPED_TRACE("A failure of call " + std::to_string(n));
    ASSERT_LT(n, 200);
    Write(old_text);
    setxattr(path_.c_str(), "user.a", "1", 1, 0);
    result = InChild([&]() -> int {
      const int input_flags = fcntl(0, F_GETFD);
      const Store store = Open();
      int calls = 0;
      bool may_fail = true;
      const Faults faults([&](std::string_view call, long) {
        if (++calls == n) may_fail = call == "close" || call == "malloc";
        if (calls == n) return ENOSPC;
        return call == "write" ? -1000 : 0;
      });
      const bool saved = Set(store, "", "v", "new") && Save(store);
      if (fcntl(0, F_GETFD) != input_flags || (saved && !may_fail)) return kWrong;
      if (!saved) return kFailed;
      return calls < n ? kSavedBeforeTheCall : kSaved;
    });
    EXPECT_NE(result, kWrong) << "a failed call goes unnoticed, or the standard input is closed";
    const bool is_new = ReadFile(path_) != old_text;
    EXPECT_TRUE(is_new || result == kFailed) << "a save that succeeded has written nothing";
    EXPECT_EQ(Get(Open(), "", "v"), is_new ? std::optional("new"s) : std::nullopt);
    EXPECT_EQ(Entries(directory_), 1u) << "a temporary file is left";
  }
  EXPECT_GT(n, 16);  // A save makes at least 16 calls that can fail.
}

}  // namespace

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "config/oxEventConfigLoad.h"
#include "host_fixture.h"

namespace {

std::string Row(const auto&... values) {
  std::ostringstream text;
  return ((text << values << "|"), ...), text.str();
}

// The core's fields and the sinks', with what CSV and native log have of their own.
std::string Describe(const oxEventConfig& c) {
  std::string text = Row(c.enabled, c.minimum_severity, c.queue_size, static_cast<int>(c.drop_policy), c.state_enabled,
                         c.dedupe_enabled, c.default_repeat_interval_sec, c.send_clear, c.route_orphan_clear);
  for (const oxEventSinkConfig& s : c.sinks) {
    text += "\n" + Row(static_cast<int>(s.type), s.name, s.enabled, s.minimum_severity);
    if (s.type == oxEventSinkType::kCsv) text += Row(s.path, s.flush_each_event);
    if (s.type == oxEventSinkType::kNative) text += Row(s.source_name, s.native_facility, s.subsystem, s.category);
  }
  return text;
}

const std::string kComplete = ReadFile(OXEVENT_DOCS "/default-settings.xml");  // All defaults.

// The complete file with the values of "name=text ...", which are in its order; what it lacks goes between them.
std::string With(const std::string& values) {
  std::string xml = kComplete;
  std::istringstream items(values);
  size_t at = 0;
  for (std::string item; items >> item;) {
    const size_t mark = item.find('=');
    const std::string start = "<value name=\"" + item.substr(0, mark) + "\">";
    if (xml.find(start, at) == xml.npos) xml.insert(xml.find('\n', at), start + "</value>");
    at = xml.find(start, at) + start.size();
    xml.replace(at, xml.find('<', at) - at, item.substr(mark + 1));
  }
  return xml;
}

struct oxEventConfigFile : testing::Test {
  std::string Load() {  // Returns what was loaded, or the error.
    std::string error = "old";
    const uint32_t result = oxEventConfigLoad(path_.c_str(), &config_, &error);
    EXPECT_EQ(result, error.empty() ? OXEVENT_OK : OXEVENT_INVALID_ARGUMENT);
    return error.empty() ? Describe(config_) : error;
  }
  std::string Load(const std::string& text) { return std::ofstream(path_) << text << std::flush, Load(); }
  std::string Stamp() const {  // Changes with any write, and with any file in its place.
    struct stat s = {};
    return stat(path_.c_str(), &s), Row(s.st_ino, s.st_mtim.tv_sec, s.st_mtim.tv_nsec) + ReadFile(path_);
  }
  const HostFolder folder_{};
  const std::string path_ = folder_.path + "/events.xml";
  oxEventConfig config_;
};

TEST_F(oxEventConfigFile, IsCompletedOnceWhenItCanBe) {
  rlimit limit = {0, RLIM_INFINITY};  // No byte can be written.
  std::ofstream(path_) << "";
  prlimit(0, RLIMIT_FSIZE, &limit, &limit);
  const std::string unsaved = Load() + ReadFile(path_);
  prlimit(0, RLIMIT_FSIZE, &limit, nullptr);
  EXPECT_EQ(Load(), unsaved);
  EXPECT_EQ(ReadFile(path_), kComplete);
  const std::string stamp = Stamp();
  EXPECT_EQ(Load() + Stamp(), unsaved + stamp);
}

TEST_F(oxEventConfigFile, SetsTheFieldsByAnyWordAndKeepsTheRest) {
  const std::string most(2047, 'x'), csv = "<key name=\"csv\">";
  std::string text = With(
      "enabled=OFF minimum_severity=ERR queue_size=1x drop_policy=debug_info_first enabled=nO dedupe_enabled=False "
      "default_repeat_interval_sec=4294967296 send_clear=disabled route_orphan_clear=4294967295 "
      "enabled=tRue minimum_severity=DeBug unknown=5 path=@yz flush_each_event=YES "
      "enabled=on minimum_severity=information app_name=a "
      "enabled=Enabled minimum_severity=Warn source_name=s&amp;s facility=f subsystem=u category=c "
      "minimum_severity=warning backoff_ms=4 minimum_severity=0 minimum_severity=Error");
  text.replace(text.find('@'), 1, most);
  text.insert(text.find(csv) + csv.size(), R"(<key name="b"/><value name="stray">1</value><key name="a"/>)");
  const std::string start = "0|3|1024|1|0|0|1800|0|1|\n0|b|0|1|oxEvent.csv|0|\n0|a|0|1|oxEvent.csv|0|\n0|default|1|0|";
  EXPECT_EQ(Load(text), start + most + "|1|\n1|default|1|1|\n2|main|1|2|s&s|f|u|c|\n" +
                            "3|default|0|2|\n5|default|0|1|\n4|default|0|0|\n6|main|0|3|");
  for (const char* kept : {">5<", "stray", "yz</value>", ">tRue<", ">DeBug<", ">1024<", ">1800<"})
    EXPECT_NE(ReadFile(path_).find(kept), text.npos) << kept;
}

TEST_F(oxEventConfigFile, IsLeftWhenRefused) {
  for (const char* bad : {"no XML", "<config>"}) EXPECT_EQ(Load(bad), "Unable to open oxEvent config: " + path_);
  const std::string cases[][2] = {
      {"enabled=maybe queue_size=0", "queue_size must be greater than zero"},
      {"enabled=x drop_policy=Oldest", R"(Invalid drop_policy value for QVX\Events\core\drop_policy: Oldest)"},
      {"minimum_severity=7", R"(Invalid minimum_severity value for QVX\Events\core\minimum_severity: 7)"},
      {"enabled=x send_clear=", R"(Invalid boolean value for QVX\Events\state\send_clear: )"},
      {"tls_verify=2x", R"(Invalid boolean value for QVX\Events\sink\webhook\http\default\tls_verify: 2x)"}};
  for (const auto& [values, error] : cases) {
    std::string text = With(values);
    std::ofstream(path_) << text.replace(text.find("\"port"), 5, "\"else");  // So that there is something to complete.
    const std::string stamp = Stamp();
    EXPECT_EQ(Load(), error);
    EXPECT_EQ(Stamp(), stamp) << error;
  }
}

}  // namespace

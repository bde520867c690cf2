#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "config/oxEventConfigLoad.h"
#include "host_fixture.h"

uint32_t g_save_result = 0;  // Not 0: what a companion of somebody else's gives.

extern "C" uint32_t oxCFGSave(void* store, uint32_t reserved, uint32_t mode) {
  static const auto next = reinterpret_cast<decltype(&oxCFGSave)>(dlsym(RTLD_NEXT, "oxCFGSave"));
  return g_save_result != 0 ? g_save_result : next(store, reserved, mode);
}

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

struct oxEventConfigFile : testing::Test {
  std::string Load() {  // Returns what was loaded, or the error.
    std::string error = "old";
    const uint32_t result = oxEventConfigLoad(path_.c_str(), &config_, &error);
    EXPECT_EQ(result, error.empty() ? OXEVENT_OK : OXEVENT_INVALID_ARGUMENT);
    return error.empty() ? Describe(config_) : error;
  }
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
  EXPECT_EQ(ReadFile(path_), ReadFile(OXEVENT_DOCS "/default-settings.xml"));
  const std::string stamp = Stamp();
  EXPECT_EQ(Load(), unsaved);
  EXPECT_EQ(Stamp(), stamp);
}

TEST_F(oxEventConfigFile, LoadsWhateverASaveThatFailsReturns) {
  for (const uint32_t result : {1u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
    std::ofstream(path_) << "";
    g_save_result = result;
    const std::string loaded = Load();
    g_save_result = 0;
    EXPECT_EQ(loaded, Load()) << result;
  }
}

TEST_F(oxEventConfigFile, KeepsWhiteSpaceAroundNumbers) {
  WriteSettings(path_, "",
                {{"core\\queue_size", "\n 5000\r\n"}, {"core\\minimum_severity", "\t2 "}, {"core\\enabled", " 0"}});
  EXPECT_EQ(Load().substr(0, 9), "0|2|5000|");
  EXPECT_NE(ReadFile(path_).find(">\n 5000\r\n<"), std::string::npos);
}

TEST_F(oxEventConfigFile, SetsTheFieldsByAnyWordAndKeepsTheRest) {
  std::istringstream words(
      R"(core\enabled OFF core\minimum_severity ERR core\queue_size 1x core\drop_policy debug_info_first
         state\enabled nO state\dedupe_enabled False state\default_repeat_interval_sec 4294967296
         state\send_clear disabled state\route_orphan_clear 4294967295 sink\csv\a\stray 1 sink\csv\b\key\c d
         sink\csv\default\enabled tRue sink\csv\default\minimum_severity DeBug sink\csv\default\flush_each_event YES
         sink\syslog\udp\x\enabled on sink\syslog\udp\x\minimum_severity information sink\native\main\enabled Enabled
         sink\native\main\category c sink\native\main\minimum_severity Warn sink\native\main\source_name s&amp;s
         sink\native\main\facility f sink\native\main\subsystem u sink\cloudevents\http\default\minimum_severity warning
         sink\webhook\http\default\unknown 5 sink\snmp\trap\default\minimum_severity 0
         sink\alertmanager\main\minimum_severity Error)");
  const std::string most(2047, 'x');
  std::map<std::string, std::string> settings;
  for (std::string name, text; words >> name >> text;) settings[name] = text;
  WriteSettings(path_, most + "yz", settings);
  const std::string start = "0|3|1024|1|0|0|1800|0|1|\n0|a|0|1|oxEvent.csv|0|\n0|b|0|1|oxEvent.csv|0|\n0|default|1|0|";
  EXPECT_EQ(Load(), start + most + "|1|\n1|x|1|1|\n2|main|1|2|s&s|f|u|c|\n3|default|0|2|\n5|default|0|1|\n" +
                        "4|default|0|0|\n6|main|0|3|");
  for (const char* kept : {">5<", "stray", "yz</value>", ">1024<", ">1800<"})
    EXPECT_NE(ReadFile(path_).find(kept), most.npos) << kept;
}

TEST_F(oxEventConfigFile, IsLeftWhenRefused) {
  const std::string cases[][3] = {
      {"core\\enabled", "1</config>", "Unable to open oxEvent config: " + path_},
      {"core\\queue_size", "0", "queue_size must be greater than zero"},
      {"core\\drop_policy", "Oldest", R"(Invalid drop_policy value for QVX\Events\core\drop_policy: Oldest)"},
      {"core\\minimum_severity", "7", R"(Invalid minimum_severity value for QVX\Events\core\minimum_severity: 7)"},
      {"sink\\csv\\b\\enabled", "2x", R"(Invalid boolean value for QVX\Events\sink\csv\b\enabled: 2x)"}};
  for (const auto& [name, text, error] : cases) {
    WriteSettings(path_, "", {{name, text}});
    const std::string stamp = Stamp();
    EXPECT_EQ(Load(), error);
    EXPECT_EQ(Stamp(), stamp) << error;
  }
}

}  // namespace

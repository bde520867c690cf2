#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "config/oxEventConfigLoad.h"
#include "config/oxEventSettings.h"
#include "host_fixture.h"

namespace {

using Fields = std::vector<std::string>;

std::string Line(const std::string& name, const auto&... fields) {
  std::ostringstream line;
  line << name << ':';
  ((line << ' ' << fields), ...);
  return line.str();
}

Fields Describe(const oxEventConfig& c) {
  Fields lines = {Line("core", c.enabled, c.minimum_severity, c.queue_size, static_cast<int>(c.drop_policy)),
                  Line("state", c.state_enabled, c.dedupe_enabled, c.default_repeat_interval_sec, c.send_clear,
                       c.route_orphan_clear)};
  for (const oxEventSinkConfig& s : c.sinks) {
    lines.push_back(Line("sink", static_cast<int>(s.type), s.name, s.enabled, s.minimum_severity));
    if (s.type == oxEventSinkType::kCsv) lines.push_back(Line("csv", s.path, s.flush_each_event));
    if (s.type != oxEventSinkType::kNative) continue;
    lines.push_back(Line("native", s.source_name, s.native_facility, s.subsystem, s.category));
  }
  return lines;
}

struct ConfigTest : testing::Test {
  Fields Load() {  // Returns the loaded settings, or the error text.
    std::string error = "old";
    const uint32_t result = oxEventConfigLoad(path.c_str(), &config, &error);
    EXPECT_EQ(result, error.empty() ? OXEVENT_OK : OXEVENT_INVALID_ARGUMENT);
    return error.empty() ? Describe(config) : Fields{error};
  }
  std::string Stamp() const {  // Changes if the file is written or replaced.
    struct stat s = {};
    EXPECT_EQ(stat(path.c_str(), &s), 0);
    return Line("file", s.st_ino, s.st_mtim.tv_sec, s.st_mtim.tv_nsec, ReadFile(path));
  }
  const HostFolder folder{};
  const std::string path = folder.path + "/events.xml";
  oxEventConfig config;
};

TEST_F(ConfigTest, CompletesTheFileOnceItCanBeWritten) {
  rlimit limit = {0, RLIM_INFINITY};  // No byte can be written.
  std::ofstream(path) << "";
  prlimit(0, RLIMIT_FSIZE, &limit, &limit);
  const Fields unsaved = Load();
  const std::string file = ReadFile(path);
  prlimit(0, RLIMIT_FSIZE, &limit, nullptr);
  EXPECT_EQ(file, "");
  EXPECT_EQ(Load(), unsaved);
  EXPECT_EQ(ReadFile(path), ReadFile(OXEVENT_DOCS "/default-settings.xml"));
  const std::string stamp = Stamp();
  EXPECT_EQ(Load(), unsaved);
  EXPECT_EQ(Stamp(), stamp);
}

TEST_F(ConfigTest, ReadsWordsInAnyCaseAndKeepsUnknownValues) {
  const std::string longest(2047, 'x');
  const std::string longest_name(511, 'x');
  WriteSettings(path, longest + "yz",
                {{"core\\enabled", "OFF"},
                 {"core\\minimum_severity", "ERR"},
                 {"core\\queue_size", "1x"},  // Not a number: the default applies.
                 {"core\\drop_policy", "Debug_Info_First"},
                 {"state\\enabled", "nO"},
                 {"state\\dedupe_enabled", "False"},
                 {"state\\default_repeat_interval_sec", "4294967296"},
                 {"state\\send_clear", "disabled"},
                 {"state\\route_orphan_clear", "4294967295"},
                 {"sink\\csv\\a\\stray", "1"},
                 {"sink\\csv\\b\\key\\c", "d"},
                 {"sink\\csv\\default\\enabled", "tRue"},
                 {"sink\\csv\\default\\minimum_severity", "DeBug"},
                 {"sink\\csv\\default\\flush_each_event", "YES"},
                 {"sink\\syslog\\udp\\" + longest_name + "\\enabled", "on"},
                 {"sink\\syslog\\udp\\" + longest_name + "\\minimum_severity", "information"},
                 {"sink\\native\\main\\enabled", "Enabled"},
                 {"sink\\native\\main\\category", "c"},
                 {"sink\\native\\main\\minimum_severity", "Warn"},
                 {"sink\\native\\main\\source_name", "s&amp;s"},
                 {"sink\\native\\main\\facility", "f"},
                 {"sink\\native\\main\\subsystem", "u"},
                 {"sink\\cloudevents\\http\\default\\minimum_severity", "warning"},
                 {"sink\\webhook\\http\\default\\unknown", "5"},
                 {"sink\\snmp\\trap\\default\\minimum_severity", "0"},
                 {"sink\\alertmanager\\main\\minimum_severity", "Error"}});
  const Fields expected = {"core: 0 3 1024 1",    "state: 0 0 1800 0 1",    "sink: 0 a 0 1",
                           "csv: oxEvent.csv 0",  "sink: 0 b 0 1",          "csv: oxEvent.csv 0",
                           "sink: 0 default 1 0", "csv: " + longest + " 1", "sink: 1 " + longest_name + " 1 1",
                           "sink: 2 main 1 2",    "native: s&s f u c",      "sink: 3 default 0 2",
                           "sink: 5 default 0 1", "sink: 4 default 0 0",    "sink: 6 main 0 3"};
  EXPECT_EQ(Load(), expected);
  for (const char* saved : {">5<", "stray", "yz</value>", ">1024<", ">1800<"}) {  // Kept, or replaced by defaults.
    EXPECT_NE(ReadFile(path).find(saved), std::string::npos) << saved;
  }
  for (const oxEventWord& word : g_oxEventSwitchWords) EXPECT_LE(word.value, 1u) << word.text;
}

TEST_F(ConfigTest, DoesNotChangeAFileThatItRefuses) {
  const struct {
    std::string setting, value, error;
  } cases[] = {
      {"core\\queue_size", "0", "queue_size must be greater than zero"},
      {"core\\drop_policy", "Oldest", R"(Invalid drop_policy value for QVX\Events\core\drop_policy: Oldest)"},
      {"core\\minimum_severity", "7", R"(Invalid minimum_severity value for QVX\Events\core\minimum_severity: 7)"},
      {"sink\\csv\\b\\enabled", "2x", R"(Invalid boolean value for QVX\Events\sink\csv\b\enabled: 2x)"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    WriteSettings(path, "", {{c.setting, c.value}});
    const std::string stamp = Stamp();
    EXPECT_EQ(Load(), Fields{c.error});
    EXPECT_EQ(Stamp(), stamp);
  }
}

}  // namespace

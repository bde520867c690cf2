#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "config/oxEventConfigLoad.h"
#include "oxEvent.h"

namespace {

std::string Row(const auto&... values) {
  std::ostringstream text;
  return ((text << values << "|"), ...), text.str();
}

// The core's fields, then those of each sink's own kind.
std::string Describe(const oxEventConfig& c) {
  std::string text = Row(c.enabled, c.minimum_severity, c.queue_size, static_cast<int>(c.drop_policy), c.state_enabled,
                         c.dedupe_enabled, c.default_repeat_interval_sec, c.send_clear, c.route_orphan_clear);
  for (const oxEventSinkConfig& s : c.sinks) {
    const auto type = static_cast<int>(s.type);
    text += "\n" + Row(type, s.name, s.enabled, s.minimum_severity);
    if (type == 0) text += Row(s.path, s.flush_each_event);
    if (type == 1) text += Row(s.host, s.port, s.facility, s.app_name);
    if (type == 2) text += Row(s.source_name, s.native_facility, s.subsystem, s.category);
    if (type == 3) text += Row(s.ce_endpoint_url, s.ce_source, s.ce_subject_prefix, s.ce_auth_header, s.ce_timeout_ms);
    if (type == 3 || type == 5)
      text += Row(s.endpoint_url, s.payload_mode, s.headers, s.bearer_token, s.basic_username, s.basic_password,
                  s.connect_timeout_ms, s.request_timeout_ms, s.tls_verify, s.retry_count, s.backoff_ms,
                  s.cloudevents_source, s.cloudevents_subject_prefix);
    if (type == 4) text += Row(s.snmp_host, s.snmp_port, s.community, s.version, s.enterprise_oid, s.trap_oid);
    if (type == 6)
      text += Row(s.url, s.send_resolved, s.allow_source_label, s.alertname_prefix, s.authorization_type,
                  s.authorization_token, s.am_connect_timeout_ms, s.am_request_timeout_ms, s.verify_tls,
                  s.am_retry_count, s.retry_backoff_ms);
  }
  return text;
}

const std::string kDefaults = R"(1|1|1024|0|1|1|1800|1|0|
0|default|0|1|oxEvent.csv|0|
1|default|0|1|127.0.0.1|5140|local0|oxEvent|
2|main|1|1|oxEvent|local4|com.velmora.oxEvent|events|
3|default|0|1||/oxEvent|||5000||cloudevents|||||5000|5000|0|0|250|/oxEvent||
5|default|0|1||native_json|||||2000|5000|1|0|250|/oxEvent||
4|default|0|1|127.0.0.1|162|cobalt|2c|1.3.6.1.4.1.32473.1.1|1.3.6.1.4.1.32473.1.1.0.1|
6|main|0|1|http://127.0.0.1:9093/api/v2/alerts|1|0|OxEvent|none||3000|5000|1|3|500|)";

// The settings file of an outline: "name{" opens a key, "}" closes it, "name=text" is a value.
std::string File(const std::string& outline) {
  std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<config>\n", indent = "  ";
  std::istringstream items("QVX{ Events{ " + outline + " } }");
  for (std::string item; items >> item;) {
    const size_t mark = item.find_first_of("{}=");
    const std::string name = " name=\"" + item.substr(0, mark) + "\">";
    if (item[mark] == '}') indent.resize(indent.size() - 2), xml += indent + "</key>\n";
    if (item[mark] == '{') xml += indent + "<key" + name + "\n", indent += "  ";
    if (item[mark] == '=') xml += indent + "<value" + name + item.substr(mark + 1) + "</value>\n";
  }
  return xml + "</config>\n";
}

struct oxEventConfigFile : testing::Test {
  ~oxEventConfigFile() override { std::filesystem::remove_all(folder_); }

  std::string Load() {  // Returns what was loaded, or the error.
    std::string error = "old";
    const uint32_t result = oxEventConfigLoad(path_.c_str(), &config_, &error);
    EXPECT_EQ(result, error.empty() ? OXEVENT_OK : OXEVENT_INVALID_ARGUMENT);
    return error.empty() ? Describe(config_) : error;
  }
  std::string Load(const std::string& text) { return std::ofstream(path_) << text << std::flush, Load(); }
  std::string Read() const { return (std::ostringstream() << std::ifstream(path_).rdbuf()).str(); }
  bool Has(const std::string& text) const { return Read().find(text) != std::string::npos; }
  std::string Stamp() const {  // Changes with any write, and with any file in its place.
    struct stat s = {};
    return stat(path_.c_str(), &s), Row(s.st_ino, s.st_mtim.tv_sec, s.st_mtim.tv_nsec) + Read();
  }

  char template_[40] = "/tmp/oxevent_config_test.XXXXXX";
  const std::filesystem::path folder_ = mkdtemp(template_);
  const std::string path_ = folder_ / "events.xml";
  oxEventConfig config_;
};

TEST_F(oxEventConfigFile, IsCompletedOnce) {
  config_.sinks.emplace_back();
  EXPECT_EQ(Describe(config_), "1|1|1024|0|1|1|1800|1|0|\n2||0|1||local4|com.velmora.oxEvent|events|");
  EXPECT_EQ(Load(""), kDefaults);
  EXPECT_EQ(Read(), File(R"(core{ enabled=1 minimum_severity=info queue_size=1024 drop_policy=drop_newest }
state{ enabled=1 dedupe_enabled=1 default_repeat_interval_sec=1800 send_clear=1 route_orphan_clear=0 }
sink{ csv{ default{ enabled=0 minimum_severity=info path=oxEvent.csv flush_each_event=0 } }
syslog{ udp{ default{ enabled=0 minimum_severity=info host=127.0.0.1 port=5140 facility=local0 app_name=oxEvent } } }
native{ main{ enabled=1 minimum_severity=info source_name=oxEvent facility=local4 subsystem=com.velmora.oxEvent
category=events } } cloudevents{ http{ default{ enabled=0 minimum_severity=info source=/oxEvent timeout_ms=5000 } } }
webhook{ http{ default{ enabled=0 minimum_severity=info payload_mode=native_json connect_timeout_ms=2000
request_timeout_ms=5000 tls_verify=1 retry_count=0 backoff_ms=250 cloudevents_source=/oxEvent } } }
snmp{ trap{ default{ enabled=0 minimum_severity=info host=127.0.0.1 port=162 community=cobalt version=2c
enterprise_oid=1.3.6.1.4.1.32473.1.1 trap_oid=1.3.6.1.4.1.32473.1.1.0.1 } } }
alertmanager{ main{ enabled=0 minimum_severity=info url=http://127.0.0.1:9093/api/v2/alerts send_resolved=1
allow_source_label=0 alertname_prefix=OxEvent authorization_type=none connect_timeout_ms=3000 request_timeout_ms=5000
verify_tls=1 retry_count=3 retry_backoff_ms=500 } } })"));
  const std::string stamp = Stamp();
  EXPECT_EQ(Load(), kDefaults);
  EXPECT_TRUE(Stamp() == stamp && config_.config_path == path_);
}

TEST_F(oxEventConfigFile, SetsEveryField) {
  EXPECT_EQ(Load(File(R"(core{ enabled=0 minimum_severity=error queue_size=5 drop_policy=debug_info_first }
state{ enabled=0 dedupe_enabled=0 default_repeat_interval_sec=6 send_clear=0 route_orphan_clear=1 }
sink{ csv{ b{ enabled=1 minimum_severity=0 path=p flush_each_event=1 } stray=1 a{ minimum_severity=2 } }
syslog{ udp{ u{ host=h port=7 facility=f app_name=a } } }
native{ n{ enabled=0 source_name=s facility=f subsystem=u category=c } }
cloudevents{ http{ c{ endpoint_url=e source=s subject_prefix=p auth_header=a timeout_ms=8 } } }
webhook{ http{ w{ endpoint_url=e payload_mode=p headers=x&amp;y bearer_token=t basic_username=u basic_password=w
connect_timeout_ms=1 request_timeout_ms=2 tls_verify=0 retry_count=3 backoff_ms=4 cloudevents_source=s
cloudevents_subject_prefix=c } } } snmp{ trap{ t{ host=h port=9 community=c version=3 enterprise_oid=e trap_oid=t } } }
alertmanager{ m{ url=u send_resolved=0 allow_source_label=1 alertname_prefix=p authorization_type=t
authorization_token=k connect_timeout_ms=1 request_timeout_ms=2 verify_tls=0 retry_count=4 retry_backoff_ms=5 } } })")),
            R"(0|3|5|1|0|0|6|0|1|
0|b|1|0|p|1|
0|a|0|2|oxEvent.csv|0|
1|u|0|1|h|7|f|a|
2|n|0|1|s|f|u|c|
3|c|0|1|e|s|p|a|8|e|cloudevents|a||||8|8|0|0|250|s|p|
5|w|0|1|e|p|x&y|t|u|w|1|2|0|3|4|s|c|
4|t|0|1|h|9|c|3|e|t|
6|m|0|1|u|0|1|p|t|k|1|2|0|4|5|)");
}

TEST_F(oxEventConfigFile, MayUseOtherWords) {
  const std::string cases[][3] = {
      {"state{ route_orphan_clear=", "1 2 4294967295 tRue YES on Enabled", "1|1|1024|0|1|1|1800|1|1|"},
      {"state{ send_clear=", "0 False nO OFF disabled", "1|1|1024|0|1|1|1800|0|0|"},
      {"core{ minimum_severity=", "0 DeBug", "1|0|1024|0|1|1|1800|1|0|"},
      {"core{ minimum_severity=", "1 INFO information", "1|1|1024|0|1|1|1800|1|0|"},
      {"core{ minimum_severity=", "2 warning Warn", "1|2|1024|0|1|1|1800|1|0|"},
      {"core{ minimum_severity=", "3 Error ERR", "1|3|1024|0|1|1|1800|1|0|"},
      {"core{ drop_policy=", "drop_newest Newest DROP", "1|1|1024|0|1|1|1800|1|0|"},
      {"core{ drop_policy=", "Drop_Debug_Info_First Drop_Low_Severity_First", "1|1|1024|1|1|1|1800|1|0|"}};
  for (const auto& [setting, words, core] : cases) {
    std::istringstream in(words);
    for (std::string word; in >> word;) {
      EXPECT_EQ(Load(File(setting + word + " }")), core + kDefaults.substr(core.size()));
      EXPECT_TRUE(Has("\">" + word + "</value>")) << word;
    }
  }
  for (const std::string word : {"", "4294967296", "-1", "12x", "&#32;1"}) {
    EXPECT_EQ(Load(File("core{ queue_size=" + word + " }")), kDefaults);
    EXPECT_TRUE(Has("\"queue_size\">1024</value>")) << word;
  }
}

TEST_F(oxEventConfigFile, IsLeftWhenRefused) {
  constexpr uint32_t kInvalid = OXEVENT_INVALID_ARGUMENT;
  std::string text;
  EXPECT_EQ(Load(), "Unable to open oxEvent config: " + path_);
  EXPECT_TRUE(oxEventConfigLoad("x", nullptr, &text) == kInvalid && text == "Invalid oxEventConfig output");
  config_.queue_size = 3;
  EXPECT_TRUE(oxEventConfigLoad(nullptr, &config_, nullptr) == kInvalid && config_.queue_size == 1024);
  EXPECT_TRUE(oxEventConfigLoad("", &config_, &text) == kInvalid && text == "oxEvent requires a oxCFG XML config path");
  const std::string cases[][2] = {
      {"core{ queue_size=0 enabled=maybe }", "queue_size must be greater than zero"},
      {"core{ drop_policy=Oldest enabled=x }", R"(Invalid drop_policy value for QVX\Events\core\drop_policy: Oldest)"},
      {"core{ minimum_severity=7 }", R"(Invalid minimum_severity value for QVX\Events\core\minimum_severity: 7)"},
      {"core{ enabled= }", R"(Invalid boolean value for QVX\Events\core\enabled: )"},
      {"core{ enabled=x } state{ send_clear=2x }", R"(Invalid boolean value for QVX\Events\state\send_clear: 2x)"},
      {"sink{ webhook{ http{ default{ tls_verify=maybe } } } }",
       R"(Invalid boolean value for QVX\Events\sink\webhook\http\default\tls_verify: maybe)"},
      {"core{ minimum_severity=3 } sink{ csv{ c{ minimum_severity=x } } snmp{ trap{ t{ minimum_severity=9 } } } }",
       R"(Invalid minimum_severity value for QVX\Events\sink\snmp\trap\t\minimum_severity: 9)"}};
  for (const auto& [outline, error] : cases) {
    std::ofstream(path_) << File(outline);
    const std::string stamp = Stamp();
    EXPECT_EQ(Load(), error);
    EXPECT_EQ(Stamp(), stamp) << error;
  }
  EXPECT_EQ(config_.sinks.at(0).minimum_severity + 10 * config_.sinks.at(5).minimum_severity, 23u);  // Defaults.
  for (const char* bad : {"no XML", "<config>"}) EXPECT_EQ(Load(bad), "Unable to open oxEvent config: " + path_);
}

TEST_F(oxEventConfigFile, KeepsWhatIsNotTheLibrarys) {
  const std::string own = "<!-- mine --><other a=\"1\"/>", most(2047, 'x');
  std::string text = File("core{ unknown=5 } extra{ } sink{ csv{ a{ path=" + most + " } b{ path=" + most + "yz } } }");
  Load(text.insert(text.find("<config>") + 8, own));
  EXPECT_TRUE(config_.sinks.at(0).path == most && config_.sinks.at(1).path == most);
  EXPECT_TRUE(Has(own) && Has("unknown\">5<") && Has("\"extra\"") && Has(">" + most + "yz</value>")) << Read();
}

TEST_F(oxEventConfigFile, LoadsWithoutBeingSaved) {
  std::ofstream(path_) << "<config/>";
  const std::string stamp = Stamp();
  rlimit limit;
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit nothing = {0, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &nothing);
  const std::string loaded = Load();
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_EQ(loaded, kDefaults);
  EXPECT_EQ(Stamp(), stamp);
}

}  // namespace

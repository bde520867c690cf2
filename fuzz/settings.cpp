// Loads settings files of any bytes: a refused file must stay unchanged; an accepted file must keep its contents and
// get the missing settings, but only once.
#include <optional>
#include <pugixml.hpp>

#include "config/oxEventConfigLoad.h"
#include "fuzz.h"
#include "oxutil.h"

namespace {

using pugi::xml_node;

constexpr char kWhiteSpace[] = " \t\r\n";

const TemporaryDirectory g_directory;
const std::string g_path = g_directory.path + "/events.xml";

std::string ReadFile(const std::string& path) { return (std::stringstream() << std::ifstream(path).rdbuf()).str(); }

void WriteFile(const std::string& bytes) { std::ofstream(g_path, std::ios::trunc) << bytes; }

pugi::xml_document Parse(const std::string& bytes) {
  pugi::xml_document document;
  document.load_buffer(bytes.data(), bytes.size(),
                       (pugi::parse_full | pugi::parse_ws_pcdata | pugi::parse_fragment) &
                           ~(pugi::parse_eol | pugi::parse_wconv_attribute),
                       pugi::encoding_utf8);
  return document;
}

xml_node FindChild(xml_node key, const char* kind, std::string_view name) {
  return key.find_child([&](xml_node node) {
    return node.name() == std::string_view(kind) && node.attribute("name").value() == name && node.attribute("name");
  });
}

xml_node FindKey(xml_node key, std::string_view path) {
  while (!path.empty()) {
    const size_t size = std::min(path.find('\\'), path.size());
    key = FindChild(key, "key", path.substr(0, size));
    path.remove_prefix(std::min(size + 1, path.size()));
  }
  return key;
}

bool IsText(xml_node node) { return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata; }

std::string TextOf(xml_node value) {
  std::string text;
  for (const xml_node child : value.children()) text += IsText(child) ? child.value() : "";
  return text;
}

// Parses a 32-bit number; returns nullopt if the text is not one.
std::optional<uint64_t> ParseNumber(const std::string& text) {
  const size_t begin = std::min(text.find_first_not_of(kWhiteSpace), text.size());
  const std::string digits = text.substr(begin, text.find_last_not_of(kWhiteSpace) + 1 - begin);
  if (digits.empty() || digits.find_first_not_of("0123456789") != text.npos) return std::nullopt;
  const uint64_t number = strtoull(digits.c_str(), nullptr, 10);  // Saturates.
  return number <= 0xFFFFFFFF ? std::optional(number) : std::nullopt;
}

// Returns the names of all children of this kind, in order, without duplicates and without names that a path cannot
// contain.
std::vector<std::string> Names(xml_node key, const char* kind) {
  std::vector<std::string> names;
  for (const xml_node child : key.children(kind)) {
    const std::string name = child.attribute("name").value();
    const bool known = std::find(names.begin(), names.end(), name) != names.end();
    if (!known && !name.empty() && name.size() < 512 && name.find('\\') == name.npos) names.push_back(name);
  }
  return names;
}

// Describes a node without its children, and without white space around its text.
std::string Describe(xml_node node) {
  std::string text = node.value();
  if (node.type() == pugi::node_pcdata) {
    text.erase(text.find_last_not_of(kWhiteSpace) + 1);
    text.erase(0, text.find_first_not_of(kWhiteSpace));
  }
  text.insert(0, std::to_string(node.type()) + node.name() + "|");
  for (const pugi::xml_attribute attribute : node.attributes()) {
    text.append("|").append(attribute.name()).append("|").append(attribute.value());
  }
  return text;
}

// Checks that `now` contains all nodes of `old` in the same order, except white space and the texts of values.
void CheckKept(xml_node old, xml_node now) {
  const bool is_value = old.name() == std::string_view("value");
  xml_node next = now.first_child();
  for (const xml_node child : old.children()) {
    const std::string wanted = Describe(child);
    if (IsText(child) && (is_value || wanted.ends_with('|'))) continue;
    while (next && Describe(next) != wanted) next = next.next_sibling();
    CHECK(next);
    CheckKept(child, next);
    next = next.next_sibling();
  }
}

constexpr const char* kSinkKeys[] = {
    "sink\\csv",           "sink\\syslog\\udp", "sink\\native",      "sink\\cloudevents\\http",
    "sink\\webhook\\http", "sink\\snmp\\trap",  "sink\\alertmanager"};

// Checks that missing values and invalid numbers have their defaults, and that other values are unchanged.
void CheckValues(xml_node old, xml_node now, xml_node defaults) {
  CHECK(now);
  for (const xml_node value : defaults.children("value")) {
    const char* const name = value.attribute("name").value();
    const xml_node was = FindChild(old, "value", name);
    const xml_node is = FindChild(now, "value", name);
    CHECK(is);
    const bool is_severity = name == std::string_view("minimum_severity");
    const bool reset = !was || (!is_severity && TextOf(is) == TextOf(value) && !ParseNumber(TextOf(was)));
    CHECK_EQ(TextOf(is), TextOf(reset ? value : was));
  }
}

void CheckCompleted(const std::string& before, const std::string& after, const oxEventConfig& config) {
  static const pugi::xml_document documented = Parse(ReadFile(OXEVENT_DOCS "/default-settings.xml"));
  const pugi::xml_document old = Parse(before);
  const pugi::xml_document now = Parse(after);
  CheckKept(old, now);
  const auto events = [](const pugi::xml_document& document) {
    return FindKey(document.child("config"), "QVX\\Events");
  };
  for (const char* const key : {"core", "state"}) {
    CheckValues(FindKey(events(old), key), FindKey(events(now), key), FindKey(events(documented), key));
  }
  auto sink = config.sinks.begin();
  for (const char* const key : kSinkKeys) {
    const xml_node defaults = FindKey(events(documented), key).child("key");
    std::vector<std::string> names = Names(FindKey(events(old), key), "key");
    if (names.empty()) names.emplace_back(defaults.attribute("name").value());
    for (const std::string& name : names) {
      CHECK(sink != config.sinks.end());
      CHECK_EQ((sink++)->name, name);
      CheckValues(FindChild(FindKey(events(old), key), "key", name), FindChild(FindKey(events(now), key), "key", name),
                  defaults);
    }
  }
  CHECK(sink == config.sinks.end());
}

// Checks that the store lists and returns all keys and values below `path`. Returns `path` or the path of one of the
// keys below it.
std::string Walk(void* store, xml_node key, const std::string& path) {
  std::vector<std::string> seen[2];  // Indexed by kind: keys, values.
  std::string some_key = path;
  char name[512] = "";
  uint32_t kind = 2;
  for (std::string previous; oxCFGGetNext(store, path.c_str(), name, previous.c_str(), &kind) == 0; previous = name) {
    CHECK(kind <= 1 && seen[0].size() + seen[1].size() < 10000);
    seen[kind].emplace_back(name);
    if (kind == 0) {
      const std::string sub_key = path.empty() ? name : path + "\\" + name;
      CHECK(oxCFGKeyExists(store, sub_key.c_str()) != 0);
      some_key = Walk(store, FindChild(key, "key", name), sub_key);
      continue;
    }
    const std::string text = TextOf(FindChild(key, "value", name));
    char buffer[100];
    uint32_t length = sizeof buffer;
    CHECK_EQ(oxCFGValueString(store, path.c_str(), name, buffer, &length, 0), 0u);
    CHECK_EQ(std::string(buffer, length), text.substr(0, sizeof buffer - 1));
    uint32_t number = 0;
    CHECK_EQ(oxCFGValueDword(store, path.c_str(), name, &number, 0) == 0, ParseNumber(text).has_value());
    CHECK_EQ(number, ParseNumber(text).value_or(0));
  }
  CHECK(seen[0] == Names(key, "key") && seen[1] == Names(key, "value"));
  return some_key;
}

// Checks the store alone: it lists the contents of the file, and a string that is set and saved is read back.
void CheckStore(const std::string& bytes) {
  WriteFile(bytes);
  void* store = oxCFGOpen(g_path.c_str(), 0);
  if (store == nullptr) return;
  const std::string key = Walk(store, Parse(bytes).child("config"), "") + "\\new";
  std::string text = bytes.substr(0, bytes.size() % 300);
  std::erase_if(text, [](unsigned char c) { return c < ' ' && c != '\t' && c != '\r' && c != '\n'; });
  auto length = static_cast<uint32_t>(text.size());
  if (oxCFGAddKeyString(store, key.c_str(), "", "", 0, 0) == 0) {
    CHECK_EQ(oxCFGValueString(store, key.c_str(), "text", text.data(), &length, 1), 0u);
    CHECK_EQ(oxCFGSave(store, 0, 1), 0u);
    oxCFGClose(store, 1);
    store = oxCFGOpen(g_path.c_str(), 0);
    char buffer[512];
    length = sizeof buffer;
    CHECK_EQ(oxCFGValueString(store, key.c_str(), "text", buffer, &length, 0), 0u);
    CHECK_EQ(std::string(buffer, length), text);
  }
  oxCFGClose(store, 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  WriteFile(bytes);
  oxEventConfig config;
  std::string error;
  const uint32_t result = oxEventConfigLoad(g_path.c_str(), &config, &error);
  const std::string after = ReadFile(g_path);
  if (result != OXEVENT_OK) {
    CHECK_EQ(result, OXEVENT_INVALID_ARGUMENT);
    CHECK_EQ(after, bytes);
    void* const store = oxCFGOpen(g_path.c_str(), 0);
    oxCFGClose(store, 1);
    const std::string start = error.substr(0, error.find("QVX\\Events\\"));
    const bool is_setting = error == "queue_size must be greater than zero" ||
                            start == "Invalid drop_policy value for " || start == "Invalid boolean value for " ||
                            start == "Invalid minimum_severity value for ";
    CHECK(store != nullptr ? is_setting : error == "Unable to open oxEvent config: " + g_path);
  } else {
    CHECK_EQ(error, "");
    CHECK_EQ(config.config_path, g_path);
    CheckCompleted(bytes, after, config);
    oxEventConfig again;
    CHECK_EQ(oxEventConfigLoad(g_path.c_str(), &again, nullptr), OXEVENT_OK);
    CHECK(again == config);
    CHECK_EQ(ReadFile(g_path), after);
  }
  CheckStore(bytes);
  CHECK_EQ(std::distance(std::filesystem::directory_iterator(g_directory.path), {}), 1);  // No temporary file is left.
  return 0;
}

// Encodes OIDs and traps of any event, and checks the results with a separate BER decoder.
#include <memory>
#include <optional>

#include "datagrams.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSnmpBer.h"

namespace {

using Arcs = std::vector<uint64_t>;  // The first element is the byte that encodes the first two arcs.

// Parses an OID; returns nullopt if it is invalid. An arc has any number of digits and a value of up to 32 bits.
std::optional<Arcs> ParseOid(const std::string& dotted) {
  Arcs arcs;
  std::istringstream list(dotted + ".");
  for (std::string digits; std::getline(list, digits, '.');) {
    if (digits.empty() || digits.find_first_not_of("0123456789") != digits.npos) return std::nullopt;
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
    if (digits.size() > 10 || std::stoull(digits) > 4294967295) return std::nullopt;
    arcs.push_back(std::stoull(digits));
  }
  if (arcs.size() < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] > 39)) return std::nullopt;
  arcs[1] = (arcs[0] * 40 + arcs[1]) % 256;
  arcs.erase(arcs.begin());
  return arcs;
}

uint8_t TakeByte(std::string_view* rest) {
  CHECK(!rest->empty());
  const char byte = rest->front();
  rest->remove_prefix(1);
  return static_cast<uint8_t>(byte);
}

// Takes a TLV with this tag from the front and returns its content. Checks that the length is encoded in the fewest
// bytes.
std::string_view TakeTlv(int tag, std::string_view* rest) {
  CHECK_EQ(int{TakeByte(rest)}, tag);
  size_t length = TakeByte(rest);
  if (length > 127) {
    const size_t count = length & 0x7F;
    CHECK(count >= 1 && count <= sizeof length);
    length = 0;
    for (size_t i = 0; i < count; ++i) length = length << 8 | TakeByte(rest);
    CHECK(length > 127 && length >> 8 * (count - 1) != 0);
  }
  CHECK(length <= rest->size());
  const std::string_view content = rest->substr(0, length);
  rest->remove_prefix(length);
  return content;
}

uint64_t TakeNumber(int tag, std::string_view* rest) {
  std::string_view content = TakeTlv(tag, rest);
  CHECK(!content.empty() && content.size() <= 5 && (content[0] & 0x80) == 0);
  CHECK(content.size() == 1 || content[0] != 0 || (content[1] & 0x80) != 0);
  uint64_t number = 0;
  while (!content.empty()) number = number << 8 | TakeByte(&content);
  return number;
}

Arcs TakeOid(std::string_view* rest) {
  std::string_view content = TakeTlv(0x06, rest);
  Arcs arcs = {TakeByte(&content)};
  while (!content.empty()) {
    uint8_t byte = TakeByte(&content);
    CHECK(byte != 0x80);
    arcs.push_back(byte & 0x7F);
    for (; byte >= 0x80; arcs.back() = arcs.back() << 7 | (byte & 0x7F)) byte = TakeByte(&content);
  }
  return arcs;
}

void CheckOid(const std::string& dotted) {
  const std::optional<Arcs> arcs = ParseOid(dotted);
  std::string out = "before";
  CHECK_EQ(SnmpBer::ObjectIdentifier(dotted, &out), arcs.has_value());
  std::string_view rest = out;
  CHECK(rest.starts_with("before"));
  rest.remove_prefix(6);
  if (arcs) CHECK(TakeOid(&rest) == *arcs);
  CHECK_EQ(rest, "");
}

// Objects 2 to 12: the field and its maximum size in bytes.
constexpr std::pair<const char*, size_t> kObjects[] = {
    {"severity", 32},        {"event_id", 32}, {"event_type", 128},   {"source_id", 128},
    {"source_name", 128},    {"action", 64},   {"message", 2048},     {"dedupe_key", 256},
    {"correlation_id", 128}, {"utc_ns", 32},   {"details_json", 2048}};

void CheckTrap(std::string_view rest, const oxEventSinkConfig& config, const Event& event) {
  std::string_view message = TakeTlv(0x30, &rest);
  CHECK_EQ(TakeNumber(0x02, &message), 1u);
  CHECK_EQ(TakeTlv(0x04, &message), config.community.empty() ? "cobalt" : config.community);
  std::string_view pdu = TakeTlv(0xA7, &message);
  CHECK(TakeNumber(0x02, &pdu) <= 0x7FFFFFFF);
  CHECK_EQ(TakeNumber(0x02, &pdu), 0u);
  CHECK_EQ(TakeNumber(0x02, &pdu), 0u);
  std::string_view list = TakeTlv(0x30, &pdu);
  CHECK(rest.empty() && message.empty() && pdu.empty());
  std::string_view binding;
  const auto take_name = [&](const std::string& oid) {
    CHECK_EQ(binding, "");
    binding = TakeTlv(0x30, &list);
    CHECK(TakeOid(&binding) == ParseOid(oid));
  };
  take_name("1.3.6.1.2.1.1.3.0");
  CHECK(TakeNumber(0x43, &binding) <= 0xFFFFFFFF / 10);
  take_name("1.3.6.1.6.3.1.1.4.1.0");
  CHECK(TakeOid(&binding) == ParseOid(config.trap_oid));
  take_name(config.enterprise_oid + ".1.1.0");
  CHECK_EQ(TakeNumber(0x02, &binding), event.severity);
  for (size_t i = 0; i < std::size(kObjects); ++i) {
    take_name(config.enterprise_oid + ".1." + std::to_string(i + 2) + ".0");
    CHECK_EQ(TakeTlv(0x04, &binding), FieldsOf(event)[kObjects[i].first].substr(0, kObjects[i].second));
  }
  CHECK(binding.empty() && list.empty());
}

std::string Oid(Input& in) {
  constexpr uint32_t kArcs[] = {0, 1, 39, 40, 47, 48, 127, 128, 16383, 16384, 2097152, 268435456, 4294967295};
  if (in.ConsumeIntegral<uint8_t>() > 150) return AnyString(in);
  std::string text = std::to_string(in.ConsumeIntegralInRange(0, 3));
  for (size_t more = in.ConsumeIntegral<uint8_t>() / (in.ConsumeBool() ? 1 : 32); more > 0; --more) {
    text += "." + std::to_string(in.ConsumeBool() ? in.PickValueInArray(kArcs) : in.ConsumeIntegral<uint32_t>());
  }
  return text;
}

size_t EncodedSize(const std::string& oid) {
  std::string out;
  return SnmpBer::ObjectIdentifier(oid, &out), out.size();
}

void CheckSink(Input& in) {
  oxEventSinkConfig config;
  config.minimum_severity = in.ConsumeIntegralInRange<uint32_t>(0, 4);
  config.community = AnyString(in);
  if (in.ConsumeBool()) config.trap_oid = Oid(in);
  if (in.ConsumeBool()) config.enterprise_oid = Oid(in);
  const Event event = AnyEvent(in);
  std::shared_ptr<oxEventSink> sink;
  CHECK_EQ(oxEventCreateSnmpTrapSink(config, &sink, nullptr), OXEVENT_OK);
  g_sent.clear();
  const uint32_t result = sink->Submit(event, nullptr, nullptr);
  if (event.severity < config.minimum_severity) return CHECK(result == OXEVENT_OK && g_sent.empty());
  if (config.trap_oid.empty()) config.trap_oid = "1.3.6.1.4.1.32473.1.1.0.1";
  if (config.enterprise_oid.empty()) config.enterprise_oid = "1.3.6.1.4.1.32473.1.1";
  const std::string object = config.enterprise_oid + ".1.1.0";
  if (result == OXEVENT_OK) {
    CHECK(g_sent.size() == 1 && g_sent[0].size() <= 8192);
    return CheckTrap(g_sent[0], config, event);
  }
  CHECK(result == OXEVENT_FAILURE && g_sent.empty());
  if (!ParseOid(config.trap_oid) || !ParseOid(object)) return;
  size_t size = config.community.size() + EncodedSize(config.trap_oid) + 12 * EncodedSize(object);
  for (const auto& [name, max_length] : kObjects) size += std::min(FieldsOf(event)[name].size(), max_length);
  CHECK(size > 8192 - 250);  // With its tags and lengths, the trap exceeds the sink's limit of 8192 bytes.
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckOid(std::string(reinterpret_cast<const char*>(data), size));
  Input in(data, size);
  for (int i = 0; i < 4; ++i) CheckOid(Oid(in));
  std::string number;
  const auto value = in.ConsumeIntegral<uint32_t>();
  {
    oxEventWriter writer(&number);
    SnmpBer::Integer(SnmpBer::kInteger, value, &writer);
  }
  std::string_view rest = number;
  CHECK_EQ(TakeNumber(0x02, &rest), value);
  CHECK_EQ(rest, "");
  CheckSink(in);
  return 0;
}

#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/oxEventErrorText.h"
#include "base/oxEventMutex.h"
#include "base/oxEventNumber.h"
#include "base/oxEventOrDefault.h"
#include "base/oxEventSeverity.h"
#include "config/oxEventSettings.h"
#include "platform/oxEventPlatformSystem.h"
#include "platform/oxEventUdpSender.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkFactory.h"
#include "sinks/oxEventSnmpBer.h"

namespace {

constexpr size_t kMaxMessage = 8192;            // Bytes; a longer trap is not sent.
constexpr uint32_t kMaxRequestId = 0x7FFFFFFF;  // RFC 3416, section 3.
constexpr int kObjectCount = 12;
constexpr oxEventUdpErrors kUdpErrors = {oxEventErrors::kSnmpResolve, oxEventErrors::kSnmpSocket,
                                         oxEventErrors::kSnmpSend};

std::string OidJoin(std::string_view oid, std::string_view suffix) { return std::string(oid).append(suffix); }

// Returns an empty string if the OID is not valid.
std::string EncodeOid(std::string_view dotted) {
  std::string oid;
  SnmpBer::ObjectIdentifier(dotted, &oid);
  oid.shrink_to_fit();
  return oid;
}

std::string Host(const oxEventSinkConfig& config, const oxEventSinkConfig& defaults) {
  return oxEventOrDefault(config.snmp_host, defaults.snmp_host);
}

uint32_t Port(const oxEventSinkConfig& config, const oxEventSinkConfig& defaults) {
  return config.snmp_port == 0 ? defaults.snmp_port : config.snmp_port;
}

// Sends each event as one SNMPv2-Trap-PDU in one datagram (RFC 3416, RFC 3417): eleven of its fields as twelve objects,
// because the severity is sent as a number and as a name.
class oxEventSnmpTrapSink : public oxEventSink {
 public:
  // `defaults` replaces empty settings and a port of 0.
  explicit oxEventSnmpTrapSink(const oxEventSinkConfig& config, const oxEventSinkConfig& defaults = {})
      : oxEventSink(config.minimum_severity),
        community_(oxEventOrDefault(config.community, defaults.community)),
        enterprise_oid_(oxEventOrDefault(config.enterprise_oid, defaults.enterprise_oid)),
        trap_oid_(oxEventOrDefault(config.trap_oid, defaults.trap_oid)),
        encoded_sys_up_time_(EncodeOid("1.3.6.1.2.1.1.3.0")),
        encoded_snmp_trap_oid_(EncodeOid("1.3.6.1.6.3.1.1.4.1.0")),
        encoded_trap_oid_(EncodeOid(trap_oid_)),
        sender_(kUdpErrors, Host(config, defaults), Port(config, defaults), config.lookup) {
    message_.reserve(kMaxMessage);
    for (int i = 1; i <= kObjectCount; ++i) {
      encoded_objects_.push_back(EncodeOid(OidJoin(enterprise_oid_, ".1." + std::to_string(i) + ".0")));
    }
  }

  uint32_t Open(std::string* error) override OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    return sender_.Open(error);
  }

 private:
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* /*warnings*/, std::string* error) override
      OX_EXCLUDES(mutex_) {
    oxEventLock lock(mutex_);
    // An invalid OID is reported for each event instead of by Open: if one sink fails to open, no sink is started.
    if (encoded_trap_oid_.empty()) return oxEventSetErrorText(oxEventErrors::kSnmpTrapOid, {trap_oid_}, error);
    if (encoded_objects_[0].empty())
      return oxEventSetErrorText(oxEventErrors::kSnmpEnterpriseOid, {enterprise_oid_}, error);
    FormatLocked(event);
    if (message_.size() > kMaxMessage) return oxEventSetErrorText(oxEventErrors::kSnmpTooLong, error);
    return sender_.Send(message_, error);
  }

  void FormatLocked(const oxEventNormalizedEvent& event) OX_REQUIRES(mutex_) {
    const uint32_t now_ms = oxEventPlatformGetMs();
    message_.clear();
    oxEventWriter message(&message_);
    SnmpBer::Integer(SnmpBer::kInteger, kOxEventSnmpVersion2c, &message);
    SnmpBer::OctetString(community_, &message);
    const size_t pdu = message.Size();
    SnmpBer::Integer(SnmpBer::kInteger, now_ms & kMaxRequestId, &message);
    SnmpBer::Integer(SnmpBer::kInteger, 0, &message);  // error-status
    SnmpBer::Integer(SnmpBer::kInteger, 0, &message);  // error-index
    AddBindings(event, now_ms, &message);
    SnmpBer::Wrap(SnmpBer::kSnmpV2Trap, pdu, &message);
    SnmpBer::Wrap(SnmpBer::kSequence, 0, &message);
  }

  // docs/OX-EVENT-MIB.txt describes these objects in the same order, with the same maximum sizes.
  void AddBindings(const oxEventNormalizedEvent& event, uint32_t now_ms, oxEventWriter* message) const {
    const size_t list = message->Size();
    SnmpBer::AddIntegerVarBind(encoded_sys_up_time_, SnmpBer::kTimeTicks, now_ms / 10, message);
    SnmpBer::AddVarBind(encoded_snmp_trap_oid_, encoded_trap_oid_, message);
    auto object = encoded_objects_.begin();
    SnmpBer::AddIntegerVarBind(*object++, SnmpBer::kInteger, event.severity, message);
    const auto add = [&](std::string_view text, size_t max_length) {
      SnmpBer::AddStringVarBind(*object++, text, max_length, message);
    };
    const auto add_number = [&](uint64_t value) {
      char decimal[kOxEventNumberSize];
      add({decimal, oxEventWriteNumber(value, decimal)}, 32);
    };
    add(oxEventSeverityName(event.severity), 32);
    add_number(event.event_id);
    add(event.event_type, 128);
    add(event.source_id, 128);
    add(event.source_name, 128);
    add(event.action, 64);
    add(event.message, 2048);
    add(event.dedupe_key, 256);
    add(event.correlation_id, 128);
    add_number(event.utc_ns);
    add(event.details_json, 2048);
    SnmpBer::Wrap(SnmpBer::kSequence, list, message);
  }

  oxEventMutex mutex_;
  const std::string community_;
  const std::string enterprise_oid_;
  const std::string trap_oid_;
  // Encoded OIDs. Constant after construction; empty if the setting is not a valid OID.
  const std::string encoded_sys_up_time_;
  const std::string encoded_snmp_trap_oid_;
  const std::string encoded_trap_oid_;
  std::vector<std::string> encoded_objects_;  // enterprise_oid_.1.1.0 to enterprise_oid_.1.12.0.
  oxEventUdpSender sender_ OX_GUARDED_BY(mutex_);
  std::string message_ OX_GUARDED_BY(mutex_);  // Reused for each event.
};

uint32_t CheckVersion(const oxEventSinkConfig& config, std::string* error) {
  constexpr oxEventWord kVersion3Words[] = {{"3", 3}, {"v3", 3}, {"snmpv3", 3}};  // Version 3 has its own error text.
  if (oxEventFindWord(g_oxEventSnmpVersionWords, config.version)) return OXEVENT_OK;
  if (oxEventFindWord(kVersion3Words, config.version)) return oxEventSetErrorText(oxEventErrors::kSnmpVersion3, error);
  return oxEventSetErrorText(oxEventErrors::kSnmpVersion, error);
}

}  // namespace

std::shared_ptr<const oxEventUdpLookup> oxEventLookUpSnmpTrap(const oxEventSinkConfig& config) {
  const oxEventSinkConfig defaults;
  return oxEventUdpLookUp(Host(config, defaults), Port(config, defaults));
}

uint32_t oxEventCreateSnmpTrapSink(const oxEventSinkConfig& config, std::shared_ptr<oxEventSink>* out,
                                   std::string* error) {
  return oxEventCreateSink<oxEventSnmpTrapSink>(oxEventErrors::kSnmpOutput, config, out, error, CheckVersion);
}

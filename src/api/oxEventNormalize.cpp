#include "api/oxEventNormalize.h"

#include <cstddef>
#include <new>

#include "platform/oxEventPlatformSystem.h"

namespace {

// The layout is part of the ABI: hosts may have been compiled with an older header.
static_assert(sizeof(oxEventRecord) == 152 && offsetof(oxEventRecord, message) == 40 &&
              offsetof(oxEventRecord, severity) == 48 && offsetof(oxEventRecord, action) == 56 &&
              offsetof(oxEventRecord, utc_ns) == 80 && offsetof(oxEventRecord, timecode) == 104 &&
              offsetof(oxEventRecord, units) == 128 && offsetof(oxEventRecord, details_json) == 144);

constexpr uint32_t kMinRecordBytes = 48;  // Up to and including message.

// Reads the fields that lie wholly within the struct_size that the caller declared. If kIsComplete, all fields do, and
// none is checked.
template <bool kIsComplete>
class RecordReader {
 public:
  explicit RecordReader(const oxEventRecord& record) : record_(record) {}

  template <class T>
  T NumberOr(T oxEventRecord::*field, T default_value) const {
    return Has(field) ? record_.*field : default_value;
  }
  // Zero counts as absent.
  uint64_t NonZeroOr(uint64_t oxEventRecord::*field, uint64_t default_value) const {
    const uint64_t value = NumberOr(field, uint64_t{0});
    return value != 0 ? value : default_value;
  }
  std::string_view StringOr(const char* oxEventRecord::*field, std::string_view default_value) const {
    return Has(field) && record_.*field != nullptr ? std::string_view(record_.*field) : default_value;
  }

 private:
  template <class T>
  bool Has(T oxEventRecord::*field) const {
    const auto* begin = reinterpret_cast<const char*>(&record_);
    const auto* end = reinterpret_cast<const char*>(&(record_.*field) + 1);
    return kIsComplete || record_.struct_size >= static_cast<size_t>(end - begin);
  }

  const oxEventRecord& record_;
};

template <bool kIsComplete>
oxEventNormalizedEvent ReadFields(const oxEventRecord& record, uint64_t assigned_id) {
  const RecordReader<kIsComplete> reader(record);
  uint64_t utc_ns = reader.NonZeroOr(&oxEventRecord::utc_ns, 0);
  uint64_t ptp_ns = reader.NonZeroOr(&oxEventRecord::ptp_ns, 0);
  if (utc_ns == 0 || ptp_ns == 0) {
    // The clock is read once, so that both timestamps are equal if the record has neither.
    const uint64_t now = oxEventPlatformGetPtpNano();
    if (utc_ns == 0) utc_ns = now;
    if (ptp_ns == 0) ptp_ns = now;
  }
  return {
      .event_id = reader.NonZeroOr(&oxEventRecord::event_id, assigned_id),
      .event_type = reader.StringOr(&oxEventRecord::event_type, oxEventDefaults::kEventType),
      .source_id = reader.StringOr(&oxEventRecord::source_id, oxEventDefaults::kEmpty),
      .source_name = reader.StringOr(&oxEventRecord::source_name, oxEventDefaults::kSourceName),
      .message = reader.StringOr(&oxEventRecord::message, oxEventDefaults::kEmpty),
      .severity = reader.NumberOr(&oxEventRecord::severity, OXEVENT_SEVERITY_INFO),
      .action = reader.StringOr(&oxEventRecord::action, oxEventDefaults::kEmpty),
      .dedupe_key = reader.StringOr(&oxEventRecord::dedupe_key, oxEventDefaults::kEmpty),
      .correlation_id = reader.StringOr(&oxEventRecord::correlation_id, oxEventDefaults::kEmpty),
      .utc_ns = utc_ns,
      .ptp_ns = ptp_ns,
      .pts = reader.NumberOr(&oxEventRecord::pts, int64_t{0}),
      .timecode = reader.StringOr(&oxEventRecord::timecode, oxEventDefaults::kEmpty),
      .value = reader.NumberOr(&oxEventRecord::value, 0.0),
      .threshold = reader.NumberOr(&oxEventRecord::threshold, 0.0),
      .units = reader.StringOr(&oxEventRecord::units, oxEventDefaults::kEmpty),
      .duration_ms = reader.NumberOr(&oxEventRecord::duration_ms, uint64_t{0}),
      .details_json = reader.StringOr(&oxEventRecord::details_json, oxEventDefaults::kDetailsJson),
  };
}

bool AreValid(uint32_t severity, const char* message) {
  return severity <= OXEVENT_SEVERITY_ERROR && message != nullptr && message[0] != '\0';
}

bool IsValid(const oxEventRecord* record) {
  return record != nullptr && record->struct_size >= kMinRecordBytes && record->version == OXEVENT_API_VERSION &&
         AreValid(RecordReader<false>(*record).NumberOr(&oxEventRecord::severity, OXEVENT_SEVERITY_INFO),
                  record->message);
}

}  // namespace

uint32_t oxEventNormalizeEvent(const oxEventRecord* record, uint64_t assigned_id, oxEventNormalizedEvent* out) {
  if (!IsValid(record) || out == nullptr) return OXEVENT_INVALID_ARGUMENT;
  if (record->struct_size >= sizeof(oxEventRecord)) {
    new (out) oxEventNormalizedEvent(ReadFields<true>(*record, assigned_id));
  } else {
    new (out) oxEventNormalizedEvent(ReadFields<false>(*record, assigned_id));
  }
  return OXEVENT_OK;
}

uint32_t oxEventNormalizeSimple(uint64_t event_id, uint32_t severity, const char* source_name, const char* message,
                                oxEventNormalizedEvent* out) {
  if (!AreValid(severity, message)) return OXEVENT_INVALID_ARGUMENT;
  const uint64_t now = oxEventPlatformGetPtpNano();
  new (out) oxEventNormalizedEvent{
      .event_id = event_id,
      .event_type = oxEventDefaults::kSimpleEventType,
      .source_id = oxEventDefaults::kEmpty,
      .source_name = source_name != nullptr ? source_name : oxEventDefaults::kSourceName,
      .message = message,
      .severity = severity,
      .action = oxEventDefaults::kEmpty,
      .dedupe_key = oxEventDefaults::kEmpty,
      .correlation_id = oxEventDefaults::kEmpty,
      .utc_ns = now,
      .ptp_ns = now,
      .timecode = oxEventDefaults::kEmpty,
      .units = oxEventDefaults::kEmpty,
      .details_json = oxEventDefaults::kDetailsJson,
  };
  return OXEVENT_OK;
}

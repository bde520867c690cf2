#include "api/oxEventNormalize.h"

#include <cstddef>

#include "platform/oxEventPlatformSystem.h"

namespace {

// The layout is part of the ABI: hosts may have been compiled with an older header.
static_assert(sizeof(oxEventRecord) == 152 && offsetof(oxEventRecord, message) == 40 &&
              offsetof(oxEventRecord, severity) == 48 && offsetof(oxEventRecord, action) == 56 &&
              offsetof(oxEventRecord, utc_ns) == 80 && offsetof(oxEventRecord, timecode) == 104 &&
              offsetof(oxEventRecord, units) == 128 && offsetof(oxEventRecord, details_json) == 144);

constexpr uint32_t kMinRecordBytes = 48;  // Up to and including message.

// Reads the fields that lie wholly within the struct_size that the caller declared. Without a check for each field if
// kIsComplete: then they all do.
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

bool IsValid(const oxEventRecord* record) {
  return record != nullptr && record->struct_size >= 2 * sizeof(uint32_t) &&  // The record includes version.
         record->version == OXEVENT_API_VERSION && record->struct_size >= kMinRecordBytes &&
         record->message != nullptr && record->message[0] != '\0' &&
         RecordReader<false>(*record).NumberOr(&oxEventRecord::severity, OXEVENT_SEVERITY_INFO) <=
             OXEVENT_SEVERITY_ERROR;
}

template <bool kIsComplete>
void ReadFields(const oxEventRecord& record, uint64_t assigned_id, oxEventNormalizedEvent* out) {
  const RecordReader<kIsComplete> reader(record);
  out->event_id = reader.NonZeroOr(&oxEventRecord::event_id, assigned_id);
  out->event_type = reader.StringOr(&oxEventRecord::event_type, "event");
  out->source_id = reader.StringOr(&oxEventRecord::source_id, "");
  out->source_name = reader.StringOr(&oxEventRecord::source_name, "oxEvent");
  out->message = reader.StringOr(&oxEventRecord::message, "");
  out->severity = reader.NumberOr(&oxEventRecord::severity, OXEVENT_SEVERITY_INFO);
  out->action = reader.StringOr(&oxEventRecord::action, "");
  out->dedupe_key = reader.StringOr(&oxEventRecord::dedupe_key, "");
  out->correlation_id = reader.StringOr(&oxEventRecord::correlation_id, "");
  out->utc_ns = reader.NonZeroOr(&oxEventRecord::utc_ns, 0);
  out->ptp_ns = reader.NonZeroOr(&oxEventRecord::ptp_ns, 0);
  if (out->utc_ns == 0 || out->ptp_ns == 0) {
    // The clock is read once, so that both timestamps are equal if the record has neither.
    const uint64_t now = oxEventPlatformGetPtpNano();
    if (out->utc_ns == 0) out->utc_ns = now;
    if (out->ptp_ns == 0) out->ptp_ns = now;
  }
  out->pts = reader.NumberOr(&oxEventRecord::pts, int64_t{0});
  out->timecode = reader.StringOr(&oxEventRecord::timecode, "");
  out->value = reader.NumberOr(&oxEventRecord::value, 0.0);
  out->threshold = reader.NumberOr(&oxEventRecord::threshold, 0.0);
  out->units = reader.StringOr(&oxEventRecord::units, "");
  out->duration_ms = reader.NumberOr(&oxEventRecord::duration_ms, uint64_t{0});
  out->details_json = reader.StringOr(&oxEventRecord::details_json, "{}");
}

}  // namespace

uint32_t oxEventNormalizeEvent(const oxEventRecord* record, uint64_t assigned_id, oxEventNormalizedEvent* out) {
  if (out == nullptr || !IsValid(record)) return OXEVENT_INVALID_ARGUMENT;
  const bool is_complete = record->struct_size >= sizeof(oxEventRecord);
  (is_complete ? ReadFields<true> : ReadFields<false>)(*record, assigned_id, out);
  return OXEVENT_OK;
}

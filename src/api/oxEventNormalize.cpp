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

// Whether the field lies wholly within the struct_size that the caller declared.
template <class T>
bool Has(const oxEventRecord& record, T oxEventRecord::*field) {
  const auto* begin = reinterpret_cast<const char*>(&record);
  const auto* end = reinterpret_cast<const char*>(&(record.*field) + 1);
  return record.struct_size >= static_cast<size_t>(end - begin);
}

template <class T>
T NumberOr(const oxEventRecord& record, T oxEventRecord::*field, T default_value) {
  return Has(record, field) ? record.*field : default_value;
}

// Zero counts as absent.
uint64_t NonZeroOr(const oxEventRecord& record, uint64_t oxEventRecord::*field, uint64_t default_value) {
  const uint64_t value = NumberOr(record, field, uint64_t{0});
  return value != 0 ? value : default_value;
}

std::string_view StringOr(const oxEventRecord& record, const char* oxEventRecord::*field,
                          std::string_view default_value) {
  return Has(record, field) && record.*field != nullptr ? std::string_view(record.*field) : default_value;
}

bool IsValid(const oxEventRecord* record) {
  return record != nullptr && record->struct_size >= 2 * sizeof(uint32_t) &&  // The record includes version.
         record->version == OXEVENT_API_VERSION && record->struct_size >= kMinRecordBytes &&
         record->message != nullptr && record->message[0] != '\0' &&
         NumberOr(*record, &oxEventRecord::severity, OXEVENT_SEVERITY_INFO) <= OXEVENT_SEVERITY_ERROR;
}

}  // namespace

uint32_t oxEventNormalizeEvent(const oxEventRecord* record, uint64_t assigned_id, oxEventNormalizedEvent* out) {
  if (out == nullptr || !IsValid(record)) return OXEVENT_INVALID_ARGUMENT;

  out->event_id = NonZeroOr(*record, &oxEventRecord::event_id, assigned_id);
  out->event_type = StringOr(*record, &oxEventRecord::event_type, "event");
  out->source_id = StringOr(*record, &oxEventRecord::source_id, "");
  out->source_name = StringOr(*record, &oxEventRecord::source_name, "oxEvent");
  out->message = record->message;
  out->severity = NumberOr(*record, &oxEventRecord::severity, OXEVENT_SEVERITY_INFO);
  out->action = StringOr(*record, &oxEventRecord::action, "");
  out->dedupe_key = StringOr(*record, &oxEventRecord::dedupe_key, "");
  out->correlation_id = StringOr(*record, &oxEventRecord::correlation_id, "");
  out->utc_ns = NonZeroOr(*record, &oxEventRecord::utc_ns, 0);
  out->ptp_ns = NonZeroOr(*record, &oxEventRecord::ptp_ns, 0);
  if (out->utc_ns == 0 || out->ptp_ns == 0) {
    // The clock is read once, so that both timestamps are equal if the record has neither.
    const uint64_t now = oxEventPlatformGetPtpNano();
    if (out->utc_ns == 0) out->utc_ns = now;
    if (out->ptp_ns == 0) out->ptp_ns = now;
  }
  out->pts = NumberOr(*record, &oxEventRecord::pts, int64_t{0});
  out->timecode = StringOr(*record, &oxEventRecord::timecode, "");
  out->value = NumberOr(*record, &oxEventRecord::value, 0.0);
  out->threshold = NumberOr(*record, &oxEventRecord::threshold, 0.0);
  out->units = StringOr(*record, &oxEventRecord::units, "");
  out->duration_ms = NumberOr(*record, &oxEventRecord::duration_ms, uint64_t{0});
  out->details_json = StringOr(*record, &oxEventRecord::details_json, "{}");
  return OXEVENT_OK;
}

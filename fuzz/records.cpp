// Submits and formats records of any size and content, each in a buffer of exactly the size that it declares.
#include <memory>

#include "api/oxEventNormalize.h"
#include "fuzz.h"
#include "platform/oxEventPlatformSystem.h"

namespace {

constexpr uint32_t kFullSize = 152;

template <class T>
void WriteField(char* record, size_t offset, T value) {
  std::memcpy(record + offset, &value, sizeof value);
}

// Reads a field from a record of this size; returns `absent` if the record does not have the field.
template <class T>
T ReadField(const char* record, uint32_t size, size_t offset, T absent = {}) {
  if (size >= offset + sizeof(T)) std::memcpy(&absent, record + offset, sizeof(T));
  return absent;
}

bool IsValid(const char* record, uint32_t size) {
  const auto* const message = ReadField<const char*>(record, size, 40);
  return size >= 48 && ReadField<uint32_t>(record, size, 4) == 0x00010000 && message != nullptr && *message != '\0' &&
         ReadField<uint32_t>(record, size, 48) <= 3;
}

Event Expected(const char* record, uint32_t size, uint64_t id, uint64_t now) {
  const auto non_zero = [&](size_t offset, uint64_t other) {
    const auto value = ReadField<uint64_t>(record, size, offset);
    return value != 0 ? value : other;
  };
  Event event;
  event.event_id = non_zero(8, id);
  event.severity = ReadField<uint32_t>(record, size, 48, 1);
  event.utc_ns = non_zero(80, now);
  event.ptp_ns = non_zero(88, now);
  event.pts = ReadField<int64_t>(record, size, 96);
  event.value = ReadField<double>(record, size, 112);
  event.threshold = ReadField<double>(record, size, 120);
  event.duration_ms = ReadField<uint64_t>(record, size, 136);
  for (const StringField& text : kStringFields) {
    const auto* const given = ReadField<const char*>(record, size, text.offset);
    event.*text.field = given != nullptr ? given : text.absent;
  }
  return event;
}

std::string Describe(const Event& event) {
  std::string text;
  for (const auto& [name, value] : FieldsOf(event)) text += name + "=" + value + "\n";
  return text;
}

// `bytes` contains the record in a buffer of full size.
void CheckRecord(const oxEventRecord* record, const char* bytes) {
  constexpr uint64_t kId = 77;
  const uint32_t size = record->struct_size;
  const bool valid = IsValid(bytes, size);
  oxEventNormalizedEvent view;
  view.message = "untouched";
  const uint64_t begin = oxEventPlatformGetPtpNano();
  CHECK_EQ(oxEventNormalizeEvent(record, kId, &view), valid ? 0 : 0x80050003);
  const uint64_t end = oxEventPlatformGetPtpNano();
  const Event event(view);

  CHECK_EQ(oxEventSubmit(record), valid ? 0x80050001 : 0x80050003);
  char error[64];
  CHECK_EQ(oxEventGetLastError(error, sizeof error), OXEVENT_OK);
  CHECK_EQ(error, std::string(valid ? "oxEvent is not initialized" : "Invalid OXEvent"));
  std::string alert = "untouched";
  CHECK_EQ(oxEventFormatAlertmanagerRecord(record, {}, &alert), valid ? 0 : 0x80050003);
  if (!valid) {
    Event untouched;
    untouched.message = "untouched";
    CHECK_EQ(alert, untouched.message);
    return CHECK_EQ(Describe(event), Describe(untouched));
  }
  const uint64_t id = Expected(bytes, size, size, 0).event_id;  // The formatter uses the size if there is no id.
  CHECK(alert.find("\"ox_event_id\":\"" + std::to_string(id) + '"') != alert.npos);
  const uint64_t now = ReadField<uint64_t>(bytes, size, 80) == 0 ? event.utc_ns : event.ptp_ns;
  const Event timeless = Expected(bytes, size, kId, 0);
  CHECK((timeless.utc_ns != 0 && timeless.ptp_ns != 0) || (begin <= now && now <= end));
  CHECK_EQ(Describe(event), Describe(Expected(bytes, size, kId, now)));

  const oxEventRecord again = view.ToPublicView();
  CHECK_EQ(again.struct_size, kFullSize);
  CHECK_EQ(oxEventNormalizeEvent(&again, kId, &view), OXEVENT_OK);
  CHECK_EQ(Describe(Event(view)), Describe(event));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t data_size) {
  Input in(data, data_size);
  char record[kFullSize] = {};
  in.ConsumeData(record, sizeof record);
  if (in.ConsumeIntegral<uint8_t>() < 200) WriteField(record, 0, in.ConsumeIntegralInRange<uint32_t>(0, kFullSize + 9));
  if (in.ConsumeIntegral<uint8_t>() < 200) WriteField(record, 4, OXEVENT_API_VERSION);
  if (in.ConsumeBool()) WriteField(record, 48, in.ConsumeIntegralInRange<uint32_t>(0, 4));
  std::vector<std::unique_ptr<char[]>> strings;  // Each in its own buffer, to detect overruns.
  for (const StringField& field : kStringFields) {
    strings.push_back(nullptr);
    if (in.ConsumeIntegral<uint8_t>() > 60) {
      const std::string text = AnyString(in);
      strings.back() = std::make_unique<char[]>(text.size() + 1);
      text.copy(strings.back().get(), text.size());
    }
    WriteField(record, field.offset, strings.back().get());
  }
  const auto size = std::clamp<size_t>(ReadField<uint32_t>(record, kFullSize, 0), sizeof(uint32_t), kFullSize);
  const std::unique_ptr<char[]> block(new char[size]);
  std::memcpy(block.get(), record, size);
  CheckRecord(reinterpret_cast<const oxEventRecord*>(block.get()), record);
  return 0;
}

// The pieces of an event's way that keep to this process and its files.
#include "pieces.h"

#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "api/oxEventNormalize.h"
#include "base/oxEventSeverity.h"
#include "core/oxEventQueue.h"
#include "sinks/oxEventAlertmanager.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkSet.h"
#include "sinks/oxEventSnmpBer.h"
#include "sinks/oxEventText.h"

oxEventNormalizedEvent CompleteEvent() {
  const oxEventRecord record = CompleteRecord();
  oxEventNormalizedEvent event;
  if (oxEventNormalizeEvent(&record, 0, &event) != OXEVENT_OK) abort();
  return event;
}

namespace {

void Normalize(benchmark::State& state) {
  oxEventRecord record = CompleteRecord();
  Repeat(state, [&] {
    benchmark::DoNotOptimize(&record);
    benchmark::ClobberMemory();  // Nothing is known of the record.
    oxEventNormalizedEvent view;
    const uint32_t result = oxEventNormalizeEvent(&record, 1, &view);
    benchmark::DoNotOptimize(&view);
    return result == OXEVENT_OK && view.event_id == record.event_id && view.message.data() == record.message;
  });
}
BENCHMARK(Normalize);

// On one thread, which never waits.
void EnqueuePop(benchmark::State& state) {
  const oxEventRecord record = CompleteRecord();
  oxEventNormalizedEvent view;
  const bool normalized = oxEventNormalizeEvent(&record, 1, &view) == OXEVENT_OK;
  oxEventDropLedger drops;
  oxEventQueue queue(&drops);
  oxEventNodePtr node_cache;
  queue.Start(1024, oxEventDropPolicy::kDropNewest);
  uint64_t id = 0;
  Repeat(state, [&] {
    view.event_id = ++id;
    const bool queued = queue.Enqueue(view, &node_cache) == oxEventEnqueueResult::kQueued;
    const oxEventNormalizedEvent* popped = queued ? queue.WaitPop() : nullptr;
    const bool same = popped != nullptr && popped->event_id == id && popped->message == view.message;
    queue.CompleteActiveEvent();
    return normalized && same;
  });
}
BENCHMARK(EnqueuePop)->Name("Queue/enqueue_pop");

// Whatever appends to a text that is reused. What it appends must hold `part`.
template <class Append>
void RegisterText(const char* name, std::string_view part, Append append) {
  benchmark::RegisterBenchmark(name, [part, append](benchmark::State& state) {
    std::string expected;
    append(&expected);
    std::string out;
    Repeat(state, [&] {
      out.clear();
      append(&out);
      benchmark::DoNotOptimize(out.data());
      benchmark::ClobberMemory();
      return out.size() == expected.size();
    });
    if (out != expected || out.find(part) == std::string::npos) state.SkipWithError("another text");
  });
}

void AppendCsvRow(const oxEventNormalizedEvent& event, std::string* out) {
  char row[4096];
  if (oxEventText::CsvRowCapacity(event) <= sizeof(row)) out->append(row, oxEventText::WriteCsvRow(event, row));
}

void RegisterTexts() {
  static const oxEventNormalizedEvent event = CompleteEvent();
  RegisterText("Text/csv_row", "71.299999999999997", [](auto* out) { AppendCsvRow(event, out); });
  RegisterText("Text/native_json", event.message, [](auto* out) { oxEventText::FormatNativeJsonData(event, out); });
  RegisterText("Text/cloudevents_json", "\"subject\":\"racks/rack-07",
               [](auto* out) { oxEventText::FormatCloudEventsJson(event, "/oxEvent", "racks/", out); });
  RegisterText("Text/alertmanager", "OxEventTemperatureHigh", [](auto* out) {
    static const oxEventAlertmanagerFormatterConfig config;
    oxEventFormatAlertmanagerAlert(event, config, out);
  });
  RegisterText("Text/json_escape", R"(\"fan_rpm\":4200)",
               [](auto* out) { oxEventText::JsonEscape(event.details_json, out); });
  RegisterText("Text/utc_iso", "2023-11-14T22:13:20.123456789Z",
               [](auto* out) { oxEventText::UtcIsoFromNs(event.utc_ns, out); });
  // What a trap is made of.
  RegisterText("Ber/integer", "\x02\x01\x01", [](auto* out) { SnmpBer::Integer(SnmpBer::kInteger, 1, out); });
  RegisterText("Ber/oid", "\x2B\x06", [](auto* out) { SnmpBer::ObjectIdentifier("1.3.6.1.4.1.32473.1.1.1.8.0", out); });
  RegisterText("Ber/string_binding", event.message, [](auto* out) {
    static const std::string oid = [] {
      std::string encoded;
      SnmpBer::ObjectIdentifier("1.3.6.1.4.1.32473.1.1.1.8.0", &encoded);
      return encoded;
    }();
    SnmpBer::AppendStringVarBind(oid, event.message, 2048, out);
  });
}

using JsonBuffer = rapidjson::StringBuffer;
using JsonWriter = rapidjson::Writer<JsonBuffer>;

// With 17 digits, as the library does; RapidJSON's own way is the shortest text that gives the value back.
void WriteDouble(double value, bool shortest, JsonWriter* writer) {
  if (shortest) {
    writer->Double(value);
    return;
  }
  char digits[32];
  const int length = snprintf(digits, sizeof(digits), "%.17g", value);
  writer->RawValue(digits, static_cast<size_t>(length), rapidjson::kNumberType);
}

// The members of the library's document in their order.
void WriteWithRapidJson(const oxEventNormalizedEvent& event, bool shortest, JsonWriter* writer) {
  const auto key = [writer](std::string_view name) {
    writer->Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
  };
  const auto text = [&](std::string_view name, std::string_view value) {
    key(name);
    writer->String(value.data(), static_cast<rapidjson::SizeType>(value.size()));
  };
  const auto number = [&](std::string_view name, uint64_t value) {
    key(name);
    writer->Uint64(value);
  };
  writer->StartObject();
  number("version", OXEVENT_API_VERSION);
  number("event_id", event.event_id);
  text("severity", oxEventSeverityName(event.severity));
  number("severity_value", event.severity);
  number("severity_code", event.severity);
  text("action", event.action);
  text("event_type", event.event_type);
  text("source_id", event.source_id);
  text("source_name", event.source_name);
  text("dedupe_key", event.dedupe_key);
  text("correlation_id", event.correlation_id);
  text("message", event.message);
  number("utc_ns", event.utc_ns);
  number("ptp_ns", event.ptp_ns);
  key("pts");
  writer->Int64(event.pts);
  text("timecode", event.timecode);
  key("value");
  WriteDouble(event.value, shortest, writer);
  key("threshold");
  WriteDouble(event.threshold, shortest, writer);
  text("units", event.units);
  number("duration_ms", event.duration_ms);
  text("details_json", event.details_json);
  writer->EndObject();
}

// The same document by the texts' own measure, and by RapidJSON with all of its memory reused.
void RegisterJson() {
  static const oxEventNormalizedEvent event = CompleteEvent();
  RegisterText("Json/native", event.message, [](auto* out) { oxEventText::FormatNativeJsonData(event, out); });
  for (const bool shortest : {false, true}) {
    benchmark::RegisterBenchmark(
        shortest ? "Json/rapidjson_shortest" : "Json/rapidjson", [shortest](benchmark::State& state) {
          std::string ours;
          oxEventText::FormatNativeJsonData(event, &ours);
          JsonBuffer buffer;
          JsonWriter writer(buffer);
          Repeat(state, [&] {
            buffer.Clear();
            writer.Reset(buffer);
            WriteWithRapidJson(event, shortest, &writer);
            benchmark::DoNotOptimize(buffer.GetString());
            benchmark::ClobberMemory();
            return writer.IsComplete();
          });
          rapidjson::Document a;
          rapidjson::Document b;
          a.Parse(ours.data(), ours.size());
          b.Parse(buffer.GetString(), buffer.GetSize());
          const bool same = !a.HasParseError() && !b.HasParseError() && a == b && a.MemberCount() == 21;
          if (!same) state.SkipWithError("another document");
        });
  }
}

// A file for the life of a benchmark. Emptied after each batch, so that the size of the disk does not matter.
class File {
 public:
  File() : path_(folder_ + "/events.csv") {}
  ~File() { std::filesystem::remove_all(folder_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const std::string& Path() const { return path_; }
  bool Empty(size_t expected_size) const {
    return std::filesystem::file_size(path_) == expected_size && truncate(path_.c_str(), 0) == 0;
  }

 private:
  const std::string folder_ =
      mkdtemp((std::filesystem::temp_directory_path().string() + "/oxevent_pieces_XXXXXX").data());
  const std::string path_;
};

constexpr size_t kBlock = 64 * 1024;
constexpr int64_t kBlocks = 32;  // In a batch.

std::string CsvRow() {
  std::string row;
  AppendCsvRow(CompleteEvent(), &row);
  return row;
}

// The last rows of a batch are written out in its time.
void CsvRowToFile(benchmark::State& state) {
  const File file;
  const oxEventNormalizedEvent event = CompleteEvent();
  const size_t row_size = CsvRow().size();
  const auto batch = static_cast<int64_t>(kBlocks * kBlock / row_size);
  oxEventSinkConfig config;
  config.path = file.Path();
  std::shared_ptr<oxEventSink> sink;
  if (oxEventCreateCsvSink(config, &sink, nullptr) != OXEVENT_OK) return state.SkipWithError("no sink");
  if (truncate(config.path.c_str(), 0) != 0) return state.SkipWithError("no file");  // Rid of the header.
  int64_t rows = 0;
  RepeatInBatches(
      state, batch,
      [&] {
        if (sink->Submit(event, nullptr, nullptr) != OXEVENT_OK) return false;
        return ++rows % batch != 0 || sink->Flush(0, nullptr) == OXEVENT_OK;
      },
      [&] { return file.Empty(static_cast<size_t>(batch) * row_size); });
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(row_size));
}
BENCHMARK(CsvRowToFile)->Name("Csv/row_to_file");

// The same bytes, ready, in blocks of whole rows; the time is that of one row.
void CsvBareWrite(benchmark::State& state) {
  const File file;
  const std::string row = CsvRow();
  const auto rows_in_block = static_cast<int64_t>(kBlock / row.size());
  std::string block;
  for (int64_t i = 0; i < rows_in_block; ++i) block.append(row);
  const int fd = open(file.Path().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  int64_t rows = 0;
  RepeatInBatches(
      state, kBlocks * rows_in_block,
      [&] {
        if (++rows % rows_in_block != 0) return true;
        return write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
      },
      [&] { return file.Empty(kBlocks * block.size()); });
  close(fd);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(row.size()));
}
BENCHMARK(CsvBareWrite)->Name("Csv/bare_write");

// One callback and no other sink.
void CallbackDispatch(benchmark::State& state) {
  const oxEventNormalizedEvent event = CompleteEvent();
  uint64_t ids = 0;
  uint32_t callback_id = 0;
  const auto add_id = [](const oxEventRecord* record, void* sum) { *static_cast<uint64_t*>(sum) += record->event_id; };
  if (oxEventSinkInitialize({}) != OXEVENT_OK) return state.SkipWithError("no sinks");
  const bool registered = oxEventSinkRegisterCallback(add_id, &ids, &callback_id) == OXEVENT_OK;
  Repeat(state, [&] {
    uint64_t failed = 0;
    uint64_t warnings = 0;
    return oxEventSinkSubmit(event, &failed, &warnings) == OXEVENT_OK && failed == 0;
  });
  const auto calls = static_cast<uint64_t>(state.iterations());
  if (!registered || ids != calls * event.event_id) state.SkipWithError("a call is missing");
  oxEventSinkShutdown();
}
BENCHMARK(CallbackDispatch)->Name("Callback/dispatch");

}  // namespace

int main(int argc, char** argv) {
  const HttpServer server;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RegisterTexts();
  RegisterJson();
  RegisterState();
  RegisterNet(server.Url());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}

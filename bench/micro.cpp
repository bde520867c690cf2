// Micro-benchmarks of steps that involve only this process and its files.
#include "micro.h"

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
    benchmark::ClobberMemory();  // The compiler must not assume anything about the record.
    oxEventNormalizedEvent view;
    const uint32_t result = oxEventNormalizeEvent(&record, 1, &view);
    benchmark::DoNotOptimize(&view);
    return result == OXEVENT_OK && view.event_id == record.event_id && view.message.data() == record.message;
  });
}
BENCHMARK(Normalize);

// One thread enqueues and pops, so that WaitPop never waits.
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

// Registers a benchmark of `append`, which appends to a reused string. The output must contain `expected_part`.
template <class Append>
void RegisterFormatter(const char* name, std::string_view expected_part, Append append) {
  benchmark::RegisterBenchmark(name, [expected_part, append](benchmark::State& state) {
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
    if (out != expected || out.find(expected_part) == std::string::npos) {
      state.SkipWithError("unexpected output");
    }
  });
}

void AppendCsvRow(const oxEventNormalizedEvent& event, std::string* out) {
  char row[4096];
  if (oxEventText::CsvRowCapacity(event) <= sizeof(row)) out->append(row, oxEventText::WriteCsvRow(event, row));
}

void RegisterFormatters() {
  static const oxEventNormalizedEvent event = CompleteEvent();
  RegisterFormatter("Text/csv_row", "71.299999999999997", [](auto* out) { AppendCsvRow(event, out); });
  RegisterFormatter("Text/native_json", event.message,
                    [](auto* out) { oxEventText::FormatNativeJsonData(event, out); });
  RegisterFormatter("Text/cloudevents_json", "\"subject\":\"racks/rack-07",
                    [](auto* out) { oxEventText::FormatCloudEventsJson(event, "/oxEvent", "racks/", out); });
  RegisterFormatter("Text/alertmanager", "OxEventTemperatureHigh", [](auto* out) {
    static const oxEventAlertmanagerFormatterConfig config;
    oxEventFormatAlertmanagerAlert(event, config, out);
  });
  RegisterFormatter("Text/json_escape", R"(\"fan_rpm\":4200)", [](auto* out) {
    oxEventWriter writer(out);
    oxEventText::JsonEscape(event.details_json, &writer);
  });
  RegisterFormatter("Text/utc_iso", "2023-11-14T22:13:20.123456789Z", [](auto* out) {
    oxEventWriter writer(out);
    oxEventText::UtcIsoFromNs(event.utc_ns, &writer);
  });
  // Encoding steps of an SNMP trap.
  RegisterFormatter("Ber/integer", "\x02\x01\x01", [](auto* out) {
    oxEventWriter writer(out);
    SnmpBer::Integer(SnmpBer::kInteger, 1, &writer);
  });
  RegisterFormatter("Ber/oid", "\x2B\x06",
                    [](auto* out) { SnmpBer::ObjectIdentifier("1.3.6.1.4.1.32473.1.1.1.8.0", out); });
  RegisterFormatter("Ber/string_binding", event.message, [](auto* out) {
    static const std::string oid = [] {
      std::string encoded;
      SnmpBer::ObjectIdentifier("1.3.6.1.4.1.32473.1.1.1.8.0", &encoded);
      return encoded;
    }();
    oxEventWriter writer(out);
    SnmpBer::AddStringVarBind(oid, event.message, 2048, &writer);
  });
}

using JsonBuffer = rapidjson::StringBuffer;
using JsonWriter = rapidjson::Writer<JsonBuffer>;

// Writes 17 digits, as the library does, or RapidJSON's default, the shortest string that converts back to the value.
void WriteDouble(double value, bool shortest, JsonWriter* writer) {
  if (shortest) {
    writer->Double(value);
    return;
  }
  char digits[32];
  const int length = snprintf(digits, sizeof(digits), "%.17g", value);
  writer->RawValue(digits, static_cast<size_t>(length), rapidjson::kNumberType);
}

// Writes the same members in the same order as the library.
void WriteWithRapidJson(const oxEventNormalizedEvent& event, bool shortest, JsonWriter* writer) {
  const auto key = [writer](std::string_view name) {
    writer->Key(name.data(), static_cast<rapidjson::SizeType>(name.size()));
  };
  const auto string = [&](std::string_view name, std::string_view value) {
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
  string("severity", oxEventSeverityName(event.severity));
  number("severity_value", event.severity);
  number("severity_code", event.severity);
  string("action", event.action);
  string("event_type", event.event_type);
  string("source_id", event.source_id);
  string("source_name", event.source_name);
  string("dedupe_key", event.dedupe_key);
  string("correlation_id", event.correlation_id);
  string("message", event.message);
  number("utc_ns", event.utc_ns);
  number("ptp_ns", event.ptp_ns);
  key("pts");
  writer->Int64(event.pts);
  string("timecode", event.timecode);
  key("value");
  WriteDouble(event.value, shortest, writer);
  key("threshold");
  WriteDouble(event.threshold, shortest, writer);
  string("units", event.units);
  number("duration_ms", event.duration_ms);
  string("details_json", event.details_json);
  writer->EndObject();
}

// Registers benchmarks that write the same document with the library, and with RapidJSON, whose buffer is reused.
void RegisterJsonWriters() {
  static const oxEventNormalizedEvent event = CompleteEvent();
  RegisterFormatter("Json/native", event.message, [](auto* out) { oxEventText::FormatNativeJsonData(event, out); });
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
          if (!same) state.SkipWithError("unexpected document");
        });
  }
}

// A temporary file, truncated after each batch to limit its size.
class TempFile {
 public:
  TempFile() : path_(directory_ + "/events.csv") {}
  ~TempFile() { std::filesystem::remove_all(directory_); }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::string& Path() const { return path_; }

  // Truncates the file. Returns false unless it had `expected_size` bytes.
  bool Truncate(size_t expected_size) const {
    return std::filesystem::file_size(path_) == expected_size && truncate(path_.c_str(), 0) == 0;
  }

 private:
  const std::string directory_ =
      mkdtemp((std::filesystem::temp_directory_path().string() + "/oxevent_micro_XXXXXX").data());
  const std::string path_;
};

constexpr size_t kBlockBytes = 64 * 1024;
constexpr int64_t kBlocksPerBatch = 32;

std::string CsvRow() {
  std::string row;
  AppendCsvRow(CompleteEvent(), &row);
  return row;
}

// The timed part of a batch includes the flush of its last rows.
void CsvRowToFile(benchmark::State& state) {
  const TempFile file;
  const oxEventNormalizedEvent event = CompleteEvent();
  const size_t row_size = CsvRow().size();
  const auto batch_size = static_cast<int64_t>(kBlocksPerBatch * kBlockBytes / row_size);
  oxEventSinkConfig config;
  config.path = file.Path();
  std::shared_ptr<oxEventSink> sink;
  if (oxEventCreateCsvSink(config, &sink, nullptr) != OXEVENT_OK)
    return state.SkipWithError("the sink was not created");
  // Removes the header, so that the file contains only rows.
  if (truncate(config.path.c_str(), 0) != 0) return state.SkipWithError("the header could not be removed");
  int64_t rows = 0;
  RepeatInBatches(
      state, batch_size,
      [&] {
        if (sink->Submit(event, nullptr, nullptr) != OXEVENT_OK) return false;
        return ++rows % batch_size != 0 || sink->Flush(0, nullptr) == OXEVENT_OK;
      },
      [&] { return file.Truncate(static_cast<size_t>(batch_size) * row_size); });
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(row_size));
}
BENCHMARK(CsvRowToFile)->Name("Csv/row_to_file");

// Writes the same rows, formatted beforehand, in blocks. Reports the time per row.
void CsvBareWrite(benchmark::State& state) {
  const TempFile file;
  const std::string row = CsvRow();
  const auto rows_per_block = static_cast<int64_t>(kBlockBytes / row.size());
  std::string block;
  for (int64_t i = 0; i < rows_per_block; ++i) block.append(row);
  const int fd = open(file.Path().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  int64_t rows = 0;
  RepeatInBatches(
      state, kBlocksPerBatch * rows_per_block,
      [&] {
        if (++rows % rows_per_block != 0) return true;
        return write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
      },
      [&] { return file.Truncate(kBlocksPerBatch * block.size()); });
  close(fd);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(row.size()));
}
BENCHMARK(CsvBareWrite)->Name("Csv/bare_write");

// Delivers an event to one callback; there is no other sink.
void CallbackDispatch(benchmark::State& state) {
  const oxEventNormalizedEvent event = CompleteEvent();
  uint64_t ids = 0;
  uint32_t callback_id = 0;
  const auto add_id = [](const oxEventRecord* record, void* sum) { *static_cast<uint64_t*>(sum) += record->event_id; };
  if (oxEventSinkInitialize({}) != OXEVENT_OK) return state.SkipWithError("oxEventSinkInitialize failed");
  const bool registered = oxEventSinkRegisterCallback(add_id, &ids, &callback_id) == OXEVENT_OK;
  Repeat(state, [&] {
    uint64_t failed = 0;
    uint64_t warnings = 0;
    return oxEventSinkSubmit(event, &failed, &warnings) == OXEVENT_OK && failed == 0;
  });
  const auto calls = static_cast<uint64_t>(state.iterations());
  if (!registered || ids != calls * event.event_id) state.SkipWithError("unexpected number of callback calls");
  oxEventSinkShutdown();
}
BENCHMARK(CallbackDispatch)->Name("Callback/dispatch");

}  // namespace

int main(int argc, char** argv) {
  const HttpServer server;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RegisterFormatters();
  RegisterJsonWriters();
  RegisterStateBenchmarks();
  RegisterNetworkBenchmarks(server.Url());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}

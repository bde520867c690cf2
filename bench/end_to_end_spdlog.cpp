// spdlog's asynchronous logger with a file sink, followed by a sink that reports each delivery, as the callback of the
// library does in end_to_end_oxevent.cpp. Compiled once for each overflow policy.
#include <spdlog/async.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include <charconv>
#include <chrono>
#include <thread>

#include "end_to_end.h"

#ifdef OXEVENT_BENCH_OVERRUN
constexpr auto kPolicy = spdlog::async_overflow_policy::overrun_oldest;
#else
constexpr auto kPolicy = spdlog::async_overflow_policy::block;
#endif

namespace {

// Needs no lock: the pool has only one worker.
class ProbeSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    uint64_t id = 0;
    std::from_chars(message.payload.begin(), message.payload.end(), id);
    Delivered(id);
  }
  void flush_() override { ++flushes; }

 public:
  std::atomic<uint64_t> flushes = 0;
};

std::shared_ptr<spdlog::details::thread_pool> g_pool;
std::shared_ptr<spdlog::async_logger> g_logger;
std::shared_ptr<ProbeSink> g_probe;
uint64_t g_flushes = 0;

void Start(const std::string& directory, uint32_t queue_size) {
  g_pool = std::make_shared<spdlog::details::thread_pool>(queue_size, 1);
  g_probe = std::make_shared<ProbeSink>();
  const spdlog::sink_ptr file = std::make_shared<spdlog::sinks::basic_file_sink_mt>(directory + "/events.csv");
  file->set_formatter(
      std::make_unique<spdlog::pattern_formatter>("%Y-%m-%dT%H:%M:%S.%FZ,%l,%v", spdlog::pattern_time_type::utc));
  const spdlog::sink_ptr sinks[] = {file, g_probe};
  g_logger = std::make_shared<spdlog::async_logger>("events", std::begin(sinks), std::end(sinks), g_pool, kPolicy);
}

void Submit(const oxEventRecord& e) {
  g_logger->warn("{},{},{},{},{},{},{},{},{},{},{},{},{},{},{},{},{}", e.event_id, e.action, e.event_type, e.source_id,
                 e.source_name, e.dedupe_key, e.correlation_id, e.message, e.value, e.threshold, e.units, e.duration_ms,
                 e.utc_ns, e.ptp_ns, e.pts, e.timecode, e.details_json);
}

void Drain() {
  g_logger->flush();
  ++g_flushes;
  while (g_probe->flushes < g_flushes) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

void Stop() {
  g_logger.reset();
  g_pool.reset();
}

}  // namespace

const Logger kLogger = {true, Start, Submit, Drain, Stop};

// Shared by the micro-benchmarks. Each checks its results: an unexpected one turns the benchmark into an error.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "base/oxEventNormalizedEvent.h"
#include "event.h"

// The ordinary event with the optional id and time stamps.
inline oxEventRecord CompleteRecord() {
  oxEventRecord record = OrdinaryRecord();
  record.event_id = 471'100;
  record.utc_ns = 1'700'000'000'123'456'789;
  record.ptp_ns = 1'700'000'037'123'456'789;
  return record;
}

// CompleteRecord() after normalization.
oxEventNormalizedEvent CompleteEvent();

// Times `step`, which returns whether its result was as expected.
template <class Step>
void Repeat(benchmark::State& state, Step step) {
  for (auto _ : state) {
    if (step()) continue;
    state.SkipWithError("unexpected result");
    break;
  }
}

// Like Repeat, but in batches. `after_batch` also returns whether its result was as expected, and is not timed.
template <class Step, class AfterBatch>
void RepeatInBatches(benchmark::State& state, int64_t batch_size, Step step, AfterBatch after_batch) {
  while (state.KeepRunningBatch(batch_size)) {
    bool ok = true;
    for (int64_t i = 0; i < batch_size; ++i) ok &= step();
    state.PauseTiming();
    ok &= after_batch();
    state.ResumeTiming();
    if (ok) continue;
    state.SkipWithError("unexpected result");
    break;
  }
}

void RegisterStateBenchmarks();

// `http_url`: URL of a running HttpServer.
void RegisterNetworkBenchmarks(const std::string& http_url);

// A local HTTP/1.1 server with persistent connections. Responds with 204 to each request that equals the first one, and
// with 500 to any other. Runs in a child process, so that it shares nothing with the measured code. Forks: must be
// constructed before any thread starts.
class HttpServer {
 public:
  HttpServer();
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  const std::string& Url() const { return url_; }

 private:
  std::string url_;
  pid_t child_ = -1;
};

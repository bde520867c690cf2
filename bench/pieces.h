// What the benchmarks of the pieces share. Each checks what it measures: an unexpected result makes it an error.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "base/oxEventNormalizedEvent.h"
#include "event.h"

// The ordinary event with its own id and time stamps, as a host may give them.
inline oxEventRecord CompleteRecord() {
  oxEventRecord record = OrdinaryRecord();
  record.event_id = 471'100;
  record.utc_ns = 1'700'000'000'123'456'789;
  record.ptp_ns = 1'700'000'037'123'456'789;
  return record;
}

// As the worker has it.
oxEventNormalizedEvent CompleteEvent();

// Times `once`, which tells whether it did what it should.
template <class Once>
void Repeat(benchmark::State& state, Once once) {
  for (auto _ : state) {
    if (once()) continue;
    state.SkipWithError("unexpected result");
    break;
  }
}

// The same in batches: `after_batch`, which also tells, is not timed.
template <class Once, class AfterBatch>
void RepeatInBatches(benchmark::State& state, int64_t batch, Once once, AfterBatch after_batch) {
  while (state.KeepRunningBatch(batch)) {
    bool good = true;
    for (int64_t i = 0; i < batch; ++i) good &= once();
    state.PauseTiming();
    good &= after_batch();
    state.ResumeTiming();
    if (good) continue;
    state.SkipWithError("unexpected result");
    break;
  }
}

void RegisterState();

// `http_url` is where an HttpServer listens.
void RegisterNet(const std::string& http_url);

// A local HTTP/1.1 server that keeps its connections and answers 204 to each request that has the bytes of its first
// one, 500 to any other. A process of its own, so that it shares nothing with what is measured; to be started first.
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

#pragma once

#include <atomic>
#include <thread>

#include "base/oxEventSeverity.h"
#include "base/oxEventStat.h"
#include "core/oxEventRouter.h"

// One run of the router: its worker, queue, state and counters. The last reference may be dropped only after the worker
// has been joined; the child of a fork never drops it.
class oxEventRouter::Run {
 public:
  Run() = default;
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // Starts the worker, which blocks every signal, so that no handler of the host runs on it. Returns once the worker
  // is ready.
  void StartWorker();
  void JoinWorker() OX_EXCLUDES(join_mutex_);
  // Whether the calling thread is the worker. False once the worker has been joined: another thread may have the
  // same id then.
  bool IsWorker() const { return worker_id_.load() == std::this_thread::get_id(); }
  bool HasEnded() const { return ended_; }

  // Sets which events Submit passes to the queue.
  void Configure(const oxEventConfig& config) { minimum_ = config.enabled ? config.minimum_severity : UINT32_MAX; }
  bool IsEnabled(uint32_t severity) const { return oxEventSeverityMeetsMinimum(severity, minimum_); }

  // Without the address of `running`.
  oxEventStatRun StatAddresses();

  oxEventDropLedger drops;
  oxEventQueue queue{&drops};
  oxEventState state;
  std::atomic<uint64_t> emitted = 0;
  std::atomic<uint64_t> failed_evaluations = 0;
  std::atomic<uint64_t> sink_failures = 0;
  std::atomic<uint64_t> sink_warnings = 0;

 private:
  void WorkerMain();
  void Deliver(oxEventNormalizedEvent* event);

  std::atomic<uint32_t> minimum_ = UINT32_MAX;  // Minimum severity. At first no event passes.
  oxEventMutex join_mutex_;                     // Stop and Close may join the worker at the same time.
  std::thread worker_ OX_GUARDED_BY(join_mutex_);
  std::atomic<std::thread::id> worker_id_;
  std::atomic<bool> ready_ = false;
  std::atomic<bool> ended_ = false;
};

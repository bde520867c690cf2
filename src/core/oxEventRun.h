#pragma once

#include <atomic>
#include <thread>

#include "base/oxEventSeverity.h"
#include "core/oxEventRouter.h"

// One Start to Stop of the router. Whoever drops the last reference must have joined the worker, or be its child by
// fork, which never drops it.
class oxEventRouter::Run {
 public:
  Run() = default;
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  // Starts the worker, which blocks every signal: no handler of the host's runs on it. Returns once it can take events.
  void StartWorker();
  void JoinWorker() OX_EXCLUDES(join_mutex_);
  // False again once the worker is joined: another thread may get its id.
  bool IsWorker() const { return worker_id_.load() == std::this_thread::get_id(); }
  bool HasEnded() const { return ended_; }

  // Which events Submit lets through to the queue.
  void Configure(const oxEventConfig& config) { minimum_ = config.enabled ? config.minimum_severity : UINT32_MAX; }
  bool IsEnabled(uint32_t severity) const { return oxEventSeverityMeetsMinimum(severity, minimum_); }

  oxEventDropLedger drops;
  oxEventQueue queue{&drops};
  oxEventState state;
  std::atomic<uint64_t> emitted = 0;
  std::atomic<uint64_t> sink_failures = 0;
  std::atomic<uint64_t> sink_warnings = 0;

 private:
  void RouterMain();
  void Deliver(oxEventNormalizedEvent* event);

  std::atomic<uint32_t> minimum_ = UINT32_MAX;  // The minimum severity; no event reaches this initial value.
  oxEventMutex join_mutex_;                     // Two threads may want to join: a stop, and the process's exit.
  std::thread worker_ OX_GUARDED_BY(join_mutex_);
  std::atomic<std::thread::id> worker_id_;
  std::atomic<bool> ready_ = false;
  std::atomic<bool> ended_ = false;
};

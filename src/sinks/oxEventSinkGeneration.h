#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "base/oxEventStat.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkSet.h"

// A sink with its name, its deliveries and its failures. Threads: any, but only one at a time calls RecordDelivery.
class oxEventActiveSink {
 public:
  // `section` must have static storage duration.
  oxEventActiveSink(const char* section, std::string name, std::shared_ptr<oxEventSink> sink)
      : section_(section), name_(std::move(name)), sink_(std::move(sink)) {
    stat_.section = oxEventStatTextOf(section_);
    stat_.name = oxEventStatTextOf(name_);
  }

  oxEventSink& Get() const { return *sink_; }
  void RecordDelivery() {
    const std::atomic_ref delivered(stat_.delivered);
    delivered.store(delivered.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  void RecordFailure(std::string error) OX_EXCLUDES(mutex_);
  oxEventSinkStatus Status() OX_EXCLUDES(mutex_);

  const oxEventStatSink* Stat() const { return &stat_; }
  void SetNextStat(const oxEventStatSink* next) { stat_.next = oxEventStatAddress<oxEventStatSink>(next); }

 private:
  const char* const section_;
  const std::string name_;
  const std::shared_ptr<oxEventSink> sink_;
  oxEventMutex mutex_;
  std::string errors_[2] OX_GUARDED_BY(mutex_);  // The texts of stat_.errors.
  oxEventStatSink stat_ = {};                    // `failures` and `errors` are written with mutex_ held.
};

// The sinks created from one load of the settings. A reload creates a new generation, which retires and replaces the
// active one, its predecessor. Both may write to the same file, so the rows that the predecessor has buffered must come
// first: before a generation delivers an event, it drains its predecessor and releases it. Draining a generation writes
// all of its buffered rows, after those of its own predecessor, if it still has one.
//
// Ownership: shared by the sink set, by each thread that calls it and, until it is drained, by its successor.
// Threads: any. No lock is held while a sink is called, except that Report calls FailureDetail with the lock of the
// oxEventActiveSink held. Timeouts apply to each sink; 0 means no limit.
class oxEventSinkGeneration {
 public:
  using Sinks = std::vector<std::unique_ptr<oxEventActiveSink>>;

  // Drain sets *drain_lost_rows if a sink has lost rows; *drain_lost_rows must outlive the generation.
  oxEventSinkGeneration(Sinks sinks, std::atomic<bool>* drain_lost_rows);

  // Retires `predecessor`, which may be null, and replaces it. Call before another thread can use this generation.
  void Replace(std::shared_ptr<oxEventSinkGeneration> predecessor) OX_EXCLUDES(mutex_);
  // From now on each delivery, even one that is in progress, ends with a Drain.
  void Retire() { retired_ = true; }

  // Drains the predecessor, then delivers the event to every sink. Returns OXEVENT_FAILURE if a sink failed. Adds to
  // *failed_sinks and *warnings; both pointers may be null.
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings);

  // Flushes the active generation: drains the predecessor, then flushes every sink. Returns false if a sink of this
  // generation failed, or if a sink of either generation was busy: another thread was writing to it for the whole
  // timeout.
  bool Flush(uint32_t timeout_ms);
  // Like Flush, but writes only the rows that can be written without a long wait, and leaves it to the next Flush or
  // Drain to report failures.
  void TryFlush();

  // Drains a retired generation: drains the predecessor, then every sink. Returns false if a sink was busy and may
  // still have buffered rows. Otherwise returns true, even if a sink lost rows, in which case it sets *drain_lost_rows.
  bool Drain(uint32_t timeout_ms);
  // Drains the predecessor, if there is one, and releases it. Returns false, and keeps it, if its Drain returned false.
  bool DrainPredecessor(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  std::vector<oxEventSinkStatus> Report() const;
  // Returns the first sink; null if there is none.
  const oxEventStatSink* Stat() const { return sinks_.empty() ? nullptr : sinks_.front()->Stat(); }

 private:
  std::shared_ptr<oxEventSinkGeneration> Predecessor() OX_EXCLUDES(mutex_);

  const Sinks sinks_;
  std::atomic<bool>* const drain_lost_rows_;
  std::atomic<bool> retired_ = false;
  std::atomic<bool> has_predecessor_ = false;  // Whether predecessor_ is set; read without the lock.
  oxEventMutex mutex_;
  std::shared_ptr<oxEventSinkGeneration> predecessor_ OX_GUARDED_BY(mutex_);  // Null if there is none, or once drained.
};

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/oxEventMutex.h"
#include "base/oxEventNormalizedEvent.h"
#include "sinks/oxEventSink.h"
#include "sinks/oxEventSinkSet.h"

// A sink with its name and its failures. Threads: any.
class oxEventActiveSink {
 public:
  // `section` has static storage.
  oxEventActiveSink(const char* section, std::string name, std::shared_ptr<oxEventSink> sink)
      : section_(section), name_(std::move(name)), sink_(std::move(sink)) {}

  oxEventSink& Get() const { return *sink_; }
  void RecordFailure(std::string error) OX_EXCLUDES(mutex_);
  oxEventSinkStatus Status() OX_EXCLUDES(mutex_);

 private:
  const char* const section_;
  const std::string name_;
  const std::shared_ptr<oxEventSink> sink_;
  oxEventMutex mutex_;
  uint64_t failures_ OX_GUARDED_BY(mutex_) = 0;
  std::string last_error_ OX_GUARDED_BY(mutex_);
};

// The sinks created from one load of the settings. A reload replaces the active generation: the new one becomes its
// successor, and it becomes the predecessor of the new one and is retired. Both may write to the same file, so a
// generation first drains its predecessor, that is, writes all rows that the predecessor's sinks have buffered, and
// releases it; only then it delivers or flushes.
// Ownership: shared by the sink set, by each thread that calls it and, until it is drained, by its successor.
// Threads: any. No lock is held while a sink is called. Timeouts apply to each sink; 0 means no limit.
class oxEventSinkGeneration {
 public:
  using Sinks = std::vector<std::unique_ptr<oxEventActiveSink>>;

  // *drain_lost_rows is set when Drain finds that a sink has lost rows; it must outlive the generation.
  oxEventSinkGeneration(Sinks sinks, std::atomic<bool>* drain_lost_rows)
      : sinks_(std::move(sinks)), drain_lost_rows_(drain_lost_rows) {}

  // Retires `predecessor`, which may be null, and becomes its successor. Call before another thread can use this
  // generation.
  void Replace(std::shared_ptr<oxEventSinkGeneration> predecessor) OX_EXCLUDES(mutex_);
  // From now on each delivery, even one that is in progress, ends with a drain.
  void Retire() { retired_ = true; }

  // Drains the predecessor, then delivers the event to every sink. Returns OXEVENT_FAILURE if a sink failed. Adds to
  // the counts, which may be null.
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings);

  // For the active generation: drains the predecessor, then flushes every sink. Returns false if one of these sinks
  // lost rows, or if another thread was writing to one of them, or to one of the predecessor's, for the whole timeout.
  bool Flush(uint32_t timeout_ms);
  // Writes the buffered rows of the predecessor and of this generation that can be written without waiting. The next
  // Flush or Drain reports a failure.
  void TryFlush();

  // For a retired generation: drains the predecessor, then every sink. Returns true if no buffered rows are left: each
  // row was written or, which *drain_lost_rows tells, lost. Returns false if another thread was writing to one of the
  // sinks for the whole timeout; Drain must then be called again.
  bool Drain(uint32_t timeout_ms);
  // Calls Drain for the predecessor, if there is one, and releases the predecessor unless Drain returned false. Returns
  // false in that case.
  bool DrainPredecessor(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  std::vector<oxEventSinkStatus> Report() const;

 private:
  std::shared_ptr<oxEventSinkGeneration> Predecessor() OX_EXCLUDES(mutex_);

  const Sinks sinks_;
  std::atomic<bool>* const drain_lost_rows_;
  std::atomic<bool> retired_ = false;
  std::atomic<bool> has_predecessor_ = false;  // Whether predecessor_ is set; read without the lock.
  oxEventMutex mutex_;
  std::shared_ptr<oxEventSinkGeneration> predecessor_ OX_GUARDED_BY(mutex_);  // Null once drained.
};

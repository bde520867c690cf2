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

// The sinks created from one load of the settings. A generation delivers only after its predecessor, the generation
// that it replaced, has written its buffered rows, because both may write to the same file.
// Ownership: shared by the sink set, by each thread that calls it and, until it is drained, by its successor.
// Threads: any. No lock is held while a sink is called. A timeout of 0 means no limit.
class oxEventSinkGeneration {
 public:
  using Sinks = std::vector<std::unique_ptr<oxEventActiveSink>>;

  // Sets *drain_failed when a drain loses rows; *drain_failed must outlive the generation.
  oxEventSinkGeneration(Sinks sinks, std::atomic<bool>* drain_failed)
      : sinks_(std::move(sinks)), drain_failed_(drain_failed) {}

  // Retires `predecessor`, which may be null, and replaces it. Call before another thread can use this generation.
  void Replace(std::shared_ptr<oxEventSinkGeneration> predecessor) OX_EXCLUDES(mutex_);
  // From now on each delivery ends with a drain.
  void Retire() { retired_ = true; }

  // Delivers the event to every sink. Returns OXEVENT_FAILURE if one failed. Adds to the counts, which may be null.
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings);

  // Drains the predecessor and flushes every sink. Returns false if a sink failed or was busy for the whole time.
  bool Flush(uint32_t timeout_ms);
  // Writes the buffered rows that can be written without waiting. The next Flush or Drain reports a failure.
  void TryFlush();

  // Writes the rows of a generation that is no longer active. Returns false if another thread was writing to a sink for
  // the whole time: its rows are not written yet.
  bool Drain(uint32_t timeout_ms);
  // Drains the predecessor, if there is one, and releases it. Returns false if it could not be drained.
  bool DrainPredecessor(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  std::vector<oxEventSinkStatus> Report() const;

 private:
  std::shared_ptr<oxEventSinkGeneration> Predecessor() OX_EXCLUDES(mutex_);

  const Sinks sinks_;
  std::atomic<bool>* const drain_failed_;
  std::atomic<bool> retired_ = false;
  std::atomic<bool> has_predecessor_ = false;  // Whether predecessor_ is set; saves each delivery the lock.
  oxEventMutex mutex_;
  std::shared_ptr<oxEventSinkGeneration> predecessor_ OX_GUARDED_BY(mutex_);  // Null once drained.
};

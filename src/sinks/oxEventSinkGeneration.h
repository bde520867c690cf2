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

// A sink and its failures.
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

// The sinks that one load of the settings built. A generation delivers only after its predecessor, the one that it
// replaced, has written its buffered rows: both may write to one file.
// Ownership: shared by the sink set, by each thread that calls it and, until it is drained, by its successor.
// Threads: any. No lock is held while a sink is called. A timeout of 0 means no limit.
class oxEventSinkGeneration {
 public:
  using Sinks = std::vector<std::unique_ptr<oxEventActiveSink>>;

  // Sets *drain_failed when a drain loses rows; it must outlive the generation.
  oxEventSinkGeneration(Sinks sinks, std::atomic<bool>* drain_failed)
      : sinks_(std::move(sinks)), drain_failed_(drain_failed) {}

  // Takes the place of `predecessor`, which may be null. Call before another thread knows this generation.
  void Replace(std::shared_ptr<oxEventSinkGeneration> predecessor) OX_EXCLUDES(mutex_);
  // From now on every delivery ends with a drain.
  void Retire() { retired_ = true; }

  // Gives the event to every sink; returns OXEVENT_FAILURE if one failed. The counts may be null and are added to.
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* failed_sinks, uint64_t* warnings);

  // Drains the predecessor and flushes every sink. False if a sink failed or was busy for the whole time.
  bool Flush(uint32_t timeout_ms);
  // Writes buffered rows as far as that needs no waiting. The next flush or drain reports a failure.
  void TryFlush();

  // Writes the rows of a generation that is no longer active. False if a sink was busy for the whole time, because
  // another thread is writing to it: the rows are still to come.
  bool Drain(uint32_t timeout_ms);
  // Lets go of the predecessor once it is drained. False if it is not.
  bool DrainPredecessor(uint32_t timeout_ms) OX_EXCLUDES(mutex_);

  std::vector<oxEventSinkStatus> Report() const;

 private:
  std::shared_ptr<oxEventSinkGeneration> Predecessor() OX_EXCLUDES(mutex_);

  const Sinks sinks_;
  std::atomic<bool>* const drain_failed_;
  std::atomic<bool> retired_ = false;
  std::atomic<bool> has_predecessor_ = false;  // Whether predecessor_ is set; spares each delivery the lock.
  oxEventMutex mutex_;
  std::shared_ptr<oxEventSinkGeneration> predecessor_ OX_GUARDED_BY(mutex_);  // Null once it is drained.
};

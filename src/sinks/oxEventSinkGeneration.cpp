#include "sinks/oxEventSinkGeneration.h"

#include <cxxabi.h>

#include <exception>

#include "base/oxEventErrorText.h"
#include "base/oxEventForkCount.h"
#include "base/oxEventTrace.h"

namespace {

// Calls a method of a sink and returns whether it succeeded. On failure, *error is the reason if the sink gives one. An
// exception counts as a failure, except the unwinding of a cancelled thread, which must be rethrown.
template <class Call>
bool CallSink(Call call, std::string* error) {
  try {
    if (call(error) == OXEVENT_OK) return true;
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (const std::exception& exception) {
    oxEventSetErrorText(oxEventErrors::kSinkThrew, {exception.what()}, error);
  } catch (...) {
    oxEventSetErrorText(oxEventErrors::kSinkThrewUnknown, error);
  }
  return false;
}

}  // namespace

void oxEventActiveSink::RecordFailure(std::string error) {
  oxEventTraceSinkFailure(section_, name_.c_str(), error.c_str());
  oxEventLock lock(mutex_);
  const uint64_t failures = stat_.failures + 1;
  std::string& text = errors_[failures % 2];
  text = std::move(error);
  stat_.errors[failures % 2] = oxEventStatTextOf(text);
  // A reader sees this text only with the new count, and the old one, which the next failure but one overwrites, only
  // with the old count.
  std::atomic_ref(stat_.failures).store(failures, std::memory_order_release);
}

oxEventSinkStatus oxEventActiveSink::Status() {
  oxEventLock lock(mutex_);
  return {section_, name_, stat_.failures, errors_[stat_.failures % 2], sink_->FailureDetail()};
}

oxEventSinkGeneration::oxEventSinkGeneration(Sinks sinks, std::atomic<bool>* drain_lost_rows)
    : sinks_(std::move(sinks)), drain_lost_rows_(drain_lost_rows) {
  for (size_t i = 1; i < sinks_.size(); ++i) sinks_[i - 1]->SetNextStat(sinks_[i]->Stat());
}

void oxEventSinkGeneration::Replace(std::shared_ptr<oxEventSinkGeneration> predecessor) {
  if (predecessor == nullptr) return;
  predecessor->Retire();
  oxEventLock lock(mutex_);
  predecessor_ = std::move(predecessor);
  has_predecessor_ = true;
}

uint32_t oxEventSinkGeneration::Deliver(const oxEventNormalizedEvent& event, uint64_t* failed_sinks,
                                        uint64_t* warnings) {
  DrainPredecessor(0);
  const unsigned forks = g_oxEventForkCount;
  uint32_t result = OXEVENT_OK;
  for (const auto& sink : sinks_) {
    if (!sink->Get().Accepts(event.severity)) continue;
    uint64_t sink_warnings = 0;
    std::string error;
    const bool delivered =
        CallSink([&](auto* text) { return sink->Get().Submit(event, &sink_warnings, text); }, &error);
    if (warnings != nullptr) *warnings += sink_warnings;
    if (delivered) sink->RecordDelivery();
    if (delivered || g_oxEventForkCount != forks) continue;
    sink->RecordFailure(std::move(error));
    if (failed_sinks != nullptr) ++*failed_sinks;
    result = OXEVENT_FAILURE;
  }
  // If this generation was retired during the delivery, its successor may have drained it before the rows of this event
  // were buffered. In the child of a fork, the rows belong to the parent.
  if (retired_ && g_oxEventForkCount == forks) Drain(0);
  return result;
}

bool oxEventSinkGeneration::Flush(uint32_t timeout_ms) {
  bool flushed = DrainPredecessor(timeout_ms);
  for (const auto& sink : sinks_) {
    std::string error;
    if (CallSink([&](auto* text) { return sink->Get().Flush(timeout_ms, text); }, &error)) continue;
    sink->RecordFailure(std::move(error));
    flushed = false;
  }
  return flushed;
}

void oxEventSinkGeneration::TryFlush() {
  if (const auto predecessor = Predecessor(); predecessor != nullptr) predecessor->TryFlush();
  for (const auto& sink : sinks_) sink->Get().TryFlush();
}

bool oxEventSinkGeneration::Drain(uint32_t timeout_ms) {
  if (!DrainPredecessor(timeout_ms)) return false;
  bool drained = true;
  for (const auto& sink : sinks_) {
    bool busy = false;
    std::string error;
    if (CallSink([&](auto* text) { return sink->Get().Drain(timeout_ms, &busy, text); }, &error)) continue;
    sink->RecordFailure(std::move(error));
    if (busy) {
      drained = false;
    } else {
      *drain_lost_rows_ = true;
    }
  }
  return drained;
}

bool oxEventSinkGeneration::DrainPredecessor(uint32_t timeout_ms) {
  const auto predecessor = Predecessor();
  if (predecessor == nullptr) return true;
  if (!predecessor->Drain(timeout_ms)) return false;
  oxEventLock lock(mutex_);
  predecessor_.reset();  // Destroys nothing under the lock: `predecessor` still owns the generation.
  has_predecessor_ = false;
  return true;
}

std::shared_ptr<oxEventSinkGeneration> oxEventSinkGeneration::Predecessor() {
  if (!has_predecessor_) return nullptr;
  oxEventLock lock(mutex_);
  return predecessor_;
}

std::vector<oxEventSinkStatus> oxEventSinkGeneration::Report() const {
  std::vector<oxEventSinkStatus> report;
  for (const auto& sink : sinks_) report.push_back(sink->Status());
  return report;
}

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "base/oxEventErrorText.h"
#include "config/oxEventConfig.h"
#include "oxEvent.h"
#include "sinks/oxEventSink.h"

// The body of every factory: checks the settings if `check` is given, creates the sink and opens it. Sets *out only on
// success. `no_output`: the error if `out` is null.
template <class Sink>
uint32_t oxEventCreateSink(oxEventErrorText<0> no_output, const oxEventSinkConfig& config,
                           std::shared_ptr<oxEventSink>* out, std::string* error,
                           uint32_t (*check)(const oxEventSinkConfig& config, std::string* error) = nullptr) {
  if (out == nullptr) return oxEventSetErrorText(no_output, error);
  if (check != nullptr) {
    if (const uint32_t result = check(config, error); result != OXEVENT_OK) return result;
  }
  auto sink = std::make_shared<Sink>(config);
  if (const uint32_t result = sink->Open(error); result != OXEVENT_OK) return result;
  *out = std::move(sink);
  return OXEVENT_OK;
}

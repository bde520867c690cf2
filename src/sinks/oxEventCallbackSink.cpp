#include "sinks/oxEventCallbackSink.h"

#include <cxxabi.h>

#include <algorithm>
#include <iterator>

#include "base/oxEventErrorText.h"
#include "base/oxEventForkCount.h"

namespace {

bool InvokeCallback(oxEventCallback callback, const oxEventRecord& record, void* user_data) {
  try {
    callback(&record, user_data);
    return true;
  } catch (const abi::__forced_unwind&) {
    throw;  // Thread cancellation must not be caught.
  } catch (...) {
    return false;
  }
}

}  // namespace

uint32_t oxEventCallbackSink::Deliver(const oxEventNormalizedEvent& event, uint64_t* /*warnings*/, std::string* error) {
  std::shared_ptr<const Registrations> registrations;
  {
    oxEventLock lock(mutex_);
    registrations = registrations_;
  }
  if (registrations == nullptr) return OXEVENT_OK;
  const unsigned forks = g_oxEventForkCount;
  const oxEventRecord record = event.ToPublicView();
  uint32_t result = OXEVENT_OK;
  for (const auto& registration : *registrations) {
    if (registration->removed) continue;
    const bool returned = InvokeCallback(registration->callback, record, registration->user_data);
    // After a fork in the callback, only the parent calls the remaining callbacks.
    if (g_oxEventForkCount != forks) break;
    if (returned) continue;
    result = oxEventSetErrorText(oxEventErrors::kCallbackThrew, {std::to_string(registration->id)}, error);
  }
  return result;
}

uint32_t oxEventCallbackSink::Register(oxEventCallback callback, void* user_data, uint32_t* id_out) {
  if (callback == nullptr || id_out == nullptr) return OXEVENT_INVALID_ARGUMENT;
  oxEventLock lock(mutex_);
  auto changed = std::make_shared<Registrations>();
  if (registrations_ != nullptr) {
    std::copy_if(registrations_->begin(), registrations_->end(), std::back_inserter(*changed),
                 [](const auto& registration) { return !registration->removed; });
  }
  const uint32_t id = next_callback_id_;
  changed->push_back(std::make_shared<Registration>(id, callback, user_data));
  registrations_ = std::move(changed);
  next_callback_id_ = std::max(id + 1, 1u);  // Never 0, not even after a wrap.
  *id_out = id;
  return OXEVENT_OK;
}

uint32_t oxEventCallbackSink::Unregister(uint32_t id) {
  oxEventLock lock(mutex_);
  if (registrations_ == nullptr) return OXEVENT_NOT_FOUND;
  for (const auto& registration : *registrations_) {
    if (registration->id == id && !registration->removed.exchange(true)) return OXEVENT_OK;
  }
  return OXEVENT_NOT_FOUND;
}

void oxEventCallbackSink::UnregisterAll() {
  oxEventLock lock(mutex_);
  registrations_ = nullptr;
}

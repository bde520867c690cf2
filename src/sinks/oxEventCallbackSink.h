#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/oxEventMutex.h"
#include "sinks/oxEventSink.h"

// Hands every event to the host's callbacks, in the order of registration. Callbacks run on the worker with no lock
// held.
class oxEventCallbackSink : public oxEventSink {
 public:
  constexpr oxEventCallbackSink() : oxEventSink(OXEVENT_SEVERITY_DEBUG) {}

  // OXEVENT_INVALID_ARGUMENT: callback or id_out null.
  uint32_t Register(oxEventCallback callback, void* user_data, uint32_t* id_out) OX_EXCLUDES(mutex_);

  // OXEVENT_NOT_FOUND: no callback has this id. An event in delivery may still reach it.
  uint32_t Unregister(uint32_t id) OX_EXCLUDES(mutex_);

  void UnregisterAll() OX_EXCLUDES(mutex_);

 private:
  uint32_t Deliver(const oxEventNormalizedEvent& event, uint64_t* warnings, std::string* error) override
      OX_EXCLUDES(mutex_);

  struct Registration {
    Registration(uint32_t its_id, oxEventCallback its_callback, void* its_user_data)
        : id(its_id), callback(its_callback), user_data(its_user_data) {}
    const uint32_t id;
    const oxEventCallback callback;
    void* const user_data;              // The host's; never dereferenced.
    std::atomic<bool> removed = false;  // Removal needs no memory; the next registration tidies up.
  };
  using Registrations = std::vector<std::shared_ptr<Registration>>;

  oxEventMutex mutex_;
  uint32_t next_callback_id_ OX_GUARDED_BY(mutex_) = 1;
  // Replaced as a whole, so that a delivery goes on with the one that it began with, without a copy. Null: none.
  std::shared_ptr<const Registrations> registrations_ OX_GUARDED_BY(mutex_);
};

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/oxEventMutex.h"
#include "sinks/oxEventSink.h"

// Passes every event to the host's callbacks, in the order of registration. Callbacks run on the worker thread, with no
// lock held. Threads: any.
class oxEventCallbackSink : public oxEventSink {
 public:
  constexpr oxEventCallbackSink() : oxEventSink(OXEVENT_SEVERITY_DEBUG) {}

  // Returns OXEVENT_INVALID_ARGUMENT if `callback` or `id_out` is null.
  uint32_t Register(oxEventCallback callback, void* user_data, uint32_t* id_out) OX_EXCLUDES(mutex_);

  // Returns OXEVENT_NOT_FOUND if no callback has this id. An event that is being delivered may still reach the
  // callback.
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
    void* const user_data;  // Owned by the host; never dereferenced.
    // Set by Unregister, which must not allocate: to erase the entry, it would have to copy the list. The next Register
    // leaves the entry out.
    std::atomic<bool> removed = false;
  };
  using Registrations = std::vector<std::shared_ptr<Registration>>;

  oxEventMutex mutex_;
  uint32_t next_callback_id_ OX_GUARDED_BY(mutex_) = 1;
  // Each list is immutable and replaced as a whole, so that a delivery can keep its list without copying it. Null if no
  // callback has been registered, or after UnregisterAll.
  std::shared_ptr<const Registrations> registrations_ OX_GUARDED_BY(mutex_);
};

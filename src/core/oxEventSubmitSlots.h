#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <tuple>

#include "core/oxEventNode.h"

// Lets Submit use the current run without a lock: each submitting thread holds a slot during its call, and a stop waits
// until each slot that was held has been released once. A slot also caches a node for the next event submitted through
// it. Threads: any.
class oxEventSubmitSlots {
 private:
  struct alignas(64) Slot {  // On a cache line of its own.
    std::atomic<pthread_t> holder = 0;
    oxEventNodePtr node;
  };
  using Slots = std::array<Slot, 32>;  // More than submit at the same time in most hosts; each may keep a node.

 public:
  // Holds one slot: the one that the thread's id selects or, if that slot is held, the next free one. Waits while all
  // slots are held.
  class Lease {
   public:
    explicit Lease(oxEventSubmitSlots* slots) : slot_(Acquire(&slots->slots_)) {}
    // Pairs with the exchanges that take the slot: in the next lease and in WaitForInFlightSubmits.
    ~Lease() { slot_.holder.store(0, std::memory_order_release); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    // The node that the slot caches; *NodeCache() may be null.
    oxEventNodePtr* NodeCache() const { return &slot_.node; }

   private:
    static Slot& Acquire(Slots* slots) {
      constexpr uint64_t kHashFactor = 0x9E3779B97F4A7C15;  // 2^64 divided by the golden ratio.
      constexpr int kShift = 64 - std::countr_zero(std::tuple_size_v<Slots>);
      const pthread_t self = pthread_self();
      for (size_t i = self * kHashFactor >> kShift, tries = 1;; ++i, ++tries) {
        Slot& slot = (*slots)[i % slots->size()];
        // Sequentially consistent, unlike in a mutex. Submit writes the slot, then reads the run; Stop clears the run,
        // then reads the slots. With a weaker order, each could miss what the other has written.
        if (pthread_t nobody = 0; slot.holder.compare_exchange_strong(nobody, self)) return slot;
        if (tries % slots->size() == 0) BackOff();
      }
    }

    Slot& slot_;
  };

  constexpr oxEventSubmitSlots() = default;
  oxEventSubmitSlots(const oxEventSubmitSlots&) = delete;
  oxEventSubmitSlots& operator=(const oxEventSubmitSlots&) = delete;

  // Waits until every lease that was held when the call began has ended, and frees the nodes that the slots cache. Does
  // not wait for the calling thread's own lease: a signal handler that calls exit may have interrupted its Submit. (If
  // that Submit held a lock, however, the stop waits for it for ever.)
  void WaitForInFlightSubmits();

 private:
  static void BackOff();

  Slots slots_;
};

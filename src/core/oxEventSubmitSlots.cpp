#include "core/oxEventSubmitSlots.h"

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/oxEventSignalBlock.h"

void oxEventSubmitSlots::WaitForInFlightSubmits() {
  const pthread_t self = pthread_self();
  for (Slot& slot : slots_) {
    pthread_t holder = 0;
    for (; !slot.holder.compare_exchange_strong(holder, self) && holder != self; holder = 0) BackOff();
    if (holder == self) continue;
    slot.node.reset();
    slot.holder = 0;
  }
}

// Sleeps: yielding from a real-time thread never lets a lower-priority thread run.
void oxEventSubmitSlots::BackOff() {
  const oxEventCancelBlock cancel_block;
  const int saved_errno = errno;  // The caller of Submit may rely on it.
  std::this_thread::sleep_for(std::chrono::microseconds(50));
  errno = saved_errno;
}

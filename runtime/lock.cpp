#include "runtime/plug.h"
#include "vesk/VeskLock.h"

namespace vesk {

// Looking a while before sleeping gains nothing: what is done under a lock is as short as a sleep
// is to begin, or has to do with storage.
void VeskLock::LockTaken() {
  const MutexLock guard(parking_);
  // Taken here it stays kAwaited, since others may be parked: whoever is woken wakes the next one.
  while (state_.exchange(kAwaited, std::memory_order_acquire) != kFree) parked_.Wait(parking_);
}

void VeskLock::WakeOne() {
  {
    // From its kAwaited to its sleep a thread holds the mutex: it can be woken afterwards.
    const MutexLock guard(parking_);
  }
  parked_.WakeOne();
}

void VeskLock::StartJobs() { Plug::OfThisThread().Release(); }

}  // namespace vesk

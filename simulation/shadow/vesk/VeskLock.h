// The lock of a file's streams in the simulation: as the runtime's, over the mutex of the fibers.

#ifndef VESK_VESKLOCK_H_
#define VESK_VESKLOCK_H_

#include "vesk/VeskMutex.h"

namespace vesk {

class VESK_CAPABILITY("VeskLock") VeskLock {
 public:
  VeskLock() = default;
  VeskLock(const VeskLock&) = delete;
  VeskLock& operator=(const VeskLock&) = delete;

  void lock() VESK_ACQUIRE();
  void unlock() VESK_RELEASE();

  bool locked() const { return mutex_.locked(); }

 private:
  Mutex mutex_;
};

}  // namespace vesk

#endif  // VESK_VESKLOCK_H_

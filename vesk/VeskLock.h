// The lock under which a file's streams are used.

#ifndef VESK_VESKLOCK_H_
#define VESK_VESKLOCK_H_

#include "vesk/VeskMutex.h"

namespace vesk {

// A mutex that the dispatcher knows about: jobs submitted by a thread that holds one start when
// that thread waits or gives one up, so that no job can end while the call that submitted it is
// still looking at the block. It has the names of the standard library's lockables, so
// Holding<VeskLock> and std::lock_guard take it.
//   Before   not recursive; unlocked by the thread that locked it
//   Threads  any
class VESK_CAPABILITY("VeskLock") VeskLock {
 public:
  VeskLock() = default;
  VeskLock(const VeskLock&) = delete;
  VeskLock& operator=(const VeskLock&) = delete;

  void lock() VESK_ACQUIRE();
  void unlock() VESK_RELEASE();

 private:
  Mutex mutex_;
};

}  // namespace vesk

#endif  // VESK_VESKLOCK_H_

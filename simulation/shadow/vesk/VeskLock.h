// The lock of a file's streams in the simulation: as the runtime's, over the mutex of the fibers.

#ifndef VESK_VESKLOCK_H_
#define VESK_VESKLOCK_H_

#include "runtime/thread.h"
#include "vesk/VeskMutex.h"

namespace vesk {

class VESK_CAPABILITY("VeskLock") VeskLock {
 public:
  VeskLock() = default;
  VeskLock(const VeskLock&) = delete;
  VeskLock& operator=(const VeskLock&) = delete;

  void lock() VESK_ACQUIRE() VESK_NO_THREAD_SAFETY_ANALYSIS {
    mutex_.lock();
    ++OfThisThread<Held>().locks;
  }
  void unlock() VESK_RELEASE() VESK_NO_THREAD_SAFETY_ANALYSIS {
    --OfThisThread<Held>().locks;
    mutex_.unlock();
    StartJobs();
  }

  bool locked() const { return mutex_.locked(); }

 private:
  friend class Plug;

  struct Held {
    int locks = 0;
  };

  static void StartJobs();
  static bool HeldByThisThread() { return OfThisThread<Held>().locks > 0; }

  static inline bool has_jobs_ = false;  // set where it is not looked at

  Mutex mutex_;
};

}  // namespace vesk

#endif  // VESK_VESKLOCK_H_

// The lock under which a file's streams are used.

#ifndef VESK_VESKLOCK_H_
#define VESK_VESKLOCK_H_

#include <atomic>

#include "vesk/VeskMutex.h"

namespace vesk {

// A mutex that the dispatcher knows about: jobs submitted by a thread that holds one start when
// that thread waits or gives one up, so that no job can end while the call that submitted it is
// still looking at the block. It has the names of the standard library's lockables, so
// Holding<VeskLock> and std::lock_guard take it.
//
// Not a standard mutex, because its two calls out of line would be a third of what a read that is
// served from memory costs beside its copy. Here one that is free is taken and given up in place;
// whoever meets a taken one parks with standard ones.
//   kFree             -> kTaken     lock
//   any               -> kAwaited   lock, by a thread that is about to park, or has been
//   kTaken, kAwaited  -> kFree      unlock; from kAwaited it wakes one that has parked
//   Before   not recursive; unlocked by the thread that locked it; destroyed when no thread is
//            inside a call
//   Threads  any; who waits longest need not be the next
class VESK_CAPABILITY("VeskLock") VeskLock {
 public:
  VeskLock() = default;
  VeskLock(const VeskLock&) = delete;
  VeskLock& operator=(const VeskLock&) = delete;

  void lock() VESK_ACQUIRE() VESK_NO_THREAD_SAFETY_ANALYSIS {
    if (!TryTake()) LockTaken();
    ++taken_;
  }

  void unlock() VESK_RELEASE() VESK_NO_THREAD_SAFETY_ANALYSIS {
    ++given_up_;
    if (state_.exchange(kFree, std::memory_order_release) == kAwaited) WakeOne();
    if (has_jobs_) StartJobs();  // after the unlock: it takes time that others can use
  }

  // How many times the calling thread has taken one.
  static unsigned long TakenByThisThread() { return taken_; }

 private:
  friend class Plug;  // sets has_jobs_

  enum State : int { kFree, kTaken, kAwaited };

  bool TryTake() {
    State free = kFree;
    return state_.compare_exchange_strong(free, kTaken, std::memory_order_acquire,
                                          std::memory_order_relaxed);
  }

  [[gnu::cold]] void LockTaken();
  [[gnu::cold]] void WakeOne();
  [[gnu::cold]] static void StartJobs();

  static bool HeldByThisThread() { return taken_ != given_up_; }

  static inline thread_local unsigned long taken_ = 0;
  static inline thread_local unsigned long given_up_ = 0;
  static inline thread_local bool has_jobs_ = false;  // the thread's plug may hold some back

  std::atomic<State> state_{kFree};
  Mutex parking_;  // nothing is guarded: a thread that has said kAwaited misses no wake-up
  Condition parked_;
};

}  // namespace vesk

#endif  // VESK_VESKLOCK_H_

// A mutex that the compiler can check, and a condition to wait on with it.

#ifndef VESK_VESKMUTEX_H_
#define VESK_VESKMUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "vesk/VeskCapability.h"

namespace vesk {

//   Before   not recursive; unlocked by the thread that locked it
class VESK_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() VESK_ACQUIRE() { mutex_.lock(); }
  void unlock() VESK_RELEASE() { mutex_.unlock(); }

 private:
  friend class Condition;

  std::mutex mutex_;
};

using MutexLock = Holding<Mutex>;

// Wakes threads that wait for a change of what the mutex guards. Waits may end without one: callers
// look again, in a loop.
class Condition {
 public:
  void Wait(Mutex& mutex) VESK_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();  // NOLINT(bugprone-unused-return-value): the caller holds it on
  }

  void WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point until) VESK_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait_until(lock, until);
    lock.release();  // NOLINT(bugprone-unused-return-value): the caller holds it on
  }

  void WakeOne() { condition_.notify_one(); }
  void WakeAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace vesk

#endif  // VESK_VESKMUTEX_H_

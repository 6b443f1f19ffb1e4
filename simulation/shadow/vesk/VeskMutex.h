// Mutex and condition of the simulation: stands in front of the header of the same name, so that
// everything that waits gives way to the scheduler of the fibers instead of sleeping.

#ifndef VESK_VESKMUTEX_H_
#define VESK_VESKMUTEX_H_

#include <chrono>

#include "simulation/fibers.h"
#include "vesk/VeskCapability.h"

namespace vesk {

class VESK_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() VESK_ACQUIRE() {
    vesk_simulation::Fibers::SwitchPoint();
    while (locked_) vesk_simulation::Fibers::WaitFor(this);
    locked_ = true;
  }
  void unlock() VESK_RELEASE() {
    GiveUp();
    vesk_simulation::Fibers::SwitchPoint();
  }

  // For the simulation: what the mutex guards may be in the middle of a change.
  bool locked() const { return locked_; }

 private:
  friend class Condition;

  void GiveUp() {
    locked_ = false;
    vesk_simulation::Fibers::Wake(this, true);
  }

  bool locked_ = false;
};

using MutexLock = Holding<Mutex>;

class Condition {
 public:
  void Wait(Mutex& mutex) VESK_REQUIRES(mutex) {
    WaitUntil(mutex, std::chrono::steady_clock::time_point::max());
  }

  void WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point until)
      VESK_REQUIRES(mutex) VESK_NO_THREAD_SAFETY_ANALYSIS {
    mutex.GiveUp();
    vesk_simulation::Fibers::WaitFor(this, until);
    mutex.lock();
  }

  void WakeOne() { vesk_simulation::Fibers::Wake(this, false); }
  void WakeAll() { vesk_simulation::Fibers::Wake(this, true); }
};

}  // namespace vesk

#endif  // VESK_VESKMUTEX_H_

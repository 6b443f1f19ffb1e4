// Time as the runtime and everything above it sees it.

#ifndef RUNTIME_CLOCK_H_
#define RUNTIME_CLOCK_H_

#include <chrono>

#include "vesk/VeskMutex.h"

namespace vesk {

// A clock that never goes back, and waiting for it. A test puts a clock of its own in its place.
//   Threads  any
class Clock {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Duration = std::chrono::steady_clock::duration;

  static constexpr Time kNever = Time::max();

  virtual ~Clock() = default;

  virtual Time Now() = 0;

  // Waits until `condition` is woken or `until` has come; may return before either.
  virtual void WaitUntil(Condition& condition, Mutex& mutex, Time until) VESK_REQUIRES(mutex) = 0;

  // The operating system's monotonic clock.
  static Clock& System();
};

}  // namespace vesk

#endif  // RUNTIME_CLOCK_H_

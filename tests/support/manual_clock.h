// A clock that moves when the test says.

#ifndef TESTS_SUPPORT_MANUAL_CLOCK_H_
#define TESTS_SUPPORT_MANUAL_CLOCK_H_

#include <map>

#include "runtime/clock.h"

namespace vesk_test {

// Threads that wait for a time are woken by Advance.
class ManualClock : public vesk::Clock {
 public:
  Time Now() override;
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex, Time until) override
      VESK_REQUIRES(mutex);

  void Advance(Duration by);

  // Returns when that many threads wait for a time that has not come (kNever included), after a
  // bounded while in any case: the test then fails by what it looks at next.
  void AwaitWaiters(std::size_t count);

 private:
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  Time now_ VESK_GUARDED_BY(mutex_){std::chrono::hours(1)};
  struct Waiter {
    vesk::Condition* condition;
    vesk::Mutex* mutex;
  };
  std::multimap<Time, Waiter> waiters_ VESK_GUARDED_BY(mutex_);
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_MANUAL_CLOCK_H_

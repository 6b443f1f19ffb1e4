#include "tests/support/manual_clock.h"

#include <utility>
#include <vector>

namespace vesk_test {

using vesk::MutexLock;

vesk::Clock::Time ManualClock::Now() {
  const MutexLock guard(mutex_);
  return now_;
}

void ManualClock::WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex,
                            Time until) VESK_NO_THREAD_SAFETY_ANALYSIS {
  std::multimap<Time, Waiter>::iterator self;
  {
    const MutexLock guard(mutex_);
    if (until <= now_) return;
    self = waiters_.insert({until, {&condition, &mutex}});
  }
  changed_.WakeAll();
  condition.Wait(mutex);
  const MutexLock guard(mutex_);
  waiters_.erase(self);
}

// The waiters' own mutexes are taken before this clock's, by the waiters: so not while holding it.
void ManualClock::Advance(Duration by) {
  std::vector<Waiter> due;
  {
    const MutexLock guard(mutex_);
    now_ += by;
    for (const auto& [until, waiter] : waiters_) {
      if (until <= now_) due.push_back(waiter);
    }
  }
  for (const Waiter& waiter : due) {
    { const MutexLock guard(*waiter.mutex); }  // it sleeps, or has yet to read the time
    waiter.condition->WakeAll();
  }
}

void ManualClock::AwaitWaiters(std::size_t count) {
  const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  const MutexLock guard(mutex_);
  while (waiters_.size() < count && std::chrono::steady_clock::now() < watchdog) {
    changed_.WaitUntil(mutex_, watchdog);
  }
}

}  // namespace vesk_test

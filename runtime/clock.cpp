#include "runtime/clock.h"

namespace vesk {

namespace {

class SystemClock : public Clock {
 public:
  Time Now() override { return std::chrono::steady_clock::now(); }

  void WaitUntil(Condition& condition, Mutex& mutex, Time until) override VESK_REQUIRES(mutex) {
    if (until == kNever) {
      condition.Wait(mutex);  // the end of time overflows where it is converted for the kernel
    } else {
      condition.WaitUntil(mutex, until);
    }
  }
};

}  // namespace

Clock& Clock::System() {
  static SystemClock clock;
  return clock;
}

}  // namespace vesk

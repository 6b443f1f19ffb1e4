// A thread that does something now and then.

#ifndef RUNTIME_TICKER_H_
#define RUNTIME_TICKER_H_

#include <functional>

#include "runtime/clock.h"
#include "runtime/thread.h"

namespace vesk {

//   Owns     its thread; borrows the clock
//   Threads  any; destroyed by one that is not inside `work`
class Ticker {
 public:
  // Calls `work` every `interval`, and after Kick.
  //   Before   `work` does not throw
  //   Ends in  std::system_error when the thread cannot be started
  Ticker(Clock& clock, Clock::Duration interval, std::function<void()> work);

  // Returns when `work` is not running; it is not called again.
  ~Ticker();
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

  // `work` is due at once. Kicks that come before it begins are one.
  void Kick();

 private:
  void Run();

  Clock& clock_;
  const Clock::Duration interval_;
  const std::function<void()> work_;
  Mutex mutex_;
  Condition due_;
  bool kicked_ VESK_GUARDED_BY(mutex_) = false;
  bool ending_ VESK_GUARDED_BY(mutex_) = false;
  Thread thread_;  // last: it uses all of the others
};

}  // namespace vesk

#endif  // RUNTIME_TICKER_H_

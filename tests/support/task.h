// A thread of a test, whose requests end with the test at the latest.

#ifndef TESTS_SUPPORT_TASK_H_
#define TESTS_SUPPORT_TASK_H_

#include <chrono>
#include <functional>
#include <thread>
#include <utility>

#include "runtime/request.h"
#include "vesk/VeskMutex.h"

namespace vesk_test {

// Does `work` in a thread of its own, from the constructor on.
class Task {
 public:
  enum class Limits {
    kCancel,  // its requests are called off by Cancel, or when this object ends
    kNone,    // they have no limits: the work has to end by itself
  };

  explicit Task(std::function<void()> work, Limits limits = Limits::kCancel)
      : work_(std::move(work)), limits_(limits), thread_([this] { Work(); }) {}
  ~Task() {
    Cancel();
    thread_.join();
  }
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  void Cancel() { token_.Cancel(); }

  bool Ended() const {
    const vesk::MutexLock guard(mutex_);
    return ended_;
  }

  // True as soon as the work has ended; false after a while.
  bool Await() const {
    const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    const vesk::MutexLock guard(mutex_);
    while (!ended_ && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return ended_;
  }

 private:
  void Work() {
    {
      const vesk::RequestScope scope(
          {vesk::Clock::kNever, limits_ == Limits::kCancel ? &token_ : nullptr});
      work_();
    }
    const vesk::MutexLock guard(mutex_);
    ended_ = true;
    changed_.WakeAll();
  }

  const std::function<void()> work_;
  const Limits limits_;
  vesk::CancelToken token_;
  mutable vesk::Mutex mutex_;
  mutable vesk::Condition changed_;
  bool ended_ VESK_GUARDED_BY(mutex_) = false;
  std::thread thread_;  // last: it uses all of the others
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_TASK_H_

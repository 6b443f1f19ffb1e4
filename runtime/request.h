// How long the calling thread's current request may take.

#ifndef RUNTIME_REQUEST_H_
#define RUNTIME_REQUEST_H_

#include <atomic>

#include "runtime/clock.h"

namespace vesk {

class VeskJob;

// Calls off requests, at once where they wait for a job.
//   Owns     nothing; outlives the requests that it was given to
//   Threads  any; one object may serve many requests
class CancelToken {
 public:
  CancelToken() = default;
  CancelToken(const CancelToken&) = delete;
  CancelToken& operator=(const CancelToken&) = delete;

  // Every wait of its requests ends, and so do later ones.
  void Cancel();

  bool Cancelled() const { return cancelled_.load(std::memory_order_acquire); }

  // Sleeps until `job` has ended, `deadline` has come, or Cancel was called.
  //   Before   the caller holds a reference to `job`
  void Wait(VeskJob& job, Clock& clock, Clock::Time deadline);

 private:
  struct Waiting {
    VeskJob& job;
    Waiting* next;
  };

  std::atomic<bool> cancelled_{false};
  Mutex mutex_;  // taken before a job's
  Waiting* waiting_ VESK_GUARDED_BY(mutex_) = nullptr;
};

struct RequestLimits {
  Clock::Time deadline = Clock::kNever;
  CancelToken* cancel = nullptr;  // borrowed; null: cannot be cancelled
};

// Sets the limits of what the calling thread does until the end of the scope. Inside another scope
// the nearer deadline counts, and the token given last.
//   Threads  made and ended by one thread, in the order of a stack
class RequestScope {
 public:
  explicit RequestScope(const RequestLimits& limits);
  ~RequestScope();
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;

  // The calling thread's; null: it may take for ever.
  static const RequestLimits* Current();

  // ECANCELED, ETIMEDOUT, or 0 while the calling thread's request may go on.
  static int Exceeded(Clock& clock);

 private:
  RequestLimits limits_;
  const RequestLimits* const outer_;
};

}  // namespace vesk

#endif  // RUNTIME_REQUEST_H_

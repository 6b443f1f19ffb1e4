// How long the calling thread's current request may take, and waiting within that.

#ifndef RUNTIME_REQUEST_H_
#define RUNTIME_REQUEST_H_

#include <atomic>

#include "runtime/clock.h"

namespace vesk {

class VeskJob;

// Whom a token tells when it is called off, while linked to it.
//   Threads  guarded by the token's mutex
class CancelListener {
 protected:
  CancelListener() = default;
  ~CancelListener() = default;
  CancelListener(const CancelListener&) = delete;
  CancelListener& operator=(const CancelListener&) = delete;

 private:
  friend class CancelToken;

  // Called under the token's mutex, more than once when Cancel is: takes only locks that come after
  // it, and returns soon.
  virtual void OnCancel() = 0;

  CancelListener* next_ = nullptr;
};

// Calls off requests, at once where they wait for a job or a condition.
//   Owns     nothing; outlives the requests and tokens that it was given to
//   Threads  any; one object may serve many requests
class CancelToken final : private CancelListener {
 public:
  CancelToken() = default;

  // Called off with `parent` too, also when that has been called off before. Null: with none.
  //   Owns     borrows `parent`, which outlives it
  explicit CancelToken(CancelToken* parent);
  ~CancelToken();

  // Every wait of its requests ends, and so do later ones.
  void Cancel();

  bool Cancelled() const { return cancelled_.load(std::memory_order_acquire); }

  // Sleeps until `job` has ended, `deadline` has come, or Cancel was called.
  //   Before   the caller holds a reference to `job`
  void Wait(VeskJob& job, Clock& clock, Clock::Time deadline);

 private:
  friend class WakeOnCancel;

  void Link(CancelListener& listener);
  void Unlink(const CancelListener& listener);  // returns when nothing is being told to it
  void OnCancel() override { Cancel(); }

  CancelToken* const parent_ = nullptr;
  std::atomic<bool> cancelled_{false};
  Mutex mutex_;  // taken after the parent's, before what a listener takes
  CancelListener* listeners_ VESK_GUARDED_BY(mutex_) = nullptr;
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

  // One step of a wait for something that `mutex` guards: the caller looks again after each, in a
  // loop. Not 0: the calling thread's limits are met, as Exceeded has it, and nothing was waited
  // for. 0: `condition` was woken, or `until` or the deadline has come, or for no reason.
  //   Before   a WakeOnCancel of both lives, or the thread's request has no token
  static int Wait(Condition& condition, Mutex& mutex, Clock& clock,
                  Clock::Time until = Clock::kNever) VESK_REQUIRES(mutex);

 private:
  RequestLimits limits_;
  const RequestLimits* const outer_;
};

// While it lives, calling off the calling thread's request wakes `condition`, under its mutex: who
// looks with the mutex held and then sleeps on the condition does not miss it.
//   Before   made and ended without `mutex`, which is taken after the token's. It ends before the
//            RequestScope in which it was made, in the same thread
class WakeOnCancel final : private CancelListener {
 public:
  WakeOnCancel(Mutex& mutex, Condition& condition);
  ~WakeOnCancel();

 private:
  void OnCancel() override;

  Mutex& mutex_;
  Condition& condition_;
  CancelToken* const token_;  // null: the request cannot be called off
};

}  // namespace vesk

#endif  // RUNTIME_REQUEST_H_

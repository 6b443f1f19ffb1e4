// Keeps what the store cannot take now: failed jobs are tried again until it can.

#ifndef RUNTIME_DECORATOR_RETRY_H_
#define RUNTIME_DECORATOR_RETRY_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "runtime/backend.h"
#include "runtime/clock.h"
#include "runtime/delay_queue.h"
#include "runtime/random.h"
#include "runtime/write_failure.h"
#include "vesk/VeskMutex.h"

namespace vesk {

struct Settings;

// Whoever asked for a write that ends in an error has to begin again, or loses its bytes. So a
// write that fails does not end: it is parked and tried again, whatever the error (a full disk can
// be cleared), until it succeeds or its owner gives it up. The other jobs have somebody waiting:
// they are tried again a few times, and only where the error may pass.
//   Owns     borrows settings and clock, which outlive it; the jobs it parks
//   Threads  any
//
// Moves of a job:                              made by
//   (above) -> trying                          Start, Run: it is the store's
//   trying  -> (above), 0 or RC_EOF            JobEnded, success
//   trying  -> parked                          JobEnded, failure
//                                                of a write: but for the reasons below
//                                                of another job: IsTransient, tries left, no Sync
//   trying  -> (above), the error of the try   JobEnded, failure
//                                                of a write: a limit; Discard, Abandon or CancelAll
//                                                of another job: otherwise
//   parked  -> trying                          its time has come, or another job has recovered
//   parked  -> (above), its last error         Discard
//   parked  -> (above), CancelAll's error      CancelAll
//
// A Sync is not repeated: systems report lost bytes once, so the second one may succeed without
// them. An operation on names that took place though its answer was lost may end with the error of
// its second try: EEXIST for Create, ENOENT for Remove and Rename.
class RetryDecorator final : public Decorator {
 public:
  // Failing writes: those parked, and those being tried again.
  struct Parked {
    std::size_t jobs = 0;
    std::uint64_t bytes = 0;
    Clock::Duration age{};  // since the oldest one failed first
    int error = 0;          // the latest; 0: there are none
  };

  struct Counts {
    std::uint64_t retried = 0;    // tries beyond each job's first
    std::uint64_t recovered = 0;  // jobs that succeeded after they had failed
    std::uint64_t given_up = 0;   // writes that ended in an error; others that did after a retry
    std::uint64_t discarded = 0;  // writes that ended in an error after Discard
  };
  struct Totals {
    Counts writes;
    Counts others;
  };

  // `seed` makes the delays repeatable.
  //   Ends in  std::system_error when the thread cannot be started
  RetryDecorator(VeskBackend& inner, const Settings& settings, Clock& clock, std::uint64_t seed);

  //   Before   every job has ended
  ~RetryDecorator() override = default;

  // `told` is called at the first failure of a write, when its error changes, and when it is given
  // up, for whatever reason; not for every try, since a store may be out of order for long.
  //   Before   no job was started yet; `told` does not throw
  //   Threads  any, without a mutex held. Calls for one write are in order; those for different
  //            ones may overtake each other, so whoever keeps a state asks GetParked
  void OnWriteFailure(std::function<void(const WriteFailure&)> told) {
    on_failure_ = std::move(told);
  }

  // `told` is called when a failing write has succeeded and none is left of its name. Otherwise as
  // OnWriteFailure.
  void OnWriteRecovered(std::function<void(const std::string& name)> told) {
    on_recovered_ = std::move(told);
  }

  // Gives the failing writes of that name up: the parked ones end now, each with its last error;
  // one that is being tried at this moment ends when that try does, with its error or, if it
  // succeeds, with 0. Writes that have not failed are not touched. Returns how many were given up.
  //   Before   the calling thread holds no VeskLock: it is the one that tells the ends
  std::size_t Discard(const std::string& name) { return DiscardIf(&name); }
  std::size_t DiscardAll() { return DiscardIf(nullptr); }

  // From now on no failing write of that name is kept: those there are end as by Discard, later
  // ones with their first failure. For an owner that wants to be done with the file. KeepAgain ends
  // that, once for each Abandon.
  //   Ends in  Abandon: std::bad_alloc, nothing changed
  void Abandon(const std::string& name);
  void KeepAgain(const std::string& name);

  Parked GetParked() const { return Sum(nullptr); }
  Parked GetParked(const std::string& name) const { return Sum(&name); }
  Totals GetTotals() const;

  // False for a job that has failed before: it stays here, whoever waits for it.
  bool Withdraw(VeskJob* job) override;

  // A write that fails afterwards is not parked any more.
  void CancelAll(int error) override;

 private:
  struct Failing {
    unsigned tries = 1;  // that have failed
    int error = 0;
    Clock::Time since{};   // of the first failure
    Clock::Time latest{};  // of the last one
    bool discarded = false;
  };

  void JobEnded(VeskJob* job, int result) override;
  void Succeed(VeskJob* job, int result);
  void Fail(VeskJob* job, int error);
  bool Park(VeskJob* job);
  void GiveUp(VeskJob* job, int error);
  void Retry(JobQueue& due);
  std::size_t DiscardIf(const std::string* name);
  Parked Sum(const std::string* name) const;
  void Tell(const VeskJob& job, int error, unsigned attempts, bool given_up) const;

  Failing* Note(VeskJob* job, int error, bool* news) VESK_REQUIRES(mutex_);
  Failing Forget(VeskJob* job) VESK_REQUIRES(mutex_);
  Failing* Find(const VeskJob* job) VESK_REQUIRES(mutex_);
  bool Keeps(const VeskJob& job, const Failing* failing) VESK_REQUIRES(mutex_);
  bool WithinLimits(const Failing& failing) VESK_REQUIRES(mutex_);
  Clock::Time NextTry(const VeskJob& job, const Failing* failing) VESK_REQUIRES(mutex_);
  Clock::Duration BackOff(unsigned tries) VESK_REQUIRES(mutex_);
  void BringForward() VESK_REQUIRES(mutex_);
  bool AnyFails(const std::string& name) const VESK_REQUIRES(mutex_);
  Counts& CountsOf(const VeskJob& job) VESK_REQUIRES(mutex_);

  const Settings& settings_;
  Clock& clock_;
  std::function<void(const WriteFailure&)> on_failure_;
  std::function<void(const std::string&)> on_recovered_;

  mutable Mutex mutex_;  // taken before the delay queue's, and those inside the store's Withdraw
  Random random_ VESK_GUARDED_BY(mutex_);
  int cancelled_ VESK_GUARDED_BY(mutex_) = 0;  // CancelAll's error

  // From a job's first failure to its end. A write for which there was no memory is missing: it is
  // kept all the same, but not counted, and each of its failures is taken for the first.
  std::map<const VeskJob*, Failing> failing_ VESK_GUARDED_BY(mutex_);
  std::uint64_t parked_jobs_ VESK_GUARDED_BY(mutex_) = 0;   // writes in failing_
  std::uint64_t parked_bytes_ VESK_GUARDED_BY(mutex_) = 0;  // likewise
  bool brought_forward_ VESK_GUARDED_BY(mutex_) = false;    // and not yet in the store
  Totals totals_ VESK_GUARDED_BY(mutex_);
  std::multiset<std::string> abandoned_ VESK_GUARDED_BY(mutex_);

  DelayQueue delay_;  // the parked jobs; last, so that its thread ends first
};

}  // namespace vesk

#endif  // RUNTIME_DECORATOR_RETRY_H_

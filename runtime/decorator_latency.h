// Makes a store as slow as one that is far away.

#ifndef RUNTIME_DECORATOR_LATENCY_H_
#define RUNTIME_DECORATOR_LATENCY_H_

#include <cstdint>

#include "runtime/backend.h"
#include "runtime/clock.h"
#include "runtime/delay_queue.h"
#include "runtime/random.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// A network between here and the store, which has a latency and, if wanted, a bandwidth:
//   - every job takes the latency, in parallel with all others: sixteen jobs that are started
//     together go on together
//   - transfers share one pipe. Each occupies it for as long as its bytes take, in the order in
//     which they were started; its latency begins when it is through. A read occupies it for the
//     bytes it asks for. Operations on names carry no bytes
// Then the jobs whose time has come go down as one batch, and the store takes its own time.
//   Owns     the jobs it holds
//   Before   every job has ended when it is destroyed
//   Threads  any. The same jobs in the same order at the same times meet the same delays
class LatencyDecorator final : public Decorator {
 public:
  struct Options {
    Clock::Duration fixed{};      // of every job
    Clock::Duration jitter{};     // up to this more, by chance
    std::uint64_t bandwidth = 0;  // bytes a second; 0: no limit
    std::uint64_t seed = 1;
  };

  //   Ends in  std::system_error when the thread cannot be started
  LatencyDecorator(VeskBackend& inner, const Options& options, Clock& clock);

  void Start(JobQueue& jobs) override;
  void Run(VeskJob* job) override { StartOne(job); }

  // A request that has left does not come back.
  bool Withdraw(VeskJob* /*job*/) override { return false; }

  void CancelAll(int error) override;

 private:
  Clock::Time Due(const VeskJob& job, Clock::Time now) VESK_REQUIRES(mutex_);

  const Options options_;
  Clock& clock_;
  Mutex mutex_;  // taken before the delay queue's
  Random random_ VESK_GUARDED_BY(mutex_);
  Clock::Time pipe_free_ VESK_GUARDED_BY(mutex_) = Clock::Time::min();
  int cancelled_ VESK_GUARDED_BY(mutex_) = 0;  // CancelAll's error
  DelayQueue delay_;                           // last, so that its thread ends first
};

}  // namespace vesk

#endif  // RUNTIME_DECORATOR_LATENCY_H_

#include "runtime/decorator_latency.h"

#include <algorithm>
#include <chrono>

#include "runtime/transfer.h"
#include "vesk/VeskJob.h"

namespace vesk {

LatencyDecorator::LatencyDecorator(VeskBackend& inner, const Options& options, Clock& clock)
    : Decorator(inner),
      options_(options),
      clock_(clock),
      random_(options.seed),
      delay_(clock, [this](JobQueue& due) { this->inner().Start(due); }) {}

void LatencyDecorator::Start(JobQueue& jobs) {
  int cancelled = 0;
  {
    const MutexLock guard(mutex_);
    cancelled = cancelled_;
    const Clock::Time now = clock_.Now();
    while (cancelled == 0 && !jobs.Empty()) {
      VeskJob* const job = jobs.Pop();
      delay_.Add(job, Due(*job, now));
    }
  }
  while (!jobs.Empty()) End(jobs.Pop(), cancelled);
}

Clock::Time LatencyDecorator::Due(const VeskJob& job, Clock::Time now) {
  Clock::Time through = now;
  if (options_.bandwidth != 0 && job.GetType() == JOB_TYPE_IO) {
    const std::chrono::duration<double> on_the_pipe(
        static_cast<double>(Transfer(job.GetOP()).length) /
        static_cast<double>(options_.bandwidth));
    pipe_free_ =
        std::max(now, pipe_free_) + std::chrono::duration_cast<Clock::Duration>(on_the_pipe);
    through = pipe_free_;
  }
  const std::chrono::duration<double, Clock::Duration::period> jitter(
      static_cast<double>(options_.jitter.count()) * random_.Fraction());
  return through + options_.fixed + std::chrono::duration_cast<Clock::Duration>(jitter);
}

void LatencyDecorator::CancelAll(int error) {
  JobQueue held;
  {
    const MutexLock guard(mutex_);
    cancelled_ = error;
    delay_.Take([](const VeskJob& /*job*/) { return true; }, held);
  }
  while (!held.Empty()) End(held.Pop(), error);
  inner().CancelAll(error);
}

}  // namespace vesk

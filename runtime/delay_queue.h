// Jobs that wait for their time.

#ifndef RUNTIME_DELAY_QUEUE_H_
#define RUNTIME_DELAY_QUEUE_H_

#include <cstddef>
#include <functional>
#include <limits>

#include "runtime/clock.h"
#include "runtime/job_queue.h"
#include "runtime/thread.h"

namespace vesk {

// Holds jobs, and hands each over when its time has come. It allocates nothing, so it never fails.
//   Owns     a thread; the jobs are its user's
//   Threads  any
class DelayQueue {
 public:
  // `due` is called by the queue's thread, without a mutex held, with all jobs whose time has come,
  // in order of time; it takes all of them out.
  //   Ends in  std::system_error when the thread cannot be started
  DelayQueue(Clock& clock, std::function<void(JobQueue& jobs)> due);

  // Ends the thread.
  //   Before   no job is held
  ~DelayQueue();
  DelayQueue(const DelayQueue&) = delete;
  DelayQueue& operator=(const DelayQueue&) = delete;

  // Jobs of the same time keep their order.
  void Add(VeskJob* job, Clock::Time time);

  // Moves the held jobs that `wanted` is true for, those with the nearest times first and no more
  // than `most`, to the end of `taken`. One that is being handed over is not held any more.
  void Take(const std::function<bool(const VeskJob& job)>& wanted, JobQueue& taken,
            std::size_t most = std::numeric_limits<std::size_t>::max());

 private:
  void Work();

  Clock& clock_;
  const std::function<void(JobQueue&)> due_;
  Mutex mutex_;
  Condition changed_;
  JobQueue jobs_ VESK_GUARDED_BY(mutex_);  // by time
  bool ending_ VESK_GUARDED_BY(mutex_) = false;
  Thread thread_;
};

}  // namespace vesk

#endif  // RUNTIME_DELAY_QUEUE_H_

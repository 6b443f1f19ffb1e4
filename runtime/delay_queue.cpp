#include "runtime/delay_queue.h"

#include <utility>

#include "vesk/VeskJob.h"

namespace vesk {

DelayQueue::DelayQueue(Clock& clock, std::function<void(JobQueue& jobs)> due)
    : clock_(clock), due_(std::move(due)), thread_([this] { Work(); }) {}

DelayQueue::~DelayQueue() {
  {
    const MutexLock guard(mutex_);
    ending_ = true;
  }
  changed_.WakeAll();
  thread_.join();
}

void DelayQueue::Add(VeskJob* job, Clock::Time time) {
  bool first = false;
  {
    const MutexLock guard(mutex_);
    job->due_ = time;
    const auto is_later = [time](const VeskJob& other) { return other.due_ > time; };
    // From the nearer end: there may be thousands.
    if (!jobs_.Empty() && time - jobs_.First()->due_ < jobs_.Last()->due_ - time) {
      jobs_.InsertFromFront(job, is_later);
    } else {
      jobs_.InsertFromBack(job, is_later);
    }
    first = jobs_.First() == job;
  }
  if (first) changed_.WakeAll();
}

void DelayQueue::Take(const std::function<bool(const VeskJob& job)>& wanted, JobQueue& taken,
                      std::size_t most) {
  const MutexLock guard(mutex_);
  jobs_.MoveIf(wanted, taken, most);
}

void DelayQueue::Work() {
  MutexLock guard(mutex_);
  while (!ending_) {
    const Clock::Time first = jobs_.Empty() ? Clock::kNever : jobs_.First()->due_;
    const Clock::Time now = clock_.Now();
    if (first > now) {
      clock_.WaitUntil(changed_, mutex_, first);
      continue;
    }
    JobQueue due;
    while (!jobs_.Empty() && jobs_.First()->due_ <= now) due.Push(jobs_.Pop());
    guard.Unlock();
    due_(due);
    guard.Lock();
  }
}

}  // namespace vesk

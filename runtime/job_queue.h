// A queue of jobs that allocates nothing: the links are inside the job.

#ifndef RUNTIME_JOB_QUEUE_H_
#define RUNTIME_JOB_QUEUE_H_

#include "vesk/VeskJob.h"

namespace vesk {

// First in, first out; any job can be taken out.
//   Owns     nothing; a job is in one queue at a time and outlives its stay there
//   Threads  guarded by its owner, but for Holds
class JobQueue {
 public:
  JobQueue() = default;
  JobQueue(const JobQueue&) = delete;
  JobQueue& operator=(const JobQueue&) = delete;

  bool Empty() const { return first_ == nullptr; }

  // The oldest job, or null.
  VeskJob* First() const { return first_; }

  void Push(VeskJob* job) {
    Insert(job, [](const VeskJob&) { return true; });
  }

  // Puts `job` behind the last one that `stays_before` is true for; true for a job means true for
  // those before it.
  template <typename Predicate>
  void Insert(VeskJob* job, Predicate stays_before) {
    VeskJob* after = last_;
    while (after != nullptr && !stays_before(*after)) after = after->previous_;
    job->previous_ = after;
    job->next_ = after == nullptr ? first_ : after->next_;
    (after == nullptr ? first_ : after->next_) = job;
    (job->next_ == nullptr ? last_ : job->next_->previous_) = job;
    job->queue_.store(this, std::memory_order_relaxed);
  }

  // Moves the jobs that `wanted` is true for to the end of `other`.
  template <typename Predicate>
  void MoveIf(Predicate wanted, JobQueue& other) {
    for (VeskJob* job = first_; job != nullptr;) {
      VeskJob* const next = job->next_;
      if (wanted(*job)) {
        Remove(job);
        other.Push(job);
      }
      job = next;
    }
  }

  //   Before   not empty
  VeskJob* Pop() {
    VeskJob* const job = first_;
    Remove(job);
    return job;
  }

  // Appends all that `other` holds and leaves it empty.
  void Take(JobQueue& other) {
    while (!other.Empty()) Push(other.Pop());
  }

  // Exact for whoever guards this queue: only its owner moves jobs into it and out of it.
  bool Holds(const VeskJob* job) const {
    return job->queue_.load(std::memory_order_relaxed) == this;
  }

  //   Before   Holds(job)
  void Remove(VeskJob* job) {
    (job->previous_ == nullptr ? first_ : job->previous_->next_) = job->next_;
    (job->next_ == nullptr ? last_ : job->next_->previous_) = job->previous_;
    job->queue_.store(nullptr, std::memory_order_relaxed);
  }

 private:
  VeskJob* first_ = nullptr;
  VeskJob* last_ = nullptr;
};

}  // namespace vesk

#endif  // RUNTIME_JOB_QUEUE_H_

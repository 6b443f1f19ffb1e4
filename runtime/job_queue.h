// A queue of jobs that allocates nothing: the links are inside the job.

#ifndef RUNTIME_JOB_QUEUE_H_
#define RUNTIME_JOB_QUEUE_H_

#include <cstddef>
#include <limits>

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

  // The youngest one, or null.
  VeskJob* Last() const { return last_; }

  void Push(VeskJob* job) { Link(job, last_, nullptr); }

  // Puts `job` where `goes_before`, which is false for some jobs and true for all after them, turns
  // true: looked for from the front, or from the back.
  template <typename Predicate>
  void InsertFromFront(VeskJob* job, Predicate goes_before) {
    VeskJob* next = first_;
    while (next != nullptr && !goes_before(*next)) next = next->next_;
    Link(job, next == nullptr ? last_ : next->previous_, next);
  }
  template <typename Predicate>
  void InsertFromBack(VeskJob* job, Predicate goes_before) {
    VeskJob* previous = last_;
    while (previous != nullptr && goes_before(*previous)) previous = previous->previous_;
    Link(job, previous, previous == nullptr ? first_ : previous->next_);
  }

  // Moves the first `most` jobs that `wanted` is true for to the end of `other`.
  template <typename Predicate>
  void MoveIf(Predicate wanted, JobQueue& other,
              std::size_t most = std::numeric_limits<std::size_t>::max()) {
    VeskJob* next = nullptr;
    for (VeskJob* job = first_; job != nullptr && most > 0; job = next) {
      next = job->next_;
      if (!wanted(*job)) continue;
      Remove(job);
      other.Push(job);
      --most;
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
  void Link(VeskJob* job, VeskJob* previous, VeskJob* next) {
    job->previous_ = previous;
    job->next_ = next;
    (previous == nullptr ? first_ : previous->next_) = job;
    (next == nullptr ? last_ : next->previous_) = job;
    job->queue_.store(this, std::memory_order_relaxed);
  }

  VeskJob* first_ = nullptr;
  VeskJob* last_ = nullptr;
};

}  // namespace vesk

#endif  // RUNTIME_JOB_QUEUE_H_

// A queue of jobs that allocates nothing: the link is inside the job.

#ifndef RUNTIME_JOB_QUEUE_H_
#define RUNTIME_JOB_QUEUE_H_

#include "vesk/VeskJob.h"

namespace vesk {

// First in, first out.
//   Owns     nothing; a job is in one queue at a time and outlives its stay there
//   Threads  guarded by its owner
class JobQueue {
 public:
  bool Empty() const { return first_ == nullptr; }

  void Push(VeskJob* job) {
    job->next_ = nullptr;
    (first_ == nullptr ? first_ : last_->next_) = job;
    last_ = job;
  }

  // The oldest job.
  //   Before   not empty
  VeskJob* Pop() {
    VeskJob* const job = first_;
    first_ = job->next_;
    return job;
  }

 private:
  VeskJob* first_ = nullptr;
  VeskJob* last_ = nullptr;  // meaningful while first_ is set
};

}  // namespace vesk

#endif  // RUNTIME_JOB_QUEUE_H_

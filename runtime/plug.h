// Holds a thread's jobs back while it holds a VeskLock.

#ifndef RUNTIME_PLUG_H_
#define RUNTIME_PLUG_H_

#include "runtime/job_queue.h"
#include "runtime/thread.h"
#include "vesk/VeskLock.h"

namespace vesk {

// A thread that holds a VeskLock is inside a request: the code that submitted a job may still look
// at the job's block, and takes a job that has already ended for a broken promise. So the jobs stay
// in the thread's plug until it waits or gives a lock up; that also lets a read-ahead burst leave
// as one batch.
//   Owns     nothing: the dispatcher holds a reference to each of its jobs
//   Threads  one object a thread, used by that thread alone
class Plug {
 public:
  // The calling thread's.
  static Plug& OfThisThread() { return vesk::OfThisThread<Plug>(); }

  static bool HoldsBack() { return VeskLock::HeldByThisThread(); }

  void Add(VeskJob* job) {
    jobs_.Push(job);
    VeskLock::has_jobs_ = true;
  }

  // True: `job` was held back here and is the caller's to run.
  bool Withdraw(VeskJob* job);

  // Starts the jobs held back, in order, those of one dispatcher as one batch.
  void Release() {
    VeskLock::has_jobs_ = false;
    if (!jobs_.Empty()) StartAll();
  }

 private:
  void StartAll();

  JobQueue jobs_;
};

}  // namespace vesk

#endif  // RUNTIME_PLUG_H_

// Where jobs run: the interface between the dispatcher and a store of named files.

#ifndef RUNTIME_BACKEND_H_
#define RUNTIME_BACKEND_H_

#include "runtime/job_queue.h"

namespace vesk {

class VeskJob;

// Who is told that a job has ended: the dispatcher, or a decorator between it and the backend.
class EndHandler {
 public:
  // 0, a positive errno value, never 1000 or 1001, or RC_EOF: a read that has brought nothing,
  // since the file ends before its offset (the cache takes no bytes then; a read that is cut short
  // ends in 0). The handler has the job from here on.
  //   Threads  any; the caller holds no mutex of its own
  virtual void JobEnded(VeskJob* job, int result) = 0;

 protected:
  ~EndHandler() = default;
};

// A store of named files. Every operation is a job: transfers (runtime/transfer.h) and operations
// on names (runtime/name_operation.h), so that waits for all of them can be bounded and decorators
// meet all of them. A store that lacks an operation ends it with ENOTSUP.
//   Owns     each job from Start or Run until End is called for it, exactly once
//   Before   ReportEndsTo was called once, before the first job
//   Threads  any, several at once
class VeskBackend {
 public:
  virtual ~VeskBackend() = default;
  VeskBackend() = default;
  VeskBackend(const VeskBackend&) = delete;
  VeskBackend& operator=(const VeskBackend&) = delete;

  // Takes all of `jobs`, one batch, in, and returns soon. They may end before it returns, in any
  // order, and on any thread. A transfer is carried out whole: it goes on after short counts until
  // it is complete, the file ends (a read stores the count), or it fails.
  virtual void Start(JobQueue& jobs) = 0;

  // Performs a job in the calling thread, which is about to wait for it, where the store can; a
  // store that cannot starts it.
  virtual void Run(VeskJob* job) { StartOne(job); }

  // True: `job` had been started but not begun, and is the caller's again.
  virtual bool Withdraw(VeskJob* job) {
    (void)job;
    return false;
  }

  // From now on no job waits in here: every one that is not being carried out ends with `error`,
  // and so does every one that is started later.
  virtual void CancelAll(int error) = 0;

  // `above` outlives every job.
  void ReportEndsTo(EndHandler& above) { above_ = &above; }

 protected:
  void End(VeskJob* job, int result) { above_->JobEnded(job, result); }

  void StartOne(VeskJob* job) {
    JobQueue one;
    one.Push(job);
    Start(one);
  }

 private:
  EndHandler* above_ = nullptr;
};

// A backend in front of another one; by itself it changes nothing.
//   Owns     borrows `inner`, which outlives it
class Decorator : public VeskBackend, protected EndHandler {
 public:
  explicit Decorator(VeskBackend& inner) : inner_(inner) { inner.ReportEndsTo(*this); }

  void Start(JobQueue& jobs) override { inner_.Start(jobs); }
  void Run(VeskJob* job) override { inner_.Run(job); }
  bool Withdraw(VeskJob* job) override { return inner_.Withdraw(job); }
  void CancelAll(int error) override { inner_.CancelAll(error); }

 protected:
  void JobEnded(VeskJob* job, int result) override { End(job, result); }

  VeskBackend& inner() { return inner_; }

 private:
  VeskBackend& inner_;
};

}  // namespace vesk

#endif  // RUNTIME_BACKEND_H_

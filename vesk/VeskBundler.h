// The cache's way to the dispatcher: takes I/O jobs and sees each of them through to its end.

#ifndef VESK_VESKBUNDLER_H_
#define VESK_VESKBUNDLER_H_

#include <memory>

namespace vesk {

class Clock;
class Dispatcher;
class VeskBackend;
class VeskJob;
class VeskLock;

//   Owns     borrows backend and clock, which outlive it; holds a reference to each job from its
//            submission until its end is published
//   Threads  SubmitJob, WaitForJob: any. Destruction: one, when no call is running; it returns when
//            every submitted job has ended (Dispatcher::Shutdown bounds that)
class VeskBundler {
 public:
  explicit VeskBundler(VeskBackend& backend);
  VeskBundler(VeskBackend& backend, Clock& clock);
  ~VeskBundler();
  VeskBundler(const VeskBundler&) = delete;
  VeskBundler& operator=(const VeskBundler&) = delete;

  // Hands `job` to the backend and returns. It starts at once, or, when the calling thread holds a
  // VeskLock, when that thread waits or gives a lock up; what was held back starts as one batch.
  //   Owns     borrows `job`: the caller keeps its reference, the dispatcher takes one of its own
  //   Before   `job` never submitted before; the memory it names stays valid until JOB_STATE_DONE
  //   After    JOB_STATE_DONE is seen once, after return value and count are stored
  //   Ends in  return only; a transfer that cannot start ends as a finished job with an errno
  //            (ESHUTDOWN: after Dispatcher::Shutdown)
  //   Threads  any thread, no lock needed; allocates nothing
  void SubmitJob(VeskJob* job);

  // Returns when `job` has ended, or, where the calling thread's request has limits (RequestScope),
  // when those are reached. A job that has not started is run by the calling thread itself, since
  // handing it to another one and being woken costs far more than most transfers; not where the
  // request has limits, which the transfer could outlast.
  //   Before   the caller holds a reference to `job`, and `lock`; `lock` null: none is given up
  //   After    `lock` was given up in between: what it protects may have changed
  //   Units    `tag` names the reason of the wait in the statistics
  void WaitForJob(VeskJob* job, VeskLock* lock, const char* tag);

  // Statistics, shutdown, and who is told of ends.
  Dispatcher& dispatcher() { return *dispatcher_; }

 private:
  const std::unique_ptr<Dispatcher> dispatcher_;
};

}  // namespace vesk

#endif  // VESK_VESKBUNDLER_H_

// The dispatcher: takes I/O jobs from the cache and sees each of them through to its end.

#ifndef VESK_VESKBUNDLER_H_
#define VESK_VESKBUNDLER_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace vesk {

class VeskBackend;
class VeskJob;
class VeskLock;

// What a dispatcher has done so far.
struct DispatcherStats {
  struct Transfers {
    std::uint64_t jobs = 0;    // ended, failed ones included
    std::uint64_t bytes = 0;   // moved by the successful ones
    std::uint64_t failed = 0;  // ended in an error; the end of the file is none
  };
  struct Waits {
    std::uint64_t count = 0;
    std::chrono::nanoseconds time{0};  // from the call of WaitForJob to its return
  };

  Transfers reads;
  Transfers writes;
  std::map<std::string, Waits> waits;  // by tag
};

//   Owns     borrows the backend, which outlives it; holds a reference to each job from its
//            submission until its end is published
//   Threads  SubmitJob, WaitForJob, GetStats: any. Destruction: one, when no call is running; it
//            returns when every submitted job has ended
class VeskBundler {
 public:
  explicit VeskBundler(VeskBackend& backend);
  ~VeskBundler();
  VeskBundler(const VeskBundler&) = delete;
  VeskBundler& operator=(const VeskBundler&) = delete;

  // Hands `job` to the backend and returns. It starts at once, or, when the calling thread holds a
  // VeskLock, when that thread waits or gives a lock up.
  //   Owns     borrows `job`: the caller keeps its reference, the dispatcher takes one of its own
  //   Before   `job` never submitted before; the memory it names stays valid until JOB_STATE_DONE
  //   After    JOB_STATE_DONE is seen once, after return value and count are stored
  //   Ends in  return only; a transfer that cannot start ends as a finished job with an errno
  //   Threads  any thread, no lock needed; allocates nothing
  void SubmitJob(VeskJob* job);

  // Returns when `job` has ended; a job that has not started is run by the calling thread itself,
  // since handing it to another one and being woken costs far more than most transfers.
  //   Before   the caller holds a reference to `job`, and `lock`; `lock` null: none is given up
  //   After    `lock` was given up in between: what it protects may have changed
  //   Units    `tag` names the reason of the wait in GetStats
  void WaitForJob(VeskJob* job, VeskLock* lock, const char* tag);

  // A consistent copy.
  DispatcherStats GetStats() const;

 private:
  friend class VeskJob;
  friend class Plug;

  void Start(VeskJob* job);
  void JobEnds(const VeskJob& job, int return_value);
  void JobGone();

  VeskBackend& backend_;
  mutable std::mutex mutex_;
  std::condition_variable idle_;
  DispatcherStats stats_;        // guarded by mutex_
  std::uint64_t in_flight_ = 0;  // guarded by mutex_: submitted and not yet let go
};

}  // namespace vesk

#endif  // VESK_VESKBUNDLER_H_

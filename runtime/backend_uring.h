// A backend over the operating system's files that the kernel's io_uring moves.

#ifndef RUNTIME_BACKEND_URING_H_
#define RUNTIME_BACKEND_URING_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "runtime/backend.h"
#include "runtime/backend_threads.h"
#include "runtime/posix_files.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// A batch costs one system call, whatever its length. What the ring is no place for goes to a few
// threads: operations on names, transfers of files that are not open yet, transfers that need
// memory of their own (PosixFiles::Find), and transfers that failed in the ring. A failure may be
// the ring's alone: the thread that submitted a transfer has ended, an offset within the file does
// not suit O_DIRECT. What the threads end it with is the result, so results are those of
// ThreadsBackend.
//
// A transfer's way:
//   Start     -> waiting                          begun by nobody: Withdraw and CancelAll know it
//   waiting   -> in the ring                      as soon as a slot is free, in order
//   in ring   -> in the ring                      a short count, for the rest
//   in ring   -> ended                            whole, or the end of the file
//   waiting, in ring -> threads                   not open (any more); refused or failed
class UringBackend : public VeskBackend, private EndHandler {
 public:
  struct Options {
    unsigned entries = 256;  // transfers in the ring at most; rounded up to a power of two
    PosixFiles::Options files;
  };

  //   Ends in  std::system_error when the kernel offers no such ring, or a thread cannot be started
  explicit UringBackend(const Options& options);

  // Carries out what was started, then ends its threads.
  ~UringBackend() override;

  // 0: the kernel offers a ring. Otherwise why not, as an errno value: ENOSYS (an old kernel),
  // EPERM (switched off or filtered), ...
  static int Probe();

  void Start(JobQueue& jobs) override;
  void Run(VeskJob* job) override;
  bool Withdraw(VeskJob* job) override;
  void CancelAll(int error) override;

  // System calls made so far to hand transfers to the kernel.
  std::uint64_t Submissions() const { return submissions_.load(std::memory_order_relaxed); }

 private:
  class Ring;

  // A transfer in the ring. The kernel carries it from the thread that submits it to the one that
  // reaps it, which no tool sees: so `job` is stored last and read first, with release and acquire.
  struct Slot {
    std::atomic<VeskJob*> job{nullptr};
    std::shared_ptr<const Descriptor> file;
    std::size_t done = 0;  // bytes
  };

  void JobEnded(VeskJob* job, int result) override { End(job, result); }

  bool Enter(VeskJob* job) VESK_REQUIRES(mutex_);
  void Prepare(Slot& slot, VeskJob* job) VESK_REQUIRES(mutex_);
  void FillRing(JobQueue& for_threads) VESK_REQUIRES(mutex_);
  void Submit(JobQueue& refused) VESK_REQUIRES(mutex_);
  void TakeBack(JobQueue& refused) VESK_REQUIRES(mutex_);
  void HandToThreads(JobQueue& jobs);

  void Work();
  void Reap();
  void Reap(Slot& slot, int result, JobQueue& ended, JobQueue& failed);
  bool GoOn();

  const std::shared_ptr<PosixFiles> files_;
  const std::unique_ptr<Ring> ring_;  // submissions: under mutex_; completions: thread_ alone
  std::atomic<std::uint64_t> submissions_{0};
  std::vector<Slot> slots_;
  std::vector<Slot*> finished_;  // thread_'s: reaped, yet to be given back
  std::vector<Slot*> short_;     // thread_'s: reaped, yet to be submitted for the rest

  Mutex mutex_;
  std::vector<Slot*> free_ VESK_GUARDED_BY(mutex_);
  JobQueue waiting_ VESK_GUARDED_BY(mutex_);
  int cancelled_ VESK_GUARDED_BY(mutex_) = 0;  // what jobs end with instead of being started
  bool ending_ VESK_GUARDED_BY(mutex_) = false;

  ThreadsBackend threads_;
  std::thread thread_;  // reaps
};

}  // namespace vesk

#endif  // RUNTIME_BACKEND_URING_H_

// A reference-counted I/O job: one transfer, from its construction to its published end.

#ifndef VESK_VESKJOB_H_
#define VESK_VESKJOB_H_

#include <atomic>
#include <chrono>
#include <memory>

#include "vesk/VeskMutex.h"
#include "vesk/VeskOP.h"

namespace vesk {

class Clock;
class Dispatcher;
class JobQueue;
class VeskStream;

constexpr int JOB_TYPE_IO = 1;

constexpr int JOB_STATE_NEW = 0;
constexpr int JOB_STATE_SUBMITTED = 1;
constexpr int JOB_STATE_DONE = 4;

// Return value of a read that found the end of the file. It equals -ENOENT, which is one reason
// why errors are reported as positive errno values.
constexpr int RC_EOF = -2;

// One transfer.
//   Owns     the operation given to the constructor. The object itself is freed by the last
//            RefCountDec; construction gives the creator one reference
//   Threads  all operations from any thread
//
// Moves of the state:                                  made by
//   (new)     -> NEW                                   constructor
//   NEW       -> SUBMITTED                             VeskBundler::SubmitJob
//   SUBMITTED -> DONE                                  Publish, once
class VeskJob {
 public:
  VeskJob(int type, VeskOP* op);
  VeskJob(const VeskJob&) = delete;
  VeskJob& operator=(const VeskJob&) = delete;

  // JOB_STATE_*; once it is JOB_STATE_DONE, the return value and all that the transfer stored are
  // visible to the caller.
  int GetJobState() const { return state_.load(std::memory_order_acquire); }

  // 0: success; RC_EOF; otherwise a positive errno value.
  //   Before   the state is JOB_STATE_DONE
  int GetReturnValue() const { return return_value_; }

  void RefCountInc() { references_.fetch_add(1, std::memory_order_relaxed); }

  // Drops one reference; the last one frees the job and its operation.
  static void RefCountDec(VeskJob* job);

  // --- For the dispatcher and its backends -------------------------------------------------------

  int GetType() const { return type_; }

  // A snapshot, exact only while no other thread can reach the job.
  int GetRefCount() const { return references_.load(std::memory_order_relaxed); }

  const VeskOP& GetOP() const { return *op_; }

  // Stores the return value, then publishes the end and wakes every waiter.
  //   Before   the caller holds a reference beyond the block's: whoever sees the end may drop that
  void Publish(int return_value);

  // Sleeps until the end is published.
  //   Before   the caller holds a reference
  void WaitUntilDone();

  // The same, but also until `deadline` has come by `clock`, or `*cancelled` is true and the
  // waiters were woken. True: the job has ended.
  //   Before   `cancelled` may be null
  bool WaitUntilDone(Clock& clock, std::chrono::steady_clock::time_point deadline,
                     const std::atomic<bool>* cancelled);

  // Makes every waiter look at its reasons to go on waiting.
  void WakeWaiters();

  // Written by the cache right after it has constructed a read job: the stream whose `pending_io`
  // counts the job. Null for a write. A split leaves it on the stream that started the read.
  VeskStream* owner_stream = nullptr;

 private:
  friend class DelayQueue;
  friend class Dispatcher;
  friend class JobQueue;
  friend class Plug;

  ~VeskJob() = default;

  const int type_;
  const std::unique_ptr<VeskOP> op_;
  int return_value_ = 0;  // written once, before state_ becomes DONE
  std::atomic<int> state_{JOB_STATE_NEW};
  std::atomic<int> references_{1};
  Mutex mutex_;  // orders Publish against sleepers
  Condition ended_;

  // The dispatcher's: set by SubmitJob.
  Dispatcher* dispatcher_ = nullptr;
  std::chrono::steady_clock::time_point submitted_{};
  bool run_by_waiter_ = false;

  // When a DelayQueue that holds the job lets it go.
  std::chrono::steady_clock::time_point due_{};

  // Links of the one queue that holds the job, guarded by whatever guards that queue; `queue_` is
  // atomic so that the owner of another queue may ask.
  std::atomic<const JobQueue*> queue_{nullptr};
  VeskJob* next_ = nullptr;
  VeskJob* previous_ = nullptr;
};

}  // namespace vesk

#endif  // VESK_VESKJOB_H_

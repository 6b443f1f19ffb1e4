// A reference-counted I/O job: one transfer, from its construction to its published end.

#ifndef VESK_VESKJOB_H_
#define VESK_VESKJOB_H_

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "vesk/VeskOP.h"

namespace vesk {

class VeskBundler;
class VeskStream;

constexpr int JOB_TYPE_IO = 1;

constexpr int JOB_STATE_NEW = 0;
constexpr int JOB_STATE_SUBMITTED = 1;
constexpr int JOB_STATE_RUNNING = 2;
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
//   SUBMITTED -> RUNNING                               Claim: exactly one caller wins
//   RUNNING   -> DONE                                  Publish, once
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

  // True for exactly one caller after submission: that one performs the transfer and ends it.
  bool Claim();

  // Ends the job: the one thing a backend does with it after the transfer.
  //   Before   Claim was won; for a read, the count has been stored
  //   After    a read is off its stream's `pending_io`, the end is published, the dispatcher's
  //            reference is dropped: the caller touches the job no more
  //   Threads  any thread that does not hold the stream's `stream_mutex`
  void Complete(int return_value);

  // Stores the return value, then publishes the end and wakes every waiter.
  //   Before   the caller holds a reference beyond the block's: whoever sees the end may drop that
  void Publish(int return_value);

  // Sleeps until the end is published.
  //   Before   the caller holds a reference
  void WaitUntilDone();

  // Written by the cache right after it has constructed a read job: the stream whose `pending_io`
  // counts the job. Null for a write. A split leaves it on the stream that started the read.
  VeskStream* owner_stream = nullptr;

 private:
  friend class JobQueue;
  friend class Plug;
  friend class VeskBundler;

  ~VeskJob() = default;

  const int type_;
  const std::unique_ptr<VeskOP> op_;
  int return_value_ = 0;  // written once, before state_ becomes DONE
  std::atomic<int> state_{JOB_STATE_NEW};
  std::atomic<int> references_{1};
  std::mutex mutex_;  // orders Publish against sleepers
  std::condition_variable ended_;
  VeskBundler* bundler_ = nullptr;  // set by SubmitJob
  VeskJob* next_ = nullptr;         // link of the one JobQueue that holds the job
};

}  // namespace vesk

#endif  // VESK_VESKJOB_H_

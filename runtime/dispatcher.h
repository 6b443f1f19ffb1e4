// Sees every job through to its end: when it starts, who runs it, how its end is told.

#ifndef RUNTIME_DISPATCHER_H_
#define RUNTIME_DISPATCHER_H_

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "runtime/backend.h"
#include "runtime/clock.h"
#include "runtime/histogram.h"
#include "vesk/VeskMutex.h"

namespace vesk {

class VeskLock;

// A percentile is exact to 12.5 %, the greatest value is exact.
struct Distribution {
  std::uint64_t p50 = 0;
  std::uint64_t p99 = 0;
  std::uint64_t max = 0;
};

// What a dispatcher has done so far.
//   Units    bytes, nanoseconds
struct DispatcherStats {
  struct Jobs {
    std::uint64_t ended = 0;   // failed ones included
    std::uint64_t failed = 0;  // ended in an error; the end of the file is none
    std::uint64_t bytes = 0;   // moved by the successful ones
    Distribution size;         // of a transfer that ended well
    Distribution latency;      // from submission to the end
  };
  struct Waits {
    std::uint64_t count = 0;
    std::uint64_t given_up = 0;  // ended by a deadline or a cancel, the job unfinished
    std::uint64_t nanoseconds = 0;
  };

  Jobs reads;
  Jobs writes;
  Jobs names;                          // operations on names
  std::map<std::string, Waits> waits;  // by tag
  std::uint64_t batches = 0;           // handed to the backend
  std::uint64_t depth = 0;             // jobs submitted and not ended, now
  std::uint64_t max_depth = 0;
};

// Behind VeskBundler.
//   Owns     borrows backend and clock, which outlive it; a reference to each job from its
//            submission until its end is published
//   Threads  any
class Dispatcher final : private EndHandler {
 public:
  Dispatcher(VeskBackend& backend, Clock& clock);

  // Waits for every job.
  ~Dispatcher();

  // VeskBundler's operations of the same kind.
  void Submit(VeskJob* job);
  void Wait(VeskJob* job, VeskLock* lock, const char* tag);

  // Lets no further job start: those end with ESHUTDOWN. Returns when no job is left; at `deadline`
  // it first makes the backend end what it is not carrying out (ESHUTDOWN), then waits until
  // `last`. False: that many milliseconds were not enough, jobs are stuck inside the store and may
  // still use their memory; backend and dispatcher must not be destroyed.
  bool Shutdown(Clock::Time deadline, Clock::Time last);

  // `told` is called after each end that no thread is sure to collect, with the name of the file,
  // by the thread that ended the job, without a mutex of this object held.
  //   Before   no job was submitted yet
  void OnEnd(std::function<void(const std::string& name)> told) { told_ = std::move(told); }

  Clock& clock() { return clock_; }

  DispatcherStats GetStats() const;

 private:
  friend class Plug;

  struct KindStats {
    std::atomic<std::uint64_t> failed{0};
    Histogram latency;
    Histogram size;
  };
  struct TagStats {
    std::array<char, 32> tag{};
    DispatcherStats::Waits waits;
  };

  void Start(JobQueue& jobs);
  void Run(VeskJob* job);
  bool Closed() const;
  void EndAll(JobQueue& jobs, int result);
  void JobEnded(VeskJob* job, int result) override;
  void Record(const VeskJob& job, int result);
  void Record(const char* tag, Clock::Duration time, bool given_up);
  static DispatcherStats::Jobs Summary(const KindStats& kind);

  VeskBackend& backend_;
  Clock& clock_;
  std::function<void(const std::string&)> told_;

  KindStats reads_;
  KindStats writes_;
  KindStats names_;
  std::atomic<std::uint64_t> batches_{0};

  mutable Mutex mutex_;
  Condition idle_;
  bool closed_ VESK_GUARDED_BY(mutex_) = false;
  std::uint64_t depth_ VESK_GUARDED_BY(mutex_) = 0;
  std::uint64_t max_depth_ VESK_GUARDED_BY(mutex_) = 0;
  std::array<TagStats, 32> tags_ VESK_GUARDED_BY(mutex_);  // the last one takes what has no place
};

}  // namespace vesk

#endif  // RUNTIME_DISPATCHER_H_

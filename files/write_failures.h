// The write-backs of a file that have failed, and who has to hear of them.

#ifndef FILES_WRITE_FAILURES_H_
#define FILES_WRITE_FAILURES_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>

#include "runtime/request.h"
#include "runtime/write_failure.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// Each failure raises a count. A handle remembers the count that it has been told of, so each one
// is told once, whatever the others do. Beside that stands which writes are failing now: parked by
// the runtime, their bytes still in flight.
//   Units    offsets of blocks
//   Threads  any; a leaf: nothing is called with the mutex held but CancelToken::Cancel and the
//            listeners, which take only small locks of their own
class WriteFailures {
 public:
  // What a handle has been told.
  using Seen = std::atomic<std::uint64_t>;

  // A wait that ends when a write-back of the file fails, or with the calling thread's limits.
  class Watch {
   public:
    explicit Watch(WriteFailures& failures);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

   private:
    friend class WriteFailures;
    WriteFailures& failures_;
    CancelToken token_;
    const RequestScope scope_;
    Watch* next_ = nullptr;
  };

  using Listener = std::function<void(const WriteFailure&)>;

  // The runtime reports a write that fails and is kept, or is given up.
  void Tell(const WriteFailure& failure);

  // A write has ended in `error`; its bytes are dirty again. Nothing new when that error of that
  // write was told before.
  void Ended(std::uint64_t offset, int error);
  void Succeeded(std::uint64_t offset);

  // A failure that belongs to no block: a sync's.
  void Note(int error);

  // The error of the write at `offset` that is failing now; 0: it is not.
  int At(std::uint64_t offset) const;
  // That of any; 0: none is failing.
  int Any() const;

  // The latest error that `seen` has not been told of, which it is now; 0: none.
  int TakeNews(Seen* seen) const;
  std::uint64_t count() const { return count_.load(); }

  int last_error() const { return last_error_.load(std::memory_order_relaxed); }

  // An empty listener: no more.
  void Listen(const void* who, Listener listener);

 private:
  void Raise(int error) VESK_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::atomic<std::uint64_t> count_{0};  // written under mutex_, after last_error_
  std::atomic<int> last_error_{0};
  std::map<std::uint64_t, int> failing_ VESK_GUARDED_BY(mutex_);
  std::map<const void*, Listener> listeners_ VESK_GUARDED_BY(mutex_);
  Watch* watches_ VESK_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace vesk

#endif  // FILES_WRITE_FAILURES_H_

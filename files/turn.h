// Lets one request at a time have a file to itself.

#ifndef FILES_TURN_H_
#define FILES_TURN_H_

#include <atomic>
#include <functional>
#include <utility>

#include "runtime/clock.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// While a request has the turn all others stay out of the file's streams. Who wants the turn queues
// for it; between two turns those that only wait to pass go on first, so neither kind starves.
// `meanwhile` is called by whoever waits, now and then, without a mutex: it may bring the end of
// what is waited for.
//   Owns     borrows the clock
//   Ends in  ETIMEDOUT, ECANCELED: the calling thread's limits (RequestScope); nothing is taken
//   Threads  any; no lock of a file is held while waiting here
class Turn {
 public:
  explicit Turn(Clock& clock, std::function<void()> meanwhile = {})
      : clock_(clock), meanwhile_(std::move(meanwhile)) {}
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  // Another request than `who` has the turn. Seen under the lock of a stream it holds until that
  // lock is given up: who takes the turn then waits for the lock.
  bool IsTakenFrom(const void* who) const {
    const void* const owner = owner_.load(std::memory_order_acquire);
    return owner != nullptr && owner != who;
  }

  // Returns when nobody has the turn; somebody may take it right after.
  int Pass();

  // The turn, from Take to Give or the end of its life.
  class Holder {
   public:
    explicit Holder(Turn& turn) : turn_(turn) {}
    ~Holder() { Give(); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    bool has() const { return has_; }

    // First come, first served. `who` is what IsTakenFrom compares with.
    int Take(const void* who) {
      const int error = turn_.Take(who);
      has_ = error == 0;
      return error;
    }
    void Give() {
      if (has_) turn_.Give();
      has_ = false;
    }

   private:
    Turn& turn_;
    bool has_ = false;
  };

 private:
  int Take(const void* who);
  void Give();

  struct Waiting {
    Waiting* next = nullptr;
  };

  template <typename Reached>
  int Await(const Reached& reached);
  void Enqueue(Waiting* waiting) VESK_REQUIRES(mutex_);
  void Dequeue(const Waiting* waiting) VESK_REQUIRES(mutex_);

  Clock& clock_;
  const std::function<void()> meanwhile_;
  Mutex mutex_;
  Condition changed_;
  std::atomic<const void*> owner_{nullptr};  // written under mutex_
  Waiting* first_ VESK_GUARDED_BY(mutex_) = nullptr;
  unsigned passing_ VESK_GUARDED_BY(mutex_) = 0;  // waiting in Pass
};

}  // namespace vesk

#endif  // FILES_TURN_H_

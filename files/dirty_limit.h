// How many bytes may be in the cache and not yet in the store.

#ifndef FILES_DIRTY_LIMIT_H_
#define FILES_DIRTY_LIMIT_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>

#include "runtime/clock.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// Writers ask for room before they make bytes dirty. Above the soft limit writing out begins, and
// each writer is held up for a time that grows from nothing to kLongestPause at the hard limit,
// where writers wait until there is room.
//   Units    bytes
//   Threads  any; Admit: no lock of a file held
class DirtyLimit {
 public:
  static constexpr Clock::Duration kLongestPause = std::chrono::milliseconds(10);

  // Room for bytes that are not dirty yet; given back at the end of its life.
  class Room {
   public:
    explicit Room(DirtyLimit& limit) : limit_(limit) {}
    ~Room() { Reset(); }
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    std::uint64_t bytes() const { return bytes_; }

    // Raises the room to `bytes`. False: the soft limit is passed, and Admit is to be asked.
    bool TryAdmit(std::uint64_t bytes);
    //   Ends in  ETIMEDOUT, ECANCELED: the calling thread's limits (RequestScope)
    int Admit(std::uint64_t bytes);

    // So many bytes of it are dirty now.
    void Use(std::uint64_t bytes);
    void Reset();

   private:
    DirtyLimit& limit_;
    std::uint64_t bytes_ = 0;
  };

  //   Before   soft is not above hard
  DirtyLimit(std::uint64_t soft, std::uint64_t hard, Clock& clock)
      : soft_(soft), hard_(hard), clock_(clock) {}

  // `told` is called when writing out is due; `hard`: of everything, for a writer has to wait for
  // it. No mutex is held.
  void OnPressure(std::function<void(bool hard)> told) { on_pressure_ = std::move(told); }

  // Dirty bytes are in the store, or given up.
  void Sub(std::uint64_t bytes);

  bool AboveSoft() const { return total_.load(std::memory_order_relaxed) > soft_; }

  std::uint64_t throttled() const { return throttled_.load(std::memory_order_relaxed); }
  Clock::Duration throttled_time() const {
    return Clock::Duration(throttled_time_.load(std::memory_order_relaxed));
  }

 private:
  bool Take(std::uint64_t bytes, std::uint64_t limit);
  int Wait(std::uint64_t bytes);
  Clock::Duration Pause(std::uint64_t total) const;

  const std::uint64_t soft_;
  const std::uint64_t hard_;
  Clock& clock_;
  std::function<void(bool)> on_pressure_;
  std::atomic<std::uint64_t> total_{0};  // dirty, or promised to a writer
  std::atomic<unsigned> waiting_{0};
  std::atomic<std::uint64_t> throttled_{0};
  std::atomic<Clock::Duration::rep> throttled_time_{0};
  Mutex mutex_;
  Condition less_;
};

}  // namespace vesk

#endif  // FILES_DIRTY_LIMIT_H_

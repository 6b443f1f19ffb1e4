// The bytes that all cached blocks of all files may take together, and who gives some back.

#ifndef FILES_MEMORY_BUDGET_H_
#define FILES_MEMORY_BUDGET_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <set>
#include <utility>

#include "runtime/clock.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// Memory is reserved before a block is made and released after it is gone, so the limit holds at
// every moment. Where it is reached, the blocks used least recently are evicted, over all files;
// where nothing can be, requests wait in the order of their coming.
//
// Use is told in stamps: Stamp() grows with every reservation, and whoever uses a block notes it.
// Uses of different sources between two reservations count as simultaneous: an order of those would
// cost every hit a write to memory that all threads share. Sources are kept in the order of a stamp
// that is no later than that of their oldest block, but for blocks that were busy when they were
// asked for. So the first source may have to be asked and put back, and then the next one is.
//   Units    bytes
//   Owns     borrows sources and clock
//   Threads  any; Reserve and TakeUpTo: no lock of a file held, for others' are taken
class MemoryBudget {
 public:
  static constexpr std::uint64_t kNoBlock = std::numeric_limits<std::uint64_t>::max();

  // Somebody who holds blocks.
  class Source {
   public:
    struct Left {
      std::uint64_t freed = 0;
      std::uint64_t oldest = kNoBlock;  // stamp of the oldest block left that could be evicted
    };

    // Drops idle clean blocks, oldest first, not used after `newest`, until `bytes` are free or
    // none is left, and releases their memory.
    //   Threads  any, with no lock held
    virtual Left Evict(std::uint64_t bytes, std::uint64_t newest) = 0;

   protected:
    ~Source() = default;

   private:
    friend class MemoryBudget;
    // Guarded by the budget's mutex.
    std::uint64_t key_ = 0;           // its place in by_age_
    std::uint64_t lower_ = kNoBlock;  // at most that, when it is put back
    bool evicting_ = false;           // it is not in by_age_
  };

  // Memory that is reserved and not used yet; given back at the end of its life.
  class Reservation {
   public:
    explicit Reservation(MemoryBudget& budget) : budget_(budget) {}
    ~Reservation() { Reset(); }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;

    std::uint64_t bytes() const { return bytes_; }

    // Raises the reservation to `bytes`.
    int Reserve(std::uint64_t bytes);      // waits within the calling thread's limits
    bool TryReserve(std::uint64_t bytes);  // evicts nothing and does not wait: allowed under locks

    // Adds as much of `bytes` as can be had by evicting, in halves of it.
    void TakeUpTo(std::uint64_t bytes);

    // A block of that size has been made of it.
    void Use(std::uint64_t bytes);
    void Reset();

   private:
    MemoryBudget& budget_;
    std::uint64_t bytes_ = 0;
  };

  MemoryBudget(std::uint64_t limit, Clock& clock) : limit_(limit), clock_(clock) {}
  MemoryBudget(const MemoryBudget&) = delete;
  MemoryBudget& operator=(const MemoryBudget&) = delete;

  // `told` is called by a thread that is about to wait because nothing can be evicted: it starts to
  // write dirty blocks out. No mutex is held.
  void OnShort(std::function<void()> told) { on_short_ = std::move(told); }

  //   Ends in  std::bad_alloc
  void Add(Source& source);
  // The source has got blocks, the oldest of which was used at `stamp`.
  void Lower(Source& source, std::uint64_t stamp);
  // Returns when the source is not being evicted from.
  void Remove(Source& source);

  std::uint64_t limit() const { return limit_; }
  std::uint64_t used() const { return used_.load(std::memory_order_relaxed); }
  std::uint64_t peak() const { return peak_.load(std::memory_order_relaxed); }

  // Grows by kTicks with every reservation, which leaves room for an order of uses in between.
  static constexpr std::uint64_t kTicks = 1u << 20;
  std::uint64_t Stamp() const { return stamp_.load(std::memory_order_relaxed) * kTicks; }

  void Release(std::uint64_t bytes);

  // A block has become one that can be evicted.
  void Changed() {
    if (waiting_.load() > 0) Wake();
  }

 private:
  struct Waiting {
    Waiting* next = nullptr;
  };

  bool TryTake(std::uint64_t bytes);
  int Take(std::uint64_t bytes);
  bool EvictFor(std::uint64_t bytes, std::uint64_t* changes);
  void NotePeak(std::uint64_t used);
  void Wake();

  const std::uint64_t limit_;
  Clock& clock_;
  std::function<void()> on_short_;
  std::atomic<std::uint64_t> used_{0};
  std::atomic<std::uint64_t> peak_{0};
  std::atomic<std::uint64_t> stamp_{1};
  std::atomic<unsigned> waiting_{0};  // sequentially consistent with used_: see Release

  Mutex mutex_;
  Condition changed_;
  std::uint64_t changes_ VESK_GUARDED_BY(mutex_) = 0;
  Waiting* first_ VESK_GUARDED_BY(mutex_) = nullptr;
  std::set<std::pair<std::uint64_t, Source*>> by_age_ VESK_GUARDED_BY(mutex_);
};

}  // namespace vesk

#endif  // FILES_MEMORY_BUDGET_H_

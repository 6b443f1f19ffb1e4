// How far ahead of its readers a handle fetches.

#ifndef FILES_READ_AHEAD_H_
#define FILES_READ_AHEAD_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "files/options.h"
#include "runtime/clock.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// Bytes [from, to) of a file.
struct FetchWindow {
  std::uint64_t from = 0;
  std::uint64_t to = 0;

  bool Empty() const { return from >= to; }
};

// Recognises the sequential readers of one handle and says what to fetch before they ask for it. It
// decides only: it neither reads nor looks at a clock.
//
// A small table holds the latest readers as runs; the least recently used makes room for a new one.
//   (free)       -> unconfirmed   a miss where no run is; nothing is fetched ahead
//   (free)       -> confirmed     the handle's first read, at offset 0; with kSequential any miss
//   unconfirmed  -> confirmed     two further reads continue it; twice its length is fetched
//   confirmed    -> unconfirmed   skips again and again, and its window is one block
// A confirmed run has a window: bytes that are kept fetched beyond the block being read, on the
// grid of blocks that begins at offset 0. It doubles with each refill, until the reader's own speed
// has been seen for as long as the store takes for a fetch; from then on it is twice what the
// reader consumes in that time.
//   Units    bytes; offsets in the file
//   Threads  any; no call allocates, waits, or calls anything else
class ReadAhead {
 public:
  //   Before   block_size at least 1; max_blocks 0: switched off, whatever the advice
  ReadAhead(unsigned block_size, unsigned max_blocks);

  // Whether OnRead has to hear of this read although it is a hit. Takes no lock; about once per
  // block of a sequential reader.
  bool Due(std::uint64_t offset, std::uint64_t length) const {
    if (length == 0) return false;
    const std::uint64_t last = offset + (length - 1) < offset ? kMax : offset + (length - 1);
    for (const Trigger& trigger : triggers_) {
      if (last >= trigger.from.load(std::memory_order_relaxed) &&
          offset < trigger.to.load(std::memory_order_relaxed)) {
        return true;
      }
    }
    return false;
  }

  // Hears of a read: of every miss, before it is fetched, and of a hit that is Due. Returns what to
  // fetch besides; a window that begins at or before `offset` takes in the read itself.
  //   Units    size of the file: nothing at or beyond it is asked for; latency of one fetch from
  //            the store, 0 while it is not known
  //   After    no byte is returned twice for a run, unless the run has missed there
  FetchWindow OnRead(std::uint64_t offset, std::uint64_t length, bool missed, std::uint64_t size,
                     Clock::Time now, Clock::Duration latency);

  // Memory was short: halves the windows, down to one block. They grow again.
  void Shrink();

  // kNormal, kSequential or kRandom; others are about ranges of the file and change nothing here.
  void Advise(Advice advice);

  // The largest window.
  std::uint64_t window() const { return window_.load(std::memory_order_relaxed); }

 private:
  static constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
  static constexpr std::size_t kRuns = 4;

  // A hit that ends at or behind `from` and begins before `to` is due.
  struct Trigger {
    std::atomic<std::uint64_t> from{kMax};
    std::atomic<std::uint64_t> to{0};
  };

  // What OnRead was told, clipped to the size.
  struct Read {
    std::uint64_t offset, end, length;
    bool missed;
    std::uint64_t size;
    Clock::Time now;
    Clock::Duration latency;

    std::uint64_t last() const { return end - 1; }
  };

  enum class State { kFree, kUnconfirmed, kConfirmed };

  struct Run {
    State state = State::kFree;
    std::uint64_t used = 0;    // when, in calls
    std::uint64_t length = 0;  // of the latest read
    std::uint64_t end = 0;     // unconfirmed: of the furthest read; confirmed: of the latest known

    // Of an unconfirmed run.
    std::uint64_t begin = 0;
    std::uint64_t read = 0;  // bytes, those read again counted again
    unsigned follows = 0;    // reads that continued it

    // Of a confirmed run.
    std::uint64_t block = 0;      // where the furthest block being read begins
    std::uint64_t window = 0;     // a number of blocks
    std::uint64_t ahead_end = 0;  // end of what has been asked for
    bool skipped = false;         // the latest read left a gap and may be anywhere

    // The reader's speed: bytes per second, and the measurement under way.
    double speed = 0;  // 0: not measured yet
    bool timing = false;
    Clock::Time since{};
    std::uint64_t since_block = 0;
  };

  std::uint64_t BlockOf(std::uint64_t offset) const { return offset - offset % block_size_; }
  std::uint64_t RoundUp(std::uint64_t bytes) const;
  std::uint64_t Limit() const VESK_REQUIRES(mutex_);
  std::uint64_t Clamp(std::uint64_t window) const VESK_REQUIRES(mutex_);
  std::uint64_t FirstWindow() const VESK_REQUIRES(mutex_);
  std::uint64_t Halved(std::uint64_t window) const;
  std::uint64_t Step(std::uint64_t window) const;

  std::uint64_t BlockEnd(const Run& run) const;
  std::uint64_t RefillAt(const Run& run) const;
  std::uint64_t Expected(const Run& run) const;
  std::uint64_t ReachOf(const Run& run, std::uint64_t length) const;
  std::uint64_t Distance(const Run& run, const Read& read) const;
  bool IsBehind(const Run& run, const Read& read) const;

  Run* Nearest(const Read& read) VESK_REQUIRES(mutex_);
  FetchWindow Decide(const Read& read) VESK_REQUIRES(mutex_);
  FetchWindow Begin(const Read& read) VESK_REQUIRES(mutex_);
  FetchWindow Continue(Run& run, const Read& read) VESK_REQUIRES(mutex_);
  FetchWindow Confirm(Run& run, const Read& read, std::uint64_t window, std::uint64_t from)
      VESK_REQUIRES(mutex_);
  FetchWindow Follow(Run& run, const Read& read) VESK_REQUIRES(mutex_);
  void Distrust(Run& run, const Read& read) VESK_REQUIRES(mutex_);
  void Adapt(Run& run, const Read& read) VESK_REQUIRES(mutex_);
  void Measure(Run& run, const Read& read) VESK_REQUIRES(mutex_);
  FetchWindow Refill(Run& run, std::uint64_t size) const;
  void Publish() VESK_REQUIRES(mutex_);

  const std::uint64_t block_size_;
  const unsigned max_blocks_;

  std::array<Trigger, kRuns> triggers_;  // of runs_, for Due
  std::atomic<std::uint64_t> window_{0};

  mutable Mutex mutex_;  // a leaf
  Advice advice_ VESK_GUARDED_BY(mutex_) = Advice::kNormal;
  bool first_ VESK_GUARDED_BY(mutex_) = true;  // nothing has been read yet
  std::uint64_t calls_ VESK_GUARDED_BY(mutex_) = 0;
  std::array<Run, kRuns> runs_ VESK_GUARDED_BY(mutex_);
};

}  // namespace vesk

#endif  // FILES_READ_AHEAD_H_

// One part of a file: the stream that caches it, and the lock of that stream.

#ifndef FILES_RANGE_H_
#define FILES_RANGE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "files/dirty_limit.h"
#include "files/memory_budget.h"
#include "files/write_failures.h"
#include "runtime/clock.h"
#include "runtime/services.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"

namespace vesk {

// Offsets that requests wait for: a block that covers one of them is not evicted, so a request that
// has fetched its block finds it when it comes back.
//   Threads  any; a leaf
class Wants {
 public:
  class Want {
   public:
    Want(Wants& wants, std::uint64_t offset);
    ~Want();
    Want(const Want&) = delete;
    Want& operator=(const Want&) = delete;

   private:
    friend class Wants;
    Wants& wants_;
    const std::uint64_t offset_;
    Want* next_;
  };

  bool AnyIn(std::uint64_t begin, std::uint64_t end) const;

 private:
  mutable Mutex mutex_;
  Want* first_ VESK_GUARDED_BY(mutex_) = nullptr;
};

// Bytes that a file may have: offsets are signed in the store, and in a stream.
constexpr std::uint64_t kMaxFileSize = std::numeric_limits<std::int64_t>::max();

// The largest power of two that is not above `value`, as an exponent; 0 for 0.
inline unsigned int Log2(std::uint64_t value) {
  unsigned int bits = 0;
  while (value > 1) {
    value /= 2;
    ++bits;
  }
  return bits;
}

// At least `least` from now on.
inline void Raise(std::atomic<std::uint64_t>* value, std::uint64_t least) {
  std::uint64_t old = value->load();
  while (old < least && !value->compare_exchange_weak(old, least)) {
  }
}

// What the ranges of a file have in common.
//   Units    bytes
struct FileCore {
  FileCore(const Services& file_services, MemoryBudget& file_memory, DirtyLimit& file_dirty,
           unsigned int file_block_size)
      : services(file_services),
        memory(file_memory),
        dirty_limit(file_dirty),
        block_size(file_block_size),
        block_shift(Log2(file_block_size)) {}

  const Services services;
  MemoryBudget& memory;
  DirtyLimit& dirty_limit;
  const unsigned int block_size;   // not above the memory
  const unsigned int block_shift;  // block_size is about 1 << block_shift

  std::atomic<std::uint64_t> size{0};         // of the file as its users see it
  std::atomic<std::uint64_t> stored_size{0};  // that the store's file has at least
  std::atomic<bool> broken{false};            // a check failed: no stream is used any more
  std::atomic<bool> suspicious{false};        // the store's file seems shorter than it was
  std::atomic<std::uint64_t> own_writes{0};   // write-backs that have ended, well or not

  WriteFailures failures;
  Wants wants;

  std::atomic<std::uint64_t> cached{0};  // sums over the ranges
  std::atomic<std::uint64_t> dirty{0};
  std::atomic<std::uint64_t> in_flight{0};
  std::atomic<std::uint64_t> written{0};  // dirty bytes on their way
  std::atomic<std::uint64_t> fetched{0};
  std::atomic<Clock::Duration::rep> latency{0};  // of a fetch, averaged; 0: none has ended
};

// Jobs that somebody waits for.
//   Owns     a reference to each
class JobList {
 public:
  JobList() = default;
  ~JobList();
  JobList(const JobList&) = delete;
  JobList& operator=(const JobList&) = delete;

  void Add(VeskJob* job);
  const std::vector<VeskJob*>& jobs() const { return jobs_; }

 private:
  std::vector<VeskJob*> jobs_;
};

class Range;

// Who owns the ranges.
class RangeOwner {
 public:
  // The range has begun, or ceased, to have dirty blocks or jobs.
  //   Threads  any, with the range's lock held
  virtual void SetActive(Range& range, bool active) = 0;

  // The range may have no blocks any more.
  //   Threads  any, with no lock held
  virtual void Retire(Range& range) = 0;

 protected:
  ~RangeOwner() = default;
};

// The blocks of [begin, end), and every rule by which they are kept whole:
//  - they do not overlap, and each has data or a job: what came back short is filled with the zeros
//    of a gap, or cut; what came back failed is taken out, or dirty again;
//  - memory and dirty bytes are accounted before the lock is given up;
//  - which block goes is the budget's choice: the stream's own rule for that never applies.
//   Units    bytes; offsets in the file
//   Threads  any, under `lock` where that is said. A range that is not in use covers nothing
class Range final : public MemoryBudget::Source {
 public:
  // Bytes that blocks for single small requests are made of.
  static constexpr std::uint64_t kPage = 4096;

  // Blocks above which a range is divided: requests walk over all that lie before theirs.
  static constexpr std::size_t kMaxBlocks = 16;

  Range(FileCore& core, RangeOwner& owner);

  // The stream stays in memory when it cannot be destroyed.
  //   Before   LeaveBudget was called for every range of the file
  ~Range();

  // Returns when nothing is being evicted; nothing is any more.
  void LeaveBudget() { core_.memory.Remove(*this); }
  Range(const Range&) = delete;
  Range& operator=(const Range&) = delete;

  VeskLock lock;

  // Boundaries change under the owner's mutex: `begin` with the lock held too, `end` may grow
  // without it.
  std::uint64_t begin() const { return begin_.load(std::memory_order_acquire); }
  std::uint64_t end() const { return end_.load(std::memory_order_acquire); }
  // The end first: it is set last when a range is taken into use.
  bool Covers(std::uint64_t offset) const { return offset < end() && begin() <= offset; }
  void SetEnd(std::uint64_t end) { end_.store(end, std::memory_order_release); }

  // Takes a range into use: it covers what it says from the moment that SetBounds is called.
  //   Before   it is not in use: nobody touches it, whatever they have locked
  void Open(const std::string& name);
  void SetBounds(std::uint64_t begin, std::uint64_t end);

  // Hands the blocks from `at` on to `upper`, which is not in use.
  struct Divided {
    std::uint64_t at = 0;       // or above; 0: refused, as within a block, or nothing would be left
    bool upper_active = false;  // SetActive is not called for either
    bool ceased = false;        // the lower one was active and is no more
    std::uint64_t oldest = 0;   // stamp of the oldest block that has moved
  };
  Divided DivideInto(Range& upper, std::uint64_t at) VESK_REQUIRES(lock);

  // A place to divide a range of too many blocks at; 0: there is none, or no need.
  std::uint64_t Middle() const VESK_REQUIRES(lock);

  // Where to divide before a block is added behind the last one; 0: there is room, or it would not
  // be the last.
  std::uint64_t FullBefore(std::uint64_t offset) const VESK_REQUIRES(lock);

  // Covers nothing from now on. False: blocks or reads are left.
  bool Close() VESK_REQUIRES(lock);

  // Collects every finished job.
  void Collect() VESK_REQUIRES(lock);

  // The block that stands for the byte at `offset`; null: none.
  VeskBuffer* At(std::uint64_t offset) const VESK_REQUIRES(lock);

  // The job that the byte has to wait for; null: none.
  VeskJob* JobAt(std::uint64_t offset, bool is_write) const VESK_REQUIRES(lock);

  // True: the block at `offset` is older than the setting refresh-interval.
  bool IsAged(std::uint64_t offset) const VESK_REQUIRES(lock);
  // No block is older than that any more.
  void Renew() VESK_REQUIRES(lock);

  // The whole of a read, when one block holds all of it and nothing else has to be done; the
  // shortest way through. `now` as WallSeconds().
  bool Hit(unsigned char* destination, std::uint64_t offset, unsigned int length, unsigned int now,
           int refresh_interval) VESK_REQUIRES(lock);

  // Copies what is there from `offset` on; 0: the first byte is not, or was dropped for its age.
  unsigned int Read(unsigned char* destination, std::uint64_t offset, unsigned int length)
      VESK_REQUIRES(lock);

  // Where the bytes that are missing at `offset` begin: there or before, not before `from`.
  std::uint64_t GapStart(std::uint64_t offset, std::uint64_t from) const VESK_REQUIRES(lock);

  // Memory for the first block that Fetch would make; 0: the byte is there or on its way.
  std::uint64_t NeedForFetch(std::uint64_t from, std::uint64_t to) const VESK_REQUIRES(lock);

  // Starts a read of every byte of [from, to) that is not there, as far as `memory` goes. Returns
  // where it stopped: at `to`, the end of the range, short of memory, or because the range is full;
  // one block it has always room for.
  std::uint64_t Fetch(std::uint64_t from, std::uint64_t to, MemoryBudget::Reservation& memory)
      VESK_REQUIRES(lock);

  // What a write of [offset, offset + length), or of the first part of it, needs beforehand.
  struct WriteNeed {
    std::uint64_t memory = 0;
    std::uint64_t dirty = 0;
  };
  WriteNeed NeedForWrite(std::uint64_t offset, unsigned int length) const VESK_REQUIRES(lock);

  // Copies up to `length` bytes into the blocks; 0: the request is to be issued again.
  //   Before   memory and room as NeedForWrite says
  unsigned int Write(const unsigned char* source, std::uint64_t offset, unsigned int length,
                     MemoryBudget::Reservation& memory, DirtyLimit::Room& room) VESK_REQUIRES(lock);

  // Starts the write-back of dirty blocks that became so before `before`. Not `asked_for`: but for
  // those whose last try has just failed.
  void StartWrites(Clock::Time before, bool asked_for) VESK_REQUIRES(lock);

  // Adds the jobs in flight, of writes or of both kinds.
  void ListJobs(bool reads, JobList* jobs) const VESK_REQUIRES(lock);

  // Drops the idle clean blocks within [from, to) that nobody waits for.
  void Drop(std::uint64_t from, std::uint64_t to) VESK_REQUIRES(lock);

  // Drops everything clean: what is read afterwards is fetched anew.
  void Forget() VESK_REQUIRES(lock);

  // Gives up the dirty blocks; those in flight if their write fails.
  void Discard() VESK_REQUIRES(lock);

  // The file is out of service: what its blocks take counts no more.
  void LeaveAccounts() VESK_REQUIRES(lock);

  // The file ends at `size` now.
  //   Before   nothing is dirty or in flight
  void Truncate(std::uint64_t size) VESK_REQUIRES(lock);

  void Rename(const std::string& name) VESK_REQUIRES(lock);

  // When the oldest dirty block became so; Clock::kNever: none is.
  Clock::Time OldestDirty() const VESK_REQUIRES(lock);
  // End of the last byte that is not in the store yet; 0: there is none.
  std::uint64_t DirtyEnd() const VESK_REQUIRES(lock);

  // For the owner, guarded by its mutex: this range's entry of a map, while it is not in there.
  std::map<std::uint64_t, Range*>::node_type entry;

  struct Counts {
    std::uint64_t hits = 0;
    std::uint64_t misses = 0;
    std::uint64_t returned = 0;
  };
  Counts counts VESK_GUARDED_BY(lock);

  Left Evict(std::uint64_t bytes, std::uint64_t newest) override;

 private:
  friend class Inspector;  // as Node's

  // What the file knows of a block beside what the block knows itself.
  struct Use {
    VeskBuffer* block;
    std::uint64_t off;          // the block's, here so that a search stays in one piece of memory
    std::uint64_t stamp;        // of its last use
    Clock::Time since;          // its fetch began; or it became dirty
    Clock::Time rests_until{};  // after a write that failed
    std::uint64_t stored = 0;   // that the store's file had at least when the fetch began
    bool dropped = false;  // a read in flight that nobody is to see; a write given up if it fails
  };

  struct Sums {
    std::uint64_t cached = 0;
    std::uint64_t dirty = 0;
    std::uint64_t in_flight = 0;
    std::uint64_t written = 0;

    bool IsActive() const { return dirty > 0 || in_flight > 0; }
  };

  template <typename Work>
  void Guarded(const Work& work) VESK_REQUIRES(lock);
  void Break() VESK_REQUIRES(lock);

  std::size_t IndexAt(std::uint64_t offset) const VESK_REQUIRES(lock);
  Use* UseAt(std::uint64_t offset) VESK_REQUIRES(lock);
  std::uint64_t PieceEnd(std::size_t index, std::uint64_t from, std::uint64_t to) const
      VESK_REQUIRES(lock);
  bool CanWriteInto(const VeskBuffer& block, std::uint64_t offset) const;

  int Reap(VeskBuffer& block) VESK_REQUIRES(lock);
  bool TakeFetched(Use& use, int error) VESK_REQUIRES(lock);
  bool TakeWritten(Use& use, int error) VESK_REQUIRES(lock);
  void FillGap(const Use& use) VESK_REQUIRES(lock);
  void NoteLatency(Clock::Duration latency);

  std::uint64_t NextStamp() VESK_REQUIRES(lock);
  std::size_t OldestIdle() const VESK_REQUIRES(lock);
  void Erase(std::size_t index) VESK_REQUIRES(lock);
  template <typename Predicate>
  void EraseIf(const Predicate& predicate) VESK_REQUIRES(lock);
  void Recover() VESK_REQUIRES(lock);
  void SyncUses() VESK_REQUIRES(lock);
  Sums SumUp() const VESK_REQUIRES(lock);
  void Account() VESK_REQUIRES(lock);
  void Account(MemoryBudget::Reservation& memory, DirtyLimit::Room& room) VESK_REQUIRES(lock);
  std::unique_ptr<VeskStream> NewStream(const std::string& name) const;
  static void Prepare(Range& upper, std::size_t blocks);
  void HandOver(Range& upper, std::unique_ptr<VeskStream> stream, std::size_t index)
      VESK_REQUIRES(lock);
  Divided Summary(const Range& upper, std::uint64_t at, bool was_active) const VESK_REQUIRES(lock);

  FileCore& core_;
  RangeOwner& owner_;
  std::atomic<std::uint64_t> begin_{0};
  std::atomic<std::uint64_t> end_{0};
  std::unique_ptr<VeskStream> stream_ VESK_GUARDED_BY(lock);
  std::vector<Use> uses_ VESK_GUARDED_BY(lock);    // in the order of the stream's blocks
  Sums sums_ VESK_GUARDED_BY(lock);                // as accounted
  std::uint64_t stamp_ VESK_GUARDED_BY(lock) = 0;  // the last one given to a block here
};

}  // namespace vesk

#endif  // FILES_RANGE_H_

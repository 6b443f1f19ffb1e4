// An open file behind all its handles.

#ifndef FILES_NODE_H_
#define FILES_NODE_H_

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "files/options.h"
#include "files/range.h"
#include "files/read_ahead.h"
#include "files/turn.h"
#include "runtime/name_operation.h"
#include "runtime/reaper.h"

namespace vesk {

class Store;

// How a request ended. A write-back is a failure that somebody else's bytes may have met.
struct Outcome {
  int error = 0;
  bool write_back = false;
};

// The one set of bytes of a file. It is divided into ranges that follow each other without a gap,
// from 0 to the largest offset; each has a stream, with a lock of its own. A request works on one
// range at a time: it finds the range without a lock, takes the range's, looks whether the range
// still covers the offset, and goes on from there piece by piece.
//
// Lock order: a range's, one at a time; then `mutex_`, the budget's or another leaf.
//   Units    bytes; offsets in the file
//   Threads  any
class Node final : private CachedFile, private RangeOwner {
 public:
  // `meanwhile` as for Turn.
  Node(const Services& services, Store& store, MemoryBudget& memory, DirtyLimit& dirty,
       const FileSystemOptions& options, const std::string& name, const FileInfo& info,
       std::function<void()> meanwhile);

  //   Before   no request is inside
  ~Node();

  // ---- requests; each ends within the calling thread's limits ----

  Outcome ReadAt(ReadAhead& ahead, unsigned char* destination, std::size_t length,
                 std::uint64_t offset, std::size_t* moved);
  Outcome WriteAt(const unsigned char* source, std::size_t length, std::uint64_t offset,
                  std::size_t* moved);
  Outcome Append(const unsigned char* source, std::size_t length, std::uint64_t* offset,
                 std::size_t* moved);
  Outcome Truncate(std::uint64_t size);

  // Returns when every byte written before has reached the store; at once when a write-back fails
  // that `seen` has not been told of.
  Outcome Drain(WriteFailures::Seen* seen);

  // Starts to write what is dirty, and tells of write-backs that have failed.
  Outcome Flush(WriteFailures::Seen* seen);

  // Drain, then has the store make it durable.
  Outcome Sync(WriteFailures::Seen* seen);

  // Starts to write what is dirty; waits for nothing.
  void StartWrites() { StartWrites(Clock::kNever, true); }
  // The same for what became so before `before`, but for what has just failed.
  void WriteOut(Clock::Time before) { StartWrites(before, false); }

  void FetchAhead(std::uint64_t from, std::uint64_t to, ReadAhead* ahead);
  void DropClean(std::uint64_t from, std::uint64_t to);

  // Gives up every byte that has not reached the store.
  void Discard();

  // While one lives, no other request uses the streams. When the outcome is a success:
  //   kAsItIs   no more than that
  //   kDrained  everything is in the store, nothing is in flight
  //   kStopped  nothing is in flight, and nothing sets out: what was not stored is dirty
  class Quiet {
   public:
    enum class What { kAsItIs, kDrained, kStopped };
    Quiet(Node& node, What what);
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

    const Outcome& outcome() const { return outcome_; }

   private:
    explicit Quiet(Node& node);

    Node& node_;
    Turn::Holder turn_;
    Outcome outcome_;
  };

  // The file has another name now.
  //   Before   the calling thread holds a Quiet
  void SetName(const std::string& name);

  // While one lives the file's name may be another file's.
  //   Before   the calling thread holds a Quiet
  class Renaming {
   public:
    explicit Renaming(Node& node) : node_(node) { ++node_.renamings_; }
    ~Renaming() { ++node_.renamings_; }
    Renaming(const Renaming&) = delete;
    Renaming& operator=(const Renaming&) = delete;

   private:
    Node& node_;
  };

  // No name leads to it any more.
  //   Before   the calling thread holds a Quiet
  void SetRemoved();

  // The next request looks at the store's file before it believes what is cached.
  void Doubt() { core_.suspicious = true; }

  // Every later request ends in EIO, and what is dirty is lost.
  //   Before   nothing is in flight
  void TakeOutOfService() { core_.broken = true; }

  // ---- what is known ----

  std::string name() const;
  std::uint64_t size() const { return core_.size; }
  bool broken() const { return core_.broken; }
  bool removed() const { return removed_; }
  bool written() const { return core_.own_writes > 0; }
  bool idle() const { return core_.dirty == 0 && core_.in_flight == 0 && !resizing_; }
  std::uint64_t dirty() const { return core_.dirty; }
  std::uint64_t in_flight() const { return core_.in_flight; }
  WriteFailures& failures() { return core_.failures; }
  FileStats GetStats() const;

  // Of the table of open files, under its mutex.
  unsigned handles = 0;
  std::set<std::string> names;
  dev_t device;
  ino_t inode;
  bool Is(const FileInfo& info) const {
    return info.inode != 0 && inode == info.inode && device == info.device;
  }

 private:
  friend class Inspector;  // a simulation looks at what is inside

  // A request, from its call to its end.
  struct Request {
    Request(FileCore& file_core, Turn& file_turn)
        : core(file_core), memory(core.memory), room(core.dirty_limit), turn(file_turn) {}
    ~Request() { LetGo(); }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // Before it waits for anything but a job: whoever it waits for may need what it holds.
    void LetGo() {
      memory.Reset();
      room.Reset();
      if (!want.has_value()) return;
      want.reset();
      core.memory.Changed();  // its block can be evicted now
    }

    FileCore& core;

    MemoryBudget::Reservation memory;
    DirtyLimit::Room room;
    std::optional<Wants::Want> want;
    std::uint64_t need_memory = 0;  // what it lacks for its next try
    std::uint64_t wish_memory = 0;  // what it could use besides; of a read
    std::uint64_t need_room = 0;    // of a write
    std::uint64_t rest_from = 0;    // bytes to fetch in other ranges
    std::uint64_t rest_to = 0;
    unsigned repeats = 0;
    Turn::Holder turn;
    const void* who = this;  // at the turn; another one: its caller has it
    bool waited = false;
    Outcome outcome;
  };

  // What a try under a range's lock came to.
  enum class Next { kDone, kRepeat, kPass, kGet, kFetchRest, kCheck };

  // One part of a request, which one range can serve.
  class Piece {
   public:
    virtual Next Try(Range& range, Request& request) VESK_REQUIRES(range.lock) = 0;

   protected:
    ~Piece() = default;
  };
  class ReadPiece;
  class WritePiece;

  void Reap() override;
  void WriteFails(const WriteFailure& failure) override;
  void SetActive(Range& range, bool active) override;
  void Retire(Range& range) override;

  int Refusal() const {
    if (core_.broken) return EIO;
    if (removed_ || freshness_ == Freshness::kGone) return ESTALE;
    return 0;
  }
  Outcome Serve(std::uint64_t offset, Piece& piece, Request& request);
  Next TryIn(std::uint64_t offset, Piece& piece, Request& request);
  int Prepare(Next next, Request& request);
  unsigned Repeat(Request& request);
  int Await(Range& range, VeskJob* job, const char* tag, Request& request)
      VESK_REQUIRES(range.lock);
  Outcome WriteAll(const unsigned char* source, std::size_t length, std::uint64_t offset,
                   std::size_t* moved, const void* who);

  FetchWindow Window(ReadAhead& ahead, std::uint64_t offset, std::uint64_t length, bool missed);
  Outcome ReadPieces(ReadAhead& ahead, unsigned char* destination, std::size_t length,
                     std::uint64_t offset, std::size_t* moved);
  bool Hit(unsigned char* destination, std::size_t length, std::uint64_t offset);
  void ReadOn(ReadAhead& ahead, std::uint64_t offset, std::uint64_t length);
  std::atomic<Range*>& Hint(std::uint64_t offset);
  Range& Find(std::uint64_t offset);
  Range& Seek(std::uint64_t offset);
  void Activate(Range& range) VESK_REQUIRES(mutex_);
  void LeaveBudget();
  void Divide(Range& range, std::uint64_t at) VESK_REQUIRES(range.lock);
  void DivideInTheMiddle(Range& range) VESK_REQUIRES(range.lock);
  bool DividedBefore(Range& range, std::uint64_t offset) VESK_REQUIRES(range.lock);
  Range* NewRange();
  std::vector<Range*> RangesFrom(std::uint64_t offset) const;
  std::vector<Range*> Ranges() const { return RangesFrom(0); }
  template <typename Work>
  void ForEach(const std::vector<Range*>& ranges, const Work& work) const;
  void Barrier(std::uint64_t from = 0);
  void StartWrites(Clock::Time before, bool asked_for);
  int StartAll(JobList* jobs);
  int SyncStore(const std::string& name);
  void TakeSyncs();
  int AwaitSyncs();
  void LeaveAccounts();
  void ListJobs(bool reads, JobList* jobs) const;
  void AwaitJobs(const JobList& jobs, std::uint64_t before);
  Outcome DrainAll();
  int StopAll();
  template <typename Work>
  int ByName(const Work& work);
  void Abandon();
  void GiveUpUnsaved();
  template <typename Work>
  void ForEachActive(const Work& work) const;
  bool FindActive(std::uint64_t from, std::uint64_t* begin, Range** range) const;

  // A request begins: the store's file is looked at when that was last done longer ago than the
  // setting refresh-interval. While somebody asks, others are served what is there.
  bool IsCheckDue(unsigned now, int interval) const {
    if (core_.suspicious.load(std::memory_order_relaxed)) return true;
    const Freshness freshness = freshness_.load(std::memory_order_relaxed);
    const bool fails = options_.when_unknown == UnknownPolicy::kFail;
    if (freshness == Freshness::kGone || (freshness == Freshness::kUnknown && fails)) return true;
    const long checked_at = checked_at_.load(std::memory_order_relaxed);
    const bool aged = interval != 0 && static_cast<long>(now) - checked_at > interval;
    return aged && (fails || !asking_);
  }
  int CheckIfDue();
  int Resize(std::uint64_t size);
  int AwaitResize();
  int Clear(Request& request);
  int CheckFreshness();
  void Look();
  // While bytes of ours are on their way (not `quiet`), size and time say nothing about others.
  struct Sight {
    FileInfo info;
    bool quiet = false;
    bool hasty = false;        // no answer, for want of the request's time: says nothing
    std::uint64_t writes = 0;  // FileCore::own_writes before
  };
  int See(Sight* sight, bool alone);
  Clock::Time HalfOfTheRest(Clock::Time now) const;
  void Learn(int error, Sight& sight, bool was_suspicious);
  bool IsChanged(const Sight& sight) const;
  bool Forget(Sight* sight);
  void RenewAll();

  const Services services_;
  Store& store_;
  const FileSystemOptions& options_;
  FileCore core_;
  Turn turn_;

  std::atomic<bool> removed_{false};
  std::atomic<bool> resizing_{false};        // as resize_
  std::atomic<bool> stopped_{false};         // no write sets out
  std::atomic<bool> put_off_{false};         // one should have, meanwhile
  std::atomic<std::uint64_t> renamings_{0};  // begun and ended; odd: one is under way
  std::atomic<std::uint64_t> turns_{0};
  std::atomic<std::uint64_t> repeats_{0};

  std::atomic<unsigned> checked_at_;  // WallSeconds()
  std::atomic<bool> asking_{false};   // as checking_, but not while the file is suspicious
  std::atomic<Freshness> freshness_{Freshness::kKnown};

  mutable Mutex mutex_;  // a leaf
  std::string name_ VESK_GUARDED_BY(mutex_);
  std::map<std::uint64_t, Range*> ranges_ VESK_GUARDED_BY(mutex_);  // by begin
  std::vector<Range*> spare_ VESK_GUARDED_BY(mutex_);
  std::map<std::uint64_t, Range*> active_
      VESK_GUARDED_BY(mutex_);  // those with dirty blocks or jobs
  Range::Counts retired_ VESK_GUARDED_BY(mutex_);
  Condition checked_;
  bool checking_ VESK_GUARDED_BY(mutex_) = false;
  bool abandoned_ VESK_GUARDED_BY(mutex_) = false;
  VeskJob* resize_ VESK_GUARDED_BY(mutex_) = nullptr;  // that outlasts its request; one reference
  std::list<VeskJob*> syncs_ VESK_GUARDED_BY(mutex_);  // on their way; likewise
  FileInfo known_ VESK_GUARDED_BY(mutex_);             // of the store's file, when last looked at
  std::uint64_t known_writes_ VESK_GUARDED_BY(mutex_) = 0;  // own_writes at that time

  // Where a range was last found, by offset; it is looked at again under the range's lock.
  std::array<std::atomic<Range*>, 256> hints_{};
  std::vector<std::unique_ptr<Range>> all_ VESK_GUARDED_BY(mutex_);  // last: destroyed first
};

}  // namespace vesk

#endif  // FILES_NODE_H_

// One world around the streams of one file, with everything that a step can do to it and a check of
// all that must hold after each step.
//
// Single-threaded: other threads are steps that are taken inside a wait. Jobs end when a step says
// so; what they did to the store is applied there and then. The bytes of the file are known: a read
// is compared with them, and so is the store when everything has been written back.
//
// Two callers take turns, `Settings::careful`:
//   careful   takes the end of each job before the cache does: a block whose read failed, or got
//             nothing, is deleted, a short one is cut, one whose write failed is dirty again, and
//             no end-of-file mark stays. Nothing may ever be lost, overlap, or be out of date.
//   plain     leaves all of this to the cache. The rules then allow what `Overlaps` and `Model`
//   name.

#ifndef TESTS_EXHAUSTIVE_DRIVER_H_
#define TESTS_EXHAUSTIVE_DRIVER_H_

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/exhaustive/steps.h"
#include "tests/support/allocation.h"
#include "tests/support/dispatcher.h"
#include "tests/support/keeping_logger.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskStream.h"

namespace vesk_test {

// Failures beside those that steps ask for, counted from 1 over a run; 0 is none.
struct Faults {
  long allocation = 0;
  bool later_allocations = false;  // those after it fail too
  long job = 0;
  bool later_jobs = false;
};

struct LogLine {
  const char* level;  // "Debug", "Trace", "Dump" or "Error"
  int site;
  std::string text;
};

enum class Op {
  kRead,
  kWrite,
  kReadAhead,
  kFlush,
  kDirty,
  kShrink,
  kTruncate,
  kSplit,
  kAllocate,
  kBlockWrite,
  kBlockRead,
  kRemoveEof,
  kLength,
  kDump,
  kReap
};

// One call of the cache, with all of its arguments that mean something for `op`.
struct Call {
  Op op = Op::kRead;
  std::size_t stream = 0;              // its number
  unsigned long off = 0, max_off = 0;  // new length of kTruncate, offset of kSplit
  unsigned int len = 0;
  unsigned int alloc_size = 0, maxbufs = 0, maxpending = 0;
  bool flags[4] = {};                // kFlush in its order; kWrite: mode; kDirty: ignore
  bool eof = false;                  // of a read: known beforehand
  std::size_t block = 0;             // its place in the list; kAllocate: the place before it
  std::size_t other = 0;             // kSplit: number of the stream that receives
  std::vector<unsigned char> bytes;  // written
};

struct Result {
  int code = 0;  // thrown; 0 for none
  unsigned long value = 0;
  bool eof = false;
  std::vector<unsigned char> bytes;  // read: the whole buffer
};

std::string ToText(const Call& call);

// What happened around the cache, in order: enough to do the same to something else.
struct Event {
  enum What { kCall, kReturned, kWait, kWaited, kEnded, kClock, kNoMemory, kMemory } what = kCall;
  Call call;                         // kCall
  Result result;                     // kReturned
  std::string tag;                   // kWait
  std::size_t flight = 0;            // kWait, kWaited, kEnded: the job, in the order of submission
  int return_value = 0;              // kEnded
  unsigned int count = 0;            // kEnded, a read
  std::vector<unsigned char> bytes;  // kEnded, a read: what was put into the data area
  long now = 0;                      // kClock
  bool for_job = false;              // kNoMemory
};

// A job that was submitted.
struct Flight {
  vesk::VeskJob* job;
  bool is_write;
  unsigned long off;
  unsigned int length;
  unsigned int flags;
  unsigned char* area;
  std::vector<unsigned char> sent;  // by a write
  std::size_t lines_before;         // that were logged when it was submitted
  bool ended = false;
  bool failed = false;   // with a value that the cache throws
  bool awaited = false;  // by whoever submitted it: nobody is told of it
  int waiting = 0;       // threads inside WaitForJob
};

// Counts what the checks need, and keeps the lines when it is told to.
class WorldLogger : public KeepingLogger {
 public:
  bool keeps_lines = false;
  std::vector<LogLine> lines;
  int block_errors = 0;      // jobs that failed, as the cache told of them
  int dirty_exceptions = 0;  // of them those that IsCacheDirty kept to itself
  int last_error_site = 0;
  std::string last_error;  // the message of the last failed check

 private:
  void Keep(const char* operation, const vesk::LogSite& site, const char* format,
            va_list arguments) override __attribute__((format(printf, 4, 0)));
};

//   Threads  one
//   Owns     streams, blocks left in them, and one reference to each job, until it is destroyed
class World {
 public:
  // One at a time: it sets the environment and the clock.
  explicit World(const Settings& settings, const Faults& faults = {});
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Nothing once the world is over. A step that means nothing now, or that the headers forbid as
  // things stand, does nothing.
  void Do(const Step& step);

  // Ends every job, writes everything back without a fault, and compares the store.
  void Settle();

  // The first rule that was broken, with its step; empty while all hold.
  const std::string& broken() const { return broken_; }

  // A check of the cache failed in a way that the rules allow: nothing more can be done here.
  bool over() const { return over_ || !broken_.empty(); }

  // Everything that what comes may depend on, without addresses.
  std::string Fingerprint() const;

  bool AllocationFailed() const { return failing_.Fired(); }
  bool JobFailed() const { return job_failed_; }

  // For whoever compares: all of it since the beginning.
  void Record();
  const std::vector<Event>& events() const { return events_; }
  const std::vector<LogLine>& lines() const { return logger_.lines; }
  const std::deque<Flight>& flights() const { return flights_; }
  const vesk::VeskStream& stream(std::size_t number) const { return *streams_[number]; }
  const Settings& settings() const { return settings_; }
  static constexpr std::size_t kStreams = 3;
  static constexpr unsigned char kUntouched = 0xEE;               // what a read does not write to
  static constexpr unsigned long kCookie = 0x1122334455667788UL;  // plus the offset of a request
  static const std::string& Name();

  // Each step in words, and what came of it, to standard error.
  bool tells = false;

 private:
  using Bytes = std::bitset<256>;

  // A part of the file and its stream; it ends where the next one begins.
  struct Part {
    std::size_t stream;
    unsigned long begin;
  };

  // What is known of a block that the stream does not say.
  struct Known {
    std::vector<const vesk::VeskBuffer*> made_inside;  // blocks into whose unused rest it was put
  };

  enum class How { kWell, kFailing, kEndOfFile, kShort, kEmpty };

  void Break(const std::string& what);

  // Steps
  void Take(const Step& step);
  void Read(const Step& step, bool all);
  void Write(const Step& step, bool all);
  void ReadAhead(const Step& step);
  void Flush(const Step& step);
  void Shrink(const Step& step);
  void Truncate(const Step& step);
  void Split(const Step& step);
  static bool IsHeldTogether(const vesk::VeskStream& stream, unsigned long splitoff);
  void Allocate(const Step& step);
  void EndOne(const Step& step);
  void MoveClock(const Step& step);
  void Reap(const Step& step);
  void TakeMemory(const Step& step);
  void GiveMemoryBack();

  // The cache
  Result Perform(const Call& call);
  unsigned long Carry(const Call& call, Result& result);
  void Expect(const Call& call, const Result& result);
  void ExpectFailedCheck(const Call& call, const std::string& message);
  void OnSubmit(vesk::VeskJob* job);
  bool IsFor(const vesk::VeskBuffer& block, const vesk::VeskJob& job) const;
  vesk::VeskBuffer* BlockOf(const vesk::VeskJob* job) const;
  void OnWait(vesk::VeskJob* job);

  // Jobs
  void End(Flight& flight, How how, unsigned int amount);
  void Note(Event event);
  void EndRead(Flight& flight, How how, unsigned int amount, Event& event);
  void EndWrite(Flight& flight, How how, unsigned int amount, Event& event);
  void EndAll();
  static How HowTo(std::uint8_t number);

  // The careful caller
  void Collect();
  void CollectFrom(vesk::VeskStream& stream);
  bool Keeps(vesk::VeskStream& stream, vesk::VeskBuffer& block);

  // What must hold
  void Check();
  void CheckBlock(const vesk::VeskBuffer& block);
  void CheckState(const vesk::VeskBuffer& block);
  void CheckStream(const vesk::VeskStream& stream);
  void CheckJobs();
  void CheckMarks();
  void CheckStore();
  void MeetNewBlocks();
  void CheckOverlaps();

  // What each byte of the file may be
  void Accepted(unsigned long off, const std::vector<unsigned char>& bytes, std::size_t count);
  void PerhapsAccepted(unsigned long off, const std::vector<unsigned char>& bytes);
  void MayBeZeroFrom(unsigned long off);
  bool IsKnownEnd(unsigned long off) const;
  void NoteMarksBefore(unsigned long off);
  void CheckRead(const Call& call, const Result& result);
  unsigned char StoredByte(std::size_t index) const;

  // Parts
  std::size_t PartAt(unsigned long off) const;
  unsigned long EndOf(std::size_t part) const;
  std::vector<vesk::VeskBuffer*> Blocks() const;  // of all parts, in order
  vesk::VeskStream& StreamOf(std::size_t part) { return *streams_[parts_[part].stream]; }
  unsigned long End() const { return base_ + settings_.span; }
  Call Request(Op op, unsigned long off, unsigned int len) const;
  std::size_t NumberOf(const vesk::VeskJob* job) const;
  void Forget(const void* memory);
  void Tell(const std::string& what) const;

  const Settings settings_;
  const Faults faults_;
  const unsigned long base_;

  // Before what allocates: only the cache's own allocations fail.
  FailingAllocation failing_;
  SparedAllocations spared_;
  bool inside_cache_ = false;
  AllocationWatch watch_;

  WorldLogger logger_;
  vesk::VeskSettings refresh_;
  std::shared_ptr<vesk::VeskThreadPool> pool_;
  vesk::VeskEnv env_{};
  ScriptedDispatcher dispatcher_;
  vesk::VeskLock lock_;
  std::unique_ptr<vesk::VeskStream> streams_[kStreams];
  std::vector<Part> parts_;
  std::deque<Flight> flights_;
  long jobs_ended_ = 0;
  bool job_failed_ = false;  // for a fault, not for a step
  bool store_repaired_ = false;
  std::map<const vesk::VeskStream*, unsigned int> pending_leaked_;  // reads that no job was had for

  std::vector<unsigned char> store_;
  std::vector<Bytes> allowed_;  // what a byte may be
  std::vector<Bytes> ever_;     // what it has been
  unsigned long zero_from_;     // an end of file was told of there, and no longer holds
  unsigned long content_end_;   // nothing was ever written there or beyond
  unsigned int writes_ = 0;
  std::map<const vesk::VeskBuffer*, Known> known_;

  unsigned int wait_how_ = 0;
  bool step_for_wait_ = false;  // the next step is for a wait
  std::deque<Step> in_wait_;
  int depth_ = 0;
  int codes_thrown_ = 0;  // of failed jobs
  std::size_t waits_in_call_ = 0;
  std::size_t first_flight_of_call_ = 0;
  std::size_t first_flight_of_step_ = 0;
  bool out_of_memory_in_step_ = false;
  bool memory_was_taken_ = false;

  bool over_ = false;
  std::string broken_;
  std::string doing_;
  bool records_ = false;
  std::vector<Event> events_;
};

struct Outcome {
  std::string broken;  // what did not hold; empty for a good run
  bool allocation_failed = false, job_failed = false;
  bool over = false;  // ended early by a failed check that the rules allow
};

// A whole run: the steps, the end of everything, and that nothing is left in memory.
Outcome RunCase(const Case& c, const Faults& faults = {}, bool tells = false);

}  // namespace vesk_test

#endif  // TESTS_EXHAUSTIVE_DRIVER_H_

// A second, plain statement of the cache's rules, to be compared with the cache itself: the same
// fields, the same operations, the same lines, but slow, single-threaded and without shortcuts.
//
// It shares no code with the cache and includes none of its headers, so that an error in one is not
// repeated by the other. What surrounds a cache (logger, dispatcher, thread pool, clock, allocator)
// is a `World`, whose answers the caller sets.
//
// Pointers never appear in texts: where the cache prints one, a token stands in its place:
//   <block 3>   <data 3> (the data area of block 3)   <job 7>   <stream 1>   (nil)
// The numbers are the public `id` fields. They count from 1 in the order of creation within one
// `World`; a comparer may set them to anything it can match with real addresses.
//
// Operations end in a return or in one of three exceptions: `Thrown` (what the cache throws),
// `ProcessEnds` (a destructor's assertion) and `Undefined` (the rules give no answer; a defect of
// the caller's state or arguments, never to be compared).
//
// A wait only ever ends in Thrown{1000}: nothing reads a block or a list after `wait_for_job`.
#ifndef VESK_TESTS_ORACLE_ORACLE_H_
#define VESK_TESTS_ORACLE_ORACLE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vesk_oracle {

struct Block;
struct Job;
class Stream;

// State bits of a block.
constexpr std::uint32_t INV = 1, DIRTY = 2, VALID = 4, IOR = 8, IOW = 16, END_OF_FILE = 32;

constexpr int kErrWait = 1000, kErrAssert = 1001, kRcEof = -2, kJobDone = 4;

// What the cache throws: kErrWait, kErrAssert, or a block's return code.
struct Thrown {
  int code;
};

// An assertion inside a destructor: its three lines are written, then the process is gone.
struct ProcessEnds {};

// The rules do not say what happens here: memory outside a data area, a null flag, a block or job
// that no longer exists.
class Undefined : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

enum class Level { kDebug, kTrace, kInfo, kDump, kError };

// One line handed to the logger.
struct Line {
  Level level;
  int site;  // the site's number where it is fixed, 0 where it is free
  std::string
      place;         // this model's name of the site: one name, one number, and the other way round
  std::string text;  // formatted, with tokens for pointers
};

// One call of a collaborator, apart from the logger's: "SubmitJob <job 1>", "WaitForJob <job 1>
// Read", "RefCountInc <job 1>", "RefCountDec <job 1>", "GetJobState <job 1>", "GetReturnValue
// <job 1>", "time", "mark NAME", "signal".
struct Call {
  std::size_t lines_before;  // lines written before it, in the whole life of the World
  std::string text;
};

// One transfer as it was handed to the dispatcher.
struct Submitted {
  Job* job;
  unsigned job_id, block_id;  // of the block whose data area (and, for a read, length) is passed
  unsigned owner_stream_id;   // 0: the job names no stream
  bool is_write;
  unsigned opcode, flags;  // 9 or 10; 0 or 8
  std::string name;
  std::uint64_t offset;
  std::uint64_t length;  // bytes asked for, or bytes to write
  std::string bytes;     // write: what the area held at submission, cut at its size; read: empty
};

// One transfer's job. The model reads `state` where the cache asks for it, and never writes it.
struct Job {
  unsigned id = 0;
  Block* block = nullptr;          // where a read stores bytes and count
  Stream* owner_stream = nullptr;  // reads only
  bool is_write = false;
  int state = 0;         // kJobDone: finished
  int return_value = 0;  // looked at only when finished
  int references = 1;    // 0: destroyed
};

// The order of the thread pool's marks: bytes as unsigned values over the shorter length, then the
// shorter name first.
struct NameOrder {
  bool operator()(const std::string& a, const std::string& b) const;
};

enum class Allocation { kBlock, kData, kOperation, kJob };

// Everything around the streams of one run. It owns every block and job ever made, destroyed ones
// too, so that a stale pointer is found out instead of followed.
//   Owns     blocks and jobs; borrows the two vectors
//   Threads  one
class World {
 public:
  World(std::vector<Line>* lines, std::vector<Submitted>* submitted)
      : lines_(lines), submitted_(submitted) {}
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // --- set by the caller, read afresh at each use ---
  std::int32_t refresh_interval = 0;      // seconds; 0: no age check, no read-ahead
  bool has_thread_pool = true;            // false: the environment's pointer is null
  unsigned char fresh_byte = 0;           // what a new data area is filled with
  std::function<std::int64_t()> now;      // seconds; unset: 0
  std::function<bool(Allocation)> fails;  // unset: no allocation fails
  std::function<void(Job*)> on_submit;    // after the submission is recorded
  std::function<void(Job*, const void* lock, const char* tag)> wait_for_job;  // the other threads

  // --- filled by the model ---
  std::map<std::string, int, NameOrder> pending_streams;  // the thread pool's marks
  unsigned signals = 0;                                   // of the thread pool's condition
  unsigned clock_reads = 0;
  std::vector<Call> calls;

  // Builds a block outside any stream, as the block's constructor does.
  //   Ends in  Thrown{kErrAssert} when the data area cannot be allocated
  Block* NewBlock(std::uint64_t off, std::uint32_t size);
  // A job for a block state made up by the caller; neither submitted nor put into the block.
  Job* NewJob(Block* block, bool is_write);

  // Ends a read: `contents` goes to the start of the data area, `count` into `dlen`.
  //   Before   the block still exists; `contents` fits its data area
  static void EndRead(Job* job, int return_value, std::uint32_t count, const std::string& contents);
  static void EndWrite(Job* job, int return_value);

  // --- used by blocks and streams ---
  void Say(Level level, int site, const char* place, const std::string& text);
  [[noreturn]] void Fail(int site, const char* place, const std::string& message);
  [[noreturn]] void FailInDestructor(const char* place, const std::string& message);
  void Called(const std::string& text);
  std::int64_t Time();
  bool Fails(Allocation what) { return fails && fails(what); }
  void Submit(Job* job, Submitted what);
  void WaitForJob(Job* job, const void* lock, const char* tag);
  void Notify(const std::string& name);
  unsigned NextStreamId() { return ++last_stream_id_; }

 private:
  void SayAssertion(int site, const char* place, const std::string& message);

  std::vector<Line>* lines_;
  std::vector<Submitted>* submitted_;
  std::list<Block> blocks_;
  std::list<Job> jobs_;
  std::size_t lines_said_ = 0;
  unsigned last_block_id_ = 0, last_job_id_ = 0, last_stream_id_ = 0;
};

// One cache block. Every field may be set by the caller to start from a state of its own.
struct Block {
  explicit Block(World* the_world) : world(the_world) {}

  World* world;
  unsigned id = 0;
  bool destroyed = false;

  std::uint32_t skip = 0;
  std::uint32_t ltime = 0;
  std::uint32_t size = 0;
  std::uint32_t state = 0;
  std::string bytes;  // the data area, `size` bytes
  std::uint64_t off = 0;
  std::uint32_t dlen = 0;
  std::uint32_t blen = 0;
  std::uint32_t dirty_length = 0;
  std::int32_t rc = 0;
  Job* job = nullptr;

  bool Is(std::uint32_t any_of) const { return (state & any_of) != 0; }
  std::uint64_t BlockEnd() const { return off + blen; }
  std::uint64_t DataEnd() const { return off + dlen; }

  // The destructor.
  //   Ends in  ProcessEnds when a job is in flight or data is dirty
  void Destroy();

  std::uint32_t GetState(std::uint32_t mask) const;
  void Skip();
  void Dump() const;
  void RemoveEOF(const std::string& name);

  std::uint32_t Write(const unsigned char* src, std::uint64_t O, std::uint32_t L);
  std::uint32_t Read(unsigned char* dst, std::uint64_t O, std::uint32_t L);
  void ReduceLength(const std::string& name, std::int32_t NL);

  void DoReadIO(const void* lock, const std::string& name, bool wait, Stream* stream);
  void DoWriteIO(const void* lock, const std::string& name, bool write_mode, bool wait,
                 bool ignore_read, const char* tag, bool flush_current_only);
  void WaitForBuffer(const void* lock, const std::string& name, bool wait, const char* tag);

 private:
  void CheckBeforeWrite(std::uint64_t O, std::uint32_t L) const;
  void CheckBeforeRead(std::uint64_t O, std::uint32_t L) const;
  void CheckArea(std::uint64_t start, std::uint64_t count) const;
  void CheckDirtyInsideData(const char* place) const;
  void CheckEmptyBeforeRead() const;
  void StartWrite(const std::string& name, bool write_mode, bool wait);
  void Reap(const std::string& name);
  void EndOfFileStep(const std::string& name);
};

using BlockList = std::list<Block*>;

// One file's blocks. Where the cache takes a dispatcher, a status record or a byte count pointer,
// the model takes none: `World` is the dispatcher. Locks are opaque.
class Stream {
 public:
  Stream(World* the_world, const std::string& the_name, std::uint64_t initial_off,
         std::uint64_t initial_len, std::uint64_t cookie);
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  World* world;
  unsigned id;

  std::string name;
  std::uint64_t io_cookie;
  std::uint32_t stream_tag;
  std::uint64_t curr_off;
  std::int64_t curr_len;
  std::uint64_t curr_pos;
  Block* last_buffer;
  BlockList buffers;
  std::uint32_t pending_io;
  std::uint32_t aux_count;
  std::pair<std::uint64_t, std::uint64_t> start_read_time;

  // The destructor; C++'s own does nothing, so that a run may simply stop.
  //   Ends in  ProcessEnds at the first block that is busy or dirty
  void Destroy();

  void UpdateCurrOffLenPos(std::uint32_t pos, std::uint64_t O, std::uint32_t L, std::uint32_t DL);
  std::uint64_t GetMaxLen() const;
  void setStartReadTime(std::pair<std::uint64_t, std::uint64_t> t) { start_read_time = t; }
  void RemoveEOF();
  void Dump() const;

  Block* AllocateBuffer(BlockList::iterator where, std::uint64_t nexoff, std::uint64_t off,
                        std::uint64_t maxoff, std::uint32_t size);

  std::uint32_t ReadWrite(const void* lock, unsigned char* buf, std::uint64_t off,
                          std::uint32_t len, bool* eof, std::uint64_t max_off, std::uint64_t cookie,
                          std::uint32_t alloc_size, bool is_write, bool flush_flag);
  std::uint32_t Read(const void* lock, unsigned char* buf, std::uint64_t off, std::uint32_t len,
                     bool* eof, std::uint64_t max_off, std::uint64_t cookie,
                     std::uint32_t alloc_size, std::uint32_t maxbufs, std::uint32_t maxpending);
  std::uint32_t Write(const void* lock, unsigned char* buf, std::uint64_t off, std::uint32_t len,
                      std::uint64_t max_off, std::uint64_t cookie, std::uint32_t alloc_size,
                      std::uint32_t maxbufs, bool flush_flag);

  void ReadAhead(const void* lock, std::uint64_t off, std::uint64_t maxoff, std::uint32_t bufsize,
                 std::uint32_t maxbufs, std::uint32_t maxpending);

  void Flush(const void* lock, bool wait, bool write_mode, bool ignore_read,
             bool flush_current_only);
  bool IsCacheDirty(bool ignore_reads);

  void Truncate(std::uint64_t newlen);
  void ShrinkStream(const void* lock, std::uint64_t off, std::uint32_t maxbufs);

  std::uint64_t Split(const void* lock, Stream* other, std::uint64_t splitoff);

 private:
  // One request on its way along the blocks.
  struct Request {
    const void* lock;
    unsigned char* buf;
    std::uint64_t off;
    std::uint32_t len;
    bool* eof;
    std::uint64_t max_off;
    std::uint32_t alloc_size;
    bool is_write, flush_flag;
    const char* tag;
    std::uint32_t ret = 0;
    bool eof_seen = false;
    std::uint64_t next_off = 0;
    BlockList::iterator it;
  };
  // The numbers are printed when an action is unknown, which here cannot be.
  enum Action {
    ACT_SKIP = 4,
    ACT_WAIT = 5,
    ACT_INSERT = 6,
    ACT_DISCARD = 7,
    ACT_SHIP = 8,
    ACT_COPY = 9,
    ACT_HOLE = 10,
    ACT_TRIM = 11
  };
  enum class Then { kNextBlock, kSameBlock, kEndOfWalk, kEndOfWalkUntested, kReturn };

  static bool KnownEnd(const Request& rq);
  void TraceFinding(const Request& rq) const;
  Action Decide(Request& rq) const;
  bool TooOld(const Block& b) const;
  static Action DecideBusyWriting(const Request& rq, const Block& b);
  static Action DecideRead(Request& rq, const Block& b);
  static Action DecideWrite(const Request& rq, const Block& b);

  Then CarryOut(Action action, Request& rq);
  Then Wait(Request& rq);
  Then Ship(Request& rq);
  Then Copy(Request& rq);
  Then Hole(Request& rq);
  Then AfterTransfer(Request& rq, std::uint32_t n, bool was_hole);
  [[noreturn]] void Discard(Request& rq);
  void RangeWithoutLast(const Block& gone);
  void RangeWithoutFirst(const Block& gone);
  std::uint32_t EndOfWalk(Request& rq, bool test_length);

  bool ReadTakesShortcut(std::uint64_t off, std::uint32_t len) const;
  bool WriteTakesShortcut(std::uint64_t off, std::uint32_t len) const;
  bool FirstBlockMayGo(std::uint64_t off, std::uint32_t maxbufs) const;
  void DumpBeforeAssert(std::uint64_t off, std::uint64_t maxoff, std::uint64_t nexoff,
                        std::uint32_t size, std::uint32_t pos) const;
};

std::string Token(const Block* block);
std::string DataToken(const Block* block);
std::string Token(const Job* job);
std::string Token(const Stream* stream);

}  // namespace vesk_oracle

#endif  // VESK_TESTS_ORACLE_ORACLE_H_

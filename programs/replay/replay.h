// Rebuilds from the lines of a log what the cache held.

#ifndef PROGRAMS_REPLAY_REPLAY_H_
#define PROGRAMS_REPLAY_REPLAY_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "programs/replay/line.h"

namespace vesk_replay {

// A block as far as the lines have told. What has no value cannot be told.
//   Units    bytes; lines are counted from 1
struct Block {
  std::uint64_t id = 0;  // never that of another block
  std::uint64_t off = 0;
  std::optional<std::uint32_t> length;
  std::optional<std::uint32_t>
      valid;                         // of a dirty block: at least, since a write may leave no line
  std::optional<unsigned> state;     // bits of VeskBuffer::state
  std::optional<std::uint64_t> job;  // address; 0: none
  std::optional<std::uint32_t> passes;  // how often it may have been passed over, at most
  std::size_t made = 0;                 // line that made it; 0: none did
  std::size_t told = 0;                 // line that told of it last
};

// "4 VALID", "34 DIRTY|EOF": the number and the names that a dump prints.
std::string StateText(unsigned state);

// What is known of a file of one name: the blocks of all streams of that name, by offset. A block
// that went without a line is still among them.
struct File {
  std::multimap<std::uint64_t, Block> blocks;
  std::size_t first_line = 0;
  std::size_t last_line = 0;
};

// What a line did to what is known.
struct Note {
  enum class Kind {
    kChange,
    kUntold,         // something had changed before without a line, as it may
    kDoubt,          // something cannot be told from here on
    kContradiction,  // the line cannot be true of what was rebuilt
    kFailure         // the line tells of a check that failed
  };
  Kind kind;
  std::string text;
};

struct Totals {
  std::size_t lines = 0;        // all
  std::size_t cache_lines = 0;  // of the cache
  std::size_t repeated = 0;     // of these, written before: the history of a failed check
  std::size_t damaged = 0;      // of these, cut or garbled
  std::size_t trace_lines = 0;  // of these, of operation Trace
  std::size_t new_blocks = 0, read_jobs = 0, write_jobs = 0, waits = 0, jobs_done = 0,
              jobs_failed = 0;
  std::size_t copies_out = 0, copies_in = 0, holes = 0, ends = 0;
  std::size_t discarded = 0, dropped = 0, moved = 0;
  std::size_t untold = 0, assumed = 0, contradictions = 0, failures = 0;
};

// The state of the cache behind each line that was fed.
//
// Lines tell names, not streams: streams of one name are taken as one, which is right as long as
// they cover different parts of the file. Lines about a block without its offset are taken for the
// block that the line before was about, if thread and state agree; else, in a whole log, for
// the only block that they can be about; else what they may have changed cannot be told.
//   Threads  one at a time
class Replay {
 public:
  // `whole`: the log begins with the program and no file was renamed, so each block was made by a
  // line.
  explicit Replay(bool whole = false);

  // Takes the next line of the log, whatever it is.
  //   After    returns what it did, until the next call
  const std::vector<Note>& Feed(std::string_view raw);

  // Of the last line fed: it was the cache's. Its file; empty: not told.
  bool is_cache_line() const { return is_cache_line_; }
  const std::string& file_name() const { return file_name_; }

  const std::map<std::string, File>& files() const { return files_; }
  const Totals& totals() const { return totals_; }

  // Why something cannot be told: reason -> how often, and the first line.
  struct Doubt {
    std::size_t count = 0;
    std::size_t first_line = 0;
  };
  const std::map<std::string, Doubt>& doubts() const { return doubts_; }

  // What each thread did last. The log tells no threads: one, without a name.
  struct Activity {
    std::size_t line = 0;
    std::string text;
    std::string file;
  };
  const std::map<std::string, Activity>& threads() const { return threads_; }

  // Everything that the cache logs.
  struct Site {
    int number;
    const char* operation;
    const char* format;
    void (Replay::*take)(const Values&);  // null: tells nothing of the blocks
  };
  static const std::vector<Site>& Sites();

 private:
  using Blocks = std::multimap<std::uint64_t, Block>;

  // A block that may be gone.
  struct Ref {
    std::uint64_t off = 0;
    std::uint64_t id = 0;  // 0: none
  };

  // A request on its way through the blocks.
  struct Walk {
    Ref block;  // where it is; none: there is no walk
    std::uint64_t off = 0;
    std::uint64_t end = 0;
    std::vector<std::uint64_t> visited;  // ids
    bool copied = false;                 // bytes of the block were copied out
    bool hole = false;                   // bytes before the block were made up
    bool served = false;                 // bytes were transferred
  };

  // What one thread did last with a file.
  struct Seat {
    int site = 0;
    std::size_t number = 0;    // of its last line, among the cache's
    Ref block;                 // that its last line was about
    std::vector<Ref> fresh;    // its last new block; without threads, all that may be new
    std::size_t returned = 0;  // writes told since, of one of these each
    std::vector<Ref> ending;   // whose jobs ended without data, which a further line tells
    bool waits = false;        // of its last write job: it is waited for
    Walk walk;
  };

  // What a line tells of a block.
  struct Told {
    std::optional<std::uint32_t> length, valid;
    std::optional<unsigned> state;
    std::optional<std::uint64_t> job;
    std::optional<bool> busy;  // a job is in flight
  };

  void TakeLine(const LogLine& line);
  bool IsRepeated(const LogLine& line);
  void TakeSite(const Site& site, const LogLine& line);
  void TakeNoName();
  void Damaged();
  void Enter(const std::string& name);
  void Forget(const char* reason);

  void Add(Note::Kind kind, const std::string& text);
  void Change(const Block& block, const std::string& text);
  void Untold(const Block& block, const std::string& text);
  void Doubtful(const char* reason);
  void Contradict(const std::string& text);
  std::string Name(const Block& block) const;

  Block* Get(const Ref& ref);
  Block* Best(std::uint64_t off, const Told& told);
  static int Agrees(const Block& block, const Told& told);
  Block* NextOnWalk(std::uint64_t off, const Told& told);
  Block& Known(std::uint64_t off, const Told& told);
  Block& Known(Block* block, std::uint64_t off, const Told& told);
  Block& Insert(Blocks::iterator before, std::uint64_t off);
  void About(Block& block);
  void Settle(const Block& block, bool returned);
  void ForgetReturned();
  void Erase(const Block& block);
  void Learn(Block& block, const Told& told);
  void LearnState(Block& block, unsigned told);
  void LearnValid(Block& block, std::uint32_t told);
  void LearnPasses(Block& block, std::uint32_t told);
  void SetState(Block& block, unsigned state);
  void Wrote(Block& block, std::uint64_t end);
  void Cut(Block& block, std::uint32_t length);
  void Blur(Block& block);

  void PassTo(const Block& block);
  void DropOverlapped(std::uint64_t off, std::uint64_t end);
  Block* Fresh();
  Block* WaitedFor();
  Block* PickInFlight();
  Block* PickCut(std::uint32_t old_length, std::uint32_t new_length);

  void TakeNew(const Values& v);
  void TakeTail(const Values& v);
  void TakeHead(const Values& v);
  void TakeReadJob(const Values& v);
  void TakeWriteJob(const Values& v);
  void TakeWait(const Values& v);
  void TakeDone(const Values& v);
  void TakeJobError(const Values& v);
  void TakeEndOfFile(const Values& v);
  void TakeRemoveEof(const Values& v);
  void TakeReduce(const Values& v);
  void TakeFinding(const Values& v);
  void TakeReading(const Values& v);
  void TakeHole(const Values& v);
  void TakeIoDone(const Values& v);
  void TakeReturning(const Values& v);
  void TakeEof(const Values& v);
  void TakeDiscard(const Values& v);
  void TakeShrinking(const Values& v);
  void TakeShrink(const Values& v);
  void TakeStay(const Values& v);
  void TakeMove(const Values& v);
  void TakeDump(const Values& v);
  void TakeNamed(const Values& v);
  void TakeCheck(const Values& v);
  void TakeNoBlock(const Values& v);
  void TakeNoWrite(const Values& v);

  bool whole_;
  std::map<std::string, File> files_;
  std::map<std::pair<std::string, std::string>, Seat> seats_;  // by thread and file
  std::map<std::string, Activity> threads_;
  std::map<std::string, Doubt> doubts_;
  Totals totals_;
  std::uint64_t last_id_ = 0;
  bool direct_ = false;  // lines of the cache's decisions were written when they came

  // Of the line in hand.
  std::vector<Note> notes_;
  std::string thread_;
  std::string file_name_;
  std::string text_;
  bool is_cache_line_ = false;
  bool sure_ = false;  // the seat's last line is the one before, for this thread
  File* file_ = nullptr;
  Seat* seat_ = nullptr;
};

}  // namespace vesk_replay

#endif  // PROGRAMS_REPLAY_REPLAY_H_

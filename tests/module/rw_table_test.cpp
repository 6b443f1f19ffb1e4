// The table of the read/write engine: which action one block leads to. The module's source is
// included to reach its inner functions; the whole test program takes the module from here.

#include <climits>
#include <initializer_list>
#include <string>

#include "tests/support/module_test.h"
#include "vesk/VeskStream.cpp"  // NOLINT(bugprone-suspicious-include)

namespace vesk_test {
namespace {

using vesk::ACT_COPY;
using vesk::ACT_DISCARD;
using vesk::ACT_HOLE;
using vesk::ACT_INSERT;
using vesk::ACT_SHIP;
using vesk::ACT_SKIP;
using vesk::ACT_TRIM;
using vesk::ACT_WAIT;
using vesk::RwAction;
using vesk::RwRequest;
using vesk::RwWalk;
using vesk::VeskBuffer;
using vesk::VeskStream;

constexpr unsigned int INV = 1, DIRTY = 2, VALID = 4, IOR = 8, IOW = 16, END = 32;  // END: of file
constexpr unsigned int kAllStates = 64;

enum Side { kRead, kWrite };

// Everything that the choice of an action may depend on.
struct Facts {
  Side side = kRead;
  unsigned int state = 0;
  unsigned long off = 0;
  unsigned int dlen = 0;
  unsigned int blen = 0;
  unsigned long at = 0;
  bool flag = false;  // the value behind `eof`; a write has none
  bool seen = false;  // `eof_seen` before
  int interval = 0;
  unsigned int ltime = 1000000;
  long now = 1000000;
};

struct Verdict {
  int action = 0;
  bool seen = false;    // `eof_seen` afterwards
  int clock_reads = 0;  // how often the time was asked for
  int rule = 0;         // only the model knows it

  bool operator==(const Verdict& other) const {
    return action == other.action && seen == other.seen && clock_reads == other.clock_reads;
  }
};

std::string Describe(const Facts& f, const Verdict& v) {
  return std::string(f.side == kRead ? "read" : "write") + " state " + std::to_string(f.state) +
         " off " + std::to_string(f.off) + " dlen " + std::to_string(f.dlen) + " blen " +
         std::to_string(f.blen) + " at " + std::to_string(f.at) + " flag " +
         std::to_string(f.flag) + " seen " + std::to_string(f.seen) + " interval " +
         std::to_string(f.interval) + " ltime " + std::to_string(f.ltime) + " now " +
         std::to_string(f.now) + ": action " + std::to_string(v.action) + " seen " +
         std::to_string(v.seen) + " clock reads " + std::to_string(v.clock_reads) + " rule " +
         std::to_string(v.rule);
}

// The rules once more, as one flat list: the first line that holds gives the action. Bits and
// actions are plain numbers, so that nothing is shared with the code under test.
Verdict Model(const Facts& f) {
  const bool read = f.side == kRead;
  const bool dirty = (f.state & 2) != 0, valid = (f.state & 4) != 0, reading = (f.state & 8) != 0,
             writing = (f.state & 16) != 0, at_end = (f.state & 32) != 0;
  const unsigned long block_end = f.off + f.blen, data_end = f.off + f.dlen;
  const bool has_age = valid && f.interval != 0 && f.ltime != 0;
  const bool too_old = has_age && f.now - static_cast<long>(f.ltime) > f.interval;
  const struct {
    int rule;
    bool holds;
    int action;
  } lines[] = {
      {1, read && (f.seen || f.flag) && f.dlen == 0, 4},
      {1, read && (f.seen || f.flag), 10},
      {2, f.off > f.at, 6},
      {3, block_end <= f.at && read, 4},
      {3, block_end <= f.at && dirty, 8},
      {3, block_end <= f.at, 4},
      {4, too_old, 7},
      {5, writing && data_end <= f.at, 4},
      {5, writing && !read, 5},
      {5, writing, 9},
      {6, reading, 5},
      {7, read && data_end > f.at, 9},
      {7, read && at_end, 4},
      {7, read && dirty, 11},
      {7, read, 4},
      {8, valid && f.off < f.at, 7},
      {8, data_end >= f.at, 9},
      {8, dirty, 8},
      {8, true, 4},
  };
  const auto* line = lines;
  while (!line->holds) ++line;
  Verdict v;
  v.action = line->action;
  v.rule = line->rule;
  // Only one outcome takes note of an end of file: a read that the data of an EOF block does not
  // reach.
  v.seen = f.seen || (line->rule == 7 && at_end && line->action == 4);
  // The time is of interest only where the age is looked at.
  v.clock_reads = has_age && line->rule >= 4 ? 1 : 0;
  return v;
}

class RwTableTest : public ModuleTest {
 protected:
  ~RwTableTest() override { block.state = VALID; }

  // What the module decides. `touched`: it changed something that is none of its business.
  Verdict Decide(const Facts& f, bool* touched) {
    block.state = f.state;
    block.off = f.off;
    block.dlen = f.dlen;
    block.blen = f.blen;
    block.ltime = f.ltime;
    block.skip = 7;
    block.rc = 0;
    settings.refresh_interval = f.interval;
    clock_now = f.now;
    clock_reads = 0;
    bool flag = f.flag;
    RwRequest rq{&lock, memory,          f.at,  100,    f.side == kRead ? &flag : nullptr, 9999,
                 4096,  f.side != kRead, false, nullptr};
    rq.eof_seen = f.seen;
    rq.ret = 11;
    rq.next_off = 13;

    Verdict v;
    v.action = vesk::Decide(block, rq);
    v.seen = rq.eof_seen;
    v.clock_reads = clock_reads;
    *touched = flag != f.flag || rq.off != f.at || rq.len != 100 || rq.ret != 11 ||
               rq.next_off != 13 || rq.buf != memory || block.state != f.state ||
               block.off != f.off || block.dlen != f.dlen || block.blen != f.blen ||
               block.ltime != f.ltime || block.skip != 7 || block.rc != 0;
    return v;
  }

  void CheckFacts(const Facts& f, RwAction expected, int rule, bool seen_afterwards,
                  int expected_clock_reads) {
    bool touched = false;
    const Verdict got = Decide(f, &touched);
    Verdict want;
    want.action = expected;
    want.seen = seen_afterwards;
    want.clock_reads = expected_clock_reads;
    want.rule = rule;
    EXPECT_TRUE(got == want) << "expected " << Describe(f, want) << "\n     got " << got.action
                             << " seen " << got.seen << " clock reads " << got.clock_reads;
    EXPECT_FALSE(touched) << Describe(f, want);
    // The row and the model must not contradict each other, the rule's number included.
    const Verdict model = Model(f);
    EXPECT_TRUE(model == want && model.rule == rule) << "the model says " << Describe(f, model);
  }

  // The rows of the tables. The clock is never read while refresh_interval is 0.
  void Check(Side side, unsigned int state, unsigned long off, unsigned int dlen, unsigned int blen,
             unsigned long at, RwAction expected, int rule) {
    CheckFacts(Row(side, state, off, dlen, blen, at), expected, rule, false, 0);
  }

  // A row after which the end of the file has been seen.
  void CheckSeen(Side side, unsigned int state, unsigned long off, unsigned int dlen,
                 unsigned int blen, unsigned long at, RwAction expected, int rule) {
    CheckFacts(Row(side, state, off, dlen, blen, at), expected, rule, true, 0);
  }

  // A row for a request that knows the end of the file already, each of the ways to know it.
  void CheckKnown(Side side, unsigned int state, unsigned long off, unsigned int dlen,
                  unsigned int blen, unsigned long at, RwAction expected, int rule) {
    Facts f = Row(side, state, off, dlen, blen, at);
    for (const int known : {1, 2, 3}) {
      f.flag = (known & 1) != 0;
      f.seen = (known & 2) != 0;
      CheckFacts(f, expected, rule, f.seen, 0);
    }
  }

  // A row for the age check: the block covers the request, which starts at the block's first byte
  // with all data behind it.
  void CheckAge(Side side, unsigned int state, int interval, unsigned int ltime, long now,
                int expected_clock_reads, RwAction expected, int rule) {
    Facts f = Row(side, state, 0, 4096, 4096, 0);
    f.interval = interval;
    f.ltime = ltime;
    f.now = now;
    CheckFacts(f, expected, rule, false, expected_clock_reads);
  }

  static Facts Row(Side side, unsigned int state, unsigned long off, unsigned int dlen,
                   unsigned int blen, unsigned long at) {
    Facts f;
    f.side = side;
    f.state = state;
    f.off = off;
    f.dlen = dlen;
    f.blen = blen;
    f.at = at;
    return f;
  }

  VeskBuffer block{0, 0};
};

// clang-format off

TEST_F(RwTableTest, ReadThatKnowsTheEndOfTheFileMeetsOnlyHolesAndEmptyBlocks) {
  //         side    state        off  dlen  blen    at  expected     rule
  CheckKnown(kRead,  VALID,      4096,    0, 4096,    0, ACT_SKIP,    1);
  CheckKnown(kRead,  VALID,      4096,    1, 4096,    0, ACT_HOLE,    1);
  CheckKnown(kRead,  VALID,      4096, 4096, 4096, 4096, ACT_HOLE,    1);  // n will be 0
  CheckKnown(kRead,  VALID,         0, 4096, 4096, 2048, ACT_HOLE,    1);  // n will wrap
  CheckKnown(kRead,  VALID,         0, 4096, 4096, 8192, ACT_HOLE,    1);
  CheckKnown(kRead,  VALID,         0,    0, 4096, 2048, ACT_SKIP,    1);
  CheckKnown(kRead,  VALID | END,   0,    0, 4096, 2048, ACT_SKIP,    1);
  CheckKnown(kRead,  VALID | END,   0,  100, 4096, 2048, ACT_HOLE,    1);
  CheckKnown(kRead,  IOR,        4096,    0, 4096,    0, ACT_SKIP,    1);  // not waited for
  CheckKnown(kRead,  IOR,        4096,  100, 4096,    0, ACT_HOLE,    1);
  CheckKnown(kRead,  IOW,           0,  100, 4096,    0, ACT_HOLE,    1);
  CheckKnown(kRead,  DIRTY,         0,  100, 4096, 2048, ACT_HOLE,    1);  // not trimmed
  CheckKnown(kRead,  INV,           0,    0, 4096,    0, ACT_SKIP,    1);
  CheckKnown(kRead,  0,             0,    1, 4096,    0, ACT_HOLE,    1);
}

TEST_F(RwTableTest, WriteIsNotInterestedInTheEndOfTheFile) {
  //         side    state        off  dlen  blen    at  expected     rule
  CheckKnown(kWrite, VALID,      4096,    0, 4096,    0, ACT_INSERT,  2);
  CheckKnown(kWrite, VALID,      4096,    1, 4096,    0, ACT_INSERT,  2);
  CheckKnown(kWrite, VALID,         0,  100, 4096,    0, ACT_COPY,    8);
  CheckKnown(kWrite, END,           0,  100, 4096,  101, ACT_SKIP,    8);  // eof_seen stays
  Check(     kWrite, END,           0,  100, 4096,  101, ACT_SKIP,    8);
}

TEST_F(RwTableTest, BlockThatStartsAfterTheRequestGetsANewBlockInFront) {
  //         side    state        off  dlen  blen    at  expected     rule
  Check(     kRead,  VALID,      4096, 4096, 4096, 4095, ACT_INSERT,  2);
  Check(     kRead,  VALID,      4096, 4096, 4096, 4096, ACT_COPY,    7);
  Check(     kRead,  VALID,      4096, 4096, 4096, 4097, ACT_COPY,    7);
  Check(     kWrite, VALID,      4096, 4096, 4096, 4095, ACT_INSERT,  2);
  Check(     kWrite, VALID,      4096, 4096, 4096, 4096, ACT_COPY,    8);
  Check(     kWrite, VALID,      4096, 4096, 4096, 4097, ACT_DISCARD, 8);
  Check(     kRead,  VALID,      4096,    0,    0, 4095, ACT_INSERT,  2);
  Check(     kRead,  DIRTY,      4096,  100, 4096,    0, ACT_INSERT,  2);
  Check(     kWrite, DIRTY,      4096,  100, 4096,    0, ACT_INSERT,  2);  // not shipped
  Check(     kRead,  IOR,        4096,    0, 4096,    0, ACT_INSERT,  2);  // not waited for
  Check(     kWrite, IOW,        4096,  100,  100,    0, ACT_INSERT,  2);
  Check(     kRead,  VALID | END, 4096, 100, 4096,    0, ACT_INSERT,  2);
  Check(     kRead,  INV,        4096,    0, 4096,    0, ACT_INSERT,  2);
}

TEST_F(RwTableTest, BlockThatEndsBeforeTheRequestIsPassedAndShippedByAWrite) {
  //         side    state        off  dlen  blen    at  expected     rule
  Check(     kRead,  VALID,         0, 4096, 4096, 4095, ACT_COPY,    7);
  Check(     kRead,  VALID,         0, 4096, 4096, 4096, ACT_SKIP,    3);
  Check(     kRead,  VALID,         0, 4096, 4096, 4097, ACT_SKIP,    3);
  Check(     kWrite, VALID,         0, 4096, 4096, 4095, ACT_DISCARD, 8);
  Check(     kWrite, VALID,         0, 4096, 4096, 4096, ACT_SKIP,    3);
  Check(     kWrite, VALID,         0, 4096, 4096, 4097, ACT_SKIP,    3);
  Check(     kRead,  DIRTY,         0, 4096, 4096, 4096, ACT_SKIP,    3);
  Check(     kWrite, DIRTY,         0, 4096, 4096, 4095, ACT_COPY,    8);
  Check(     kWrite, DIRTY,         0, 4096, 4096, 4096, ACT_SHIP,    3);  // appending, but no room
  Check(     kWrite, DIRTY,         0, 4096, 4096, 4097, ACT_SHIP,    3);
  Check(     kWrite, DIRTY,         0,  100, 4096, 4096, ACT_SHIP,    3);
  Check(     kWrite, VALID | DIRTY, 0, 4096, 4096, 4096, ACT_SHIP,    3);
  Check(     kWrite, DIRTY | END,   0, 4096, 4096, 4096, ACT_SHIP,    3);
  Check(     kWrite, DIRTY | INV,   0, 4096, 4096, 4096, ACT_SHIP,    3);
  Check(     kWrite, DIRTY | IOW,   0, 4096, 4096, 4096, ACT_SHIP,    3);
  Check(     kWrite, DIRTY | IOR,   0, 4096, 4096, 4096, ACT_SHIP,    3);
  Check(     kWrite, IOW,           0, 4096, 4096, 4096, ACT_SKIP,    3);
  Check(     kWrite, IOR,           0,    0, 4096, 4096, ACT_SKIP,    3);
  Check(     kRead,  IOR,           0,    0, 4096, 4096, ACT_SKIP,    3);
  Check(     kRead,  IOR,           0,    0, 4096, 4095, ACT_WAIT,    6);
  Check(     kRead,  VALID | END,   0,  100, 4096, 4096, ACT_SKIP,    3);  // the end is not seen
  Check(     kRead,  VALID | END,   0,    0, 4096, 4096, ACT_SKIP,    3);
  Check(     kRead,  VALID,         0,    0,    0,    0, ACT_SKIP,    3);  // covers nothing
  Check(     kWrite, DIRTY,         0,    0,    0,    0, ACT_SHIP,    3);
  Check(     kRead,  VALID,         0, 8192, 4096, 4096, ACT_SKIP,    3);  // blen counts, not dlen
}

TEST_F(RwTableTest, AgeOfAValidBlockIsComparedStrictlyWithTheInterval) {
  //       side    state        interval       ltime             now  reads  expected     rule
  CheckAge(kRead,  VALID,             10,    1000000,        1000009,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,             10,    1000000,        1000010,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,             10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
  CheckAge(kWrite, VALID,             10,    1000000,        1000009,  1,    ACT_COPY,    8);
  CheckAge(kWrite, VALID,             10,    1000000,        1000010,  1,    ACT_COPY,    8);
  CheckAge(kWrite, VALID,             10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID,              1,    1000000,        1000001,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,              1,    1000000,        1000002,  1,    ACT_DISCARD, 4);
  // Every other bit beside VALID: the age comes first.
  CheckAge(kRead,  VALID | END,       10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID | DIRTY,     10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
  CheckAge(kWrite, VALID | DIRTY,     10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID | IOR,       10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID | IOR,       10,    1000000,        1000010,  1,    ACT_WAIT,    6);
  CheckAge(kWrite, VALID | IOW,       10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
  CheckAge(kWrite, VALID | IOW,       10,    1000000,        1000010,  1,    ACT_WAIT,    5);
  CheckAge(kRead,  VALID | INV,       10,    1000000,        1000011,  1,    ACT_DISCARD, 4);
}

TEST_F(RwTableTest, ClockIsReadOnlyForAValidBlockThatHadAJobWhileTheCheckIsOn) {
  //       side    state        interval       ltime             now  reads  expected     rule
  CheckAge(kRead,  VALID,              0,    1000000,     2000000000,  0,    ACT_COPY,    7);
  CheckAge(kWrite, VALID,              0,    1000000,     2000000000,  0,    ACT_COPY,    8);
  CheckAge(kRead,  VALID,             10,          0,     2000000000,  0,    ACT_COPY,    7);
  CheckAge(kWrite, VALID,             10,          0,     2000000000,  0,    ACT_COPY,    8);
  CheckAge(kRead,  VALID,             10,          1,     2000000000,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  DIRTY,             10,    1000000,     2000000000,  0,    ACT_COPY,    7);
  CheckAge(kWrite, DIRTY,             10,    1000000,     2000000000,  0,    ACT_COPY,    8);
  CheckAge(kRead,  IOR,               10,    1000000,     2000000000,  0,    ACT_WAIT,    6);
  CheckAge(kRead,  IOW,               10,    1000000,     2000000000,  0,    ACT_COPY,    5);
  CheckAge(kWrite, IOW,               10,    1000000,     2000000000,  0,    ACT_WAIT,    5);
  CheckAge(kRead,  END,               10,    1000000,     2000000000,  0,    ACT_COPY,    7);
  CheckAge(kRead,  INV,               10,    1000000,     2000000000,  0,    ACT_COPY,    7);
  CheckAge(kRead,  0,                 10,    1000000,     2000000000,  0,    ACT_COPY,    7);
}

TEST_F(RwTableTest, ClockThatStandsBeforeTheJobGivesANegativeAge) {
  //       side    state        interval       ltime             now  reads  expected     rule
  CheckAge(kRead,  VALID,              1,    1000000,         999999,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,              1,    1000000,              0,  1,    ACT_COPY,    7);
  CheckAge(kWrite, VALID,              1,    1000000,              0,  1,    ACT_COPY,    8);
  CheckAge(kRead,  VALID,              1, 4294967295,              0,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,              1,          1,             -5,  1,    ACT_COPY,    7);
}

TEST_F(RwTableTest, AgeIsTheDifferenceIn64BitsOfAClockThatMayExceed32) {
  //       side    state        interval       ltime             now  reads  expected     rule
  CheckAge(kRead,  VALID,             10, 4294967295,     4294967305,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,             10, 4294967295,     4294967306,  1,    ACT_DISCARD, 4);
  // ltime holds 32 bits: set by the same clock past 2^32, the block is 2^32 seconds old at once.
  CheckAge(kRead,  VALID,             10,          5,     4294967301,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID,        INT_MAX,          1,     2147483648,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,        INT_MAX,          1,     2147483649,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID,             10,          1,     2147483650,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID,             10, 3000000000,     3000000010,  1,    ACT_COPY,    7);
  CheckAge(kRead,  VALID,             10, 3000000000,     3000000011,  1,    ACT_DISCARD, 4);
}

TEST_F(RwTableTest, NegativeIntervalMakesEvenABlockOfThisSecondTooOld) {
  //       side    state        interval       ltime             now  reads  expected     rule
  CheckAge(kRead,  VALID,             -1,    1000000,        1000000,  1,    ACT_DISCARD, 4);
  CheckAge(kRead,  VALID,             -1,    1000000,         999999,  1,    ACT_COPY,    7);
  CheckAge(kWrite, VALID,             -5,    1000000,         999996,  1,    ACT_DISCARD, 4);
  CheckAge(kWrite, VALID,             -5,    1000000,         999995,  1,    ACT_COPY,    8);
  CheckAge(kRead,  VALID,        INT_MIN,    1000000,              0,  1,    ACT_DISCARD, 4);
}

TEST_F(RwTableTest, StaleBlockThatTheRequestDoesNotTouchIsLeftAlone) {
  Facts f;
  f.interval = 10;
  f.now = 2000000;
  f.state = VALID;
  f.off = 4096;
  f.dlen = f.blen = 4096;
  for (const Side side : {kRead, kWrite}) {
    f.side = side;
    f.at = 4095;
    CheckFacts(f, ACT_INSERT, 2, false, 0);
    f.at = 8192;
    CheckFacts(f, ACT_SKIP, 3, false, 0);
    f.at = 8191;
    CheckFacts(f, ACT_DISCARD, 4, false, 1);
  }
  f.side = kRead;
  f.flag = true;
  CheckFacts(f, ACT_HOLE, 1, false, 0);
}

TEST_F(RwTableTest, BlockBeingWrittenMayBeReadButNotWritten) {
  //         side    state        off  dlen  blen    at  expected     rule
  Check(     kRead,  IOW,           0, 2048, 4096, 2047, ACT_COPY,    5);
  Check(     kRead,  IOW,           0, 2048, 4096, 2048, ACT_SKIP,    5);
  Check(     kRead,  IOW,           0, 2048, 4096, 2049, ACT_SKIP,    5);
  Check(     kWrite, IOW,           0, 2048, 4096, 2047, ACT_WAIT,    5);
  Check(     kWrite, IOW,           0, 2048, 4096, 2048, ACT_SKIP,    5);  // no append to it
  Check(     kWrite, IOW,           0, 2048, 4096, 2049, ACT_SKIP,    5);
  Check(     kRead,  IOW | END,     0, 2048, 4096, 2048, ACT_SKIP,    5);  // the end is not seen
  Check(     kRead,  IOW | IOR,     0, 2048, 4096, 2047, ACT_COPY,    5);
  Check(     kRead,  IOW | IOR,     0, 2048, 4096, 2048, ACT_SKIP,    5);
  Check(     kWrite, IOW | IOR,     0, 2048, 4096, 2047, ACT_WAIT,    5);
  Check(     kWrite, IOW | IOR,     0, 2048, 4096, 2048, ACT_SKIP,    5);
  Check(     kRead,  IOW | DIRTY,   0, 2048, 4096, 2048, ACT_SKIP,    5);  // not trimmed
  Check(     kWrite, IOW | DIRTY,   0, 2048, 4096, 2048, ACT_SKIP,    5);  // not shipped twice
  Check(     kWrite, IOW | DIRTY,   0, 2048, 4096, 2047, ACT_WAIT,    5);
  Check(     kWrite, IOW | VALID,   0, 2048, 4096, 2047, ACT_WAIT,    5);  // not discarded
  Check(     kWrite, IOW | VALID,   0, 2048, 4096, 2048, ACT_SKIP,    5);
  Check(     kRead,  IOW,           0,    0, 4096,    0, ACT_SKIP,    5);
  Check(     kWrite, IOW,           0,    0, 4096,    0, ACT_SKIP,    5);
  Check(     kWrite, IOW,           0,    1, 4096,    0, ACT_WAIT,    5);
}

TEST_F(RwTableTest, BlockBeingReadIsWaitedForWhateverItHoldsAlready) {
  //         side    state        off  dlen  blen    at  expected     rule
  Check(     kRead,  IOR,           0,    0, 4096,    0, ACT_WAIT,    6);
  Check(     kRead,  IOR,           0, 4096, 4096,    0, ACT_WAIT,    6);
  Check(     kRead,  IOR,           0,  100, 4096, 4095, ACT_WAIT,    6);
  Check(     kWrite, IOR,           0,    0, 4096,    0, ACT_WAIT,    6);
  Check(     kWrite, IOR,           0, 4096, 4096, 2048, ACT_WAIT,    6);
  Check(     kRead,  IOR | END,     0,    0, 4096,    0, ACT_WAIT,    6);  // the end is not seen
  Check(     kRead,  IOR | DIRTY,   0,    0, 4096,    0, ACT_WAIT,    6);
  Check(     kWrite, IOR | DIRTY,   0,    0, 4096,  100, ACT_WAIT,    6);
  Check(     kWrite, IOR | VALID,   0, 4096, 4096,  100, ACT_WAIT,    6);
  Check(     kRead,  IOR | VALID,   0, 4096, 4096,  100, ACT_WAIT,    6);
  Check(     kRead,  IOR | INV,     0,    0, 4096,    0, ACT_WAIT,    6);
}

TEST_F(RwTableTest, ReadCopiesWhatIsValidAndPassesWhatIsNot) {
  //         side    state        off  dlen  blen    at  expected     rule
  Check(     kRead,  VALID,         0, 2048, 4096,    0, ACT_COPY,    7);
  Check(     kRead,  VALID,         0, 2048, 4096, 2047, ACT_COPY,    7);
  Check(     kRead,  VALID,         0, 2048, 4096, 2048, ACT_SKIP,    7);
  Check(     kRead,  VALID,         0, 2048, 4096, 2049, ACT_SKIP,    7);
  Check(     kRead,  VALID,         0,    0, 4096,    0, ACT_SKIP,    7);
  Check(     kRead,  VALID,         0,    1, 4096,    0, ACT_COPY,    7);
  Check(     kRead,  DIRTY,         0, 2048, 4096, 2047, ACT_COPY,    7);
  Check(     kRead,  DIRTY,         0, 2048, 4096, 2048, ACT_TRIM,    7);
  Check(     kRead,  DIRTY,         0, 2048, 4096, 2049, ACT_TRIM,    7);
  Check(     kRead,  VALID | DIRTY, 0, 2048, 4096, 2047, ACT_COPY,    7);
  Check(     kRead,  VALID | DIRTY, 0, 2048, 4096, 2048, ACT_TRIM,    7);
  Check(     kRead,  VALID | END,   0, 2048, 4096, 2047, ACT_COPY,    7);  // the end is not seen
  CheckSeen( kRead,  VALID | END,   0, 2048, 4096, 2048, ACT_SKIP,    7);
  CheckSeen( kRead,  VALID | END,   0, 2048, 4096, 4095, ACT_SKIP,    7);
  CheckSeen( kRead,  VALID | END,   0,    0, 4096,    0, ACT_SKIP,    7);
  Check(     kRead,  DIRTY | END,   0, 2048, 4096, 2047, ACT_COPY,    7);
  CheckSeen( kRead,  DIRTY | END,   0, 2048, 4096, 2048, ACT_SKIP,    7);  // not trimmed
  CheckSeen( kRead,  END,           0, 2048, 4096, 2048, ACT_SKIP,    7);
  CheckSeen( kRead,  INV | END,     0,    0, 4096,    0, ACT_SKIP,    7);
  Check(     kRead,  INV,           0,    0, 4096,    0, ACT_SKIP,    7);
  Check(     kRead,  INV,           0,    1, 4096,    0, ACT_COPY,    7);
  Check(     kRead,  INV | DIRTY,   0,    1, 4096,    1, ACT_TRIM,    7);
  Check(     kRead,  0,             0,    1, 4096,    0, ACT_COPY,    7);
  Check(     kRead,  0,             0,    1, 4096,    1, ACT_SKIP,    7);
}

TEST_F(RwTableTest, WriteDiscardsCleanDataInFrontOfItAndAppendsWithoutAGap) {
  //         side    state        off  dlen  blen    at  expected     rule
  Check(     kWrite, VALID,         0, 4096, 4096,    0, ACT_COPY,    8);
  Check(     kWrite, VALID,         0, 4096, 4096,    1, ACT_DISCARD, 8);
  Check(     kWrite, VALID,         0,    0, 4096,    0, ACT_COPY,    8);
  Check(     kWrite, VALID,         0,    0, 4096,    1, ACT_DISCARD, 8);
  Check(     kWrite, VALID,         0,  100, 4096,  100, ACT_DISCARD, 8);
  Check(     kWrite, VALID | END,   0,  100, 4096,    0, ACT_COPY,    8);
  Check(     kWrite, VALID | END,   0,  100, 4096,  200, ACT_DISCARD, 8);  // the end is not seen
  Check(     kWrite, VALID | DIRTY, 0, 4096, 4096,    0, ACT_COPY,    8);
  Check(     kWrite, VALID | DIRTY, 0, 4096, 4096,    1, ACT_DISCARD, 8);
  Check(     kWrite, VALID | INV,   0, 4096, 4096,    1, ACT_DISCARD, 8);
  Check(     kWrite, DIRTY,         0, 2048, 4096,    0, ACT_COPY,    8);
  Check(     kWrite, DIRTY,         0, 2048, 4096, 2047, ACT_COPY,    8);
  Check(     kWrite, DIRTY,         0, 2048, 4096, 2048, ACT_COPY,    8);
  Check(     kWrite, DIRTY,         0, 2048, 4096, 2049, ACT_SHIP,    8);
  Check(     kWrite, DIRTY,         0, 4096, 8192, 4096, ACT_COPY,    8);
  Check(     kWrite, DIRTY | END,   0, 2048, 4096, 2048, ACT_COPY,    8);
  Check(     kWrite, DIRTY | END,   0, 2048, 4096, 2049, ACT_SHIP,    8);
  Check(     kWrite, DIRTY | INV,   0, 2048, 4096, 2049, ACT_SHIP,    8);
  Check(     kWrite, INV,           0,    0, 4096,    0, ACT_COPY,    8);  // the copy refuses
  Check(     kWrite, INV,           0,    0, 4096,    1, ACT_SKIP,    8);
  Check(     kWrite, INV,           0,  100, 4096,  100, ACT_COPY,    8);
  Check(     kWrite, INV,           0,  100, 4096,  101, ACT_SKIP,    8);
  Check(     kWrite, 0,             0,  100, 4096,  100, ACT_COPY,    8);
  Check(     kWrite, 0,             0,  100, 4096,  101, ACT_SKIP,    8);
  Check(     kWrite, END,           0,  100, 4096,  101, ACT_SKIP,    8);
}

TEST_F(RwTableTest, SumsOfOffsetAndLengthWrapAround) {
  constexpr unsigned long kTop = ~0UL - 4095;  // the last 4096 bytes that have an offset
  //         side    state        off  dlen  blen           at  expected     rule
  Check(     kRead,  VALID,      kTop, 4096, 4095,        ~0UL, ACT_SKIP,    3);
  Check(     kRead,  VALID,      kTop, 4095, 4095,      ~0UL-1, ACT_COPY,    7);
  Check(     kRead,  VALID,      kTop, 4096, 4096,        kTop, ACT_SKIP,    3);  // ends at 0
  Check(     kRead,  VALID,      kTop, 4096, 4096,        ~0UL, ACT_SKIP,    3);
  Check(     kWrite, DIRTY,      kTop, 4096, 4096,        kTop, ACT_SHIP,    3);
  Check(     kRead,  VALID,      kTop, 8192, 8192,        ~0UL, ACT_SKIP,    3);  // ends at 4096
  Check(     kRead,  VALID,      kTop, 4096, 4096,           0, ACT_INSERT,  2);
  Check(     kRead,  VALID,      kTop, 8192, 8192,        4095, ACT_INSERT,  2);
  Check(     kRead,  VALID,      kTop, 4096, 4095,        kTop, ACT_SKIP,    7);  // data ends at 0
  Check(     kWrite, DIRTY,      kTop, 4096, 4095,        kTop, ACT_SHIP,    8);
  Check(     kRead,  IOW,        kTop, 4096, 4095,        kTop, ACT_SKIP,    5);
  Check(     kRead,  VALID,         0,    1, 4294967295,     0, ACT_COPY,    7);
  Check(     kRead,  VALID,         0,    1, 4294967295, 4294967294, ACT_SKIP, 7);
  Check(     kRead,  VALID,         0,    1, 4294967295, 4294967295, ACT_SKIP, 3);
  Check(     kRead,  VALID, 4294967295, 4096, 4096, 4294967296, ACT_COPY,    7);  // not cut to 32
  Check(     kWrite, VALID,         0, 4096, 4096, 4294967296, ACT_SKIP,     3);
}

// clang-format on

// Every combination of small values against the model: nothing that the tables do not name decides
// differently.
TEST_F(RwTableTest, EverySmallCaseAgreesWithThePlainListOfRules) {
  const struct {
    int interval;
    unsigned int ltime;
    long now;
  } ages[] = {
      {10, 1000000, 1000010},  // just fresh
      {10, 1000000, 1000011},  // just stale
      {0, 1000000, 2000000},   // the check is off
      {10, 0, 2000000},        // never had a job
      {10, 1000000, 999000},   // the clock was set back
      {-1, 1000000, 1000000},
  };
  long cases = 0;
  int failures = 0;
  Facts f;
  for (const auto& age : ages) {
    f.interval = age.interval;
    f.ltime = age.ltime;
    f.now = age.now;
    for (int bits = 0; bits < 8; ++bits) {
      f.side = (bits & 1) != 0 ? kWrite : kRead;
      f.flag = (bits & 2) != 0;
      f.seen = (bits & 4) != 0;
      for (f.state = 0; f.state < kAllStates; ++f.state) {
        for (f.off = 0; f.off < 4; ++f.off) {
          for (f.blen = 0; f.blen < 4; ++f.blen) {
            for (f.dlen = 0; f.dlen < 4; ++f.dlen) {
              for (f.at = 0; f.at < 8; ++f.at) {
                bool touched = false;
                const Verdict got = Decide(f, &touched);
                const Verdict want = Model(f);
                ++cases;
                if (got == want && !touched) continue;
                ADD_FAILURE() << (touched ? "changed more than it may: " : "expected ")
                              << Describe(f, want) << "\ngot action " << got.action << " seen "
                              << got.seen << " clock reads " << got.clock_reads;
                ASSERT_LT(++failures, 10) << "and more";
              }
            }
          }
        }
      }
    }
  }
  EXPECT_EQ(cases, 6L * 8 * 64 * 4 * 4 * 4 * 8);
  EXPECT_TRUE(logger.lines.empty());  // deciding writes no line
}

TEST_F(RwTableTest, IntervalIsReadFromTheEnvironmentOfTheMoment) {
  Facts f = Row(kRead, VALID, 0, 4096, 4096, 0);
  f.interval = 10;
  f.now = 1000011;
  CheckFacts(f, ACT_DISCARD, 4, false, 1);

  vesk::VeskSettings other_settings{};
  other_settings.refresh_interval = 11;
  vesk::VeskEnv other{};
  other.logger = &logger;
  other.settings = &other_settings;
  vesk::gEnv = &other;
  bool touched = false;
  EXPECT_EQ(Decide(f, &touched).action, ACT_COPY);
  vesk::gEnv = &env;
}

TEST_F(RwTableTest, ActionsKeepTheNumbersThatAreWrittenToTheLog) {
  EXPECT_EQ(ACT_SKIP, 4);
  EXPECT_EQ(ACT_WAIT, 5);
  EXPECT_EQ(ACT_INSERT, 6);
  EXPECT_EQ(ACT_DISCARD, 7);
  EXPECT_EQ(ACT_SHIP, 8);
  EXPECT_EQ(ACT_COPY, 9);
  EXPECT_EQ(ACT_HOLE, 10);
  EXPECT_EQ(ACT_TRIM, 11);
}

TEST_F(RwTableTest, ActionWithoutAMeaningIsAFailedCheckThatTouchesNothing) {
  VeskStream stream("f", bundler, 0, 0, 0);
  VeskBuffer* const only = Add(stream, 0, 4096, 100, DIRTY);
  bool eof = false;
  RwRequest rq{&lock, memory, 50, 10, &eof, 65536, 4096, false, false, nullptr};
  const RwWalk walk{stream, rq, stream.buffers.begin()};
  for (const int action : {3, 12, 0, -1, INT_MAX}) {
    ExpectAssertion(700, "No action taken " + std::to_string(action) + "\n",
                    [&] { vesk::CarryOut(static_cast<RwAction>(action), walk); });
  }
  EXPECT_EQ(stream.buffers.size(), 1u);
  EXPECT_EQ(only->state, DIRTY);
  EXPECT_EQ(only->skip, 0u);
  EXPECT_EQ(only->blen, 4096u);
  EXPECT_EQ(rq.ret, 0u);
  EXPECT_EQ(rq.len, 10u);
  EXPECT_FALSE(eof);
  EXPECT_TRUE(dispatcher.submitted.empty());
  Clean(stream);
}

}  // namespace
}  // namespace vesk_test

// New blocks: where they go, how long they are, and what is left when one cannot be had.

#include <iterator>

#include "tests/support/module_test.h"
#include "tests/support/still_logger.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskStream;

constexpr unsigned int kMiB = 1u << 20;
constexpr unsigned int kTooBig = 104857600;  // bytes of the smallest block that is refused
constexpr unsigned long kNone = ~0UL;        // a next offset or a limit that does not matter

// Calls `spoil` with each new block of `length` bytes while it is being linked: its record, its
// data area and its list node are allocated in a row. `length` is one that nothing else has.
class SpoiltBlocks {
 public:
  SpoiltBlocks(unsigned int length, std::function<void(VeskBuffer&)> spoil)
      : length_(length), spoil_(std::move(spoil)) {}

 private:
  void See(void* memory, std::size_t bytes) {
    if (step_ == 2 && bytes == kNodeBytes) spoil_(*static_cast<VeskBuffer*>(record_));
    if (step_ == 1 && bytes == length_) {
      step_ = 2;
    } else {
      step_ = bytes == sizeof(VeskBuffer) ? 1 : 0;
      record_ = memory;
    }
  }

  static constexpr std::size_t kNodeBytes = 3 * sizeof(void*);

  const unsigned int length_;
  const std::function<void(VeskBuffer&)> spoil_;
  void* record_ = nullptr;
  int step_ = 0;  // allocations of a new block seen in a row
  const AllocationWatch watch_{[this](void* memory, std::size_t bytes) { See(memory, bytes); }};
};

// A stream that covers [4096, 16384) with two blocks and a gap between them: [4096, 8192) and
// [12288, 16384).
class AllocTest : public OneStreamTest {
 protected:
  static constexpr int kFirst = 0, kBetween = 1, kEnd = 2;  // places of a new block

  AllocTest() : OneStreamTest(4096, 12288) { stream.curr_pos = 5000; }

  // The stream is as it was made.
  void ExpectUntouched() const {
    EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{first, second}));
    ExpectRange(4096, 12288, 5000);
  }

  // Allocates before the block with this number in the list.
  VeskBuffer* Allocate(int place, unsigned long nexoff, unsigned long off, unsigned long maxoff,
                       unsigned int size) {
    return stream.AllocateBuffer(std::next(stream.buffers.begin(), place), nexoff, off, maxoff,
                                 size);
  }

  // Undoes an allocation.
  void TakeBack(VeskBuffer* block) {
    stream.buffers.remove(block);
    delete block;
    Cover(4096, 12288, 5000);
  }

  // Without blocks, covering nothing.
  void Empty() {
    for (VeskBuffer* block : stream.buffers) delete block;
    stream.buffers.clear();
    Cover(0, 0, 0);
  }

  static std::string NewBuffer(const std::string& off, const std::string& len,
                               const std::string& size, const std::string& maxoff) {
    return "Debug 493 f New buffer O:" + off + " L:" + len + " AS:" + size + " ML:" + maxoff + "\n";
  }
  static std::string Tail(long off, long len) {
    return "Debug 411 f CurrentValidLength1 O:" + std::to_string(off) +
           " L:" + std::to_string(len) + " DL:0\n";
  }
  static std::string Head(long off, long len) {
    return "Debug 423 f CurrentValidLength2 O:" + std::to_string(off) +
           " L:" + std::to_string(len) + " DL:0\n";
  }

  static std::string BlockDump(const VeskBuffer& block) {
    return "Dump 121 Dump BUFFER(" + P(&block) + ") bptr:" + P(block.bptr) +
           " size:4096 state:4(VALID) off:" + std::to_string(block.off) +
           " dlen:4096 blen:4096 skip:0 ltime:1000000 rc:0 job:" + P(nullptr) + " dirty_length=0\n";
  }

  VeskBuffer* first = Add(stream, 4096, 4096, 4096, VALID);
  VeskBuffer* second = Add(stream, 12288, 4096, 4096, VALID);
};

// --- Place ---------------------------------------------------------------------------------------

TEST_F(AllocTest, BlockOfAnEmptyStreamIsAppended) {
  Empty();
  Cover(1000, 0, 1000);
  // Not to be used: as a next offset it would leave no room.
  const unsigned long nexoff = 1000;
  const VeskBuffer* const block = Allocate(0, nexoff, 1000, 100000, 4096);
  EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{const_cast<VeskBuffer*>(block)}));
  ExpectRange(1000, 4096, 1000);
  ExpectLog({NewBuffer("1000", "4096", "4096", "100000"), Tail(1000, 4096)});
}

TEST_F(AllocTest, NewBlockHoldsNothingYet) {
  const VeskBuffer* const block = Allocate(kEnd, 0, 16385, kNone, 777);
  EXPECT_EQ(block->off, 16385u);
  EXPECT_EQ(block->blen, 777u);
  EXPECT_EQ(block->size, 777u);
  EXPECT_EQ(block->dlen, 0u);
  EXPECT_EQ(block->dirty_length, 0u);
  EXPECT_EQ(block->state, VALID);
  EXPECT_EQ(block->ltime, 0u);
  EXPECT_EQ(block->skip, 0u);
  EXPECT_EQ(block->rc, 0);
  EXPECT_EQ(block->job, nullptr);
}

TEST_F(AllocTest, NewBlockStartsNoTransfer) {
  Allocate(kEnd, 0, 16384, kNone, 4096);
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_TRUE(pool->pending_streams.empty());
  EXPECT_EQ(stream.pending_io, 0u);
  EXPECT_EQ(clock_reads, 0);
}

TEST_F(AllocTest, BlockAtTheEndIsTheLastAndMovesTheEndOfTheRange) {
  VeskBuffer* const block = Allocate(kEnd, 0, 20000, kNone, 4096);
  EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{first, second, block}));
  ExpectRange(4096, 20000, 20000);
  ExpectLog({NewBuffer("20000", "4096", "4096", "18446744073709551615"), Tail(4096, 20000)});
}

TEST_F(AllocTest, BlockBeforeTheFirstMovesTheStartOfTheRange) {
  VeskBuffer* const block = Allocate(kFirst, 4096, 100, kNone, 1000);
  EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{block, first, second}));
  ExpectRange(100, 16284, 100);
  ExpectLog({NewBuffer("100", "1000", "1000", "18446744073709551615"), Head(100, 16284)});
}

TEST_F(AllocTest, BlockBetweenTwoOthersMovesThePositionOnly) {
  VeskBuffer* const block = Allocate(kBetween, 12288, 9000, kNone, 1000);
  EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{first, block, second}));
  ExpectRange(4096, 12288, 9000);
  ExpectLog({NewBuffer("9000", "1000", "1000", "18446744073709551615")});
}

TEST_F(AllocTest, BlockBeforeTheOnlyOneIsTheFirst) {
  delete second;
  stream.buffers.pop_back();
  Allocate(kFirst, 4096, 0, kNone, 4096);
  ExpectRange(0, 16384, 0);
  ExpectLog({NewBuffer("0", "4096", "4096", "18446744073709551615"), Head(0, 16384)});
}

TEST_F(AllocTest, LinesNameTheFile) {
  stream.name = "another";
  second->state = VALID | END_OF_FILE;
  Allocate(kEnd, 0, 16384, kNone, 16);
  ExpectLog({"Debug 493 another New buffer O:16384 L:16 AS:16 ML:18446744073709551615\n",
             "Debug 411 another CurrentValidLength1 O:4096 L:12304 DL:0\n",
             "Debug 129 another Remove EOF\n"});
}

// --- Length --------------------------------------------------------------------------------------

struct LengthRow {
  int place;
  unsigned long nexoff;
  unsigned long off;
  unsigned long maxoff;
  unsigned int size;
  unsigned int length;
};

TEST_F(AllocTest, LengthIsTheLeastOfSizeGapAndDistanceToTheLimit) {
  constexpr unsigned long kTop = ~0UL;
  constexpr unsigned long k4G = 1UL << 32;
  // clang-format off
  const LengthRow rows[] = {
      // place    nexoff       off        maxoff       size  length
      // The gap, before the first block and between two.
      {kFirst,      4096,      100,        kTop,      3995,   3995},
      {kFirst,      4096,      100,        kTop,      3996,   3996},
      {kFirst,      4096,      100,        kTop,      3997,   3996},
      {kBetween,   12288,     9000,        kTop,      3287,   3287},
      {kBetween,   12288,     9000,        kTop,      3288,   3288},
      {kBetween,   12288,     9000,        kTop,      3289,   3288},
      {kBetween,   12288,    12287,        kTop,      4096,      1},
      {kBetween,   12288,    12288,        kTop,      4096,      0},  // no room is no failure
      {kFirst,      4096,     4096,        kTop,      4096,      0},
      {kBetween,   12288,     9000,        kTop,         0,      0},
      // A next block that lies behind: the distance wraps and does not limit.
      {kBetween,   12288,    12289,        kTop,      4096,   4096},
      {kFirst,      4096,     4097,        kTop,      4096,   4096},
      {kBetween,   12288,    12289,       12300,      4096,     11},
      // Gaps are 64 bits wide: their low 32 bits are small here.
      {kBetween, k4G + 1,        1,        kTop,      4096,   4096},
      {kBetween, k4G + 9,        1,        kTop,      4096,   4096},
      // The limit, which holds in every place.
      {kEnd,           0,    20000,       24095,      4096,   4095},
      {kEnd,           0,    20000,       24096,      4096,   4096},
      {kEnd,           0,    20000,       24097,      4096,   4096},
      {kEnd,           0,    20000,       20001,      4096,      1},
      {kEnd,           0,    20000, 20000 + k4G,      4096,   4096},
      {kFirst,      4096,      100,        4095,      4096,   3995},
      {kFirst,      4096,      100,        4096,      4096,   3996},
      {kFirst,      4096,      100,         101,      4096,      1},
      {kBetween,   12288,     9000,       12287,      4096,   3287},
      {kBetween,   12288,     9000,        9010,      4096,     10},
      {kBetween,   12288,     9000,       12287,      3287,   3287},
      {kBetween,   12288,     9000,       12287,      3288,   3287},
      // At the list's end there is no gap, whatever is given.
      {kEnd,       20010,    20000,        kTop,      4096,   4096},
      {kEnd,       20000,    20000,        kTop,      4096,   4096},
      {kEnd,        kTop,    20000,        kTop,      4096,   4096},
      // Near the top of the offsets: a next block that lies behind makes the distance nexoff + 100,
      // and an end that wraps lies below the limit.
      {kBetween,    kTop, kTop - 99,       kTop,        98,     98},
      {kBetween,       0, kTop - 99,       kTop,        99,     99},
      {kBetween,       0, kTop - 99,   kTop - 1,        99,     98},
      {kBetween,    1000, kTop - 99,       kTop,       100,    100},
      {kBetween,    1000, kTop - 99,       kTop,      4096,   1100},
      {kBetween,   10000, kTop - 99,       kTop,      4096,   4096},
      {kBetween,      10, kTop - 99,       kTop,       110,    110},
      {kBetween,      10, kTop - 99,       kTop,       111,    110},
  };
  // clang-format on
  for (const LengthRow& row : rows) {
    SCOPED_TRACE("place " + std::to_string(row.place) + " nexoff " + std::to_string(row.nexoff) +
                 " off " + std::to_string(row.off) + " maxoff " + std::to_string(row.maxoff) +
                 " size " + std::to_string(row.size));
    VeskBuffer* const block = Allocate(row.place, row.nexoff, row.off, row.maxoff, row.size);
    EXPECT_EQ(block->off, row.off);
    EXPECT_EQ(block->blen, row.length);
    EXPECT_EQ(block->size, row.length);
    EXPECT_EQ(*std::next(stream.buffers.begin(), row.place), block);
    const std::string expected =
        NewBuffer(std::to_string(static_cast<long>(row.off)), std::to_string(row.length),
                  std::to_string(row.size), std::to_string(row.maxoff));
    EXPECT_EQ(logger.lines.at(0), expected);
    logger.lines.clear();
    TakeBack(block);
  }
}

TEST_F(AllocTest, EndOfTheRangeFollowsTheClampedLength) {
  Allocate(kEnd, 0, 20000, 20010, 4096);
  ExpectRange(4096, 15914, 20000);
  ExpectLog({NewBuffer("20000", "10", "4096", "20010"), Tail(4096, 15914)});
}

TEST_F(AllocTest, NewLastBlockMayEndBehindTheTopOfTheOffsets) {
  Empty();
  Cover(~0UL - 99, 0, 0);
  const VeskBuffer* const block = Allocate(0, 0, ~0UL - 99, ~0UL, 300);
  EXPECT_EQ(block->blen, 300u);
  ExpectRange(~0UL - 99, 300, ~0UL - 99);
  ExpectLog({NewBuffer("-100", "300", "300", "18446744073709551615"), Tail(-100, 300)});
}

TEST_F(AllocTest, SizeOfAHundredMebibytesIsRefused) {
  ExpectAssertion(491, "Allocation too big 104857600",
                  [this] { Allocate(kEnd, 0, 20000, kNone, kTooBig); });
  ExpectAssertion(491, "Allocation too big 104857601",
                  [this] { Allocate(kEnd, 0, 20000, kNone, kTooBig + 1); });
  ExpectAssertion(491, "Allocation too big 4294967295",
                  [this] { Allocate(kEnd, 0, 20000, kNone, ~0u); });
  ExpectUntouched();
}

TEST_F(AllocTest, SizeOfOneByteLessThanAHundredMebibytesIsAccepted) {
  const VeskBuffer* const block = Allocate(kEnd, 0, 20000, kNone, kTooBig - 1);
  EXPECT_EQ(block->blen, kTooBig - 1);
  ExpectLog({NewBuffer("20000", "104857599", "104857599", "18446744073709551615"),
             Tail(4096, 104873503)});
}

TEST_F(AllocTest, LimitOfTheLengthAppliesAfterTheGap) {
  constexpr unsigned long off = 4096;
  ExpectAssertion(491, "Allocation too big 104857600",
                  [this] { Allocate(kBetween, off + kTooBig, off, kNone, 200 * kMiB); });
  ExpectUntouched();
  EXPECT_EQ(Allocate(kBetween, off + kTooBig - 1, off, kNone, 200 * kMiB)->blen, kTooBig - 1);
}

TEST_F(AllocTest, LimitOfTheLengthAppliesAfterTheMaximumOffset) {
  constexpr unsigned long off = 20000;
  ExpectAssertion(491, "Allocation too big 104857600",
                  [this] { Allocate(kEnd, 0, off, off + kTooBig, 200 * kMiB); });
  ExpectUntouched();
  EXPECT_EQ(Allocate(kEnd, 0, off, off + kTooBig - 1, 200 * kMiB)->blen, kTooBig - 1);
}

TEST_F(AllocTest, MoreThanTheLimitMayBeAskedForWhenLessIsGiven) {
  const VeskBuffer* const block = Allocate(kEnd, 0, 20000, 20000 + 65536, 200 * kMiB);
  EXPECT_EQ(block->blen, 65536u);
  ExpectLog({NewBuffer("20000", "65536", "209715200", "85536"), Tail(4096, 81440)});
}

TEST_F(AllocTest, SizeAskedForIsPrintedWithoutSign) {
  Allocate(kEnd, 0, 20000, 20016, ~0u);
  ExpectLog({NewBuffer("20000", "16", "4294967295", "20016"), Tail(4096, 15920)});
}

// --- Offset at or beyond the limit ---------------------------------------------------------------

TEST_F(AllocTest, OffsetAtTheLimitDumpsTheStreamAndIsRefused) {
  for (const int place : {kFirst, kBetween, kEnd}) {
    SCOPED_TRACE(place);
    const std::string code = place == kFirst ? "1" : place == kEnd ? "2" : "3";
    ExpectAssertion(
        480, "Endoff too big O:9000 ML:9000",
        [this, place] { Allocate(place, 12288, 9000, 9000, 4096); },
        {"Dump 477 AllocBuf DUMP BEGIN off:9000 maxoff:9000 nexoff:12288 size:4096 pos:" + code +
             "\n",
         "Dump 462 Dump STREAM(" + P(&stream) + ") -> off:4096 len:12288 pos:5000 \n",
         BlockDump(*first), BlockDump(*second), "Dump 479 AllocBuf DUMP END\n"});
    ExpectUntouched();
  }
}

TEST_F(AllocTest, OffsetBeyondTheLimitIsRefusedBeforeAnythingElseIsLookedAt) {
  Empty();
  // No room before the next block, and a length that would be refused as well.
  ExpectAssertion(
      480, "Endoff too big O:9001 ML:9000", [this] { Allocate(0, 9001, 9001, 9000, ~0u); },
      {"Dump 477 AllocBuf DUMP BEGIN off:9001 maxoff:9000 nexoff:9001 size:4294967295 pos:2\n",
       "Dump 462 Dump STREAM(" + P(&stream) + ") -> off:0 len:0 pos:0 \n",
       "Dump 479 AllocBuf DUMP END\n"});
  EXPECT_TRUE(stream.buffers.empty());
  ExpectRange(0, 0, 0);
}

TEST_F(AllocTest, OffsetsAreComparedWithoutSignAndPrintedWithOne) {
  Empty();
  ExpectAssertion(480, "Endoff too big O:-1 ML:-2",
                  [this] { Allocate(0, ~0UL - 2, ~0UL, ~0UL - 1, 1); },
                  {"Dump 477 AllocBuf DUMP BEGIN off:-1 maxoff:-2 nexoff:-3 size:1 pos:2\n",
                   "Dump 462 Dump STREAM(" + P(&stream) + ") -> off:0 len:0 pos:0 \n",
                   "Dump 479 AllocBuf DUMP END\n"});
  EXPECT_EQ(Thrown([this] { Allocate(0, 0, ~0UL, 1, 1); }), 1001);
  EXPECT_EQ(Allocate(0, 0, 1, ~0UL, 1)->blen, 1u);
}

TEST_F(AllocTest, LimitOfZeroRefusesEveryOffset) {
  EXPECT_EQ(Thrown([this] { Allocate(kFirst, 4096, 0, 0, 16); }), 1001);
  ExpectUntouched();
}

// --- End of file ---------------------------------------------------------------------------------

TEST_F(AllocTest, AppendingTakesTheEndOfFileMarkFromEveryBlock) {
  first->state = DIRTY | END_OF_FILE;
  second->state = VALID | END_OF_FILE;
  const VeskBuffer* const block = Allocate(kEnd, 0, 16384, kNone, 4096);
  EXPECT_EQ(first->state, DIRTY);
  EXPECT_EQ(second->state, VALID);
  EXPECT_EQ(block->state, VALID);
  ExpectLog({NewBuffer("16384", "4096", "4096", "18446744073709551615"), Tail(4096, 16384),
             "Debug 129 f Remove EOF\n", "Debug 129 f Remove EOF\n"});
}

TEST_F(AllocTest, BlockPutBeforeAnotherLeavesTheEndOfFileMarks) {
  first->state = VALID | END_OF_FILE;
  second->state = VALID | END_OF_FILE;
  Allocate(kFirst, 4096, 0, kNone, 4096);
  ExpectLog({NewBuffer("0", "4096", "4096", "18446744073709551615"), Head(0, 16384)});
  Allocate(kEnd, 12288, 8192, kNone, 4096);  // before the block that is the third now
  ExpectLog({NewBuffer("8192", "4096", "4096", "18446744073709551615")});
  EXPECT_EQ(first->state, VALID | END_OF_FILE);
  EXPECT_EQ(second->state, VALID | END_OF_FILE);
}

// --- Failures ------------------------------------------------------------------------------------

// A new block in each place that it can have.
struct NewPlace {
  int place;
  unsigned long nexoff;
  unsigned long off;
};
constexpr NewPlace kNewPlaces[] = {{0, 4096, 0}, {1, 12288, 9000}, {2, 0, 16384}};

TEST_F(AllocTest, RecordDataAndListNodeAreAllThatIsAllocated) {
  StillLogger still;
  env.logger = &still;
  for (const NewPlace& at : kNewPlaces) {
    SCOPED_TRACE(at.place);
    const long before = LiveAllocations();
    VeskBuffer* const block = Allocate(at.place, at.nexoff, at.off, kNone, 777);
    EXPECT_EQ(LiveAllocations(), before + 3);
    TakeBack(block);
    {
      const FailingAllocation failing(4);
      TakeBack(Allocate(at.place, at.nexoff, at.off, kNone, 777));
      EXPECT_FALSE(failing.Fired());
    }
  }
  env.logger = &logger;
}

TEST_F(AllocTest, AllocationThatFailsLeavesEverythingAsItWas) {
  second->state = VALID | END_OF_FILE;
  for (const NewPlace& at : kNewPlaces) {
    for (int nth = 1; nth <= 3; ++nth) {
      SCOPED_TRACE("place " + std::to_string(at.place) + " allocation " + std::to_string(nth));
      StillLogger still;
      env.logger = &still;
      const long before = LiveAllocations();
      bool fired = false;
      int code = 0;
      {
        const FailingAllocation failing(nth);
        try {
          Allocate(at.place, at.nexoff, at.off, kNone, 777);
        } catch (const vesk::VeskException& thrown) {
          code = thrown.code;
        }
        fired = failing.Fired();
      }
      EXPECT_EQ(LiveAllocations(), before);
      EXPECT_TRUE(fired);
      EXPECT_EQ(code, 1001);
      still.Replay(logger);
      // The block reports itself that its data area cannot be had.
      const int site = nth == 2 ? 101 : 496;
      ExpectLog(Join({{NewBuffer(std::to_string(at.off), "777", "777", "18446744073709551615")},
                      Assertion(site, "Out of memory")}));
      ExpectUntouched();
      EXPECT_EQ(second->state, VALID | END_OF_FILE);
      env.logger = &logger;
    }
  }
}

TEST_F(AllocTest, FreshBlockWithAReadInFlightIsLinkedButRefused) {
  first->state = VALID | END_OF_FILE;
  VeskBuffer* spoilt = nullptr;
  const SpoiltBlocks spoilt_blocks(777, [&spoilt](VeskBuffer& block) {
    block.state |= IOR;
    block.dlen = 5;  // minded only when no read is in flight
    spoilt = &block;
  });
  ExpectAssertion(500, "Read io going on1", [this] { Allocate(kEnd, 0, 16384, kNone, 777); },
                  {NewBuffer("16384", "777", "777", "18446744073709551615")});
  ASSERT_NE(spoilt, nullptr);
  EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{first, second, spoilt}));
  ExpectRange(4096, 12288, 5000);
  EXPECT_EQ(first->state, VALID | END_OF_FILE);
}

TEST_F(AllocTest, FreshBlockWithDataIsLinkedButRefused) {
  VeskBuffer* spoilt = nullptr;
  const SpoiltBlocks spoilt_blocks(777, [&spoilt](VeskBuffer& block) {
    block.dlen = 1;
    spoilt = &block;
  });
  ExpectAssertion(502, "Data len!=0", [this] { Allocate(kFirst, 4096, 0, kNone, 777); },
                  {NewBuffer("0", "777", "777", "18446744073709551615")});
  ASSERT_NE(spoilt, nullptr);
  EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{spoilt, first, second}));
  ExpectRange(4096, 12288, 5000);
}

TEST_F(AllocTest, NothingElseOfAFreshBlockIsChecked) {
  int spoilt = 0;
  const SpoiltBlocks spoilt_blocks(777, [&spoilt](VeskBuffer& block) {
    block.state = DIRTY | IOW;
    block.dirty_length = 9;
    ++spoilt;
  });
  const VeskBuffer* const block = Allocate(kEnd, 0, 16384, kNone, 777);
  EXPECT_EQ(spoilt, 1);
  EXPECT_EQ(block->state, DIRTY | IOW);
  ExpectRange(4096, 13065, 16384);
}

TEST_F(AllocTest, FreshBlockIsAmongThoseThatLoseTheEndOfFileMarkWhenItIsAppended) {
  const SpoiltBlocks spoilt_blocks(777, [](VeskBuffer& block) { block.state |= END_OF_FILE; });
  EXPECT_EQ(Allocate(kFirst, 4096, 0, kNone, 777)->state, VALID | END_OF_FILE);
  logger.lines.clear();
  // Before the last block, then behind it: the one made first loses its mark now as well.
  EXPECT_EQ(Allocate(kEnd, 12288, 9000, kNone, 777)->state, VALID | END_OF_FILE);
  ExpectLog({NewBuffer("9000", "777", "777", "18446744073709551615")});
  EXPECT_EQ(stream.AllocateBuffer(stream.buffers.end(), 0, 16384, kNone, 777)->state, VALID);
  EXPECT_EQ(stream.buffers.front()->state, VALID);
  ExpectLog({NewBuffer("16384", "777", "777", "18446744073709551615"), Tail(0, 17161),
             "Debug 129 f Remove EOF\n", "Debug 129 f Remove EOF\n", "Debug 129 f Remove EOF\n"});
}

TEST_F(AllocTest, RangeIsMovedByTheBlockAsItIsOnceLinked) {
  int spoilt = 0;
  const SpoiltBlocks spoilt_blocks(777, [&spoilt](VeskBuffer& block) {
    block.off = 20000;
    block.blen = 700;
    ++spoilt;
  });
  Allocate(kEnd, 0, 16384, kNone, 777);
  EXPECT_EQ(spoilt, 1);
  ExpectRange(4096, 16604, 20000);
}

TEST_F(AllocTest, LastBlockThatEndsBeforeTheRangeIsLinkedBeforeTheRangeIsFoundNegative) {
  second->state = VALID | END_OF_FILE;
  ExpectAssertion(413, "Negative CurrentValidLength1 CO:4096 L:95 O:4000\n",
                  [this] { Allocate(kEnd, 0, 4000, kNone, 95); },
                  {NewBuffer("4000", "95", "95", "18446744073709551615"), Tail(4096, -1)});
  ASSERT_EQ(stream.buffers.size(), 3u);
  EXPECT_EQ(stream.buffers.back()->off, 4000u);
  ExpectRange(4096, -1, 5000);
  EXPECT_EQ(second->state, VALID | END_OF_FILE);  // not reached
}

TEST_F(AllocTest, FirstBlockBeyondTheRangeIsLinkedBeforeTheRangeIsFoundNegative) {
  ExpectAssertion(420, "Negative CurrentValidLength2 CO:4096 CL:-1 O:16385\n",
                  [this] { Allocate(kFirst, 4096, 16385, kNone, 95); },
                  {NewBuffer("16385", "95", "95", "18446744073709551615")});
  ASSERT_EQ(stream.buffers.size(), 3u);
  EXPECT_EQ(stream.buffers.front()->off, 16385u);
  ExpectRange(4096, -1, 5000);
}

TEST_F(AllocTest, MutexOfTheStreamIsNotNeeded) {
  pthread_mutex_lock(&stream.stream_mutex);
  EXPECT_NE(Allocate(kEnd, 0, 16384, kNone, 16), nullptr);
  pthread_mutex_unlock(&stream.stream_mutex);
}

}  // namespace
}  // namespace vesk_test

// A stream divided in two: which blocks go, and where the two ranges part.

#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskStream;

constexpr unsigned long kTwoTo63 = 1UL << 63;
constexpr long kSmallest = static_cast<long>(kTwoTo63);
constexpr long kLargest = static_cast<long>(kTwoTo63 - 1);

// `stream` covers [0, 16384), position 700; `other`, of another name, has a range of its own.
class SplitTest : public ModuleTest {
 protected:
  using Blocks = std::list<VeskBuffer*>;

  SplitTest() {
    Cover(stream, 0, 16384, 700);
    Cover(other, 1, 2, 3);
  }

  // Nothing is transferred or waited for by a split.
  ~SplitTest() override {
    EXPECT_TRUE(dispatcher.waits.empty());
    EXPECT_TRUE(pool->pending_streams.empty());
    EXPECT_EQ(clock_reads, 0);
    Clean(stream);
    Clean(other);
  }

  static void Cover(VeskStream& covering, unsigned long off, long len, unsigned long pos) {
    covering.curr_off = off;
    covering.curr_len = len;
    covering.curr_pos = pos;
  }

  static void ExpectRange(const VeskStream& covering, unsigned long off, long len,
                          unsigned long pos) {
    EXPECT_EQ(covering.curr_off, off);
    EXPECT_EQ(covering.curr_len, len);
    EXPECT_EQ(covering.curr_pos, pos);
  }

  // Four blocks that fill the range; their valid lengths are 101, 102, 103 and 104.
  void Fill() {
    for (unsigned int i = 0; i < 4; ++i) block[i] = Add(stream, i * 4096, 4096, 101 + i, VALID);
  }

  unsigned long Split(unsigned long splitoff) { return stream.Split(&lock, &other, splitoff); }

  static std::string Keep(const std::string& off, const std::string& dlen) {
    return "Debug 971 f KeepBuffer B_O:" + off + " B_DL:" + dlen + "\n";
  }
  static std::string First(const std::string& off, const std::string& dlen,
                           const std::string& divide) {
    return "Debug 979 f TransferBuffer1 B_O:" + off + " B_DL:" + dlen + " N_O:" + divide + "\n";
  }
  static std::string Next(const std::string& off, const std::string& dlen) {
    return "Debug 985 f TransferBuffer2 B_O:" + off + " B_DL:" + dlen + "\n";
  }

  // Neither stream has changed, but for the shortcut of the one that was to be divided.
  void ExpectUndivided(const Blocks& blocks) {
    EXPECT_EQ(stream.buffers, blocks);
    EXPECT_TRUE(other.buffers.empty());
    ExpectRange(stream, 0, 16384, 700);
    ExpectRange(other, 1, 2, 3);
    EXPECT_EQ(stream.last_buffer, nullptr);
  }

  VeskStream stream{name, bundler, 0, 0, 0};
  VeskStream other{"g", bundler, 0, 0, 0};
  VeskBuffer* block[4] = {};
};

TEST_F(SplitTest, BlocksFromTheOffsetOnGoToTheOtherStream) {
  Fill();
  stream.last_buffer = block[3];
  VeskBuffer elsewhere(0, 1);
  other.last_buffer = &elsewhere;
  EXPECT_EQ(Split(8192), 8192u);
  EXPECT_EQ(stream.buffers, (Blocks{block[0], block[1]}));
  EXPECT_EQ(other.buffers, (Blocks{block[2], block[3]}));
  ExpectRange(stream, 0, 8192, 700);
  ExpectRange(other, 8192, 8192, 8192);
  EXPECT_EQ(stream.last_buffer, nullptr);
  EXPECT_EQ(other.last_buffer, &elsewhere);
  ExpectLog(
      {Keep("0", "101"), Keep("4096", "102"), First("8192", "103", "8192"), Next("12288", "104")});
}

TEST_F(SplitTest, NothingElseOfEitherStreamChanges) {
  Fill();
  stream.io_cookie = 5;
  stream.pending_io = 6;
  other.io_cookie = 7;
  other.pending_io = 8;
  Split(8192);
  EXPECT_EQ(stream.name, "f");
  EXPECT_EQ(stream.io_cookie, 5u);
  EXPECT_EQ(stream.pending_io, 6u);
  EXPECT_EQ(other.name, "g");
  EXPECT_EQ(other.io_cookie, 7u);
  EXPECT_EQ(other.pending_io, 8u);
  EXPECT_TRUE(dispatcher.submitted.empty());
}

// Both sides of the start of each block.
TEST_F(SplitTest, BlockGoesWhenItStartsAtTheOffsetOrBehindIt) {
  struct Row {
    unsigned long splitoff;
    std::size_t kept;
  };
  for (const Row& row : {Row{1, 1}, Row{4095, 1}, Row{4096, 1}, Row{4097, 2}, Row{8191, 2},
                         Row{8192, 2}, Row{8193, 3}, Row{12288, 3}}) {
    SCOPED_TRACE(row.splitoff);
    VeskStream low(name, bundler, 0, 16384, 0);
    VeskStream high("g", bundler, 0, 0, 0);
    for (unsigned long off = 0; off < 16384; off += 4096) Add(low, off, 4096, 4096, VALID);
    const unsigned long divide = 4096 * row.kept;
    EXPECT_EQ(low.Split(nullptr, &high, row.splitoff), divide);
    EXPECT_EQ(low.buffers.size(), row.kept);
    EXPECT_EQ(high.buffers.size(), 4 - row.kept);
    ExpectRange(low, 0, static_cast<long>(divide), 0);
    ExpectRange(high, divide, static_cast<long>(16384 - divide), divide);
  }
}

TEST_F(SplitTest, BlockAcrossTheOffsetStaysWhole) {
  Fill();
  block[1]->dlen = 4096;
  EXPECT_EQ(Split(6000), 8192u);
  EXPECT_EQ(stream.buffers, (Blocks{block[0], block[1]}));
  EXPECT_EQ(block[1]->blen, 4096u);
  EXPECT_EQ(block[1]->dlen, 4096u);
  ExpectRange(stream, 0, 8192, 700);
  ExpectRange(other, 8192, 8192, 8192);
  ExpectLog(
      {Keep("0", "101"), Keep("4096", "4096"), First("8192", "103", "8192"), Next("12288", "104")});
}

TEST_F(SplitTest, NothingGoesWhenEveryBlockStartsBelowTheOffset) {
  Fill();
  stream.last_buffer = block[0];
  EXPECT_EQ(Split(12289), 0u);
  ExpectUndivided({block[0], block[1], block[2], block[3]});
  ExpectLog({Keep("0", "101"), Keep("4096", "102"), Keep("8192", "103"), Keep("12288", "104")});
}

TEST_F(SplitTest, EveryBlockGoesWhenTheRangeStartsBelowTheFirst) {
  block[0] = Add(stream, 4096, 4096, 1, VALID);
  block[1] = Add(stream, 8192, 4096, 2, VALID);
  EXPECT_EQ(Split(1), 4096u);
  EXPECT_TRUE(stream.buffers.empty());
  EXPECT_EQ(other.buffers, (Blocks{block[0], block[1]}));
  ExpectRange(stream, 0, 4096, 700);
  ExpectRange(other, 4096, 12288, 4096);
  ExpectLog({First("4096", "1", "4096"), Next("8192", "2")});
}

TEST_F(SplitTest, LastBlockMayGoAlone) {
  Fill();
  EXPECT_EQ(Split(12288), 12288u);
  EXPECT_EQ(other.buffers, (Blocks{block[3]}));
  ExpectRange(stream, 0, 12288, 700);
  ExpectRange(other, 12288, 4096, 12288);
  ExpectLog(
      {Keep("0", "101"), Keep("4096", "102"), Keep("8192", "103"), First("12288", "104", "12288")});
}

TEST_F(SplitTest, StreamWithoutBlocksIsNotDivided) {
  VeskBuffer elsewhere(0, 1);
  stream.last_buffer = &elsewhere;
  EXPECT_EQ(Split(8192), 0u);
  ExpectUndivided({});
  ExpectLog({});
}

TEST_F(SplitTest, RangeNeedNotStartAtZero) {
  Cover(stream, 4096, 8192, 700);
  block[0] = Add(stream, 4096, 4096, 1, VALID);
  block[1] = Add(stream, 8192, 4096, 2, VALID);
  EXPECT_EQ(Split(4097), 8192u);
  ExpectRange(stream, 4096, 4096, 700);
  ExpectRange(other, 8192, 4096, 8192);
  ExpectLog({Keep("4096", "1"), First("8192", "2", "8192")});
}

// --- Reads in flight -----------------------------------------------------------------------------

TEST_F(SplitTest, ReadInFlightKeepsItsBlockAndMovesTheDividingOffset) {
  VeskBuffer* const first = Add(stream, 0, 4096, 1, VALID);
  VeskBuffer* const reading = AddBusy(stream, 4096, 4096, 0, IOR);
  VeskBuffer* const third = Add(stream, 8192, 4096, 3, VALID);
  VeskBuffer* const fourth = Add(stream, 12288, 4096, 4, VALID);
  EXPECT_EQ(Split(4096), 8192u);
  EXPECT_EQ(stream.buffers, (Blocks{first, reading}));
  EXPECT_EQ(other.buffers, (Blocks{third, fourth}));
  EXPECT_EQ(reading->state, IOR);
  EXPECT_EQ(References(reading->job), 2);
  ExpectRange(stream, 0, 8192, 700);
  ExpectRange(other, 8192, 8192, 8192);
  ExpectLog({Keep("0", "1"), Keep("4096", "0"), First("8192", "3", "8192"), Next("12288", "4")});
}

TEST_F(SplitTest, SeveralReadsInFlightStayUpToTheFirstBlockThatCanGo) {
  Add(stream, 0, 4096, 1, VALID);
  AddBusy(stream, 4096, 4096, 0, IOR);
  AddBusy(stream, 8192, 4096, 0, IOR | END_OF_FILE);
  VeskBuffer* const last = Add(stream, 12288, 4096, 4, VALID);
  EXPECT_EQ(Split(4096), 12288u);
  EXPECT_EQ(stream.buffers.size(), 3u);
  EXPECT_EQ(other.buffers, Blocks{last});
  ExpectLog({Keep("0", "1"), Keep("4096", "0"), Keep("8192", "0"), First("12288", "4", "12288")});
}

TEST_F(SplitTest, NothingGoesWhenEveryBlockFromTheOffsetOnIsBeingRead) {
  VeskBuffer* const first = Add(stream, 0, 4096, 1, VALID);
  VeskBuffer* const second = AddBusy(stream, 8192, 4096, 0, IOR);
  VeskBuffer* const third = AddBusy(stream, 12288, 4096, 0, IOR);
  stream.last_buffer = first;
  EXPECT_EQ(Split(8192), 0u);
  ExpectUndivided({first, second, third});
  ExpectLog({Keep("0", "1"), Keep("8192", "0"), Keep("12288", "0")});
}

TEST_F(SplitTest, ReadThatHasEndedButWasNotCollectedStillKeepsItsBlock) {
  VeskBuffer* const first = AddBusy(stream, 8192, 4096, 0, IOR);
  VeskBuffer* const second = Add(stream, 12288, 4096, 4, VALID);
  dispatcher.FinishRead(first->job, 100);
  EXPECT_EQ(Split(8192), 12288u);
  EXPECT_EQ(stream.buffers, Blocks{first});
  EXPECT_EQ(other.buffers, Blocks{second});
  EXPECT_EQ(first->state, IOR);
  ExpectLog({Keep("8192", "100"), First("12288", "4", "12288")});
}

TEST_F(SplitTest, BlocksBehindTheFirstThatGoesFollowWhateverTheirState) {
  Add(stream, 0, 4096, 1, VALID);
  VeskBuffer* const writing = AddBusy(stream, 4096, 4096, 2, IOW);
  VeskBuffer* const reading = AddBusy(stream, 8192, 2048, 3, IOR);
  VeskBuffer* const dirty = Add(stream, 10240, 2048, 4, DIRTY);
  VeskBuffer* const failed = Add(stream, 12288, 2048, 0, INV);
  VeskBuffer* const last = Add(stream, 14336, 2048, 6, VALID | END_OF_FILE);
  failed->rc = 5;
  vesk::VeskJob* const write = writing->job;
  vesk::VeskJob* const read = reading->job;
  read->owner_stream = &stream;
  VeskStream* const owner_of_write = write->owner_stream;
  const unsigned char byte = dirty->bptr[3];

  EXPECT_EQ(Split(4096), 4096u);
  EXPECT_EQ(other.buffers, (Blocks{writing, reading, dirty, failed, last}));
  EXPECT_EQ(writing->state, IOW);
  EXPECT_EQ(writing->job, write);
  EXPECT_EQ(write->owner_stream, owner_of_write);
  EXPECT_EQ(References(write), 2);
  EXPECT_EQ(reading->state, IOR);
  EXPECT_EQ(reading->job, read);
  EXPECT_EQ(read->owner_stream, &stream);  // which counts it as long as it is in flight
  EXPECT_EQ(References(read), 2);
  EXPECT_EQ(dirty->state, DIRTY);
  EXPECT_EQ(dirty->dirty_length, 4u);
  EXPECT_EQ(dirty->bptr[3], byte);
  EXPECT_EQ(failed->state, INV);
  EXPECT_EQ(failed->rc, 5);
  EXPECT_EQ(last->state, VALID | END_OF_FILE);
  ExpectLog({Keep("0", "1"), First("4096", "2", "4096"), Next("8192", "3"), Next("10240", "4"),
             Next("12288", "0"), Next("14336", "6")});
}

TEST_F(SplitTest, FirstBlockThatGoesMayHaveAnyStateButAReadInFlight) {
  for (unsigned int state = 0; state < 64; ++state) {
    SCOPED_TRACE(state);
    VeskStream low(name, bundler, 0, 16384, 0);
    VeskStream high("g", bundler, 0, 0, 0);
    VeskBuffer* const moved = Add(low, 8192, 4096, 10, state);
    const bool stays = (state & IOR) != 0;
    EXPECT_EQ(low.Split(&lock, &high, 8192), stays ? 0u : 8192u);
    EXPECT_EQ(low.buffers, stays ? Blocks{moved} : Blocks{});
    EXPECT_EQ(high.buffers, stays ? Blocks{} : Blocks{moved});
    EXPECT_EQ(moved->state, state);
    Clean(*moved);
  }
}

// --- The other stream ----------------------------------------------------------------------------

TEST_F(SplitTest, BlocksFollowThoseThatTheOtherStreamHolds) {
  Fill();
  VeskBuffer* const here = Add(other, 100, 16, 16, VALID);
  VeskBuffer* const there = Add(other, 1UL << 40, 16, 16, VALID);
  EXPECT_EQ(Split(8192), 8192u);
  EXPECT_EQ(other.buffers, (Blocks{here, there, block[2], block[3]}));
  ExpectRange(other, 8192, 8192, 8192);
}

TEST_F(SplitTest, MovedBlocksBelongToTheOtherStream) {
  const auto divide_and_destroy = [this] {
    {
      VeskStream low(name, bundler, 0, 16384, 0);
      {
        VeskStream high("g", bundler, 0, 0, 0);
        for (unsigned long off = 0; off < 16384; off += 4096) Add(low, off, 4096, 10, VALID);
        low.Split(&lock, &high, 8192);
      }
      EXPECT_EQ(low.buffers.size(), 2u);
      EXPECT_EQ(low.buffers.back()->off, 4096u);
    }
    logger.lines.clear();
    logger.lines.shrink_to_fit();
  };
  divide_and_destroy();  // the logger keeps what it allocates for each new site
  const long before = LiveAllocations();
  divide_and_destroy();
  EXPECT_EQ(LiveAllocations(), before);
}

TEST_F(SplitTest, MutexesOfTheStreamsAreNotNeeded) {
  Fill();
  pthread_mutex_lock(&stream.stream_mutex);
  pthread_mutex_lock(&other.stream_mutex);
  EXPECT_EQ(Split(8192), 8192u);
  pthread_mutex_unlock(&other.stream_mutex);
  pthread_mutex_unlock(&stream.stream_mutex);
}

// --- Range of the offset -------------------------------------------------------------------------

TEST_F(SplitTest, OffsetMustLieInsideTheRange) {
  Fill();
  Cover(stream, 4096, 8192, 700);
  for (const unsigned long splitoff : {0UL, 4095UL, 4096UL, 12288UL, 12289UL}) {
    SCOPED_TRACE(splitoff);
    stream.last_buffer = block[0];
    ExpectAssertion(962, "Offset out of range O:" + std::to_string(splitoff) + " S_O:4096 S_L:8192",
                    [this, splitoff] { Split(splitoff); });
    EXPECT_EQ(stream.last_buffer, nullptr);
    EXPECT_EQ(stream.buffers.size(), 4u);
    EXPECT_TRUE(other.buffers.empty());
    ExpectRange(stream, 4096, 8192, 700);
    ExpectRange(other, 1, 2, 3);
  }
}

TEST_F(SplitTest, OffsetsNextToTheEndsOfTheRangeAreInside) {
  Fill();
  Cover(stream, 4096, 8192, 700);
  EXPECT_EQ(Split(12287), 12288u);
  ExpectRange(stream, 4096, 8192, 700);
  ExpectRange(other, 12288, 0, 12288);
  EXPECT_EQ(Split(4097), 8192u);
  ExpectRange(stream, 4096, 4096, 700);
}

TEST_F(SplitTest, OffsetIsCheckedBeforeTheBlocks) {
  ExpectAssertion(962, "Offset out of range O:16384 S_O:0 S_L:16384", [this] { Split(16384); });
  Cover(stream, 0, 0, 0);
  ExpectAssertion(962, "Offset out of range O:0 S_O:0 S_L:0", [this] { Split(0); });
  Cover(stream, 7, 1, 0);
  ExpectAssertion(962, "Offset out of range O:8 S_O:7 S_L:1", [this] { Split(8); });
}

TEST_F(SplitTest, RangeIsComparedWithoutSignAndPrintedNarrow) {
  Cover(stream, ~0UL - 9, 5, 700);
  ExpectAssertion(962, "Offset out of range O:-5 S_O:-10 S_L:5", [this] { Split(~0UL - 4); });
  ExpectAssertion(962, "Offset out of range O:0 S_O:-10 S_L:5", [this] { Split(0); });
  EXPECT_EQ(Split(~0UL - 5), 0u);
  Cover(stream, 0, (1L << 32) + 5, 700);
  ExpectAssertion(962, "Offset out of range O:4294967301 S_O:0 S_L:5",
                  [this] { Split((1UL << 32) + 5); });
  EXPECT_EQ(Split((1UL << 32) + 4), 0u);
  ExpectLog({});
}

TEST_F(SplitTest, EndOfTheRangeWraps) {
  Cover(stream, ~0UL - 9, 20, 700);  // its end is 10, which nothing above its start is below
  ExpectAssertion(962, "Offset out of range O:-5 S_O:-10 S_L:20", [this] { Split(~0UL - 4); });
  ExpectAssertion(962, "Offset out of range O:5 S_O:-10 S_L:20", [this] { Split(5); });
}

TEST_F(SplitTest, LinesPrintOffsetsWithASign) {
  Cover(stream, ~0UL - 99, 50, 700);
  Add(stream, ~0UL - 99, 16, 3, VALID);
  Add(stream, ~0UL - 79, 16, 4, VALID);
  Add(stream, ~0UL - 63, 8, 5, VALID);
  EXPECT_EQ(Split(~0UL - 90), ~0UL - 79);
  ExpectRange(stream, ~0UL - 99, 20, 700);
  ExpectRange(other, ~0UL - 79, 30, ~0UL - 79);
  ExpectLog({Keep("-100", "3"), First("-80", "4", "-80"), Next("-64", "5")});
}

// --- Inconsistent ranges -------------------------------------------------------------------------

TEST_F(SplitTest, BlockAtTheEndOfTheRangeLeavesTheOtherStreamWithoutOne) {
  VeskBuffer* const beyond = Add(stream, 16384, 4096, 10, VALID);
  EXPECT_EQ(Split(16383), 16384u);
  EXPECT_EQ(other.buffers, Blocks{beyond});
  ExpectRange(stream, 0, 16384, 700);
  ExpectRange(other, 16384, 0, 16384);
}

TEST_F(SplitTest, BlockBeyondTheRangeIsFoundAfterItWasMoved) {
  VeskBuffer* const first = Add(stream, 0, 4096, 10, VALID);
  VeskBuffer* const beyond = Add(stream, 16385, 4096, 10, VALID);
  ExpectAssertion(1003, "Negative length10 -1", [this] { Split(8192); },
                  {Keep("0", "10"), First("16385", "10", "16385")});
  EXPECT_EQ(stream.buffers, Blocks{first});
  EXPECT_EQ(other.buffers, Blocks{beyond});
  ExpectRange(stream, 0, 16385, 700);
  ExpectRange(other, 16385, -1, 16385);
}

TEST_F(SplitTest, OwnLengthMayReachTheLargest) {
  Cover(stream, 1, kLargest, 700);
  Add(stream, kTwoTo63, 16, 10, VALID);
  EXPECT_EQ(Split(2), kTwoTo63);
  ExpectRange(stream, 1, kLargest, 700);
  ExpectRange(other, kTwoTo63, 0, kTwoTo63);
}

TEST_F(SplitTest, OwnNegativeLengthIsReportedAndTheOtherStreamsIsNot) {
  Cover(stream, 0, kLargest, 700);
  VeskBuffer* const beyond = Add(stream, kTwoTo63 + 7, 16, 10, VALID);
  ExpectAssertion(998, "Negative length9 7", [this] { Split(1); },
                  {First("-9223372036854775801", "10", "-9223372036854775801")});
  EXPECT_TRUE(stream.buffers.empty());
  EXPECT_EQ(other.buffers, Blocks{beyond});
  ExpectRange(stream, 0, kSmallest + 7, 700);
  ExpectRange(other, kTwoTo63 + 7, -8, kTwoTo63 + 7);
}

TEST_F(SplitTest, OwnNegativeLengthIsReportedWhenTheOtherStreamsIsNotNegative) {
  // A range that is negative already, as a failed check has left it: it ends at the top.
  Cover(stream, 0, -1, 700);
  Add(stream, kTwoTo63, 16, 10, VALID);
  ExpectAssertion(998, "Negative length9 0", [this] { Split(1); },
                  {First("-9223372036854775808", "10", "-9223372036854775808")});
  ExpectRange(stream, 0, kSmallest, 700);
  ExpectRange(other, kTwoTo63, kLargest, kTwoTo63);
}

TEST_F(SplitTest, OtherStreamsLengthIsJudgedBy64BitsAndPrintedBy32) {
  Add(stream, 16384 + (1UL << 32), 16, 10, VALID);
  ExpectAssertion(1003, "Negative length10 0", [this] { Split(1); },
                  {First("4294983680", "10", "4294983680")});
  ExpectRange(other, 16384 + (1UL << 32), -(1L << 32), 16384 + (1UL << 32));
}

}  // namespace
}  // namespace vesk_test

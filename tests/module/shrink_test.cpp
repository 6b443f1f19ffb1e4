// Blocks that are removed: from the end when the file is cut, from the start behind a reader.

#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskStream;

// What both operations are tested with: the range, and the blocks by offset.
class RemovalTest : public OneStreamTest {
 protected:
  RemovalTest() : OneStreamTest(0, 12288) {}

  void ExpectBlocks(const std::list<VeskBuffer*>& expected) const {
    EXPECT_EQ(stream.buffers, expected);
  }
};

// === Truncate ====================================================================================

// A stream that covers [0, 12288) with three blocks, position 5000.
class TruncateTest : public RemovalTest {
 protected:
  TruncateTest() {
    stream.curr_pos = 5000;
    stream.last_buffer = second;
  }

  // Neither written nor waited for, whatever is cut.
  ~TruncateTest() override {
    EXPECT_TRUE(dispatcher.waits.empty());
    EXPECT_TRUE(pool->pending_streams.empty());
  }

  static std::string Cut(const std::string& length, const std::string& old_length) {
    return "Debug 208 f ReducingLength NL:" + length + " L:" + old_length + "\n";
  }

  VeskBuffer* const first = Add(stream, 0, 4096, 4096, VALID);
  VeskBuffer* const second = Add(stream, 4096, 4096, 4000, VALID);
  VeskBuffer* const third = Add(stream, 8192, 4096, 4096, VALID);
};

TEST_F(TruncateTest, NothingIsLeftOfAnEmptyFile) {
  const long before = LiveAllocations();
  stream.Truncate(0);
  EXPECT_EQ(LiveAllocations(), before - 9);  // records, data areas, list nodes
  ExpectBlocks({});
  ExpectRange(0, 0, 5000);
  EXPECT_EQ(stream.last_buffer, nullptr);
  ExpectLog({});
}

TEST_F(TruncateTest, StreamWithoutBlocksTakesTheLength) {
  VeskStream empty(name, bundler, 0, 4096, 0);
  empty.last_buffer = second;
  empty.Truncate(100);
  EXPECT_EQ(empty.curr_len, 100);
  EXPECT_EQ(empty.last_buffer, nullptr);
  ExpectLog({});
}

TEST_F(TruncateTest, BlockAcrossTheNewLengthIsCut) {
  stream.Truncate(6000);
  ExpectBlocks({first, second});
  EXPECT_EQ(first->blen, 4096u);
  EXPECT_EQ(second->blen, 1904u);
  EXPECT_EQ(second->dlen, 1904u);
  EXPECT_EQ(second->size, 4096u);
  ExpectRange(0, 6000, 5000);
  EXPECT_EQ(stream.last_buffer, nullptr);
  ExpectLog({Cut("1904", "4096")});
}

// Both sides of each edge of the second block, [4096, 8192).
TEST_F(TruncateTest, BlockStaysBelowTheNewLengthAndGoesFromItOn) {
  struct Row {
    unsigned long newlen;
    std::size_t blocks;  // that stay
    unsigned int blen;   // of the last one
  };
  // clang-format off
  const Row rows[] = {
      {    1, 1,    1}, { 4095, 1, 4095},
      { 4096, 0,    0},                    // ends there: goes too
      { 4097, 2,    1}, { 8191, 2, 4095},
      { 8192, 1, 4096},
      { 8193, 3,    1}, {12287, 3, 4095},
      {12288, 2, 4096},
      {12289, 3, 4096}, {1UL << 40, 3, 4096},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.newlen);
    VeskStream other(name, bundler, 0, 12288, 0);
    for (unsigned long off = 0; off < 12288; off += 4096) Add(other, off, 4096, 4096, VALID);
    other.last_buffer = other.buffers.front();
    other.Truncate(row.newlen);
    ASSERT_EQ(other.buffers.size(), row.blocks);
    EXPECT_EQ(other.curr_len, static_cast<long>(row.newlen));
    EXPECT_EQ(other.curr_off, 0u);
    EXPECT_EQ(other.curr_pos, 0u);
    EXPECT_EQ(other.last_buffer, nullptr);
    if (row.blocks == 0) {
      ExpectLog({});
      continue;
    }
    const VeskBuffer& last = *other.buffers.back();
    EXPECT_EQ(last.off, 4096 * (row.blocks - 1));
    EXPECT_EQ(last.blen, row.blen);
    EXPECT_EQ(last.dlen, row.blen);
    ExpectLog(row.blen == 4096 ? Lines{} : Lines{Cut(std::to_string(row.blen), "4096")});
  }
}

TEST_F(TruncateTest, BlockThatEndsAtTheNewLengthGoesAndTheNextOneToo) {
  stream.Truncate(8192);
  ExpectBlocks({first});
  ExpectRange(0, 8192, 5000);
  ExpectLog({});
}

TEST_F(TruncateTest, UsableLengthDecidesNotTheValidOne) {
  second->blen = 3000;
  second->dlen = 100;
  stream.Truncate(4096 + 3001);
  ExpectBlocks({first, second});
  stream.Truncate(4096 + 101);
  ExpectLog({Cut("101", "3000")});
  EXPECT_EQ(second->blen, 101u);
  EXPECT_EQ(second->dlen, 100u);
  stream.Truncate(4096 + 101);
  ExpectBlocks({first});
  ExpectLog({});
}

TEST_F(TruncateTest, BlockWithoutLengthGoesWhereItStands) {
  second->blen = second->dlen = 0;
  stream.Truncate(4097);
  ExpectBlocks({first, second});
  stream.Truncate(4096);
  ExpectBlocks({});  // the first one ends there
  ExpectLog({});
}

TEST_F(TruncateTest, LengthBeyondTheLastBlockExtendsTheRange) {
  stream.Truncate(20000);
  ExpectBlocks({first, second, third});
  ExpectRange(0, 20000, 5000);
  EXPECT_EQ(stream.last_buffer, nullptr);
  ExpectLog({});
}

TEST_F(TruncateTest, RangeKeepsItsStart) {
  Cover(4000, 8288, 5000);
  stream.Truncate(9000);
  ExpectRange(4000, 5000, 5000);
}

TEST_F(TruncateTest, DirtyAndBusyBlocksThatStayAreLeftInTheirState) {
  first->state = DIRTY;
  first->dirty_length = 4096;
  second->state = DIRTY | END_OF_FILE;
  second->dirty_length = 3000;
  second->skip = 3;
  stream.Truncate(4096 + 2000);
  EXPECT_EQ(first->state, DIRTY);
  EXPECT_EQ(first->dirty_length, 4096u);
  EXPECT_EQ(second->state, DIRTY | END_OF_FILE);
  EXPECT_EQ(second->dirty_length, 2000u);
  EXPECT_EQ(second->dlen, 2000u);
  EXPECT_EQ(second->skip, 0u);
  EXPECT_TRUE(dispatcher.submitted.empty());
  ExpectLog({Cut("2000", "4096")});
}

TEST_F(TruncateTest, JobOfABlockThatIsCutStaysInFlight) {
  VeskBuffer* const writing = AddBusy(stream, 12288, 4096, 4096, IOW);
  VeskBuffer* const reading = AddBusy(stream, 16384, 4096, 0, IOR);
  const vesk::VeskJob* const write = writing->job;
  const vesk::VeskJob* const read = reading->job;
  stream.Truncate(16384 + 10);
  ExpectBlocks({first, second, third, writing, reading});
  EXPECT_EQ(writing->state, IOW);
  EXPECT_EQ(writing->job, write);
  EXPECT_EQ(writing->blen, 4096u);
  EXPECT_EQ(reading->state, IOR);
  EXPECT_EQ(reading->job, read);
  EXPECT_EQ(reading->blen, 10u);
  EXPECT_EQ(dispatcher.submitted.size(), 2u);
  ExpectLog({Cut("10", "4096")});
}

TEST_F(TruncateTest, LengthAtTheStartOfTheRangeLeavesNothing) {
  Cover(4096, 8192, 5000);
  stream.Truncate(4096);
  ExpectBlocks({});
  ExpectRange(4096, 0, 5000);
  ExpectLog({});
}

TEST_F(TruncateTest, LengthBelowTheRangeIsFoundAfterTheBlocksWereRemoved) {
  Cover(4096, 8192, 5000);
  ExpectAssertion(915, "Negative length8 -1", [this] { stream.Truncate(4095); },
                  {Cut("4095", "4096")});
  ExpectBlocks({first});
  ExpectRange(4096, -1, 5000);
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(TruncateTest, NegativeLengthIsJudgedBy64BitsAndPrintedBy32) {
  Cover((1UL << 32) + 5, 0, 5000);
  ExpectAssertion(915, "Negative length8 -5", [this] { stream.Truncate(0); });
  ExpectRange((1UL << 32) + 5, -5 - (1L << 32), 5000);

  Cover(0, 0, 0);
  stream.Truncate((1UL << 63) - 1);
  ExpectRange(0, static_cast<long>((1UL << 63) - 1), 0);
  ExpectLog({});
  ExpectAssertion(915, "Negative length8 0", [this] { stream.Truncate(1UL << 63); });
  ExpectRange(0, static_cast<long>(1UL << 63), 0);

  // Low 32 bits that look negative do not count.
  stream.Truncate(1UL << 31);
  ExpectRange(0, 1L << 31, 0);
  ExpectLog({});
}

TEST_F(TruncateTest, OffsetsAreComparedWithoutSign) {
  third->off = 1UL << 63;
  stream.Truncate((1UL << 63) - 1);
  ExpectBlocks({first, second});
  ExpectLog({});
}

TEST_F(TruncateTest, EndOfABlockWraps) {
  Cover(~0UL - 10000, 0, 5000);
  third->off = ~0UL - 99;  // ends at 3996
  stream.Truncate(~0UL - 50);
  ExpectBlocks({first, second, third});
  EXPECT_EQ(third->blen, 4096u);
  ExpectLog({});
}

TEST_F(TruncateTest, CutThatFailsEndsTheWalk) {
  // Longer than a signed 32-bit length; up to that it is cut.
  second->blen = 3000000000;
  third->off = 4096 + 3000000000;
  ExpectAssertion(210, "buffer dirty 4\n", [this] { stream.Truncate(4096 + (1UL << 31)); },
                  {Cut("-2147483648", "-1294967296")});
  ExpectBlocks({first, second, third});
  EXPECT_EQ(second->blen, 3000000000u);
  ExpectRange(0, 12288, 5000);
  EXPECT_EQ(stream.last_buffer, nullptr);

  stream.Truncate(4096 + (1UL << 31) - 1);
  EXPECT_EQ(second->blen, 2147483647u);
  ExpectBlocks({first, second});
  ExpectLog({Cut("2147483647", "-1294967296")});
}

class TruncateDeathTest : public TruncateTest {
 protected:
  TruncateDeathTest() {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    logger.echo = true;
  }

  void TruncateWith(unsigned int state_of_second, unsigned long newlen) {
    second->state = state_of_second;
    stream.Truncate(newlen);
  }

  static std::string Echoed(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }
};

TEST_F(TruncateDeathTest, RemovingADirtyBlockEndsTheProcess) {
  const std::string dirty = Echoed(Assertion(110, "buffer dirty 2\n"));
  EXPECT_DEATH(TruncateWith(DIRTY, 4096), dirty);
  EXPECT_DEATH(TruncateWith(DIRTY, 8192), dirty);
  // The first block is cut before the second is met.
  EXPECT_DEATH(TruncateWith(DIRTY, 4095), Cut("4095", "4096") + "\n" + dirty);
}

TEST_F(TruncateDeathTest, RemovingABusyBlockEndsTheProcess) {
  EXPECT_DEATH(TruncateWith(IOR, 4096), Echoed(Assertion(108, "buffer io in progress 8\n")));
  EXPECT_DEATH(TruncateWith(IOW, 0), Echoed(Assertion(108, "buffer io in progress 16\n")));
}

// === ShrinkStream ================================================================================

// A stream that covers [0, 12288) with three blocks, whose reader has passed the first two: all
// that ShrinkStream asks for holds by one, for maxbufs 2.
class ShrinkTest : public RemovalTest {
 protected:
  static constexpr unsigned int kMaxbufs = 2;
  static constexpr unsigned long kReader = 4097;  // one byte behind the first block

  ShrinkTest() {
    stream.curr_pos = kReader;
    stream.last_buffer = second;
  }

  void Shrink(unsigned long off = kReader, unsigned int maxbufs = kMaxbufs) {
    stream.ShrinkStream(&lock, off, maxbufs);
  }

  static std::string Enter() {
    return "Trace 271 VeskBuffer::DoWriteIO(f), flush_current_only(FALSE) \n";
  }
  static std::string Dirty() { return "Debug 274 VeskBuffer::DoWriteIO(f), buffer dirty \n"; }
  static std::string Creating(const vesk::VeskJob* job, unsigned int len) {
    return "Trace 299 f Creating Write job " + P(job) + " W:1 O:0 L:" + std::to_string(len) + "\n";
  }
  static std::string Waiting(const vesk::VeskJob* job) {
    return "Trace 370 f Wait for job " + P(job) + " O:0\n";
  }
  static std::string Done(unsigned int blen, unsigned int dlen) {
    return "Trace 341 f Job done O:0 L:" + std::to_string(blen) + " DL:" + std::to_string(dlen) +
           "\n";
  }
  static std::string Delete(const std::string& off, const std::string& dlen,
                            const std::string& stream_off, const std::string& stream_len) {
    return "Debug 938 f Delete buffer BO:" + off + " BL:" + dlen + " S_O:" + stream_off +
           " S_L:" + stream_len + "\n";
  }

  // The call has changed and written nothing.
  void ExpectNothingHappened() {
    ExpectBlocks({first, second, third});
    ExpectRange(0, 12288, stream.curr_pos);
    EXPECT_EQ(stream.last_buffer, second);
    EXPECT_TRUE(dispatcher.submitted.empty());
    ExpectLog({});
  }

  // The first block, clean, is gone; the range starts with the second and ends where it did.
  void ExpectDropped() {
    ExpectBlocks({second, third});
    ExpectRange(4096, 8192, stream.curr_pos);
    EXPECT_EQ(stream.last_buffer, nullptr);
    ExpectLog({Enter(), Delete("0", "4096", "0", "12288")});
  }

  // A wait for the first block's job has ended in a repeat: nothing is removed yet.
  void ExpectWaited() {
    ExpectBlocks({first, second, third});
    ExpectRange(0, 12288, kReader);
    EXPECT_EQ(stream.last_buffer, nullptr);
    ASSERT_EQ(dispatcher.waits.size(), 1u);
    EXPECT_EQ(dispatcher.waits[0].job, first->job);
    EXPECT_EQ(dispatcher.waits[0].lock, &lock);
    EXPECT_EQ(dispatcher.waits[0].tag, "ShrinkStream");
  }

  // Puts a job in flight on the first block.
  void MakeBusy(unsigned int state) {
    VeskBuffer* const busy = AddBusy(stream, 0, 16, 0, state);
    first->state = state;
    first->job = busy->job;
    busy->state = VALID;
    busy->job = nullptr;
    stream.buffers.pop_back();
    delete busy;
  }

  VeskBuffer* const first = Add(stream, 0, 4096, 4096, VALID);
  VeskBuffer* const second = Add(stream, 4096, 4096, 4096, VALID);
  VeskBuffer* const third = Add(stream, 8192, 4096, 4096, VALID);
};

TEST_F(ShrinkTest, FirstBlockGoesWhenEverythingHolds) {
  Shrink();
  ExpectDropped();
  EXPECT_EQ(stream.curr_pos, kReader);
}

TEST_F(ShrinkTest, StreamWithoutBlocksStays) {
  VeskStream empty(name, bundler, 7, 100, 0);
  empty.ShrinkStream(&lock, kReader, 0);
  EXPECT_EQ(empty.curr_off, 7u);
  EXPECT_EQ(empty.curr_len, 100);
  ExpectLog({});
}

TEST_F(ShrinkTest, NullFirstEntryStays) {
  stream.buffers.push_front(nullptr);
  Shrink(kReader, 0);
  ExpectBlocks({nullptr, first, second, third});
  EXPECT_EQ(stream.last_buffer, second);
  ExpectLog({});
}

TEST_F(ShrinkTest, StreamMayHoldAsManyBlocksAsAllowed) {
  for (const unsigned int maxbufs : {3u, 4u, ~0u}) {
    SCOPED_TRACE(maxbufs);
    Shrink(kReader, maxbufs);
    ExpectNothingHappened();
  }
  Shrink(kReader, 2);
  ExpectDropped();
}

TEST_F(ShrinkTest, NoBlocksAllowedStillKeepsTheLast) {
  Cover(0, 12288, ~0UL);
  for (int i = 0; i < 5; ++i) Shrink(~0UL, 0);
  ExpectBlocks({third});
  ExpectRange(8192, 4096, ~0UL);
}

TEST_F(ShrinkTest, BlockThatWasPassedOverFourTimesGoesHoweverFewThereAre) {
  first->skip = 3;
  Shrink(kReader, 3);
  ExpectNothingHappened();
  first->skip = 4;
  Shrink(kReader, 3);
  ExpectDropped();
}

TEST_F(ShrinkTest, CounterOfPassesIsUnsigned) {
  first->skip = ~0u;
  Shrink(kReader, ~0u);
  ExpectDropped();
}

TEST_F(ShrinkTest, CounterOfPassesDoesNotMatterWhenThereAreTooMany) {
  first->skip = 4;
  Shrink();
  ExpectDropped();
}

TEST_F(ShrinkTest, OnlyTheFirstBlocksPassesCount) {
  second->skip = third->skip = 100;
  Shrink(kReader, 3);
  ExpectNothingHappened();
}

TEST_F(ShrinkTest, OnlyBlockStaysHoweverOftenItWasPassedOver) {
  VeskStream single(name, bundler, 0, 4096, 0);
  single.curr_pos = ~0UL;
  VeskBuffer* const block = Add(single, 0, 4096, 4096, VALID);
  single.last_buffer = block;
  for (const unsigned int skip : {0u, 4u, 100u}) {
    block->skip = skip;
    single.ShrinkStream(&lock, ~0UL, 0);
    single.ShrinkStream(&lock, ~0UL, 1);
    EXPECT_EQ(single.buffers, std::list<VeskBuffer*>{block});
    EXPECT_EQ(single.last_buffer, block);
    EXPECT_EQ(block->skip, skip);
  }
  ExpectLog({});
}

TEST_F(ShrinkTest, FirstOfTwoBlocksGoes) {
  stream.buffers.pop_back();
  delete third;
  first->skip = 4;
  Shrink();
  ExpectBlocks({second});
  ExpectRange(4096, 8192, kReader);
  ExpectLog({Enter(), Delete("0", "4096", "0", "12288")});
}

TEST_F(ShrinkTest, BlockStaysUntilThePositionIsBehindItsEnd) {
  for (const unsigned long pos : {0UL, 4095UL, 4096UL}) {
    SCOPED_TRACE(pos);
    stream.curr_pos = pos;
    Shrink(~0UL);
    ExpectNothingHappened();
  }
  stream.curr_pos = 4097;
  Shrink(~0UL);
  ExpectDropped();
}

TEST_F(ShrinkTest, BlockStaysUntilTheRequestIsBehindItsEnd) {
  stream.curr_pos = ~0UL;
  for (const unsigned long off : {0UL, 4095UL, 4096UL}) {
    SCOPED_TRACE(off);
    Shrink(off);
    ExpectNothingHappened();
  }
  Shrink(4097);
  ExpectDropped();
}

TEST_F(ShrinkTest, UsableLengthIsWhatTheReaderHasToPass) {
  first->dlen = 10;
  Shrink(4096);
  ExpectNothingHappened();
  Shrink();
  ExpectBlocks({second, third});
  ExpectLog({Enter(), Delete("0", "10", "0", "12288")});  // prints the valid length
}

TEST_F(ShrinkTest, OffsetsAreComparedWithoutSign) {
  constexpr unsigned long top = 1UL << 63;
  first->off = top - 2048;  // ends beyond the largest signed offset
  stream.curr_pos = top + 2049;
  Shrink(top + 2048);
  Shrink(0);
  EXPECT_EQ(stream.buffers.size(), 3u);
  ExpectLog({});
  second->off = top + 2048;
  stream.curr_off = first->off;
  Shrink(top + 2049);
  ExpectBlocks({second, third});
  ExpectRange(top + 2048, 8192, top + 2049);
  ExpectLog({Enter(), Delete("9223372036854773760", "4096", "9223372036854773760", "12288")});
}

TEST_F(ShrinkTest, EndOfTheFirstBlockWraps) {
  first->off = ~0UL - 99;  // ends at 3996
  stream.curr_off = first->off;
  stream.curr_len = 20000;
  stream.curr_pos = 3997;
  Shrink(3997);
  ExpectBlocks({second, third});
  ExpectRange(4096, 15804, 3997);
  ExpectLog({Enter(), Delete("-100", "4096", "-100", "20000")});
}

TEST_F(ShrinkTest, OneBlockGoesPerCall) {
  Cover(0, 12288, ~0UL);
  Shrink(~0UL, 0);
  ExpectBlocks({second, third});
  Shrink(~0UL, 0);
  ExpectBlocks({third});
  ExpectLog({Enter(), Delete("0", "4096", "0", "12288"), Enter(),
             Delete("4096", "4096", "4096", "8192")});
}

TEST_F(ShrinkTest, BlocksInAnyIdleStateGo) {
  for (const unsigned int state : {0u, INV, VALID, VALID | END_OF_FILE}) {
    SCOPED_TRACE(state);
    VeskStream other(name, bundler, 0, 8192, 0);
    other.curr_pos = kReader;
    Add(other, 0, 4096, 4096, state);
    Add(other, 4096, 4096, 4096, VALID);
    other.ShrinkStream(&lock, kReader, 1);
    EXPECT_EQ(other.buffers.size(), 1u);
    ExpectLog({Enter(), Delete("0", "4096", "0", "8192")});
  }
}

TEST_F(ShrinkTest, BlockThatGoesIsFreed) {
  const auto drop_one = [this] {
    {
      VeskStream other(name, bundler, 0, 8192, 0);
      other.curr_pos = kReader;
      Add(other, 0, 4096, 4096, VALID);
      Add(other, 4096, 4096, 4096, VALID);
      other.ShrinkStream(&lock, kReader, 1);
      EXPECT_EQ(other.buffers.size(), 1u);
    }
    logger.lines.clear();
    logger.lines.shrink_to_fit();
  };
  drop_one();  // the logger keeps what it allocates for each new site
  const long before = LiveAllocations();
  drop_one();
  EXPECT_EQ(LiveAllocations(), before);
}

// --- Write-back ----------------------------------------------------------------------------------

TEST_F(ShrinkTest, DirtyBlockIsWrittenBackAndWaitedForBeforeItGoes) {
  first->state = DIRTY;
  first->dirty_length = 1000;
  EXPECT_EQ(Thrown([this] { Shrink(); }), 1000);
  ExpectWaited();
  ASSERT_EQ(dispatcher.submitted, std::vector<vesk::VeskJob*>{first->job});
  EXPECT_EQ(first->state, IOW);
  EXPECT_EQ(DescribeOperation(first->job).code, 10u);
  EXPECT_EQ(DescribeOperation(first->job).flags, 0u);
  EXPECT_TRUE(pool->pending_streams.empty());
  ExpectLog({Enter(), Dirty(), Creating(first->job, 1000), Waiting(first->job)});

  dispatcher.FinishWrite(first->job);
  Shrink();
  ExpectBlocks({second, third});
  ExpectRange(4096, 8192, kReader);
  ExpectLog({Enter(), Done(1000, 1000), Delete("0", "1000", "0", "12288")});
}

TEST_F(ShrinkTest, DirtyBlockGoesAtOnceWhenItsJobEndsBeforeTheWait) {
  stream.buffers.pop_back();
  delete third;
  first->state = DIRTY;
  first->dirty_length = 1000;
  first->skip = 4;
  dispatcher.on_submit = [this](vesk::VeskJob* job) { dispatcher.FinishWrite(job); };
  Shrink();
  ExpectBlocks({second});
  ExpectRange(4096, 8192, kReader);
  ExpectLog({Enter(), Dirty(), Creating(dispatcher.submitted[0], 1000), Done(1000, 1000),
             Delete("0", "1000", "0", "12288")});
}

// The write-back starts the count anew, so the repeated call finds no reason to drop the block.
TEST_F(ShrinkTest, DirtyBlockThatWasOnlyPassedOverTooOftenStaysAfterItsWriteBack) {
  first->state = DIRTY;
  first->dirty_length = 4096;
  first->skip = 4;
  EXPECT_EQ(Thrown([this] { Shrink(kReader, 3); }), 1000);
  ExpectWaited();
  EXPECT_EQ(first->skip, 0u);
  dispatcher.FinishWrite(first->job);
  logger.lines.clear();
  Shrink(kReader, 3);
  ExpectBlocks({first, second, third});
  EXPECT_EQ(first->state, IOW);
  ExpectLog({});
}

TEST_F(ShrinkTest, JobInFlightIsWaitedForBeforeTheBlockGoes) {
  for (const unsigned int state : {IOW, IOR}) {
    SCOPED_TRACE(state);
    MakeBusy(state);
    stream.last_buffer = second;
    dispatcher.waits.clear();
    EXPECT_EQ(Thrown([this] { Shrink(); }), 1000);
    ExpectWaited();
    EXPECT_EQ(first->state, state);
    ExpectLog({Enter(), Waiting(first->job)});
    Clean(*first);
  }
}

TEST_F(ShrinkTest, JobThatHasEndedIsCollectedAndTheBlockGoes) {
  for (const unsigned int state : {IOW, IOR}) {
    SCOPED_TRACE(state);
    VeskStream other(name, bundler, 0, 8192, 0);
    other.curr_pos = kReader;
    VeskBuffer* const block = AddBusy(other, 0, 4096, 100, state);
    Add(other, 4096, 4096, 4096, VALID);
    vesk::VeskJob* const job = block->job;
    dispatcher.FinishWrite(job);
    other.ShrinkStream(&lock, kReader, 1);
    EXPECT_EQ(other.buffers.size(), 1u);
    EXPECT_EQ(References(job), 1);
    EXPECT_TRUE(dispatcher.waits.empty());
    ExpectLog({Enter(), Done(4096, 100), Delete("0", "100", "0", "8192")});
  }
}

TEST_F(ShrinkTest, FailedJobPassesThroughAndTheBlockStaysUntilTheNextCall) {
  MakeBusy(IOW);
  dispatcher.FinishWrite(first->job, 5);
  EXPECT_EQ(Thrown([this] { Shrink(); }), 5);
  ExpectBlocks({first, second, third});
  ExpectRange(0, 12288, kReader);
  EXPECT_EQ(stream.last_buffer, nullptr);
  EXPECT_EQ(first->state, INV);
  EXPECT_EQ(first->rc, 5);
  ExpectLog({Enter(), "Error 353 f Block error RC:5\n"});

  Shrink();
  ExpectBlocks({second, third});
  ExpectLog({Enter(), Delete("0", "0", "0", "12288")});
}

TEST_F(ShrinkTest, FailedCheckOfTheWriteBackPassesThrough) {
  first->state = DIRTY;
  first->dirty_length = 100;
  first->dlen = 80;
  ExpectAssertion(284, "DBL: 100 BL: 80\n", [this] { Shrink(); }, {Enter(), Dirty()});
  ExpectBlocks({first, second, third});
  ExpectRange(0, 12288, kReader);
  EXPECT_EQ(stream.last_buffer, nullptr);
}

// --- Range ---------------------------------------------------------------------------------------

TEST_F(ShrinkTest, RangeKeepsItsEndAcrossAGap) {
  second->off = 5000;
  Cover(0, 20000, kReader);
  Shrink();
  ExpectRange(5000, 15000, kReader);
  ExpectLog({Enter(), Delete("0", "4096", "0", "20000")});
}

TEST_F(ShrinkTest, RangeMayStartElsewhereThanTheFirstBlock) {
  Cover(100, 12188, kReader);
  Shrink();
  ExpectRange(4096, 8192, kReader);
  ExpectLog({Enter(), Delete("0", "4096", "100", "12188")});
}

TEST_F(ShrinkTest, LineShowsTheLow32BitsOfTheOldLength) {
  Cover(0, (1L << 32) + 5, kReader);
  Shrink();
  ExpectRange(4096, (1L << 32) - 4091, kReader);
  ExpectLog({Enter(), Delete("0", "4096", "0", "5")});
}

TEST_F(ShrinkTest, NewFirstBlockMayStandWhereTheRangeEnds) {
  Cover(0, 4096, kReader);
  Shrink();
  ExpectRange(4096, 0, kReader);
  ExpectLog({Enter(), Delete("0", "4096", "0", "4096")});
}

TEST_F(ShrinkTest, NewFirstBlockBeyondTheRangeIsFoundAfterTheOldOneIsGone) {
  Cover(0, 4095, kReader);
  ExpectAssertion(947, "Negative length7 -1", [this] { Shrink(); },
                  {Enter(), Delete("0", "4096", "0", "4095")});
  ExpectBlocks({second, third});
  ExpectRange(4096, -1, kReader);
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(ShrinkTest, NegativeLengthIsJudgedBy64BitsAndPrintedBy32) {
  second->off = 1UL << 32;
  Cover(0, 0, kReader);
  ExpectAssertion(947, "Negative length7 0", [this] { Shrink(); },
                  {Enter(), Delete("0", "4096", "0", "0")});
  ExpectRange(1UL << 32, -(1L << 32), kReader);
}

TEST_F(ShrinkTest, LengthBeyondTheLargestIsNegative) {
  // The new start lies below the old one, which makes the range longer.
  Cover(4097, static_cast<long>((1UL << 63) - 1), kReader);
  ExpectAssertion(947, "Negative length7 0", [this] { Shrink(); },
                  {Enter(), Delete("0", "4096", "4097", "-1")});
  ExpectRange(4096, static_cast<long>(1UL << 63), kReader);
}

}  // namespace
}  // namespace vesk_test

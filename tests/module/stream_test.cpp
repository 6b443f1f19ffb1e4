// The stream as a record: its life, the range it covers, and the operations on all its blocks.

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskStream;

constexpr unsigned long kTwoTo63 = 1UL << 63;
constexpr long kSmallest = static_cast<long>(kTwoTo63);
constexpr long kLargest = static_cast<long>(kTwoTo63 - 1);

// The two words of a time value, whatever their names.
using TimeWords = std::array<unsigned long, 2>;

TimeWords Words(const vesk::vesk_custom_time& value) {
  static_assert(sizeof(TimeWords) == sizeof value);
  TimeWords words{};
  std::memcpy(words.data(), &value, sizeof value);
  return words;
}

vesk::vesk_custom_time Time(unsigned long first, unsigned long second) {
  const TimeWords words{first, second};
  vesk::vesk_custom_time value;
  std::memcpy(&value, words.data(), sizeof value);
  return value;
}

// `stream` covers nothing, at offset 0, until a test says otherwise.
class StreamTest : public OneStreamTest {
 protected:
  // The lines of the range's new end and of its new start.
  static std::string Tail(const std::string& off, const std::string& len,
                          const std::string& data_len) {
    return "Debug 411 f CurrentValidLength1 O:" + off + " L:" + len + " DL:" + data_len + "\n";
  }
  static std::string Head(const std::string& off, const std::string& len,
                          const std::string& data_len) {
    return "Debug 423 f CurrentValidLength2 O:" + off + " L:" + len + " DL:" + data_len + "\n";
  }

  static std::string StreamDump(const VeskStream& dumped, const std::string& off,
                                const std::string& len, const std::string& pos) {
    return "Dump 462 Dump STREAM(" + P(&dumped) + ") -> off:" + off + " len:" + len +
           " pos:" + pos + " \n";
  }

  // Of a block that ModuleTest::Add has made.
  static std::string BlockDump(const VeskBuffer& block, const std::string& state_name) {
    return "Dump 121 Dump BUFFER(" + P(&block) + ") bptr:" + P(block.bptr) +
           " size:" + std::to_string(block.size) + " state:" + std::to_string(block.state) + "(" +
           state_name + ") off:" + std::to_string(block.off) +
           " dlen:" + std::to_string(block.dlen) + " blen:" + std::to_string(block.blen) +
           " skip:0 ltime:1000000 rc:0 job:" + P(block.job) +
           " dirty_length=" + std::to_string(block.dirty_length) + "\n";
  }

  // `stream` writes the line of this length and returns it.
  void ExpectMaxLen(unsigned long expected) {
    EXPECT_EQ(stream.GetMaxLen(), expected);
    ExpectLog({"Debug 441 VeskStream::GetMaxLen len=" + std::to_string(expected) + "\n"});
  }

  // The lines of a failed check as `echo` writes them, for tests that end the process.
  static std::string EchoedAssertion(int site, const std::string& message) {
    std::string text;
    for (const std::string& line : Assertion(site, message)) text += line + "\n";
    return text;
  }
};

// --- Life ----------------------------------------------------------------------------------------

TEST_F(StreamTest, ANameThatCannotBeCopiedIsOutOfMemory) {
  const std::string long_name(100, 'n');
  int code = 0;
  {
    const FailingAllocation failing(1);
    try {
      const VeskStream unmade(long_name, bundler, 0, 0, 0);
    } catch (const vesk::VeskException& thrown) {
      code = thrown.code;
    }
    EXPECT_TRUE(failing.Fired());
  }
  EXPECT_EQ(code, 1001);
  ExpectLog(Assertion(398, "Out of memory"));
}

TEST_F(StreamTest, NewStreamStartsAtItsInitialOffsetWithoutBlocks) {
  std::string given = "a/b";
  // On memory that holds anything but zeros: every field is the constructor's doing.
  alignas(VeskStream) unsigned char memory_of_stream[sizeof(VeskStream)];
  std::memset(memory_of_stream, 0xa5, sizeof memory_of_stream);
  auto* const made = new (memory_of_stream) VeskStream(given, bundler, 4096, 100, 77);
  given = "changed";

  EXPECT_EQ(made->name, "a/b");
  EXPECT_EQ(made->bundler, bundler);
  EXPECT_EQ(made->io_cookie, 77u);
  EXPECT_EQ(made->stream_tag, 3u);
  EXPECT_EQ(made->curr_off, 4096u);
  EXPECT_EQ(made->curr_len, 100);
  EXPECT_EQ(made->curr_pos, 4096u);  // the offset, not the range's end
  EXPECT_EQ(made->last_buffer, nullptr);
  EXPECT_TRUE(made->buffers.empty());
  EXPECT_EQ(made->pending_io, 0u);
  EXPECT_EQ(made->aux_count, 0u);
  EXPECT_EQ(Words(made->start_read_time), (TimeWords{0, 0}));
  EXPECT_EQ(pthread_mutex_trylock(&made->stream_mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&made->stream_mutex), 0);
  ExpectLog({});
  made->~VeskStream();
}

TEST_F(StreamTest, InitialLengthIsTakenAsItIs) {
  const VeskStream made(name, bundler, 1, ~0UL, 0);
  EXPECT_EQ(made.curr_len, -1);
  ExpectLog({});
}

TEST_F(StreamTest, InitialValuesAre64BitsWide) {
  const unsigned long wide = (5UL << 32) + 7;
  const VeskStream made(name, bundler, wide, wide + 1, wide + 2);
  EXPECT_EQ(made.curr_off, wide);
  EXPECT_EQ(made.curr_len, static_cast<long>(wide + 1));
  EXPECT_EQ(made.curr_pos, wide);
  EXPECT_EQ(made.io_cookie, wide + 2);
}

TEST_F(StreamTest, DestructionFreesBlocksInAnyCleanStateAndPassesOverNullEntries) {
  const long before = LiveAllocations();
  {
    VeskStream gone("a name that does not fit into the string itself", bundler, 0, 0, 0);
    gone.buffers.push_back(nullptr);
    Add(gone, 0, 4096, 4096, VALID);
    Add(gone, 4096, 4096, 0, INV);
    gone.buffers.push_back(nullptr);
    Add(gone, 8192, 4096, 10, VALID | END_OF_FILE);
    Add(gone, 12288, 0, 0, 0);
    gone.buffers.push_back(nullptr);
    gone.last_buffer = gone.buffers.back();
  }
  EXPECT_EQ(LiveAllocations(), before);
  ExpectLog({});
}

TEST_F(StreamTest, DestructionNeitherFlushesNorWaitsNorAsksForReadsInFlight) {
  {
    VeskStream gone(name, bundler, 0, 4096, 0);
    Add(gone, 0, 4096, 4096, VALID);
    gone.pending_io = 5;
  }
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_TRUE(pool->pending_streams.empty());
  ExpectLog({});
}

TEST_F(StreamTest, DestructionLeavesTheJobOfAnIdleBlockToOthers) {
  vesk::VeskJob* job = nullptr;
  {
    VeskStream gone(name, bundler, 0, 4096, 0);
    VeskBuffer* const block = AddBusy(gone, 0, 4096, 0, IOR);
    block->state = VALID;
    job = block->job;
  }
  EXPECT_EQ(References(job), 2);
  vesk::VeskJob::RefCountDec(job);  // the block's
}

class StreamDeathTest : public StreamTest {
 protected:
  StreamDeathTest() {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    logger.echo = true;
  }

  // Destroys a stream with a clean block before one in this state.
  void DestroyWith(unsigned int state) {
    VeskStream gone(name, bundler, 0, 8192, 0);
    Add(gone, 0, 4096, 4096, VALID);
    Add(gone, 4096, 4096, 4096, state);
  }
};

TEST_F(StreamDeathTest, DestroyingAStreamWithADirtyBlockEndsTheProcess) {
  EXPECT_DEATH(DestroyWith(DIRTY), EchoedAssertion(110, "buffer dirty 2\n"));
  EXPECT_DEATH(DestroyWith(VALID | DIRTY), EchoedAssertion(110, "buffer dirty 6\n"));
}

TEST_F(StreamDeathTest, DestroyingAStreamWithAJobInFlightEndsTheProcess) {
  EXPECT_DEATH(DestroyWith(IOR), EchoedAssertion(108, "buffer io in progress 8\n"));
  EXPECT_DEATH(DestroyWith(IOW | END_OF_FILE), EchoedAssertion(108, "buffer io in progress 48\n"));
  EXPECT_DEATH(DestroyWith(IOW | DIRTY), EchoedAssertion(108, "buffer io in progress 18\n"));
}

// --- Range and position --------------------------------------------------------------------------

TEST_F(StreamTest, NewLastBlockMovesTheEndOfTheRange) {
  Cover(4096, 0, 4096);
  stream.UpdateCurrOffLenPos(2, 8192, 4096, 0);
  ExpectRange(4096, 8192, 8192);
  ExpectLog({Tail("4096", "8192", "0")});
}

TEST_F(StreamTest, NewLastBlockMayMoveTheEndBack) {
  Cover(0, 100000, 50000);
  stream.UpdateCurrOffLenPos(2, 4096, 10, 3);
  ExpectRange(0, 4106, 4096);
  ExpectLog({Tail("0", "4106", "3")});
}

TEST_F(StreamTest, NewFirstBlockMovesTheStartOfTheRangeAndKeepsItsEnd) {
  Cover(4096, 8192, 5000);
  stream.UpdateCurrOffLenPos(1, 0, 10, 0);
  ExpectRange(0, 12288, 0);
  ExpectLog({Head("0", "12288", "0")});
}

TEST_F(StreamTest, NewFirstBlockMayMoveTheStartUp) {
  Cover(4096, 8192, 5000);
  stream.UpdateCurrOffLenPos(1, 6000, 10, 3);
  ExpectRange(6000, 6288, 6000);
  ExpectLog({Head("6000", "6288", "3")});
}

TEST_F(StreamTest, BlockBetweenTwoOthersMovesThePositionOnly) {
  for (const unsigned int position : {3u, 0u, 4u, ~0u}) {
    Cover(4096, 8192, 5000);
    stream.UpdateCurrOffLenPos(position, 100, 10, 1);
    ExpectRange(4096, 8192, 100);
  }
  ExpectLog({});
}

TEST_F(StreamTest, NewLastBlockMayEndWhereTheRangeStarts) {
  Cover(4096, 50, 1);
  stream.UpdateCurrOffLenPos(2, 4000, 96, 0);
  ExpectRange(4096, 0, 4000);
  ExpectLog({Tail("4096", "0", "0")});
}

TEST_F(StreamTest, NewLastBlockThatEndsBeforeTheRangeIsAnInconsistency) {
  Cover(4096, 50, 1);
  ExpectAssertion(413, "Negative CurrentValidLength1 CO:4096 L:95 O:4000\n",
                  [this] { stream.UpdateCurrOffLenPos(2, 4000, 95, 7); },
                  {Tail("4096", "-1", "7")});
  ExpectRange(4096, -1, 1);
}

TEST_F(StreamTest, NewLastBlockMayReachTheLargestLength) {
  stream.UpdateCurrOffLenPos(2, kTwoTo63 - 11, 10, 0);
  ExpectRange(0, kLargest, kTwoTo63 - 11);
  ExpectLog({Tail("0", "-1", "0")});
}

TEST_F(StreamTest, LengthBeyondTheLargestIsNegative) {
  Cover(0, 50, 1);
  ExpectAssertion(413, "Negative CurrentValidLength1 CO:0 L:10 O:9223372036854775798\n",
                  [this] { stream.UpdateCurrOffLenPos(2, kTwoTo63 - 10, 10, 0); },
                  {Tail("0", "0", "0")});
  ExpectRange(0, kSmallest, 1);
}

TEST_F(StreamTest, EndOfANewLastBlockWraps) {
  stream.UpdateCurrOffLenPos(2, ~0UL - 9, 30, 0);
  ExpectRange(0, 20, ~0UL - 9);
  ExpectLog({Tail("0", "20", "0")});
}

TEST_F(StreamTest, LengthsOfBlocksAreWidenedWithoutSign) {
  stream.UpdateCurrOffLenPos(2, 0, ~0u, ~0u);
  ExpectRange(0, 4294967295, 0);
  ExpectLog({Tail("0", "-1", "-1")});

  Cover(1UL << 33, 50, 1);
  ExpectAssertion(413, "Negative CurrentValidLength1 CO:8589934592 L:4294967295 O:5\n",
                  [this] { stream.UpdateCurrOffLenPos(2, 5, ~0u, 0); },
                  {Tail("8589934592", "4", "0")});
  ExpectRange(1UL << 33, 4 - (1L << 32), 1);
}

TEST_F(StreamTest, RangeLinesPrintTheLow32BitsOfLengthsAndTheWholeOffset) {
  Cover(~0UL - 99, 0, 1);
  stream.UpdateCurrOffLenPos(2, (1UL << 32) - 95, 0, 1u << 31);
  ExpectRange(~0UL - 99, (1L << 32) + 5, (1UL << 32) - 95);
  ExpectLog({Tail("-100", "5", "-2147483648")});

  Cover(~0UL - 99, 1L << 32, 1);
  stream.UpdateCurrOffLenPos(1, ~0UL - 104, 0, 1u << 31);
  ExpectRange(~0UL - 104, (1L << 32) + 5, ~0UL - 104);
  ExpectLog({Head("-105", "5", "-2147483648")});
}

TEST_F(StreamTest, NewFirstBlockMayStandWhereTheRangeEnds) {
  Cover(4096, 8192, 1);
  stream.UpdateCurrOffLenPos(1, 12288, 10, 0);
  ExpectRange(12288, 0, 12288);
  ExpectLog({Head("12288", "0", "0")});
}

TEST_F(StreamTest, NewFirstBlockBeyondTheRangeIsAnInconsistency) {
  Cover(4096, 8192, 1);
  ExpectAssertion(420, "Negative CurrentValidLength2 CO:4096 CL:-1 O:12289\n",
                  [this] { stream.UpdateCurrOffLenPos(1, 12289, 10, 0); });
  ExpectRange(4096, -1, 1);
}

TEST_F(StreamTest, NewFirstBlockMayStretchTheRangeToTheLargestLength) {
  Cover(1, kLargest - 1, 7);
  stream.UpdateCurrOffLenPos(1, 0, 10, 0);
  ExpectRange(0, kLargest, 0);
  ExpectLog({Head("0", "-1", "0")});
}

TEST_F(StreamTest, NewFirstBlockThatStretchesTheRangeTooFarIsAnInconsistency) {
  Cover(1, kLargest, 7);
  ExpectAssertion(420, "Negative CurrentValidLength2 CO:1 CL:-9223372036854775808 O:0\n",
                  [this] { stream.UpdateCurrOffLenPos(1, 0, 10, 0); });
  ExpectRange(1, kSmallest, 7);
}

// --- End of the valid data -----------------------------------------------------------------------

TEST_F(StreamTest, StreamWithoutBlocksHasNoData) {
  Cover(4096, 100, 4096);
  ExpectMaxLen(0);
}

TEST_F(StreamTest, DataCountsUnlessItIsInvalidOrBeingRead) {
  VeskBuffer* const block = Add(stream, 4096, 4096, 100, VALID);
  for (unsigned int state = 0; state < ALL_STATES; ++state) {
    SCOPED_TRACE(state);
    block->state = state;
    ExpectMaxLen((state & (INV | IOR)) == 0 ? 4196 : 0);
  }
}

TEST_F(StreamTest, ReadInFlightDoesNotExtendTheData) {
  Add(stream, 0, 4096, 4096, VALID);
  VeskBuffer* const second = Add(stream, 4096, 4096, 4096, IOR);
  ExpectMaxLen(4096);
  second->state = VALID | END_OF_FILE;
  second->dlen = 100;
  ExpectMaxLen(4196);
}

TEST_F(StreamTest, LargestEndCountsWhereverItStands) {
  Add(stream, 0, 4096, 10, VALID);
  Add(stream, 100000, 4096, 4, DIRTY);
  Add(stream, 4096, 4096, 4096, IOW);
  ExpectMaxLen(100004);
}

TEST_F(StreamTest, NullEntriesHaveNoData) {
  stream.buffers.push_back(nullptr);
  Add(stream, 0, 4096, 10, VALID);
  stream.buffers.push_back(nullptr);
  ExpectMaxLen(10);
}

TEST_F(StreamTest, DataEndsAreUnsignedAnd64BitsWide) {
  VeskBuffer* const block = Add(stream, 1, 16, 0, VALID);
  block->dlen = ~0u;
  ExpectMaxLen(1UL << 32);
  Add(stream, ~0UL - 9, 16, 9, VALID);
  ExpectMaxLen(~0UL);
  stream.buffers.back()->dlen = 10;  // wraps to 0
  ExpectMaxLen(1UL << 32);
}

TEST_F(StreamTest, MutexIsNotNeededToLookAtTheStream) {
  Add(stream, 0, 4096, 10, VALID | END_OF_FILE);
  pthread_mutex_lock(&stream.stream_mutex);
  EXPECT_EQ(stream.GetMaxLen(), 10u);
  stream.setStartReadTime(Time(1, 2));
  stream.RemoveEOF();
  stream.Dump();
  stream.UpdateCurrOffLenPos(2, 0, 4096, 0);
  pthread_mutex_unlock(&stream.stream_mutex);
  logger.lines.clear();
}

// --- Start time ----------------------------------------------------------------------------------

TEST_F(StreamTest, StartTimeIsStoredWhole) {
  stream.setStartReadTime(Time(0x0123456789abcdef, ~0UL));
  EXPECT_EQ(Words(stream.start_read_time), (TimeWords{0x0123456789abcdef, ~0UL}));
  stream.setStartReadTime(Time(0, 1));
  EXPECT_EQ(Words(stream.start_read_time), (TimeWords{0, 1}));
  ExpectLog({});
  EXPECT_EQ(clock_reads, 0);
}

// --- End of file ---------------------------------------------------------------------------------

TEST_F(StreamTest, RemoveEofClearsTheMarkAndNothingElse) {
  VeskBuffer* const block = Add(stream, 0, 4096, 10, VALID);
  for (unsigned int state = 0; state < ALL_STATES; ++state) {
    SCOPED_TRACE(state);
    block->state = state;
    stream.RemoveEOF();
    EXPECT_EQ(block->state, state & ~END_OF_FILE);
    ExpectLog((state & END_OF_FILE) != 0 ? Lines{"Debug 129 f Remove EOF\n"} : Lines{});
  }
}

TEST_F(StreamTest, RemoveEofVisitsEveryBlock) {
  Add(stream, 0, 4096, 10, VALID | END_OF_FILE);
  Add(stream, 4096, 4096, 10, VALID);
  Add(stream, 8192, 4096, 10, DIRTY | END_OF_FILE);
  Add(stream, 12288, 4096, 10, IOW | END_OF_FILE);
  stream.name = "g";
  stream.RemoveEOF();
  std::vector<unsigned int> states;
  for (const VeskBuffer* block : stream.buffers) states.push_back(block->state);
  EXPECT_EQ(states, (std::vector<unsigned int>{VALID, VALID, DIRTY, IOW}));
  ExpectLog({"Debug 129 g Remove EOF\n", "Debug 129 g Remove EOF\n", "Debug 129 g Remove EOF\n"});
}

TEST_F(StreamTest, RemoveEofOfAStreamWithoutBlocksDoesNothing) {
  stream.RemoveEOF();
  ExpectLog({});
}

// --- Dump ----------------------------------------------------------------------------------------

TEST_F(StreamTest, NewStreamDumpsItsInitialOffset) {
  const VeskStream made(name, bundler, 4096, 0, 0);
  made.Dump();
  ExpectLog({StreamDump(made, "4096", "0", "4096")});
}

TEST_F(StreamTest, DumpShowsTheStreamThenItsBlocksInOrderWithoutNullEntries) {
  Cover(4096, 12288, 5);
  stream.buffers.push_back(nullptr);
  const VeskBuffer* const first = Add(stream, 4096, 4096, 10, VALID);
  const VeskBuffer* const second = AddBusy(stream, 8192, 4096, 20, IOW);
  stream.buffers.push_back(nullptr);
  const VeskBuffer* const third = Add(stream, 12288, 4096, 30, DIRTY | END_OF_FILE);
  stream.Dump();
  ExpectLog({StreamDump(stream, "4096", "12288", "5"), BlockDump(*first, "VALID"),
             BlockDump(*second, "IOW"), BlockDump(*third, "DIRTY")});
}

TEST_F(StreamTest, DumpPrintsTheLow32BitsOfTheLengthWithoutSign) {
  Cover(0, (1L << 32) + 5, 0);
  stream.Dump();
  Cover(0, -1, 0);
  stream.Dump();
  ExpectLog({StreamDump(stream, "0", "5", "0"), StreamDump(stream, "0", "4294967295", "0")});
}

TEST_F(StreamTest, DumpPrintsOffsetsWithoutSign) {
  Cover(~0UL, 0, ~0UL - 1);
  stream.Dump();
  ExpectLog({StreamDump(stream, "18446744073709551615", "0", "18446744073709551614")});
}

}  // namespace
}  // namespace vesk_test

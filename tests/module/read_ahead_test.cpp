// Read-ahead: how many blocks are appended, how long they are, and the reads started on them.

#include <iterator>
#include <optional>
#include <ostream>

#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskStream;

constexpr unsigned int kMany = 1000;  // a limit that does not matter
constexpr unsigned long kFar = 1UL << 40;

// A stream that covers [0, 4096) with one block; the reader is at 0.
class ReadAheadTest : public ModuleTest {
 protected:
  ~ReadAheadTest() override { Clean(stream); }

  void ReadAhead(unsigned long off, unsigned long maxoff, unsigned int bufsize,
                 unsigned int maxbufs, unsigned int maxpending) {
    stream.ReadAhead(&lock, off, maxoff, bufsize, maxbufs, maxpending, nullptr);
  }

  static std::string Pending(const std::string& count) {
    return "Debug 806 f Pending " + count + "\n";
  }

  // The lines of block number `i` of the list, as read-ahead has appended it; the lines of marks
  // removed, if any, stand between them.
  Lines Appended(std::ptrdiff_t i, unsigned int bufsize, unsigned long maxoff,
                 const Lines& removed = {}) const {
    const VeskBuffer& block = **std::next(stream.buffers.begin(), i);
    const std::string off = std::to_string(block.off);
    const std::string len = std::to_string(block.blen);
    return Join({{"Debug 493 f New buffer O:" + off + " L:" + len +
                      " AS:" + std::to_string(bufsize) + " ML:" + std::to_string(maxoff) + "\n",
                  "Debug 411 f CurrentValidLength1 O:" + std::to_string(stream.curr_off) +
                      " L:" + std::to_string(block.off + block.blen - stream.curr_off) + " DL:0\n"},
                 removed,
                 {"Debug 254 f Creating Read job " + P(block.job) + " O:" + off + " L:" + len +
                  " ST:8\n"}});
  }

  // Offsets and lengths of the blocks.
  struct Extent {
    unsigned long off;
    unsigned int blen;
    bool operator==(const Extent& other) const { return off == other.off && blen == other.blen; }
    friend std::ostream& operator<<(std::ostream& out, const Extent& extent) {
      return out << extent.off << '+' << extent.blen;
    }
  };
  void ExpectBlocks(const std::vector<Extent>& expected) const {
    std::vector<Extent> found;
    for (const VeskBuffer* block : stream.buffers) found.push_back({block->off, block->blen});
    EXPECT_EQ(found, expected);
  }

  // Takes the last block, cleaned, out of the stream.
  VeskBuffer* Detach() {
    VeskBuffer* const block = stream.buffers.back();
    stream.buffers.pop_back();
    Clean(*block);
    return block;
  }

  // No block was appended and no read started.
  void ExpectNothingStarted(std::size_t blocks) {
    EXPECT_EQ(stream.buffers.size(), blocks);
    EXPECT_TRUE(dispatcher.submitted.empty());
    EXPECT_EQ(stream.pending_io, 0u);
    EXPECT_TRUE(pool->pending_streams.empty());
  }

  VeskStream stream{name, bundler, 0, 4096, 0};
  VeskBuffer* const first = Add(stream, 0, 4096, 4096, VALID);
};

TEST_F(ReadAheadTest, StreamWithoutBlocksIsNotExtended) {
  VeskStream empty(name, bundler, 0, 0, 0);
  empty.ReadAhead(&lock, 0, kFar, 4096, kMany, 3, nullptr);
  EXPECT_TRUE(empty.buffers.empty());
  ExpectNothingStarted(1);
  ExpectLog({Pending("0")});
}

TEST_F(ReadAheadTest, BlocksAreAppendedBackToBackFromTheEndOfTheLastOne) {
  ReadAhead(0, kFar, 1000, kMany, 3);
  ExpectBlocks({{0, 4096}, {4096, 1000}, {5096, 1000}, {6096, 1000}});
  ExpectLog(Join(
      {{Pending("0")}, Appended(1, 1000, kFar), Appended(2, 1000, kFar), Appended(3, 1000, kFar)}));
  EXPECT_EQ(stream.curr_off, 0u);
  EXPECT_EQ(stream.curr_len, 7096);
  EXPECT_EQ(stream.curr_pos, 6096u);
}

TEST_F(ReadAheadTest, EachBlockGetsAReadThatNobodyWaitsFor) {
  clock_now = kStart + 5;
  ReadAhead(0, 5000, 600, kMany, 3);
  ExpectBlocks({{0, 4096}, {4096, 600}, {4696, 304}});
  ASSERT_EQ(dispatcher.submitted.size(), 2u);
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(stream.pending_io, 2u);
  std::size_t i = 0;
  for (auto it = std::next(stream.buffers.begin()); it != stream.buffers.end(); ++it, ++i) {
    SCOPED_TRACE(i);
    VeskBuffer& block = **it;
    vesk::VeskJob* const job = dispatcher.submitted[i];
    EXPECT_EQ(block.job, job);
    EXPECT_EQ(block.state, IOR);
    EXPECT_EQ(block.dlen, 0u);
    EXPECT_EQ(block.ltime, kStart + 5);
    EXPECT_EQ(job->owner_stream, &stream);
    EXPECT_EQ(JobType(job), 1);
    EXPECT_EQ(References(job), 2);
    EXPECT_EQ(CountAddress(job), &block.dlen);
    const Operation operation = DescribeOperation(job);
    EXPECT_EQ(operation.code, 9u);
    EXPECT_EQ(operation.flags, 0u);
    EXPECT_EQ(operation.arguments,
              (Lines{"string f", "ptr " + P(block.bptr), "int " + std::to_string(block.blen),
                     "ulong " + std::to_string(block.off), "ptr " + P(&block.dlen)}));
  }
  EXPECT_EQ(first->job, nullptr);
}

// --- Limits --------------------------------------------------------------------------------------

TEST_F(ReadAheadTest, BlocksThatStartBeyondTheReaderArePending) {
  Add(stream, 4096, 4096, 4096, VALID);
  Add(stream, 8192, 4096, 10, DIRTY);
  Add(stream, ~0UL - 9, 5, 5, IOW);
  struct Row {
    unsigned long off;
    const char* pending;
  };
  for (const Row& row : {Row{0, "3"}, Row{4095, "3"}, Row{4096, "2"}, Row{8191, "2"},
                         Row{8192, "1"}, Row{~0UL - 10, "1"}, Row{~0UL - 9, "0"}, Row{~0UL, "0"}}) {
    SCOPED_TRACE(row.off);
    ReadAhead(row.off, 1, 4096, kMany, kMany);
    ExpectLog({Pending(row.pending)});
  }
  ExpectNothingStarted(4);
}

TEST_F(ReadAheadTest, BlockThatStartsAtTheReaderIsNotPendingAndOneByteBehindItIs) {
  Add(stream, 4096, 4096, 4096, VALID);
  ReadAhead(4095, kFar, 4096, kMany, 1);
  ExpectNothingStarted(2);
  ExpectLog({Pending("1")});
  ReadAhead(4096, kFar, 4096, kMany, 1);
  ExpectBlocks({{0, 4096}, {4096, 4096}, {8192, 4096}});
  ExpectLog(Join({{Pending("0")}, Appended(2, 4096, kFar)}));
}

TEST_F(ReadAheadTest, NothingIsAppendedWithoutReadAhead) {
  ReadAhead(0, kFar, 4096, kMany, 0);
  ExpectNothingStarted(1);
  ExpectLog({Pending("0")});
}

TEST_F(ReadAheadTest, BlocksThatWerePendingBeforeCount) {
  Add(stream, 4096, 4096, 4096, VALID);
  Add(stream, 8192, 4096, 4096, VALID);
  stream.curr_len = 12288;
  ReadAhead(0, kFar, 4096, kMany, 1);
  ExpectLog({Pending("2")});
  ReadAhead(0, kFar, 4096, kMany, 2);
  ExpectLog({Pending("2")});
  ExpectNothingStarted(3);
  ReadAhead(0, kFar, 4096, kMany, 3);
  ExpectLog(Join({{Pending("2")}, Appended(3, 4096, kFar)}));
  EXPECT_EQ(dispatcher.submitted.size(), 1u);
}

TEST_F(ReadAheadTest, BlocksAppendedAtOrBehindTheReaderCountAsPendingAll) {
  ReadAhead(1UL << 30, kFar, 4096, kMany, 2);
  ExpectBlocks({{0, 4096}, {4096, 4096}, {8192, 4096}});
}

TEST_F(ReadAheadTest, NothingIsAppendedWhenTheLastBlockReachesTheLimit) {
  ReadAhead(0, 4096, 4096, kMany, 3);
  ExpectLog({Pending("0")});
  ReadAhead(0, 4095, 4096, kMany, 3);
  ExpectLog({Pending("0")});
  ReadAhead(0, 0, 4096, kMany, 3);
  ExpectLog({Pending("0")});
  ExpectNothingStarted(1);
}

TEST_F(ReadAheadTest, LastBlockIsShortenedToTheLimit) {
  ReadAhead(0, 4097, 4096, kMany, 3);
  ExpectBlocks({{0, 4096}, {4096, 1}});
  ExpectLog(Join({{Pending("0")}, Appended(1, 4096, 4097)}));
}

TEST_F(ReadAheadTest, BlockThatEndsAtTheLimitIsTheLast) {
  ReadAhead(0, 12288, 4096, kMany, 3);
  ExpectBlocks({{0, 4096}, {4096, 4096}, {8192, 4096}});
  ExpectLog(Join({{Pending("0")}, Appended(1, 4096, 12288), Appended(2, 4096, 12288)}));
}

TEST_F(ReadAheadTest, BlocksContinueWhereTheLastOneEndsWhateverItHolds) {
  for (const unsigned int state : {INV, DIRTY, VALID, IOR, IOW, 0u}) {
    SCOPED_TRACE(state);
    VeskStream other(name, bundler, 0, 4096, 0);
    Add(other, 0, 4096, 100, state);
    other.ReadAhead(&lock, 0, kFar, 512, kMany, 1, nullptr);
    ASSERT_EQ(other.buffers.size(), 2u);
    EXPECT_EQ(other.buffers.back()->off, 4096u);
    EXPECT_EQ(other.buffers.front()->state, state);
    Clean(other);
  }
}

TEST_F(ReadAheadTest, LengthOfTheLastBlockIsWidenedWithoutSign) {
  first->blen = 3000000000;
  ReadAhead(0, kFar, 16, kMany, 1);
  EXPECT_EQ(stream.buffers.back()->off, 3000000000u);
}

TEST_F(ReadAheadTest, StreamHoldsAtMostMaxbufsBlocks) {
  Add(stream, 4096, 4096, 4096, VALID);
  for (const unsigned int maxbufs : {0u, 1u, 2u}) {
    SCOPED_TRACE(maxbufs);
    ReadAhead(8192, kFar, 4096, maxbufs, 3);  // nothing lies ahead of the reader
    ExpectLog({Pending("0")});
  }
  ExpectNothingStarted(2);
  ReadAhead(8192, kFar, 4096, 3, 3);
  ExpectBlocks({{0, 4096}, {4096, 4096}, {8192, 4096}});
  ExpectLog(Join({{Pending("0")}, Appended(2, 4096, kFar)}));
}

TEST_F(ReadAheadTest, MaxbufsEndsTheLoopToo) {
  ReadAhead(0, kFar, 4096, 4, kMany);
  EXPECT_EQ(stream.buffers.size(), 4u);
  EXPECT_EQ(dispatcher.submitted.size(), 3u);
}

TEST_F(ReadAheadTest, NothingIsAppendedBehindTheEndOfTheFile) {
  first->state = VALID | END_OF_FILE;
  ReadAhead(0, kFar, 4096, kMany, 3);
  ExpectNothingStarted(1);
  EXPECT_EQ(first->state, VALID | END_OF_FILE);
  ExpectLog({Pending("0")});
}

TEST_F(ReadAheadTest, EndOfFileMarkOfAnEarlierBlockDoesNotCountAndIsRemoved) {
  first->state = VALID | END_OF_FILE;
  Add(stream, 4096, 4096, 4096, VALID);
  ReadAhead(0, kFar, 4096, kMany, 3);
  EXPECT_EQ(first->state, VALID);
  ExpectLog(Join({{Pending("1")},
                  Appended(2, 4096, kFar, {"Debug 129 f Remove EOF\n"}),
                  Appended(3, 4096, kFar)}));
}

TEST_F(ReadAheadTest, EndOfFileIsAskedOfTheBlockThatWasLastBefore) {
  dispatcher.on_submit = [this](vesk::VeskJob*) { stream.buffers.back()->state |= END_OF_FILE; };
  ReadAhead(0, 12288, 4096, kMany, 3);
  EXPECT_EQ(dispatcher.submitted.size(), 2u);  // a mark on the block appended does not stop it
  EXPECT_EQ(stream.buffers.size(), 3u);
  EXPECT_EQ(stream.buffers.back()->state, IOR | END_OF_FILE);
}

TEST_F(ReadAheadTest, EndOfFileThatAppearsOnTheBlockThatWasLastBeforeEndsTheLoop) {
  dispatcher.on_submit = [this](vesk::VeskJob*) { first->state |= END_OF_FILE; };
  ReadAhead(0, kFar, 4096, kMany, 3);
  ExpectBlocks({{0, 4096}, {4096, 4096}});
  EXPECT_EQ(first->state, VALID | END_OF_FILE);
}

TEST_F(ReadAheadTest, ReadThatEndsAtOnceAtTheEndOfTheFileIsNotLookedAt) {
  dispatcher.on_submit = [this](vesk::VeskJob* job) { dispatcher.FinishRead(job, 0, -2); };
  ReadAhead(0, kFar, 4096, kMany, 3);
  EXPECT_EQ(stream.buffers.size(), 4u);
  for (auto it = std::next(stream.buffers.begin()); it != stream.buffers.end(); ++it) {
    EXPECT_EQ((*it)->state, IOR);
    EXPECT_NE((*it)->job, nullptr);
  }
  EXPECT_EQ(stream.pending_io, 3u);
}

TEST_F(ReadAheadTest, BlocksWithoutLengthAreAppendedUpToTheOtherLimits) {
  ReadAhead(0, kFar, 0, kMany, 3);
  ExpectBlocks({{0, 4096}, {4096, 0}, {4096, 0}, {4096, 0}});
  EXPECT_EQ(dispatcher.submitted.size(), 3u);
}

TEST_F(ReadAheadTest, EndOfTheLastBlockWraps) {
  first->off = ~0UL - 4095;
  stream.curr_off = first->off;
  ReadAhead(0, kFar, 4096, kMany, 2);  // the first block is pending itself
  ASSERT_EQ(stream.buffers.size(), 2u);
  EXPECT_EQ(stream.buffers.back()->off, 0u);
  EXPECT_EQ(stream.curr_len, 8192);
}

// --- The thread pool -----------------------------------------------------------------------------

TEST_F(ReadAheadTest, StreamIsMarkedForTheThreadPool) {
  pool->pending_streams["f"] = 0;
  pool->pending_streams["other"] = 7;
  ReadAhead(0, kFar, 4096, kMany, 2);
  EXPECT_EQ(pool->pending_streams.size(), 2u);
  EXPECT_EQ(pool->pending_streams["f"], 1);
  EXPECT_EQ(pool->pending_streams["other"], 7);
  EXPECT_EQ(pthread_mutex_trylock(&pool->tp_mutex), 0);
  pthread_mutex_unlock(&pool->tp_mutex);
}

TEST_F(ReadAheadTest, StreamIsMarkedAfterEachReadThatWasStarted) {
  std::vector<std::size_t> marked;  // at each submission
  dispatcher.on_submit = [this, &marked](vesk::VeskJob*) {
    marked.push_back(pool->pending_streams.size());
    pool->pending_streams.clear();
  };
  ReadAhead(0, kFar, 4096, kMany, 3);
  EXPECT_EQ(marked, (std::vector<std::size_t>{0, 1, 1}));
  EXPECT_EQ(pool->pending_streams.size(), 1u);
}

TEST_F(ReadAheadTest, ReadsAreStartedWithoutAThreadPool) {
  env.thread_pool = nullptr;
  ReadAhead(0, kFar, 4096, kMany, 2);
  EXPECT_EQ(dispatcher.submitted.size(), 2u);
  EXPECT_EQ(stream.pending_io, 2u);
  EXPECT_TRUE(pool->pending_streams.empty());
}

// --- Failures ------------------------------------------------------------------------------------

TEST_F(ReadAheadTest, NinetyNineBlocksMayBeStartedByOneCall) {
  ReadAhead(0, kFar, 16, kMany, 99);
  EXPECT_EQ(dispatcher.submitted.size(), 99u);
  EXPECT_EQ(stream.buffers.size(), 100u);
}

TEST_F(ReadAheadTest, HundredthBlockFailsAfterItsReadWasStarted) {
  EXPECT_EQ(Thrown([this] { ReadAhead(0, kFar, 16, kMany, 100); }), 1001);
  EXPECT_EQ(dispatcher.submitted.size(), 100u);
  EXPECT_EQ(stream.buffers.size(), 101u);
  EXPECT_EQ(stream.pending_io, 100u);
  EXPECT_EQ(stream.buffers.back()->state, IOR);
  EXPECT_EQ(pool->pending_streams["f"], 1);
  Lines expected = {Pending("0")};
  for (int i = 1; i <= 100; ++i) expected = Join({expected, Appended(i, 16, kFar)});
  ExpectLog(Join({expected, Assertion(836, "Too many readaheads 100")}));
}

TEST_F(ReadAheadTest, HundredthBlockFailsEvenWhenEveryOtherLimitEndsWithIt) {
  EXPECT_EQ(Thrown([this] { ReadAhead(0, 4096 + 100 * 16, 16, 101, 100); }), 1001);
  EXPECT_EQ(logger.lines.at(logger.lines.size() - 2), "Error 836 Too many readaheads 100");
  EXPECT_EQ(dispatcher.submitted.size(), 100u);
}

TEST_F(ReadAheadTest, HundredthBlockIsCheckedAgainstTheLimitFirst) {
  dispatcher.on_submit = [this](vesk::VeskJob*) {
    if (dispatcher.submitted.size() == 100) stream.buffers.back()->blen = 17;
  };
  EXPECT_EQ(Thrown([this] { ReadAhead(0, 4096 + 100 * 16, 16, kMany, kMany); }), 1001);
  EXPECT_EQ(logger.lines.at(logger.lines.size() - 2),
            "Error 831 lastbuf_length too big O:5680 L:17 M_L:5696");
}

TEST_F(ReadAheadTest, BlocksStartedByEarlierCallsDoNotCountForTheLimitOfOne) {
  ReadAhead(0, kFar, 16, kMany, 99);
  ReadAhead(0, kFar, 16, kMany, 198);
  EXPECT_EQ(dispatcher.submitted.size(), 198u);
}

TEST_F(ReadAheadTest, BlockThatReachesBeyondTheLimitIsAnInconsistency) {
  // Grown while its read is being started; up to the limit it may.
  unsigned int growth = 3904;
  dispatcher.on_submit = [this, &growth](vesk::VeskJob*) { stream.buffers.back()->blen += growth; };
  ReadAhead(0, 9000, 1000, kMany, 1);
  ExpectBlocks({{0, 4096}, {4096, 4904}});
  delete Detach();
  logger.lines.clear();

  growth = 3905;
  EXPECT_EQ(Thrown([this] { ReadAhead(0, 9000, 1000, kMany, 2); }), 1001);
  ExpectBlocks({{0, 4096}, {4096, 4905}});
  EXPECT_EQ(dispatcher.submitted.size(), 2u);
  EXPECT_EQ(stream.pending_io, 2u);
  EXPECT_EQ(stream.buffers.back()->state, IOR);
  EXPECT_EQ(pool->pending_streams["f"], 1);
  const std::string job = P(stream.buffers.back()->job);
  ExpectLog(Join({{Pending("0"), "Debug 493 f New buffer O:4096 L:1000 AS:1000 ML:9000\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:5096 DL:0\n",
                   "Debug 254 f Creating Read job " + job + " O:4096 L:1000 ST:8\n"},
                  Assertion(831, "lastbuf_length too big O:4096 L:4905 M_L:9000")}));
}

TEST_F(ReadAheadTest, LengthBeyondTheLimitIsPrintedWithoutSignAndTheLimitWithOne) {
  first->off = ~0UL - 8191;  // ends 4096 before the top
  stream.curr_off = first->off;
  dispatcher.on_submit = [this](vesk::VeskJob*) { stream.buffers.back()->blen = 4095; };
  EXPECT_EQ(Thrown([this] { ReadAhead(0, ~0UL - 5, 1000, kMany, 2); }), 1001);
  EXPECT_EQ(logger.lines.at(logger.lines.size() - 2),
            "Error 831 lastbuf_length too big O:-4096 L:4095 M_L:-6");
  delete Detach();
  first->off = 0;
  stream.curr_off = 0;
  dispatcher.on_submit = [this](vesk::VeskJob*) { stream.buffers.back()->blen = ~0u; };
  EXPECT_EQ(Thrown([this] { ReadAhead(0, 9000, 1000, kMany, 2); }), 1001);
  EXPECT_EQ(logger.lines.at(logger.lines.size() - 2),
            "Error 831 lastbuf_length too big O:4096 L:4294967295 M_L:9000");
}

TEST_F(ReadAheadTest, BlockThatCannotBeAllocatedPassesThrough) {
  ExpectAssertion(491, "Allocation too big 104857600",
                  [this] { ReadAhead(0, kFar, 104857600, kMany, 3); }, {Pending("0")});
  ExpectNothingStarted(1);
}

TEST_F(ReadAheadTest, ReadsStartedBeforeAFailureStay) {
  // No other allocation has the length of the blocks' data areas.
  std::optional<FailingAllocation> failing;
  int data_areas = 0;
  const AllocationWatch watch([&](void* /*memory*/, std::size_t bytes) {
    if (bytes == 777 && ++data_areas == 2) failing.emplace(1);  // the second block's list node
  });
  EXPECT_EQ(Thrown([this] { ReadAhead(0, kFar, 777, kMany, 3); }), 1001);
  EXPECT_TRUE(failing.has_value() && failing->Fired());
  ExpectBlocks({{0, 4096}, {4096, 777}});
  EXPECT_EQ(dispatcher.submitted.size(), 1u);
  EXPECT_EQ(stream.pending_io, 1u);
  EXPECT_EQ(stream.buffers.back()->state, IOR);
  ExpectLog(Join({{Pending("0")},
                  Appended(1, 777, kFar),
                  {"Debug 493 f New buffer O:4873 L:777 AS:777 ML:1099511627776\n"},
                  Assertion(496, "Out of memory")}));
}

TEST_F(ReadAheadTest, ReadThatCannotBeStartedPassesThroughAndItsBlockStays) {
  // Spoilt when its list node is allocated, so that the read refuses it. The record is allocated
  // right before the data area, whose length no other allocation has, and the node right after.
  VeskBuffer* spoilt = nullptr;
  void* record = nullptr;
  bool node_is_next = false;
  const AllocationWatch watch([&](void* allocated, std::size_t bytes) {
    if (node_is_next) {
      spoilt = static_cast<VeskBuffer*>(record);
      spoilt->dirty_length = 6;
    }
    node_is_next = bytes == 777;
    if (bytes == sizeof(VeskBuffer)) record = allocated;
  });
  EXPECT_EQ(Thrown([this] { ReadAhead(0, kFar, 777, kMany, 3); }), 1001);
  ASSERT_NE(spoilt, nullptr);
  EXPECT_EQ(stream.buffers, (std::list<VeskBuffer*>{first, spoilt}));
  EXPECT_EQ(stream.curr_len, 4873);
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_EQ(stream.pending_io, 0u);
  EXPECT_TRUE(pool->pending_streams.empty());
  ExpectLog(Join({{Pending("0"), "Debug 493 f New buffer O:4096 L:777 AS:777 ML:1099511627776\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:4873 DL:0\n"},
                  Assertion(231, "Buffer dirty length not valid 6\n")}));
}

}  // namespace
}  // namespace vesk_test

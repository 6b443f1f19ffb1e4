// Requests end to end: ReadWrite, and its two ways in, Read and Write, over a dispatcher whose jobs
// end when the test says. rw_table_test.cpp holds which action a block leads to; this file, what
// the action does and what the request hands back.

#include <algorithm>
#include <climits>
#include <functional>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskJob;
using vesk::VeskStream;

constexpr unsigned int END = END_OF_FILE;

// A stream without blocks, and what all its tests share.
class RequestTest : public ModuleTest {
 protected:
  ~RequestTest() override { Clean(stream); }

  // Throws when there is none: the test has failed, and the others go on.
  VeskBuffer* block(std::size_t index) {
    if (index >= stream.buffers.size()) throw std::out_of_range("no such block");
    return *std::next(stream.buffers.begin(), static_cast<long>(index));
  }

  static VeskJob* JobOf(const VeskBuffer* block) {
    if (block->job == nullptr) throw std::logic_error("the block has no job");
    return block->job;
  }

  // The job that was submitted last.
  VeskJob* LastJob() { return dispatcher.submitted.at(dispatcher.submitted.size() - 1); }

  // The stream has no blocks any more, for the next case of a test.
  void DropBlocks() {
    Clean(stream);
    for (VeskBuffer* each : stream.buffers) delete each;
    stream.buffers.clear();
    stream.last_buffer = nullptr;
  }

  void SetRange(unsigned long off, long len) {
    stream.curr_off = off;
    stream.curr_len = len;
    stream.curr_pos = off;
  }

  void ExpectRange(unsigned long off, long len, unsigned long pos) {
    EXPECT_EQ(stream.curr_off, off);
    EXPECT_EQ(stream.curr_len, len);
    EXPECT_EQ(stream.curr_pos, pos);
  }

  // The read of `block` ends: the file's bytes are there, as many as `count`.
  void FinishRead(VeskBuffer* block, unsigned int count, int return_value = 0) {
    for (unsigned int i = 0; i < count; ++i) block->bptr[i] = FileByte(block->off + i);
    dispatcher.FinishRead(JobOf(block), count, return_value);
  }

  void FinishWrite(VeskBuffer* block, int return_value = 0) {
    dispatcher.FinishWrite(JobOf(block), return_value);
  }

  // What these tests write to `offset`: differs from what the file holds there.
  static unsigned char NewByte(unsigned long offset) {
    return static_cast<unsigned char>(~FileByte(offset));
  }

  // The caller's memory holds what is to be written at `off`.
  void FillMemory(unsigned long off) {
    for (std::size_t i = 0; i < sizeof memory; ++i) memory[i] = NewByte(off + i);
  }

  // The caller's memory holds a byte that no test expects as data.
  void SoilMemory() { std::fill(std::begin(memory), std::end(memory), kSoil); }

  // memory[from, to) holds the file's bytes of a request that began at `off`.
  void ExpectFileBytes(unsigned long off, unsigned int from, unsigned int to) {
    for (unsigned int i = from; i < to; ++i) ASSERT_EQ(memory[i], FileByte(off + i)) << i;
  }

  void ExpectBytes(unsigned int from, unsigned int to, unsigned char value) {
    for (unsigned int i = from; i < to; ++i) ASSERT_EQ(memory[i], value) << i;
  }

  // Bytes [from, to) of the block hold what was written there.
  static void ExpectWritten(const VeskBuffer* block, unsigned int from, unsigned int to) {
    for (unsigned int i = from; i < to; ++i)
      ASSERT_EQ(block->bptr[i], NewByte(block->off + i)) << i;
  }

  // The lines of a read job that is started and waited for; it is the last one submitted.
  Lines FetchLines(const std::string& off, const std::string& blen) {
    const std::string job = P(LastJob());
    return {"Debug 254 f Creating Read job " + job + " O:" + off + " L:" + blen + " ST:8\n",
            "Trace 370 f Wait for job " + job + " O:" + off + "\n"};
  }

  // The lines of a block that is cut from `blen` to `dlen` and shipped; its job is the last one.
  Lines ShipLines(const std::string& off, const std::string& dlen, const std::string& blen) {
    return {
        "Debug 208 f ReducingLength NL:" + dlen + " L:" + blen + "\n",
        "Trace 271 VeskBuffer::DoWriteIO(f), flush_current_only(FALSE) \n",
        "Debug 274 VeskBuffer::DoWriteIO(f), buffer dirty \n",
        "Trace 299 f Creating Write job " + P(LastJob()) + " W:0 O:" + off + " L:" + dlen + "\n"};
  }

  // One wait took place, for this block's job, with the lock of the request.
  void ExpectOneWait(const VeskBuffer* block, const std::string& tag) {
    ASSERT_EQ(dispatcher.waits.size(), 1u);
    EXPECT_EQ(dispatcher.waits[0].job, block->job);
    EXPECT_EQ(dispatcher.waits[0].lock, &lock);
    EXPECT_EQ(dispatcher.waits[0].tag, tag);
  }

  static constexpr unsigned char kSoil = 0xA5;

  VeskStream stream{"f", bundler, 0, 0, 7};
  bool eof = false;
  unsigned long max_off = 65536;
  unsigned int alloc_size = 4096;
  bool flush_flag = false;
};

// --- ReadWrite -----------------------------------------------------------------------------------

class RwEngineTest : public RequestTest {
 protected:
  unsigned int Read(unsigned long off, unsigned int len) {
    return stream.ReadWrite(&lock, memory, off, len, &eof, max_off, 99, alloc_size, false,
                            flush_flag, nullptr);
  }

  unsigned int Write(unsigned long off, unsigned int len) {
    return stream.ReadWrite(&lock, memory, off, len, nullptr, max_off, 99, alloc_size, true,
                            flush_flag, nullptr);
  }
};

// A miss, and the walk that leads to it.

TEST_F(RwEngineTest, ReadOfAnEmptyStreamFetchesABlockAndItsRepeatIsServed) {
  const auto other = Block(0, 16, 0, VALID);
  stream.last_buffer = other.get();  // forgotten without a look
  EXPECT_EQ(Thrown([&] { Read(100, 50); }), 1000);
  ASSERT_EQ(stream.buffers.size(), 1u);
  VeskJob* const job = JobOf(block(0));
  ExpectLog({"Debug 493 f New buffer O:100 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:4196 DL:0\n",
             "Debug 254 f Creating Read job " + P(job) + " O:100 L:4096 ST:8\n",
             "Trace 370 f Wait for job " + P(job) + " O:100\n"});
  ExpectOneWait(block(0), "Read");
  const Operation operation = DescribeOperation(job);
  EXPECT_EQ(operation.code, 9u);
  EXPECT_EQ(operation.flags, 0u);
  EXPECT_EQ(operation.arguments, Lines({"string f", "ptr " + P(block(0)->bptr), "int 4096",
                                        "ulong 100", "ptr " + P(&block(0)->dlen)}));
  EXPECT_EQ(job->owner_stream, &stream);
  EXPECT_EQ(stream.pending_io, 1u);
  EXPECT_EQ(stream.last_buffer, nullptr);
  EXPECT_FALSE(eof);
  ExpectRange(0, 4196, 100);

  FinishRead(block(0), 4096);
  SoilMemory();
  EXPECT_EQ(Read(100, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:100 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:8\n",
             "Trace 341 f Job done O:100 L:4096 DL:4096\n",
             "Debug 520 f Finding buffer B_O:100 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:4\n",
             "Debug 192 Read buffer O:100 L:50 B_O:100 B_L:4096\n",
             "Debug 722 f IO done O:100 L:50\n"});
  ExpectFileBytes(100, 0, 50);
  ExpectBytes(50, 60, kSoil);
  EXPECT_EQ(stream.last_buffer, block(0));
  EXPECT_FALSE(eof);
  EXPECT_EQ(dispatcher.waits.size(), 1u);
  EXPECT_EQ(stream.io_cookie, 7u);  // the entry points store the cookie, ReadWrite does not
}

TEST_F(RwEngineTest, WriteToAnEmptyStreamFillsANewBlockWithoutAJob) {
  FillMemory(100);
  EXPECT_EQ(Write(100, 50), 50u);
  ExpectLog({"Debug 493 f New buffer O:100 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:4196 DL:0\n", "Debug 756 f Returning 50\n"});
  ASSERT_EQ(stream.buffers.size(), 1u);
  EXPECT_EQ(block(0)->state, DIRTY);
  EXPECT_EQ(block(0)->off, 100u);
  EXPECT_EQ(block(0)->dlen, 50u);
  EXPECT_EQ(block(0)->dirty_length, 50u);
  ExpectWritten(block(0), 0, 50);
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_EQ(stream.last_buffer, nullptr);  // a new block is no shortcut yet
  EXPECT_EQ(stream.io_cookie, 7u);
  ExpectRange(0, 4196, 100);
}

TEST_F(RwEngineTest, WriteLargerThanANewBlockLeavesTheRestToTheCaller) {
  FillMemory(0);
  EXPECT_EQ(Write(0, 10000), 4096u);
  ExpectLog({"Debug 493 f New buffer O:0 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:4096 DL:0\n", "Debug 756 f Returning 4096\n"});
  EXPECT_EQ(block(0)->dlen, 4096u);
  ExpectWritten(block(0), 0, 4096);
}

TEST_F(RwEngineTest, NewBlockEndsAtTheMaximumOffset) {
  max_off = 1000;
  EXPECT_EQ(Write(900, 500), 100u);
  ExpectLog({"Debug 493 f New buffer O:900 L:100 AS:4096 ML:1000\n",
             "Debug 411 f CurrentValidLength1 O:0 L:1000 DL:0\n", "Debug 756 f Returning 100\n"});
  EXPECT_EQ(block(0)->blen, 100u);
}

TEST_F(RwEngineTest, RequestAtTheMaximumOffsetIsRefusedByTheAllocation) {
  max_off = 1000;
  ExpectAssertion(480, "Endoff too big O:1000 ML:1000", [&] { Write(1000, 1); },
                  {"Dump 477 AllocBuf DUMP BEGIN off:1000 maxoff:1000 nexoff:0 size:4096 pos:2\n",
                   "Dump 462 Dump STREAM(" + P(&stream) + ") -> off:0 len:0 pos:0 \n",
                   "Dump 479 AllocBuf DUMP END\n"});
  EXPECT_TRUE(stream.buffers.empty());
}

TEST_F(RwEngineTest, ReadThatKnowsTheEndOfTheFileReturnsNothingFromAnEmptyStream) {
  eof = true;
  EXPECT_EQ(Read(100, 50), 0u);
  ExpectLog({"Debug 738 f Eof O:100\n"});
  EXPECT_TRUE(eof);
  EXPECT_TRUE(stream.buffers.empty());
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, ReadPassesTheBlocksBeforeItAndCountsThePasses) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 4096, 4096, 4096, DIRTY);
  Add(stream, 8192, 4096, 100, VALID | END);
  Add(stream, 12288, 4096, 0, INV);
  SetRange(0, 16384);
  EXPECT_EQ(Thrown([&] { Read(20000, 10); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:20000 L:10 S:0 ST:4\n",
                   "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:20000 L:10 S:0 ST:2\n",
                   "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:100 O:20000 L:10 S:0 ST:36\n",
                   "Debug 520 f Finding buffer B_O:12288 B_L:4096 B_DL:0 O:20000 L:10 S:0 ST:1\n",
                   "Debug 493 f New buffer O:20000 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:24096 DL:0\n",
                   "Debug 129 f Remove EOF\n"},  // the third block no longer ends the file
                  FetchLines("20000", "4096")}));
  EXPECT_EQ(block(0)->skip, 1u);
  EXPECT_EQ(block(1)->skip, 0u);  // DIRTY alone is not counted
  EXPECT_EQ(block(2)->skip, 1u);
  EXPECT_EQ(block(3)->skip, 0u);  // nor is INV
  EXPECT_EQ(block(4)->off, 20000u);
  EXPECT_FALSE(eof);  // passing a block before the request tells nothing about the end
  EXPECT_EQ(dispatcher.submitted.size(), 1u);  // a read ships nothing
}

TEST_F(RwEngineTest, SkipCounterIsPartOfTheFindingLine) {
  Add(stream, 0, 4096, 4096, VALID)->skip = 3;
  EXPECT_EQ(Write(4096, 10), 10u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4096 L:10 S:3 ST:4\n",
             "Debug 493 f New buffer O:4096 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:8192 DL:0\n", "Debug 756 f Returning 10\n"});
  EXPECT_EQ(block(0)->skip, 4u);
}

TEST_F(RwEngineTest, NewBlockInFrontOfTheFirstOneEndsWhereThatBegins) {
  Add(stream, 8192, 4096, 4096, VALID);
  SetRange(8192, 4096);
  alloc_size = 8192;
  EXPECT_EQ(Thrown([&] { Read(4096, 100); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:4096 L:100 S:0 ST:4\n",
                   "Debug 493 f New buffer O:4096 L:4096 AS:8192 ML:65536\n",
                   "Debug 423 f CurrentValidLength2 O:4096 L:8192 DL:0\n"},
                  FetchLines("4096", "4096")}));
  EXPECT_EQ(block(0)->off, 4096u);
  EXPECT_EQ(block(0)->blen, 4096u);
  EXPECT_EQ(block(1)->skip, 1u);  // the block that the walk stopped at was passed over as well
  ExpectRange(4096, 8192, 4096);
}

TEST_F(RwEngineTest, NewBlockBetweenTwoLeavesTheRangeAndTheEndMarkAlone) {
  Add(stream, 0, 4096, 100, VALID | END);
  Add(stream, 8192, 4096, 4096, VALID);
  SetRange(0, 12288);
  EXPECT_EQ(Thrown([&] { Read(5000, 100); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:5000 L:100 S:0 ST:36\n",
                   "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:5000 L:100 S:0 ST:4\n",
                   "Debug 493 f New buffer O:5000 L:3192 AS:4096 ML:65536\n"},
                  FetchLines("5000", "3192")}));
  EXPECT_EQ(block(1)->off, 5000u);
  EXPECT_EQ(block(0)->state, VALID | END);
  ExpectRange(0, 12288, 5000);
}

TEST_F(RwEngineTest, WriteIntoANewBlockIsCutByTheNextBlock) {
  Add(stream, 8192, 4096, 4096, VALID);
  SetRange(8192, 4096);
  FillMemory(8000);
  EXPECT_EQ(Write(8000, 500), 192u);
  ExpectLog({"Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:8000 L:500 S:0 ST:4\n",
             "Debug 493 f New buffer O:8000 L:192 AS:4096 ML:65536\n",
             "Debug 423 f CurrentValidLength2 O:8000 L:4288 DL:0\n",
             "Debug 756 f Returning 192\n"});
  ExpectWritten(block(0), 0, 192);
  EXPECT_EQ(block(1)->state, VALID);  // untouched
  EXPECT_EQ(block(1)->bptr[0], FileByte(8192));
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, WriteBetweenTwoBlocksIsCutByTheSecond) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 4196, 4096, 4096, VALID);
  SetRange(0, 8292);
  EXPECT_EQ(Write(4096, 500), 100u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4096 L:500 S:0 ST:4\n",
             "Debug 520 f Finding buffer B_O:4196 B_L:4096 B_DL:4096 O:4096 L:500 S:0 ST:4\n",
             "Debug 493 f New buffer O:4096 L:100 AS:4096 ML:65536\n",
             "Debug 756 f Returning 100\n"});
  EXPECT_EQ(block(0)->skip, 1u);
  EXPECT_EQ(block(2)->skip, 1u);
}

// Copying.

TEST_F(RwEngineTest, ReadInsideABlockIsServedAndRemembersTheBlock) {
  Add(stream, 4096, 4096, 4096, VALID)->skip = 2;
  SoilMemory();
  EXPECT_EQ(Read(4196, 100), 100u);
  ExpectLog({"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4196 L:100 S:2 ST:4\n",
             "Debug 192 Read buffer O:4196 L:100 B_O:4096 B_L:4096\n",
             "Debug 722 f IO done O:4196 L:100\n"});
  ExpectFileBytes(4196, 0, 100);
  ExpectBytes(100, 110, kSoil);
  EXPECT_EQ(stream.last_buffer, block(0));
  EXPECT_EQ(block(0)->skip, 0u);   // a block in use is not passed over
  EXPECT_EQ(stream.curr_pos, 0u);  // Read and Write set it, not ReadWrite
}

TEST_F(RwEngineTest, ReadOverSeveralBlocksTakesItsPartOfEach) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 4096, 4096, 4096, DIRTY);
  Add(stream, 8192, 4096, 4096, VALID);
  SoilMemory();
  EXPECT_EQ(Read(4000, 5000), 5000u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4000 L:5000 S:0 ST:4\n",
             "Debug 192 Read buffer O:4000 L:5000 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:4000 L:96\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:4904 S:0 ST:2\n",
             "Debug 192 Read buffer O:4096 L:4904 B_O:4096 B_L:4096\n",
             "Debug 722 f IO done O:4096 L:4096\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:8192 L:808 S:0 ST:4\n",
             "Debug 192 Read buffer O:8192 L:808 B_O:8192 B_L:4096\n",
             "Debug 722 f IO done O:8192 L:808\n"});
  ExpectFileBytes(4000, 0, 5000);
  ExpectBytes(5000, 5010, kSoil);
  EXPECT_EQ(stream.last_buffer, block(2));
  EXPECT_EQ(block(0)->skip, 0u);
}

TEST_F(RwEngineTest, ReadThatRunsOffTheListReturnsThePartItGot) {
  Add(stream, 0, 4096, 4096, VALID);
  SoilMemory();
  EXPECT_EQ(Read(4000, 5000), 96u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4000 L:5000 S:0 ST:4\n",
             "Debug 192 Read buffer O:4000 L:5000 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:4000 L:96\n"});
  ExpectFileBytes(4000, 0, 96);
  ExpectBytes(96, 200, kSoil);
  EXPECT_EQ(stream.last_buffer, nullptr);  // no block took the last bytes of the request
  EXPECT_EQ(stream.buffers.size(), 1u);
  EXPECT_FALSE(eof);
}

TEST_F(RwEngineTest, ReadThatMeetsAGapReturnsThePartItGot) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 8192, 4096, 4096, VALID);
  EXPECT_EQ(Read(0, 10000), 4096u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:10000 S:0 ST:4\n",
             "Debug 192 Read buffer O:0 L:10000 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:0 L:4096\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:4096 L:5904 S:0 ST:4\n"});
  EXPECT_EQ(block(1)->skip, 1u);
  EXPECT_EQ(stream.last_buffer, nullptr);
  EXPECT_EQ(stream.buffers.size(), 2u);
}

TEST_F(RwEngineTest, ReadStopsAtTheValidDataOfAShortBlock) {
  Add(stream, 0, 4096, 100, VALID);
  EXPECT_EQ(Read(50, 200), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:50 L:200 S:0 ST:4\n",
             "Debug 192 Read buffer O:50 L:200 B_O:0 B_L:100\n",
             "Debug 722 f IO done O:50 L:50\n"});
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, ReadBehindTheValidDataOfAShortBlockFetchesABlockOfItsOwn) {
  Add(stream, 0, 4096, 100, VALID);
  EXPECT_EQ(Thrown([&] { Read(100, 50); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:100 L:50 S:0 ST:4\n",
                   "Debug 493 f New buffer O:100 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:4196 DL:0\n"},
                  FetchLines("100", "4096")}));
  EXPECT_EQ(block(0)->skip, 1u);
  EXPECT_EQ(block(0)->blen, 4096u);  // clean: not cut, the two overlap
}

TEST_F(RwEngineTest, WriteOverTwoBlocksStaysInThem) {
  Add(stream, 0, 4096, 4096, DIRTY);
  Add(stream, 4096, 4096, 4096, VALID);
  FillMemory(100);
  EXPECT_EQ(Write(100, 5000), 5000u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:100 L:5000 S:0 ST:2\n",
             "Debug 722 f IO done O:100 L:3996\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:1004 S:0 ST:4\n",
             "Debug 722 f IO done O:4096 L:1004\n"});
  ExpectWritten(block(0), 100, 4096);
  EXPECT_EQ(block(0)->bptr[99], FileByte(99));
  ExpectWritten(block(1), 0, 1004);
  EXPECT_EQ(block(1)->bptr[1004], FileByte(5100));
  EXPECT_EQ(block(1)->state, DIRTY);
  EXPECT_EQ(block(1)->dlen, 4096u);
  EXPECT_EQ(block(1)->dirty_length, 1004u);
  EXPECT_EQ(stream.last_buffer, block(1));
}

TEST_F(RwEngineTest, WriteAppendsExactlyAtTheEndOfDirtyData) {
  Add(stream, 0, 4096, 100, DIRTY);
  FillMemory(100);
  EXPECT_EQ(Write(100, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:100 L:50 S:0 ST:2\n",
             "Debug 722 f IO done O:100 L:50\n"});
  EXPECT_EQ(block(0)->dlen, 150u);
  EXPECT_EQ(block(0)->dirty_length, 150u);
  EXPECT_EQ(stream.last_buffer, block(0));
}

TEST_F(RwEngineTest, WriteThatFillsABlockReturnsThePartThatItHeld) {
  Add(stream, 0, 4096, 4000, DIRTY);
  EXPECT_EQ(Write(4000, 500), 96u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4000 O:4000 L:500 S:0 ST:2\n",
             "Debug 722 f IO done O:4000 L:96\n"});
  EXPECT_EQ(stream.buffers.size(), 1u);
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, WriteStopsAtABlockThatStartsBehindItsGap) {
  Add(stream, 0, 4096, 4096, DIRTY);
  Add(stream, 8192, 4096, 4096, DIRTY);
  EXPECT_EQ(Write(0, 10000), 4096u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:10000 S:0 ST:2\n",
             "Debug 722 f IO done O:0 L:4096\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:4096 L:5904 S:0 ST:2\n"});
  EXPECT_EQ(stream.buffers.size(), 2u);
  EXPECT_TRUE(dispatcher.submitted.empty());
}

TEST_F(RwEngineTest, WriteAtTheFirstByteOfACleanBlockTurnsItDirty) {
  Add(stream, 0, 4096, 4096, VALID | END);
  FillMemory(0);
  EXPECT_EQ(Write(0, 10), 10u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:10 S:0 ST:36\n",
             "Debug 722 f IO done O:0 L:10\n"});
  EXPECT_EQ(block(0)->state, DIRTY | END);
  EXPECT_EQ(block(0)->dirty_length, 10u);
  EXPECT_EQ(block(0)->dlen, 4096u);
}

// Busy blocks.

TEST_F(RwEngineTest, ReadWaitsForABlockThatIsBeingRead) {
  AddBusy(stream, 0, 4096, 0, IOR);
  EXPECT_EQ(Thrown([&] { Read(100, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:100 L:50 S:0 ST:8\n",
             "Trace 370 f Wait for job " + P(block(0)->job) + " O:0\n"});
  ExpectOneWait(block(0), "Read-io-active");
  EXPECT_EQ(block(0)->state, IOR);
  EXPECT_EQ(References(JobOf(block(0))), 2);  // the block's and the dispatcher's: none is left over
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, JobThatEndsDuringTheWaitIsReapedByTheRepeat) {
  AddBusy(stream, 0, 4096, 0, IOR);
  dispatcher.on_wait = [&](VeskJob*) { FinishRead(block(0), 4096); };
  EXPECT_EQ(Thrown([&] { Read(100, 50); }), 1000);
  EXPECT_EQ(block(0)->state, IOR);
  logger.lines.clear();
  EXPECT_EQ(Read(100, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:8\n",
             "Trace 341 f Job done O:0 L:4096 DL:4096\n",
             "Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:4\n",
             "Debug 192 Read buffer O:100 L:50 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:100 L:50\n"});
  ExpectFileBytes(100, 0, 50);
}

TEST_F(RwEngineTest, WriteWaitsForABlockThatIsBeingRead) {
  AddBusy(stream, 0, 4096, 0, IOR);
  EXPECT_EQ(Thrown([&] { Write(100, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:100 L:50 S:0 ST:8\n",
             "Trace 370 f Wait for job " + P(block(0)->job) + " O:0\n"});
  ExpectOneWait(block(0), "Write-io-active");
}

TEST_F(RwEngineTest, WriteWaitsForABlockThatIsBeingWritten) {
  AddBusy(stream, 0, 4096, 4096, IOW);
  EXPECT_EQ(Thrown([&] { Write(4095, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4095 L:50 S:0 ST:16\n",
             "Trace 370 f Wait for job " + P(block(0)->job) + " O:0\n"});
  ExpectOneWait(block(0), "Write-io-active");
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, WriteIntoABlockWhoseWriteHasEndedGoesOnWithTheSameBlock) {
  AddBusy(stream, 0, 4096, 4096, IOW);
  FinishWrite(block(0));
  FillMemory(0);
  EXPECT_EQ(Write(0, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:50 S:0 ST:16\n",
             "Trace 341 f Job done O:0 L:4096 DL:4096\n",
             "Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:50 S:0 ST:4\n",
             "Debug 722 f IO done O:0 L:50\n"});
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(block(0)->state, DIRTY);
}

TEST_F(RwEngineTest, BlockBehindABusyOneIsNotReachedByAWaitingRequest) {
  AddBusy(stream, 0, 4096, 0, IOR);
  Add(stream, 4096, 4096, 4096, VALID);
  EXPECT_EQ(Thrown([&] { Read(0, 8192); }), 1000);
  EXPECT_EQ(block(1)->skip, 0u);
  EXPECT_EQ(logger.lines.size(), 2u);
}

TEST_F(RwEngineTest, ReadReturnsServedPartInsteadOfWaitingForBusyBlock) {
  Add(stream, 0, 4096, 4096, VALID);
  AddBusy(stream, 4096, 4096, 0, IOR);
  EXPECT_EQ(Read(4000, 1000), 96u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4000 L:1000 S:0 ST:4\n",
             "Debug 192 Read buffer O:4000 L:1000 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:4000 L:96\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:0 O:4096 L:904 S:0 ST:8\n"});
  ExpectFileBytes(4000, 0, 96);
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(block(1)->skip, 0u);
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, PartlyServedReadDoesNotEvenReapAFinishedJob) {
  Add(stream, 0, 4096, 4096, VALID);
  AddBusy(stream, 4096, 4096, 0, IOR);
  FinishRead(block(1), 4096);
  EXPECT_EQ(Read(4000, 1000), 96u);
  EXPECT_EQ(block(1)->state, IOR);
  EXPECT_NE(block(1)->job, nullptr);
}

TEST_F(RwEngineTest, WriteReturnsServedPartInsteadOfWaitingForBusyBlock) {
  Add(stream, 0, 4096, 4096, DIRTY);
  AddBusy(stream, 4096, 4096, 4096, IOW);
  EXPECT_EQ(Write(4000, 1000), 96u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4000 L:1000 S:0 ST:2\n",
             "Debug 722 f IO done O:4000 L:96\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:904 S:0 ST:16\n"});
  EXPECT_TRUE(dispatcher.waits.empty());
}

TEST_F(RwEngineTest, ReadCopiesFromABlockWhileItIsBeingWritten) {
  AddBusy(stream, 0, 4096, 4096, IOW);
  SoilMemory();
  EXPECT_EQ(Read(100, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:16\n",
             "Debug 192 Read buffer O:100 L:50 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:100 L:50\n"});
  ExpectFileBytes(100, 0, 50);
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(block(0)->state, IOW);  // not even a finished write is reaped by a read
  EXPECT_EQ(stream.last_buffer, block(0));
}

TEST_F(RwEngineTest, ReadBehindTheDataOfABlockBeingWrittenPassesIt) {
  AddBusy(stream, 0, 4096, 100, IOW);
  EXPECT_EQ(Thrown([&] { Read(100, 50); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:100 L:50 S:0 ST:16\n",
                   "Debug 493 f New buffer O:100 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:4196 DL:0\n"},
                  FetchLines("100", "4096")}));
  EXPECT_EQ(block(0)->skip, 0u);  // IOW is neither VALID nor at end of file
}

TEST_F(RwEngineTest, FailedJobEndsTheRequestWithItsCodeAndLeavesAnInvalidBlock) {
  for (const bool write : {false, true}) {
    AddBusy(stream, 0, 4096, 0, IOR);
    FinishRead(block(0), 0, 5);
    EXPECT_EQ(Thrown([&] { write ? Write(100, 50) : Read(100, 50); }), 5);
    ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:100 L:50 S:0 ST:8\n",
               "Error 353 f Block error RC:5\n"});
    EXPECT_EQ(block(0)->state, INV);
    EXPECT_EQ(block(0)->rc, 5);
    EXPECT_EQ(block(0)->job, nullptr);
    EXPECT_EQ(stream.last_buffer, nullptr);
    DropBlocks();
  }
}

TEST_F(RwEngineTest, FailedWriteBackIsTheErrorOfTheWriteThatMeetsIt) {
  AddBusy(stream, 0, 4096, 4096, IOW);
  FinishWrite(block(0), -28);
  EXPECT_EQ(Thrown([&] { Write(0, 50); }), -28);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:50 S:0 ST:16\n",
             "Error 353 f Block error RC:-28\n"});
}

TEST_F(RwEngineTest, ReadPassesAFailedBlockAndFetchesTheBytesAgain) {
  Add(stream, 0, 4096, 0, INV)->rc = 5;
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:0 L:50 S:0 ST:1\n",
                   "Debug 493 f New buffer O:0 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:4096 DL:0\n"},
                  FetchLines("0", "4096")}));
  FinishRead(block(1), 4096);
  EXPECT_EQ(Read(0, 50), 50u);
  ExpectFileBytes(0, 0, 50);
  EXPECT_EQ(stream.last_buffer, block(1));
}

TEST_F(RwEngineTest, WriteAtTheFirstByteOfAFailedBlockIsRefusedByTheCopy) {
  Add(stream, 0, 4096, 0, INV)->rc = 5;
  ExpectAssertion(151, "Buffer is not valid 1\n", [&] { Write(0, 50); },
                  {"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:0 L:50 S:0 ST:1\n"});
  EXPECT_EQ(stream.last_buffer, nullptr);
  block(0)->rc = 0;
  EXPECT_EQ(Thrown([&] { Write(0, 50); }), 0);  // without a code: refused without a line
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:0 L:50 S:0 ST:1\n"});
}

TEST_F(RwEngineTest, WriteBehindTheFirstByteOfAFailedBlockGoesIntoANewOne) {
  Add(stream, 0, 4096, 0, INV)->rc = 5;
  EXPECT_EQ(Write(1, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:1 L:50 S:0 ST:1\n",
             "Debug 493 f New buffer O:1 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:4097 DL:0\n", "Debug 756 f Returning 50\n"});
}

// The end of the file, and holes.

TEST_F(RwEngineTest, ReadThatFindsNothingInTheFileEndsAtTheEndOfTheFile) {
  for (const int return_value : {0, -2}) {
    AddBusy(stream, 0, 4096, 0, IOR);
    FinishRead(block(0), 0, return_value);
    eof = false;
    EXPECT_EQ(Read(0, 50), 0u);
    Lines expected = {"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:0 L:50 S:0 ST:8\n",
                      "Trace 341 f Job done O:0 L:4096 DL:0\n",
                      "Debug 362 f End of file DL:0 ST:36\n",
                      "Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:0 L:50 S:0 ST:36\n",
                      "Debug 738 f Eof O:0\n"};
    if (return_value != 0) expected.erase(expected.begin() + 1);
    ExpectLog(expected);
    EXPECT_TRUE(eof);
    EXPECT_EQ(block(0)->skip, 1u);
    EXPECT_EQ(stream.last_buffer, nullptr);
    DropBlocks();
  }
}

TEST_F(RwEngineTest, ReadThatKnowsTheEndPassesEmptyBlocksOnly) {
  Add(stream, 0, 4096, 0, VALID | END);
  AddBusy(stream, 4096, 4096, 0, IOR);
  eof = true;
  EXPECT_EQ(Read(100, 50), 0u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:100 L:50 S:0 ST:36\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:0 O:100 L:50 S:0 ST:8\n",
             "Debug 738 f Eof O:100\n"});
  EXPECT_TRUE(eof);
  EXPECT_EQ(block(0)->skip, 1u);
  EXPECT_EQ(block(1)->skip, 0u);
  EXPECT_TRUE(dispatcher.waits.empty());
}

TEST_F(RwEngineTest, DataBehindTheEndOfTheFileMakesAHoleUpToIt) {
  Add(stream, 0, 4096, 100, VALID | END);
  Add(stream, 8192, 4096, 4096, DIRTY);
  SoilMemory();
  EXPECT_EQ(Read(200, 10000), 7992u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:200 L:10000 S:0 ST:36\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:200 L:10000 S:0 ST:2\n",
             "Debug 707 f Reading hole O:200 L:7992\n", "Debug 722 f IO done O:200 L:7992\n"});
  ExpectBytes(0, 7992, 0);
  ExpectBytes(7992, 8100, kSoil);
  EXPECT_FALSE(eof);
  EXPECT_EQ(block(0)->skip, 1u);
  EXPECT_EQ(stream.last_buffer, block(1));
}

TEST_F(RwEngineTest, HoleIsNoLongerThanTheRequest) {
  Add(stream, 8192, 4096, 1, DIRTY);
  //                               the block begins behind the request, at its end, inside it
  const unsigned int lengths[] = {7991, 7992, 7993};
  for (const unsigned int length : lengths) {
    const unsigned int zeros = std::min(length, 7992u);
    eof = true;
    SoilMemory();
    EXPECT_EQ(Read(200, length), zeros);
    ExpectLog({"Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:1 O:200 L:" +
                   std::to_string(length) + " S:0 ST:2\n",
               "Debug 707 f Reading hole O:200 L:" + std::to_string(zeros) + "\n",
               "Debug 722 f IO done O:200 L:" + std::to_string(zeros) + "\n"});
    ExpectBytes(0, zeros, 0);
    ExpectBytes(zeros, zeros + 10, kSoil);
    EXPECT_FALSE(eof);
    EXPECT_EQ(stream.last_buffer, block(0));
  }
}

TEST_F(RwEngineTest, BlockBehindTheRequestTurnsAllOfItIntoAHoleOnceTheEndIsKnown) {
  // off - request offset wraps around: however long the request is, the distance is longer. The
  // block's own data is not looked at.
  struct {
    unsigned long block_off, at;
  } const cases[] = {{0, 100}, {0, 4095}, {0, 4096}, {0, 50000}, {99, 100}};
  for (const auto& c : cases) {
    Add(stream, c.block_off, 4096, 4096, VALID);
    eof = true;
    SoilMemory();
    EXPECT_EQ(Read(c.at, 300), 300u);
    const std::string at = std::to_string(c.at);
    ExpectLog({"Debug 520 f Finding buffer B_O:" + std::to_string(c.block_off) +
                   " B_L:4096 B_DL:4096 O:" + at + " L:300 S:0 ST:4\n",
               "Debug 707 f Reading hole O:" + at + " L:300\n",
               "Debug 722 f IO done O:" + at + " L:300\n"});
    ExpectBytes(0, 300, 0);
    ExpectBytes(300, 310, kSoil);
    EXPECT_FALSE(eof);
    EXPECT_EQ(stream.last_buffer, block(0));
    DropBlocks();
  }
}

TEST_F(RwEngineTest, HoleIsCompletedAfterDataOfTheSameRequest) {
  Add(stream, 0, 100, 100, VALID);
  Add(stream, 100, 4096, 0, VALID | END);
  Add(stream, 8192, 4096, 4096, DIRTY);
  SoilMemory();
  EXPECT_EQ(Read(0, 10000), 8192u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:100 B_DL:100 O:0 L:10000 S:0 ST:4\n",
             "Debug 192 Read buffer O:0 L:10000 B_O:0 B_L:100\n", "Debug 722 f IO done O:0 L:100\n",
             "Debug 520 f Finding buffer B_O:100 B_L:4096 B_DL:0 O:100 L:9900 S:0 ST:36\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:100 L:9900 S:0 ST:2\n",
             "Debug 707 f Reading hole O:100 L:8092\n", "Debug 722 f IO done O:100 L:8092\n"});
  ExpectFileBytes(0, 0, 100);
  ExpectBytes(100, 8192, 0);
  EXPECT_EQ(stream.last_buffer, block(2));
}

TEST_F(RwEngineTest, EndOfFileSeenBehindServedDataIsNotReported) {
  Add(stream, 0, 100, 100, VALID);
  Add(stream, 100, 4096, 0, VALID | END);
  EXPECT_EQ(Read(0, 200), 100u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:100 B_DL:100 O:0 L:200 S:0 ST:4\n",
             "Debug 192 Read buffer O:0 L:200 B_O:0 B_L:100\n", "Debug 722 f IO done O:0 L:100\n",
             "Debug 520 f Finding buffer B_O:100 B_L:4096 B_DL:0 O:100 L:100 S:0 ST:36\n"});
  EXPECT_FALSE(eof);  // only the request that starts there learns it
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, EmptyHoleAfterServedDataReturnsThatData) {
  Add(stream, 0, 100, 100, VALID);
  Add(stream, 100, 4096, 0, VALID | END);
  Add(stream, 100, 4096, 10, VALID);
  EXPECT_EQ(Read(0, 200), 100u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:100 B_DL:100 O:0 L:200 S:0 ST:4\n",
             "Debug 192 Read buffer O:0 L:200 B_O:0 B_L:100\n", "Debug 722 f IO done O:0 L:100\n",
             "Debug 520 f Finding buffer B_O:100 B_L:4096 B_DL:0 O:100 L:100 S:0 ST:36\n",
             "Debug 520 f Finding buffer B_O:100 B_L:4096 B_DL:10 O:100 L:100 S:0 ST:4\n",
             "Debug 707 f Reading hole O:100 L:0\n", "Debug 722 f IO done O:100 L:0\n"});
  EXPECT_EQ(stream.last_buffer, block(2));
}

TEST_F(RwEngineTest, EmptyHoleInFrontOfABlockAtTheRequestLeadsToANewBlock) {
  // The caller knew the end of the file, and was wrong: there is data at the very offset. The new
  // block is put before that data without being cut by it: no offset of a next block is set.
  Add(stream, 4096, 4096, 4096, VALID);
  SetRange(4096, 4096);
  alloc_size = 5000;
  eof = true;
  EXPECT_EQ(Thrown([&] { Read(4096, 50); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:50 S:0 ST:4\n",
                   "Debug 707 f Reading hole O:4096 L:0\n", "Debug 722 f IO done O:4096 L:0\n",
                   "Debug 493 f New buffer O:4096 L:5000 AS:5000 ML:65536\n",
                   "Debug 423 f CurrentValidLength2 O:4096 L:4096 DL:0\n"},
                  FetchLines("4096", "5000")}));
  EXPECT_FALSE(eof);
  ASSERT_EQ(stream.buffers.size(), 2u);
  EXPECT_EQ(block(0)->blen, 5000u);
  EXPECT_EQ(block(1)->dlen, 4096u);
  EXPECT_EQ(stream.last_buffer, block(1));
  ExpectOneWait(block(0), "Read");
}

TEST_F(RwEngineTest, EmptyHoleAtOffsetZeroMakesABlockWithoutLength) {
  Add(stream, 0, 4096, 4096, VALID);
  SetRange(0, 4096);
  eof = true;
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:50 S:0 ST:4\n",
                   "Debug 707 f Reading hole O:0 L:0\n", "Debug 722 f IO done O:0 L:0\n",
                   "Debug 493 f New buffer O:0 L:0 AS:4096 ML:65536\n",
                   "Debug 423 f CurrentValidLength2 O:0 L:4096 DL:0\n"},
                  FetchLines("0", "0")}));
}

TEST_F(RwEngineTest, EmptyHoleBehindAnEndOfFileThatWasSeenEndsTheRead) {
  Add(stream, 0, 8192, 100, VALID | END);
  Add(stream, 4096, 4096, 100, VALID);
  EXPECT_EQ(Read(4096, 50), 0u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:8192 B_DL:100 O:4096 L:50 S:0 ST:36\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:100 O:4096 L:50 S:0 ST:4\n",
             "Debug 707 f Reading hole O:4096 L:0\n", "Debug 722 f IO done O:4096 L:0\n",
             "Debug 738 f Eof O:4096\n"});
  EXPECT_TRUE(eof);
  EXPECT_EQ(stream.last_buffer, block(1));
  EXPECT_EQ(stream.buffers.size(), 2u);
}

// Shipping and trimming.

TEST_F(RwEngineTest, WriteShipsTheDirtyBlockThatItHasLeftBehind) {
  for (const bool mode : {false, true}) {
    flush_flag = mode;
    Add(stream, 0, 4096, 100, DIRTY)->skip = 2;
    SetRange(0, 4096);
    pool->pending_streams.clear();
    EXPECT_EQ(Write(8192, 50), 50u);
    ExpectLog(Join(
        {{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:8192 L:50 S:2 ST:2\n"},
         ShipLines("0", "100", "4096"),
         {"Debug 493 f New buffer O:8192 L:4096 AS:4096 ML:65536\n",
          "Debug 411 f CurrentValidLength1 O:0 L:12288 DL:0\n", "Debug 756 f Returning 50\n"}}));
    EXPECT_EQ(block(0)->state, IOW);
    EXPECT_EQ(block(0)->blen, 100u);
    EXPECT_EQ(block(0)->dlen, 100u);
    EXPECT_EQ(block(0)->skip, 0u);
    const Operation operation = DescribeOperation(JobOf(block(0)));
    EXPECT_EQ(operation.code, 10u);
    EXPECT_EQ(operation.flags, mode ? 8u : 0u);
    EXPECT_EQ(operation.arguments,
              Lines({"string f", "ptr " + P(block(0)->bptr), "ulong 100", "ulong 0", "int 1"}));
    EXPECT_TRUE(dispatcher.waits.empty());  // nobody waits for a block that is shipped
    EXPECT_EQ(pool->pending_streams.size(), 1u);
    EXPECT_EQ(pool->pending_streams["f"], 1);
    DropBlocks();
  }
}

TEST_F(RwEngineTest, WriteBehindAGapShipsTheDirtyBlockAndStartsANewOneInsideItsOldRange) {
  Add(stream, 0, 4096, 100, DIRTY);
  SetRange(0, 4096);
  EXPECT_EQ(Write(101, 50), 50u);
  ExpectLog(
      Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:101 L:50 S:0 ST:2\n"},
            ShipLines("0", "100", "4096"),
            {"Debug 493 f New buffer O:101 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:4197 DL:0\n", "Debug 756 f Returning 50\n"}}));
  EXPECT_EQ(block(0)->blen, 100u);
  EXPECT_EQ(block(1)->off, 101u);
}

TEST_F(RwEngineTest, WriteShipsEveryDirtyBlockThatItPasses) {
  Add(stream, 0, 4096, 4096, DIRTY);
  Add(stream, 4096, 4096, 4096, VALID);
  Add(stream, 8192, 4096, 10, DIRTY);
  Add(stream, 12288, 4096, 20, DIRTY);
  EXPECT_EQ(Write(12288, 50), 50u);
  ASSERT_EQ(dispatcher.submitted.size(), 2u);
  EXPECT_EQ(block(0)->state, IOW);
  EXPECT_EQ(block(1)->skip, 1u);
  EXPECT_EQ(block(2)->state, IOW);
  EXPECT_EQ(block(3)->state, DIRTY);
  EXPECT_EQ(stream.last_buffer, block(3));
}

TEST_F(RwEngineTest, ShippingCountsThePassBeforeItCutsTheBlock) {
  // Seen only where the cut fails, since it sets the counter back: more data than the block has
  // room.
  Add(stream, 0, 4096, 5000, DIRTY | END)->skip = 2;
  ExpectAssertion(210, "buffer dirty 34\n", [&] { Write(8192, 50); },
                  {"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:5000 O:8192 L:50 S:2 ST:34\n",
                   "Debug 208 f ReducingLength NL:5000 L:4096\n"});
  EXPECT_EQ(block(0)->skip, 3u);
  EXPECT_TRUE(dispatcher.submitted.empty());
}

TEST_F(RwEngineTest, SecondWriteDoesNotShipAShippedBlockAgain) {
  Add(stream, 0, 4096, 100, DIRTY);
  EXPECT_EQ(Write(8192, 50), 50u);
  logger.lines.clear();
  EXPECT_EQ(Write(8192, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:100 B_DL:100 O:8192 L:50 S:0 ST:16\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:50 O:8192 L:50 S:0 ST:2\n",
             "Debug 722 f IO done O:8192 L:50\n"});
  EXPECT_EQ(dispatcher.submitted.size(), 1u);
}

TEST_F(RwEngineTest, ReadBehindDirtyDataCutsTheBlockWithoutWritingItBack) {
  Add(stream, 0, 4096, 100, DIRTY)->skip = 2;
  SetRange(0, 4096);
  EXPECT_EQ(Thrown([&] { Read(300, 50); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:300 L:50 S:2 ST:2\n",
                   "Debug 208 f ReducingLength NL:300 L:4096\n",
                   "Debug 493 f New buffer O:300 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:4396 DL:0\n"},
                  FetchLines("300", "4096")}));
  EXPECT_EQ(block(0)->state, DIRTY);
  EXPECT_EQ(block(0)->blen, 300u);
  EXPECT_EQ(block(0)->dlen, 100u);
  EXPECT_EQ(block(0)->dirty_length, 100u);
  EXPECT_EQ(block(0)->skip, 0u);
  EXPECT_EQ(block(0)->job, nullptr);
}

TEST_F(RwEngineTest, ReadThatEndsInDirtyDataReturnsItAndCutsTheBlockOnTheRepeat) {
  Add(stream, 4096, 4096, 100, DIRTY);
  SetRange(4096, 4096);
  EXPECT_EQ(Read(4096, 200), 100u);
  EXPECT_EQ(block(0)->blen, 4096u);
  logger.lines.clear();
  EXPECT_EQ(Thrown([&] { Read(4196, 100); }), 1000);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:100 O:4196 L:100 S:0 ST:2\n",
                   "Debug 208 f ReducingLength NL:100 L:4096\n",
                   "Debug 493 f New buffer O:4196 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:4096 L:4196 DL:0\n"},
                  FetchLines("4196", "4096")}));
}

// Discarding.

class RwDiscardTest : public RwEngineTest {
 protected:
  RwDiscardTest() { settings.refresh_interval = 10; }

  // A block whose last job is too long ago.
  VeskBuffer* AddStale(unsigned long off, unsigned int blen, unsigned int dlen,
                       unsigned int more_state = 0) {
    VeskBuffer* const stale = Add(stream, off, blen, dlen, VALID | more_state);
    stale->ltime = kStart - 11;
    return stale;
  }

  // A read at 4096 that fails its check frees the block, its data and its place in the list. Done
  // twice: what the first time allocates for good (sites seen, room for lines) does not count.
  void ExpectFreed(const std::function<void()>& prepare) {
    long freed = 0;
    for (int round = 0; round < 2; ++round) {
      prepare();
      logger.lines = Lines();
      const long live = LiveAllocations();
      EXPECT_EQ(Thrown([&] { Read(4096, 50); }), 1001);
      const long lines = AllocationsOf(logger.lines);
      freed = live - (LiveAllocations() - lines);
    }
    EXPECT_EQ(freed, 3);
  }

  static long AllocationsOf(const Lines& lines) {
    const long live = LiveAllocations();
    long allocations = 0;
    {
      const Lines copy(lines);
      allocations = LiveAllocations() - live;
    }
    return allocations;
  }
};

TEST_F(RwDiscardTest, OnlyBlockLeavesAnEmptyRange) {
  for (const bool write : {false, true}) {
    AddStale(4096, 4096, 4096);
    SetRange(4096, 5000);
    EXPECT_EQ(Thrown([&] { write ? Write(4196, 50) : Read(4196, 50); }), 1000);
    ExpectLog({"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4196 L:50 S:0 ST:4\n",
               "Debug 650 f Delete Buf2 B_O:4096 B_L:4096 B_DL:4096 S:1\n"});
    EXPECT_TRUE(stream.buffers.empty());
    ExpectRange(4096, 0, 4196);
    EXPECT_EQ(stream.last_buffer, nullptr);
    EXPECT_TRUE(dispatcher.waits.empty());
  }
}

TEST_F(RwDiscardTest, LastBlockPullsTheEndBackToTheDataOfTheOneBefore) {
  Add(stream, 4096, 4096, 1000, VALID);
  AddStale(8192, 4096, 3000);
  SetRange(4096, 8192);
  EXPECT_EQ(Thrown([&] { Read(8192, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:1000 O:8192 L:50 S:0 ST:4\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:3000 O:8192 L:50 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:8192 B_L:4096 B_DL:3000 S:2\n",
             "Debug 671 f Trunc B_O:8192 B_L:4096 B_DL:3000 OE:11192 NE:5096\n"});
  ASSERT_EQ(stream.buffers.size(), 1u);
  ExpectRange(4096, 8192 - 11192 + 5096, 8192);
  EXPECT_EQ(block(0)->skip, 1u);
}

TEST_F(RwDiscardTest, LastBlockPullsTheEndBackToTheWholeBlockWhileThatIsBeingRead) {
  AddBusy(stream, 4096, 4096, 1000, IOR);
  AddStale(8192, 4096, 3000);
  SetRange(4096, 8192);
  EXPECT_EQ(Thrown([&] { Read(8192, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:1000 O:8192 L:50 S:0 ST:8\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:3000 O:8192 L:50 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:8192 B_L:4096 B_DL:3000 S:2\n",
             "Debug 671 f Trunc B_O:8192 B_L:4096 B_DL:3000 OE:11192 NE:8192\n"});
  ExpectRange(4096, 8192 - 11192 + 8192, 8192);
}

TEST_F(RwDiscardTest, LastBlockPullsTheEndBackToTheDataOfABlockBeingWritten) {
  AddBusy(stream, 4096, 4096, 1000, IOW);
  AddStale(8192, 4096, 4096);
  SetRange(4096, 8192);
  EXPECT_EQ(Thrown([&] { Write(8192, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:1000 O:8192 L:50 S:0 ST:16\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:8192 L:50 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:8192 B_L:4096 B_DL:4096 S:2\n",
             "Debug 671 f Trunc B_O:8192 B_L:4096 B_DL:4096 OE:12288 NE:5096\n"});
  ExpectRange(4096, 8192 - 12288 + 5096, 8192);
}

TEST_F(RwDiscardTest, FirstBlockMovesTheStartToTheNextAndKeepsTheEnd) {
  AddStale(4096, 4096, 3000);
  Add(stream, 8192, 4096, 1000, VALID);
  SetRange(4096, 8192);
  EXPECT_EQ(Thrown([&] { Read(5000, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:3000 O:5000 L:50 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:4096 B_L:4096 B_DL:3000 S:2\n",
             "Debug 679 f Shrinking B_O:4096 B_L:4096 B_DL:3000 NB_O:8192 NB_L:1000\n"});
  ASSERT_EQ(stream.buffers.size(), 1u);
  EXPECT_EQ(block(0)->off, 8192u);
  EXPECT_EQ(block(0)->skip, 0u);
  ExpectRange(8192, 4096, 5000);
}

TEST_F(RwDiscardTest, MiddleBlockLeavesTheRangeAlone) {
  Add(stream, 0, 4096, 4096, VALID);
  AddStale(4096, 4096, 4096, END);
  Add(stream, 8192, 4096, 4096, VALID);
  SetRange(0, 12288);
  EXPECT_EQ(Thrown([&] { Read(4096, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4096 L:50 S:0 ST:4\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:50 S:0 ST:36\n",
             "Debug 650 f Delete Buf2 B_O:4096 B_L:4096 B_DL:4096 S:3\n"});
  EXPECT_EQ(stream.buffers.size(), 2u);
  ExpectRange(0, 12288, 4096);
}

TEST_F(RwDiscardTest, BlockAtTheLimitOfItsAgeIsServed) {
  AddStale(0, 4096, 4096)->ltime = kStart - 10;
  EXPECT_EQ(Read(0, 50), 50u);
  ++clock_now;
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1000);
}

TEST_F(RwDiscardTest, AgeIsLookedAtBehindServedDataTooAndThatDataIsNotReported) {
  Add(stream, 0, 4096, 4096, VALID);
  AddStale(4096, 4096, 4096);
  SetRange(0, 8192);
  EXPECT_EQ(Thrown([&] { Read(4000, 200); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4000 L:200 S:0 ST:4\n",
             "Debug 192 Read buffer O:4000 L:200 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:4000 L:96\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:104 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:4096 B_L:4096 B_DL:4096 S:2\n",
             "Debug 671 f Trunc B_O:4096 B_L:4096 B_DL:4096 OE:8192 NE:4096\n"});
  ExpectRange(0, 4096, 4096);  // the position is where the request had come to
  EXPECT_EQ(stream.last_buffer, nullptr);
  logger.lines.clear();
  EXPECT_EQ(Read(4000, 200), 96u);  // the repeat serves that part again
}

TEST_F(RwDiscardTest, WriteIntoACleanBlockDiscardsItAndTheRepeatGetsANewBlock) {
  Add(stream, 0, 4096, 4096, VALID);
  SetRange(0, 4096);
  EXPECT_EQ(Thrown([&] { Write(100, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:0 B_L:4096 B_DL:4096 S:1\n"});
  ExpectRange(0, 0, 100);
  EXPECT_EQ(Write(100, 50), 50u);
  ExpectLog({"Debug 493 f New buffer O:100 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:4196 DL:0\n", "Debug 756 f Returning 50\n"});
}

TEST_F(RwDiscardTest, WriteThatReachesACleanBlockWithOlderBytesInFrontDiscardsIt) {
  // The first block has grown over the second one's start: its bytes come first in the list, and
  // what the second holds from there on would be written back with older bytes before them.
  Add(stream, 0, 200, 200, DIRTY);
  Add(stream, 150, 4096, 4096, VALID);
  SetRange(0, 4246);
  FillMemory(0);
  EXPECT_EQ(Thrown([&] { Write(0, 250); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:200 B_DL:200 O:0 L:250 S:0 ST:2\n",
             "Debug 722 f IO done O:0 L:200\n",
             "Debug 520 f Finding buffer B_O:150 B_L:4096 B_DL:4096 O:200 L:50 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:150 B_L:4096 B_DL:4096 S:2\n",
             "Debug 671 f Trunc B_O:150 B_L:4096 B_DL:4096 OE:4246 NE:200\n"});
  ExpectWritten(block(0), 0, 200);  // copied, though not reported
  ExpectRange(0, 200, 200);
}

TEST_F(RwDiscardTest, WriteIntoABlockWhoseWriteHasJustEndedDiscardsIt) {
  AddBusy(stream, 0, 4096, 4096, IOW);
  FinishWrite(block(0));
  EXPECT_EQ(Thrown([&] { Write(100, 50); }), 1000);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:16\n",
             "Trace 341 f Job done O:0 L:4096 DL:4096\n",
             "Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:4\n",
             "Debug 650 f Delete Buf2 B_O:0 B_L:4096 B_DL:4096 S:1\n"});
  EXPECT_TRUE(stream.buffers.empty());
}

TEST_F(RwDiscardTest, NegativeLengthAfterTheLastBlockIsAFailedCheckAndTheBlockIsGone) {
  Add(stream, 0, 4096, 4096, VALID);
  ExpectFreed([&] {
    AddStale(4096, 4096, 4096);
    block(0)->skip = 0;
    SetRange(0, 4095);  // one byte less than what is to be taken away
  });
  ExpectRange(0, -1, 0);  // the range is stored, the position is not
  EXPECT_EQ(stream.buffers.size(), 1u);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:4096 L:50 S:0 ST:4\n",
                   "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:50 S:0 ST:4\n",
                   "Debug 650 f Delete Buf2 B_O:4096 B_L:4096 B_DL:4096 S:2\n",
                   "Debug 671 f Trunc B_O:4096 B_L:4096 B_DL:4096 OE:8192 NE:4096\n"},
                  Assertion(675, "Negative length3 -1")}));
}

TEST_F(RwDiscardTest, LengthZeroAfterTheLastBlockIsStillARange) {
  Add(stream, 0, 4096, 4096, VALID);
  AddStale(4096, 4096, 4096);
  SetRange(0, 4096);
  EXPECT_EQ(Thrown([&] { Read(4096, 50); }), 1000);
  ExpectRange(0, 0, 4096);
}

TEST_F(RwDiscardTest, NegativeLengthAfterTheFirstBlockIsAFailedCheckAndTheBlockIsGone) {
  Add(stream, 8192, 4096, 4096, VALID);
  ExpectFreed([&] {
    AddStale(4096, 4096, 4096);
    stream.buffers.reverse();
    SetRange(4096, 4095);  // ends one byte before the block that stays
  });
  ExpectRange(8192, -1, 4096);
  EXPECT_EQ(stream.buffers.size(), 1u);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:50 S:0 ST:4\n",
                   "Debug 650 f Delete Buf2 B_O:4096 B_L:4096 B_DL:4096 S:2\n",
                   "Debug 679 f Shrinking B_O:4096 B_L:4096 B_DL:4096 NB_O:8192 NB_L:4096\n"},
                  Assertion(687, "Negative length4 -1")}));
}

TEST_F(RwDiscardTest, LengthZeroAfterTheFirstBlockIsStillARange) {
  AddStale(0, 4096, 4096);
  Add(stream, 8192, 4096, 4096, VALID);
  SetRange(0, 8192);
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1000);
  ExpectRange(8192, 0, 0);
}

TEST_F(RwDiscardTest, OnlyBlockIsGoneWithoutALookAtTheRange) {
  AddStale(0, 4096, 4096);
  SetRange(0, -5);
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1000);
  ExpectRange(0, 0, 0);
}

TEST_F(RwDiscardTest, LengthAfterTheLastBlockIsCheckedIn64BitsAndPrintedIn32) {
  Add(stream, 0, 4096, 4096, VALID);
  AddStale(4096, 4096, 4096);
  SetRange(0, 4096 + 0x80000000L);  // negative only in its low half
  EXPECT_EQ(Thrown([&] { Read(4096, 50); }), 1000);
  ExpectRange(0, 0x80000000L, 4096);
  AddStale(4096, 4096, 4096);
  SetRange(0, 4096 - (1L << 32) + 7);  // negative only in its high half
  EXPECT_EQ(Thrown([&] { Read(4096, 50); }), 1001);
  EXPECT_EQ(logger.lines.at(logger.lines.size() - 2), "Error 675 Negative length3 7");
}

TEST_F(RwDiscardTest, LengthAfterTheFirstBlockIsCheckedIn64BitsAndPrintedIn32) {
  AddStale(0, 4096, 4096);
  AddStale(4096, 4096, 4096);
  Add(stream, 8192, 4096, 4096, VALID);
  SetRange(0, 4096 + 0x80000000L);
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1000);
  ExpectRange(4096, 0x80000000L, 0);
  SetRange(4096, 4096 - (1L << 32) + 7);
  EXPECT_EQ(Thrown([&] { Read(4096, 50); }), 1001);
  EXPECT_EQ(logger.lines.at(logger.lines.size() - 2), "Error 687 Negative length4 7");
}

TEST_F(RwDiscardTest, DiscardingADirtyBlockEndsTheProcess) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  AddStale(0, 4096, 4096, DIRTY);
  logger.echo = true;
  EXPECT_DEATH(Read(0, 50),
               "Debug 650 f Delete Buf2 B_O:0 B_L:4096 B_DL:4096 S:1\n\n"
               "Error 110 ASSERT failure::\n\n"
               "Error 110 buffer dirty 6\n\n"
               "Error 110 \n\n");
}

// Requests for nothing.

TEST_F(RwEngineTest, RequestOfLengthZeroOnAnEmptyStreamIsAFailedCheck) {
  ExpectAssertion(734, "Length is 0\n", [&] { Read(0, 0); });
  ExpectAssertion(734, "Length is 0\n", [&] { Write(0, 0); });
  eof = true;  // the length is looked at first
  ExpectAssertion(734, "Length is 0\n", [&] { Read(0, 0); });
  EXPECT_TRUE(eof);
  EXPECT_TRUE(stream.buffers.empty());
}

TEST_F(RwEngineTest, RequestOfLengthZeroBeforeAndBehindBlocksIsAFailedCheck) {
  Add(stream, 4096, 4096, 4096, VALID);
  ExpectAssertion(734, "Length is 0\n", [&] { Read(0, 0); },
                  {"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:0 L:0 S:0 ST:4\n"});
  ExpectAssertion(734, "Length is 0\n", [&] { Write(8192, 0); },
                  {"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:8192 L:0 S:1 ST:4\n"});
  EXPECT_EQ(block(0)->skip, 2u);
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, RequestOfLengthZeroAtAnEndOfFileThatIsSeenIsAFailedCheck) {
  Add(stream, 0, 4096, 100, VALID | END);
  ExpectAssertion(734, "Length is 0\n", [&] { Read(100, 0); },
                  {"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:100 L:0 S:0 ST:36\n"});
  EXPECT_FALSE(eof);
}

TEST_F(RwEngineTest, RequestOfLengthZeroInsideABlockIsRefusedByTheCopy) {
  Add(stream, 0, 4096, 4096, DIRTY);
  const Lines finding = {"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:9 L:0 S:0 ST:2\n"};
  ExpectAssertion(
      178, "Length is 0\n", [&] { Read(9, 0); }, finding);
  ExpectAssertion(
      140, "Length is 0\n", [&] { Write(9, 0); }, finding);
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, RequestOfLengthZeroOverAHoleIsAFailedCheckAfterTheHole) {
  Add(stream, 4096, 4096, 4096, VALID);
  eof = true;
  ExpectAssertion(734, "Length is 0\n", [&] { Read(100, 0); },
                  {"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:100 L:0 S:0 ST:4\n",
                   "Debug 707 f Reading hole O:100 L:0\n", "Debug 722 f IO done O:100 L:0\n"});
  EXPECT_FALSE(eof);
  EXPECT_EQ(stream.last_buffer, block(0));
}

TEST_F(RwEngineTest, RequestOfLengthZeroStillWaitsDiscardsShipsAndTrims) {
  AddBusy(stream, 0, 4096, 0, IOR);
  EXPECT_EQ(Thrown([&] { Read(0, 0); }), 1000);
  ExpectOneWait(block(0), "Read-io-active");
  Clean(stream);
  block(0)->dlen = 4096;
  EXPECT_EQ(Thrown([&] { Write(1, 0); }), 1000);
  EXPECT_TRUE(stream.buffers.empty());

  Add(stream, 0, 4096, 100, DIRTY);
  ExpectAssertion(734, "Length is 0\n", [&] { Read(200, 0); },
                  {"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:200 L:0 S:0 ST:2\n",
                   "Debug 208 f ReducingLength NL:200 L:4096\n"});
  logger.lines.clear();
  EXPECT_EQ(Thrown([&] { Write(200, 0); }), 1001);
  ExpectLog(Join({{"Debug 520 f Finding buffer B_O:0 B_L:200 B_DL:100 O:200 L:0 S:0 ST:2\n"},
                  ShipLines("0", "100", "200"),
                  Assertion(734, "Length is 0\n")}));
}

// A dispatcher that is too quick.

TEST_F(RwEngineTest, ReadJobThatHasEndedBeforeTheWaitIsAFailedCheck) {
  dispatcher.on_submit = [&](VeskJob* job) { dispatcher.FinishRead(job, 4096); };
  logger.lines.clear();
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1001);
  ExpectLog(Join({{"Debug 493 f New buffer O:0 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:0 L:4096 DL:0\n",
                   "Debug 254 f Creating Read job " + P(LastJob()) + " O:0 L:4096 ST:8\n",
                   "Trace 341 f Job done O:0 L:4096 DL:4096\n"},
                  Assertion(753, "We should not come here\n")}));
  EXPECT_EQ(block(0)->state, VALID);
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(RwEngineTest, ReadJobThatHasFoundTheEndBeforeTheWaitIsAFailedCheckToo) {
  dispatcher.on_submit = [&](VeskJob* job) { dispatcher.FinishRead(job, 0, -2); };
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 1001);
  ASSERT_EQ(logger.lines.size(), 7u);
  EXPECT_EQ(logger.lines.at(3), "Debug 362 f End of file DL:0 ST:36\n");
  EXPECT_EQ(logger.lines.at(5), "Error 753 We should not come here\n");
  EXPECT_FALSE(eof);
}

TEST_F(RwEngineTest, ReadJobThatHasFailedBeforeTheWaitEndsTheRequestWithItsCode) {
  dispatcher.on_submit = [&](VeskJob* job) { dispatcher.FinishRead(job, 0, 5); };
  EXPECT_EQ(Thrown([&] { Read(0, 50); }), 5);
  EXPECT_EQ(logger.lines.back(), "Error 353 f Block error RC:5\n");
}

// --- Read ----------------------------------------------------------------------------------------

class EntryPointTest : public RequestTest {
 protected:
  unsigned int Read(unsigned long off, unsigned int len) {
    return stream.Read(&lock, memory, off, len, &eof, max_off, cookie, alloc_size, maxbufs,
                       maxpending, nullptr);
  }

  unsigned int Write(unsigned long off, unsigned int len) {
    return stream.Write(&lock, memory, off, len, max_off, cookie, alloc_size, maxbufs, flush_flag,
                        nullptr);
  }

  // A request took the shortcut: it wrote no line about finding blocks.
  bool TookTheShortcut() {
    const bool found =
        std::any_of(logger.lines.begin(), logger.lines.end(),
                    [](const std::string& line) { return line.compare(0, 9, "Debug 520") == 0; });
    logger.lines.clear();
    return !found;
  }

  unsigned long cookie = 42;
  unsigned int maxbufs = 10;
  unsigned int maxpending = 0;
};

TEST_F(EntryPointTest, ReadInsideTheLastBlockCopiesAndDoesNothingElse) {
  // A first block that would be dropped, and a read-ahead that would have something to do.
  Add(stream, 0, 4096, 4096, VALID)->skip = 10;
  Add(stream, 4096, 4096, 4096, VALID)->skip = 2;
  SetRange(0, 8192);
  stream.curr_pos = 5000;
  stream.last_buffer = block(1);
  settings.refresh_interval = 1;
  maxpending = 5;
  clock_now += 1000;  // not even the age of the block is looked at
  SoilMemory();
  EXPECT_EQ(Read(5000, 100), 100u);
  ExpectLog({"Debug 192 Read buffer O:5000 L:100 B_O:4096 B_L:4096\n"});
  ExpectFileBytes(5000, 0, 100);
  ExpectBytes(100, 110, kSoil);
  ExpectRange(0, 8192, 5100);
  EXPECT_EQ(stream.io_cookie, 42u);
  EXPECT_EQ(stream.last_buffer, block(1));
  EXPECT_EQ(block(0)->skip, 10u);
  EXPECT_EQ(block(1)->skip, 0u);
  EXPECT_EQ(clock_reads, 0);
  EXPECT_FALSE(eof);
}

TEST_F(EntryPointTest, ReadTakesTheShortcutOnlyStrictlyInsideTheValidData) {
  Add(stream, 4096, 4096, 1000, VALID);
  const struct {
    unsigned long off;
    unsigned int len;
    bool shortcut;
  } cases[] = {
      {4096, 100, false},                       // starts at the block's first byte
      {4097, 100, true},   {4996, 100, false},  // ends exactly with the data
      {4995, 100, true},   {4997, 100, false}, {4097, 998, true}, {4097, 999, false},
      {4097, 1000, false}, {5095, 1, false},   {5094, 1, true},
  };
  for (const auto& c : cases) {
    stream.last_buffer = block(0);
    const unsigned int expected =
        std::min(c.len, static_cast<unsigned int>(5096 - c.off));  // a full path is cut there
    EXPECT_EQ(Read(c.off, c.len), expected);
    EXPECT_EQ(TookTheShortcut(), c.shortcut) << c.off << ' ' << c.len;
    EXPECT_EQ(stream.curr_pos, c.off + expected);
  }
}

TEST_F(EntryPointTest, ReadTakesTheShortcutOnlyForAValidBlock) {
  Add(stream, 0, 4096, 4096, VALID);
  const struct {
    unsigned int state;
    bool shortcut;
  } cases[] = {{VALID, true},        {VALID | END, true}, {DIRTY, false},
               {DIRTY | END, false}, {IOW, false},        {VALID | DIRTY, true}};
  for (const auto& c : cases) {
    block(0)->state = c.state;
    stream.last_buffer = block(0);
    EXPECT_EQ(Read(100, 50), 50u);
    EXPECT_EQ(TookTheShortcut(), c.shortcut) << c.state;
    EXPECT_EQ(stream.last_buffer, block(0));
  }
  block(0)->state = VALID;
  stream.last_buffer = nullptr;
  EXPECT_EQ(Read(100, 50), 50u);
  EXPECT_FALSE(TookTheShortcut());
  EXPECT_EQ(Read(100, 50), 50u);  // the full path has found the block again
  EXPECT_TRUE(TookTheShortcut());
}

TEST_F(EntryPointTest, ReadOfLengthZeroInsideTheLastBlockIsRefusedByTheCopy) {
  Add(stream, 0, 4096, 4096, VALID);
  stream.last_buffer = block(0);
  ExpectAssertion(178, "Length is 0\n", [&] { Read(100, 0); });
  EXPECT_EQ(stream.io_cookie, 42u);
  EXPECT_EQ(stream.curr_pos, 0u);
}

TEST_F(EntryPointTest, ReadDropsAnOldFirstBlockBeforeItServes) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 4096, 4096, 4096, VALID);
  Add(stream, 8192, 4096, 4096, VALID);
  SetRange(0, 12288);
  stream.curr_pos = 5000;
  maxbufs = 2;
  EXPECT_EQ(Read(8192, 100), 100u);
  ExpectLog({"Trace 271 VeskBuffer::DoWriteIO(f), flush_current_only(FALSE) \n",
             "Debug 938 f Delete buffer BO:0 BL:4096 S_O:0 S_L:12288\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:8192 L:100 S:0 ST:4\n",
             "Debug 520 f Finding buffer B_O:8192 B_L:4096 B_DL:4096 O:8192 L:100 S:0 ST:4\n",
             "Debug 192 Read buffer O:8192 L:100 B_O:8192 B_L:4096\n",
             "Debug 722 f IO done O:8192 L:100\n"});
  ExpectRange(4096, 8192, 8292);
  EXPECT_EQ(stream.buffers.size(), 2u);
}

TEST_F(EntryPointTest, ShrinkingGetsTheOffsetAndTheLimitOfTheRequest) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 4096, 4096, 4096, VALID);
  SetRange(0, 8192);
  stream.curr_pos = 5000;
  maxbufs = 1;
  EXPECT_EQ(Read(4096, 10), 10u);  // not strictly behind the first block
  EXPECT_EQ(stream.buffers.size(), 2u);
  maxbufs = 2;
  EXPECT_EQ(Read(4096, 10), 10u);  // no block too many
  EXPECT_EQ(stream.buffers.size(), 2u);
  maxbufs = 1;
  stream.curr_pos = 5000;
  stream.last_buffer = nullptr;
  EXPECT_EQ(Read(4097, 10), 10u);
  EXPECT_EQ(stream.buffers.size(), 1u);
}

TEST_F(EntryPointTest, WaitOfTheShrinkingEndsTheRequestBeforeAnythingIsServed) {
  for (const bool write : {false, true}) {
    SCOPED_TRACE(write);
    Add(stream, 0, 4096, 4096, DIRTY);
    Add(stream, 4096, 4096, 4096, VALID);
    SetRange(0, 8192);
    stream.curr_pos = 5000;
    stream.last_buffer = block(1);
    maxbufs = 1;
    stream.io_cookie = 0;
    SoilMemory();
    EXPECT_EQ(Thrown([&] { write ? Write(8192, 10) : Read(8000, 192); }), 1000);
    ExpectLog({"Trace 271 VeskBuffer::DoWriteIO(f), flush_current_only(FALSE) \n",
               "Debug 274 VeskBuffer::DoWriteIO(f), buffer dirty \n",
               "Trace 299 f Creating Write job " + P(block(0)->job) + " W:1 O:0 L:4096\n",
               "Trace 370 f Wait for job " + P(block(0)->job) + " O:0\n"});
    ExpectOneWait(block(0), "ShrinkStream");
    EXPECT_EQ(DescribeOperation(JobOf(block(0))).flags, 0u);
    EXPECT_EQ(stream.io_cookie, 42u);  // stored before everything else
    EXPECT_EQ(stream.curr_pos, 5000u);
    EXPECT_EQ(stream.last_buffer, nullptr);
    ExpectBytes(0, 10, kSoil);
    DropBlocks();
    dispatcher.waits.clear();
  }
}

TEST_F(EntryPointTest, ReadAheadStartsFromTheOffsetOfTheRequestNotFromItsEnd) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 4096, 4096, 4096, VALID);
  SetRange(0, 8192);
  settings.refresh_interval = 60;
  maxpending = 2;
  EXPECT_EQ(Read(0, 8192), 8192u);
  const std::string job = P(LastJob());
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:8192 S:0 ST:4\n",
             "Debug 192 Read buffer O:0 L:8192 B_O:0 B_L:4096\n",
             "Debug 722 f IO done O:0 L:4096\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:4096 L:4096 S:0 ST:4\n",
             "Debug 192 Read buffer O:4096 L:4096 B_O:4096 B_L:4096\n",
             "Debug 722 f IO done O:4096 L:4096\n",
             "Debug 806 f Pending 1\n",  // from 8192 on there would be none
             "Debug 493 f New buffer O:8192 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:0 L:12288 DL:0\n",
             "Debug 254 f Creating Read job " + job + " O:8192 L:4096 ST:8\n"});
  ASSERT_EQ(stream.buffers.size(), 3u);
  EXPECT_EQ(stream.curr_pos, 8192u);  // not the start of the block that was read ahead
  EXPECT_EQ(stream.last_buffer, block(1));
  EXPECT_TRUE(dispatcher.waits.empty());
}

TEST_F(EntryPointTest, ReadAheadKeepsTheLimitsOfTheRequest) {
  settings.refresh_interval = 60;
  Add(stream, 0, 4096, 4096, VALID);
  SetRange(0, 4096);
  alloc_size = 1000;
  max_off = 6596;
  maxpending = 9;
  maxbufs = 3;
  EXPECT_EQ(Read(0, 10), 10u);  // stopped by the number of blocks
  ASSERT_EQ(stream.buffers.size(), 3u);
  EXPECT_EQ(block(1)->off, 4096u);
  EXPECT_EQ(block(1)->blen, 1000u);
  EXPECT_EQ(block(2)->off, 5096u);
  maxbufs = 10;
  maxpending = 2;
  EXPECT_EQ(Read(0, 10), 10u);  // two blocks lie ahead already
  EXPECT_EQ(stream.buffers.size(), 3u);
  maxpending = 9;
  EXPECT_EQ(Read(0, 10), 10u);  // stopped by the maximum offset
  ASSERT_EQ(stream.buffers.size(), 4u);
  EXPECT_EQ(block(3)->off, 6096u);
  EXPECT_EQ(block(3)->blen, 500u);
}

TEST_F(EntryPointTest, NothingIsReadAheadWhileTheIntervalIsZero) {
  Add(stream, 0, 4096, 4096, VALID);
  maxpending = 5;
  EXPECT_EQ(Read(0, 10), 10u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:4096 O:0 L:10 S:0 ST:4\n",
             "Debug 192 Read buffer O:0 L:10 B_O:0 B_L:4096\n", "Debug 722 f IO done O:0 L:10\n"});
  EXPECT_EQ(stream.buffers.size(), 1u);
  settings.refresh_interval = -1;  // odd, but not zero
  block(0)->ltime = 0;
  EXPECT_EQ(Read(0, 10), 10u);
  EXPECT_EQ(logger.lines.at(3), "Debug 806 f Pending 0\n");
}

TEST_F(EntryPointTest, NothingIsReadAheadOnceTheEndOfTheFileIsReached) {
  Add(stream, 0, 4096, 0, VALID | END);
  settings.refresh_interval = 60;
  maxpending = 5;
  EXPECT_EQ(Read(0, 10), 0u);
  ExpectLog({"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:0 O:0 L:10 S:0 ST:36\n",
             "Debug 738 f Eof O:0\n"});
  EXPECT_TRUE(eof);
  EXPECT_EQ(stream.curr_pos, 0u);
}

TEST_F(EntryPointTest, ReadAheadGoesOnWhenAHoleHasClearedTheEndOfTheFile) {
  Add(stream, 4096, 4096, 4096, VALID);
  SetRange(4096, 4096);
  settings.refresh_interval = 60;
  maxpending = 1;
  eof = true;
  EXPECT_EQ(Read(100, 50), 50u);
  ExpectLog({"Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:100 L:50 S:0 ST:4\n",
             "Debug 707 f Reading hole O:100 L:50\n", "Debug 722 f IO done O:100 L:50\n",
             "Debug 806 f Pending 1\n"});
  EXPECT_FALSE(eof);
  EXPECT_EQ(stream.curr_pos, 150u);
}

TEST_F(EntryPointTest, IntervalThatCountsForReadAheadIsTheOneAtTheEntry) {
  // A write-back that ends at once lets a request change the setting between entry and walk.
  for (const int at_entry : {0, 60}) {
    SCOPED_TRACE(at_entry);
    Add(stream, 0, 4096, 4096, DIRTY);
    Add(stream, 4096, 4096, 4096, VALID);
    SetRange(0, 8192);
    stream.curr_pos = 5000;
    maxbufs = 1;
    settings.refresh_interval = at_entry;
    dispatcher.on_submit = [&](VeskJob* job) {
      dispatcher.FinishWrite(job);
      settings.refresh_interval = 60 - at_entry;
    };
    EXPECT_EQ(Read(5000, 10), 10u);
    const bool read_ahead = logger.lines.back() == "Debug 806 f Pending 0\n";
    EXPECT_EQ(read_ahead, at_entry != 0);
    logger.lines.clear();
    DropBlocks();
  }
}

TEST_F(EntryPointTest, MissingReadLeavesThePositionAtTheNewBlock) {
  EXPECT_EQ(Thrown([&] { Read(5000, 10); }), 1000);
  EXPECT_EQ(stream.curr_pos, 5000u);
  EXPECT_EQ(stream.io_cookie, 42u);
  settings.refresh_interval = 60;
  maxpending = 1;
  FinishRead(block(0), 4096);
  EXPECT_EQ(Read(5000, 10), 10u);
  EXPECT_EQ(stream.curr_pos, 5010u);
  EXPECT_EQ(stream.buffers.size(), 2u);  // the repeat reads ahead, the abandoned request did not
}

// --- Write ---------------------------------------------------------------------------------------

TEST_F(EntryPointTest, WriteThatAppendsToTheLastBlockCopiesAndDoesNothingElse) {
  Add(stream, 0, 4096, 4096, VALID)->skip = 10;
  Add(stream, 4096, 4096, 100, DIRTY)->skip = 2;
  SetRange(0, 4196);
  stream.curr_pos = 5000;
  stream.last_buffer = block(1);
  FillMemory(4196);
  EXPECT_EQ(Write(4196, 50), 50u);
  ExpectLog({});
  ExpectWritten(block(1), 100, 150);
  EXPECT_EQ(block(1)->dlen, 150u);
  EXPECT_EQ(block(1)->dirty_length, 150u);
  EXPECT_EQ(block(1)->skip, 0u);
  ExpectRange(0, 4246, 4246);
  EXPECT_EQ(stream.io_cookie, 42u);
  EXPECT_EQ(stream.buffers.size(), 2u);
  EXPECT_EQ(stream.last_buffer, block(1));
}

TEST_F(EntryPointTest, WriteTakesTheShortcutOnlyExactlyAtTheEndAndWithRoomToSpare) {
  const struct {
    unsigned long off;
    unsigned int len;
    unsigned int dlen;
    bool shortcut;
  } cases[] = {
      {4196, 50, 100, true},    {4195, 50, 100, false},    // inside the data
      {4197, 50, 100, false},                              // behind a gap
      {4196, 3995, 100, true},  {4196, 3996, 100, false},  // ends exactly with the block
      {4196, 3997, 100, false}, {4096, 50, 0, false},      // starts at the block's first byte
      {4097, 50, 1, true},      {8191, 1, 4095, false},   {8190, 1, 4094, true},
  };
  for (const auto& c : cases) {
    Add(stream, 4096, 4096, c.dlen, DIRTY);
    SetRange(4096, 4096);
    stream.last_buffer = block(0);
    Write(c.off, c.len);
    EXPECT_EQ(TookTheShortcut(), c.shortcut) << c.off << ' ' << c.len << ' ' << c.dlen;
    DropBlocks();
  }
}

TEST_F(EntryPointTest, WriteTakesTheShortcutOnlyIntoADirtyBlock) {
  const struct {
    unsigned int state;
    bool shortcut;
  } cases[] = {{DIRTY, true}, {DIRTY | END, true}, {VALID | DIRTY, true}, {0, false}};
  for (const auto& c : cases) {
    Add(stream, 0, 4096, 100, c.state);
    SetRange(0, 4096);
    stream.last_buffer = block(0);
    EXPECT_EQ(Write(100, 50), 50u);
    EXPECT_EQ(TookTheShortcut(), c.shortcut) << c.state;
    DropBlocks();
  }
  Add(stream, 0, 4096, 100, DIRTY);
  stream.last_buffer = nullptr;
  EXPECT_EQ(Write(100, 50), 50u);
  EXPECT_FALSE(TookTheShortcut());
  EXPECT_EQ(Write(150, 50), 50u);  // the full path has found the block again
  EXPECT_TRUE(TookTheShortcut());
}

TEST_F(EntryPointTest, WriteToACleanLastBlockTakesTheFullPathAndDiscardsIt) {
  Add(stream, 0, 4096, 100, VALID);
  SetRange(0, 4096);
  stream.last_buffer = block(0);
  EXPECT_EQ(Thrown([&] { Write(100, 50); }), 1000);
  EXPECT_TRUE(stream.buffers.empty());
  EXPECT_EQ(stream.last_buffer, nullptr);
}

TEST_F(EntryPointTest, WriteOfLengthZeroAtTheEndOfTheLastBlockIsRefusedByTheCopy) {
  Add(stream, 0, 4096, 100, DIRTY);
  stream.last_buffer = block(0);
  ExpectAssertion(140, "Length is 0\n", [&] { Write(100, 0); });
  EXPECT_EQ(stream.io_cookie, 42u);
  EXPECT_EQ(stream.curr_pos, 0u);
}

TEST_F(EntryPointTest, WriteDropsAnOldFirstBlockBeforeItServes) {
  Add(stream, 0, 4096, 4096, VALID);
  Add(stream, 4096, 4096, 4096, VALID);
  SetRange(0, 8192);
  stream.curr_pos = 5000;
  maxbufs = 1;
  EXPECT_EQ(Write(8192, 50), 50u);
  ExpectLog({"Trace 271 VeskBuffer::DoWriteIO(f), flush_current_only(FALSE) \n",
             "Debug 938 f Delete buffer BO:0 BL:4096 S_O:0 S_L:8192\n",
             "Debug 520 f Finding buffer B_O:4096 B_L:4096 B_DL:4096 O:8192 L:50 S:0 ST:4\n",
             "Debug 493 f New buffer O:8192 L:4096 AS:4096 ML:65536\n",
             "Debug 411 f CurrentValidLength1 O:4096 L:8192 DL:0\n", "Debug 756 f Returning 50\n"});
  ExpectRange(4096, 8192, 8242);
}

TEST_F(EntryPointTest, WriteNeverReadsAhead) {
  settings.refresh_interval = 60;
  maxpending = 5;
  EXPECT_EQ(Write(0, 50), 50u);
  EXPECT_EQ(stream.buffers.size(), 1u);
  EXPECT_TRUE(dispatcher.submitted.empty());
}

TEST_F(EntryPointTest, WriteHandsItsFlushFlagToTheBlocksThatItShips) {
  Add(stream, 0, 4096, 100, DIRTY);
  flush_flag = true;
  EXPECT_EQ(Write(8192, 50), 50u);
  ASSERT_EQ(dispatcher.submitted.size(), 1u);
  EXPECT_EQ(DescribeOperation(dispatcher.submitted[0]).flags, 8u);
}

TEST_F(EntryPointTest, WriteMovesTheEndOfTheRangeOnlyForward) {
  Add(stream, 4096, 4096, 100, DIRTY);
  const struct {
    long before, after;
  } cases[] = {{149, 150}, {150, 150}, {151, 151}, {0, 150}, {LONG_MAX - 4096, LONG_MAX - 4096}};
  for (const auto& c : cases) {
    for (const bool shortcut : {false, true}) {
      SetRange(4096, c.before);
      block(0)->dlen = block(0)->dirty_length = 100;
      stream.last_buffer = shortcut ? block(0) : nullptr;
      EXPECT_EQ(Write(4196, 50), 50u);
      EXPECT_EQ(TookTheShortcut(), shortcut);
      ExpectRange(4096, c.after, 4246);
    }
  }
}

TEST_F(EntryPointTest, EndOfTheRangeIsComparedWithoutSign) {
  // The range ends at 2^64 - 1, farther than any end of a write.
  Add(stream, 0, 4096, 100, DIRTY);
  SetRange(~0UL - 100, 100);
  EXPECT_EQ(Write(100, 50), 50u);
  ExpectRange(~0UL - 100, 100, 150);
}

TEST_F(EntryPointTest, NegativeRangeAfterAWriteIsAFailedCheck) {
  Add(stream, 0, 4096, 100, DIRTY);
  SetRange(0, -7);  // without sign its end lies far behind the write
  ExpectAssertion(785, "Negative length6 -7", [&] { Write(100, 50); },
                  {"Debug 520 f Finding buffer B_O:0 B_L:4096 B_DL:100 O:100 L:50 S:0 ST:2\n",
                   "Debug 722 f IO done O:100 L:50\n"});
  EXPECT_EQ(block(0)->dlen, 150u);  // written all the same
  ExpectRange(0, -7, 0);            // the position is not

  // A block below the start of the range: its end minus that start is negative.
  SetRange(1000, -900);
  stream.last_buffer = block(0);
  ExpectAssertion(785, "Negative length6 -800", [&] { Write(150, 50); });
  ExpectRange(1000, -800, 1000);
}

TEST_F(EntryPointTest, RangeOfLengthZeroAfterAWriteIsFine) {
  Add(stream, 0, 4096, 100, DIRTY);
  SetRange(150, 0);
  EXPECT_EQ(Write(100, 50), 50u);
  ExpectRange(150, 0, 150);
}

TEST_F(EntryPointTest, NewBlockBelowTheRangeOfAnEmptyStreamIsAFailedCheckOfTheAllocation) {
  SetRange(8192, 0);
  ExpectAssertion(413, "Negative CurrentValidLength1 CO:8192 L:4096 O:0\n", [&] { Write(0, 10); },
                  {"Debug 493 f New buffer O:0 L:4096 AS:4096 ML:65536\n",
                   "Debug 411 f CurrentValidLength1 O:8192 L:-4096 DL:0\n"});
}

// --- Random requests -----------------------------------------------------------------------------

// The file, what was written to it, and jobs that end in any order.
class RwRandomTest : public RequestTest {
 protected:
  // A number in [low, high].
  unsigned int Random(unsigned int low, unsigned int high) {
    return low + static_cast<unsigned int>(random() % (high - low + 1));
  }

  void Start(unsigned int seed, unsigned long file_size, unsigned long limit) {
    random.seed(seed);
    max_off = limit;
    file.assign(file_size, 0);
    written.assign(limit, 0);
    for (unsigned long i = 0; i < file_size; ++i) written[i] = file[i] = FileByte(i);
    dispatcher.on_submit = [this](VeskJob* job) { in_flight.push_back(job); };
    dispatcher.on_wait = [this](VeskJob* job) {
      EndSomeJobs(3);
      // A wait may return with its job still unfinished: the request waits again.
      if (Random(0, 3) != 0) EndJob(job);
    };
  }

  VeskBuffer* BlockOf(const VeskJob* job) {
    for (VeskBuffer* each : stream.buffers) {
      if (each->job == job) return each;
    }
    ADD_FAILURE() << "a job in flight without a block";
    return nullptr;
  }

  // The transfer takes place now, and the job ends.
  void EndJob(VeskJob* job) {
    const auto found = std::find(in_flight.begin(), in_flight.end(), job);
    if (found == in_flight.end()) return;
    in_flight.erase(found);
    VeskBuffer* const block = BlockOf(job);
    ASSERT_NE(block, nullptr);
    if (DescribeOperation(job).code == 10) {
      const unsigned long end = block->off + block->dirty_length;
      if (end > file.size()) file.resize(end, 0);
      std::copy_n(block->bptr, block->dirty_length, file.begin() + static_cast<long>(block->off));
      dispatcher.FinishWrite(job);
      return;
    }
    const unsigned long available = file.size() > block->off ? file.size() - block->off : 0;
    const auto count = static_cast<unsigned int>(std::min<unsigned long>(block->blen, available));
    std::copy_n(file.begin() + static_cast<long>(std::min(block->off, file.size())), count,
                block->bptr);
    dispatcher.FinishRead(job, count, count == 0 && Random(0, 1) != 0 ? -2 : 0);
  }

  void EndSomeJobs(unsigned int at_most) {
    for (unsigned int n = Random(0, at_most); n > 0 && !in_flight.empty(); --n) {
      EndJob(in_flight[random() % in_flight.size()]);
    }
  }

  // What holds of a stream whenever no request is inside. `check_blocks` adds what holds of a
  // workload.
  void CheckStream() {
    unsigned long off = 0;
    for (const VeskBuffer* each : stream.buffers) {
      ASSERT_GE(each->off, off);
      off = each->off;
      ASSERT_LE(off + each->blen, max_off);
      ASSERT_LE(each->dlen, each->blen);
      ASSERT_LE(each->blen, each->size);
      ASSERT_LE(each->dirty_length, each->dlen);
      ASSERT_EQ(each->job != nullptr, each->GetState(IOR | IOW) != 0);
      ASSERT_EQ(each->GetState(DIRTY) != 0 || each->GetState(IOW) != 0, each->dirty_length != 0);
      ASSERT_EQ(each->GetState(INV), 0u);
    }
    if (stream.last_buffer != nullptr) {
      ASSERT_NE(std::find(stream.buffers.begin(), stream.buffers.end(), stream.last_buffer),
                stream.buffers.end());
    }
    ASSERT_GE(stream.curr_len, 0);
    check_blocks();
  }

  // Carries a request out as the layer above does: again, as long as it ends in 1000.
  template <typename Request>
  auto Repeat(Request request) -> decltype(request()) {
    for (int tries = 0; tries < 1000; ++tries) {
      try {
        const auto result = request();
        CheckStream();
        return result;
      } catch (const vesk::VeskException& thrown) {
        CheckStream();
        if (thrown.code != 1000) {
          ADD_FAILURE() << "thrown: " << thrown.code << ' ' << logger.lines.back();
          return {};
        }
      }
    }
    ADD_FAILURE() << "a request that does not come to an end";
    return {};
  }

  unsigned int Read(unsigned long off, unsigned int len, unsigned int maxbufs,
                    unsigned int maxpending) {
    std::fill_n(memory, len + 1, kSoil);
    return Repeat([&] {
      eof = false;
      return stream.Read(&lock, memory, off, len, &eof, max_off, 0, alloc_size, maxbufs, maxpending,
                         nullptr);
    });
  }

  // Writes all of it, however many requests that takes; only then the bytes count as written.
  void Write(unsigned long off, unsigned int len, unsigned int maxbufs) {
    std::vector<unsigned char> data(len);
    for (unsigned char& byte : data) byte = static_cast<unsigned char>(random());
    for (unsigned int done = 0; done < len;) {
      const unsigned int count = Repeat([&] {
        return stream.Write(&lock, data.data() + done, off + done, len - done, max_off, 0,
                            alloc_size, maxbufs, Random(0, 1) != 0, nullptr);
      });
      ASSERT_GT(count, 0u);
      ASSERT_LE(count, len - done);
      done += count;
    }
    std::copy(data.begin(), data.end(), written.begin() + static_cast<long>(off));
  }

  void ExpectRead(unsigned long off, unsigned int count) {
    const unsigned char* const expected = written.data() + off;
    const long same = std::mismatch(memory, memory + count, expected).first - memory;
    ASSERT_EQ(same, count) << "the first wrong byte is that at "
                           << off + static_cast<unsigned long>(same);
    ASSERT_EQ(memory[count], kSoil);
  }

  void Flush(bool wait) {
    const bool write_mode = Random(0, 1) != 0;
    const bool ignore_read = Random(0, 1) != 0;
    Repeat([&] {
      stream.Flush(&lock, wait, write_mode, ignore_read, false);
      return 0;
    });
  }

  // Everything is written back and every job has been reaped.
  void Settle() {
    Flush(true);
    while (!in_flight.empty()) EndSomeJobs(10);
    for (VeskBuffer* each : stream.buffers) {
      each->WaitForBuffer(&lock, bundler, stream.name, false, "");
      ASSERT_EQ(each->GetState(DIRTY | IOR | IOW | INV), 0u);
    }
  }

  std::mt19937 random;
  std::vector<unsigned char> file;     // what the disk holds
  std::vector<unsigned char> written;  // what a reader must see: one byte for each offset
  std::vector<VeskJob*> in_flight;
  std::function<void()> check_blocks = [] {};
};

class RwRandomSeedTest : public RwRandomTest, public ::testing::WithParamInterface<unsigned int> {};

// Requests of any offset and length, blocks of any size, over a file that reaches to max_off.
//
// The comparison is byte by byte, and sound because in this file no block overlaps another: every
// read is complete, so that a clean block is full (dlen == blen); a dirty block is cut before
// another starts in the part that it has not filled (trimmed by a read, shipped by a write), and a
// block that is being written was cut to its data when its job began. Without jobs that fail there
// are no INV blocks either. So each byte has one place in memory at most, and a job in flight the
// only access to its range of the file. Over a file that ends inside a block this would not hold:
// a short clean block and a block behind its data may both come to hold the same byte, and once
// the first is discarded the older value shows.
TEST_P(RwRandomSeedTest, AnyRequestsOnAFullFileReadWhatWasWritten) {
  const unsigned int limit = 64 * 1024;
  Start(GetParam(), limit, limit);
  check_blocks = [this] {
    unsigned long end = 0;
    for (const VeskBuffer* each : stream.buffers) {
      ASSERT_GE(each->off, end);
      end = each->off + each->blen;
      ASSERT_TRUE(each->GetState(VALID) == 0 || each->dlen == each->blen);
    }
  };
  settings.refresh_interval = static_cast<int>(GetParam() % 3) * 4;  // off in every third run
  const unsigned int maxbufs = Random(2, 12);
  const unsigned int maxpending = Random(0, 4);
  unsigned long next = 0;  // where the last request ended: half of the requests go on from there
  for (int step = 0; step < 1500 && !HasFailure(); ++step) {
    const unsigned int sizes[] = {500, 1000, 4096, 8192};
    alloc_size = sizes[Random(0, 3)];
    const unsigned long off = Random(0, 1) != 0 && next < limit ? next : Random(0, limit - 1);
    const auto len = static_cast<unsigned int>(
        std::min<unsigned long>(Random(1, Random(0, 3) != 0 ? 700 : 12000), limit - off));
    next = off + len;
    switch (Random(0, 19)) {
      case 0: Flush(Random(0, 1) != 0); break;
      case 1: stream.IsCacheDirty(Random(0, 1) != 0); break;
      case 2: clock_now += Random(0, 5); break;
      case 3:
      case 4:
      case 5:
      case 6:
      case 7:
      case 8:
      case 9: Write(off, len, maxbufs); break;
      default: {
        const unsigned int count = Read(off, len, maxbufs, maxpending);
        ASSERT_GT(count, 0u);
        ASSERT_LE(count, len);
        ASSERT_FALSE(eof);
        next = off + count;
        ExpectRead(off, count);
      }
    }
    EndSomeJobs(2);
    CheckStream();
    logger.lines.clear();
  }
  Settle();
  EXPECT_TRUE(file == written);
}

// Requests for one cell of a grid, over a file that grows from nothing: ends of file and holes.
//
// Every block is exactly one cell: reads ask for (part of) a cell from its first byte, writes for a
// whole one, and blocks have the size of a cell. So the end of the disk's file never falls inside a
// block, and a cell that is in memory stands in the block that a request for it meets first. A read
// that returns 0 must be of a cell that was never written.
//
// One thing must be left out to make this sound: an empty block that was the end of the file loses
// that mark when a block is appended behind it; a read then passes it and puts a second block on
// the same cell, while writes go to the first. Once the first is dropped, the second may show older
// bytes. Such a cell is in doubt and not compared until no block is left of it, or until the only
// one has been written wholly: the file itself is right, since only the first block of a cell is
// ever dirty.
TEST_P(RwRandomSeedTest, CellsOfAGrowingFileReadWhatWasWrittenOrEndTheFile) {
  const unsigned int cell = 512, cells = 40;
  Start(GetParam(), 0, cell * cells);
  alloc_size = cell;
  settings.refresh_interval = static_cast<int>(GetParam() % 3) * 4;
  const unsigned int maxbufs = Random(3, 20);
  const unsigned int maxpending = Random(0, 3);
  std::vector<bool> ever_written(cells, false);
  std::vector<bool> in_doubt(cells, false);
  check_blocks = [&] {
    std::vector<int> blocks(cells, 0);
    std::vector<bool> whole(cells, false);
    for (const VeskBuffer* each : stream.buffers) {
      ASSERT_EQ(each->off % cell, 0u);
      ASSERT_EQ(each->blen, cell);
      ++blocks[each->off / cell];
      whole[each->off / cell] = each->dirty_length == cell;
    }
    for (unsigned int i = 0; i < cells; ++i) {
      if (blocks[i] > 1) in_doubt[i] = true;
      if (blocks[i] == 0 || (blocks[i] == 1 && whole[i])) in_doubt[i] = false;
    }
  };
  int ends = 0, holes = 0, served = 0;  // so that the run is known to have been worth it
  for (int step = 0; step < 1500 && !HasFailure(); ++step) {
    // The part in use grows with the time, so that there is always something behind the end.
    const unsigned int index =
        Random(0, std::min(cells - 1, 4 + static_cast<unsigned int>(step) / 40));
    const unsigned long off = index * cell;
    switch (Random(0, 19)) {
      case 0: Flush(Random(0, 1) != 0); break;
      case 1: clock_now += Random(0, 5); break;
      case 2:
      case 3:
      case 4:
        Write(off, cell, maxbufs);
        ever_written[index] = true;
        break;
      default: {
        const unsigned int len = Random(1, cell);
        const unsigned int count = Read(off, len, maxbufs, maxpending);
        if (in_doubt[index]) break;
        if (count == 0) {
          ASSERT_TRUE(eof);
          ASSERT_FALSE(ever_written[index]);
          ++ends;
        } else {
          ASSERT_EQ(count, len);
          ASSERT_FALSE(eof);
          served += ever_written[index] ? 1 : 0;
        }
        ExpectRead(off, count);
      }
    }
    holes += static_cast<int>(std::count_if(
        logger.lines.begin(), logger.lines.end(),
        [](const std::string& line) { return line.compare(0, 9, "Debug 707") == 0; }));
    EndSomeJobs(2);
    CheckStream();
    logger.lines.clear();
  }
  Settle();
  file.resize(written.size(), 0);
  EXPECT_TRUE(file == written);
  EXPECT_GT(ends, 10);
  EXPECT_GT(holes, 0);
  EXPECT_GT(served, 500);
}

INSTANTIATE_TEST_SUITE_P(Seeds, RwRandomSeedTest, ::testing::Range(1u, 17u));

}  // namespace
}  // namespace vesk_test

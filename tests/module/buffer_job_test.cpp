// One block and its jobs: how they are started, announced, waited for and collected.

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "tests/support/block_fields.h"
#include "tests/support/module_test.h"
#include "tests/support/still_logger.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskJob;
using vesk::VeskStream;

// Numbers that other programs know.
static_assert(vesk::ERR_WAIT == 1000 && vesk::ERR_ASSERT == 1001);
static_assert(vesk::OPCODE_READ == 9u && vesk::OPCODE_WRITE == 10u);
static_assert(vesk::OPFLAG_WRITE_MODE == 8u);
static_assert(vesk::JOB_TYPE_IO == 1 && vesk::JOB_STATE_DONE == 4 && vesk::RC_EOF == -2);

// A mutex that nobody holds.
bool IsFree(pthread_mutex_t& mutex) {
  if (pthread_mutex_trylock(&mutex) != 0) return false;
  pthread_mutex_unlock(&mutex);
  return true;
}

// The stream owns the blocks of a test and is made clean at its end, whatever the test did.
class BufferJobTest : public ModuleTest {
 protected:
  static constexpr unsigned long kOff = 8192;
  static constexpr unsigned int kLen = 4096;

  struct WriteCall {
    bool write_mode = false;
    bool wait = false;
    bool ignore_read = false;
    bool flush_current_only = false;
    const char* tag = "Flush";
  };

  ~BufferJobTest() override { Clean(stream); }

  // A block whose skip and ltime show whether they were set.
  VeskBuffer* Idle(unsigned int state, unsigned int dlen = 0) {
    return Marked(Add(stream, kOff, kLen, dlen, state));
  }

  // The same with a job in flight; dirty_length is 50.
  VeskBuffer* Busy(unsigned int state, unsigned int dlen = 100) {
    VeskBuffer* const block = Marked(AddBusy(stream, kOff, kLen, dlen, state));
    block->dirty_length = 50;
    return block;
  }

  // Gives all blocks and jobs back.
  void Drop() {
    Clean(stream);
    for (VeskBuffer* block : stream.buffers) delete block;
    stream.buffers.clear();
    dispatcher.Release();
    dispatcher.waits.clear();
  }

  void StartRead(VeskBuffer* block, bool wait) {
    block->DoReadIO(&lock, bundler, name, wait, nullptr, &stream);
  }

  void StartWrite(VeskBuffer* block, const WriteCall& call) {
    block->DoWriteIO(&lock, bundler, name, call.write_mode, call.wait, call.ignore_read, call.tag,
                     call.flush_current_only);
  }
  void StartWrite(VeskBuffer* block) { StartWrite(block, WriteCall()); }

  void Collect(VeskBuffer* block, bool wait = false) {
    block->WaitForBuffer(&lock, bundler, name, wait, "tag");
  }

  // Lines of a block at kOff.
  static Lines ReadLine(const VeskJob* job, unsigned int state, unsigned int blen = kLen) {
    return {"Debug 254 f Creating Read job " + P(job) +
            Text(" O:8192 L:%d ST:%x\n", static_cast<int>(blen), state)};
  }
  static Lines EntryLine(bool flush_current_only = false) {
    return {Text("Trace 271 VeskBuffer::DoWriteIO(f), flush_current_only(%s) \n",
                 flush_current_only ? "TRUE" : "FALSE")};
  }
  static Lines DirtyLine() { return {"Debug 274 VeskBuffer::DoWriteIO(f), buffer dirty \n"}; }
  static Lines WriteLine(const VeskJob* job, bool wait, unsigned int dirty_length) {
    return {"Trace 299 f Creating Write job " + P(job) +
            Text(" W:%d O:8192 L:%d\n", wait ? 1 : 0, static_cast<int>(dirty_length))};
  }
  static Lines WaitLine(const VeskJob* job) {
    return {"Trace 370 f Wait for job " + P(job) + " O:8192\n"};
  }
  static Lines DoneLine(unsigned int blen, unsigned int dlen) {
    return {Text("Trace 341 f Job done O:8192 L:%d DL:%d\n", static_cast<int>(blen),
                 static_cast<int>(dlen))};
  }
  static Lines EofLine(unsigned int state) {
    return {Text("Debug 362 f End of file DL:0 ST:%d\n", static_cast<int>(state))};
  }
  static Lines ErrorLine(int rc) { return {Text("Error 353 f Block error RC:%d\n", rc)}; }

  // Names that are marked, each with the mark 1.
  std::vector<std::string> MarkedNames() {
    std::vector<std::string> names;
    for (const auto& [marked, mark] : pool->pending_streams) {
      EXPECT_EQ(mark, 1) << marked;
      names.push_back(marked);
    }
    return names;
  }

  using Names = std::vector<std::string>;

  VeskStream stream{name, bundler, 0, 0, 0};

 private:
  static VeskBuffer* Marked(VeskBuffer* block) {
    block->skip = 7;
    block->ltime = 1;
    return block;
  }
};

// --- DoReadIO ------------------------------------------------------------------------------------

class BufferReadJobTest : public BufferJobTest {
 protected:
  // A read that `block` refuses before anything but `skip` has changed.
  void ExpectRefused(VeskBuffer* block, int site, const std::string& message) {
    for (const bool wait : {false, true}) {
      block->skip = 7;
      Fields expected(*block);
      expected.skip = 0;
      ExpectAssertion(site, message, [&] { StartRead(block, wait); });
      EXPECT_EQ(Fields(*block), expected);
    }
    EXPECT_EQ(stream.pending_io, 0u);
    EXPECT_EQ(clock_reads, 0);
    EXPECT_TRUE(dispatcher.submitted.empty());
    EXPECT_TRUE(pool->pending_streams.empty());
  }
};

TEST_F(BufferReadJobTest, StartedReadIsSubmittedAndAnnounced) {
  VeskBuffer* const block = Idle(VALID);
  Fields expected(*block);
  clock_now = kStart + 5;
  StartRead(block, false);

  ASSERT_EQ(dispatcher.submitted.size(), 1u);
  expected.skip = 0;
  expected.ltime = kStart + 5;
  expected.state = IOR;
  expected.job = dispatcher.submitted[0];
  EXPECT_EQ(Fields(*block), expected);
  EXPECT_EQ(References(block->job), 2);  // the block's and the dispatcher's
  EXPECT_EQ(stream.pending_io, 1u);
  EXPECT_EQ(block->job->owner_stream, &stream);
  EXPECT_EQ(MarkedNames(), Names{"f"});
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(clock_reads, 1);
  EXPECT_TRUE(IsFree(stream.stream_mutex));
  EXPECT_TRUE(IsFree(pool->tp_mutex));
  ExpectLog(ReadLine(block->job, 8));
}

TEST_F(BufferReadJobTest, ReadOperationNamesTheWholeBlock) {
  VeskBuffer* const block = Idle(VALID);
  StartRead(block, false);
  const Operation operation = DescribeOperation(block->job);
  EXPECT_EQ(JobType(block->job), 1);
  EXPECT_EQ(operation.code, 9u);
  EXPECT_EQ(operation.flags, 0u);
  EXPECT_EQ(operation.arguments, (Lines{"string f", "ptr " + P(block->bptr), "int 4096",
                                        "ulong 8192", "ptr " + P(&block->dlen)}));
  logger.lines.clear();
}

TEST_F(BufferReadJobTest, ReadOfACutBlockAsksForTheUsableLength) {
  VeskBuffer* const block = Idle(VALID);
  block->blen = 100;
  StartRead(block, false);
  EXPECT_EQ(DescribeOperation(block->job).arguments.at(2), "int 100");
  ExpectLog(ReadLine(block->job, 8, 100));
}

TEST_F(BufferReadJobTest, WideValuesAreNarrowedAsTheirPlacesSay) {
  VeskBuffer* const block = Idle(VALID);
  block->off = (1ul << 63) + 5;
  block->blen = UINT_MAX;
  clock_now = (5l << 32) + 123;
  StartRead(block, false);
  const Operation operation = DescribeOperation(block->job);
  EXPECT_EQ(operation.arguments.at(2), "int -1");
  EXPECT_EQ(operation.arguments.at(3), "ulong 9223372036854775813");
  EXPECT_EQ(block->ltime, 123u);
  ExpectLog(
      {"Debug 254 f Creating Read job " + P(block->job) + " O:-9223372036854775803 L:-1 ST:8\n"});
}

TEST_F(BufferReadJobTest, ClockBeforeTheEpochIsCutToo) {
  VeskBuffer* const block = Idle(VALID);
  clock_now = -1;
  StartRead(block, false);
  EXPECT_EQ(block->ltime, UINT_MAX);
  logger.lines.clear();
}

TEST_F(BufferReadJobTest, NameComesFromTheCallNotFromTheStream) {
  VeskBuffer* const block = Idle(VALID);
  std::string other = "other";
  block->DoReadIO(&lock, bundler, other, false, nullptr, &stream);
  EXPECT_EQ(DescribeOperation(block->job).arguments.at(0), "string other");
  EXPECT_EQ(MarkedNames(), Names{"other"});
  ExpectLog({"Debug 254 other Creating Read job " + P(block->job) + " O:8192 L:4096 ST:8\n"});
}

TEST_F(BufferReadJobTest, StatusRecordIsNotLookedAt) {
  VeskBuffer* const block = Idle(VALID);
  static char nowhere;  // far too small to be one
  block->DoReadIO(&lock, bundler, name, false, reinterpret_cast<vesk::sfsstat*>(&nowhere), &stream);
  EXPECT_EQ(block->state, IOR);
  logger.lines.clear();
}

TEST_F(BufferReadJobTest, ReadTakesInvalidAndValidAwayAndLeavesTheOtherBits) {
  for (const unsigned int other : {0u, kNoState}) {
    for (unsigned int bits = 0; bits < 64; ++bits) {
      if ((bits & DIRTY) != 0) continue;
      VeskBuffer* const block = Idle(bits | other);
      block->rc = -5;
      Fields expected(*block);
      StartRead(block, false);
      expected.skip = 0;
      expected.ltime = kStart;
      expected.state = ((bits & 58) | 8) | other;
      expected.job = dispatcher.submitted.at(0);
      EXPECT_EQ(Fields(*block), expected) << bits;
      ExpectLog(ReadLine(block->job, expected.state));
      Drop();
    }
  }
}

TEST_F(BufferReadJobTest, EachReadIsCounted) {
  stream.pending_io = 41;
  StartRead(Idle(VALID), false);
  EXPECT_EQ(stream.pending_io, 42u);
  StartRead(Idle(VALID), false);
  EXPECT_EQ(stream.pending_io, 43u);
  EXPECT_THROW(StartRead(Idle(VALID), true), vesk::VeskException);
  EXPECT_EQ(stream.pending_io, 44u);
  VeskBuffer* const block = stream.buffers.front();
  dispatcher.FinishRead(block->job, 1);
  Collect(block);
  EXPECT_EQ(stream.pending_io, 44u);  // whoever ends the job counts it off
  logger.lines.clear();
}

TEST_F(BufferReadJobTest, ReadBelongsToTheStreamItIsGivenNotToTheOneThatOwnsTheBlock) {
  VeskStream another(name, bundler, 0, 0, 0);
  VeskBuffer* const block = Idle(VALID);
  block->DoReadIO(&lock, bundler, name, false, nullptr, &another);
  EXPECT_EQ(block->job->owner_stream, &another);
  EXPECT_EQ(another.pending_io, 1u);
  EXPECT_EQ(stream.pending_io, 0u);
  logger.lines.clear();
}

TEST_F(BufferReadJobTest, DirtyBlockIsNotRead) {
  ExpectRefused(Idle(DIRTY), 226, "Buffer is dirty\n");
  ExpectRefused(Idle(~0u), 226, "Buffer is dirty\n");
}

TEST_F(BufferReadJobTest, BlockWithDataIsNotRead) {
  ExpectRefused(Idle(VALID, 1), 229, "Buffer length not valid 1\n");
  VeskBuffer* const block = Idle(VALID);
  block->dlen = UINT_MAX;
  ExpectRefused(block, 229, "Buffer length not valid -1\n");
}

TEST_F(BufferReadJobTest, BlockWithADirtyLengthIsNotRead) {
  VeskBuffer* const block = Idle(VALID);
  block->dirty_length = 1;
  ExpectRefused(block, 231, "Buffer dirty length not valid 1\n");
  block->dirty_length = 1u << 31;
  ExpectRefused(block, 231, "Buffer dirty length not valid -2147483648\n");
}

TEST_F(BufferReadJobTest, FirstOfSeveralReasonsIsReported) {
  VeskBuffer* const block = Idle(DIRTY, 3);
  block->dirty_length = 2;
  ExpectRefused(block, 226, "Buffer is dirty\n");
  block->state = VALID;
  ExpectRefused(block, 229, "Buffer length not valid 3\n");
  block->dlen = 0;
  ExpectRefused(block, 231, "Buffer dirty length not valid 2\n");
  block->dirty_length = 0;
  StartRead(block, false);
  EXPECT_EQ(block->state, IOR);
  logger.lines.clear();
}

TEST_F(BufferReadJobTest, EverythingIsSetBeforeTheJobIsSubmitted) {
  VeskBuffer* const block = Idle(INV);
  dispatcher.on_submit = [&](VeskJob* job) {
    EXPECT_EQ(block->job, job);
    EXPECT_EQ(block->state, IOR);
    EXPECT_EQ(block->ltime, kStart);
    EXPECT_EQ(block->skip, 0u);
    EXPECT_EQ(job->owner_stream, &stream);
    EXPECT_EQ(References(job), 2);
    EXPECT_EQ(stream.pending_io, 1u);
    EXPECT_TRUE(pool->pending_streams.empty());
    EXPECT_TRUE(IsFree(stream.stream_mutex));
    EXPECT_TRUE(IsFree(pool->tp_mutex));
    ExpectLog(ReadLine(job, 8));
  };
  StartRead(block, false);
  EXPECT_EQ(dispatcher.submitted.size(), 1u);
  ExpectLog({});
}

TEST_F(BufferReadJobTest, LineIsWrittenWithTheNewStateAndWithoutAMutex) {
  StillLogger still;
  env.logger = &still;
  VeskBuffer* const block = Idle(VALID | END_OF_FILE);
  int lines = 0;
  still.on_line = [&](int site) {
    ++lines;
    EXPECT_EQ(site, 254);
    EXPECT_EQ(block->state, IOR | END_OF_FILE);
    EXPECT_EQ(block->ltime, kStart);
    EXPECT_EQ(stream.pending_io, 1u);
    ASSERT_NE(block->job, nullptr);
    EXPECT_EQ(block->job->owner_stream, &stream);
    EXPECT_TRUE(dispatcher.submitted.empty());
    EXPECT_TRUE(IsFree(stream.stream_mutex));
    EXPECT_TRUE(IsFree(pool->tp_mutex));
  };
  StartRead(block, false);
  EXPECT_EQ(lines, 1);
}

TEST_F(BufferReadJobTest, WaitingReadEndsInARepeatAndAnnouncesNothing) {
  VeskBuffer* const block = Idle(VALID);
  int waits = 0;
  dispatcher.on_wait = [&](VeskJob* job) {
    ++waits;
    EXPECT_EQ(References(job), 3);  // the block's, the dispatcher's, the wait's
    dispatcher.FinishRead(job, 1000);
  };
  EXPECT_EQ(Thrown([&] { StartRead(block, true); }), 1000);
  EXPECT_EQ(waits, 1);
  ASSERT_EQ(dispatcher.waits.size(), 1u);
  EXPECT_EQ(dispatcher.waits[0].job, block->job);
  EXPECT_EQ(dispatcher.waits[0].lock, &lock);
  EXPECT_EQ(dispatcher.waits[0].tag, "Read");
  EXPECT_EQ(References(block->job), 2);
  EXPECT_EQ(block->state, IOR);  // collected by the repeated request
  EXPECT_EQ(clock_reads, 1);
  EXPECT_TRUE(pool->pending_streams.empty());
  ExpectLog(Join({ReadLine(block->job, 8), WaitLine(block->job)}));
}

TEST_F(BufferReadJobTest, ReadThatHasEndedByTheTimeOfTheLookReturns) {
  VeskBuffer* const block = Idle(VALID);
  dispatcher.on_submit = [&](VeskJob* job) {
    clock_now += 3;
    dispatcher.FinishRead(job, 1000);
  };
  Fields expected(*block);
  StartRead(block, true);
  expected.skip = 0;
  expected.ltime = kStart + 3;
  expected.state = VALID;
  expected.dlen = 1000;
  EXPECT_EQ(Fields(*block), expected);
  EXPECT_EQ(References(dispatcher.submitted.at(0)), 1);
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_TRUE(pool->pending_streams.empty());
  EXPECT_EQ(clock_reads, 2);  // at its start and at its end
  ExpectLog(Join({ReadLine(dispatcher.submitted[0], 8), DoneLine(kLen, 1000)}));
}

TEST_F(BufferReadJobTest, ReadThatHasFailedByTheTimeOfTheLookThrowsItsError) {
  VeskBuffer* const block = Idle(VALID);
  dispatcher.on_submit = [&](VeskJob* job) { dispatcher.FinishRead(job, 0, 5); };
  EXPECT_EQ(Thrown([&] { StartRead(block, true); }), 5);
  EXPECT_EQ(block->state, INV);
  EXPECT_EQ(block->job, nullptr);
  ExpectLog(Join({ReadLine(dispatcher.submitted.at(0), 8), ErrorLine(5)}));
}

TEST_F(BufferReadJobTest, AnnouncedReadIsNotCollectedEvenIfItHasEnded) {
  VeskBuffer* const block = Idle(VALID);
  dispatcher.on_submit = [&](VeskJob* job) { dispatcher.FinishRead(job, 1000); };
  StartRead(block, false);
  EXPECT_EQ(block->state, IOR);
  EXPECT_NE(block->job, nullptr);
  EXPECT_EQ(MarkedNames(), Names{"f"});
  ExpectLog(ReadLine(block->job, 8));
}

TEST_F(BufferReadJobTest, FailedBlockCanBeReadAgain) {
  VeskBuffer* const block = Idle(VALID);
  StartRead(block, false);
  dispatcher.FinishRead(block->job, 0, 5);
  EXPECT_EQ(Thrown([&] { Collect(block); }), 5);
  StartRead(block, false);
  EXPECT_EQ(block->state, IOR);
  EXPECT_EQ(block->rc, 5);  // of the last job that has ended
  dispatcher.FinishRead(block->job, 10);
  Collect(block);
  EXPECT_EQ(block->state, VALID);
  EXPECT_EQ(block->rc, 0);
  EXPECT_EQ(block->dlen, 10u);
  logger.lines.clear();
}

// While the mutex is held elsewhere the count does not move and nothing is submitted.
TEST_F(BufferReadJobTest, ReadIsCountedUnderTheStreamsMutex) {
  VeskBuffer* const block = Idle(VALID);
  std::atomic<bool> submitted{false};
  dispatcher.on_submit = [&](VeskJob* /*job*/) { submitted = true; };
  pthread_mutex_lock(&stream.stream_mutex);
  std::thread reader([&] { StartRead(block, false); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(stream.pending_io, 0u);
  EXPECT_FALSE(submitted);
  pthread_mutex_unlock(&stream.stream_mutex);
  reader.join();
  EXPECT_EQ(stream.pending_io, 1u);
  EXPECT_TRUE(submitted);
  logger.lines.clear();
}

// --- DoWriteIO -----------------------------------------------------------------------------------

class BufferWriteJobTest : public BufferJobTest {
 protected:
  // A DIRTY block at kOff with this dirty length.
  VeskBuffer* Dirty(unsigned int dlen, unsigned int dirty_length, unsigned int state = DIRTY) {
    VeskBuffer* const block = Idle(state, dlen);
    block->dirty_length = dirty_length;
    return block;
  }
};

TEST_F(BufferWriteJobTest, DirtyBlockIsCutSubmittedAndAnnounced) {
  VeskBuffer* const block = Dirty(3000, 2000);
  Fields expected(*block);
  clock_now = kStart + 5;
  StartWrite(block);

  ASSERT_EQ(dispatcher.submitted.size(), 1u);
  expected.skip = 0;
  expected.ltime = kStart + 5;
  expected.state = IOW;
  expected.blen = expected.dlen = 2000;
  expected.job = dispatcher.submitted[0];
  EXPECT_EQ(Fields(*block), expected);
  EXPECT_EQ(References(block->job), 2);
  EXPECT_EQ(block->job->owner_stream, nullptr);
  EXPECT_EQ(stream.pending_io, 0u);
  EXPECT_EQ(MarkedNames(), Names{"f"});
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(clock_reads, 1);
  EXPECT_TRUE(IsFree(pool->tp_mutex));
  ExpectLog(Join({EntryLine(), DirtyLine(), WriteLine(block->job, false, 2000)}));
}

TEST_F(BufferWriteJobTest, WriteOperationNamesTheDirtyBytes) {
  for (const bool write_mode : {false, true}) {
    VeskBuffer* const block = Dirty(3000, 2000);
    WriteCall call;
    call.write_mode = write_mode;
    StartWrite(block, call);
    const Operation operation = DescribeOperation(block->job);
    EXPECT_EQ(JobType(block->job), 1);
    EXPECT_EQ(operation.code, 10u);
    EXPECT_EQ(operation.flags, write_mode ? 8u : 0u);
    EXPECT_EQ(operation.arguments,
              (Lines{"string f", "ptr " + P(block->bptr), "ulong 2000", "ulong 8192", "int 1"}));
    Drop();
  }
  logger.lines.clear();
}

TEST_F(BufferWriteJobTest, WideValuesAreNarrowedOrWidenedAsTheirPlacesSay) {
  VeskBuffer* const block = Dirty(0x80000001u, 0x80000001u);
  block->off = (1ul << 63) + 5;
  block->blen = UINT_MAX;
  clock_now = (5l << 32) + 123;
  StartWrite(block);
  EXPECT_EQ(block->blen, 0x80000001u);
  const Operation operation = DescribeOperation(block->job);
  EXPECT_EQ(operation.arguments.at(2), "ulong 2147483649");
  EXPECT_EQ(operation.arguments.at(3), "ulong 9223372036854775813");
  EXPECT_EQ(block->ltime, 123u);
  ExpectLog(Join({EntryLine(),
                  DirtyLine(),
                  {"Trace 299 f Creating Write job " + P(block->job) +
                   " W:0 O:-9223372036854775803 L:-2147483647\n"}}));
  block->blen = block->dlen = block->dirty_length = 0;
}

TEST_F(BufferWriteJobTest, NameComesFromTheCall) {
  VeskBuffer* const block = Dirty(10, 10);
  std::string other = "other";
  block->DoWriteIO(&lock, bundler, other, false, false, false, "tag", false);
  EXPECT_EQ(DescribeOperation(block->job).arguments.at(0), "string other");
  EXPECT_EQ(MarkedNames(), Names{"other"});
  ExpectLog({"Trace 271 VeskBuffer::DoWriteIO(other), flush_current_only(FALSE) \n",
             "Debug 274 VeskBuffer::DoWriteIO(other), buffer dirty \n",
             "Trace 299 other Creating Write job " + P(block->job) + " W:0 O:8192 L:10\n"});
}

TEST_F(BufferWriteJobTest, WriteTakesInvalidDirtyAndValidAwayAndLeavesTheOtherBits) {
  for (const unsigned int other : {0u, kNoState}) {
    for (unsigned int bits = 0; bits < 64; ++bits) {
      if ((bits & DIRTY) == 0) continue;
      VeskBuffer* const block = Dirty(10, 10, bits | other);
      block->rc = -5;
      Fields expected(*block);
      StartWrite(block);
      expected.skip = 0;
      expected.ltime = kStart;
      expected.state = ((bits & 56) | 16) | other;
      expected.blen = 10;
      expected.job = dispatcher.submitted.at(0);
      EXPECT_EQ(Fields(*block), expected) << bits;
      EXPECT_EQ(MarkedNames(), Names{"f"});
      ExpectLog(Join({EntryLine(), DirtyLine(), WriteLine(block->job, false, 10)}));
      Drop();
      pool->pending_streams.clear();
    }
  }
}

TEST_F(BufferWriteJobTest, BlockIsCutToItsDirtyLength) {
  struct Case {
    unsigned int blen, dlen, dirty, new_blen, new_dlen;
  };
  // clang-format off
  const Case cases[] = {
      //blen  dlen dirty  blen  dlen
      { 4096, 4096, 4096, 4096, 4096},
      { 4096, 4096, 4095, 4095, 4095},
      { 4096,  100,  100,  100,  100},
      { 4096,  101,  100,  100,  100},
      {  100,  100,  100,  100,  100},
      {   99,  100,  100,   99,  100},  // a block that is cut already stays as it is
      {  100,  300,  200,  100,  200},
      { 4096,    1,    1,    1,    1},
      { 4096,  100,    0,    0,    0},
      { 4096,    0,    0,    0,    0},
  };
  // clang-format on
  for (const Case& c : cases) {
    VeskBuffer* const block = Dirty(c.dlen, c.dirty);
    block->blen = c.blen;
    StartWrite(block);
    EXPECT_EQ(block->blen, c.new_blen);
    EXPECT_EQ(block->dlen, c.new_dlen);
    EXPECT_EQ(block->dirty_length, c.dirty);
    EXPECT_EQ(block->size, kLen);
    EXPECT_EQ(DescribeOperation(block->job).arguments.at(2), "ulong " + std::to_string(c.dirty));
    ExpectLog(Join({EntryLine(), DirtyLine(), WriteLine(block->job, false, c.dirty)}));
    Drop();
  }
}

TEST_F(BufferWriteJobTest, DirtyRunBeyondTheDataIsReportedAfterTheCuts) {
  struct Case {
    unsigned int blen, dlen, dirty, new_blen;
    const char* message;
  };
  // clang-format off
  const Case cases[] = {
      {    4096,      80,         100,      100, "DBL: 100 BL: 80\n"},
      {    4096,      99,         100,      100, "DBL: 100 BL: 99\n"},
      {      50,      80,         100,       50, "DBL: 100 BL: 80\n"},
      {    4096,       0,           1,        1, "DBL: 1 BL: 0\n"},
      {UINT_MAX, 1u << 31, UINT_MAX, UINT_MAX, "DBL: 4294967295 BL: 2147483648\n"},
      {UINT_MAX,       1,  1u << 31, 1u << 31, "DBL: 2147483648 BL: 1\n"},
  };
  // clang-format on
  for (const Case& c : cases) {
    for (const bool wait : {false, true}) {
      VeskBuffer* const block = Dirty(c.dlen, c.dirty, DIRTY | VALID);
      block->blen = c.blen;
      Fields expected(*block);
      expected.skip = 0;
      expected.blen = c.new_blen;
      WriteCall call;
      call.wait = wait;
      ExpectAssertion(
          284, c.message, [&] { StartWrite(block, call); }, Join({EntryLine(), DirtyLine()}));
      EXPECT_EQ(Fields(*block), expected);
      EXPECT_TRUE(dispatcher.submitted.empty());
      EXPECT_TRUE(pool->pending_streams.empty());
    }
  }
  EXPECT_EQ(clock_reads, 0);
}

TEST_F(BufferWriteJobTest, EachLineAndTheSubmissionComeAtTheirPlace) {
  StillLogger still;
  env.logger = &still;
  VeskBuffer* const block = Dirty(3000, 2000, DIRTY | END_OF_FILE);
  const Fields before(*block);
  std::vector<int> events;
  still.on_line = [&](int site) {
    events.push_back(site);
    EXPECT_TRUE(IsFree(pool->tp_mutex));
    Fields expected = before;
    if (site == 299) {  // cut and with a job, but not yet in flight
      ASSERT_NE(block->job, nullptr);
      expected.skip = 0;
      expected.blen = expected.dlen = 2000;
      expected.job = block->job;
    }
    EXPECT_EQ(Fields(*block), expected) << site;
    EXPECT_EQ(clock_reads, 0);
    EXPECT_TRUE(dispatcher.submitted.empty());
  };
  dispatcher.on_submit = [&](VeskJob* job) {
    events.push_back(0);
    Fields expected = before;
    expected.skip = 0;
    expected.ltime = kStart;
    expected.state = IOW | END_OF_FILE;
    expected.blen = expected.dlen = 2000;
    expected.job = job;
    EXPECT_EQ(Fields(*block), expected);
    EXPECT_EQ(References(job), 2);
    EXPECT_TRUE(pool->pending_streams.empty());
    EXPECT_TRUE(IsFree(pool->tp_mutex));
  };
  StartWrite(block);
  EXPECT_EQ(events, (std::vector<int>{271, 274, 299, 0}));
}

TEST_F(BufferWriteJobTest, FlushOfCurrentJobsLeavesADirtyBlockAsItIs) {
  for (const unsigned int state : {DIRTY, DIRTY | IOR, DIRTY | IOW, ~0u}) {
    for (const bool wait : {false, true}) {
      VeskBuffer* const block = (state & (IOR | IOW)) != 0 ? Busy(state) : Dirty(3000, 2000, state);
      const std::size_t jobs = dispatcher.submitted.size();
      const Fields before(*block);
      WriteCall call;
      call.flush_current_only = true;
      call.wait = wait;
      StartWrite(block, call);
      EXPECT_EQ(Fields(*block), before);
      EXPECT_EQ(dispatcher.submitted.size(), jobs);
      EXPECT_TRUE(dispatcher.waits.empty());
      EXPECT_TRUE(pool->pending_streams.empty());
      ExpectLog(Join({EntryLine(true), DirtyLine()}));
      Drop();
    }
  }
  EXPECT_EQ(clock_reads, 0);
}

// A block that is not dirty: its state, `wait` and `ignore_read` decide; the other flags do not.
TEST_F(BufferWriteJobTest, CleanBlockIsWaitedForWhenItsJobCounts) {
  for (const unsigned int other : {0u, kNoState}) {
    for (unsigned int bits = 0; bits < 64; ++bits) {
      if ((bits & DIRTY) != 0) continue;
      for (int flags = 0; flags < 16; ++flags) {
        WriteCall call;
        call.wait = flags % 2 != 0;
        call.ignore_read = flags / 2 % 2 != 0;
        call.write_mode = flags / 4 % 2 != 0;
        call.flush_current_only = flags / 8 != 0;
        SCOPED_TRACE(Text("state %u flags %d", bits | other, flags));
        const bool reading = (bits & IOR) != 0;
        const bool writing = (bits & IOW) != 0;
        VeskBuffer* const block = reading || writing ? Busy(bits | other) : Idle(bits | other, 100);
        const std::size_t jobs = dispatcher.submitted.size();
        Fields expected(*block);
        if (!writing && (call.ignore_read || !reading)) {
          StartWrite(block, call);
          ExpectLog(EntryLine(call.flush_current_only));
        } else if (call.wait) {
          expected.skip = 0;
          EXPECT_EQ(Thrown([&] { StartWrite(block, call); }), 1000);
          ASSERT_EQ(dispatcher.waits.size(), 1u);
          EXPECT_EQ(dispatcher.waits[0].job, block->job);
          EXPECT_EQ(dispatcher.waits[0].lock, &lock);
          EXPECT_EQ(dispatcher.waits[0].tag, "Flush");
          dispatcher.waits.clear();
          ExpectLog(Join({EntryLine(call.flush_current_only), WaitLine(block->job)}));
        } else {
          expected.skip = 0;
          StartWrite(block, call);
          ExpectLog(EntryLine(call.flush_current_only));
        }
        EXPECT_EQ(Fields(*block), expected);
        EXPECT_EQ(dispatcher.submitted.size(), jobs);
        EXPECT_TRUE(dispatcher.waits.empty());
        EXPECT_TRUE(pool->pending_streams.empty());
        Drop();
      }
    }
  }
  EXPECT_EQ(clock_reads, 0);
}

TEST_F(BufferWriteJobTest, CleanIdleBlockIsOnlyTraced) {
  VeskBuffer* const block = Idle(VALID, 100);
  const Fields before(*block);
  StartWrite(block);
  EXPECT_EQ(Fields(*block), before);
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_TRUE(pool->pending_streams.empty());
  ExpectLog(EntryLine());
}

TEST_F(BufferWriteJobTest, FinishedJobOfACleanBlockIsCollectedByAWaitingCallOnly) {
  VeskBuffer* const block = Busy(IOW);
  dispatcher.FinishWrite(block->job);
  StartWrite(block);
  EXPECT_EQ(block->state, IOW);
  ExpectLog(EntryLine());
  WriteCall call;
  call.wait = true;
  StartWrite(block, call);
  EXPECT_EQ(block->state, VALID);
  EXPECT_EQ(block->job, nullptr);
  EXPECT_TRUE(dispatcher.waits.empty());
  ExpectLog(Join({EntryLine(), DoneLine(kLen, 100)}));
}

TEST_F(BufferWriteJobTest, FailedJobOfACleanBlockThrowsItsErrorFromAWaitingCall) {
  VeskBuffer* const block = Busy(IOW);
  dispatcher.FinishWrite(block->job, 28);
  WriteCall call;
  call.wait = true;
  EXPECT_EQ(Thrown([&] { StartWrite(block, call); }), 28);
  EXPECT_EQ(block->state, INV);
  ExpectLog(Join({EntryLine(), ErrorLine(28)}));
}

TEST_F(BufferWriteJobTest, WaitingWriteEndsInARepeatAndAnnouncesNothing) {
  for (const bool ignore_read : {false, true}) {
    VeskBuffer* const block = Dirty(3000, 2000);
    WriteCall call;
    call.wait = true;
    call.ignore_read = ignore_read;
    call.tag = "ShrinkStream";
    dispatcher.on_wait = [&](VeskJob* job) {
      EXPECT_EQ(References(job), 3);
      dispatcher.FinishWrite(job);
    };
    EXPECT_EQ(Thrown([&] { StartWrite(block, call); }), 1000);
    ASSERT_EQ(dispatcher.waits.size(), 1u);
    EXPECT_EQ(dispatcher.waits[0].job, block->job);
    EXPECT_EQ(dispatcher.waits[0].lock, &lock);
    EXPECT_EQ(dispatcher.waits[0].tag, "ShrinkStream");
    EXPECT_EQ(References(block->job), 2);
    EXPECT_EQ(block->state, IOW);
    EXPECT_EQ(block->dirty_length, 2000u);  // until the job is collected
    EXPECT_TRUE(pool->pending_streams.empty());
    ExpectLog(
        Join({EntryLine(), DirtyLine(), WriteLine(block->job, true, 2000), WaitLine(block->job)}));
    Drop();
  }
  EXPECT_EQ(clock_reads, 2);  // one for each start
}

TEST_F(BufferWriteJobTest, WriteThatHasEndedByTheTimeOfTheLookReturns) {
  VeskBuffer* const block = Dirty(3000, 2000);
  dispatcher.on_submit = [&](VeskJob* job) {
    clock_now += 3;
    block->skip = 9;  // whatever happens meanwhile, the job's block counts as used
    dispatcher.FinishWrite(job);
  };
  Fields expected(*block);
  WriteCall call;
  call.wait = true;
  StartWrite(block, call);
  expected.skip = 0;
  expected.ltime = kStart + 3;
  expected.state = VALID;
  expected.blen = expected.dlen = 2000;
  expected.dirty_length = 0;
  EXPECT_EQ(Fields(*block), expected);
  EXPECT_TRUE(pool->pending_streams.empty());
  EXPECT_EQ(clock_reads, 2);
  ExpectLog(Join({EntryLine(), DirtyLine(), WriteLine(dispatcher.submitted.at(0), true, 2000),
                  DoneLine(2000, 2000)}));
}

TEST_F(BufferWriteJobTest, WriteThatHasFailedByTheTimeOfTheLookThrowsItsError) {
  VeskBuffer* const block = Dirty(3000, 2000);
  dispatcher.on_submit = [&](VeskJob* job) { dispatcher.FinishWrite(job, 28); };
  WriteCall call;
  call.wait = true;
  EXPECT_EQ(Thrown([&] { StartWrite(block, call); }), 28);
  EXPECT_EQ(block->state, INV);
  ExpectLog(Join({EntryLine(), DirtyLine(), WriteLine(dispatcher.submitted.at(0), true, 2000),
                  ErrorLine(28)}));
}

TEST_F(BufferWriteJobTest, AnnouncedWriteIsNotCollectedEvenIfItHasEnded) {
  VeskBuffer* const block = Dirty(3000, 2000);
  dispatcher.on_submit = [&](VeskJob* job) { dispatcher.FinishWrite(job); };
  StartWrite(block);
  EXPECT_EQ(block->state, IOW);
  EXPECT_NE(block->job, nullptr);
  EXPECT_EQ(MarkedNames(), Names{"f"});
  logger.lines.clear();
}

// The state is looked at again after the submission.
TEST_F(BufferWriteJobTest, WriteThatWasCollectedDuringItsSubmissionIsNotAnnounced) {
  for (const bool wait : {false, true}) {
    VeskBuffer* const block = Dirty(3000, 2000);
    dispatcher.on_submit = [&](VeskJob* job) {
      dispatcher.FinishWrite(job);
      Collect(block);
      block->skip = 9;
    };
    WriteCall call;
    call.wait = wait;
    StartWrite(block, call);
    EXPECT_EQ(block->state, VALID);
    EXPECT_EQ(block->skip, 9u);
    EXPECT_TRUE(dispatcher.waits.empty());
    EXPECT_TRUE(pool->pending_streams.empty());
    Drop();
  }
  logger.lines.clear();
}

TEST_F(BufferWriteJobTest, WriteLeavesTheReadsCountAlone) {
  stream.pending_io = 3;
  StartWrite(Dirty(3000, 2000));
  EXPECT_EQ(stream.pending_io, 3u);
  logger.lines.clear();
}

// --- WaitForBuffer -------------------------------------------------------------------------------

class BufferWaitTest : public BufferJobTest {
 protected:
  // Every state with a job in flight.
  static std::vector<unsigned int> BusyStates() {
    std::vector<unsigned int> states;
    for (unsigned int bits = 0; bits < 64; ++bits) {
      if ((bits & (IOR | IOW)) == 0) continue;
      states.push_back(bits);
      states.push_back(bits | kNoState);
    }
    return states;
  }

  // A finished job is collected whether or not the caller would wait.
  template <typename Check>
  void ForEachFinished(unsigned int dlen, int rc, Check check) {
    for (const unsigned int state : BusyStates()) {
      for (const bool wait : {false, true}) {
        SCOPED_TRACE(Text("state %u wait %d", state, wait ? 1 : 0));
        VeskBuffer* const block = Busy(state, dlen);
        VeskJob* const job = block->job;
        EndJob(job, rc);
        Fields expected(*block);
        clock_now = kStart + 77;
        clock_reads = 0;
        expected.ltime = kStart + 77;
        expected.rc = rc;
        expected.dirty_length = 0;
        expected.job = nullptr;
        check(block, state, wait, &expected);
        EXPECT_EQ(Fields(*block), expected);
        EXPECT_EQ(References(job), 1);  // the dispatcher's
        EXPECT_EQ(clock_reads, 1);
        EXPECT_TRUE(dispatcher.waits.empty());
        EXPECT_TRUE(pool->pending_streams.empty());
        Drop();
      }
    }
  }
};

TEST_F(BufferWaitTest, IdleBlockIsNotWaitedFor) {
  for (const unsigned int other : {0u, kNoState}) {
    for (unsigned int bits = 0; bits < 64; ++bits) {
      if ((bits & (IOR | IOW)) != 0) continue;
      for (const bool wait : {false, true}) {
        VeskBuffer* const block = Idle(bits | other, 100);
        const Fields before(*block);
        Collect(block, wait);
        EXPECT_EQ(Fields(*block), before);
      }
    }
  }
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(clock_reads, 0);
  ExpectLog({});
}

TEST_F(BufferWaitTest, JobOfAnIdleBlockIsNotLookedAt) {
  VeskBuffer* const block = Busy(IOR);
  block->state = VALID;
  EndJob(block->job, 5);
  const Fields before(*block);
  Collect(block, true);
  EXPECT_EQ(Fields(*block), before);
  EXPECT_EQ(References(block->job), 2);
  ExpectLog({});
}

TEST_F(BufferWaitTest, BusyBlockWithoutAJobFailsTheCheck) {
  for (const unsigned int state : BusyStates()) {
    for (const bool wait : {false, true}) {
      VeskBuffer* const block = Idle(state, 100);
      const Fields before(*block);
      ExpectAssertion(328, "No job exists\n", [&] { Collect(block, wait); });
      EXPECT_EQ(Fields(*block), before);
    }
  }
  EXPECT_EQ(clock_reads, 0);
}

TEST_F(BufferWaitTest, SuccessWithDataMakesTheBlockValid) {
  ForEachFinished(100, 0, [&](VeskBuffer* block, unsigned int state, bool wait, Fields* expected) {
    expected->state = (state & ~26u) | 4;
    Collect(block, wait);
    ExpectLog(DoneLine(kLen, 100));
  });
}

TEST_F(BufferWaitTest, SuccessWithoutDataIsTheEndOfTheFile) {
  ForEachFinished(0, 0, [&](VeskBuffer* block, unsigned int state, bool wait, Fields* expected) {
    expected->state = (state & ~26u) | 36;
    Collect(block, wait);
    ExpectLog(Join({DoneLine(kLen, 0), EofLine(expected->state)}));
  });
}

TEST_F(BufferWaitTest, EndOfFileEmptiesTheBlock) {
  for (const unsigned int dlen : {0u, 100u}) {
    ForEachFinished(dlen, -2,
                    [&](VeskBuffer* block, unsigned int state, bool wait, Fields* expected) {
                      expected->state = (state & ~26u) | 36;
                      expected->dlen = 0;
                      Collect(block, wait);
                      ExpectLog(EofLine(expected->state));
                    });
  }
}

TEST_F(BufferWaitTest, AnyOtherResultFailsTheBlockAndIsThrown) {
  for (const int rc : {1, 2, 5, 1000, 1001, INT_MAX, -1, -3, -5, INT_MIN}) {
    for (const unsigned int dlen : {0u, 100u}) {
      ForEachFinished(dlen, rc,
                      [&](VeskBuffer* block, unsigned int /*state*/, bool wait, Fields* expected) {
                        expected->state = 1;
                        expected->dlen = 0;
                        EXPECT_EQ(Thrown([&] { Collect(block, wait); }), rc);
                        ExpectLog(ErrorLine(rc));
                      });
    }
  }
}

TEST_F(BufferWaitTest, SingleByteIsNotTheEndOfTheFile) {
  VeskBuffer* const block = Idle(VALID);
  StartRead(block, false);
  dispatcher.FinishRead(block->job, 1);
  Collect(block);
  EXPECT_EQ(block->state, VALID);
  EXPECT_EQ(block->dlen, 1u);
  logger.lines.clear();
}

TEST_F(BufferWaitTest, WriteOfABlockWithoutDataMarksTheEndOfTheFile) {
  VeskBuffer* const block = Busy(IOW, 0);
  dispatcher.FinishWrite(block->job);
  Collect(block);
  EXPECT_EQ(block->state, VALID | END_OF_FILE);
  ExpectLog(Join({DoneLine(kLen, 0), EofLine(36)}));
}

TEST_F(BufferWaitTest, EndOfFileByCountAndByResultLeaveTheSameBlock) {
  std::vector<Fields> results;
  for (const int rc : {0, -2}) {
    VeskBuffer* const block = Idle(VALID);
    StartRead(block, false);
    dispatcher.FinishRead(block->job, 0, rc);
    Collect(block);
    EXPECT_EQ(block->rc, rc);
    results.emplace_back(*block);
    results.back().rc = 0;
    results.back().bptr = nullptr;
  }
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0].state, VALID | END_OF_FILE);
  EXPECT_EQ(results[0].dlen, 0u);
  logger.lines.clear();
}

TEST_F(BufferWaitTest, FailedBlockRefusesDataUntilItsNextJob) {
  VeskBuffer* const block = Busy(IOR);
  EndJob(block->job, 5);
  EXPECT_EQ(Thrown([&] { Collect(block); }), 5);
  logger.lines.clear();
  ExpectAssertion(151, "Buffer is not valid 1\n", [&] { block->Write(memory, kOff, 1); });
  EXPECT_EQ(block->rc, 5);
}

TEST_F(BufferWaitTest, WideValuesArePrintedAsTheirConversionsSay) {
  VeskBuffer* const block = Busy(IOR);
  block->off = (1ul << 63) + 5;
  block->blen = UINT_MAX;
  block->dlen = 0x80000001u;
  EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
  EndJob(block->job, 0);
  clock_now = (5l << 32) + 123;
  const VeskJob* const job = block->job;
  Collect(block);
  EXPECT_EQ(block->ltime, 123u);
  ExpectLog({"Trace 370 f Wait for job " + P(job) + " O:-9223372036854775803\n",
             "Trace 341 f Job done O:-9223372036854775803 L:-1 DL:-2147483647\n"});

  VeskBuffer* const last = Busy(IOR | kNoState);
  EndJob(last->job, -2);
  Collect(last);
  ExpectLog({"Debug 362 f End of file DL:0 ST:-28\n"});
}

TEST_F(BufferWaitTest, PrintsTheNameItIsGiven) {
  std::string other = "other";
  VeskBuffer* const block = Busy(IOR, 0);
  VeskJob* const job = block->job;
  EXPECT_EQ(Thrown([&] { block->WaitForBuffer(&lock, bundler, other, true, "tag"); }), 1000);
  EndJob(job, 0);
  block->WaitForBuffer(&lock, bundler, other, true, "tag");
  VeskBuffer* const failed = Busy(IOR);
  EndJob(failed->job, 9);
  EXPECT_EQ(Thrown([&] { failed->WaitForBuffer(&lock, bundler, other, true, "tag"); }), 9);
  ExpectLog({"Trace 370 other Wait for job " + P(job) + " O:8192\n",
             "Trace 341 other Job done O:8192 L:4096 DL:0\n",
             "Debug 362 other End of file DL:0 ST:36\n", "Error 353 other Block error RC:9\n"});
}

TEST_F(BufferWaitTest, EachLineOfACollectionComesAtItsPlace) {
  StillLogger still;
  env.logger = &still;
  const unsigned int start = DIRTY | IOR | IOW | INV;

  VeskBuffer* block = Busy(start, 0);
  EndJob(block->job, 0);
  Fields expected(*block);
  expected.ltime = kStart;
  expected.job = nullptr;
  expected.dirty_length = 0;
  std::vector<int> lines;
  still.on_line = [&](int site) {
    lines.push_back(site);
    expected.state = INV | VALID;
    if (site == 362) expected.state |= END_OF_FILE;
    EXPECT_EQ(Fields(*block), expected) << site;
    EXPECT_EQ(References(dispatcher.submitted.back()), 1);
  };
  Collect(block);
  EXPECT_EQ(lines, (std::vector<int>{341, 362}));

  block = Busy(start, 100);  // a failed job is reported before the block is emptied
  EndJob(block->job, 5);
  const Fields before(*block);
  lines.clear();
  still.on_line = [&](int site) {
    lines.push_back(site);
    Fields failed = before;
    failed.ltime = kStart;
    failed.job = nullptr;
    failed.rc = 5;
    failed.state = INV;  // DIRTY, IOR and IOW are cleared already
    EXPECT_EQ(Fields(*block), failed);
    EXPECT_EQ(References(dispatcher.submitted.back()), 1);
  };
  EXPECT_EQ(Thrown([&] { Collect(block); }), 5);
  EXPECT_EQ(lines, std::vector<int>{353});

  block = Busy(start | VALID | END_OF_FILE, 100);
  EndJob(block->job, 5);
  still.on_line = [&](int /*site*/) { EXPECT_EQ(block->state, INV | VALID | END_OF_FILE); };
  EXPECT_EQ(Thrown([&] { Collect(block); }), 5);
  EXPECT_EQ(block->state, INV);
}

TEST_F(BufferWaitTest, UnfinishedJobIsLeftAloneByACallThatDoesNotWait) {
  for (const unsigned int state : BusyStates()) {
    VeskBuffer* const block = Busy(state);
    const Fields before(*block);
    Collect(block, false);
    EXPECT_EQ(Fields(*block), before);
    EXPECT_EQ(References(block->job), 2);
    Drop();
  }
  EXPECT_TRUE(dispatcher.waits.empty());
  EXPECT_EQ(clock_reads, 0);
  ExpectLog({});
}

TEST_F(BufferWaitTest, WaitEndsInARepeatAndChangesNothing) {
  for (const unsigned int state : BusyStates()) {
    VeskBuffer* const block = Busy(state);
    block->rc = -9;
    const Fields before(*block);
    int references = 0;
    dispatcher.on_wait = [&](VeskJob* job) { references = References(job); };
    EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
    EXPECT_EQ(Fields(*block), before);
    EXPECT_EQ(references, 3);
    EXPECT_EQ(References(block->job), 2);
    ASSERT_EQ(dispatcher.waits.size(), 1u);
    EXPECT_EQ(dispatcher.waits[0].job, block->job);
    EXPECT_EQ(dispatcher.waits[0].lock, &lock);
    EXPECT_EQ(dispatcher.waits[0].tag, "tag");
    ExpectLog(WaitLine(block->job));
    Drop();
  }
  EXPECT_EQ(clock_reads, 0);
  EXPECT_TRUE(pool->pending_streams.empty());
}

TEST_F(BufferWaitTest, LockAndTagAreHandedOnUnchanged) {
  VeskBuffer* const block = Busy(IOR);
  vesk::VeskLock another;
  for (vesk::VeskLock* const given : {&another, static_cast<vesk::VeskLock*>(nullptr)}) {
    for (const char* const tag : {"Read-io-active", "Write-io-active", ""}) {
      EXPECT_EQ(Thrown([&] { block->WaitForBuffer(given, bundler, name, true, tag); }), 1000);
      EXPECT_EQ(dispatcher.waits.back().lock, given);
      EXPECT_EQ(dispatcher.waits.back().tag, tag);
    }
  }
  EXPECT_EQ(dispatcher.waits.size(), 6u);
  logger.lines.clear();
}

TEST_F(BufferWaitTest, WaitTakesItsReferenceAfterTheLine) {
  StillLogger still;
  env.logger = &still;
  VeskBuffer* const block = Busy(IOR);
  int lines = 0;
  still.on_line = [&](int site) {
    ++lines;
    EXPECT_EQ(site, 370);
    EXPECT_EQ(References(block->job), 2);
    EXPECT_TRUE(dispatcher.waits.empty());
  };
  EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
  EXPECT_EQ(lines, 1);
}

TEST_F(BufferWaitTest, WaitThatIsOverLeavesTheResultToTheNextCall) {
  VeskBuffer* const block = Idle(VALID);
  StartRead(block, false);
  dispatcher.on_wait = [&](VeskJob* job) { dispatcher.FinishRead(job, 300); };
  Fields expected(*block);
  expected.dlen = 300;  // the job's own doing
  EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
  EXPECT_EQ(Fields(*block), expected);
  clock_now += 9;
  Collect(block, true);  // finished now: no second wait
  EXPECT_EQ(block->state, VALID);
  EXPECT_EQ(block->ltime, kStart + 9);
  EXPECT_EQ(block->job, nullptr);
  EXPECT_EQ(dispatcher.waits.size(), 1u);
  Collect(block, true);
  EXPECT_EQ(dispatcher.waits.size(), 1u);
  EXPECT_EQ(References(dispatcher.submitted.at(0)), 1);
  logger.lines.clear();
}

// While a thread sleeps, another one may take the job off the block: the sleeper's own reference
// keeps it.
TEST_F(BufferWaitTest, JobOutlivesItsBlockUntilTheWaitIsOver) {
  const auto wait_once = [&] {
    VeskBuffer* const block = Busy(IOR);
    int references = 0;
    dispatcher.on_wait = [&](VeskJob* job) {
      EndJob(job, 0);
      Collect(block);
      dispatcher.Release();
      references = References(job);
    };
    EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
    EXPECT_EQ(references, 1);
    EXPECT_EQ(block->state, VALID);
    EXPECT_EQ(block->job, nullptr);
#ifdef VESK_MINIMAL_COLLABORATORS
    EXPECT_EQ(VeskJob::live, 0);
    EXPECT_EQ(vesk::VeskOP::live, 0);
#endif
    Drop();
    logger.lines.clear();
  };
  wait_once();  // fills the recording's own memory
  const long live = LiveAllocations();
  wait_once();
  EXPECT_EQ(LiveAllocations(), live);
}

// The address sanitizer sees any look at the block after the wait.
TEST_F(BufferWaitTest, BlockMayBeDeletedDuringTheWait) {
  VeskBuffer* const block = Busy(IOR);
  dispatcher.on_wait = [&](VeskJob* job) {
    EndJob(job, 0);
    Collect(block);
    stream.buffers.clear();
    delete block;
  };
  EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
  EXPECT_EQ(References(dispatcher.submitted.at(0)), 1);
  logger.lines.clear();
}

TEST_F(BufferWaitTest, BlockMayBeDeletedWhileItsReaderWaits) {
  VeskBuffer* const block = Idle(VALID);
  dispatcher.on_wait = [&](VeskJob* job) {
    dispatcher.FinishRead(job, 1);
    Collect(block);
    stream.buffers.clear();
    delete block;
  };
  EXPECT_EQ(Thrown([&] { StartRead(block, true); }), 1000);
  EXPECT_EQ(References(dispatcher.submitted.at(0)), 1);
  logger.lines.clear();
}

TEST_F(BufferWaitTest, BlockMayBeDeletedWhileItsWriterWaits) {
  VeskBuffer* const block = Idle(DIRTY, 100);
  dispatcher.on_wait = [&](VeskJob* job) {
    dispatcher.FinishWrite(job);
    Collect(block);
    stream.buffers.clear();
    delete block;
  };
  WriteCall call;
  call.wait = true;
  EXPECT_EQ(Thrown([&] { StartWrite(block, call); }), 1000);
  EXPECT_EQ(References(dispatcher.submitted.at(0)), 1);
  logger.lines.clear();
}

// The same without a sanitizer: whatever the block has become during the wait stays.
TEST_F(BufferWaitTest, BlockIsNotTouchedAfterTheWait) {
  VeskBuffer* const block = Busy(IOR);
  VeskJob* const first = block->job;
  dispatcher.on_wait = [&](VeskJob* job) {
    EndJob(job, 5);
    EXPECT_EQ(Thrown([&] { Collect(block); }), 5);
    StartRead(block, false);  // another thread's request
    block->skip = 11;
    block->ltime = 12;
  };
  EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
  EXPECT_EQ(block->state, IOR);
  EXPECT_EQ(block->skip, 11u);
  EXPECT_EQ(block->ltime, 12u);
  EXPECT_EQ(block->rc, 5);
  ASSERT_EQ(dispatcher.submitted.size(), 2u);
  EXPECT_EQ(block->job, dispatcher.submitted[1]);
  EXPECT_EQ(References(block->job), 2);
  EXPECT_EQ(References(first), 1);
  logger.lines.clear();
}

#ifdef VESK_MINIMAL_COLLABORATORS
TEST_F(BufferWaitTest, OnlyTheStateDoneIsTheEndOfAJob) {
  VeskBuffer* const block = Busy(IOR);
  for (const int state : {0, 1, 2, 3, 5, 6, 12, -4, INT_MAX, INT_MIN}) {
    block->job->state = state;
    const Fields before(*block);
    Collect(block, false);
    EXPECT_EQ(Fields(*block), before);
    EXPECT_EQ(Thrown([&] { Collect(block, true); }), 1000);
    EXPECT_EQ(Fields(*block), before);
  }
  block->job->state = 4;
  Collect(block, false);
  EXPECT_EQ(block->state, VALID);
  logger.lines.clear();
}
#endif

// --- Marking of the stream for the thread pool ---------------------------------------------------

class BufferMarkTest : public BufferJobTest {
 protected:
  // Starts a job that is announced under this name.
  void Announce(std::string announced) {
    Idle(VALID)->DoReadIO(&lock, bundler, announced, false, nullptr, &stream);
  }

  // Starts a read and a write of their own; both announce "f".
  void AnnounceBoth() {
    StartRead(Idle(VALID), false);
    StartWrite(Idle(DIRTY, 10));
  }
};

TEST_F(BufferMarkTest, WithoutAThreadPoolJobsAreSubmittedAllTheSame) {
  env.thread_pool = nullptr;
  AnnounceBoth();
  ASSERT_EQ(dispatcher.submitted.size(), 2u);
  EXPECT_EQ(stream.buffers.front()->state, IOR);
  EXPECT_EQ(stream.buffers.back()->state, IOW);
  EXPECT_TRUE(pool->pending_streams.empty());
  ExpectLog(Join({ReadLine(dispatcher.submitted[0], 8), EntryLine(), DirtyLine(),
                  WriteLine(dispatcher.submitted[1], false, 10)}));
}

TEST_F(BufferMarkTest, MarkingTwiceLeavesOneEntry) {
  AnnounceBoth();
  AnnounceBoth();
  EXPECT_EQ(MarkedNames(), Names{"f"});
  logger.lines.clear();
}

TEST_F(BufferMarkTest, EarlierMarkIsOverwritten) {
  for (const int mark : {0, 7, -1}) {
    pool->pending_streams = {{"e", 3}, {"f", mark}, {"g", 4}};
    StartRead(Idle(VALID), false);
    EXPECT_EQ(pool->pending_streams.size(), 3u);
    EXPECT_EQ(pool->pending_streams["e"], 3);
    EXPECT_EQ(pool->pending_streams["f"], 1);
    EXPECT_EQ(pool->pending_streams["g"], 4);
  }
  logger.lines.clear();
}

TEST_F(BufferMarkTest, NamesStandInTheOrderOfTheirBytes) {
  for (const char* marked : {"b", "\x80", "ab", "", "a", "\xff", "Z", "abc", "z"}) Announce(marked);
  EXPECT_EQ(MarkedNames(), (Names{"", "Z", "a", "ab", "abc", "b", "z", "\x80", "\xff"}));
  logger.lines.clear();
}

TEST_F(BufferMarkTest, OrderOfNamesIsPlainAndWithoutSign) {
  using vesk::TPMapCompare;
  static_assert(std::is_same_v<decltype(&TPMapCompare::operator()),
                               bool (TPMapCompare::*)(std::string, std::string) const>);
  const std::string with_nul("a\0b", 3);
  struct Case {
    std::string less, more;
  };
  for (const Case& c : {Case{"a", "ab"}, Case{"", "a"}, Case{"a", "b"}, Case{"B", "a"},
                        Case{"ab", "b"}, Case{"z", "\x80"}, Case{"\x7f", "\x80"},
                        Case{"\x80", "\xff"}, Case{"a", with_nul}, Case{with_nul, "aa"}}) {
    EXPECT_TRUE(TPMapCompare()(c.less, c.more)) << c.less << ' ' << c.more;
    EXPECT_FALSE(TPMapCompare()(c.more, c.less)) << c.less << ' ' << c.more;
    EXPECT_FALSE(TPMapCompare()(c.less, c.less)) << c.less;
    EXPECT_FALSE(TPMapCompare()(c.more, c.more)) << c.more;
  }
}

// The environment is read anew at each use.
TEST_F(BufferMarkTest, PoolOfTheMomentIsMarked) {
  const std::shared_ptr<vesk::VeskThreadPool> later = NewThreadPool();
  dispatcher.on_submit = [&](VeskJob* /*job*/) { env.thread_pool = later.get(); };
  StartRead(Idle(VALID), false);
  EXPECT_TRUE(pool->pending_streams.empty());
  EXPECT_EQ(later->pending_streams.size(), 1u);

  dispatcher.on_submit = [&](VeskJob* /*job*/) { env.thread_pool = nullptr; };
  StartWrite(Idle(DIRTY, 10));
  EXPECT_TRUE(pool->pending_streams.empty());
  logger.lines.clear();
}

TEST_F(BufferMarkTest, EnvironmentOfTheMomentIsUsed) {
  RecordingLogger second_logger;
  const std::shared_ptr<vesk::VeskThreadPool> second_pool = NewThreadPool();
  vesk::VeskEnv second{};
  second.logger = &second_logger;
  second.settings = &settings;
  second.thread_pool = second_pool.get();
  dispatcher.on_submit = [&](VeskJob* /*job*/) { vesk::gEnv = &second; };
  VeskBuffer* const block = Idle(VALID);
  EXPECT_EQ(Thrown([&] { StartRead(block, true); }), 1000);
  ExpectLog(ReadLine(block->job, 8));
  EXPECT_EQ(second_logger.lines, WaitLine(block->job));

  vesk::gEnv = &env;
  StartRead(Idle(VALID), false);
  EXPECT_TRUE(pool->pending_streams.empty());
  EXPECT_EQ(second_pool->pending_streams.size(), 1u);
  EXPECT_EQ(vesk::gEnv, &second);
  logger.lines.clear();
}

TEST_F(BufferMarkTest, EachLineOfAFailedCheckGoesToTheLoggerOfTheMoment) {
  StillLogger still;
  env.logger = &still;
  still.on_line = [&](int /*site*/) { env.logger = &logger; };
  VeskBuffer* const block = Idle(DIRTY);
  EXPECT_EQ(Thrown([&] { StartRead(block, false); }), 1001);
  ExpectLog({"Error 226 Buffer is dirty\n", "Error 226 \n\n"});
  still.Replay(logger);
  ExpectLog({"Error 226 ASSERT failure::\n"});
}

// The waiter holds the mutex until it sleeps, so no mark can be set before that.
TEST_F(BufferMarkTest, WaitingThreadIsWokenByEachMark) {
  for (const int earlier_mark : {0, 1, 7}) {
    for (const bool write : {false, true}) {
      pool->pending_streams.clear();
      if (earlier_mark != 0) pool->pending_streams["f"] = earlier_mark;
      std::atomic<bool> ready{false}, submitted{false};
      dispatcher.on_submit = [&](VeskJob* /*job*/) { submitted = true; };
      int result = -1;
      std::thread waiter([&] {
        timespec deadline{};
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 10;
        pthread_mutex_lock(&pool->tp_mutex);
        ready = true;
        do {
          result = pthread_cond_timedwait(&pool->tp_cond, &pool->tp_mutex, &deadline);
        } while (result == 0 && !submitted);
        EXPECT_EQ(pool->pending_streams["f"], 1);
        pthread_mutex_unlock(&pool->tp_mutex);
      });
      while (!ready) std::this_thread::yield();
      if (write) {
        StartWrite(Idle(DIRTY, 10));
      } else {
        StartRead(Idle(VALID), false);
      }
      waiter.join();
      EXPECT_EQ(result, 0) << "woken by the time limit alone";
    }
  }
  logger.lines.clear();
}

// While the mutex is held elsewhere no mark is set, and the stream's mutex is free.
TEST_F(BufferMarkTest, MarkIsSetUnderThePoolsMutexAlone) {
  for (const bool write : {false, true}) {
    pool->pending_streams.clear();
    VeskBuffer* const block = write ? Idle(DIRTY, 10) : Idle(VALID);
    std::atomic<bool> submitted{false}, over{false};
    dispatcher.on_submit = [&](VeskJob* /*job*/) { submitted = true; };
    pthread_mutex_lock(&pool->tp_mutex);
    std::thread caller([&] {
      if (write) {
        StartWrite(block);
      } else {
        StartRead(block, false);
      }
      over = true;
    });
    while (!submitted) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(over);
    EXPECT_TRUE(pool->pending_streams.empty());
    EXPECT_TRUE(IsFree(stream.stream_mutex));
    pthread_mutex_unlock(&pool->tp_mutex);
    caller.join();
    EXPECT_EQ(MarkedNames(), Names{"f"});
  }
  logger.lines.clear();
}

// --- Failed checks, errors and memory ------------------------------------------------------------

TEST_F(BufferJobTest, FailedCheckIsThreeLinesOfOneSiteAndOneException) {
  VeskBuffer* const block = Idle(IOR);
  EXPECT_THROW(Collect(block), vesk::VeskException);
  ExpectLog({"Error 328 ASSERT failure::\n", "Error 328 No job exists\n", "Error 328 \n\n"});
  EXPECT_EQ(Thrown([&] { Collect(block); }), 1001);
  logger.lines.clear();
}

TEST_F(BufferJobTest, ErrorOfAJobDoesNotLeaveTheDirtyCheck) {
  VeskBuffer* const block = Busy(IOR);
  EndJob(block->job, 5);
  EXPECT_FALSE(stream.IsCacheDirty(true));
  EXPECT_EQ(block->state, INV);
  ExpectLog(Join({ErrorLine(5), {"Dump 884 Excpetion in IsCacheDirty 5\n"}}));
}

// Runs calls in which one allocation fails: the first, then the second, and so on.
class BufferMemoryTest : public BufferJobTest {
 protected:
  BufferMemoryTest() {
    // What the test's own recording needs is there before the allocations are counted.
    dispatcher.submitted.reserve(8);
    dispatcher.waits.reserve(8);
  }

  // The site of the failed check in which the call ended when the `nth` allocation failed; 0 when
  // the call asked for fewer. `still` keeps the lines.
  template <typename Call>
  int FailNth(long nth, int code_of_success, Call call) {
    env.logger = &still;
    int code = 0;
    bool fired = false;
    {
      const FailingAllocation failing(nth);
      try {
        call();
      } catch (const vesk::VeskException& thrown) {
        code = thrown.code;
      }
      fired = failing.Fired();
    }
    env.logger = &logger;
    EXPECT_EQ(code, fired ? 1001 : code_of_success);
    return fired ? still.LastSite() : 0;
  }

  void ExpectStillLog(const Lines& expected) {
    still.Replay(logger);
    ExpectLog(expected);
  }

  StillLogger still;
};

TEST_F(BufferMemoryTest, ReadWithoutMemoryFailsTheCheckAndLeaksNothing) {
  for (const char* const given : {"f", "a name that is too long to be kept inside of a string"}) {
    for (const bool wait : {false, true}) {
      name = given;
      pool->pending_streams = {{name + "1", 1}, {name + "3", 1}};  // names that must be compared
      stream.pending_io = 0;
      std::vector<int> sites;
      for (long nth = 1;; ++nth) {
        SCOPED_TRACE(Text("name %s wait %d allocation %ld", given, wait ? 1 : 0, nth));
        ASSERT_LT(nth, 100);
        VeskBuffer* const block = Idle(INV);
        block->rc = 5;
        const Fields before(*block);
        const unsigned int counted = stream.pending_io;
        const long live = LiveAllocations();
        const int reads = clock_reads;
        const int site = FailNth(nth, wait ? 1000 : 0, [&] { StartRead(block, wait); });
        const long live_after = LiveAllocations();

        Fields expected = before;
        expected.skip = 0;
        if (site == 234 || site == 249) {
          EXPECT_EQ(live_after, live);
          EXPECT_EQ(Fields(*block), expected);  // no job, state and time as they were
          EXPECT_EQ(stream.pending_io, counted + (site == 249 ? 1 : 0));
          EXPECT_TRUE(dispatcher.submitted.empty());
          EXPECT_EQ(clock_reads, reads);
          ExpectStillLog(Assertion(site, "Out of memory"));
        } else {  // started; the marking failed, or nothing
          expected.state = IOR;
          expected.ltime = kStart;
          expected.job = dispatcher.submitted.at(0);
          EXPECT_EQ(Fields(*block), expected);
          EXPECT_EQ(stream.pending_io, counted + 1);
          EXPECT_EQ(References(block->job), 2);
          Lines lines = {"Debug 254 " + name + " Creating Read job " + P(block->job) +
                         " O:8192 L:4096 ST:8\n"};
          if (site != 0) lines = Join({lines, Assertion(384, "Out of memory")});
          if (site == 0 && wait) {
            lines.push_back("Trace 370 " + name + " Wait for job " + P(block->job) + " O:8192\n");
          }
          ExpectStillLog(lines);
        }
        EXPECT_TRUE(IsFree(stream.stream_mutex));
        EXPECT_TRUE(IsFree(pool->tp_mutex));
        EXPECT_EQ(pool->pending_streams.count(name), site == 0 && !wait ? 1u : 0u);
        EXPECT_EQ(pool->pending_streams.size(), site == 0 && !wait ? 3u : 2u);
        if (site == 0) break;
        sites.push_back(site);
        Drop();
      }
      EXPECT_TRUE(std::is_sorted(sites.begin(), sites.end()));
      EXPECT_EQ(std::count(sites.begin(), sites.end(), 249), 1);
      EXPECT_GE(std::count(sites.begin(), sites.end(), 234), 2);  // operation and arguments
      EXPECT_EQ(std::count(sites.begin(), sites.end(), 384) != 0, !wait);
      EXPECT_EQ(sites.back(), wait ? 249 : 384);
      Drop();
    }
  }
}

TEST_F(BufferMemoryTest, WriteWithoutMemoryFailsTheCheckAndLeaksNothing) {
  for (const char* const given : {"f", "a name that is too long to be kept inside of a string"}) {
    for (const bool wait : {false, true}) {
      name = given;
      pool->pending_streams = {{name + "1", 1}, {name + "3", 1}};
      std::vector<int> sites;
      for (long nth = 1;; ++nth) {
        SCOPED_TRACE(Text("name %s wait %d allocation %ld", given, wait ? 1 : 0, nth));
        ASSERT_LT(nth, 100);
        VeskBuffer* const block = Idle(DIRTY | END_OF_FILE, 3000);
        block->dirty_length = 2000;
        const Fields before(*block);
        const long live = LiveAllocations();
        const int reads = clock_reads;
        WriteCall call;
        call.wait = wait;
        const int site = FailNth(nth, wait ? 1000 : 0, [&] { StartWrite(block, call); });
        const long live_after = LiveAllocations();

        Fields expected = before;
        expected.skip = 0;
        expected.blen = expected.dlen = 2000;  // cut before the memory is asked for
        Lines lines = {
            "Trace 271 VeskBuffer::DoWriteIO(" + name + "), flush_current_only(FALSE) \n",
            "Debug 274 VeskBuffer::DoWriteIO(" + name + "), buffer dirty \n"};
        if (site == 287 || site == 297) {
          EXPECT_EQ(live_after, live);
          EXPECT_EQ(Fields(*block), expected);  // still dirty, without a job
          EXPECT_TRUE(dispatcher.submitted.empty());
          EXPECT_EQ(clock_reads, reads);
          ExpectStillLog(Join({lines, Assertion(site, "Out of memory")}));
        } else {  // started; the marking failed, or nothing
          expected.state = IOW | END_OF_FILE;
          expected.ltime = kStart;
          expected.job = dispatcher.submitted.at(0);
          EXPECT_EQ(Fields(*block), expected);
          EXPECT_EQ(References(block->job), 2);
          lines.push_back("Trace 299 " + name + " Creating Write job " + P(block->job) +
                          Text(" W:%d O:8192 L:2000\n", wait ? 1 : 0));
          if (site != 0) lines = Join({lines, Assertion(384, "Out of memory")});
          if (site == 0 && wait) {
            lines.push_back("Trace 370 " + name + " Wait for job " + P(block->job) + " O:8192\n");
          }
          ExpectStillLog(lines);
        }
        EXPECT_TRUE(IsFree(pool->tp_mutex));
        EXPECT_EQ(pool->pending_streams.count(name), site == 0 && !wait ? 1u : 0u);
        EXPECT_EQ(pool->pending_streams.size(), site == 0 && !wait ? 3u : 2u);
        if (site == 0) break;
        sites.push_back(site);
        Drop();
      }
      EXPECT_TRUE(std::is_sorted(sites.begin(), sites.end()));
      EXPECT_EQ(std::count(sites.begin(), sites.end(), 297), 1);
      EXPECT_GE(std::count(sites.begin(), sites.end(), 287), 2);
      EXPECT_EQ(std::count(sites.begin(), sites.end(), 384) != 0, !wait);
      EXPECT_EQ(sites.back(), wait ? 297 : 384);
      EXPECT_EQ(stream.pending_io, 0u);
      Drop();
    }
  }
}

TEST_F(BufferMemoryTest, BlockThatCouldNotBeReadOrWrittenForLackOfMemoryCanBeLater) {
  VeskBuffer* const read = Idle(VALID);
  EXPECT_EQ(FailNth(1, 0, [&] { StartRead(read, false); }), 234);
  StartRead(read, false);
  EXPECT_EQ(read->state, IOR);
  VeskBuffer* const write = Idle(DIRTY, 100);
  EXPECT_EQ(FailNth(1, 0, [&] { StartWrite(write); }), 287);
  StartWrite(write);
  EXPECT_EQ(write->state, IOW);
  logger.lines.clear();
}

TEST_F(BufferMemoryTest, MarkThatIsThereNeedsNoMemory) {
  pool->pending_streams["f"] = 1;
  for (long nth = 1;; ++nth) {
    ASSERT_LT(nth, 100);
    VeskBuffer* const block = Idle(VALID);
    const int site = FailNth(nth, 0, [&] { StartRead(block, false); });
    still.Replay(logger);
    Drop();
    if (site == 0) break;
    EXPECT_NE(site, 384);
  }
  EXPECT_EQ(MarkedNames(), Names{"f"});
  logger.lines.clear();
}

TEST_F(BufferMemoryTest, CollectingAndWaitingNeedNoMemory) {
  const auto must_not_allocate = [&](int code, auto call) {
    still.Replay(logger);
    EXPECT_EQ(FailNth(1, code, call), 0);
  };
  VeskBuffer* block = Busy(IOR);
  must_not_allocate(1000, [&] { Collect(block, true); });
  EndJob(block->job, 0);
  must_not_allocate(0, [&] { Collect(block); });
  block = Busy(IOR);
  EndJob(block->job, -2);
  must_not_allocate(0, [&] { Collect(block); });
  block = Busy(IOR);
  EndJob(block->job, 5);
  must_not_allocate(5, [&] { Collect(block); });
  block = Busy(IOW);
  must_not_allocate(0, [&] { StartWrite(block); });
  still.Replay(logger);
  logger.lines.clear();
}

#ifdef VESK_MINIMAL_COLLABORATORS
// Collaborators that report a lack of memory by null rather than by throwing.

TEST_F(BufferMemoryTest, OperationThatIsNullIsOutOfMemory) {
  for (const bool wait : {false, true}) {
    VeskBuffer* const read = Idle(VALID);
    Fields expected(*read);
    expected.skip = 0;
    vesk::VeskOP::allocate_null = true;
    ExpectAssertion(234, "Out of memory", [&] { StartRead(read, wait); });
    EXPECT_EQ(Fields(*read), expected);
    EXPECT_EQ(stream.pending_io, 0u);

    VeskBuffer* const write = Idle(DIRTY, 100);
    Fields cut(*write);
    cut.skip = 0;
    cut.blen = 100;
    WriteCall call;
    call.wait = wait;
    vesk::VeskOP::allocate_null = true;
    ExpectAssertion(
        287, "Out of memory", [&] { StartWrite(write, call); }, Join({EntryLine(), DirtyLine()}));
    EXPECT_EQ(Fields(*write), cut);
    EXPECT_FALSE(vesk::VeskOP::allocate_null);
  }
  EXPECT_EQ(vesk::VeskOP::live, 0);
  EXPECT_EQ(VeskJob::live, 0);
  EXPECT_EQ(clock_reads, 0);
  EXPECT_TRUE(pool->pending_streams.empty());
}

TEST_F(BufferMemoryTest, JobThatIsNullIsOutOfMemoryAndTheOperationIsReleased) {
  for (const bool wait : {false, true}) {
    stream.pending_io = 4;
    VeskBuffer* const read = Idle(VALID);
    Fields expected(*read);
    expected.skip = 0;
    VeskJob::allocate_null = true;
    ExpectAssertion(249, "Out of memory", [&] { StartRead(read, wait); });
    EXPECT_EQ(Fields(*read), expected);
    EXPECT_EQ(stream.pending_io, 5u);  // counted all the same
    EXPECT_TRUE(IsFree(stream.stream_mutex));
    EXPECT_EQ(vesk::VeskOP::live, 0);

    VeskBuffer* const write = Idle(DIRTY, 100);
    Fields cut(*write);
    cut.skip = 0;
    cut.blen = 100;
    WriteCall call;
    call.wait = wait;
    VeskJob::allocate_null = true;
    ExpectAssertion(
        297, "Out of memory", [&] { StartWrite(write, call); }, Join({EntryLine(), DirtyLine()}));
    EXPECT_EQ(Fields(*write), cut);
    EXPECT_EQ(stream.pending_io, 5u);
    EXPECT_EQ(vesk::VeskOP::live, 0);
    EXPECT_FALSE(VeskJob::allocate_null);
  }
  EXPECT_EQ(VeskJob::live, 0);
  EXPECT_EQ(clock_reads, 0);
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_TRUE(pool->pending_streams.empty());
}

TEST_F(BufferMemoryTest, JobAndOperationLiveAsLongAsTheirReferences) {
  VeskBuffer* const block = Idle(VALID);
  StartRead(block, false);
  EXPECT_EQ(vesk::VeskOP::live, 1);
  EXPECT_EQ(VeskJob::live, 1);
  dispatcher.FinishRead(block->job, 10);
  dispatcher.Release();
  EXPECT_EQ(VeskJob::live, 1);
  Collect(block);
  EXPECT_EQ(vesk::VeskOP::live, 0);
  EXPECT_EQ(VeskJob::live, 0);
  logger.lines.clear();
}
#endif

}  // namespace
}  // namespace vesk_test

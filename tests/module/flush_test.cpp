// Flush and the dirty check: which blocks are written, what is waited for, what is collected.

#include <cstdarg>
#include <stdexcept>

#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskStream;

// === Flush =======================================================================================

class FlushTest : public ModuleTest {
 protected:
  struct Flags {
    bool wait;
    bool write_mode;
    bool ignore_read;
    bool current_only;
  };

  ~FlushTest() override { Clean(stream); }

  void Flush(VeskStream& flushed, const Flags& flags) {
    flushed.Flush(&lock, flags.wait, flags.write_mode, flags.ignore_read, flags.current_only);
  }

  // The code that Flush leaves with; 0 when it returns.
  int CodeOfFlush(VeskStream& flushed, const Flags& flags) {
    try {
      Flush(flushed, flags);
    } catch (const vesk::VeskException& thrown) {
      return thrown.code;
    }
    return 0;
  }

  static Lines Enter(bool current_only) {
    return {std::string("Trace 851 VeskStream::Flush, flush_current_only(") +
            (current_only ? "TRUE" : "FALSE") + ") \n"};
  }

  // A block's turn, up to its being found dirty or not.
  static Lines Turn(bool current_only, bool dirty) {
    Lines lines = {"Debug 857 VeskStream::Flush, calling DoWriteIO on buffer\n",
                   std::string("Trace 271 VeskBuffer::DoWriteIO(f), flush_current_only(") +
                       (current_only ? "TRUE" : "FALSE") + ") \n"};
    if (dirty) lines.push_back("Debug 274 VeskBuffer::DoWriteIO(f), buffer dirty \n");
    return lines;
  }

  static Lines Creating(const vesk::VeskJob* job, bool wait, unsigned long off, unsigned int len) {
    return {"Trace 299 f Creating Write job " + P(job) + " W:" + (wait ? "1" : "0") +
            " O:" + std::to_string(off) + " L:" + std::to_string(len) + "\n"};
  }

  static Lines Waiting(const vesk::VeskJob* job, unsigned long off) {
    return {"Trace 370 f Wait for job " + P(job) + " O:" + std::to_string(off) + "\n"};
  }

  static Lines Done(unsigned long off, unsigned int blen, unsigned int dlen) {
    return {"Trace 341 f Job done O:" + std::to_string(off) + " L:" + std::to_string(blen) +
            " DL:" + std::to_string(dlen) + "\n"};
  }

  // The last wait was for this job, with the caller's lock.
  void ExpectLastWait(const vesk::VeskJob* job) {
    ASSERT_FALSE(dispatcher.waits.empty());
    EXPECT_EQ(dispatcher.waits.back().job, job);
    EXPECT_EQ(dispatcher.waits.back().lock, &lock);
    EXPECT_EQ(dispatcher.waits.back().tag, "Flush");
  }

  VeskStream stream{name, bundler, 0, 16384, 0};
};

TEST_F(FlushTest, StreamWithoutBlocksOnlyTracesTheEntry) {
  Flush(stream, {true, true, true, true});
  ExpectLog(Enter(true));
  Flush(stream, {false, false, false, false});
  ExpectLog(Enter(false));
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_TRUE(pool->pending_streams.empty());
}

TEST_F(FlushTest, EveryBlockIsVisitedInOrderCleanOnesToo) {
  Add(stream, 0, 4096, 100, VALID);
  VeskBuffer* const second = Add(stream, 4096, 4096, 200, DIRTY);
  Add(stream, 8192, 4096, 0, INV);
  VeskBuffer* const fourth = Add(stream, 12288, 4096, 300, DIRTY);
  Flush(stream, {false, false, false, false});
  ExpectLog(Join({Enter(false), Turn(false, false), Turn(false, true),
                  Creating(second->job, false, 4096, 200), Turn(false, false), Turn(false, true),
                  Creating(fourth->job, false, 12288, 300)}));
  EXPECT_EQ(dispatcher.submitted, (std::vector<vesk::VeskJob*>{second->job, fourth->job}));
}

TEST_F(FlushTest, DirtyBlockIsWrittenAsFarAsItIsDirty) {
  VeskBuffer* const block = Add(stream, 4096, 4096, 1000, DIRTY | END_OF_FILE);
  block->dirty_length = 300;
  block->skip = 2;
  clock_now = kStart + 9;
  Flush(stream, {false, false, false, false});
  EXPECT_EQ(block->state, IOW | END_OF_FILE);
  EXPECT_EQ(block->blen, 300u);
  EXPECT_EQ(block->dlen, 300u);
  EXPECT_EQ(block->dirty_length, 300u);
  EXPECT_EQ(block->skip, 0u);
  EXPECT_EQ(block->ltime, kStart + 9);
  ASSERT_EQ(dispatcher.submitted, std::vector<vesk::VeskJob*>{block->job});
  EXPECT_EQ(JobType(block->job), 1);
  const Operation operation = DescribeOperation(block->job);
  EXPECT_EQ(operation.code, 10u);
  EXPECT_EQ(operation.flags, 0u);
  EXPECT_EQ(operation.arguments,
            (Lines{"string f", "ptr " + P(block->bptr), "ulong 300", "ulong 4096", "int 1"}));
  EXPECT_EQ(stream.pending_io, 0u);
}

TEST_F(FlushTest, WriteModeIsNotTheWaitFlag) {
  Add(stream, 0, 4096, 100, DIRTY);
  EXPECT_EQ(CodeOfFlush(stream, {false, true, false, false}), 0);
  ASSERT_EQ(dispatcher.submitted.size(), 1u);
  EXPECT_EQ(DescribeOperation(dispatcher.submitted[0]).flags, 8u);
  EXPECT_TRUE(dispatcher.waits.empty());
}

TEST_F(FlushTest, WaitFlagIsNotTheWriteMode) {
  Add(stream, 0, 4096, 100, DIRTY);
  EXPECT_EQ(CodeOfFlush(stream, {true, false, false, false}), 1000);
  ASSERT_EQ(dispatcher.submitted.size(), 1u);
  EXPECT_EQ(DescribeOperation(dispatcher.submitted[0]).flags, 0u);
  ExpectLastWait(dispatcher.submitted[0]);
}

// Each combination of the flags against each kind of block.
TEST_F(FlushTest, FlagsDecideWhatIsWrittenAndWhatIsWaitedFor) {
  for (const unsigned int state : {VALID, DIRTY, IOR, IOW}) {
    for (unsigned int bits = 0; bits < 16; ++bits) {
      const Flags flags{(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0, (bits & 8) != 0};
      SCOPED_TRACE("state " + std::to_string(state) + " wait " + std::to_string(flags.wait) +
                   " write_mode " + std::to_string(flags.write_mode) + " ignore_read " +
                   std::to_string(flags.ignore_read) + " current_only " +
                   std::to_string(flags.current_only));
      VeskStream other(name, bundler, 0, 4096, 0);
      const bool busy = (state & (IOR | IOW)) != 0;
      VeskBuffer* const block = busy ? AddBusy(other, 0, 4096, 100, state)  //
                                     : Add(other, 0, 4096, 100, state);
      vesk::VeskJob* const old_job = block->job;
      block->skip = 7;
      dispatcher.Release();
      dispatcher.waits.clear();
      pool->pending_streams.clear();
      logger.lines.clear();

      const int code = CodeOfFlush(other, flags);

      const bool written = state == DIRTY && !flags.current_only;
      const bool minded = written || state == IOW || (state == IOR && !flags.ignore_read);
      EXPECT_EQ(code, minded && flags.wait ? 1000 : 0);
      EXPECT_EQ(block->skip, minded ? 0u : 7u);
      EXPECT_EQ(block->state, written ? IOW : state);
      EXPECT_EQ(dispatcher.submitted.size(), written ? 1u : 0u);
      EXPECT_EQ(dispatcher.waits.size(), minded && flags.wait ? 1u : 0u);
      EXPECT_EQ(pool->pending_streams.size(), written && !flags.wait ? 1u : 0u);
      Lines expected = Join({Enter(flags.current_only), Turn(flags.current_only, state == DIRTY)});
      if (written) {
        ASSERT_NE(block->job, nullptr);
        EXPECT_EQ(DescribeOperation(block->job).flags, flags.write_mode ? 8u : 0u);
        expected = Join({expected, Creating(block->job, flags.wait, 0, 100)});
      } else {
        EXPECT_EQ(block->job, old_job);
      }
      if (minded && flags.wait) {
        ExpectLastWait(block->job);
        expected = Join({expected, Waiting(block->job, 0)});
      }
      ExpectLog(expected);
      Clean(other);
    }
  }
}

TEST_F(FlushTest, JobThatHasEndedIsCollectedOnlyWhenWaiting) {
  for (const unsigned int state : {IOR, IOW}) {
    SCOPED_TRACE(state);
    VeskStream other(name, bundler, 0, 4096, 0);
    VeskBuffer* const block = AddBusy(other, 0, 4096, 100, state);
    dispatcher.FinishWrite(block->job);
    Flush(other, {false, false, false, false});
    EXPECT_EQ(block->state, state);
    EXPECT_NE(block->job, nullptr);
    EXPECT_TRUE(pool->pending_streams.empty());
    ExpectLog(Join({Enter(false), Turn(false, false)}));

    Flush(other, {true, false, false, false});
    EXPECT_EQ(block->state, VALID);
    EXPECT_EQ(block->job, nullptr);
    EXPECT_TRUE(dispatcher.waits.empty());
    ExpectLog(Join({Enter(false), Turn(false, false), Done(0, 4096, 100)}));
  }
}

TEST_F(FlushTest, ReadThatHasEndedStaysUncollectedWhenReadsAreIgnored) {
  VeskBuffer* const block = AddBusy(stream, 0, 4096, 0, IOR);
  dispatcher.FinishRead(block->job, 100);
  Flush(stream, {true, false, true, false});
  EXPECT_EQ(block->state, IOR);
  Flush(stream, {true, false, false, false});
  EXPECT_EQ(block->state, VALID);
}

TEST_F(FlushTest, FlushedBlockIsCleanAtOnceWhenItsJobEndsBeforeTheWait) {
  VeskBuffer* const block = Add(stream, 0, 4096, 100, DIRTY);
  dispatcher.on_submit = [this](vesk::VeskJob* job) { dispatcher.FinishWrite(job); };
  Flush(stream, {true, false, false, false});
  EXPECT_EQ(block->state, VALID);
  EXPECT_EQ(block->dirty_length, 0u);
  EXPECT_TRUE(dispatcher.waits.empty());
  ExpectLog(Join({Enter(false), Turn(false, true), Creating(dispatcher.submitted[0], true, 0, 100),
                  Done(0, 100, 100)}));
}

TEST_F(FlushTest, WaitingFlushIsRepeatedUntilEveryBlockIsInTheFile) {
  VeskBuffer* const first = Add(stream, 0, 4096, 100, DIRTY);
  VeskBuffer* const second = Add(stream, 4096, 4096, 200, DIRTY);
  dispatcher.on_wait = [this](vesk::VeskJob* job) { dispatcher.FinishWrite(job); };
  const Flags flags{true, false, false, false};

  // The first block is written and waited for; the second is not visited.
  EXPECT_EQ(CodeOfFlush(stream, flags), 1000);
  ASSERT_EQ(dispatcher.submitted.size(), 1u);
  ExpectLastWait(dispatcher.submitted[0]);
  EXPECT_EQ(first->state, IOW);
  EXPECT_EQ(second->state, DIRTY);
  ExpectLog(Join({Enter(false), Turn(false, true), Creating(first->job, true, 0, 100),
                  Waiting(first->job, 0)}));

  // The first one's job is collected on the way to the second.
  EXPECT_EQ(CodeOfFlush(stream, flags), 1000);
  ASSERT_EQ(dispatcher.submitted.size(), 2u);
  ExpectLastWait(dispatcher.submitted[1]);
  EXPECT_EQ(first->state, VALID);
  EXPECT_EQ(first->job, nullptr);
  EXPECT_EQ(second->state, IOW);
  ExpectLog(Join({Enter(false), Turn(false, false), Done(0, 100, 100), Turn(false, true),
                  Creating(second->job, true, 4096, 200), Waiting(second->job, 4096)}));

  EXPECT_EQ(CodeOfFlush(stream, flags), 0);
  EXPECT_EQ(second->state, VALID);
  EXPECT_EQ(dispatcher.submitted.size(), 2u);
  EXPECT_EQ(dispatcher.waits.size(), 2u);
  ExpectLog(Join({Enter(false), Turn(false, false), Turn(false, false), Done(4096, 200, 200)}));
  EXPECT_FALSE(stream.IsCacheDirty(false));
}

TEST_F(FlushTest, FailedWriteBackPassesThroughAndEndsTheWalk) {
  VeskBuffer* const first = AddBusy(stream, 0, 4096, 100, IOW);
  VeskBuffer* const second = Add(stream, 4096, 4096, 100, DIRTY);
  dispatcher.FinishWrite(first->job, 5);
  const std::size_t submitted = dispatcher.submitted.size();
  EXPECT_EQ(CodeOfFlush(stream, {true, false, false, false}), 5);
  EXPECT_EQ(first->state, INV);
  EXPECT_EQ(first->rc, 5);
  EXPECT_EQ(second->state, DIRTY);
  EXPECT_EQ(dispatcher.submitted.size(), submitted);
  ExpectLog(Join({Enter(false), Turn(false, false), {"Error 353 f Block error RC:5\n"}}));
}

TEST_F(FlushTest, FailedCheckPassesThroughAndEndsTheWalk) {
  VeskBuffer* const first = Add(stream, 0, 4096, 80, DIRTY);
  first->dirty_length = 100;
  VeskBuffer* const second = Add(stream, 4096, 4096, 100, DIRTY);
  ExpectAssertion(
      284, "DBL: 100 BL: 80\n",
      [this] {
        Flush(stream, {false, false, false, false});
      },
      Join({Enter(false), Turn(false, true)}));
  EXPECT_EQ(second->state, DIRTY);
  EXPECT_TRUE(dispatcher.submitted.empty());
}

TEST_F(FlushTest, DirtyBlocksAreAllPassedOverWhenOnlyTheCurrentOneIsFlushed) {
  VeskBuffer* const first = Add(stream, 0, 4096, 100, DIRTY);
  VeskBuffer* const second = AddBusy(stream, 4096, 4096, 100, IOW);
  VeskBuffer* const third = Add(stream, 8192, 4096, 100, DIRTY);
  dispatcher.FinishWrite(second->job);
  Flush(stream, {true, true, true, true});
  EXPECT_EQ(first->state, DIRTY);
  EXPECT_EQ(first->blen, 4096u);
  EXPECT_EQ(second->state, VALID);
  EXPECT_EQ(third->state, DIRTY);
  ExpectLog(Join(
      {Enter(true), Turn(true, true), Turn(true, false), Done(4096, 4096, 100), Turn(true, true)}));
}

// === Dirty check =================================================================================

// Fails like a sink that has run out of room: with an exception that is not the cache's.
class ThrowingLogger : public RecordingLogger {
 public:
  void Trace(const vesk::LogSite& /*site*/, const char* format, ...) override
      __attribute__((format(printf, 3, 4))) {
    throw std::runtime_error(format);
  }
};

class DirtyCheckTest : public ModuleTest {
 protected:
  // Whatever is checked, nobody sleeps.
  ~DirtyCheckTest() override {
    EXPECT_TRUE(dispatcher.waits.empty());
    Clean(stream);
  }

  // A block with a read whose job has ended.
  VeskBuffer* AddRead(unsigned long off, unsigned int count, int return_value = 0) {
    VeskBuffer* const block = AddBusy(stream, off, 4096, 0, IOR);
    dispatcher.FinishRead(block->job, count, return_value);
    return block;
  }

  static std::string Done(unsigned long off, unsigned int dlen) {
    return "Trace 341 f Job done O:" + std::to_string(off) + " L:4096 DL:" + std::to_string(dlen) +
           "\n";
  }
  static Lines Failed(int code) {
    return {"Error 353 f Block error RC:" + std::to_string(code) + "\n",
            "Dump 884 Excpetion in IsCacheDirty " + std::to_string(code) + "\n"};
  }

  VeskStream stream{name, bundler, 0, 16384, 0};
};

TEST_F(DirtyCheckTest, StreamWithoutBlocksIsClean) {
  EXPECT_FALSE(stream.IsCacheDirty(false));
  EXPECT_FALSE(stream.IsCacheDirty(true));
  ExpectLog({});
}

TEST_F(DirtyCheckTest, BlockIsBusyWhenDirtyOrBeingWrittenOrAReadInFlightCounts) {
  for (unsigned int state = 0; state < ALL_STATES; ++state) {
    for (const bool ignore_reads : {false, true}) {
      SCOPED_TRACE("state " + std::to_string(state) + " ignore_reads " +
                   std::to_string(ignore_reads));
      VeskStream other(name, bundler, 0, 4096, 0);
      VeskBuffer* const block = (state & (IOR | IOW)) != 0 ? AddBusy(other, 0, 4096, 100, state)
                                                           : Add(other, 0, 4096, 100, state);
      const vesk::VeskJob* const job = block->job;
      block->skip = 3;
      const bool expected = (state & (DIRTY | IOW)) != 0 || ((state & IOR) != 0 && !ignore_reads);
      EXPECT_EQ(other.IsCacheDirty(ignore_reads), expected);
      EXPECT_EQ(block->state, state);
      EXPECT_EQ(block->job, job);
      EXPECT_EQ(block->skip, 3u);
      ExpectLog({});
      Clean(other);
    }
  }
}

TEST_F(DirtyCheckTest, JobThatHasEndedMakesTheBlockBusyUntilItIsCollected) {
  for (const unsigned int state : {IOW, IOW | IOR, IOW | DIRTY, IOR | DIRTY}) {
    SCOPED_TRACE(state);
    VeskStream other(name, bundler, 0, 4096, 0);
    VeskBuffer* const block = AddBusy(other, 0, 4096, 100, state);
    dispatcher.FinishWrite(block->job);
    EXPECT_TRUE(other.IsCacheDirty(false));
    EXPECT_TRUE(other.IsCacheDirty(true));
    EXPECT_EQ(block->state, state);
    EXPECT_NE(block->job, nullptr);
    Clean(other);
  }
  ExpectLog({});
}

TEST_F(DirtyCheckTest, ReadThatHasEndedIsBusyWhenReadsCount) {
  const VeskBuffer* const block = AddRead(0, 100);
  EXPECT_TRUE(stream.IsCacheDirty(false));
  EXPECT_EQ(block->state, IOR);
  EXPECT_NE(block->job, nullptr);
  ExpectLog({});
}

TEST_F(DirtyCheckTest, ReadThatHasEndedIsCollectedWhenReadsAreIgnored) {
  const VeskBuffer* const block = AddRead(0, 100);
  clock_now = kStart + 3;
  EXPECT_FALSE(stream.IsCacheDirty(true));
  EXPECT_EQ(block->state, VALID);
  EXPECT_EQ(block->dlen, 100u);
  EXPECT_EQ(block->job, nullptr);
  EXPECT_EQ(block->ltime, kStart + 3);
  EXPECT_EQ(References(dispatcher.submitted[0]), 1);
  ExpectLog({Done(0, 100)});
  EXPECT_FALSE(stream.IsCacheDirty(false));
}

TEST_F(DirtyCheckTest, ReadInFlightIsLeftRunningWhenReadsAreIgnored) {
  const VeskBuffer* const block = AddBusy(stream, 0, 4096, 0, IOR);
  EXPECT_FALSE(stream.IsCacheDirty(true));
  EXPECT_EQ(block->state, IOR);
  EXPECT_EQ(References(block->job), 2);
  ExpectLog({});
}

TEST_F(DirtyCheckTest, EndOfFileIsNoFailure) {
  const VeskBuffer* const first = AddRead(0, 0);
  const VeskBuffer* const second = AddRead(4096, 0, -2);
  EXPECT_FALSE(stream.IsCacheDirty(true));
  EXPECT_EQ(first->state, VALID | END_OF_FILE);
  EXPECT_EQ(second->state, VALID | END_OF_FILE);
  EXPECT_EQ(second->rc, -2);
  ExpectLog(
      {Done(0, 0), "Debug 362 f End of file DL:0 ST:36\n", "Debug 362 f End of file DL:0 ST:36\n"});
}

TEST_F(DirtyCheckTest, ScanStopsAtTheFirstBusyBlock) {
  for (const unsigned int state : {DIRTY, IOW, IOW | DIRTY}) {
    SCOPED_TRACE(state);
    Clean(stream);
    for (VeskBuffer* block : stream.buffers) delete block;
    stream.buffers.clear();

    const VeskBuffer* const first = AddRead(0, 100);
    AddBusy(stream, 4096, 4096, 0, IOR);
    const VeskBuffer* const third = AddRead(8192, 200);
    VeskBuffer* const deciding = (state & IOW) != 0 ? AddBusy(stream, 12288, 4096, 100, state)
                                                    : Add(stream, 12288, 4096, 100, state);
    const VeskBuffer* const last = AddRead(16384, 300);
    EXPECT_TRUE(stream.IsCacheDirty(true));
    EXPECT_EQ(first->state, VALID);
    EXPECT_EQ(third->state, VALID);
    EXPECT_EQ(deciding->state, state);
    EXPECT_EQ(last->state, IOR);
    EXPECT_NE(last->job, nullptr);
    ExpectLog({Done(0, 100), Done(8192, 200)});

    Clean(*deciding);
    EXPECT_FALSE(stream.IsCacheDirty(true));
    EXPECT_EQ(last->state, VALID);
    ExpectLog({Done(16384, 300)});
  }
}

TEST_F(DirtyCheckTest, ScanStopsAtTheFirstReadWhenReadsCount) {
  Add(stream, 0, 4096, 100, VALID);
  const VeskBuffer* const second = AddRead(4096, 100);
  const VeskBuffer* const third = AddRead(8192, 100);
  EXPECT_TRUE(stream.IsCacheDirty(false));
  EXPECT_EQ(second->state, IOR);
  EXPECT_EQ(third->state, IOR);
  ExpectLog({});
}

TEST_F(DirtyCheckTest, FailedReadIsReportedAndCountsAsClean) {
  VeskBuffer* const block = AddRead(0, 100, 5);
  EXPECT_FALSE(stream.IsCacheDirty(true));
  EXPECT_EQ(block->state, INV);
  EXPECT_EQ(block->rc, 5);
  EXPECT_EQ(block->dlen, 0u);
  EXPECT_EQ(block->job, nullptr);
  ExpectLog(Failed(5));
  EXPECT_FALSE(stream.IsCacheDirty(true));  // once
  ExpectLog({});
}

TEST_F(DirtyCheckTest, ScanGoesOnBehindAFailedRead) {
  AddRead(0, 100, 5);
  AddRead(4096, 100, -7);
  AddRead(8192, 100);
  Add(stream, 12288, 4096, 100, DIRTY);
  EXPECT_TRUE(stream.IsCacheDirty(true));
  ExpectLog(Join({Failed(5), Failed(-7), {Done(8192, 100)}}));
}

TEST_F(DirtyCheckTest, FailedCheckOfABlockIsReportedToo) {
  Add(stream, 0, 4096, 0, IOR);  // without a job
  Add(stream, 4096, 4096, 100, VALID);
  EXPECT_FALSE(stream.IsCacheDirty(true));
  ExpectLog(
      Join({Assertion(328, "No job exists\n"), {"Dump 884 Excpetion in IsCacheDirty 1001\n"}}));
}

TEST_F(DirtyCheckTest, ExceptionsThatAreNotTheCachesPassThrough) {
  ThrowingLogger throwing;
  const VeskBuffer* const first = AddRead(0, 100);
  const VeskBuffer* const second = AddRead(4096, 100);
  env.logger = &throwing;
  EXPECT_THROW(stream.IsCacheDirty(true), std::runtime_error);
  env.logger = &logger;
  EXPECT_EQ(first->job, nullptr);
  EXPECT_NE(second->job, nullptr);  // the scan has ended
  EXPECT_TRUE(throwing.lines.empty());
}

TEST_F(DirtyCheckTest, NothingIsWrittenOrMarked) {
  Add(stream, 0, 4096, 100, DIRTY);
  EXPECT_TRUE(stream.IsCacheDirty(false));
  EXPECT_TRUE(stream.IsCacheDirty(true));
  EXPECT_TRUE(dispatcher.submitted.empty());
  EXPECT_TRUE(pool->pending_streams.empty());
  ExpectLog({});
}

}  // namespace
}  // namespace vesk_test

// One block by itself: its record and states, and the bytes that go in and out of it.

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "tests/support/block_fields.h"
#include "tests/support/module_test.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;

using Bytes = std::vector<unsigned char>;

class BufferTest : public ModuleTest {
 protected:
  // Cleans a block before it goes, so that a test may leave it in any state.
  struct Discard {
    void operator()(VeskBuffer* block) const {
      Clean(*block);
      delete block;
    }
  };
  using BlockPtr = std::unique_ptr<VeskBuffer, Discard>;

  BufferTest() {
    for (unsigned int i = 0; i < sizeof memory; ++i) memory[i] = CallerByte(i);
  }

  // What the caller's memory holds; no byte equals the one that a block of offset 0 holds there.
  static unsigned char CallerByte(unsigned long i) {
    return static_cast<unsigned char>(FileByte(i) ^ 0xff);
  }

  // A block whose skip shows whether it was reset.
  static BlockPtr Make(unsigned long off, unsigned int blen, unsigned int dlen,
                       unsigned int dirty_length, unsigned int state, int rc = 0) {
    BlockPtr block(Block(off, blen, dlen, state).release());
    block->dirty_length = dirty_length;
    block->rc = rc;
    block->skip = 7;
    return block;
  }

  static Bytes Area(const VeskBuffer& block) { return {block.bptr, block.bptr + block.size}; }

  // `call` fails this check and changes nothing in the block but what `expected` says.
  void ExpectRefusal(const VeskBuffer& block, const Fields& expected, int site,
                     const std::string& message, const std::function<void()>& call,
                     const Lines& before = {}) {
    const Bytes area = Area(block);
    const int reads = clock_reads;
    ExpectAssertion(site, message, call, before);
    EXPECT_EQ(Fields(block), expected);
    EXPECT_EQ(Area(block), area);
    EXPECT_EQ(clock_reads, reads);
  }
};

// --- Record and states ---------------------------------------------------------------------------

class BufferRecordTest : public BufferTest {
 protected:
  // Deleting a block in this state ends the process, after exactly these three lines.
  void ExpectDeath(unsigned int state, int site, const std::string& message) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    SCOPED_TRACE(state);
    std::unique_ptr<VeskBuffer> block = Block(0, 16, 8, state);
    const std::string head = "Error " + std::to_string(site) + " ";
    EXPECT_EXIT(
        {
          logger.echo = true;
          block.reset();
        },
        ::testing::KilledBySignal(SIGABRT),
        "^" + head + "ASSERT failure::\n\n" + head + message + "\n" + head + "\n\n\n");
    Clean(*block);
  }

  // The block's own line, with this text for its state.
  Lines DumpLine(const VeskBuffer& b, const std::string& state) {
    return {"Dump 121 Dump BUFFER(" + P(&b) + ") bptr:" + P(b.bptr) + " size:4096 state:" + state +
            " off:0 dlen:0 blen:4096 skip:0 ltime:0 rc:0 job:" + P(nullptr) + " dirty_length=0\n"};
  }
};

TEST_F(BufferRecordTest, NewBlockIsValidEmptyAndIdle) {
  struct Case {
    unsigned long off;
    unsigned int length;
  };
  for (const Case c : {Case{0, 1}, Case{4096, 512}, Case{1ul << 63, 65536}, Case{~0ul, 3}}) {
    const int reads = clock_reads;
    VeskBuffer block(c.off, c.length);
    EXPECT_EQ(clock_reads, reads);
    EXPECT_EQ(block.skip, 0u);
    EXPECT_EQ(block.ltime, 0u);
    EXPECT_EQ(block.size, c.length);
    EXPECT_EQ(block.state, 4u);
    EXPECT_NE(block.bptr, nullptr);
    EXPECT_EQ(block.off, c.off);
    EXPECT_EQ(block.dlen, 0u);
    EXPECT_EQ(block.blen, c.length);
    EXPECT_EQ(block.dirty_length, 0u);
    EXPECT_EQ(block.rc, 0);
    EXPECT_EQ(block.job, nullptr);
  }
  ExpectLog({});
}

TEST_F(BufferRecordTest, NewBlockSetsEveryFieldOfUsedMemory) {
  alignas(VeskBuffer) unsigned char storage[sizeof(VeskBuffer)];
  for (const int garbage : {0x00, 0xff, 0xa5}) {
    std::memset(storage, garbage, sizeof storage);
    auto* const block = new (storage) VeskBuffer(12, 34);
    Fields expected(*block);
    expected.skip = expected.ltime = expected.dlen = expected.dirty_length = 0;
    expected.size = expected.blen = 34;
    expected.state = 4;
    expected.off = 12;
    expected.rc = 0;
    expected.job = nullptr;
    EXPECT_EQ(Fields(*block), expected);
    block->~VeskBuffer();
  }
}

TEST_F(BufferRecordTest, NewBlockTakesOneAreaOfItsSizeAndGivesItBack) {
  void* area = nullptr;
  std::size_t bytes = 0;
  int count = 0;
  const long before = LiveAllocations();
  {
    std::unique_ptr<VeskBuffer> block;
    {
      struct Seen {
        void** area;
        std::size_t* bytes;
        int* count;
      } seen{&area, &bytes, &count};
      const AllocationWatch watch([&seen](void* memory_taken, std::size_t size) {
        if (++*seen.count == 2) {  // the first is the record itself
          *seen.area = memory_taken;
          *seen.bytes = size;
        }
      });
      block.reset(new VeskBuffer(100, 5000));
    }
    EXPECT_EQ(count, 2);
    EXPECT_EQ(bytes, 5000u);
    EXPECT_EQ(block->bptr, area);
    block->bptr[0] = 1;
    block->bptr[4999] = 1;
    EXPECT_EQ(LiveAllocations(), before + 2);
  }
  EXPECT_EQ(LiveAllocations(), before);
}

TEST_F(BufferRecordTest, BlockWithoutRoomCanBeBuiltAndTakesNoRequest) {
  VeskBuffer block(4096, 0);
  EXPECT_NE(block.bptr, nullptr);
  EXPECT_EQ(block.state, 4u);
  ExpectAssertion(146, "Offset too big O:4096 B_O:4096 L:0 DL:0\n",
                  [&] { block.Write(memory, 4096, 1); });
  ExpectAssertion(184, "Offset too big O:4096 B_O:4096 B_DL:0\n",
                  [&] { block.Read(memory, 4096, 1); });
}

TEST_F(BufferRecordTest, DataAreaThatCannotBeHadIsOutOfMemoryAndLeaksNothing) {
  for (int round = 1; round <= 2; ++round) {  // the first one fills the recording logger's memory
    const long before = LiveAllocations();
    ExpectAssertion(101, "Out of memory", [] {
      const FailingAllocation failing(1);
      const VeskBuffer block(4096, 512);
    });
    ExpectAssertion(101, "Out of memory", [] {
      const FailingAllocation failing(2);  // the first is the record itself
      delete new VeskBuffer(4096, 512);
    });
    if (round == 2) {
      EXPECT_EQ(LiveAllocations(), before);
    }
  }
  const VeskBuffer block(4096, 512);  // the next attempt is as good as any
  EXPECT_EQ(block.state, 4u);
}

TEST_F(BufferRecordTest, GetStateOf255IsTheWholeState) {
  const BlockPtr block = Make(0, 16, 0, 0, 0x26);
  EXPECT_EQ(block->GetState(255), 0x26u);
  for (const unsigned int state : {0u, 1u, 63u, 0x100u, 0x80000000u, ~0u}) {
    block->state = state;
    EXPECT_EQ(block->GetState(255), state);
  }
}

TEST_F(BufferRecordTest, GetStateOfAnyOtherMaskTellsWhetherABitIsSet) {
  const BlockPtr block = Make(0, 16, 0, 0, 0x26);
  EXPECT_EQ(block->GetState(6), 1u);
  EXPECT_EQ(block->GetState(8), 0u);
  EXPECT_EQ(block->GetState(0), 0u);
  EXPECT_EQ(block->GetState(0x26), 1u);
  EXPECT_EQ(block->GetState(254), 1u);
  EXPECT_EQ(block->GetState(256), 0u);
  EXPECT_EQ(block->GetState(256 | 255), 1u);
  EXPECT_EQ(block->GetState(~0u), 1u);
  for (unsigned int state = 0; state < 64; ++state) {
    block->state = state;
    for (unsigned int mask = 0; mask < 64; ++mask) {
      bool any = false;
      for (unsigned int bit = 1; bit < 64; bit *= 2) {
        any = any || ((state / bit) % 2 == 1 && (mask / bit) % 2 == 1);
      }
      EXPECT_EQ(block->GetState(mask), any ? 1u : 0u) << state << ' ' << mask;
    }
  }
  block->state = 0x80000000u;
  EXPECT_EQ(block->GetState(0x80000000u), 1u);
  EXPECT_EQ(block->GetState(254), 0u);
  ExpectLog({});
}

TEST_F(BufferRecordTest, SkipCountsWhileTheBlockIsValidOrAtEndOfFile) {
  for (const unsigned int other : {0u, kNoState}) {
    for (unsigned int state = 0; state < 64; ++state) {
      const BlockPtr block = Make(0, 16, 8, 4, state | other);
      Fields expected(*block);
      if (state % 8 >= 4 || state >= 32) expected.skip = 8;
      block->Skip();
      EXPECT_EQ(Fields(*block), expected);
    }
  }
  ExpectLog({});
}

TEST_F(BufferRecordTest, SkipLeavesDirtyOrBusyBlocksAlone) {
  for (const unsigned int state : {DIRTY, IOR, IOW, INV, 0u}) {
    const BlockPtr block = Make(0, 16, 0, 0, state);
    block->Skip();
    EXPECT_EQ(block->skip, 7u);
  }
  const BlockPtr block = Make(0, 16, 0, 0, VALID | END_OF_FILE);
  block->Skip();
  EXPECT_EQ(block->skip, 8u);  // once, though two bits say so
}

TEST_F(BufferRecordTest, SkipWrapsRound) {
  const BlockPtr block = Make(0, 16, 0, 0, VALID);
  block->skip = UINT_MAX;
  block->Skip();
  EXPECT_EQ(block->skip, 0u);
}

TEST_F(BufferRecordTest, DumpNamesTheLowestBitOfTheState) {
  const BlockPtr block = Make(0, 4096, 0, 0, VALID);
  block->skip = block->ltime = 0;
  struct Case {
    unsigned int state;
    const char* text;
  };
  // clang-format off
  const Case cases[] = {
      {0,                                           "0(INV)"},
      {INV,                                         "1(INV)"},
      {DIRTY,                                       "2(DIRTY)"},
      {VALID,                                       "4(VALID)"},
      {IOR,                                         "8(IOR)"},
      {IOW,                                         "16(IOW)"},
      {END_OF_FILE,                                 "32(EOF)"},
      {63,                                          "63(INV)"},
      {DIRTY | VALID | IOR | IOW | END_OF_FILE,     "62(DIRTY)"},
      {VALID | IOR | IOW | END_OF_FILE,             "60(VALID)"},
      {IOR | IOW | END_OF_FILE,                     "56(IOR)"},
      {IOW | END_OF_FILE,                           "48(IOW)"},
      {DIRTY | IOW,                                 "18(DIRTY)"},
      {VALID | END_OF_FILE,                         "36(VALID)"},
      {64,                                          "64(INV)"},  // a bit without a name
      {0x80000000u,                                 "-2147483648(INV)"},
      {0x80000020u,                                 "-2147483616(EOF)"},
      {~0u,                                         "-1(INV)"},
  };
  // clang-format on
  for (const Case& c : cases) {
    block->state = c.state;
    block->Dump();
    ExpectLog(DumpLine(*block, c.text));
  }
  static const char* const kNames[] = {"INV", "DIRTY", "VALID", "IOR", "IOW", "EOF"};
  for (unsigned int state = 1; state < 64; ++state) {
    block->state = state;
    block->Dump();
    ExpectLog(DumpLine(*block, std::to_string(state) + "(" + kNames[__builtin_ctz(state)] + ")"));
  }
}

TEST_F(BufferRecordTest, DumpShowsEveryFieldInItsPlaceAndChangesNone) {
  vesk::VeskStream stream(name, bundler, 0, 0, 0);
  VeskBuffer* const b = AddBusy(stream, 12345, 4096, 11, IOR);
  b->skip = 13;
  b->ltime = 14;
  b->dirty_length = 15;
  b->rc = -16;
  b->blen = 17;
  const Fields fields(*b);
  b->Dump();
  ExpectLog({"Dump 121 Dump BUFFER(" + P(b) + ") bptr:" + P(b->bptr) +
             " size:4096 state:8(IOR) off:12345 dlen:11 blen:17 skip:13 ltime:14 rc:-16 job:" +
             P(b->job) + " dirty_length=15\n"});
  EXPECT_EQ(Fields(*b), fields);
  EXPECT_EQ(clock_reads, 0);
  Clean(stream);
}

TEST_F(BufferRecordTest, DumpPrintsWideValuesAsItsConversionsSay) {
  const BlockPtr b = Make(1ul << 63, 16, UINT_MAX, 0x80000005u, VALID, INT_MIN);
  b->size = b->blen = 0x80000001u;
  b->skip = 0x80000002u;
  b->ltime = 0x80000003u;
  b->Dump();
  ExpectLog({"Dump 121 Dump BUFFER(" + P(b.get()) + ") bptr:" + P(b->bptr) +
             " size:2147483649 state:4(VALID) off:-9223372036854775808 dlen:-1 blen:-2147483647 "
             "skip:-2147483646 ltime:-2147483645 rc:-2147483648 job:" +
             P(nullptr) + " dirty_length=-2147483643\n"});
}

TEST_F(BufferRecordTest, RemoveEofClearsThatBitAlone) {
  for (const unsigned int state : {END_OF_FILE, END_OF_FILE | VALID, 63u, ~0u}) {
    const BlockPtr block = Make(0, 16, 8, 4, state, -2);
    Fields expected(*block);
    expected.state = state - 32;
    block->RemoveEOF(name);
    ExpectLog({"Debug 129 f Remove EOF\n"});
    EXPECT_EQ(Fields(*block), expected);
    block->RemoveEOF(name);  // nothing left to clear
    ExpectLog({});
    EXPECT_EQ(Fields(*block), expected);
  }
}

TEST_F(BufferRecordTest, RemoveEofOfABlockWithoutItWritesNoLine) {
  for (const unsigned int state : {0u, VALID, 31u, ~32u}) {
    const BlockPtr block = Make(0, 16, 8, 4, state);
    const Fields expected(*block);
    block->RemoveEOF(name);
    EXPECT_EQ(Fields(*block), expected);
  }
  ExpectLog({});
}

TEST_F(BufferRecordTest, RemoveEofPrintsTheNameItIsGiven) {
  const BlockPtr block = Make(0, 16, 8, 4, END_OF_FILE);
  std::string other = "dir/100%d name";
  block->RemoveEOF(other);
  ExpectLog({"Debug 129 dir/100%d name Remove EOF\n"});
}

TEST_F(BufferRecordTest, BlockThatIsCleanAndIdleGoesSilently) {
  for (const unsigned int state :
       {VALID, VALID | END_OF_FILE, INV, END_OF_FILE, 0u, ~(DIRTY | IOR | IOW)}) {
    const long before = LiveAllocations();
    std::unique_ptr<VeskBuffer> block = Block(0, 16, 8, state);
    block->dirty_length = 8;  // the state decides, not the length
    block.reset();
    EXPECT_EQ(LiveAllocations(), before) << state;
  }
  ExpectLog({});
}

TEST_F(BufferRecordTest, BlockWithoutAnAreaGoesSilently) {
  const long before = LiveAllocations();
  std::unique_ptr<VeskBuffer> block = Block(0, 16, 8, VALID);
  delete[] block->bptr;
  block->bptr = nullptr;
  block.reset();
  EXPECT_EQ(LiveAllocations(), before);
  ExpectLog({});
}

TEST_F(BufferRecordTest, DestructionLeavesTheJobAlone) {
  vesk::VeskStream stream(name, bundler, 0, 0, 0);
  VeskBuffer* const block = AddBusy(stream, 0, 16, 8, IOR);
  vesk::VeskJob* const job = block->job;
  stream.buffers.clear();
  block->state = VALID;
  delete block;
  EXPECT_EQ(References(job), 2);  // the dispatcher's, and the one that the block held
  vesk::VeskJob::RefCountDec(job);
  ExpectLog({});
}

using BufferRecordDeathTest = BufferRecordTest;

TEST_F(BufferRecordDeathTest, DestroyingABusyBlockEndsTheProcess) {
  ExpectDeath(IOR, 108, "buffer io in progress 8\n");
  ExpectDeath(IOW, 108, "buffer io in progress 16\n");
  ExpectDeath(IOR | IOW | VALID | END_OF_FILE, 108, "buffer io in progress 60\n");
  ExpectDeath(IOR | kNoState, 108, "buffer io in progress -56\n");
}

TEST_F(BufferRecordDeathTest, DestroyingADirtyBlockEndsTheProcess) {
  ExpectDeath(DIRTY, 110, "buffer dirty 2\n");
  ExpectDeath(INV | DIRTY | VALID | END_OF_FILE, 110, "buffer dirty 39\n");
  ExpectDeath(DIRTY | kNoState, 110, "buffer dirty -62\n");
}

TEST_F(BufferRecordDeathTest, JobInFlightIsReportedBeforeDirtyData) {
  ExpectDeath(DIRTY | IOR, 108, "buffer io in progress 10\n");
  ExpectDeath(DIRTY | IOW, 108, "buffer io in progress 18\n");
}

// --- Write ---------------------------------------------------------------------------------------

class BufferWriteTest : public BufferTest {
 protected:
  // A write that `block` refuses, leaving all but `skip` as it was.
  void ExpectRefused(VeskBuffer& block, unsigned long offset, unsigned int length, int site,
                     const std::string& message) {
    Fields expected(block);
    expected.skip = 0;
    ExpectRefusal(block, expected, site, message, [&] { block.Write(memory, offset, length); });
  }
};

TEST_F(BufferWriteTest, BytesBeforeTheWrittenOnesCountAsValidAndDirty) {
  const BlockPtr block = Make(4096, 4096, 0, 0, VALID);
  Fields expected(*block);
  expected.skip = 0;
  expected.dlen = expected.dirty_length = 200;
  expected.state = DIRTY;
  Bytes area = Area(*block);
  std::copy(memory, memory + 100, area.begin() + 100);

  EXPECT_EQ(block->Write(memory, 4196, 100), 100u);
  EXPECT_EQ(Fields(*block), expected);
  EXPECT_EQ(Area(*block), area);
  EXPECT_EQ(clock_reads, 0);
  ExpectLog({});
}

TEST_F(BufferWriteTest, CopyStopsAtTheEndOfTheBlock) {
  const BlockPtr block = Make(4096, 4096, 0, 0, VALID);
  EXPECT_EQ(block->Write(memory, 4096, 10000), 4096u);
  EXPECT_EQ(block->dlen, 4096u);
  EXPECT_EQ(block->dirty_length, 4096u);
  EXPECT_EQ(Area(*block), Bytes(memory, memory + 4096));
}

TEST_F(BufferWriteTest, CopyStopsAtTheUsableEndNotAtTheEndOfTheArea) {
  const BlockPtr block = Make(4096, 4096, 0, 0, VALID);
  block->blen = 1000;
  Bytes area = Area(*block);
  std::copy(memory, memory + 400, area.begin() + 600);
  EXPECT_EQ(block->Write(memory, 4096 + 600, 401), 400u);
  EXPECT_EQ(block->dlen, 1000u);
  EXPECT_EQ(Area(*block), area);
}

TEST_F(BufferWriteTest, NoMoreIsReadFromTheSourceThanIsCopied) {
  const BlockPtr block = Make(4096, 4096, 0, 0, VALID);
  const Bytes source(96, 0x5a);  // the address sanitizer sees one byte more
  EXPECT_EQ(block->Write(source.data(), 8096, UINT_MAX), 96u);
  EXPECT_EQ(Bytes(block->bptr + 4000, block->bptr + 4096), source);
}

TEST_F(BufferWriteTest, RequestThatEndsAtTheUsableEndIsNotCut) {
  const BlockPtr block = Make(4096, 4096, 0, 0, VALID);
  EXPECT_EQ(block->Write(memory, 8000, 191), 191u);
  EXPECT_EQ(block->dlen, 4095u);
  EXPECT_EQ(block->Write(memory, 8000, 192), 192u);
  EXPECT_EQ(block->dlen, 4096u);
  EXPECT_EQ(block->Write(memory, 8000, 193), 192u);
  EXPECT_EQ(block->dlen, 4096u);
}

TEST_F(BufferWriteTest, FirstAndLastByteOfTheBlockCanBeWritten) {
  const BlockPtr block = Make(4096, 4096, 0, 0, VALID);
  EXPECT_EQ(block->Write(memory, 4096, 1), 1u);
  EXPECT_EQ(block->dlen, 1u);
  EXPECT_EQ(block->dirty_length, 1u);
  EXPECT_EQ(block->Write(memory, 8191, 1), 1u);
  EXPECT_EQ(block->dlen, 4096u);
  EXPECT_EQ(block->dirty_length, 4096u);
}

TEST_F(BufferWriteTest, RequestOutsideTheBlockIsRefused) {
  const BlockPtr block = Make(4096, 4096, 300, 200, VALID);
  ExpectRefused(*block, 4095, 1, 143, "Offset too small O:4095 B_O:4096\n");
  block->skip = 7;
  ExpectRefused(*block, 0, 9000, 143, "Offset too small O:0 B_O:4096\n");
  block->skip = 7;
  ExpectRefused(*block, 8192, 1, 146, "Offset too big O:8192 B_O:4096 L:300 DL:200\n");
  block->skip = 7;
  ExpectRefused(*block, 8193, 1, 146, "Offset too big O:8193 B_O:4096 L:300 DL:200\n");
}

TEST_F(BufferWriteTest, RequestOfNoLengthIsRefused) {
  const BlockPtr block = Make(4096, 4096, 300, 200, VALID);
  ExpectRefused(*block, 4096, 0, 140, "Length is 0\n");
}

TEST_F(BufferWriteTest, FirstOfSeveralReasonsIsReported) {
  const BlockPtr block = Make(4096, 4096, 300, 200, IOR | INV, -5);
  ExpectRefused(*block, 4095, 0, 140, "Length is 0\n");
  ExpectRefused(*block, 8192, 0, 140, "Length is 0\n");
  ExpectRefused(*block, 4096, 0, 140, "Length is 0\n");
  ExpectRefused(*block, 4095, 1, 143, "Offset too small O:4095 B_O:4096\n");
  ExpectRefused(*block, 8192, 1, 146, "Offset too big O:8192 B_O:4096 L:300 DL:200\n");
  ExpectRefused(*block, 8191, 1, 151, "Buffer is not valid 9\n");
  block->state = INV;
  block->rc = 0;  // a plain throw otherwise
  ExpectRefused(*block, 4096, 0, 140, "Length is 0\n");
  ExpectRefused(*block, 4095, 1, 143, "Offset too small O:4095 B_O:4096\n");
  ExpectRefused(*block, 8192, 1, 146, "Offset too big O:8192 B_O:4096 L:300 DL:200\n");
}

TEST_F(BufferWriteTest, WideValuesArePrintedAsTheirConversionsSay) {
  const BlockPtr block = Make(1ul << 63, 4096, UINT_MAX, 1u << 31, VALID);
  ExpectRefused(*block, 5, 1, 143, "Offset too small O:5 B_O:-9223372036854775808\n");
  ExpectRefused(*block, ~0ul, 1, 146,
                "Offset too big O:-1 B_O:-9223372036854775808 L:-1 DL:-2147483648\n");
  block->state = 0x80000008u;
  ExpectRefused(*block, 1ul << 63, 1, 151, "Buffer is not valid -2147483640\n");
}

TEST_F(BufferWriteTest, OffsetsAreComparedWithoutSign) {
  const unsigned long top = 1ul << 63;
  const BlockPtr across = Make(top - 2, 4, 0, 0, VALID);
  ExpectRefused(*across, top - 3, 1, 143,
                "Offset too small O:9223372036854775805 B_O:9223372036854775806\n");
  ExpectRefused(*across, top + 2, 1, 146,
                "Offset too big O:-9223372036854775806 B_O:9223372036854775806 L:0 DL:0\n");
  EXPECT_EQ(across->Write(memory, top - 1, 9), 3u);
  EXPECT_EQ(across->Write(memory, top + 1, 1), 1u);
  EXPECT_EQ(across->dlen, 4u);

  const BlockPtr last = Make(~0ul - 4, 4, 0, 0, VALID);  // ends one byte below the top
  EXPECT_EQ(last->Write(memory, ~0ul - 4, 4), 4u);
  EXPECT_EQ(last->Write(memory, ~0ul - 1, 1), 1u);
  ExpectRefused(*last, ~0ul, 1, 146, "Offset too big O:-1 B_O:-5 L:4 DL:4\n");
}

TEST_F(BufferWriteTest, BlockWhoseEndWrapsRoundTakesNothing) {
  const BlockPtr block = Make(~0ul - 3, 4, 0, 0, VALID);  // its end is 0
  ExpectRefused(*block, ~0ul - 3, 1, 146, "Offset too big O:-4 B_O:-4 L:0 DL:0\n");
  ExpectRefused(*block, ~0ul, 1, 146, "Offset too big O:-1 B_O:-4 L:0 DL:0\n");
  // Below its start and beyond its end at once.
  ExpectRefused(*block, 0, 1, 143, "Offset too small O:0 B_O:-4\n");
}

TEST_F(BufferWriteTest, ValidAndDirtyRunsGrowToTheHighestByteWritten) {
  struct Case {
    unsigned int dlen, dirty, offset, length, new_dlen, new_dirty;
  };
  // clang-format off
  const Case cases[] = {
      //dlen dirty offset length  dlen dirty
      {    0,    0,     0,     1,    1,    1},
      {  100,    0,     0,    99,  100,   99},
      {  100,    0,     0,   100,  100,  100},
      {  100,    0,     0,   101,  101,  101},
      {  100,   50,     0,    49,  100,   50},
      {  100,   50,     0,    50,  100,   50},
      {  100,   50,     0,    51,  100,   51},
      {  100,   50,    99,     1,  100,  100},
      {  100,   50,   100,     1,  101,  101},
      {  100,   50,   300,    10,  310,  310},
      {  100,  100,    10,    10,  100,  100},
      { 4096, 4096,  4095,     1, 4096, 4096},
  };
  // clang-format on
  for (const Case& c : cases) {
    const BlockPtr block = Make(8192, 4096, c.dlen, c.dirty, VALID);
    Fields expected(*block);
    expected.skip = 0;
    expected.state = DIRTY;
    expected.dlen = c.new_dlen;
    expected.dirty_length = c.new_dirty;
    EXPECT_EQ(block->Write(memory, 8192 + c.offset, c.length), c.length);
    EXPECT_EQ(Fields(*block), expected);
  }
}

TEST_F(BufferWriteTest, StateDecidesWhetherTheBlockTakesData) {
  for (const unsigned int other : {0u, kNoState}) {
    for (unsigned int bits = 0; bits < 64; ++bits) {
      for (const int rc : {0, -5, -2, 5}) {
        const unsigned int state = bits | other;
        SCOPED_TRACE(Text("state %u rc %d", state, rc));
        const BlockPtr block = Make(4096, 64, 10, 5, state, rc);
        Fields expected(*block);
        expected.skip = 0;
        const bool busy = (bits / 8) % 4 != 0;
        const bool failed = bits % 2 == 1;
        if (busy || (failed && rc != 0)) {
          ExpectRefused(*block, 4096, 20, 151,
                        Text("Buffer is not valid %d\n", static_cast<int>(state)));
        } else if (failed) {
          const Bytes area = Area(*block);
          EXPECT_EQ(Thrown([&] { block->Write(memory, 4096, 20); }), 0);
          EXPECT_EQ(Fields(*block), expected);
          EXPECT_EQ(Area(*block), area);
        } else {
          expected.dlen = expected.dirty_length = 20;
          expected.state = (state & ~4u) | 2;
          EXPECT_EQ(block->Write(memory, 4096, 20), 20u);
          EXPECT_EQ(Fields(*block), expected);
        }
        ExpectLog({});
      }
    }
  }
}

TEST_F(BufferWriteTest, FailedBlockWithoutAnErrorIsRefusedWithoutALine) {
  const BlockPtr block = Make(4096, 64, 0, 0, INV, 0);
  EXPECT_EQ(Thrown([&] { block->Write(memory, 4096, 1); }), 0);
  ExpectLog({});
  block->rc = -5;
  ExpectRefused(*block, 4096, 1, 151, "Buffer is not valid 1\n");
}

TEST_F(BufferWriteTest, DirtyRunBeyondTheDataIsReportedAfterTheBytesAreIn) {
  const BlockPtr block = Make(4096, 4096, 50, 200, VALID | END_OF_FILE);
  Fields expected(*block);
  expected.skip = 0;
  expected.dlen = 100;
  expected.state = DIRTY | END_OF_FILE;
  Bytes area = Area(*block);
  std::copy(memory, memory + 10, area.begin() + 90);
  ExpectAssertion(166, "DBL: 200 BL: 100\n", [&] { block->Write(memory, 4186, 10); });
  EXPECT_EQ(Fields(*block), expected);
  EXPECT_EQ(Area(*block), area);
}

TEST_F(BufferWriteTest, DirtyRunMayEndWhereTheDataEnds) {
  const BlockPtr block = Make(4096, 4096, 50, 101, VALID);
  ExpectAssertion(166, "DBL: 101 BL: 100\n", [&] { block->Write(memory, 4096, 100); });
  EXPECT_EQ(block->Write(memory, 4096, 101), 101u);  // both end at 101 now
  block->dirty_length = UINT_MAX;
  ExpectAssertion(166, "DBL: 4294967295 BL: 101\n", [&] { block->Write(memory, 4096, 1); });
}

// Every small block against a plain map of the bytes that the file should show.
TEST_F(BufferWriteTest, AgreesWithAPlainCopyForAllSmallRequests) {
  constexpr unsigned long kOff = 10;
  for (unsigned int blen = 0; blen <= 4; ++blen) {
    for (unsigned int dlen = 0; dlen <= blen; ++dlen) {
      for (unsigned int dirty = 0; dirty <= dlen; ++dirty) {
        for (unsigned long at = kOff - 2; at <= kOff + 6; ++at) {
          for (unsigned int length = 0; length <= 6; ++length) {
            SCOPED_TRACE(
                Text("blen %u dlen %u dirty %u at %lu length %u", blen, dlen, dirty, at, length));
            const BlockPtr block = Make(kOff, blen, dlen, dirty, dirty != 0 ? DIRTY : VALID);
            const std::string dump = Text("O:%lu B_O:%lu", at, kOff);
            if (length == 0) {
              ExpectRefused(*block, at, length, 140, "Length is 0\n");
              continue;
            }
            if (at < kOff) {
              ExpectRefused(*block, at, length, 143, "Offset too small " + dump + "\n");
              continue;
            }
            if (at - kOff >= blen) {
              ExpectRefused(*block, at, length, 146,
                            "Offset too big " + dump + Text(" L:%u DL:%u\n", dlen, dirty));
              continue;
            }
            Bytes area = Area(*block);
            unsigned int count = 0, valid = dlen, unsaved = dirty;
            for (unsigned int i = 0; i < length; ++i) {
              const unsigned long place = at - kOff + i;
              if (place >= blen) break;
              area[place] = memory[i];
              ++count;
              const auto end = static_cast<unsigned int>(place + 1);
              if (end > valid) valid = end;
              if (end > unsaved) unsaved = end;
            }
            Fields expected(*block);
            expected.skip = 0;
            expected.state = DIRTY;
            expected.dlen = valid;
            expected.dirty_length = unsaved;
            EXPECT_EQ(block->Write(memory, at, length), count);
            EXPECT_EQ(Fields(*block), expected);
            EXPECT_EQ(Area(*block), area);
          }
        }
      }
    }
  }
  ExpectLog({});
}

// --- Read ----------------------------------------------------------------------------------------

class BufferReadTest : public BufferTest {
 protected:
  // A read that `block` refuses, leaving all but `skip` as it was, and the destination too.
  void ExpectRefused(VeskBuffer& block, unsigned long offset, unsigned int length, int site,
                     const std::string& message) {
    Fields expected(block);
    expected.skip = 0;
    const Bytes destination(memory, memory + 256);
    ExpectRefusal(block, expected, site, message, [&] { block.Read(memory, offset, length); });
    EXPECT_EQ(Bytes(memory, memory + 256), destination);
  }

  // The caller's memory from byte `first` on is as the test began.
  void ExpectUntouched(unsigned int first) {
    for (unsigned int i = first; i < 256; ++i) ASSERT_EQ(memory[i], CallerByte(i)) << i;
  }
};

TEST_F(BufferReadTest, CopiesValidBytesAndChangesNothingButSkip) {
  const BlockPtr block = Make(4096, 4096, 300, 200, DIRTY | END_OF_FILE, -2);
  Fields expected(*block);
  expected.skip = 0;
  const Bytes area = Area(*block);
  EXPECT_EQ(block->Read(memory, 4196, 100), 100u);
  ExpectLog({"Debug 192 Read buffer O:4196 L:100 B_O:4096 B_L:300\n"});
  EXPECT_EQ(Bytes(memory, memory + 100), Bytes(area.begin() + 100, area.begin() + 200));
  ExpectUntouched(100);
  EXPECT_EQ(Fields(*block), expected);
  EXPECT_EQ(Area(*block), area);
  EXPECT_EQ(clock_reads, 0);
}

TEST_F(BufferReadTest, CopyStopsAtTheEndOfTheValidData) {
  const BlockPtr block = Make(4096, 4096, 300, 0, VALID);
  EXPECT_EQ(block->Read(memory, 4296, 99), 99u);
  EXPECT_EQ(block->Read(memory, 4296, 100), 100u);
  EXPECT_EQ(block->Read(memory, 4296, 101), 100u);
  EXPECT_EQ(block->Read(memory, 4395, UINT_MAX), 1u);
  ExpectUntouched(100);
  ExpectLog({"Debug 192 Read buffer O:4296 L:99 B_O:4096 B_L:300\n",
             "Debug 192 Read buffer O:4296 L:100 B_O:4096 B_L:300\n",
             "Debug 192 Read buffer O:4296 L:101 B_O:4096 B_L:300\n",
             "Debug 192 Read buffer O:4395 L:-1 B_O:4096 B_L:300\n"});
}

TEST_F(BufferReadTest, NoMoreIsWrittenToTheDestinationThanIsCopied) {
  const BlockPtr block = Make(4096, 4096, 4096, 0, VALID);
  Bytes destination(96);  // the address sanitizer sees one byte more
  EXPECT_EQ(block->Read(destination.data(), 8096, 10000), 96u);
  EXPECT_EQ(destination, Bytes(block->bptr + 4000, block->bptr + 4096));
}

TEST_F(BufferReadTest, ValidDataIsTheLimitNotTheUsableLength) {
  const BlockPtr block = Make(4096, 4096, 300, 0, VALID);
  ExpectRefused(*block, 4396, 1, 184, "Offset too big O:4396 B_O:4096 B_DL:300\n");
  block->blen = 100;
  EXPECT_EQ(block->Read(memory, 4296, 200), 100u);
}

TEST_F(BufferReadTest, RequestOutsideTheValidDataIsRefused) {
  const BlockPtr block = Make(4096, 4096, 300, 200, VALID);
  ExpectRefused(*block, 4095, 1, 181, "Offset too small O:4095 B_O:4096\n");
  block->skip = 7;
  ExpectRefused(*block, 4396, 1, 184, "Offset too big O:4396 B_O:4096 B_DL:300\n");
  block->skip = 7;
  ExpectRefused(*block, 4397, 1, 184, "Offset too big O:4397 B_O:4096 B_DL:300\n");
  block->dlen = 0;
  ExpectRefused(*block, 4096, 1, 184, "Offset too big O:4096 B_O:4096 B_DL:0\n");
  block->dlen = 1;
  EXPECT_EQ(block->Read(memory, 4096, 1), 1u);
  EXPECT_EQ(memory[0], FileByte(4096));
}

TEST_F(BufferReadTest, RequestOfNoLengthIsRefused) {
  const BlockPtr block = Make(4096, 4096, 300, 200, VALID);
  ExpectRefused(*block, 4096, 0, 178, "Length is 0\n");
}

TEST_F(BufferReadTest, FirstOfSeveralReasonsIsReported) {
  const BlockPtr block = Make(4096, 4096, 300, 0, IOR | INV, -5);
  ExpectRefused(*block, 4095, 0, 178, "Length is 0\n");
  ExpectRefused(*block, 4396, 0, 178, "Length is 0\n");
  ExpectRefused(*block, 4096, 0, 178, "Length is 0\n");
  ExpectRefused(*block, 4095, 1, 181, "Offset too small O:4095 B_O:4096\n");
  ExpectRefused(*block, 4396, 1, 184, "Offset too big O:4396 B_O:4096 B_DL:300\n");
  ExpectRefused(*block, 4395, 1, 189, "Buffer is not valid 9\n");
  block->state = INV;
  block->rc = 0;  // a plain throw otherwise
  ExpectRefused(*block, 4096, 0, 178, "Length is 0\n");
  ExpectRefused(*block, 4095, 1, 181, "Offset too small O:4095 B_O:4096\n");
  ExpectRefused(*block, 4396, 1, 184, "Offset too big O:4396 B_O:4096 B_DL:300\n");
}

TEST_F(BufferReadTest, WideValuesArePrintedAsTheirConversionsSay) {
  const BlockPtr block = Make(1ul << 63, 4096, 100, 0, VALID);
  ExpectRefused(*block, 5, 1, 181, "Offset too small O:5 B_O:-9223372036854775808\n");
  ExpectRefused(*block, ~0ul, 1, 184, "Offset too big O:-1 B_O:-9223372036854775808 B_DL:100\n");
  block->state = 0x80000008u;
  ExpectRefused(*block, 1ul << 63, 1, 189, "Buffer is not valid -2147483640\n");

  block->state = VALID;
  block->dlen = UINT_MAX;  // wrong on purpose: only the first byte is asked for
  ExpectRefused(*block, ~0ul, 1, 184, "Offset too big O:-1 B_O:-9223372036854775808 B_DL:-1\n");
  EXPECT_EQ(block->Read(memory, 1ul << 63, 1), 1u);
  ExpectLog(
      {"Debug 192 Read buffer O:-9223372036854775808 L:1 B_O:-9223372036854775808 "
       "B_L:-1\n"});
}

TEST_F(BufferReadTest, OffsetsAreComparedWithoutSign) {
  const unsigned long top = 1ul << 63;
  const BlockPtr across = Make(top - 2, 6, 4, 0, VALID);
  ExpectRefused(*across, top - 3, 1, 181,
                "Offset too small O:9223372036854775805 B_O:9223372036854775806\n");
  ExpectRefused(*across, top + 2, 1, 184,
                "Offset too big O:-9223372036854775806 B_O:9223372036854775806 B_DL:4\n");
  EXPECT_EQ(across->Read(memory, top - 1, 9), 3u);
  EXPECT_EQ(memory[2], FileByte(top + 1));

  const BlockPtr last = Make(~0ul - 4, 4, 4, 0, VALID);  // ends one byte below the top
  EXPECT_EQ(last->Read(memory, ~0ul - 1, 1), 1u);
  EXPECT_EQ(memory[0], FileByte(~0ul - 1));
  logger.lines.clear();
}

TEST_F(BufferReadTest, DataWhoseEndWrapsRoundIsNotServed) {
  const BlockPtr block = Make(~0ul - 3, 4, 4, 0, VALID);  // ends at 0
  ExpectRefused(*block, ~0ul - 3, 1, 184, "Offset too big O:-4 B_O:-4 B_DL:4\n");
  ExpectRefused(*block, ~0ul, 1, 184, "Offset too big O:-1 B_O:-4 B_DL:4\n");
  // Below its start and beyond its end at once.
  ExpectRefused(*block, 0, 1, 181, "Offset too small O:0 B_O:-4\n");
}

TEST_F(BufferReadTest, StateDecidesWhetherTheBlockGivesData) {
  for (const unsigned int other : {0u, kNoState}) {
    for (unsigned int bits = 0; bits < 64; ++bits) {
      for (const int rc : {0, -5, -2, 5}) {
        const unsigned int state = bits | other;
        SCOPED_TRACE(Text("state %u rc %d", state, rc));
        const BlockPtr block = Make(4096, 64, 10, 5, state, rc);
        Fields expected(*block);
        expected.skip = 0;
        const bool being_read = (bits / 8) % 2 != 0;
        const bool failed = bits % 2 == 1;
        const Lines line = {"Debug 192 Read buffer O:4097 L:20 B_O:4096 B_L:10\n"};
        if (being_read || (failed && rc != 0)) {
          ExpectRefused(*block, 4097, 20, 189,
                        Text("Buffer is not valid %d\n", static_cast<int>(state)));
          ExpectLog({});
        } else if (failed) {
          EXPECT_EQ(Thrown([&] { block->Read(memory, 4097, 20); }), 0);
          ExpectLog(line);
          ExpectUntouched(0);
        } else {
          EXPECT_EQ(block->Read(memory, 4097, 20), 9u);
          ExpectLog(line);
          for (unsigned int i = 0; i < 9; ++i) {
            EXPECT_EQ(memory[i], FileByte(4097 + i));
            memory[i] = CallerByte(i);
          }
          ExpectUntouched(0);
        }
        EXPECT_EQ(Fields(*block), expected);
      }
    }
  }
}

TEST_F(BufferReadTest, DataThatIsBeingWrittenBackIsServed) {
  const BlockPtr block = Make(4096, 64, 10, 5, IOW);
  EXPECT_EQ(block->Read(memory, 4096, 1), 1u);
  block->state = IOR;
  ExpectRefused(*block, 4096, 1, 189, "Buffer is not valid 8\n");
  block->state = IOR | IOW;
  ExpectRefused(*block, 4096, 1, 189, "Buffer is not valid 24\n");
}

TEST_F(BufferReadTest, FailedBlockWithoutAnErrorIsRefusedAfterTheTraceLine) {
  const BlockPtr block = Make(4096, 64, 10, 0, INV, 0);
  EXPECT_EQ(Thrown([&] { block->Read(memory, 4096, 1); }), 0);
  ExpectLog({"Debug 192 Read buffer O:4096 L:1 B_O:4096 B_L:10\n"});
  block->rc = -5;
  ExpectRefused(*block, 4096, 1, 189, "Buffer is not valid 1\n");
}

// Every small block against the bytes that the file should show.
TEST_F(BufferReadTest, AgreesWithAPlainCopyForAllSmallRequests) {
  constexpr unsigned long kOff = 10;
  for (unsigned int blen = 0; blen <= 4; ++blen) {
    for (unsigned int dlen = 0; dlen <= blen; ++dlen) {
      for (unsigned long at = kOff - 2; at <= kOff + 6; ++at) {
        for (unsigned int length = 0; length <= 6; ++length) {
          SCOPED_TRACE(Text("blen %u dlen %u at %lu length %u", blen, dlen, at, length));
          const BlockPtr block = Make(kOff, blen, dlen, 0, VALID);
          const std::string place = Text("O:%lu B_O:%lu", at, kOff);
          if (length == 0) {
            ExpectRefused(*block, at, length, 178, "Length is 0\n");
            continue;
          }
          if (at < kOff) {
            ExpectRefused(*block, at, length, 181, "Offset too small " + place + "\n");
            continue;
          }
          if (at - kOff >= dlen) {
            ExpectRefused(*block, at, length, 184,
                          "Offset too big " + place + Text(" B_DL:%u\n", dlen));
            continue;
          }
          unsigned int count = 0;
          while (count < length && at + count < kOff + dlen) ++count;
          Fields expected(*block);
          expected.skip = 0;
          EXPECT_EQ(block->Read(memory, at, length), count);
          ExpectLog(
              {Text("Debug 192 Read buffer O:%lu L:%u B_O:%lu B_L:%u\n", at, length, kOff, dlen)});
          EXPECT_EQ(Fields(*block), expected);
          for (unsigned int i = 0; i < count; ++i) {
            EXPECT_EQ(memory[i], FileByte(at + i));
            memory[i] = CallerByte(i);
          }
          ExpectUntouched(0);
        }
      }
    }
  }
}

TEST_F(BufferReadTest, WrittenBytesAreReadBack) {
  const BlockPtr block = Make(4096, 4096, 0, 0, VALID);
  EXPECT_EQ(block->Write(memory, 4200, 50), 50u);
  unsigned char back[50] = {};
  EXPECT_EQ(block->Read(back, 4200, 50), 50u);
  EXPECT_EQ(Bytes(back, back + 50), Bytes(memory, memory + 50));
}

// --- ReduceLength --------------------------------------------------------------------------------

class BufferReduceTest : public BufferTest {
 protected:
  static Lines Entry(int new_length, unsigned int blen) {
    return {Text("Debug 208 f ReducingLength NL:%d L:%d\n", new_length, static_cast<int>(blen))};
  }

  // A cut that `block` refuses, leaving everything as it was: `skip` is not reset before the check.
  void ExpectRefused(VeskBuffer& block, int new_length) {
    ExpectRefusal(
        block, Fields(block), 210, Text("buffer dirty %d\n", static_cast<int>(block.state)),
        [&] { block.ReduceLength(name, new_length); }, Entry(new_length, block.blen));
  }
};

TEST_F(BufferReduceTest, CutsEachLengthThatIsLongerAndKeepsTheArea) {
  struct Case {
    unsigned int dlen, dirty;
    int cut;
    unsigned int new_dlen, new_dirty;
  };
  // clang-format off
  const Case cases[] = {
      //dlen dirty   cut  dlen dirty
      {  300,  200, 4096,  300,  200},
      {  300,  200, 4095,  300,  200},
      {  300,  200,  301,  300,  200},
      {  300,  200,  300,  300,  200},
      {  300,  200,  299,  299,  200},
      {  300,  200,  201,  201,  200},
      {  300,  200,  200,  200,  200},
      {  300,  200,  199,  199,  199},
      {  300,  300,  299,  299,  299},
      {  300,  200,    1,    1,    1},
      {  300,  200,    0,    0,    0},
      {    0,    0,   10,    0,    0},
      { 4096, 4096, 4096, 4096, 4096},
      { 4096, 4096, 4095, 4095, 4095},
  };
  // clang-format on
  for (const Case& c : cases) {
    for (const unsigned int state : {VALID, DIRTY, INV, IOR, IOW, 0u, ~0u}) {
      const BlockPtr block = Make(8192, 4096, c.dlen, c.dirty, state);
      const Bytes area = Area(*block);
      Fields expected(*block);
      expected.skip = 0;
      expected.blen = static_cast<unsigned int>(c.cut);
      expected.dlen = c.new_dlen;
      expected.dirty_length = c.new_dirty;
      block->ReduceLength(name, c.cut);
      ExpectLog(Entry(c.cut, 4096));
      EXPECT_EQ(Fields(*block), expected);
      EXPECT_EQ(Area(*block), area);
    }
  }
  EXPECT_EQ(clock_reads, 0);
}

TEST_F(BufferReduceTest, CutCanBeCutAgainButNotUndone) {
  const BlockPtr block = Make(8192, 4096, 4096, 0, VALID);
  block->ReduceLength(name, 1000);
  block->ReduceLength(name, 1000);
  block->ReduceLength(name, 10);
  EXPECT_EQ(block->blen, 10u);
  EXPECT_EQ(block->size, 4096u);
  ExpectLog(Join({Entry(1000, 4096), Entry(1000, 1000), Entry(10, 1000)}));
  ExpectRefused(*block, 11);
}

TEST_F(BufferReduceTest, LengthOutsideTheBlockIsRefusedBeforeAnythingChanges) {
  for (const unsigned int state : {VALID, DIRTY | END_OF_FILE, 0x80000002u}) {
    const BlockPtr block = Make(8192, 4096, 300, 200, state);
    ExpectRefused(*block, 4097);
    ExpectRefused(*block, INT_MAX);
    ExpectRefused(*block, -1);
    ExpectRefused(*block, INT_MIN);
  }
}

TEST_F(BufferReduceTest, NegativeLengthIsRefusedHoweverLongTheBlock) {
  const BlockPtr block = Make(8192, 16, 3, 2, VALID);
  block->blen = UINT_MAX;  // as an unsigned length, -1 would do
  ExpectRefused(*block, -1);
  ExpectRefused(*block, INT_MIN);
  block->ReduceLength(name, INT_MAX);
  ExpectLog({"Debug 208 f ReducingLength NL:2147483647 L:-1\n"});
  EXPECT_EQ(block->blen, 2147483647u);
  block->ReduceLength(name, 16);
  logger.lines.clear();
}

TEST_F(BufferReduceTest, LengthsAreComparedWithoutSign) {
  const BlockPtr block = Make(8192, 16, 3, 2, VALID);
  block->dlen = UINT_MAX;
  block->dirty_length = 1u << 31;
  block->ReduceLength(name, 5);
  EXPECT_EQ(block->dlen, 5u);
  EXPECT_EQ(block->dirty_length, 5u);
  logger.lines.clear();
}

TEST_F(BufferReduceTest, DirtyRunBeyondTheDataIsReportedAfterTheCut) {
  const BlockPtr block = Make(8192, 4096, 50, 80, DIRTY);
  Fields expected(*block);
  expected.skip = 0;
  expected.blen = 100;
  ExpectRefusal(
      *block, expected, 217, "DBL: 80 BL: 50\n", [&] { block->ReduceLength(name, 100); },
      Entry(100, 4096));

  expected.blen = expected.dirty_length = 51;
  block->skip = 7;
  ExpectRefusal(
      *block, expected, 217, "DBL: 51 BL: 50\n", [&] { block->ReduceLength(name, 51); },
      Entry(51, 100));

  block->ReduceLength(name, 50);  // both end there now
  expected.blen = expected.dirty_length = 50;
  EXPECT_EQ(Fields(*block), expected);
}

TEST_F(BufferReduceTest, PrintsTheNameItIsGiven) {
  const BlockPtr block = Make(8192, 4096, 50, 0, VALID);
  std::string other = "dir/100%d name";
  block->ReduceLength(other, 4000);
  ExpectLog({"Debug 208 dir/100%d name ReducingLength NL:4000 L:4096\n"});
}

// Clipped by its end, such a request would not be clipped at all and run out of the block.
TEST_F(BufferTest, RequestThatEndsBeyondTheLargestOffsetIsClippedLikeAnyOther) {
  const unsigned long off = 0UL - 8192;
  const BlockPtr block = Make(off, 4096, 0, 0, VALID);
  EXPECT_EQ(block->Write(memory, off, UINT_MAX), 4096u);
  EXPECT_EQ(block->dlen, 4096u);
  EXPECT_EQ(block->Read(memory, off + 4000, UINT_MAX), 96u);
}

}  // namespace
}  // namespace vesk_test

// What readers of a file make the store do: when bytes are fetched, how many, and how often.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/files/file_world.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using vesk::Advice;
using vesk::FileHandle;

constexpr unsigned kBytes = 4096;  // of a block and of a page

class ReadingTest : public ::testing::Test {
 protected:
  ReadingTest() {
    world_.options.block_size = kBytes;
    world_.options.memory = std::uint64_t{1024} * kBytes;
    world_.options.read_ahead = 8;
  }

  FileHandle& Begin(std::size_t size) {
    content_ = FileWorld::Content(size, 1);
    world_.Put("file", content_);
    return world_.Open("file", {});
  }

  void ExpectRead(FileHandle& file, std::uint64_t offset, std::size_t length) {
    const vesk::RequestScope scope(world_.In(kPatience));
    const std::string expected =
        offset < content_.size() ? content_.substr(offset, length) : std::string();
    ASSERT_TRUE(FileWorld::Read(file, offset, length) == expected)
        << "wrong bytes at " << offset << ", length " << length;
  }

  // The next read finds everything that was on its way: a miss is what nobody had asked for.
  void ReadBlockAndAwaitAhead(FileHandle& file, std::uint64_t block) {
    ExpectRead(file, block * kBytes, kBytes);
    EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().in_flight == 0; }));
  }

  void HoldReads() { world_.script.Hold({vesk::kFaultRead, "", 0, ~std::uint64_t{0}}); }
  std::uint64_t reads() const { return world_.script.Count(vesk::kFaultRead); }

  ManualClock clock_;  // stands still: windows depend on the reader's speed otherwise
  FileWorld world_{FileWorld::Kind::kMemory, clock_};
  std::string content_;
};

// ---- the first window, and the next ones ----

TEST_F(ReadingTest, FirstWindowLeavesTogetherWithTheFirstMiss) {
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  HoldReads();
  const std::uint64_t batches = world_.script.batches();
  {
    Task reader([&] { ExpectRead(file, 0, kBytes); });
    world_.script.AwaitHeld(8);
    EXPECT_FALSE(reader.Ended()) << "nothing has come from the store yet";
    EXPECT_EQ(world_.script.batches() - batches, 1u);
    world_.script.Heal();
    EXPECT_TRUE(reader.Await());
  }
  EXPECT_EQ(file.GetStats().misses, 1u);
}

// A request without limits carries its own transfer out; the window does not wait for that.
TEST_F(ReadingTest, FirstWindowIsOnItsWayBeforeAWaiterRunsTheFirstMissItself) {
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  HoldReads();
  Task reader(
      [&] {
        std::string bytes = FileWorld::Read(file, 0, kBytes);
        EXPECT_TRUE(bytes == content_.substr(0, kBytes));
      },
      Task::Limits::kNone);
  world_.script.AwaitHeld(8);
  EXPECT_FALSE(reader.Ended());
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
}

// The memory is full of what others have read.
TEST_F(ReadingTest, FirstWindowLeavesAtOnceWhereOthersHaveToGo) {
  world_.options.memory = std::uint64_t{64} * kBytes;
  world_.Put("other", FileWorld::Content(std::size_t{64} * kBytes));
  FileHandle& other = world_.Open("other", {});
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  EXPECT_EQ(FileWorld::Read(other, 0, std::size_t{64} * kBytes).size(), std::size_t{64} * kBytes);
  EXPECT_EQ(world_.files().memory_used(), world_.options.memory);
  HoldReads();
  Task reader([&] { ExpectRead(file, 0, kBytes); });
  world_.script.AwaitHeld(8);
  EXPECT_FALSE(reader.Ended());
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
}

// What comes last must not push out what came first and is not read yet.
TEST_F(ReadingTest, ALongReadFetchesAQuarterOfTheMemoryAtATime) {
  world_.options.memory = std::uint64_t{60} * kBytes;
  world_.options.read_ahead = 0;
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  HoldReads();
  Task reader([&] { ExpectRead(file, 0, std::size_t{40} * kBytes); });
  world_.script.AwaitHeld(15);
  EXPECT_EQ(file.GetStats().in_flight, std::uint64_t{15} * kBytes);
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
}

// The reader of a sequence is thought to want all of the block.
TEST_F(ReadingTest, AWindowBeginsWhereItsBlockDoes) {
  world_.options.block_size = 4 * kBytes;
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  file.Advise(Advice::kSequential);
  ExpectRead(file, 9 * kBytes, 10);
  const std::uint64_t before = reads();
  ExpectRead(file, 8 * kBytes, 10);
  EXPECT_EQ(reads(), before);
}

// The file is longer than one range: so the windows cross the boundaries.
TEST_F(ReadingTest, NextWindowLeavesBeforeTheCurrentOneIsUsedUpAcrossRangesToo) {
  constexpr std::size_t kSize = std::size_t{100} * kBytes;
  FileHandle& file = Begin(kSize);
  for (std::size_t at = 0; at < kSize; at += 1024) {
    ExpectRead(file, at, 1024);
    const std::size_t block_end = (at / kBytes + 1) * kBytes;
    ASSERT_TRUE(FileWorld::Await([&] {  // what is under way is collected by the reaper
      return file.GetStats().fetched > std::min(block_end, kSize - 1);
    })) << "nothing beyond the block at "
        << at << " was fetched";
  }
  EXPECT_GT(file.GetStats().streams, 1u);
  EXPECT_EQ(file.GetStats().misses, 1u) << "the reader had to wait later on";
  EXPECT_EQ(file.GetStats().fetched, kSize);
}

// The reader that sleeps at a block on its way has sent off what comes after it.
TEST_F(ReadingTest, WindowIsRefilledByAReaderThatWaits) {
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  HoldReads();
  Task first([&] { ExpectRead(file, 0, kBytes); });
  world_.script.AwaitHeld(9);  // its block and its window
  const std::uint64_t asked = world_.script.Count(vesk::kFaultStat);
  Task second([&] { ExpectRead(file, std::uint64_t{6} * kBytes, kBytes); });
  world_.script.AwaitHeld(10);
  EXPECT_FALSE(second.Ended());
  world_.script.Heal();
  EXPECT_TRUE(first.Await());
  EXPECT_TRUE(second.Await());
  EXPECT_EQ(world_.script.Count(vesk::kFaultStat), asked) << "nothing is in doubt";
}

// ---- off means off ----

TEST_F(ReadingTest, OffMeansOffByOption) {
  world_.options.read_ahead = 0;
  FileHandle& file = Begin(std::size_t{40} * kBytes);
  file.Advise(Advice::kSequential);
  for (std::uint64_t i = 0; i < 40; ++i) {
    ExpectRead(file, i * kBytes, kBytes);
    ASSERT_EQ(reads(), i + 1);
    ASSERT_EQ(file.GetStats().fetched, (i + 1) * kBytes);
  }
}

TEST_F(ReadingTest, OffMeansOffWithTheAgeCheck) {
  FileHandle& file = Begin(std::size_t{40} * kBytes);
  world_.settings.refresh_interval = 0;
  for (std::uint64_t i = 0; i < 40; ++i) {
    ExpectRead(file, i * kBytes, kBytes);
    ASSERT_EQ(reads(), i + 1);
    ASSERT_EQ(file.GetStats().fetched, (i + 1) * kBytes);
  }
}

TEST_F(ReadingTest, OffMeansOffForAHandleThatReadsAtRandom) {
  FileHandle& file = Begin(std::size_t{80} * kBytes);
  file.Advise(Advice::kRandom);
  for (std::uint64_t i = 0; i < 40; ++i) {
    ExpectRead(file, i * kBytes, kBytes);
    ASSERT_EQ(file.GetStats().fetched, (i + 1) * kBytes);
  }
  EXPECT_EQ(file.GetStats().window, 0u);
  FileHandle& other = world_.Open("file", {});  // the advice was this handle's alone
  ExpectRead(other, 0, kBytes);
  for (std::uint64_t i = 40; i < 44; ++i) ExpectRead(other, i * kBytes, kBytes);
  EXPECT_GT(other.GetStats().window, 0u);
}

TEST_F(ReadingTest, SequentialAdviceReadsTwiceAsFarAheadFromAnyFirstRequestOn) {
  FileHandle& file = Begin(std::size_t{200} * kBytes);
  HoldReads();
  {
    Task reader([&] { ExpectRead(file, 0, kBytes); });
    world_.script.AwaitHeld(9);
    EXPECT_EQ(file.GetStats().window, std::uint64_t{8} * kBytes);
    EXPECT_EQ(reads(), 9u);
    FileHandle& advised = world_.Open("file", {});
    advised.Advise(Advice::kSequential);
    Task other([&] { ExpectRead(advised, std::uint64_t{100} * kBytes, kBytes); });
    world_.script.AwaitHeld(9 + 17);
    EXPECT_EQ(advised.GetStats().window, std::uint64_t{16} * kBytes);
    EXPECT_EQ(reads(), 9u + 17u);
    world_.script.Heal();
    EXPECT_TRUE(reader.Await());
    EXPECT_TRUE(other.Await());
  }
}

// ---- what is fetched ----

TEST_F(ReadingTest, RandomReadersFetchExactlyTheirPages) {
  world_.options.block_size = 16 * kBytes;
  FileHandle& file = Begin(std::size_t{1024} * kBytes);
  std::uint64_t pages = 0;
  for (std::uint64_t i = 1; i <= 60; ++i) {
    const std::uint64_t page = i * 389 % 1024;  // each page once, far from the ones before
    const bool two = i % 3 == 0;
    ExpectRead(file, page * kBytes + 100, two ? kBytes : 200);
    pages += two ? 2 : 1;
    ASSERT_EQ(file.GetStats().fetched, pages * kBytes) << "read number " << i;
  }
}

TEST_F(ReadingTest, SequentialReadersFetchWhatTheyAreHanded) {
  constexpr std::size_t kSize = (std::size_t{1} << 20) + 12345;
  for (const unsigned memory_blocks : {24u, 1024u}) {
    for (const std::size_t step : {std::size_t{1000}, std::size_t{4096}, std::size_t{100000}}) {
      FileWorld world;
      world.options.block_size = 4 * kBytes;
      world.options.memory = std::uint64_t{memory_blocks} * 4 * kBytes;
      world.options.read_ahead = 8;
      const std::string content = FileWorld::Content(kSize);
      world.Put("file", content);
      FileHandle& file = world.Open("file", {});
      for (std::size_t at = 0; at < kSize; at += step) {
        ASSERT_TRUE(FileWorld::Read(file, at, step) == content.substr(at, step));
      }
      const std::string what =
          std::to_string(memory_blocks) + " blocks, steps of " + std::to_string(step);
      EXPECT_EQ(file.GetStats().returned, kSize) << what;
      EXPECT_EQ(file.GetStats().fetched, kSize) << what;
    }
  }
}

TEST_F(ReadingTest, AReaderThatIsServedFromMemoryIsReadAheadOfWhereverItBegins) {
  constexpr std::uint64_t kBlocks = 300;
  for (const std::uint64_t first : {std::uint64_t{0}, std::uint64_t{100}}) {
    FileHandle& file = Begin(kBlocks * kBytes);
    for (std::uint64_t block = first; block < kBlocks; ++block) {
      ReadBlockAndAwaitAhead(file, block);
      if (block >= first + 50) {
        ASSERT_EQ(file.GetStats().window, 8u * kBytes) << "less, though memory suffices";
      }
    }
    EXPECT_EQ(file.GetStats().fetched, (kBlocks - first) * kBytes);
    EXPECT_EQ(file.GetStats().misses, first == 0 ? 1u : 3u);
    EXPECT_TRUE(file.Close().ok());
  }
}

// It finds every block where the first one has found it.
TEST_F(ReadingTest, ASecondReaderIsReadAheadOfAsWell) {
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  for (std::uint64_t block = 0; block < 64; ++block) ReadBlockAndAwaitAhead(file, block);
  file.Advise(Advice::kDontNeed, 0, std::uint64_t{64} * kBytes);
  FileHandle& second = world_.Open("file", {});
  const std::uint64_t before = second.GetStats().misses;
  for (std::uint64_t block = 0; block < 64; ++block) ReadBlockAndAwaitAhead(second, block);
  EXPECT_EQ(second.GetStats().misses - before, 1u);
}

TEST_F(ReadingTest, NoMoreThanHalfOfTheMemoryIsReadAhead) {
  world_.options.memory = std::uint64_t{16} * kBytes;
  world_.options.read_ahead = 64;
  FileHandle& file = Begin(std::size_t{200} * kBytes);
  std::uint64_t largest = 0;
  for (std::uint64_t block = 0; block < 200; ++block) {
    ReadBlockAndAwaitAhead(file, block);
    largest = std::max<std::uint64_t>(largest, file.GetStats().window);
  }
  EXPECT_EQ(largest, 8u * kBytes);
}

TEST_F(ReadingTest, SwappedReadsAreStillOneSequence) {
  constexpr std::size_t kSize = std::size_t{200} * kBytes;
  FileHandle& file = Begin(kSize);
  for (std::uint64_t i = 0; i < 200; i += 2) {
    ReadBlockAndAwaitAhead(file, i + 1);
    ReadBlockAndAwaitAhead(file, i);
  }
  EXPECT_EQ(file.GetStats().fetched, kSize);
  EXPECT_LE(file.GetStats().misses, 5u);
}

TEST_F(ReadingTest, AReaderThatSkipsIsReadAheadOf) {
  constexpr std::size_t kSize = std::size_t{400} * kBytes;
  FileHandle& file = Begin(kSize);
  for (std::uint64_t i = 0; i < 400; i += 2) ExpectRead(file, i * kBytes, kBytes);
  EXPECT_LE(file.GetStats().misses, 10u);
  EXPECT_LE(file.GetStats().fetched, kSize);
}

TEST_F(ReadingTest, TwoInterleavedReadersOfOneHandleEachHaveAWindow) {
  FileHandle& file = Begin(std::size_t{400} * kBytes);
  for (std::uint64_t i = 0; i < 150; ++i) {
    ExpectRead(file, i * kBytes, kBytes);
    ExpectRead(file, (200 + i) * kBytes, kBytes);
  }
  EXPECT_LE(file.GetStats().misses, 8u);
}

TEST_F(ReadingTest, NothingIsFetchedBeyondTheEnd) {
  constexpr std::size_t kSize = std::size_t{10} * kBytes + 123;
  FileHandle& file = Begin(kSize);
  for (std::size_t at = 0; at < kSize + 3 * kBytes; at += 1000) ExpectRead(file, at, 1000);
  ExpectRead(file, kSize, 1);
  ExpectRead(file, ~std::uint64_t{0} - 10, 100);
  ExpectRead(file, kSize - 1, std::size_t{1} << 20);
  EXPECT_EQ(world_.dispatcher().GetStats().reads.bytes, kSize);
  const std::uint64_t asked = reads();
  EXPECT_EQ(asked, 11u) << "as many transfers as there are blocks";
}

// Which would cost more than the hit itself.
TEST_F(ReadingTest, AHitLeavesNoLineInTheTrace) {
  FileHandle& file = Begin(kBytes);
  ExpectRead(file, 0, kBytes);
  const std::uint64_t lines = world_.logger.lines();
  ExpectRead(file, 0, kBytes);
  ExpectRead(file, 100, 200);
  EXPECT_EQ(world_.logger.lines(), lines);
  EXPECT_EQ(file.GetStats().hits, 2u);
}

// Each in a range of its own.
TEST_F(ReadingTest, HitsInDifferentPartsOfAFileLeaveNoLineEither) {
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  file.Advise(Advice::kRandom);
  for (std::uint64_t block = 0; block < 64; ++block) ExpectRead(file, block * kBytes, kBytes);
  ASSERT_GE(file.GetStats().streams, 3u);
  std::uint64_t lines = 0;
  for (unsigned round = 0; round < 3; ++round) {
    lines = world_.logger.lines();
    for (const std::uint64_t block : {1u, 40u, 20u, 60u}) ExpectRead(file, block * kBytes, 100);
  }
  EXPECT_EQ(world_.logger.lines(), lines);
}

// ---- many at once ----

TEST_F(ReadingTest, ConcurrentMissesOfOneBlockFetchItOnce) {
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  file.Advise(Advice::kRandom);
  HoldReads();
  std::vector<std::unique_ptr<Task>> readers;
  for (unsigned i = 0; i < 4; ++i) {
    readers.push_back(std::make_unique<Task>(
        [&, i] { ExpectRead(file, std::uint64_t{9} * kBytes + i * 100, 100); }));
  }
  world_.script.AwaitHeld(1);
  // A reader that has not come yet will find the block on its way, or there.
  FileHandle& eager = world_.Open("file", {});
  eager.Advise(Advice::kWillNeed, std::uint64_t{9} * kBytes, kBytes);
  EXPECT_EQ(world_.script.held(), 1u);
  world_.script.Heal();
  for (const auto& reader : readers) EXPECT_TRUE(reader->Await());
  EXPECT_EQ(reads(), 1u);
  EXPECT_EQ(file.GetStats().fetched, kBytes);
}

TEST_F(ReadingTest, AMebibyteIsFetchedInParallel) {
  world_.options.block_size = 16 * kBytes;
  world_.options.memory = std::uint64_t{16} << 20;
  world_.options.read_ahead = 0;
  FileHandle& file = Begin(std::size_t{5} << 20);
  HoldReads();
  Task reader([&] { ExpectRead(file, (std::uint64_t{1} << 20) + 100, std::size_t{3} << 20); });
  world_.script.AwaitHeld(49);  // 3 MiB and a page; none has ended
  EXPECT_FALSE(reader.Ended());
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
  EXPECT_EQ(reads(), 49u);
}

// ---- advice about ranges ----

TEST_F(ReadingTest, WillNeedFetchesTheRangeWithoutWaiting) {
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  HoldReads();
  file.Advise(Advice::kWillNeed, std::uint64_t{10} * kBytes, std::uint64_t{30} * kBytes);
  EXPECT_EQ(world_.script.held(), 30u);
  world_.script.Heal();
  ASSERT_TRUE(FileWorld::Await([&] { return file.GetStats().in_flight == 0; }));
  file.Advise(Advice::kRandom);
  for (std::uint64_t i = 10; i < 40; ++i) ExpectRead(file, i * kBytes, kBytes);
  EXPECT_EQ(reads(), 30u);
  EXPECT_EQ(file.GetStats().misses, 0u);
}

TEST_F(ReadingTest, WillNeedEndsWhereTheFileDoes) {
  world_.options.memory = std::uint64_t{32} * kBytes;
  world_.Put("other", FileWorld::Content(std::size_t{16} * kBytes));
  FileHandle& other = world_.Open("other", {});
  FileHandle& file = Begin(std::size_t{10} * kBytes);
  EXPECT_EQ(FileWorld::Read(other, 0, std::size_t{16} * kBytes).size(), std::size_t{16} * kBytes);
  const std::uint64_t before = reads();
  file.Advise(Advice::kWillNeed, 0, std::uint64_t{30} * kBytes);
  EXPECT_EQ(reads(), before + 10);
  file.Advise(Advice::kWillNeed, std::uint64_t{20} * kBytes, kBytes);
  EXPECT_EQ(reads(), before + 10);
  EXPECT_EQ(other.GetStats().cached, std::uint64_t{16} * kBytes) << "it has gone for nothing";
}

TEST_F(ReadingTest, WillNeedBeyondTheMemoryTakesNoMoreThanThere) {
  world_.options.memory = std::uint64_t{16} * kBytes;
  FileHandle& file = Begin(std::size_t{64} * kBytes);
  file.Advise(Advice::kWillNeed, 0, ~std::uint64_t{0});
  EXPECT_GT(reads(), 0u);
  EXPECT_LE(world_.files().memory_peak(), world_.options.memory);
  for (std::uint64_t i = 0; i < 64; ++i) ExpectRead(file, i * kBytes, kBytes);
}

TEST_F(ReadingTest, DontNeedDropsWhatIsStoredAndNothingElse) {
  world_.Put("file", FileWorld::Content(std::size_t{8} * kBytes));
  content_ = FileWorld::Content(std::size_t{8} * kBytes);
  FileHandle& file = world_.Open("file");
  file.Advise(Advice::kRandom);
  ExpectRead(file, 0, std::size_t{8} * kBytes);
  const std::string written(kBytes, 'w');
  FileWorld::Write(file, written, kBytes);
  content_.replace(kBytes, kBytes, written);
  file.Advise(Advice::kDontNeed, 0, std::uint64_t{4} * kBytes);
  EXPECT_EQ(file.GetStats().cached, std::uint64_t{5} * kBytes);
  EXPECT_EQ(file.GetStats().dirty, kBytes);
  const std::uint64_t before = file.GetStats().fetched;
  ExpectRead(file, 0, std::size_t{8} * kBytes);
  EXPECT_EQ(file.GetStats().fetched - before, std::uint64_t{3} * kBytes);
}

}  // namespace
}  // namespace vesk_test

// How much is held in memory and how much of it may be unsaved: the limits, and who has to wait.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "files/dirty_limit.h"
#include "runtime/random.h"
#include "tests/files/file_world.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::Advice;
using vesk::FileHandle;
using vesk::FileStats;

constexpr unsigned kPage = 4096;

void Configure(FileWorld& world, std::uint64_t pages) {
  world.options.block_size = kPage;
  world.options.memory = pages * kPage;
  world.options.read_ahead = 0;
}

std::string PageOf(unsigned char byte) { return std::string(kPage, static_cast<char>(byte)); }

void ReadPage(FileHandle& file, std::uint64_t page) {
  ASSERT_EQ(FileWorld::Read(file, page * kPage, kPage).size(), kPage);
}

class MemoryTest : public ::testing::Test {
 protected:
  FileHandle& Begin(const std::string& name, std::size_t pages) {
    world_.Put(name, FileWorld::Content(pages * kPage));
    return world_.Open(name);
  }

  std::uint64_t reads() const { return world_.script.Count(vesk::kFaultRead); }
  void HoldWrites() { world_.script.Hold({vesk::kFaultWrite, "", 0, ~std::uint64_t{0}}); }

  FileWorld world_;
};

// ---- the budget ----

TEST_F(MemoryTest, PeakIsNeverAboveTheLimitWithManyThreadsAndParkedWrites) {
  constexpr std::uint64_t kPages = 24;
  constexpr std::uint64_t kFilePages = 64;
  Configure(world_, kPages);
  world_.options.read_ahead = 4;
  world_.options.dirty_soft = 8 * kPage;
  world_.options.dirty_hard = 16 * kPage;
  std::vector<FileHandle*> files;
  for (const char* const name : {"a", "b", "sick"}) files.push_back(&Begin(name, kFilePages));
  world_.script.Fail({vesk::kFaultWrite, "sick", 0, ~std::uint64_t{0}}, EIO);
  std::atomic<std::uint64_t> served{0};
  std::atomic<bool> above{false};
  {
    std::vector<std::unique_ptr<Task>> tasks;
    for (unsigned i = 0; i < 8; ++i) {
      tasks.push_back(std::make_unique<Task>([&, i] {
        vesk::Random random(i);
        std::string bytes(3 * kPage, static_cast<char>('A' + i));
        for (unsigned k = 0; k < 60; ++k) {
          const vesk::RequestScope scope(world_.In(milliseconds(50)));
          FileHandle& file = *files[random.Next() % files.size()];
          const std::uint64_t offset = random.Next() % (kFilePages * kPage);
          const std::size_t length = 1 + random.Next() % bytes.size();
          std::size_t moved = 0;
          const vesk::Status status = random.Next() % 2 == 0
                                          ? file.WriteAt(bytes.data(), length, offset)
                                          : file.ReadAt(bytes.data(), length, offset, &moved);
          if (status.ok()) ++served;
          const std::uint64_t used = world_.files().memory_used();
          if (used > kPages * kPage && !above.exchange(true))
            ADD_FAILURE() << used << " bytes are used";
        }
      }));
    }
    for (const auto& task : tasks) EXPECT_TRUE(task->Await());
  }
  EXPECT_FALSE(above);
  EXPECT_LE(world_.files().memory_peak(), kPages * kPage);
  EXPECT_GE(world_.files().memory_peak(), (kPages - 1) * kPage) << "the memory was used";
  EXPECT_GT(served, 0u);  // how many depends on the machine: they have 50 ms each
  world_.script.Heal();
  for (FileHandle* const file : files) {
    (void)file->Sync();  // tells of the failures
    EXPECT_TRUE(file->Sync().ok());
    EXPECT_TRUE(file->Close().ok());
  }
  EXPECT_EQ(world_.files().memory_used(), 0u);
}

// A write around a small block makes two new ones: before it, and behind it.
TEST_F(MemoryTest, AWriteAroundABlockTakesNoMoreThanItHasReserved) {
  Configure(world_, 2);
  FileHandle& file = Begin("file", 8);
  file.Advise(Advice::kRandom);
  FileWorld::Write(file, std::string(100, 'a'), 1000);
  EXPECT_EQ(FileWorld::Read(file, 2000, 10).size(), 10u);  // the block ends where its bytes do now
  file.Advise(Advice::kDontNeed, 0, kPage);
  FileWorld::Write(file, std::string(kPage, 'b'), 0);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_LE(file.GetStats().cached, 2 * kPage);
  EXPECT_LE(world_.files().memory_used(), 2 * kPage);
  EXPECT_LE(world_.files().memory_peak(), 2 * kPage);
  EXPECT_LE(file.GetStats().cached, world_.files().memory_peak()) << "made without being reserved";
  EXPECT_EQ(file.GetStats().cached, world_.files().memory_used());
  EXPECT_TRUE(world_.Stored("file").substr(0, kPage) == std::string(kPage, 'b'));
}

TEST_F(MemoryTest, AWriteTakesThePagesThatItTouchesAndNoMore) {
  Configure(world_, 64);
  world_.options.block_size = 4 * kPage;
  FileHandle& file = Begin("file", 0);
  FileWorld::Write(file, PageOf('a'), 0);
  EXPECT_EQ(file.GetStats().cached, kPage);
  FileWorld::Write(file, "b", 8 * kPage + 1);
  EXPECT_EQ(file.GetStats().cached, 2 * kPage - 1);
}

// There is room for two more blocks; eight are wanted.
TEST_F(MemoryTest, AFetchTakesNoMoreThanItHasReserved) {
  Configure(world_, 8);
  FileHandle& file = Begin("file", 32);
  file.Advise(Advice::kRandom);
  world_.script.Hold({vesk::kFaultRead, "", 0, ~std::uint64_t{0}});
  file.Advise(Advice::kWillNeed, 0, 6 * kPage);
  EXPECT_EQ(world_.script.held(), 6u);
  file.Advise(Advice::kWillNeed, 10 * kPage, 8 * kPage);
  EXPECT_EQ(world_.script.held(), 8u);
  EXPECT_EQ(file.GetStats().cached, 8u * kPage);
  EXPECT_EQ(world_.files().memory_used(), 8u * kPage);
  world_.script.Heal();
}

// ---- which block goes ----

// Who has been used least recently, exactly.
class Model {
 public:
  explicit Model(std::size_t blocks) : blocks_(blocks) {}

  // True: it is there.
  bool Use(std::pair<unsigned, std::uint64_t> block) {
    const auto found = std::find(order_.begin(), order_.end(), block);
    const bool hit = found != order_.end();
    if (hit) order_.erase(found);
    order_.push_back(block);
    if (order_.size() > blocks_) order_.pop_front();
    return hit;
  }

 private:
  const std::size_t blocks_;
  std::deque<std::pair<unsigned, std::uint64_t>> order_;
};

TEST_F(MemoryTest, TheBlockUsedLeastRecentlyGoesFirst) {
  Configure(world_, 3);
  FileHandle& file = Begin("file", 8);
  for (const std::uint64_t page : {0u, 1u, 2u}) ReadPage(file, page);
  ReadPage(file, 0);  // 1 is the oldest now
  ReadPage(file, 3);
  EXPECT_EQ(reads(), 4u);
  for (const std::uint64_t page : {0u, 2u, 3u}) ReadPage(file, page);
  EXPECT_EQ(reads(), 4u) << "another one than 1 has gone";
  ReadPage(file, 1);
  EXPECT_EQ(reads(), 5u);
}

// Between two blocks that come in, several are used: their order counts as well.
TEST_F(MemoryTest, UsesBetweenTwoEvictionsAreInOrder) {
  Configure(world_, 3);
  FileHandle& file = Begin("file", 8);
  for (const std::uint64_t page : {0u, 1u, 2u}) ReadPage(file, page);
  for (const std::uint64_t page : {2u, 1u, 0u}) ReadPage(file, page);  // 2 is the oldest now
  ReadPage(file, 3);
  for (const std::uint64_t page : {0u, 1u}) ReadPage(file, page);
  EXPECT_EQ(reads(), 4u) << "another one than 2 has gone";
}

// It is not served in place, as one inside a block.
TEST_F(MemoryTest, AReadThatGoesOnBeyondABlockUsesIt) {
  Configure(world_, 4);
  FileHandle& file = Begin("file", 8);
  for (const std::uint64_t page : {0u, 1u, 2u, 3u}) ReadPage(file, page);
  EXPECT_EQ(FileWorld::Read(file, 0, kPage + 1).size(), kPage + 1);
  for (const std::uint64_t page : {4u, 0u}) ReadPage(file, page);
  EXPECT_EQ(reads(), 5u) << "the block that was used last has gone";
}

TEST_F(MemoryTest, BlocksOfAFileGoInTheOrderOfTheirLastUse) {
  constexpr std::size_t kBlocks = 5;
  Configure(world_, kBlocks);
  FileHandle& file = Begin("a", 8);
  Model model(kBlocks);
  vesk::Random random(7);
  for (unsigned i = 0; i < 2000; ++i) {
    const std::uint64_t page = random.Next() % 8;
    const std::uint64_t before = reads();
    ReadPage(file, page);
    ASSERT_EQ(reads() == before, model.Use({0, page})) << "page " << page << ", use " << i;
  }
}

// Between files, uses are ordered by the misses in between.
TEST_F(MemoryTest, TheFileUsedLeastRecentlyGivesABlockFirst) {
  Configure(world_, 4);
  FileHandle& a = Begin("a", 8);
  FileHandle& b = Begin("b", 8);
  FileHandle& c = Begin("c", 8);
  ReadPage(a, 0);
  ReadPage(b, 0);
  ReadPage(c, 0);
  ReadPage(a, 0);  // b is the oldest now
  ReadPage(c, 1);
  ReadPage(c, 2);  // takes b's
  const std::uint64_t before = reads();
  ReadPage(a, 0);
  ReadPage(c, 0);
  EXPECT_EQ(reads(), before);
  ReadPage(b, 0);
  EXPECT_EQ(reads(), before + 1);
}

// However much is needed at once, no file gives more than what is older than the others' blocks.
TEST_F(MemoryTest, ABlockThatNeedsSeveralOthersTakesTheOldestOfAllFiles) {
  Configure(world_, 4);
  world_.options.block_size = 4 * kPage;
  FileHandle& a = Begin("a", 8);
  FileHandle& b = Begin("b", 8);
  FileHandle& c = Begin("c", 0);
  for (FileHandle* const file : {&a, &b}) file->Advise(Advice::kRandom);  // single pages
  for (const std::uint64_t page : {0u, 4u}) {
    ReadPage(a, page);
    ReadPage(b, page);
  }
  FileWorld::Write(c, PageOf('x') + PageOf('y'), 0);
  const std::uint64_t before = reads();
  ReadPage(a, 4);
  ReadPage(b, 4);
  EXPECT_EQ(reads(), before);
}

// Read backwards: those used first are handed to a range of their own in the end.
TEST_F(MemoryTest, BlocksOfARangeThatIsDividedKeepTheirOrder) {
  constexpr std::uint64_t kPages = 17;
  Configure(world_, kPages);
  FileHandle& file = Begin("file", 32);
  for (std::uint64_t page = kPages; page-- > 0;) ReadPage(file, page);
  EXPECT_EQ(file.GetStats().streams, 2u);
  ReadPage(file, 30);
  EXPECT_EQ(reads(), kPages + 1);
  for (std::uint64_t page = 0; page < kPages - 1; ++page) ReadPage(file, page);
  EXPECT_EQ(reads(), kPages + 1) << "another one than the oldest has gone";
}

TEST_F(MemoryTest, AReadOfSeveralBlocksTakesThePlaceOfSeveralAtOnce) {
  Configure(world_, 16);
  FileHandle& file = Begin("file", 16);
  FileHandle& other = Begin("other", 16);
  for (std::uint64_t page = 0; page < 16; ++page) ReadPage(other, page);
  world_.script.Hold({vesk::kFaultRead});
  Task reader([&] { EXPECT_EQ(FileWorld::Read(file, 0, 4 * kPage).size(), 4 * kPage); });
  world_.script.AwaitHeld(4);
  EXPECT_FALSE(reader.Ended());
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
}

// There is memory for one of the two.
TEST_F(MemoryTest, AReadOfSeveralBlocksBeginsWithOneWhereThereIsNoMemoryForMore) {
  Configure(world_, 8);
  FileHandle& file = Begin("file", 8);
  FileHandle& other = Begin("other", 8);
  world_.script.Hold({vesk::kFaultRead});
  other.Advise(Advice::kWillNeed, 0, 7 * kPage);
  EXPECT_EQ(world_.script.held(), 7u);
  Task reader([&] { EXPECT_EQ(FileWorld::Read(file, 0, 2 * kPage).size(), 2 * kPage); });
  world_.script.AwaitHeld(8);
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
}

TEST_F(MemoryTest, DirtyBlocksAndThoseInFlightNeverGo) {
  Configure(world_, 4);
  FileHandle& file = Begin("file", 64);
  HoldWrites();
  FileWorld::Write(file, PageOf('d'), 0);
  EXPECT_TRUE(file.Flush().ok());  // in flight
  world_.script.AwaitHeld(1);
  FileWorld::Write(file, PageOf('e'), kPage);  // dirty
  for (std::uint64_t page = 2; page < 64; ++page) ReadPage(file, page);
  const std::uint64_t before = reads();
  EXPECT_TRUE(FileWorld::Read(file, 0, kPage) == PageOf('d'));
  EXPECT_TRUE(FileWorld::Read(file, kPage, kPage) == PageOf('e'));
  EXPECT_EQ(reads(), before);
  EXPECT_EQ(file.GetStats().dirty, 2u * kPage);
  world_.script.Heal();
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(world_.Stored("file").substr(0, 2 * kPage) == PageOf('d') + PageOf('e'));
}

// A reader has a window of eight blocks; then all but three blocks of the memory are unsaved.
TEST_F(MemoryTest, ReadAheadShrinksBeforeAnybodyWaits) {
  constexpr std::uint64_t kPages = 32;
  Configure(world_, kPages);
  world_.options.read_ahead = 8;
  world_.options.dirty_soft = world_.options.dirty_hard = kPages * kPage;
  FileHandle& reader = Begin("reader", 200);
  FileHandle& writer = Begin("writer", 64);
  ReadPage(reader, 0);
  EXPECT_EQ(reader.GetStats().window, 8u * kPage);
  HoldWrites();
  // Half of the memory: the soft limit is never above that. The rest is read into, by the writer's
  // handle, and in flight.
  for (std::uint64_t page = 0; page < kPages / 2; ++page) {
    FileWorld::Write(writer, PageOf('x'), page * kPage);
  }
  EXPECT_TRUE(writer.Flush().ok());
  world_.script.Hold({vesk::kFaultRead, "writer", 0, ~std::uint64_t{0}});
  writer.Advise(Advice::kWillNeed, 40 * kPage, (kPages / 2 - 3) * kPage);
  EXPECT_GE(world_.files().GetStats().in_flight, (kPages - 3) * kPage);
  // The least on the way: near the end of the file everything fits, and the window may grow again.
  std::uint64_t window = 8u * kPage;
  Task task([&] {
    for (std::uint64_t page = 1; page < 200; ++page) {
      ReadPage(reader, page);
      window = std::min(window, reader.GetStats().window);
    }
  });
  EXPECT_TRUE(task.Await()) << "the reader waits for memory that its window holds";
  EXPECT_LE(window, 3u * kPage) << "more than what is free";
  EXPECT_LE(world_.files().memory_peak(), kPages * kPage);
  world_.script.Heal();
}

// At once, not only when it misses what could not be fetched ahead.
TEST_F(MemoryTest, AWindowThatFindsTooLittleMemoryIsSmallerAtOnce) {
  constexpr std::uint64_t kPages = 32;
  Configure(world_, kPages);
  world_.options.read_ahead = 8;
  world_.options.dirty_soft = world_.options.dirty_hard = kPages * kPage;
  FileHandle& file = Begin("file", 200);
  FileHandle& other = Begin("other", 200);
  HoldWrites();
  ReadPage(file, 0);
  EXPECT_EQ(file.GetStats().window, 8u * kPage);
  // What was fetched ahead is dirty, the rest of the memory in flight: only the first page can go.
  for (std::uint64_t page = 1; page <= 8; ++page) FileWorld::Write(file, PageOf('x'), page * kPage);
  world_.script.Hold({vesk::kFaultRead, "other"});
  other.Advise(Advice::kWillNeed, 0, kPages * kPage - world_.files().memory_used());
  EXPECT_EQ(world_.files().memory_used(), kPages * kPage);
  const std::uint64_t misses = file.GetStats().misses;
  for (std::uint64_t page = 1; page <= 8; ++page) ReadPage(file, page);
  EXPECT_EQ(file.GetStats().misses, misses);
  EXPECT_LT(file.GetStats().window, 8u * kPage);
  world_.script.Heal();
}

// Its blocks are evicted for the other one, and its ranges given up, while it goes.
TEST_F(MemoryTest, AFileMayCloseWhileAnotherOneTakesItsMemory) {
  constexpr std::uint64_t kPages = 48;
  Configure(world_, kPages);
  FileHandle& other = Begin("other", 200);
  const std::string content = FileWorld::Content(40 * kPage);
  world_.Put("file", content);
  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> read{0};
  Task reader([&] {
    while (!done) ReadPage(other, read++ * 7 % 200);
  });
  std::uint64_t rounds = 0;
  const auto end = std::chrono::steady_clock::now() + milliseconds(700);
  while (rounds < 3 || read <= 200 || std::chrono::steady_clock::now() < end) {
    std::unique_ptr<FileHandle> file;
    ASSERT_TRUE(world_.files().Open("file", FileWorld::Writing(), &file).ok());
    EXPECT_TRUE(FileWorld::Read(*file, 0, content.size()) == content);
    FileWorld::Write(*file, content.substr(rounds % 40 * kPage, kPage), rounds % 40 * kPage);
    EXPECT_TRUE(file->Close().ok());
    ++rounds;
  }
  done = true;
  EXPECT_TRUE(reader.Await());
  EXPECT_LE(world_.files().memory_peak(), kPages * kPage);
  EXPECT_TRUE(other.Close().ok());
  EXPECT_EQ(world_.files().memory_used(), 0u);
  EXPECT_TRUE(world_.files().GetFiles().empty());
  EXPECT_TRUE(world_.Stored("file") == content);
}

// ---- limits for unsaved bytes ----

class DirtyTest : public ::testing::Test {
 protected:
  DirtyTest() {
    Configure(world_, 64);
    world_.options.dirty_soft = 4 * kPage;
    world_.options.dirty_hard = 8 * kPage;
    world_.options.dirty_age = seconds(5);
  }

  FileHandle& Begin(const std::string& name) {
    world_.Put(name, "");
    return world_.Open(name);
  }
  void HoldWrites() { world_.script.Hold({vesk::kFaultWrite, "", 0, ~std::uint64_t{0}}); }

  ManualClock clock_;
  FileWorld world_{FileWorld::Kind::kMemoryNoRetry, clock_};
};

TEST_F(DirtyTest, WritersAreSlowedDownAboveTheSoftLimit) {
  FileHandle& file = Begin("file");
  HoldWrites();
  for (std::uint64_t page = 0; page < 4; ++page) FileWorld::Write(file, PageOf('x'), page * kPage);
  EXPECT_EQ(world_.files().GetStats().throttled, 0u);
  FileWorld::Write(file, PageOf('y'), 3 * kPage);  // no more of them than before
  EXPECT_EQ(world_.files().GetStats().throttled, 0u);

  // The pause is none at the soft limit itself, and grows.
  clock_.Advance(milliseconds(1));
  FileWorld::Write(file, PageOf('x'), 4 * kPage);
  Task writer([&] { FileWorld::Write(file, PageOf('x'), 5 * kPage); });
  clock_.AwaitWaiters(1);
  EXPECT_FALSE(writer.Ended());
  clock_.Advance(vesk::DirtyLimit::kLongestPause);
  EXPECT_TRUE(writer.Await()) << "between the limits it is slowed down, not stopped";
  const FileStats stats = world_.files().GetStats();
  EXPECT_EQ(stats.throttled, 2u);
  EXPECT_EQ(stats.throttled_time, vesk::DirtyLimit::kLongestPause);
  EXPECT_EQ(stats.dirty, 6u * kPage);
  EXPECT_GE(world_.script.held(), 1u) << "writing out has begun";
}

TEST_F(DirtyTest, AWriteCountsForNoMoreThanItMakesDirty) {
  world_.options.dirty_soft = 3 * kPage + 200;
  FileHandle& file = Begin("file");
  HoldWrites();
  for (std::uint64_t page = 0; page < 3; ++page) FileWorld::Write(file, PageOf('x'), page * kPage);
  FileWorld::Write(file, std::string(100, 'y'), 4 * kPage);
  FileWorld::Write(file, std::string(100, 'y'), 4 * kPage + 100);
  EXPECT_EQ(file.GetStats().dirty, 3u * kPage + 200);
  EXPECT_EQ(world_.files().GetStats().throttled, 0u);
}

TEST_F(DirtyTest, WritersWaitAtTheHardLimitUntilBytesAreStored) {
  FileHandle& file = Begin("file");
  HoldWrites();
  std::atomic<unsigned> written{0};
  Task writer([&] {
    for (std::uint64_t page = 0; page < 12; ++page) {
      FileWorld::Write(file, PageOf('x'), page * kPage);
      ++written;
    }
  });
  // Eight of them with pauses, then it is stopped, for any length of time.
  for (unsigned i = 0; i < 40; ++i) {
    clock_.AwaitWaiters(1);
    EXPECT_FALSE(writer.Ended());
    clock_.Advance(vesk::DirtyLimit::kLongestPause);
    if (!FileWorld::Await([&] { return written >= std::min(8u, 5 + i); })) break;
  }
  EXPECT_EQ(written, 8u);
  EXPECT_EQ(world_.files().GetStats().dirty, 8u * kPage);
  EXPECT_FALSE(writer.Ended());
  world_.script.Heal();
  for (unsigned i = 0; i < 20 && !writer.Ended(); ++i) {
    clock_.Advance(vesk::DirtyLimit::kLongestPause);
    (void)FileWorld::Await(
        [&, before = written.load()] { return writer.Ended() || written > before; });
  }
  EXPECT_TRUE(writer.Await());
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(world_.Stored("file"), std::string(12 * kPage, 'x'));
}

TEST_F(DirtyTest, WhereNothingIsOnItsWayTheSoftLimitWritesOutTheNewestBytesAsWell) {
  FileHandle& file = Begin("file");
  // Towards the beginning of the file: a write that passes a dirty block would ship it.
  for (std::uint64_t page = 4; page > 0; --page) FileWorld::Write(file, PageOf('x'), page * kPage);
  EXPECT_EQ(world_.script.Count(vesk::kFaultWrite), 0u);
  FileWorld::Write(file, PageOf('y'), 0);  // at the soft limit itself: no pause
  EXPECT_GT(world_.script.Count(vesk::kFaultWrite), 0u);
}

// Towards the beginning of the file, as above.
TEST_F(DirtyTest, TheSoftLimitLeavesNewBytesToTheirWriterWhileOthersAreOnTheirWay) {
  FileHandle& file = Begin("file");
  HoldWrites();
  FileWorld::Write(file, PageOf('x'), 20 * kPage);
  EXPECT_TRUE(file.Flush().ok());
  for (std::uint64_t page = 19; page > 16; --page)
    FileWorld::Write(file, PageOf('x'), page * kPage);
  FileWorld::Write(file, PageOf('x'), 16 * kPage);  // at the soft limit itself: no pause
  EXPECT_EQ(world_.script.held(), 1u);
  clock_.Advance(milliseconds(30));
  Task writer([&] { FileWorld::Write(file, PageOf('x'), 15 * kPage); });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(world_.script.held(), 5u) << "they are not new any more";
  clock_.Advance(vesk::DirtyLimit::kLongestPause);
  EXPECT_TRUE(writer.Await());
  EXPECT_EQ(world_.script.held(), 5u);
  world_.script.Heal();
}

TEST_F(DirtyTest, TheHardLimitWritesOutTheNewestBytesAsWell) {
  world_.options.dirty_soft = world_.options.dirty_hard;
  FileHandle& file = Begin("file");
  HoldWrites();
  FileWorld::Write(file, PageOf('x'), 20 * kPage);
  EXPECT_TRUE(file.Flush().ok());
  for (std::uint64_t page = 19; page > 12; --page)
    FileWorld::Write(file, PageOf('x'), page * kPage);
  EXPECT_EQ(world_.script.held(), 1u);
  Task writer([&] { FileWorld::Write(file, PageOf('x'), 12 * kPage); });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(world_.script.held(), 8u);
  world_.script.Heal();
  ASSERT_TRUE(FileWorld::Await([&] {
    clock_.Advance(vesk::DirtyLimit::kLongestPause);
    return writer.Ended();
  }));
}

TEST_F(DirtyTest, AWriterAtTheHardLimitEndsWithItsDeadlineAndLosesNothing) {
  world_.options.dirty_soft = world_.options.dirty_hard;
  FileHandle& file = Begin("file");
  HoldWrites();
  for (std::uint64_t page = 0; page < 8; ++page) FileWorld::Write(file, PageOf('x'), page * kPage);
  Task writer([&] {
    const vesk::RequestScope scope(world_.In(seconds(3)));
    FileWorld::Write(file, PageOf('y'), 8 * kPage, ETIMEDOUT);
  });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(world_.files().memory_used(), 8 * kPage) << "others could use what it holds";
  clock_.Advance(seconds(2));
  EXPECT_FALSE(writer.Ended());
  clock_.Advance(seconds(1));
  EXPECT_TRUE(writer.Await());
  Task cancelled([&] { FileWorld::Write(file, PageOf('y'), 8 * kPage, ECANCELED); });
  clock_.AwaitWaiters(1);
  cancelled.Cancel();
  EXPECT_TRUE(cancelled.Await());
  world_.script.Heal();
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(world_.Stored("file"), std::string(8 * kPage, 'x'));
}

// A single write larger than all limits is not refused and does not hang.
TEST_F(DirtyTest, AWriteLargerThanTheLimitsIsServedPieceByPiece) {
  world_.options.memory = 8 * kPage;
  FileHandle& file = Begin("file");
  const std::string bytes = FileWorld::Content(100 * kPage + 5);
  Task writer([&] { FileWorld::Write(file, bytes, 3); });
  ASSERT_TRUE(FileWorld::Await([&] {
    clock_.Advance(vesk::DirtyLimit::kLongestPause);
    return writer.Ended();
  }));
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(world_.Stored("file") == std::string(3, '\0') + bytes);
  EXPECT_LE(world_.files().memory_peak(), 8u * kPage);
}

TEST_F(DirtyTest, OldBytesOfAllFilesAreWrittenInParallelInTheBackground) {
  FileHandle& a = Begin("a");
  FileHandle& b = Begin("b");
  FileHandle& c = Begin("c");
  HoldWrites();
  FileWorld::Write(a, PageOf('a'), 0);
  clock_.Advance(seconds(1));
  FileWorld::Write(b, PageOf('b'), 0);
  EXPECT_EQ(world_.files().GetStats().oldest_dirty, seconds(1));
  clock_.Advance(seconds(3));
  world_.files().Tend();
  EXPECT_EQ(world_.script.held(), 0u) << "nothing is older than the limit";
  clock_.Advance(seconds(1) + milliseconds(1));
  world_.files().Tend();
  EXPECT_EQ(world_.script.held(), 1u) << "the one of the first file alone";
  clock_.Advance(seconds(1));
  FileWorld::Write(c, PageOf('c'), 0);
  world_.files().Tend();
  EXPECT_EQ(world_.script.held(), 2u) << "while the first one has not ended yet";
  EXPECT_EQ(c.GetStats().in_flight, 0u);
  EXPECT_EQ(c.GetStats().oldest_dirty, seconds(0));
  EXPECT_EQ(a.GetStats().oldest_dirty, seconds(6) + milliseconds(1));
  world_.script.Heal();
  ASSERT_TRUE(FileWorld::Await([&] { return world_.files().GetStats().dirty == kPage; }));
  EXPECT_EQ(world_.Stored("a"), PageOf('a'));
  EXPECT_EQ(world_.Stored("b"), PageOf('b'));
  EXPECT_EQ(world_.Stored("c"), "");
}

TEST_F(DirtyTest, AboveTheSoftLimitYoungBytesAreWrittenInTheBackgroundAsWell) {
  FileHandle& file = Begin("file");
  FileHandle& young = Begin("young");
  HoldWrites();
  for (std::uint64_t page = 0; page < 4; ++page) FileWorld::Write(file, PageOf('x'), page * kPage);
  FileWorld::Write(young, PageOf('y'), 0);
  EXPECT_EQ(young.GetStats().in_flight, 0u);
  clock_.Advance(seconds(1));
  world_.files().Tend();
  EXPECT_EQ(young.GetStats().in_flight, kPage);
}

// Bytes that are written again and again do not stay young.
TEST_F(DirtyTest, TheAgeOfDirtyBytesIsThatOfTheFirstWrite) {
  FileHandle& file = Begin("file");
  HoldWrites();
  for (unsigned i = 0; i < 6; ++i) {
    FileWorld::Write(file, PageOf('a'), 0);
    clock_.Advance(seconds(1));
  }
  EXPECT_EQ(file.GetStats().oldest_dirty, seconds(6));
  EXPECT_EQ(Begin("clean").GetStats().oldest_dirty, seconds(0));
  world_.files().Tend();
  EXPECT_EQ(world_.script.held(), 1u);
}

// There is memory for one block. The writer gets it when the other one, who appends, has the turn
// and waits for it.
TEST_F(DirtyTest, AWriterWhoIsKeptOutHoldsNoMemory) {
  world_.options.memory = kPage;
  world_.Put("file", PageOf('-'));
  world_.Put("other", PageOf('-'));
  FileHandle& file = world_.Open("file");
  FileHandle& other = world_.Open("other");
  world_.script.Hold({vesk::kFaultRead});
  other.Advise(Advice::kWillNeed, 0, kPage);
  EXPECT_EQ(world_.files().memory_used(), kPage);
  Task writer([&] { FileWorld::Write(file, PageOf('w'), 0); });
  clock_.AwaitWaiters(1);
  Task appender([&] {
    const std::string bytes = PageOf('a');
    EXPECT_EQ(file.Append(bytes.data(), bytes.size()).error(), 0);
  });
  clock_.AwaitWaiters(2);
  world_.script.Heal();
  EXPECT_TRUE(appender.Await());
  EXPECT_TRUE(writer.Await());
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(world_.Stored("file") == PageOf('w') + PageOf('a'));
  EXPECT_EQ(file.GetStats().repeats, 1u) << "it was kept out once";
}

// There is memory for two blocks. A reader gets one and fetches the page with it that the writer
// wants to write, who gets the other one.
TEST_F(DirtyTest, AWriterWhoWaitsForAFetchHoldsNothing) {
  world_.options.memory = 2 * kPage;
  world_.options.dirty_soft = world_.options.dirty_hard = kPage;
  for (const char* const name : {"file", "other", "third"})
    world_.Put(name, PageOf('-') + PageOf('-'));
  FileHandle& file = world_.Open("file");
  FileHandle& other = world_.Open("other");
  FileHandle& third = world_.Open("third");
  world_.script.Hold({vesk::kFaultRead});
  other.Advise(Advice::kWillNeed, 0, 2 * kPage);
  Task reader([&] { EXPECT_TRUE(FileWorld::Read(file, 0, kPage).size() == kPage); });
  clock_.AwaitWaiters(1);
  Task writer([&] { FileWorld::Write(file, PageOf('w'), 0); });
  clock_.AwaitWaiters(2);
  world_.script.EndOne(0, 0);
  world_.script.AwaitHeld(2);  // the reader's is the second one
  world_.script.EndOne(0, 0);
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().cached == kPage; }));
  EXPECT_TRUE(FileWorld::Await([&] { return other.GetStats().cached == 0; }))
      << "the writer has not got its memory";
  EXPECT_TRUE(FileWorld::Await([&] { return world_.files().memory_used() == kPage; }))
      << "the writer keeps what it cannot use yet";
  {
    Task another([&] { FileWorld::Write(third, PageOf('t'), 0); });
    EXPECT_TRUE(another.Await()) << "the writer keeps room among the unsaved bytes";
  }
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
  EXPECT_TRUE(writer.Await());
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(third.Sync().ok());
  EXPECT_TRUE(world_.Stored("file") == PageOf('w') + PageOf('-'));
}

// It has passed its own look at the file before the truncation came to nothing, as far as anybody
// knows.
TEST_F(DirtyTest, AWriterWaitsForATruncationThatHasOutlivedItsRequest) {
  world_.Put("file", std::string(4 * kPage, '-'));
  FileHandle& file = world_.Open("file");
  for (unsigned i = 0; i < 2; ++i) EXPECT_EQ(FileWorld::Read(file, 20, 5), "-----");
  world_.script.Hold({vesk::kFaultTruncate});
  Task truncating([&] { EXPECT_EQ(file.Truncate(10).error(), ECANCELED); });
  world_.script.AwaitHeld(1);
  clock_.AwaitWaiters(1);
  Task writer([&] { FileWorld::Write(file, "written", kPage); });
  clock_.AwaitWaiters(2);
  Task reader([&] {  // before the writer or after it
    EXPECT_EQ(FileWorld::Read(file, 20, 5).find('-'), std::string::npos);
  });
  clock_.AwaitWaiters(3);
  EXPECT_FALSE(reader.Ended()) << "it has read what is being cut off";
  truncating.Cancel();
  EXPECT_TRUE(truncating.Await());
  std::this_thread::sleep_for(milliseconds(20));  // for a write that should not take place yet
  EXPECT_FALSE(writer.Ended()) << "what it has written may be cut off";
  world_.script.Heal();
  EXPECT_TRUE(writer.Await());
  EXPECT_TRUE(reader.Await());
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(world_.Stored("file") ==
              std::string(10, '-') + std::string(kPage - 10, '\0') + "written");
}

// ---- what is told ----

TEST_F(MemoryTest, SumsAreThoseOfTheFilesAndTheBudget) {
  Configure(world_, 64);
  FileHandle& a = Begin("a", 10);
  FileHandle& b = Begin("b", 20);
  HoldWrites();
  for (std::uint64_t page = 0; page < 10; ++page) ReadPage(a, page);
  for (std::uint64_t page = 0; page < 5; ++page) ReadPage(b, page);
  ReadPage(b, 1);
  FileWorld::Write(a, PageOf('x'), 3 * kPage);
  FileWorld::Write(b, PageOf('x'), 2 * kPage);
  FileWorld::Write(b, "short", 30 * kPage);
  EXPECT_TRUE(b.Flush().ok());
  const FileStats all = world_.files().GetStats();
  FileStats sum;
  for (const FileStats& file : world_.files().GetFiles()) {
    sum.size += file.size;
    sum.cached += file.cached;
    sum.dirty += file.dirty;
    sum.in_flight += file.in_flight;
    sum.hits += file.hits;
    sum.misses += file.misses;
    sum.fetched += file.fetched;
    sum.returned += file.returned;
    sum.streams += file.streams;
  }
  EXPECT_EQ(all.size, sum.size);
  EXPECT_EQ(all.cached, sum.cached);
  EXPECT_EQ(all.dirty, sum.dirty);
  EXPECT_EQ(all.in_flight, sum.in_flight);
  EXPECT_EQ(all.hits, sum.hits);
  EXPECT_EQ(all.misses, sum.misses);
  EXPECT_EQ(all.fetched, sum.fetched);
  EXPECT_EQ(all.returned, sum.returned);
  EXPECT_EQ(all.streams, sum.streams);

  EXPECT_EQ(all.cached, world_.files().memory_used());
  EXPECT_EQ(a.GetStats().cached, 10u * kPage);
  EXPECT_EQ(a.GetStats().dirty, kPage);
  EXPECT_EQ(a.GetStats().in_flight, 0u);
  EXPECT_EQ(b.GetStats().dirty, kPage + 5u);
  EXPECT_EQ(b.GetStats().cached, 6u * kPage);
  EXPECT_EQ(b.GetStats().size, 30u * kPage + 5u);
  EXPECT_EQ(a.GetStats().misses, 10u);
  EXPECT_EQ(b.GetStats().misses, 5u);
  EXPECT_EQ(a.GetStats().returned, 10u * kPage);
  EXPECT_EQ(b.GetStats().returned, 6u * kPage);
  EXPECT_EQ(all.fetched, 15u * kPage);
  world_.script.Heal();
}

TEST_F(MemoryTest, NothingIsLeftAfterTheLastClose) {
  Configure(world_, 64);
  FileHandle& a = Begin("a", 40);
  FileHandle& again = world_.Open("a");
  FileHandle& b = Begin("b", 40);
  for (std::uint64_t page = 0; page < 40; ++page) {
    ReadPage(a, page);
    FileWorld::Write(b, PageOf('b'), page * kPage);
  }
  FileWorld::Write(again, PageOf('z'), kPage);
  EXPECT_TRUE(a.Close().ok());
  EXPECT_GT(world_.files().memory_used(), 0u);
  EXPECT_TRUE(b.Close().ok());
  EXPECT_TRUE(again.Close().ok());
  EXPECT_EQ(world_.files().memory_used(), 0u);
  const FileStats all = world_.files().GetStats();
  EXPECT_EQ(all.cached, 0u);
  EXPECT_EQ(all.dirty, 0u);
  EXPECT_EQ(all.in_flight, 0u);
  EXPECT_TRUE(world_.files().GetFiles().empty());
  EXPECT_TRUE(world_.Stored("a").substr(kPage, kPage) == PageOf('z'));
  EXPECT_TRUE(world_.Stored("b") == std::string(40 * kPage, 'b'));
}

}  // namespace
}  // namespace vesk_test

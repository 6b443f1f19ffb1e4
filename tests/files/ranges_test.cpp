// How a file is divided into ranges, and that nobody notices.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "files/range.h"
#include "runtime/random.h"
#include "tests/files/file_world.h"
#include "tests/support/allocation.h"
#include "tests/support/null_logger.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using vesk::Advice;
using vesk::FileHandle;
using vesk::Range;

constexpr unsigned kPage = 4096;

class RangesTest : public ::testing::Test {
 protected:
  RangesTest() {
    world_.options.block_size = kPage;
    world_.options.memory = std::uint64_t{1024} * kPage;
    world_.options.read_ahead = 0;
  }

  FileHandle& Begin(std::size_t pages) {
    content_ = FileWorld::Content(pages * kPage, 3);
    world_.Put("file", content_);
    return world_.Open("file");
  }

  void ExpectRead(FileHandle& file, std::uint64_t offset, std::size_t length) {
    ASSERT_TRUE(FileWorld::Read(file, offset, length) == content_.substr(offset, length))
        << "wrong bytes at " << offset << ", length " << length;
  }
  void ReadPages(FileHandle& file, std::uint64_t from, std::uint64_t to) {
    for (std::uint64_t page = from; page < to; ++page) ExpectRead(file, page * kPage, kPage);
  }

  // Writes, and notes what the file has to be.
  void Write(FileHandle& file, std::uint64_t offset, std::size_t length, char byte) {
    const std::string bytes(length, byte);
    if (content_.size() < offset + length) content_.resize(offset + length);
    content_.replace(offset, length, bytes);
    FileWorld::Write(file, bytes, offset);
  }

  // What is read, what is stored, and the account agree with what was noted.
  void ExpectWhole(FileHandle& file) {
    EXPECT_EQ(file.Size(), content_.size());
    EXPECT_TRUE(FileWorld::Read(file, 0, content_.size() + 1) == content_);
    EXPECT_TRUE(file.Sync().ok());
    EXPECT_TRUE(world_.Stored("file") == content_);
    EXPECT_EQ(file.GetStats().dirty, 0u);
    EXPECT_EQ(file.GetStats().cached, world_.files().memory_used());
    EXPECT_FALSE(file.Broken());
  }

  FileWorld world_;
  std::string content_;
};

TEST_F(RangesTest, WhatARangeHasCountedOutlivesIt) {
  world_.options.memory = 32 * kPage;
  FileHandle& file = Begin(200);
  for (std::uint64_t page = 0; page < 200; ++page) {
    ReadPages(file, page, page + 1);
    ReadPages(file, page, page + 1);
  }
  EXPECT_LE(file.GetStats().streams, 5u);
  EXPECT_EQ(file.GetStats().misses, 200u);
  EXPECT_EQ(file.GetStats().hits, 200u);
  EXPECT_EQ(file.GetStats().returned, 400 * kPage);
}

// The first one has to be fetched, the second one is there, in the next range.
TEST_F(RangesTest, EachPartOfARequestIsCountedForItself) {
  FileHandle& file = Begin(40);
  ReadPages(file, 0, 40);
  constexpr std::uint64_t kLast = Range::kMaxBlocks - 1;
  file.Advise(Advice::kDontNeed, kLast * kPage, kPage);
  const vesk::FileStats before = file.GetStats();
  ExpectRead(file, kLast * kPage, 2 * kPage);
  EXPECT_EQ(file.GetStats().misses - before.misses, 1u);
  EXPECT_EQ(file.GetStats().hits - before.hits, 1u);
}

TEST_F(RangesTest, AFileIsDividedAsItsBlocksGrow) {
  constexpr std::size_t kPages = 200;
  FileHandle& file = Begin(kPages);
  ReadPages(file, 0, Range::kMaxBlocks);
  EXPECT_EQ(file.GetStats().streams, 1u);
  ReadPages(file, Range::kMaxBlocks, kPages);
  EXPECT_GE(file.GetStats().streams, kPages / Range::kMaxBlocks);
  EXPECT_LE(file.GetStats().streams, kPages / 4);
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  EXPECT_EQ(reads, kPages);
  ReadPages(file, 0, kPages);
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), reads) << "a block was lost";
  ExpectWhole(file);
}

TEST_F(RangesTest, AFileIsDividedHoweverItIsReadAndWritten) {
  FileHandle& file = Begin(100);
  for (std::uint64_t page = 100; page-- > 0;) ExpectRead(file, page * kPage, kPage);
  EXPECT_GE(file.GetStats().streams, 4u) << "read backwards";
  ExpectWhole(file);

  FileHandle& other = world_.Open("other");
  for (std::uint64_t page = 0; page < 100; ++page) {
    FileWorld::Write(other, std::string(kPage, 'o'), page * 7 % 100 * kPage);
  }
  EXPECT_GE(other.GetStats().streams, 4u) << "written";
  EXPECT_TRUE(other.Sync().ok());
  EXPECT_TRUE(world_.Stored("other") == std::string(std::size_t{100} * kPage, 'o'));
}

TEST_F(RangesTest, RequestsAcrossBoundariesAreOneRequest) {
  FileHandle& file = Begin(100);
  ReadPages(file, 0, 100);
  ASSERT_GE(file.GetStats().streams, 5u);
  vesk::Random random(5);
  for (unsigned i = 0; i < 200; ++i) {
    const std::uint64_t offset = random.Next() % (99 * kPage);
    const std::size_t length =
        std::min<std::size_t>(1 + random.Next() % (40 * kPage), 100 * kPage - offset);
    if (i % 2 == 0) {
      Write(file, offset, length, static_cast<char>('a' + i % 26));
    } else {
      ExpectRead(file, offset, length);
    }
  }
  Write(file, 10, std::size_t{120} * kPage, 'z');  // across all of them, and beyond the last
  ExpectWhole(file);
}

// Fetches that fail after their blocks have gone to another range.
TEST_F(RangesTest, ASplitWhileReadsAreInFlightThatFail) {
  FileHandle& file = Begin(80);
  world_.script.Hold({vesk::kFaultRead, "", 0, ~std::uint64_t{0}});
  file.Advise(Advice::kWillNeed, std::uint64_t{70} * kPage, kPage);
  for (std::uint64_t page = 0; page < 40; page += 2) {
    file.Advise(Advice::kWillNeed, (page + 1) * kPage, kPage);
    Write(file, page * kPage, kPage, 'w');
  }
  EXPECT_GT(file.GetStats().streams, 1u);
  world_.script.EndHeld(EINVAL);
  world_.script.Heal();
  ExpectWhole(file);
}

// Closed while fetches are under way: their streams stay until they have ended.
TEST_F(RangesTest, AFileWithReadsInFlightInSeveralRangesCanBeClosed) {
  FileHandle& file = Begin(100);
  world_.script.Hold({vesk::kFaultRead, "", 0, ~std::uint64_t{0}});
  file.Advise(Advice::kWillNeed, 0, std::uint64_t{100} * kPage);
  EXPECT_EQ(world_.script.held(), 100u);
  EXPECT_GE(file.GetStats().streams, 6u);
  {
    const vesk::RequestScope scope(world_.In(std::chrono::milliseconds(20)));
    EXPECT_EQ(file.Close().error(), ETIMEDOUT);
  }
  Task closer([&] { EXPECT_TRUE(file.Close().ok()); });
  while (world_.script.held() > 0) {
    world_.script.EndOne(static_cast<int>(world_.script.held() / 2), 0);
  }
  EXPECT_TRUE(closer.Await());
  EXPECT_EQ(world_.files().memory_used(), 0u);
}

// The stream hands no block on that is being read, so all of them from the middle on being read it
// refuses.
TEST_F(RangesTest, ARefusedSplitIsTriedAgainLater) {
  FileHandle& file = Begin(120);
  world_.script.Hold({vesk::kFaultRead, "", 0, ~std::uint64_t{0}});
  file.Advise(Advice::kWillNeed, std::uint64_t{100} * kPage, kPage);
  for (std::uint64_t page = 20; page < 60; ++page) {
    file.Advise(Advice::kWillNeed, page * kPage, kPage);
  }
  EXPECT_EQ(world_.script.held(), 41u);
  Write(file, 0, kPage, 'a');
  Write(file, 2 * kPage, kPage, 'b');
  EXPECT_EQ(file.GetStats().streams, 1u);
  EXPECT_FALSE(file.Broken());
  const long before = LiveAllocations();
  for (unsigned i = 0; i < 100; ++i) Write(file, 2 * kPage, kPage, 'b');
  EXPECT_LE(LiveAllocations(), before + 50) << "each refusal leaves something behind";
  world_.script.Heal();
  ASSERT_TRUE(FileWorld::Await([&] { return file.GetStats().in_flight == 0; }));
  for (std::uint64_t page = 3; page < 10; ++page) Write(file, page * kPage, kPage, 'c');
  EXPECT_GT(file.GetStats().streams, 1u);
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  ReadPages(file, 20, 60);
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), reads);
  ExpectWhole(file);
}

TEST_F(RangesTest, TruncateReachesEveryRange) {
  for (const std::uint64_t size : {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{10} * kPage,
                                   std::uint64_t{40} * kPage + 1, std::uint64_t{77} * kPage + 4095,
                                   std::uint64_t{100} * kPage, std::uint64_t{130} * kPage + 7}) {
    FileHandle& file = Begin(100);
    ReadPages(file, 0, 100);
    Write(file, std::uint64_t{30} * kPage + 100, std::size_t{20} * kPage, 'd');
    Write(file, std::uint64_t{95} * kPage, 10, 'e');
    ASSERT_GE(file.GetStats().streams, 5u);
    EXPECT_TRUE(file.Truncate(size).ok());
    content_.resize(size);
    EXPECT_EQ(file.Size(), size);
    ExpectWhole(file);
    EXPECT_TRUE(file.Truncate(std::uint64_t{110} * kPage).ok());  // what was cut off is gone
    content_.resize(std::size_t{110} * kPage);
    ExpectWhole(file);
    Write(file, std::uint64_t{60} * kPage + 5, 3 * kPage, 'f');
    ExpectWhole(file);
    EXPECT_TRUE(file.Close().ok());
    EXPECT_EQ(world_.files().memory_used(), 0u);
  }
}

TEST_F(RangesTest, ATruncateKeepsWhatItLeaves) {
  FileHandle& file = Begin(40);
  ReadPages(file, 0, 40);
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  EXPECT_TRUE(file.Truncate(30 * kPage).ok());
  ReadPages(file, 0, 30);
  EXPECT_LE(world_.script.Count(vesk::kFaultRead), reads + 1) << "but for the last block";
}

// The other file's reads take its memory while the store cuts it, or fails to.
TEST_F(RangesTest, ATruncateThatMeetsRangesThatAreGoneByThen) {
  world_.options.memory = 64 * kPage;
  world_.Put("other", FileWorld::Content(64 * kPage));
  FileHandle& other = world_.Open("other");
  for (const int error : {0, EPERM}) {
    FileHandle& file = Begin(60);
    ReadPages(file, 0, 60);
    ASSERT_GE(file.GetStats().streams, 4u);
    world_.script.Hold({vesk::kFaultTruncate});
    Task cutting([&] { EXPECT_EQ(file.Truncate(10 * kPage).error(), error); });
    world_.script.AwaitHeld(1);
    EXPECT_EQ(FileWorld::Read(other, 0, 64 * kPage).size(), 64 * kPage);
    EXPECT_EQ(file.GetStats().cached, 0u);
    EXPECT_EQ(file.GetStats().streams, 1u);
    if (error != 0) world_.script.EndHeld(error);
    world_.script.Heal();
    EXPECT_TRUE(cutting.Await());
    if (error == 0) content_.resize(10 * kPage);
    other.Advise(Advice::kDontNeed, 0, 64 * kPage);
    ExpectWhole(file);
    EXPECT_TRUE(file.Close().ok());
  }
}

TEST_F(RangesTest, AReaderWhoHasGoneThroughALargeFileLeavesFewRanges) {
  constexpr std::uint64_t kPages = 2000;
  world_.options.memory = std::uint64_t{32} * kPage;
  world_.options.read_ahead = 8;
  FileHandle& file = Begin(kPages);
  std::uint64_t most = 0;
  long left = 0;
  for (unsigned round = 0; round < 2; ++round) {
    const long before = LiveAllocations();
    for (std::uint64_t page = 0; page < kPages; ++page) {
      ExpectRead(file, page * kPage, kPage);
      if (page % 16 == 0) most = std::max(most, file.GetStats().streams);
    }
    left = LiveAllocations() - before;
  }
  EXPECT_LE(left, 100) << "the second round has met everything that the first one needed";
  EXPECT_LE(most, 8u) << "32 blocks are in memory at most";
  for (std::uint64_t page = kPages; page-- > 0;) {
    ExpectRead(file, page * kPage, kPage);
    if (page % 16 == 0) most = std::max(most, file.GetStats().streams);
  }
  EXPECT_LE(most, 16u) << "backwards";
  EXPECT_EQ(file.GetStats().returned, 3 * kPages * kPage) << "counts of ranges that are gone";
}

TEST_F(RangesTest, AWriterWhoHasGoneThroughALargeFileLeavesFewRanges) {
  constexpr std::uint64_t kPages = 2000;
  world_.options.memory = std::uint64_t{32} * kPage;
  FileHandle& file = Begin(0);
  for (std::uint64_t page = 0; page < kPages; ++page) {
    Write(file, page * kPage, kPage, static_cast<char>('a' + page % 26));
  }
  EXPECT_LE(file.GetStats().streams, 34u);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(world_.Stored("file") == content_);
}

// Whoever logs holds the lock of a stream. One thread is kept there, at that site or at any.
class StoppingLogger : public NullLogger {
 public:
  static constexpr int kAnySite = 0;
  explicit StoppingLogger(int site = kAnySite) : site_(site) {}

  void Debug(const vesk::LogSite& site, const char* /*format*/, ...) override {
    if (!stops || (site_ != kAnySite && site.second != site_)) return;
    const vesk::MutexLock guard(mutex_);
    stopped_ = true;
    changed_.WakeAll();
    while (!go_on_) changed_.Wait(mutex_);
  }

  bool AwaitStopped() {
    const auto watchdog = std::chrono::steady_clock::now() + kPatience;
    const vesk::MutexLock guard(mutex_);
    while (!stopped_ && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return stopped_;
  }
  void GoOn() {
    const vesk::MutexLock guard(mutex_);
    go_on_ = true;
    changed_.WakeAll();
  }

  inline static thread_local bool stops = false;

 private:
  const int site_;
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  bool stopped_ VESK_GUARDED_BY(mutex_) = false;
  bool go_on_ VESK_GUARDED_BY(mutex_) = false;
};

TEST_F(RangesTest, ReadersAtDifferentPlacesDoNotShareALock) {
  FileHandle& file = Begin(400);
  for (std::uint64_t page = 0; page < 40; ++page) {
    ExpectRead(file, page * kPage, kPage);
    ExpectRead(file, (200 + page) * kPage, kPage);
  }
  StoppingLogger logger;
  vesk::VeskLogger* const usual = std::exchange(vesk::gEnv->logger, &logger);
  {
    Task first([&] {
      StoppingLogger::stops = true;
      ExpectRead(file, std::uint64_t{40} * kPage, kPage);
      StoppingLogger::stops = false;
    });
    EXPECT_TRUE(logger.AwaitStopped());
    Task second([&] { ReadPages(file, 239, 260); });
    EXPECT_TRUE(second.Await()) << "it waits for the lock of the other reader's place";
    EXPECT_FALSE(first.Ended());
    logger.GoOn();
    EXPECT_TRUE(first.Await());
  }
  vesk::gEnv->logger = usual;
}

// The writer is kept inside its range, with bytes that nobody knows of yet.
TEST_F(RangesTest, ATruncateWaitsForAWriterWhoHasBegun) {
  FileHandle& file = Begin(10);
  StoppingLogger logger;
  vesk::VeskLogger* const usual = std::exchange(vesk::gEnv->logger, &logger);
  {
    Task writer([&] {
      StoppingLogger::stops = true;
      FileWorld::Write(file, "begun", std::uint64_t{8} * kPage);
      StoppingLogger::stops = false;
    });
    EXPECT_TRUE(logger.AwaitStopped());
    Task cutting([&] { EXPECT_TRUE(file.Truncate(5 * kPage).ok()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(cutting.Ended());
    EXPECT_EQ(world_.script.Count(vesk::kFaultTruncate), 0u);
    logger.GoOn();
    EXPECT_TRUE(writer.Await());
    EXPECT_TRUE(cutting.Await());
  }
  vesk::gEnv->logger = usual;
  content_.resize(5 * kPage);
  ExpectWhole(file);
}

// The writer is kept where it has yet to make the file longer.
TEST_F(RangesTest, AnAppendGoesBehindAWriteThatIsUnderWay) {
  FileHandle& file = Begin(0);
  StoppingLogger logger;
  vesk::VeskLogger* const usual = std::exchange(vesk::gEnv->logger, &logger);
  {
    Task writer([&] {
      StoppingLogger::stops = true;
      FileWorld::Write(file, "written", 0);
      StoppingLogger::stops = false;
    });
    EXPECT_TRUE(logger.AwaitStopped());
    Task appender([&] {
      std::uint64_t at = 0;
      EXPECT_TRUE(file.Append("appended", 8, &at).ok());
      EXPECT_EQ(at, 7u);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // whatever it does without a lock
    EXPECT_FALSE(appender.Ended());
    logger.GoOn();
    EXPECT_TRUE(writer.Await());
    EXPECT_TRUE(appender.Await());
  }
  vesk::gEnv->logger = usual;
  EXPECT_EQ(FileWorld::Read(file, 0, 20), "writtenappended");
}

// The writer is kept where the first block leaves its range for the new one.
TEST_F(RangesTest, ASyncBesideADivisionStoresWhatMoves) {
  constexpr int kSplitFirst = 979;
  FileHandle& file = Begin(0);
  // Backwards: a writer that passes a dirty block has it stored.
  for (std::uint64_t page = Range::kMaxBlocks; page > 0; --page) {
    Write(file, page * kPage, kPage, static_cast<char>('a' + page));
  }
  ASSERT_EQ(file.GetStats().dirty, Range::kMaxBlocks * kPage);
  ASSERT_EQ(file.GetStats().streams, 1u);
  StoppingLogger logger(kSplitFirst);
  vesk::VeskLogger* const usual = std::exchange(vesk::gEnv->logger, &logger);
  {
    Task writer([&] {
      StoppingLogger::stops = true;
      FileWorld::Write(file, std::string(kPage, 'w'), 0);
      StoppingLogger::stops = false;
    });
    EXPECT_TRUE(logger.AwaitStopped());
    Task syncing([&] {
      EXPECT_TRUE(file.Sync().ok());
      EXPECT_TRUE(world_.Stored("file").substr(kPage) == content_.substr(kPage));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(syncing.Ended()) << "it has passed a range that is being divided";
    logger.GoOn();
    EXPECT_TRUE(writer.Await());
    EXPECT_TRUE(syncing.Await());
  }
  vesk::gEnv->logger = usual;
  EXPECT_EQ(file.GetStats().streams, 2u);
}

// Even pages are being written, odd ones are being read; the range is divided meanwhile, and
// everything ends in an order of its own.
TEST(RangesInAnyOrderTest, ASplitWhileJobsAreInFlightLosesNothing) {
  for (std::uint64_t seed = 0; seed < 20; ++seed) {
    FileWorld world;
    world.options.block_size = kPage;
    world.options.memory = std::uint64_t{1024} * kPage;
    std::string content = FileWorld::Content(std::size_t{80} * kPage, 1);
    world.Put("file", content);
    FileHandle& file = world.Open("file");
    vesk::Random random(seed);
    // In pairs, so that few are added behind the last block, where no split is needed.
    FileWorld::Write(file, std::string(kPage, 'E'), std::uint64_t{79} * kPage);
    content.replace(std::size_t{79} * kPage, kPage, std::string(kPage, 'E'));
    world.script.Hold({vesk::kFaultRead | vesk::kFaultWrite, "", 0, ~std::uint64_t{0}});
    for (std::uint64_t page = 0; page < 40; page += 2) {
      file.Advise(Advice::kWillNeed, (page + 1) * kPage, kPage);
      const std::string bytes(kPage, static_cast<char>('a' + page % 26));
      FileWorld::Write(file, bytes, page * kPage);
      content.replace(page * kPage, kPage, bytes);
      const vesk::Status flushed = random.Next() % 2 == 0 ? file.Flush() : vesk::Status();
      EXPECT_TRUE(flushed.ok());
    }
    EXPECT_GT(file.GetStats().streams, 1u) << "seed " << seed;
    const std::size_t held = world.script.held();
    EXPECT_GE(held, 20u);
    for (std::size_t left = held; left > 0; --left) {
      world.script.EndOne(static_cast<int>(random.Next() % left), 0);
      const std::uint64_t page = random.Next() % 20 * 2;
      EXPECT_TRUE(FileWorld::Read(file, page * kPage, kPage) == content.substr(page * kPage, kPage))
          << "seed " << seed << ", page " << page;
    }
    world.script.Heal();
    EXPECT_TRUE(FileWorld::Read(file, 0, content.size()) == content) << "seed " << seed;
    EXPECT_TRUE(file.Close().ok());
    EXPECT_FALSE(file.Broken());
    EXPECT_TRUE(world.Stored("file") == content) << "seed " << seed;
    EXPECT_EQ(world.files().memory_used(), 0u);
  }
}

}  // namespace
}  // namespace vesk_test

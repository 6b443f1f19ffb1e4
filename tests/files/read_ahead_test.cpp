#include "files/read_ahead.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

namespace vesk {

// Of the tests: two windows of nothing are the same.
inline bool operator==(const FetchWindow& a, const FetchWindow& b) {
  return (a.Empty() && b.Empty()) || (a.from == b.from && a.to == b.to);
}

inline std::ostream& operator<<(std::ostream& out, const FetchWindow& window) {
  return out << "[" << window.from << ", " << window.to << ")";
}

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;
constexpr std::uint64_t kGiB = 1024 * kMiB;
constexpr std::uint64_t kPage = 4 * kKiB;
constexpr std::uint64_t kBlock = 64 * kKiB;
constexpr std::uint64_t kEnd = std::numeric_limits<std::uint64_t>::max();
constexpr Clock::Duration kLatency = milliseconds(2);
constexpr Clock::Duration kUnknown{};

constexpr FetchWindow kNothing{};

// Reads one after the other at times that the test says.
struct Reader {
  Reader(std::uint64_t block_size, unsigned max_blocks)
      : ahead(static_cast<unsigned>(block_size), max_blocks) {}

  FetchWindow Miss(std::uint64_t offset, std::uint64_t length = kPage) {
    return ahead.OnRead(offset, length, true, size, now, latency);
  }
  // Nothing unless the read is due, like the caller of ReadAhead.
  FetchWindow Hit(std::uint64_t offset, std::uint64_t length = kPage) {
    if (!ahead.Due(offset, length)) return {};
    ++heard;
    return ahead.OnRead(offset, length, false, size, now, latency);
  }
  // Three reads, so that the run is confirmed.
  FetchWindow ConfirmAt(std::uint64_t offset, std::uint64_t length = kPage) {
    Miss(offset, length);
    Miss(offset + length, length);
    return Miss(offset + 2 * length, length);
  }

  ReadAhead ahead;
  std::uint64_t size = kGiB;
  Clock::Time now{};
  Clock::Duration latency = kUnknown;
  unsigned heard = 0;  // hits that were due
};

// A reader in front of a cache without limits and a store that works on any number of requests at
// once. The cache holds pages; each has a time at which it arrives.
class Simulated {
 public:
  Simulated(std::uint64_t block_size, unsigned max_blocks, std::uint64_t size)
      : reader(block_size, max_blocks), arrival_(size / kPage, kAbsent) {
    reader.size = size;
    reader.latency = kLatency;
  }

  void Read(std::uint64_t offset, std::uint64_t length = kPage) {
    for (std::uint64_t at = offset; at < offset + length; at += kPage) {
      ReadPage(at, offset + length - at);
    }
    returned += length;
    reader.now += microseconds(1);
  }

  std::uint64_t PagesFetched(std::uint64_t from, std::uint64_t to) const {
    return static_cast<std::uint64_t>(
        std::count_if(arrival_.begin() + static_cast<std::ptrdiff_t>(from / kPage),
                      arrival_.begin() + static_cast<std::ptrdiff_t>(to / kPage),
                      [](Clock::Time time) { return time != kAbsent; }));
  }

  Reader reader;
  std::uint64_t returned = 0;
  std::uint64_t fetched = 0;
  std::uint64_t ahead = 0;  // bytes of all windows
  unsigned misses = 0;
  unsigned waits = 0;
  Clock::Time start{};

  double BytesPerSecond() const {
    return static_cast<double>(returned) /
           std::chrono::duration<double>(reader.now - start).count();
  }

 private:
  static constexpr Clock::Time kAbsent = Clock::kNever;

  void ReadPage(std::uint64_t at, std::uint64_t rest) {
    const std::size_t page = at / kPage;
    const bool missed = arrival_[page] == kAbsent;
    const FetchWindow window = missed ? reader.Miss(at, rest) : reader.Hit(at, rest);
    if (missed) {
      ++misses;
      Fetch({at, at + rest});
    }
    if (!window.Empty()) ahead += window.to - window.from;
    Fetch(window);
    if (arrival_[page] > reader.now) {
      ++waits;
      reader.now = arrival_[page];
    }
  }

  void Fetch(const FetchWindow& window) {
    for (std::uint64_t at = window.from / kPage * kPage; at < window.to; at += kPage) {
      if (arrival_[at / kPage] != kAbsent) continue;
      arrival_[at / kPage] = reader.now + kLatency;
      fetched += kPage;
    }
  }

  std::vector<Clock::Time> arrival_;
};

// ---- the beginning of a run ----

TEST(ReadAheadTest, FirstReadAtOffsetZeroFetchesFourBlocksBeyondItsOwnAtOnce) {
  Reader reader(kBlock, 16);
  EXPECT_EQ(reader.Miss(0), (FetchWindow{0, 5 * kBlock}));
  EXPECT_EQ(reader.ahead.window(), 4 * kBlock);
}

TEST(ReadAheadTest, FirstWindowIsAtLeast256KiBRoundedUpToBlocks) {
  Reader small(4 * kKiB, 99);
  EXPECT_EQ(small.Miss(0), (FetchWindow{0, 4 * kKiB + 256 * kKiB}));
  Reader odd(100 * kKiB, 16);
  EXPECT_EQ(odd.Miss(0), (FetchWindow{0, 500 * kKiB}));
  Reader tiny(kKiB, 300);
  EXPECT_EQ(tiny.Miss(0, kKiB), (FetchWindow{0, kKiB + 256 * kKiB}));
  Reader uneven(48 * kKiB, 16);
  EXPECT_EQ(uneven.Miss(0), (FetchWindow{0, 48 * kKiB + 288 * kKiB}));
}

TEST(ReadAheadTest, FirstWindowIsNoLargerThanTheLargest) {
  Reader reader(kBlock, 2);
  EXPECT_EQ(reader.Miss(0), (FetchWindow{0, 3 * kBlock}));
}

TEST(ReadAheadTest, FirstReadAtOffsetZeroThatHitsIsHeardOfAndFetchesOnlyWhatFollows) {
  Reader reader(kBlock, 16);
  ASSERT_TRUE(reader.ahead.Due(0, kPage));
  EXPECT_EQ(reader.Hit(0), (FetchWindow{kPage, 5 * kBlock}));
  const Reader least(1, 1);
  EXPECT_TRUE(least.ahead.Due(0, 1));
}

TEST(ReadAheadTest, FirstReadThatHitsElsewhereBeginsNothing) {
  for (const Advice advice : {Advice::kNormal, Advice::kSequential}) {
    Reader reader(kBlock, 16);
    reader.ahead.Advise(advice);
    EXPECT_EQ(reader.Hit(10 * kMiB), kNothing);
    EXPECT_EQ(reader.heard, 1u);
    EXPECT_FALSE(reader.ahead.Due(10 * kMiB + kPage, kPage));
  }
}

TEST(ReadAheadTest, OffsetZeroIsNothingSpecialOnceSomethingElseWasRead) {
  Reader missed(kBlock, 16);
  EXPECT_EQ(missed.Miss(10 * kMiB), kNothing);
  EXPECT_EQ(missed.Miss(0), kNothing);
  Reader hit(kBlock, 16);
  EXPECT_EQ(hit.Hit(10 * kMiB), kNothing);
  EXPECT_FALSE(hit.ahead.Due(0, kPage));
  EXPECT_EQ(hit.Miss(0), kNothing);
}

TEST(ReadAheadTest, MissElsewhereFetchesNothingMore) {
  Reader reader(kBlock, 16);
  EXPECT_EQ(reader.Miss(10 * kMiB), kNothing);
  EXPECT_EQ(reader.ahead.window(), 0u);
}

TEST(ReadAheadTest, TwoFurtherReadsConfirmARunWithTwiceItsLengthInWholeBlocks) {
  Reader reader(kBlock, 16);
  EXPECT_EQ(reader.Miss(kMiB), kNothing);
  EXPECT_EQ(reader.Miss(kMiB + kPage), kNothing);
  EXPECT_EQ(reader.Miss(kMiB + 2 * kPage), (FetchWindow{kMiB + 2 * kPage, kMiB + kBlock + kBlock}));
  EXPECT_EQ(reader.ahead.window(), kBlock);

  Reader larger(kBlock, 16);  // 3 reads of 64 KiB
  EXPECT_EQ(larger.ConfirmAt(kMiB, kBlock),
            (FetchWindow{kMiB + 2 * kBlock, kMiB + 3 * kBlock + 6 * kBlock}));
}

TEST(ReadAheadTest, AWindowThatIsNoNumberOfBlocksIsRoundedUp) {
  Reader reader(5, 16);
  reader.ConfirmAt(1000, 1);
  EXPECT_EQ(reader.ahead.window(), 10u);
}

TEST(ReadAheadTest, ARunHasTheLengthOfAllThatWasReadOfIt) {
  Reader reader(kBlock, 16);
  const std::uint64_t at = 100 * kMiB;
  reader.Miss(at, kBlock);
  reader.Miss(at - kBlock, kBlock);
  EXPECT_EQ(reader.Miss(at + kBlock, kBlock), (FetchWindow{at + kBlock, at + 8 * kBlock}));
}

TEST(ReadAheadTest, HitsUpToTwoLengthsBehindAnUnconfirmedRunAreHeardOf) {
  Reader reader(kBlock, 16);
  reader.Miss(kMiB);
  EXPECT_TRUE(reader.ahead.Due(kMiB + 3 * kPage, kPage));
  EXPECT_FALSE(reader.ahead.Due(kMiB + 3 * kPage + 1, kPage));
  reader.Miss(kMiB + kPage, 4 * kPage);  // the latest length counts
  EXPECT_TRUE(reader.ahead.Due(kMiB + 13 * kPage, kPage));
  EXPECT_FALSE(reader.ahead.Due(kMiB + 13 * kPage + 1, kPage));
}

TEST(ReadAheadTest, HitsThatContinueAnUnconfirmedRunAreHeardOfAndConfirmIt) {
  Reader reader(kBlock, 16);
  reader.Miss(kMiB);
  EXPECT_EQ(reader.Hit(kMiB + kPage), kNothing);
  EXPECT_EQ(reader.Hit(kMiB + 2 * kPage), (FetchWindow{kMiB + 3 * kPage, kMiB + 2 * kBlock}));
  EXPECT_EQ(reader.heard, 2u);
}

TEST(ReadAheadTest, ReadsWithinTwoLengthsOfTheNextOffsetContinueAnUnconfirmedRun) {
  const std::uint64_t at = kMiB, p = kPage;
  struct Row {
    std::uint64_t second, third;
    bool confirms;
  };
  const Row rows[] = {
      {at + p, at + 2 * p, true},      // exactly the next
      {at + 3 * p, at + 4 * p, true},  // two lengths forwards
      {at + 3 * p + 1, at + 4 * p + 1, false},
      {at + 2 * p, at + p, true},  // 0, 2, 1
      {at - p, at + p, true},      // two lengths backwards
      {at - p - 1, at + p, false},
  };
  for (const Row& row : rows) {
    Reader reader(kBlock, 16);
    reader.Miss(at);
    reader.Miss(row.second);
    EXPECT_EQ(!reader.Miss(row.third).Empty(), row.confirms) << row.second << " " << row.third;
  }
}

TEST(ReadAheadTest, BytesReadAgainConfirmNothing) {
  Reader same(kBlock, 16);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(same.Miss(kMiB), kNothing);
  Reader two(kBlock, 16);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(two.Miss(kMiB), kNothing);
    EXPECT_EQ(two.Miss(kMiB + kPage), kNothing);
  }
  Reader hit(kBlock, 16);
  hit.Miss(kMiB);
  EXPECT_FALSE(hit.ahead.Due(kMiB, kPage)) << "a hit in a hot block takes no lock";
}

TEST(ReadAheadTest, ReadsThatOverlapButGoOnConfirmARun) {
  Reader reader(kBlock, 16);
  EXPECT_EQ(reader.Miss(kMiB), kNothing);
  EXPECT_EQ(reader.Miss(kMiB + kPage / 4), kNothing);
  EXPECT_FALSE(reader.Miss(kMiB + kPage / 2).Empty());
}

// ---- a run goes on ----

TEST(ReadAheadTest, WindowDoublesAtEachRefillWhileTheLatencyIsUnknown) {
  Reader reader(kBlock, 16);
  reader.ConfirmAt(kMiB);
  std::uint64_t expected = kBlock;
  for (std::uint64_t block = 1; block < 8; ++block) {
    reader.now += milliseconds(5);
    const FetchWindow window = reader.Hit(kMiB + block * kBlock);
    expected = std::min(2 * expected, 16 * kBlock);
    EXPECT_EQ(reader.ahead.window(), expected);
    EXPECT_EQ(window.to, kMiB + (block + 1) * kBlock + expected);
  }
}

TEST(ReadAheadTest, EachNewBlockOfASteadyReaderFetchesOneBlockAtTheFarEnd) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  for (std::uint64_t offset = kPage; offset < 4 * kMiB; offset += kPage) {
    const FetchWindow window = reader.Hit(offset);
    if (offset % kBlock == 0) {
      EXPECT_EQ(window, (FetchWindow{offset + 4 * kBlock, offset + 5 * kBlock}));
    } else {
      EXPECT_EQ(window, kNothing) << offset;
    }
  }
  EXPECT_EQ(reader.heard, 4 * kMiB / kBlock - 1) << "due once per block";
}

TEST(ReadAheadTest, ReadThatReachesIntoTheNextBlockEntersIt) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  EXPECT_FALSE(reader.ahead.Due(kBlock - kPage, kPage));
  EXPECT_EQ(reader.Hit(kBlock - kPage, kPage + 1), (FetchWindow{5 * kBlock, 6 * kBlock}));
}

TEST(ReadAheadTest, SmallBlocksAreRefilledInBatches) {
  struct Row {
    std::uint64_t block;
    unsigned max;
    std::uint64_t step;
  };
  const Row rows[] = {
      {4 * kKiB, 64, 32 * kKiB},  // 32 KiB is less than a quarter of the window
      {4 * kKiB, 16, 16 * kKiB},  // a quarter of the window
      {4 * kKiB, 2, 4 * kKiB},    // a block
      {16 * kKiB, 16, 32 * kKiB}, {32 * kKiB, 16, 32 * kKiB}, {64 * kKiB, 16, 64 * kKiB},
  };
  for (const Row& row : rows) {
    Reader reader(row.block, row.max);
    std::uint64_t ahead_end = reader.Miss(0).to;
    for (std::uint64_t offset = kPage; offset < 4 * kMiB; offset += kPage) {
      const FetchWindow window = reader.Hit(offset);
      if (window.Empty()) continue;
      EXPECT_EQ(window.from, ahead_end);
      if (offset > 2 * kMiB) {
        EXPECT_EQ(window.to - window.from, row.step) << row.block;
      }
      ahead_end = window.to;
    }
    EXPECT_GT(ahead_end, 4 * kMiB);
    EXPECT_LE(reader.heard, 4 * kMiB / row.step + 4) << row.block;
  }
}

TEST(ReadAheadTest, BlocksOfAKiBAreRefilledInBatchesOf32KiBOrAQuarterOfTheWindow) {
  struct Row {
    unsigned max;
    std::uint64_t step;
  };
  for (const Row& row : {Row{300, 32 * kKiB}, Row{64, 16 * kKiB}}) {
    Reader reader(kKiB, row.max);
    reader.Miss(0, kKiB);
    for (std::uint64_t offset = kKiB; offset < kMiB; offset += kKiB) {
      const FetchWindow window = reader.Hit(offset, kKiB);
      if (offset < 512 * kKiB || window.Empty()) continue;
      EXPECT_EQ(window.to - window.from, row.step) << row.max;
    }
  }
}

TEST(ReadAheadTest, WhatIsHeardOfAfterASkipIsFetchedInBatchesToo) {
  Reader reader(4 * kKiB, 64);
  ASSERT_EQ(reader.Miss(0).to, 260 * kKiB);
  EXPECT_EQ(reader.Hit(100 * kKiB), (FetchWindow{260 * kKiB, 360 * kKiB}));
  EXPECT_EQ(reader.Hit(104 * kKiB), kNothing);
  EXPECT_EQ(reader.heard, 2u);
}

TEST(ReadAheadTest, WindowIsNeverMoreThanTheLargestNumberOfBlocksAheadOfTheReadersBlock) {
  for (const unsigned max : {1u, 3u, 4u, 16u, 99u}) {
    for (const std::uint64_t block : {std::uint64_t{1}, 4 * kKiB, kBlock, kBlock + 123}) {
      Reader reader(block, max);
      reader.latency = kLatency;
      std::mt19937 random(max);
      std::uint64_t offset = 0;
      for (int i = 0; i < 2000; ++i) {
        const std::uint64_t length = 1 + random() % (2 * block);
        const FetchWindow window =
            random() % 4 == 0 ? reader.Miss(offset, length) : reader.Hit(offset, length);
        const std::uint64_t block_end = ((offset + length - 1) / block + 1) * block;
        if (!window.Empty()) {
          EXPECT_LE(window.to, block_end + max * block);
        }
        offset += length;
        reader.now += microseconds(random() % 500);
      }
      EXPECT_LE(reader.ahead.window(), max * block);
      EXPECT_GE(reader.ahead.window(), block);
    }
  }
}

TEST(ReadAheadTest, NoByteIsReturnedTwiceUnlessTheRunMissesThereAgain) {
  Reader reader(kBlock, 16);
  reader.latency = kLatency;
  std::uint64_t ahead_end = reader.Miss(0).to;
  for (std::uint64_t offset = kPage; offset < 8 * kMiB; offset += kPage) {
    reader.now += microseconds(offset % 7 == 0 ? 100 : 10);
    const FetchWindow window = reader.Hit(offset);
    if (window.Empty()) continue;
    EXPECT_EQ(window.from, ahead_end);
    ahead_end = window.to;
  }
  ASSERT_GT(ahead_end, 8 * kMiB + 3 * kBlock);

  const std::uint64_t lost = 8 * kMiB + kBlock + kPage;
  const FetchWindow again = reader.Miss(lost);
  EXPECT_EQ(again.from, 8 * kMiB + kBlock) << "from the block of the miss";
  EXPECT_GE(again.to, ahead_end);
  EXPECT_EQ(reader.Hit(lost + kPage), kNothing);
}

TEST(ReadAheadTest, NoByteIsReturnedTwiceWhenAFileIsCutAndGrowsAgain) {
  Reader reader(kBlock, 4);
  ASSERT_EQ(reader.Miss(0).to, 5 * kBlock);
  reader.size = 3 * kBlock;
  EXPECT_EQ(reader.Hit(kBlock), kNothing);
  reader.size = kGiB;
  EXPECT_EQ(reader.Hit(2 * kBlock), (FetchWindow{5 * kBlock, 7 * kBlock}));
}

TEST(ReadAheadTest, ReadWhoseLastByteIsInTheBlockBeingReadBelongsToTheRun) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  for (std::uint64_t block = 1; block <= 8; ++block) reader.Hit(block * kBlock);
  EXPECT_EQ(reader.Miss(8 * kBlock - 10, 11), (FetchWindow{7 * kBlock, 13 * kBlock}));
}

TEST(ReadAheadTest, MissInTheBlockBeingReadFetchesItAndTheWindowAgain) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  reader.Hit(kBlock);
  EXPECT_EQ(reader.Miss(kBlock + 3 * kPage), (FetchWindow{kBlock, 6 * kBlock}));
}

TEST(ReadAheadTest, NothingAtOrBeyondTheSizeIsFetched) {
  Reader reader(kBlock, 16);
  reader.size = 100 * kKiB;
  EXPECT_EQ(reader.Miss(0), (FetchWindow{0, 100 * kKiB}));
  EXPECT_EQ(reader.Hit(kBlock), kNothing);
  EXPECT_EQ(reader.Miss(100 * kKiB), kNothing);
  EXPECT_EQ(reader.Miss(kMiB), kNothing);

  Reader empty(kBlock, 16);
  empty.size = 0;
  EXPECT_EQ(empty.Miss(0), kNothing);
  empty.size = kGiB;
  EXPECT_EQ(empty.Miss(0), (FetchWindow{0, 5 * kBlock})) << "nothing was read before";
}

TEST(ReadAheadTest, ReadThatTheEndHasCutGoesOnFromThere) {
  Reader reader(kBlock, 16);
  reader.size = kMiB + 100;
  reader.Miss(kMiB);
  reader.size = kGiB;
  reader.Miss(kMiB + 100, 100);
  EXPECT_FALSE(reader.Miss(kMiB + 200, 100).Empty());
}

TEST(ReadAheadTest, FileThatGrowsIsFetchedOnFromWhereItEnded) {
  Reader reader(kBlock, 4);
  reader.size = 2 * kBlock + 10;
  EXPECT_EQ(reader.Miss(0), (FetchWindow{0, 2 * kBlock + 10}));
  reader.size = kGiB;
  EXPECT_EQ(reader.Hit(kBlock), (FetchWindow{2 * kBlock + 10, 6 * kBlock}));

  Reader waiting(kBlock, 4);
  waiting.size = 2 * kBlock + 10;
  waiting.Miss(0);
  waiting.size = kGiB;
  EXPECT_EQ(waiting.Miss(2 * kBlock + 10), (FetchWindow{2 * kBlock + 10, 7 * kBlock}));
}

TEST(ReadAheadTest, EndsOfTheNumberLineDoNotOverflow) {
  for (const std::uint64_t block : {std::uint64_t{1}, kBlock, 100 * kMiB - 1}) {
    Reader reader(block, 99);
    reader.size = kEnd;
    reader.latency = kLatency;
    reader.ahead.Advise(Advice::kSequential);
    for (const std::uint64_t offset :
         {kEnd - 1, kEnd - block, kEnd - 3 * block, kEnd - 200 * block}) {
      for (const std::uint64_t length : {std::uint64_t{1}, block, kEnd}) {
        const FetchWindow window = reader.Miss(offset, length);
        if (!window.Empty()) {
          EXPECT_LT(window.from, window.to);
        }
        reader.Hit(offset, length);
        reader.now += milliseconds(3);
      }
    }
    reader.Miss(0, kEnd);
    EXPECT_LE(reader.ahead.window(), 99 * block);
  }
  Reader last(kBlock, 4);
  last.size = kEnd;
  EXPECT_EQ(last.ConfirmAt(kEnd - 4 * kPage).to, kEnd);
  EXPECT_EQ(last.Hit(kEnd - kPage), kNothing);
}

TEST(ReadAheadTest, ReadsOfHalfTheNumberLineAreNearEverything) {
  constexpr std::uint64_t kHalf = kEnd / 2;
  Reader reader(kBlock, 16);
  reader.size = kEnd;
  EXPECT_EQ(reader.Miss(kHalf + 100, 10), kNothing);
  EXPECT_EQ(reader.Miss(0, kHalf + 50), kNothing);
  EXPECT_FALSE(reader.Miss(kHalf + 110, 10).Empty()) << "the third read of a run";
}

TEST(ReadAheadTest, LengthZeroIsNoRead) {
  Reader reader(kBlock, 16);
  EXPECT_FALSE(reader.ahead.Due(0, 0));
  EXPECT_EQ(reader.Miss(0, 0), kNothing);
  EXPECT_EQ(reader.Miss(0), (FetchWindow{0, 5 * kBlock})) << "still the first";
}

// ---- order and gaps ----

TEST(ReadAheadTest, LateReadsBehindTheReaderLeaveTheRunAsItIs) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  for (std::uint64_t block = 1; block <= 40; ++block) reader.Hit(block * kBlock);
  EXPECT_EQ(reader.Miss(38 * kBlock), kNothing);
  EXPECT_EQ(reader.ahead.window(), 4 * kBlock);
  EXPECT_EQ(reader.Hit(41 * kBlock), (FetchWindow{45 * kBlock, 46 * kBlock}));
}

TEST(ReadAheadTest, ReadUpToFourLengthsBeyondWhereItWasExpectedIsNoSkip) {
  for (const std::uint64_t beyond : {0u, 1u}) {
    Reader reader(kBlock, 4);
    reader.Miss(0);
    const std::uint64_t offset = kBlock + 4 * kPage + beyond;
    reader.Hit(offset);
    EXPECT_EQ(reader.ahead.Due(offset + kPage, kPage), beyond == 1)
        << "after a skip any read is heard of";
  }
}

TEST(ReadAheadTest, HitsAreHeardOfUpToAWindowOrFourReadsBeyondTheWindow) {
  Reader reader(kBlock, 1);
  reader.Miss(0);
  reader.Hit(kBlock, kBlock + 1);  // into the next block: four blocks are fetched
  EXPECT_EQ(reader.ahead.window(), kBlock);
  const std::uint64_t reach = 4 * kBlock + 4 * (kBlock + 1);
  EXPECT_TRUE(reader.ahead.Due(reach, kPage));
  EXPECT_FALSE(reader.ahead.Due(reach + 1, kPage));
}

TEST(ReadAheadTest, WhatWasFetchedAheadBelongsToTheReaderWhenItsWindowHasShrunk) {
  Reader reader(kBlock, 16);
  reader.Miss(0);
  std::uint64_t block = 1;
  for (; reader.ahead.window() < 16 * kBlock; ++block) reader.Hit(block * kBlock);
  for (int i = 0; i < 4; ++i) reader.ahead.Shrink();
  ASSERT_EQ(reader.ahead.window(), kBlock);
  EXPECT_TRUE(reader.ahead.Due((block + 15) * kBlock, kPage));
}

TEST(ReadAheadTest, HitBeyondTheWindowFetchesOnlyWhatFollows) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  EXPECT_EQ(reader.Hit(6 * kBlock), (FetchWindow{6 * kBlock + kPage, 11 * kBlock}));
  Reader missing(kBlock, 4);
  missing.Miss(0);
  EXPECT_EQ(missing.Miss(6 * kBlock + kPage), (FetchWindow{6 * kBlock + kPage, 11 * kBlock}));
}

TEST(ReadAheadTest, ReaderThatSkipsAgainWithAWindowOfOneBlockIsNoLongerConfirmed) {
  Reader reader(kBlock, 16);
  reader.ConfirmAt(300 * kMiB);
  reader.ConfirmAt(400 * kMiB);
  reader.ConfirmAt(500 * kMiB);
  reader.ConfirmAt(100 * kMiB);
  for (int i = 0; i < 4; ++i) reader.ahead.Shrink();
  const std::uint64_t at = 100 * kMiB + 4 * kBlock;
  reader.Hit(100 * kMiB + 2 * kBlock);
  EXPECT_EQ(reader.Hit(at), kNothing);
  EXPECT_TRUE(reader.ahead.Due(at + 3 * kPage, kPage));
  EXPECT_FALSE(reader.ahead.Due(at + 3 * kPage + 1, kPage));

  reader.Miss(900 * kMiB);  // takes the place of the one that was silent longest, not its
  EXPECT_EQ(reader.Hit(at + kPage), kNothing);
  EXPECT_EQ(reader.Hit(at + 2 * kPage), (FetchWindow{at + 3 * kPage, at + 2 * kBlock}));
  EXPECT_FALSE(reader.ahead.Due(at + 3 * kPage, kPage)) << "the skips are forgotten";
}

TEST(ReadAheadTest, ForwardSkipMovesTheWindowOnAndFetchesNothingBehind) {
  Reader within(kBlock, 16);
  within.Miss(0);
  EXPECT_EQ(within.Hit(3 * kBlock), (FetchWindow{5 * kBlock, 8 * kBlock}));

  Reader beyond(kBlock, 16);
  beyond.Miss(0);
  EXPECT_EQ(beyond.Miss(8 * kBlock), (FetchWindow{8 * kBlock, 13 * kBlock}));
}

TEST(ReadAheadTest, SkipIsToleratedUpToOneWindowOrFourReadsBeyondTheWindow) {
  struct Row {
    std::uint64_t length, offset;
    bool belongs;
  };
  const Row rows[] = {
      {kPage, 9 * kBlock, true},  // block 0 and a window of 4 end at 5, one more at 9
      {kPage, 9 * kBlock + 1, false},
      {4 * kBlock, 24 * kBlock, true},  // blocks 0 to 3 and the window end at 8, four reads at 24
      {4 * kBlock, 24 * kBlock + 1, false},
  };
  for (const Row& row : rows) {
    Reader reader(kBlock, 16);
    reader.Miss(0, row.length);
    EXPECT_EQ(!reader.Miss(row.offset, row.length).Empty(), row.belongs) << row.offset;
  }
}

TEST(ReadAheadTest, ReadsFurtherBehindAreAnotherRun) {
  Reader reader(kBlock, 4);
  reader.ConfirmAt(kGiB / 2);
  for (std::uint64_t block = 1; block <= 40; ++block) reader.Hit(kGiB / 2 + block * kBlock);
  EXPECT_FALSE(reader.ConfirmAt(kGiB / 2 + kMiB).Empty());
}

TEST(ReadAheadTest, SecondReaderCloseBehindTheFirstGetsARunOfItsOwn) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  for (std::uint64_t block = 1; block <= 40; ++block) reader.Hit(block * kBlock);
  EXPECT_FALSE(reader.ConfirmAt(38 * kBlock).Empty());
  EXPECT_EQ(reader.Hit(41 * kBlock), (FetchWindow{45 * kBlock, 46 * kBlock})) << "the first";
}

TEST(ReadAheadTest, GapsWithoutASequenceHalveTheWindowAndEndTheRun) {
  Reader reader(kBlock, 16);
  reader.Miss(0);
  const std::uint64_t gap = kBlock + 20 * kKiB;  // never in order, always near
  std::uint64_t offset = gap;
  EXPECT_FALSE(reader.Hit(offset).Empty()) << "one gap is a skip";
  for (const std::uint64_t window : {2 * kBlock, kBlock, std::uint64_t{0}}) {
    offset += gap;
    EXPECT_EQ(reader.Hit(offset), kNothing);
    EXPECT_EQ(reader.ahead.window(), window);
  }
}

TEST(ReadAheadTest, ReadingEveryThirdChunkForwardKeepsItsWindow) {
  Simulated one(kBlock, 16, 64 * kMiB);  // a chunk a read
  for (std::uint64_t at = 0; at < 60 * kMiB; at += 3 * kBlock) {
    one.Read(at, kBlock);
    if (at > 4 * kMiB) {
      EXPECT_EQ(one.reader.ahead.window(), 16 * kBlock) << at;
    }
  }
  EXPECT_LE(one.misses, 2u);

  Simulated pages(kBlock, 16, 64 * kMiB);  // a chunk in pages
  for (std::uint64_t at = 0; at < 60 * kMiB; at += 3 * kBlock) {
    for (std::uint64_t page = 0; page < kBlock; page += kPage) pages.Read(at + page);
    if (at > 4 * kMiB) {
      EXPECT_EQ(pages.reader.ahead.window(), 16 * kBlock) << at;
    }
  }
  EXPECT_LE(pages.misses, 2u);
}

TEST(ReadAheadTest, ReadingOutOfOrderKeepsItsWindow) {
  for (const std::uint64_t length : {kPage, 16 * kKiB, kBlock, 2 * kBlock}) {
    Simulated simulated(kBlock, 16, 64 * kMiB);
    simulated.Read(0, length);
    for (std::uint64_t i = 1; (i + 1) * length < 60 * kMiB; i += 2) {  // 0, 2, 1, 4, 3, 6, 5
      simulated.Read((i + 1) * length, length);
      simulated.Read(i * length, length);
      if (i * length > 4 * kMiB) {
        EXPECT_EQ(simulated.reader.ahead.window(), 16 * kBlock);
      }
    }
    EXPECT_LE(simulated.misses, 2u) << length;
  }
}

TEST(ReadAheadTest, ReadingOutOfOrderElsewhereConfirmsARunFromItsFurthestRead) {
  struct Row {
    std::uint64_t length, to;  // a window of twice three reads beyond the third
  };
  for (const Row& row : {Row{kPage, 2 * kBlock}, Row{kBlock, 9 * kBlock}}) {
    Reader reader(kBlock, 16);
    const std::uint64_t at = 100 * kMiB;
    EXPECT_EQ(reader.Miss(at, row.length), kNothing);
    EXPECT_EQ(reader.Miss(at + 2 * row.length, row.length), kNothing);
    EXPECT_EQ(reader.Miss(at + row.length, row.length),
              (FetchWindow{at + row.length, at + row.to}));
  }
}

// ---- several readers ----

TEST(ReadAheadTest, FourInterleavedReadersEachGetTheirWindow) {
  for (const std::uint64_t apart : {8 * kMiB, 100 * kMiB}) {
    Simulated simulated(kBlock, 16, kGiB);
    for (std::uint64_t offset = 0; offset < 6 * kMiB; offset += kPage) {
      for (std::uint64_t reader = 0; reader < 4; ++reader) {
        simulated.Read(reader * apart + offset);
      }
      if (offset < 4 * kMiB) continue;
      for (std::uint64_t reader = 0; reader < 4; ++reader) {
        const std::uint64_t at = reader * apart + offset;
        const std::uint64_t front = at / kBlock * kBlock + kBlock;
        EXPECT_EQ(simulated.PagesFetched(front, front + 16 * kBlock), 16 * kBlock / kPage)
            << "reader " << reader << " at " << at;
      }
    }
    EXPECT_LE(simulated.misses, 1u + 3 * 3) << apart;
  }
}

TEST(ReadAheadTest, ReadersWithinEachOthersReachEachGetTheirOwnRun) {
  for (const std::uint64_t apart : {256 * kKiB, 512 * kKiB, kMiB, 2 * kMiB}) {
    Simulated simulated(kBlock, 16, kGiB);
    for (std::uint64_t offset = 0; offset < apart; offset += kPage) {
      for (std::uint64_t reader = 0; reader < 4; ++reader) {
        simulated.Read(reader * apart + offset);
      }
    }
    // Three for each that begins in the middle, and as many where the next reader took its run.
    EXPECT_LE(simulated.misses, 1u + 6 * 3) << apart;
    // The largest window and the block being read, of each of the four.
    EXPECT_LE(simulated.fetched, simulated.returned + 68 * kBlock) << apart;
  }
}

TEST(ReadAheadTest, ReadBelongsToTheNearestOfTheReadersWithinWhoseReachItLies) {
  Reader reader(kBlock, 4);
  reader.Miss(0);
  reader.ConfirmAt(20 * kBlock, kBlock);
  for (std::uint64_t block = 1; block <= 14; ++block) reader.Hit(block * kBlock);
  reader.Hit(23 * kBlock);
  EXPECT_EQ(reader.Hit(15 * kBlock), (FetchWindow{19 * kBlock, 20 * kBlock}));
}

TEST(ReadAheadTest, FifthReaderTakesThePlaceOfTheOneThatWasSilentLongest) {
  Reader reader(kBlock, 4);
  for (std::uint64_t i = 0; i < 4; ++i) reader.ConfirmAt((i + 1) * 100 * kMiB);
  reader.Hit(100 * kMiB + kBlock);  // the first goes on: now the second is the oldest
  reader.ConfirmAt(900 * kMiB);
  EXPECT_TRUE(reader.ahead.Due(100 * kMiB + 2 * kBlock, kPage));
  EXPECT_FALSE(reader.ahead.Due(200 * kMiB + kBlock, kPage));
  EXPECT_TRUE(reader.ahead.Due(300 * kMiB + kBlock, kPage));
  EXPECT_TRUE(reader.ahead.Due(400 * kMiB + kBlock, kPage));
  EXPECT_TRUE(reader.ahead.Due(900 * kMiB + kBlock, kPage));
}

TEST(ReadAheadTest, ThreadsOfOneHandleShareItSafely) {
  constexpr unsigned kThreads = 4;
  Reader shared(kBlock, 16);
  std::atomic<std::uint64_t> next{0};
  std::atomic<unsigned> wrong{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (std::uint64_t n = next++; n < 20000; n = next++) {
        const std::uint64_t offset = n * kPage;
        if (n % 100 != 0 && !shared.ahead.Due(offset, kPage)) continue;
        const FetchWindow window = shared.ahead.OnRead(offset, kPage, n % 100 == 0, kGiB,
                                                       Clock::Time(microseconds(n)), kLatency);
        if (window.to > kGiB || (!window.Empty() && window.to - window.from > 2 * kGiB / 8))
          ++wrong;
        if (n % 1000 == 0) shared.ahead.Shrink();
        if (n % 5000 == i) shared.ahead.Advise(Advice::kNormal);
        if (shared.ahead.window() > 16 * kBlock) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0u);
  EXPECT_GE(shared.ahead.window(), kBlock) << "the run is still known";
}

// ---- how far ahead ----

TEST(ReadAheadTest, ReaderThatWaitsForTheStoreReachesTheSpeedThatItsBlocksAheadAllow) {
  for (const unsigned max : {4u, 16u}) {
    Simulated simulated(kBlock, max, 64 * kMiB);
    for (std::uint64_t at = 0; at < 64 * kMiB; at += kPage) simulated.Read(at);
    const double limit = static_cast<double>(max * kBlock) / 0.002;
    EXPECT_GE(simulated.BytesPerSecond(), 0.8 * limit) << max;
    EXPECT_EQ(simulated.fetched, simulated.returned);
    EXPECT_EQ(simulated.ahead, simulated.returned) << "each byte asked for once";
    EXPECT_EQ(simulated.misses, 1u);
  }
}

TEST(ReadAheadTest, FirstMiBOfAColdFileArrivesWithinTwoAndAHalfLatencies) {
  Simulated simulated(kBlock, 16, 64 * kMiB);
  for (std::uint64_t at = 0; at < kMiB; at += kPage) simulated.Read(at);
  EXPECT_LE(simulated.reader.now - simulated.start, kLatency * 5 / 2);
}

TEST(ReadAheadTest, ReaderInTheMiddleOfAFileReachesTheLargestWindowToo) {
  Simulated simulated(kBlock, 16, 128 * kMiB);
  for (std::uint64_t at = 64 * kMiB + 12345 / kPage * kPage; at < 96 * kMiB; at += kPage) {
    simulated.Read(at);
  }
  EXPECT_EQ(simulated.reader.ahead.window(), 16 * kBlock);
  EXPECT_LE(simulated.misses, 3u);
  EXPECT_GE(simulated.BytesPerSecond(), 0.8 * 16 * kBlock / 0.002);
}

TEST(ReadAheadTest, ReaderThatPausesTenMillisecondsPerBlockEndsWithASmallWindow) {
  Simulated simulated(kBlock, 16, 16 * kMiB);
  for (std::uint64_t at = 0; at < 12 * kMiB; at += kPage) {
    simulated.Read(at);
    if (at % kBlock == 0) simulated.reader.now += milliseconds(10);
    if (at == 8 * kMiB) simulated.waits = 0;
  }
  EXPECT_EQ(simulated.reader.ahead.window(), kBlock);
  EXPECT_EQ(simulated.waits, 0u) << "small, and enough";
}

TEST(ReadAheadTest, ReaderThatIsSlowByItselfGetsTwiceItsBandwidthTimesTheLatency) {
  Simulated simulated(kBlock, 99, 256 * kMiB);
  for (std::uint64_t at = 0; at < 200 * kMiB; at += kPage) {
    simulated.Read(at);
    if (at % kBlock == 0) simulated.reader.now += microseconds(250);  // 8 blocks per latency
    if (at == 100 * kMiB) simulated.waits = 0;
  }
  EXPECT_GE(simulated.reader.ahead.window(), 13 * kBlock);
  EXPECT_LE(simulated.reader.ahead.window(), 18 * kBlock);
  EXPECT_EQ(simulated.waits, 0u);
}

// Reads block after block, so many of them in the time that a fetch takes.
struct PacedReader : Reader {
  PacedReader() : Reader(kBlock, 99) {
    latency = kLatency;
    Miss(0);
  }

  void ReadInALatency(std::uint64_t blocks) {
    for (std::uint64_t i = 0; i < blocks; ++i) Hit(++block * kBlock);
    now += kLatency;
  }

  std::uint64_t block = 0;
};

TEST(ReadAheadTest, SpeedIsAveragedOverMeasurements) {
  PacedReader reader;
  for (int i = 0; i < 20; ++i) reader.ReadInALatency(10);
  ASSERT_EQ(reader.ahead.window(), 20 * kBlock);
  reader.ReadInALatency(16);  // measured at the first read after it
  reader.ReadInALatency(1);
  EXPECT_EQ(reader.ahead.window(), 26 * kBlock) << "twice the mean of 10 and 16";
}

TEST(ReadAheadTest, AReaderThatSlowsDownLosesAQuarterOfItsWindowAtATime) {
  PacedReader reader;
  for (int i = 0; i < 20; ++i) reader.ReadInALatency(10);
  reader.ReadInALatency(1);
  ASSERT_EQ(reader.ahead.window(), 20 * kBlock);
  reader.ReadInALatency(1);
  EXPECT_EQ(reader.ahead.window(), 15 * kBlock) << "though eleven would do";
}

TEST(ReadAheadTest, FirstMeasurementCountsAlone) {
  Reader reader(kBlock, 8);
  reader.latency = kLatency;
  reader.Miss(0);
  for (std::uint64_t block = 1; block <= 6; ++block) reader.Hit(block * kBlock);
  ASSERT_EQ(reader.ahead.window(), 8 * kBlock);
  reader.now += kLatency;
  reader.Hit(7 * kBlock);
  EXPECT_EQ(reader.ahead.window(), 8 * kBlock) << "twice the six blocks";
}

TEST(ReadAheadTest, AReaderThatSpeedsUpDoublesItsWindowAtATime) {
  PacedReader reader;
  for (int i = 0; i < 40; ++i) reader.ReadInALatency(1);
  ASSERT_EQ(reader.ahead.window(), 2 * kBlock);
  reader.ReadInALatency(60);
  reader.ReadInALatency(1);
  EXPECT_EQ(reader.ahead.window(), 4 * kBlock) << "though sixty would do";
}

TEST(ReadAheadTest, NothingIsMeasuredWithinABlock) {
  PacedReader reader;
  for (int i = 0; i < 20; ++i) reader.ReadInALatency(10);
  reader.ReadInALatency(1);
  ASSERT_EQ(reader.ahead.window(), 20 * kBlock);
  for (int i = 1; i < 5; ++i) {
    reader.Miss(reader.block * kBlock + static_cast<unsigned>(i) * kPage);
    reader.now += kLatency;
  }
  EXPECT_EQ(reader.ahead.window(), 20 * kBlock);
}

TEST(ReadAheadTest, TheSpeedOfAReaderInTheMiddleIsThatSinceItWasSeen) {
  Reader reader(kBlock, 99);
  reader.latency = kLatency;
  reader.ConfirmAt(256 * kMiB, kBlock);
  for (std::uint64_t block = 3; block < 12; ++block) {
    reader.Hit(256 * kMiB + block * kBlock);
    reader.now += kLatency;
  }
  EXPECT_LE(reader.ahead.window(), 4 * kBlock) << "one block in a latency";
}

TEST(ReadAheadTest, OnePauseDoesNotTakeTheWindowAway) {
  Simulated simulated(kBlock, 16, 64 * kMiB);
  for (std::uint64_t at = 0; at < 16 * kMiB; at += kPage) simulated.Read(at);
  ASSERT_EQ(simulated.reader.ahead.window(), 16 * kBlock);
  simulated.reader.now += std::chrono::seconds(10);
  simulated.Read(16 * kMiB);
  EXPECT_GE(simulated.reader.ahead.window(), 12 * kBlock);
  for (std::uint64_t at = 16 * kMiB + kPage; at < 32 * kMiB; at += kPage) simulated.Read(at);
  EXPECT_EQ(simulated.reader.ahead.window(), 16 * kBlock);
}

TEST(ReadAheadTest, ClockThatStandsStillOrGoesBackIsNoMeasurement) {
  Reader reader(kBlock, 16);
  reader.latency = kLatency;
  reader.now = Clock::Time(milliseconds(100));
  reader.Miss(0);
  for (std::uint64_t block = 1; block < 50; ++block) {
    reader.Hit(block * kBlock);
    if (block % 2 == 0) reader.now -= milliseconds(1);
  }
  EXPECT_EQ(reader.ahead.window(), 16 * kBlock);
}

TEST(ReadAheadTest, ShortMemoryHalvesTheWindowsDownToOneBlockAndTheyGrowAgain) {
  Simulated simulated(kBlock, 16, 64 * kMiB);
  std::uint64_t at = 0;
  for (; at < 16 * kMiB; at += kPage) simulated.Read(at);
  for (const std::uint64_t blocks : {8u, 4u, 2u, 1u, 1u}) {
    simulated.reader.ahead.Shrink();
    EXPECT_EQ(simulated.reader.ahead.window(), blocks * kBlock);
  }
  // What is there already is used up before anything more is fetched.
  const FetchWindow window = simulated.reader.Hit(at);
  EXPECT_EQ(window, kNothing);
  for (; at < 48 * kMiB; at += kPage) simulated.Read(at);
  EXPECT_EQ(simulated.reader.ahead.window(), 16 * kBlock);
}

TEST(ReadAheadTest, OddWindowsAreHalvedInWholeBlocks) {
  Reader reader(kBlock, 3);
  reader.Miss(0);
  ASSERT_EQ(reader.ahead.window(), 3 * kBlock);
  reader.ahead.Shrink();
  EXPECT_EQ(reader.ahead.window(), kBlock);
}

// ---- random readers ----

std::uint64_t WindowsOfRandomReads(std::uint64_t size, unsigned seed, bool cached) {
  std::mt19937 random(seed);
  Simulated cache(kBlock, 16, size);
  Reader bare(kBlock, 16);
  bare.size = size;
  bare.latency = kLatency;
  std::uint64_t sum = 0;
  for (int i = 0; i < 10000; ++i) {
    const std::uint64_t offset = random() % (size / kPage) * kPage;
    if (cached) {
      cache.Read(offset);
      continue;
    }
    bare.now += kLatency;
    const FetchWindow window = bare.Miss(offset);
    if (!window.Empty()) sum += window.to - window.from;
  }
  return cached ? cache.ahead : sum;
}

TEST(ReadAheadTest, RandomReadsFetchLessThanFivePercentOfWhatTheyAskForAhead) {
  for (const std::uint64_t size : {16 * kMiB, kGiB}) {
    for (const bool cached : {false, true}) {
      for (unsigned seed = 1; seed <= 20; ++seed) {
        EXPECT_LT(WindowsOfRandomReads(size, seed, cached), 10000 * kPage / 20)
            << size << " bytes, seed " << seed << (cached ? ", cached" : ", never cached");
      }
    }
  }
}

TEST(ReadAheadTest, RandomReaderThatBeginsAtOffsetZeroIsSoonRecognised) {
  std::mt19937 random(1);
  Simulated simulated(kBlock, 16, 16 * kMiB);
  simulated.Read(0);
  for (int i = 0; i < 10000; ++i) simulated.Read(random() % 4096 * kPage);
  EXPECT_LT(simulated.ahead, 10000 * kPage / 20);
}

TEST(ReadAheadTest, RandomHitsAreHardlyEverHeardOf) {
  Simulated simulated(kBlock, 16, 4 * kBlock);
  for (std::uint64_t at = 0; at < 4 * kBlock; at += kPage) simulated.Read(at);
  simulated.reader.heard = 0;
  std::mt19937 random(1);
  for (int i = 0; i < 100000; ++i) simulated.Read(random() % 64 * kPage);
  EXPECT_LT(simulated.reader.heard, 100u);
}

// ---- advice ----

TEST(ReadAheadTest, RandomAdviceFetchesNothingAheadAndHearsOfNoHit) {
  Reader reader(kBlock, 16);
  reader.Miss(0);
  reader.ahead.Advise(Advice::kRandom);
  EXPECT_EQ(reader.ahead.window(), 0u);
  for (std::uint64_t at = 0; at < 8 * kMiB; at += kPage) {
    EXPECT_FALSE(reader.ahead.Due(at, kPage));
    EXPECT_EQ(reader.Miss(at), kNothing);
  }
  Reader fresh(kBlock, 16);
  fresh.ahead.Advise(Advice::kRandom);
  EXPECT_FALSE(fresh.ahead.Due(0, kPage));
  EXPECT_EQ(fresh.Miss(0), kNothing);
}

TEST(ReadAheadTest, SequentialAdviceStartsTheFirstWindowAtAnyMissAndAllowsTwiceTheBlocks) {
  Reader reader(kBlock, 8);
  reader.ahead.Advise(Advice::kSequential);
  EXPECT_EQ(reader.Miss(kMiB + kPage), (FetchWindow{kMiB, kMiB + 5 * kBlock}));
  for (std::uint64_t block = 1; block < 10; ++block) reader.Hit(kMiB + block * kBlock);
  EXPECT_EQ(reader.ahead.window(), 16 * kBlock);
  EXPECT_EQ(reader.Miss(100 * kMiB), (FetchWindow{100 * kMiB, 100 * kMiB + 5 * kBlock}));
}

TEST(ReadAheadTest, SequentialAdviceFetchesNothingAheadOfALateRead) {
  Reader reader(kBlock, 4);
  reader.ahead.Advise(Advice::kSequential);
  reader.Miss(kMiB);
  for (std::uint64_t block = 1; block <= 40; ++block) reader.Hit(kMiB + block * kBlock);
  EXPECT_EQ(reader.Miss(kMiB + 38 * kBlock), kNothing);
}

TEST(ReadAheadTest, SequentialAdviceKnowsALateReadByItsDistance) {
  struct Row {
    std::uint64_t behind;
    bool late;
  };
  for (const Row& row : {Row{2 * kBlock, true}, Row{4 * kBlock, true}, Row{4 * kBlock + 1, false},
                         Row{10 * kBlock, false}}) {
    Reader reader(kBlock, 2);
    reader.ahead.Advise(Advice::kSequential);  // four blocks
    reader.Miss(kMiB);
    for (std::uint64_t block = 1; block <= 40; ++block) reader.Hit(kMiB + block * kBlock);
    ASSERT_EQ(reader.ahead.window(), 4 * kBlock);
    EXPECT_EQ(reader.Miss(kMiB + 40 * kBlock - row.behind, 1).Empty(), row.late) << row.behind;
  }
  Reader first(kBlock, 2);
  first.ahead.Advise(Advice::kSequential);
  first.Miss(0);
  first.Hit(kBlock);
  first.Hit(2 * kBlock);
  EXPECT_EQ(first.Miss(0), kNothing) << "no reader is further behind than the file's beginning";
}

TEST(ReadAheadTest, SequentialAdviceConfirmsWhatHasBegunAtItsNextRead) {
  Reader reader(kBlock, 8);
  reader.Miss(kMiB);
  reader.ahead.Advise(Advice::kSequential);
  EXPECT_EQ(reader.Hit(kMiB + kPage), (FetchWindow{kMiB + 2 * kPage, kMiB + 5 * kBlock}));
}

TEST(ReadAheadTest, SequentialAdviceAllowsAtMost99Blocks) {
  for (const unsigned max : {49u, 50u, 99u}) {
    Reader reader(kPage, max);
    reader.ahead.Advise(Advice::kSequential);
    reader.Miss(kMiB);
    for (std::uint64_t page = 1; page < 200; ++page) reader.Hit(kMiB + page * kPage);
    EXPECT_EQ(reader.ahead.window(), std::min(99u, 2 * max) * kPage);
  }
}

TEST(ReadAheadTest, NormalAdviceGoesBack) {
  Reader reader(kBlock, 8);
  reader.ahead.Advise(Advice::kSequential);
  reader.Miss(0);
  for (std::uint64_t block = 1; block < 10; ++block) reader.Hit(block * kBlock);
  ASSERT_EQ(reader.ahead.window(), 16 * kBlock);
  reader.ahead.Advise(Advice::kNormal);
  EXPECT_EQ(reader.ahead.window(), 8 * kBlock);
  EXPECT_EQ(reader.Miss(100 * kMiB), kNothing);

  reader.ahead.Advise(Advice::kRandom);
  reader.ahead.Advise(Advice::kNormal);
  EXPECT_FALSE(reader.ConfirmAt(200 * kMiB).Empty());
}

TEST(ReadAheadTest, AdviceAboutRangesChangesNothing) {
  Reader reader(kBlock, 8);
  reader.ahead.Advise(Advice::kSequential);
  reader.ahead.Advise(Advice::kWillNeed);
  reader.ahead.Advise(Advice::kDontNeed);
  EXPECT_FALSE(reader.Miss(kMiB).Empty());
}

TEST(ReadAheadTest, OffStaysOffWhateverTheAdvice) {
  for (const Advice advice : {Advice::kNormal, Advice::kSequential, Advice::kRandom}) {
    Reader reader(kBlock, 0);
    reader.ahead.Advise(advice);
    for (std::uint64_t at = 0; at < kMiB; at += kPage) {
      EXPECT_FALSE(reader.ahead.Due(at, kPage));
      EXPECT_EQ(reader.Miss(at), kNothing);
    }
    reader.ahead.Shrink();
    EXPECT_EQ(reader.ahead.window(), 0u);
  }
}

}  // namespace
}  // namespace vesk

// What is made of the store's file when somebody else may have changed it.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/files/file_world.h"
#include "tests/support/allocation.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"
#include "tests/support/temporary_directory.h"

namespace {

std::atomic<time_t> ahead{0};  // of the system's clock, in seconds

}  // namespace

// In front of the system's, for this program: ages are counted with it.
extern "C" time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const time_t seconds = now.tv_sec + ahead;
  if (result != nullptr) *result = seconds;
  return seconds;
}

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using vesk::FileHandle;
using vesk::Freshness;
using vesk::RequestScope;
using vesk::Status;
using vesk::UnknownPolicy;

constexpr std::uint64_t kBlock = FileWorld::kBlock;

class FreshnessTest : public ::testing::Test {
 protected:
  using World = FileWorld;

  FreshnessTest() {
    world_.settings.refresh_interval = kInterval;
    world_.settings.retry_read_attempts = 1;
    world_.Put("a", old_);
  }
  ~FreshnessTest() override { ahead = 0; }

  // The file is looked at by the next request.
  static void Pass(int seconds = kInterval + 2) { ahead += seconds; }

  std::uint64_t Stats() const { return world_.script.Count(vesk::kFaultStat); }

  static constexpr int kInterval = 100;
  const std::string old_ = FileWorld::Content(500);
  const std::string new_ = FileWorld::Content(500, 1);
  FileWorld world_;
};

TEST_F(FreshnessTest, WithAnIntervalOfZeroTheStoreIsNeverAsked) {
  world_.settings.refresh_interval = 0;
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  const std::uint64_t stats = Stats();
  world_.Put("a", new_);
  Pass(1000000);
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  World::Write(file, "x", 0);
  EXPECT_EQ(Stats(), stats);
}

TEST_F(FreshnessTest, TheStoreIsAskedAfterTheIntervalAndNotBefore) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.Put("a", new_);
  const std::uint64_t stats = Stats();
  Pass(kInterval - 5);
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  EXPECT_EQ(Stats(), stats);
  Pass(7);
  EXPECT_EQ(World::Read(file, 0, 600), new_);
  EXPECT_EQ(Stats(), stats + 1);
  EXPECT_EQ(World::Read(file, 0, 600), new_);
  EXPECT_EQ(Stats(), stats + 1);
}

TEST_F(FreshnessTest, TheIntervalMayChangeWhileFilesAreOpen) {
  world_.settings.refresh_interval = 0;
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.Put("a", new_);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.settings.refresh_interval = kInterval;
  EXPECT_EQ(World::Read(file, 0, 600), new_);
}

TEST_F(FreshnessTest, AChangeOfTheSameLengthIsNoticed) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
  world_.Put("a", new_);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), new_);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kChanged);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), new_);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
}

TEST_F(FreshnessTest, AChangeOfTheLengthIsNoticed) {
  FileHandle& file = world_.Open("a");
  for (const std::size_t length : {1000u, 10u, 0u, 130u, 64u}) {
    const std::string content = FileWorld::Content(length, static_cast<unsigned int>(length));
    world_.Put("a", content);
    Pass();
    EXPECT_EQ(World::Read(file, 0, 2000), content);
    EXPECT_EQ(file.Size(), length);
  }
}

TEST_F(FreshnessTest, AnotherHandleSeesTheChangeToo) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  EXPECT_EQ(World::Read(other, 0, 600), old_);
  world_.Put("a", new_);
  Pass();
  EXPECT_EQ(World::Read(file, 400, 10), new_.substr(400, 10));
  EXPECT_EQ(World::Read(other, 0, 600), new_);
}

TEST_F(FreshnessTest, AFileThatIsReplacedOnDiskIsReadAnew) {
  const TemporaryDirectory directory;
  FileWorld world(FileWorld::Kind::kDisk);
  world.settings.refresh_interval = kInterval;
  world.Put(directory / "a", old_);
  FileHandle& file = world.Open(directory / "a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world.Put(directory / "b", new_);
  std::filesystem::rename(directory / "b", directory / "a");
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), new_);
  World::Write(file, "own", 0);
  EXPECT_TRUE(file.Close().ok());
  std::ostringstream on_disk;
  on_disk << std::ifstream(directory / "a", std::ios::binary).rdbuf();
  EXPECT_EQ(on_disk.str(), "own" + new_.substr(3)) << "not in the file that has no name any more";
}

TEST_F(FreshnessTest, OwnWritesAreNotTakenForForeignChanges) {
  FileHandle& file = world_.Open("a");
  std::string expected = old_;
  for (unsigned int i = 0; i < 6; ++i) {
    World::Write(file, "own", i * 200);
    if (expected.size() < i * 200 + 3) expected.resize(i * 200 + 3, '\0');
    expected.replace(i * 200, 3, "own");
    if (i % 2 == 0) {
      EXPECT_TRUE(file.Sync().ok());
    }
    if (i == 3) {
      EXPECT_TRUE(file.Truncate(350).ok());
      expected.resize(350);
    }
    Pass();
    EXPECT_EQ(World::Read(file, 0, 3000), expected);
    EXPECT_EQ(file.Size(), expected.size());
    EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown) << i;
  }
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), expected);
}

TEST_F(FreshnessTest, AnOwnTruncateIsNotTakenForAForeignChange) {
  FileHandle& file = world_.Open("a");
  for (const std::uint64_t size : {200u, 300u}) {
    EXPECT_TRUE(file.Truncate(size).ok());
    Pass();
    EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
    EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown) << size;
  }
}

TEST_F(FreshnessTest, AForeignChangeAfterOwnWritesIsTold) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  EXPECT_TRUE(file.Sync().ok());
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3));
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
  const std::string same_size = std::string(old_.size(), 'x');
  world_.Put("a", same_size);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), same_size);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kChanged);
}

TEST_F(FreshnessTest, ALookThatMeetsARenameIsDoneByTheNewName) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat, "a"}, 1);
  Pass();
  Task asking([&] { EXPECT_EQ(World::Read(file, 0, 600), old_); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(world_.files().Rename("a", "b").ok());
  world_.script.Heal();
  EXPECT_TRUE(asking.Await());
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
}

// By the old name the store tells of another file.
TEST_F(FreshnessTest, ALookThatMeetsARenameTakesNothingFromWhoHasTheOldNameNow) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat, "a"}, 1);
  Pass();
  std::uint64_t at = 0;
  Task appending([&] { EXPECT_TRUE(file.Append("end", 3, &at).ok()); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(world_.files().Rename("a", "b").ok());
  world_.Open("a");
  world_.script.EndOne(0, 0);
  EXPECT_TRUE(appending.Await());
  EXPECT_EQ(at, old_.size());
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(world_.Stored("b"), old_ + "end");
}

TEST_F(FreshnessTest, WhatWasNeverWrittenIsNoReasonToAsk) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "far", 1000);
  const std::uint64_t stats = Stats();
  for (unsigned i = 0; i < 2; ++i) {
    EXPECT_EQ(World::Read(file, 500, 100), std::string(100, '\0'));
    EXPECT_EQ(World::Read(file, 490, 20), old_.substr(490) + std::string(10, '\0'));
  }
  EXPECT_EQ(Stats(), stats);
}

TEST_F(FreshnessTest, OwnWritesOnTheirWayAreNotTakenForForeignChanges) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  world_.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3));
  world_.script.Heal();
  EXPECT_TRUE(file.Sync().ok());
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3));
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
}

// Nobody here knows which of its bytes have arrived, but nobody else has written any.
TEST_F(FreshnessTest, AnOwnWriteThatTookPlaceAndFailedIsNotTakenForAForeignChange) {
  FileWorld world(FileWorld::Kind::kMemoryNoRetry);
  world.settings.refresh_interval = kInterval;
  world.Put("a", old_);
  std::atomic<std::int64_t> modified{1};
  world.script.Describe(
      [&](const std::string& /*name*/, vesk::FileInfo& info) { info.modified_ns = modified; });
  FileHandle& file = world.Open("a");
  Pass(kInterval * 2 / 3);
  EXPECT_EQ(World::Read(file, 0, 600), old_);  // which is not old when the file is looked at
  World::Write(file, "own", kBlock);
  world.script.FailAfterwards({vesk::kFaultWrite}, EIO, 1);
  EXPECT_EQ(file.Sync().error(), EIO);
  modified = 2;
  const std::uint64_t reads = world.script.Count(vesk::kFaultRead);
  Pass(kInterval * 2 / 3);
  EXPECT_EQ(World::Read(file, 2 * kBlock, 600), old_.substr(2 * kBlock));
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
  EXPECT_EQ(world.script.Count(vesk::kFaultRead), reads);
}

// Nor is what was fetched not long ago fetched again for them.
TEST_F(FreshnessTest, ALookBesideOwnWritesOnTheirWayCostsNoFetch) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  Pass(kInterval * 2 / 3);
  EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3));
  world_.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  const std::uint64_t stats = Stats();
  Pass(kInterval * 2 / 3);
  EXPECT_EQ(World::Read(file, 2 * kBlock, 600), old_.substr(2 * kBlock));
  EXPECT_EQ(Stats(), stats + 1);
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), reads);
  world_.script.Heal();
}

TEST_F(FreshnessTest, OwnUnsavedBytesOutliveAForeignChange) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultWrite});  // a write in passing is not to reach the store
  World::Write(file, "own", 100);
  World::Write(file, "far", 700);
  world_.Put("a", new_);
  Pass();
  std::string expected = new_;
  expected.replace(100, 3, "own");
  expected += std::string(200, '\0') + "far";
  EXPECT_EQ(World::Read(file, 0, 1000), expected);
  world_.script.Heal();
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), expected);
}

// They are not on their way, so that size and time of the store's file tell of others alone.
TEST_F(FreshnessTest, UnsavedBytesBehindTheEndOfAFileThatBecameShorterAreKept) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  World::Write(file, "far", 700);
  world_.Put("a", new_.substr(0, 100));
  Pass();
  const std::string expected = new_.substr(0, 100) + std::string(600, '\0') + "far";
  EXPECT_EQ(World::Read(file, 0, 1000), expected);
  EXPECT_EQ(file.Size(), 703u);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), expected);
}

TEST_F(FreshnessTest, AnotherFileInItsPlaceIsNoticedBesideOwnWrites) {
  std::atomic<ino_t> number{7};
  std::atomic<dev_t> device{1};
  world_.script.Describe([&](const std::string& /*name*/, vesk::FileInfo& info) {
    info.inode = number;
    info.device = device;
  });
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  world_.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  for (const bool moved : {false, true}) {
    moved ? ++device : ++number;
    Pass();
    EXPECT_EQ(World::Read(file, 0, 3), "own");
    EXPECT_EQ(file.GetStats().freshness, Freshness::kChanged) << moved;
    Pass();
    EXPECT_EQ(World::Read(file, 0, 3), "own");
    EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown) << moved;
  }
  world_.script.Heal();
}

TEST_F(FreshnessTest, AChangeOfTheLengthAloneIsNoticed) {
  world_.script.Describe(
      [](const std::string& /*name*/, vesk::FileInfo& info) { info.modified_ns = 0; });
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.Put("a", new_ + "longer");
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), new_ + "longer");
}

TEST_F(FreshnessTest, AFileThatComesBackIsReadAnewThoughItLooksAsBefore) {
  world_.script.Describe([](const std::string& /*name*/, vesk::FileInfo& info) {
    info.modified_ns = 0;
    info.inode = 7;
  });
  FileHandle& file = world_.Open("a");
  Pass(kInterval * 2 / 3);
  EXPECT_EQ(World::Read(file, 0, 600), old_);  // which is not old when the file is looked at
  ASSERT_TRUE(world_.RemoveStored("a"));
  Pass(kInterval / 2);
  World::Read(file, 0, 600, ESTALE);
  world_.Put("a", new_);
  EXPECT_EQ(World::Read(file, 0, 600), new_);
}

TEST_F(FreshnessTest, AStoreThatCannotTellIsAskedOnceInAnInterval) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Fail({vesk::kFaultStat}, EIO);
  for (int i = 0; i < 3; ++i) {
    const std::uint64_t stats = Stats();
    Pass();
    EXPECT_EQ(World::Read(file, 0, 600), old_);
    EXPECT_EQ(World::Read(file, 0, 600), old_);
    EXPECT_EQ(Stats(), stats + 1);
  }
}

TEST_F(FreshnessTest, ADoubtThatWasResolvedIsNoReasonToAskAgain) {
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultTruncate}, EPERM, 1);
  EXPECT_EQ(file.Truncate(100).error(), EPERM);
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  const std::uint64_t stats = Stats();
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  EXPECT_EQ(Stats(), stats);
}

// Own bytes explain another time of change, not bytes behind all that was written here.
TEST_F(FreshnessTest, AFileThatAnotherWriterMadeLongerIsSeenSoBesideOwnWrites) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  world_.Put("a", FileWorld::Content(1000));
  Pass();
  World::Read(file, 0, 10);
  EXPECT_TRUE(file.Sync().ok());
  Pass();
  EXPECT_EQ(World::Read(file, 0, 2000), "own" + FileWorld::Content(1000).substr(3));
  EXPECT_EQ(file.Size(), 1000u);
}

TEST_F(FreshnessTest, AFileThatBecameShorterEndsTheReadThere) {
  FileHandle& file = world_.Open("a");
  world_.Put("a", old_.substr(0, 100));
  const RequestScope scope(world_.In(kPatience));
  EXPECT_EQ(World::Read(file, 0, 600), old_.substr(0, 100)) << "though the interval is not over";
  EXPECT_EQ(World::Read(file, 0, 600), old_.substr(0, 100));
  EXPECT_EQ(file.Size(), 100u);
}

// The store's file has not changed, so that no look at it would tell.
TEST_F(FreshnessTest, BytesThatMadeTheFileLongerAndAreGivenUpMakeItShorterAgain) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "far", 700);
  file.Discard();
  EXPECT_EQ(World::Read(file, 0, 1000), old_);
  EXPECT_EQ(file.Size(), old_.size());
  std::uint64_t at = 0;
  EXPECT_TRUE(file.Append("end", 3, &at).ok());
  EXPECT_EQ(at, old_.size());
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(world_.Stored("a"), old_ + "end");
}

// The store reads at once and says so late: a write of ours has made its file longer meanwhile.
TEST_F(FreshnessTest, AFetchOlderThanAnOwnWriteIsNoForeignCut) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "far", 100 * kBlock);
  world_.script.HoldEnds({vesk::kFaultRead});
  Task reader([&] { EXPECT_EQ(World::Read(file, 10 * kBlock, 10), std::string(10, '\0')); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(file.Sync().ok());
  const std::uint64_t stats = Stats();
  world_.script.Heal();
  EXPECT_TRUE(reader.Await());
  EXPECT_EQ(Stats(), stats) << "the store was asked what its file is";
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), 1u) << "the bytes were fetched again";
}

// Every fetch is older than an own write.
TEST_F(FreshnessTest, AReadBesideAWriterWhoMakesTheFileLongerEndsWell) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "far", 100 * kBlock);
  world_.script.HoldEnds({vesk::kFaultRead});
  Task reader([&] {
    EXPECT_EQ(World::Read(file, 10 * kBlock, 5 * kBlock), std::string(5 * kBlock, '\0'));
  });
  for (std::uint64_t round = 1; round <= 100 && !reader.Ended(); ++round) {
    EXPECT_TRUE(World::Await([&] { return world_.script.held() > 0 || reader.Ended(); }));
    World::Write(file, "further", (100 + round) * kBlock);
    EXPECT_TRUE(file.Sync().ok());
    world_.script.ReleaseEnds();
  }
  EXPECT_TRUE(reader.Await());
}

// Whenever the store is asked what its file is, an own write arrives before its answer does.
TEST_F(FreshnessTest, AReadOfAFileThatBecameShorterEndsWellBesideASteadyWriter) {
  world_.options.check_patience = kPatience;
  FileHandle& file = world_.Open("a");
  world_.Put("a", old_.substr(0, 100));
  Pass();
  world_.script.HoldEnds({vesk::kFaultStat});
  Task reader([&] { EXPECT_EQ(World::Read(file, 70, 500), old_.substr(70, 30)); });
  for (int round = 0; round < 100 && !reader.Ended(); ++round) {
    EXPECT_TRUE(World::Await([&] { return world_.script.held() > 0 || reader.Ended(); }));
    {
      const RequestScope scope(world_.In(milliseconds(0)));  // it waits for no answer
      (void)file.WriteAt("own", 3, 0);  // nor for the turn, which a look may have
      EXPECT_TRUE(file.Flush().ok());
    }
    EXPECT_TRUE(World::Await([&] { return file.GetStats().dirty == 0; }));
    world_.script.ReleaseEnds();
  }
  EXPECT_TRUE(reader.Await());
  EXPECT_EQ(file.Size(), 100u);
}

// What makes the store's file doubtful here is a truncate that ended in an error.
TEST_F(FreshnessTest, ADoubtOutlivesAStoreThatDoesNotAnswer) {
  FileHandle& file = world_.Open("a");
  world_.script.FailAfterwards({vesk::kFaultTruncate}, EIO, 1);
  EXPECT_EQ(file.Truncate(100).error(), EIO);
  world_.script.Fail({vesk::kFaultStat}, EIO);
  EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
  EXPECT_EQ(file.GetStats().freshness, Freshness::kUnknown);
  EXPECT_EQ(file.Size(), 500u) << "it is not known yet";
  world_.script.Heal();
  Pass(2);  // well before the interval is over
  EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
  EXPECT_EQ(file.Size(), 100u);
}

TEST_F(FreshnessTest, ADoubtOutlivesOwnBytesOnTheirWay) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  world_.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  world_.script.AwaitHeld(1);
  world_.Put("a", old_.substr(0, 100));
  EXPECT_EQ(World::Read(file, 300, 10), "") << "a fetch that brings too little is looked into";
  EXPECT_EQ(file.Size(), 100u);
  world_.script.Heal();
  EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3, 97));
}

TEST_F(FreshnessTest, ADoubtThatProvesUnfoundedCostsNoFetch) {
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultTruncate}, EIO, 1);
  EXPECT_EQ(file.Truncate(100).error(), EIO);
  file.Advise(vesk::Advice::kWillNeed, 0, 500);
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  const std::uint64_t stats = Stats();
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  EXPECT_EQ(Stats(), stats + 1);
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), reads);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
}

// The request would go on with what may be wrong.
TEST_F(FreshnessTest, ARequestWithoutMemoryToLookEndsAndTheNextOneLooksAgain) {
  unsigned errors = 0;
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    world_.Put("a", old_);
    FileHandle& file = world_.Open("a");
    world_.script.FailAfterwards({vesk::kFaultTruncate}, EIO, 1);
    EXPECT_EQ(file.Truncate(100).error(), EIO);  // its length is doubtful now
    Status status;
    {
      const FailingAllocation failing(nth);
      std::string bytes;
      std::size_t moved = 0;
      status = file.ReadAt(bytes.data(), 0, 0, &moved);
      fired = failing.Fired();
    }
    EXPECT_TRUE(status.ok() || status.error() == ENOMEM) << status.Message();
    EXPECT_FALSE(status.write_back());
    if (!status.ok()) ++errors;
    const std::uint64_t stats = Stats();
    EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
    if (!status.ok()) {
      EXPECT_GE(Stats(), stats + 1);
    }
    EXPECT_EQ(file.Size(), 100u);
    EXPECT_TRUE(file.Close().ok());
  }
  EXPECT_GE(errors, 1u);
}

TEST_F(FreshnessTest, AFileThatIsGoneIsStaleAndComesBack) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  ASSERT_TRUE(world_.RemoveStored("a"));
  EXPECT_EQ(World::Read(file, 0, 600), old_) << "not looked at yet";
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600, ESTALE), "") << "never an empty file";
  EXPECT_EQ(file.GetStats().freshness, Freshness::kGone);
  World::Write(file, "x", 0, ESTALE);
  world_.Put("a", new_);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), new_);
  EXPECT_TRUE(file.Close().ok());
}

TEST_F(FreshnessTest, BytesUnsavedWhenTheFileIsGoneAreStoredWhenItIsBack) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  World::Write(file, "own", 0);
  ASSERT_TRUE(world_.RemoveStored("a"));
  Pass();
  World::Read(file, 0, 600, ESTALE);
  EXPECT_EQ(file.GetStats().dirty, 3u);
  world_.Put("a", new_);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 3), "own");
  EXPECT_EQ(World::Read(file, kBlock, 600), new_.substr(kBlock));
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), "own" + new_.substr(3));
}

TEST_F(FreshnessTest, WhatStandsBesideUnsavedBytesInTheirBlockIsReadAnewToo) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  World::Write(file, "own", 0);
  world_.Put("a", new_.substr(0, 490));
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), "own" + new_.substr(3, 487));
}

TEST_F(FreshnessTest, AStoreThatCannotTellLeavesCachedBytesInService) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Fail({vesk::kFaultStat | vesk::kFaultRead}, EIO);
  for (int i = 0; i < 4; ++i) {
    Pass();
    EXPECT_EQ(World::Read(file, 0, 600), old_);
    EXPECT_EQ(file.GetStats().freshness, Freshness::kUnknown);
  }
  World::Write(file, "own", 0);
  EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3));
  world_.script.Heal();
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3));
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
}

TEST_F(FreshnessTest, AChangeWhileTheStoreCouldNotTellIsSeenAfterwards) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Fail({vesk::kFaultStat}, EIO);
  world_.Put("a", new_);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Heal();
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), new_);
}

TEST_F(FreshnessTest, BytesThatAreNotCachedAreNotMadeUpWhenTheStoreCannotTell) {
  FileHandle& file = world_.Open("a");
  World::Read(file, 0, 10);
  world_.script.Fail({vesk::kFaultStat | vesk::kFaultRead}, EIO);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
  EXPECT_EQ(World::Read(file, 300, 10, EIO), "");
  EXPECT_EQ(file.Size(), 500u);
}

// Though the file's size and time are those of before, and the bytes not old.
TEST_F(FreshnessTest, WhatWasFetchedMeanwhileIsFetchedAgainOnceTheStoreCanTell) {
  FileHandle& file = world_.Open("a");
  World::Read(file, 0, 10);
  world_.script.Fail({vesk::kFaultStat}, EIO);
  Pass();
  World::Read(file, 0, 10);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kUnknown);
  Pass(kInterval / 2);
  EXPECT_EQ(World::Read(file, 300, 10), old_.substr(300, 10));
  world_.script.Heal();
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  Pass(kInterval / 2 + 10);
  EXPECT_EQ(World::Read(file, 300, 10), old_.substr(300, 10));
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
  EXPECT_GT(world_.script.Count(vesk::kFaultRead), reads);
}

TEST_F(FreshnessTest, ByPolicyRequestsFailWhenTheStoreCannotTell) {
  world_.options.when_unknown = UnknownPolicy::kFail;
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Fail({vesk::kFaultStat}, EIO);
  EXPECT_EQ(World::Read(file, 0, 600), old_) << "known until the interval is over";
  Pass();
  std::string bytes(10, '?');
  std::size_t moved = 7;
  EXPECT_NE(file.ReadAt(bytes.data(), 10, 0, &moved).error(), 0);
  EXPECT_EQ(moved, 0u);
  EXPECT_NE(file.WriteAt("x", 1, 0).error(), 0);
  const vesk::Status append = file.Append("x", 1);
  EXPECT_NE(append.error(), 0);
  EXPECT_EQ(append.context().find("write-back"), std::string::npos) << append.context();
  const Status truncate = file.Truncate(3);
  EXPECT_NE(truncate.error(), 0);
  EXPECT_EQ(truncate.context().find("write-back"), std::string::npos) << truncate.context();
  world_.script.Heal();
  EXPECT_EQ(World::Read(file, 0, 600), old_) << "at once: each request asks";
}

TEST_F(FreshnessTest, AStoreThatHangsCannotTellAfterAWhile) {
  world_.options.check_patience = milliseconds(30);
  FileHandle& file = world_.Open("a");
  world_.Put("b", new_);
  FileHandle& other = world_.Open("b");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat, "a"});
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kUnknown);
  EXPECT_EQ(World::Read(other, 0, 600), new_);
  EXPECT_EQ(other.GetStats().freshness, Freshness::kKnown);
  world_.script.Heal();
  Pass();
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
}

TEST_F(FreshnessTest, ByPolicyRequestsFailWhenTheStoreHangs) {
  world_.options.check_patience = milliseconds(30);
  world_.options.when_unknown = UnknownPolicy::kFail;
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat, "a"});
  Pass();
  std::string bytes(10, '?');
  std::size_t moved = 0;
  EXPECT_NE(file.ReadAt(bytes.data(), 10, 0, &moved).error(), 0);
  world_.script.Heal();
  EXPECT_EQ(World::Read(file, 0, 600), old_);
}

TEST_F(FreshnessTest, ACheckEndsWithTheRequestThatMakesIt) {
  world_.options.check_patience = std::chrono::hours(1);
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat, "a"});
  world_.Put("a", new_);
  Pass();
  {
    const RequestScope scope(world_.In(milliseconds(30)));
    std::string bytes(10, '?');
    std::size_t moved = 0;
    const Status status = file.ReadAt(bytes.data(), 10, 0, &moved);
    EXPECT_TRUE(status.ok() || status.error() == ETIMEDOUT) << status.Message();
  }
  world_.script.Heal();
  EXPECT_EQ(World::Read(file, 0, 600), new_) << "the next request asks again";
}

TEST_F(FreshnessTest, OthersAreServedWhileOneRequestAsksTheStore) {
  world_.options.check_patience = std::chrono::hours(1);
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat, "a"});
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  Pass();
  Task asking([&] { EXPECT_EQ(World::Read(file, 0, 600), "own" + old_.substr(3)); });
  world_.script.AwaitHeld(1);
  Task other([&] {
    EXPECT_EQ(World::Read(file, 0, 600), old_);
    World::Write(file, "own", 0);
  });
  EXPECT_TRUE(other.Await());
  EXPECT_FALSE(asking.Ended());
  EXPECT_EQ(world_.script.held(), 1u) << "asked once";
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), reads) << "they are served what is there";
  world_.script.Heal();
  EXPECT_TRUE(asking.Await());
}

// It was looked at for another block's sake in between, when nothing had changed.
TEST_F(FreshnessTest, NoBlockOlderThanTheIntervalIsServedUnseen) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
  world_.Put("a", new_);
  Pass(2);
  EXPECT_EQ(World::Read(file, 300, 10), new_.substr(300, 10));
}

TEST_F(FreshnessTest, ByPolicyNoBlockOlderThanTheIntervalIsServedWhileOneRequestAsks) {
  world_.options.check_patience = std::chrono::hours(1);
  world_.options.when_unknown = UnknownPolicy::kFail;
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  Pass();
  EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
  world_.Put("a", new_);
  Pass(2);
  world_.script.Hold({vesk::kFaultStat, "a"});
  Task asking([&] { EXPECT_EQ(World::Read(file, 200, 10), new_.substr(200, 10)); });
  world_.script.AwaitHeld(1);
  Task other([&] { EXPECT_EQ(World::Read(file, 300, 10), new_.substr(300, 10)); });
  std::this_thread::sleep_for(milliseconds(20));  // for bytes that should not come yet
  EXPECT_FALSE(other.Ended());
  world_.script.Heal();
  EXPECT_TRUE(asking.Await());
  EXPECT_TRUE(other.Await());
}

TEST_F(FreshnessTest, ByPolicyOthersWaitWhileOneRequestAsksTheStore) {
  world_.options.check_patience = std::chrono::hours(1);
  world_.options.when_unknown = UnknownPolicy::kFail;
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat, "a"});
  world_.Put("a", new_);
  Pass();
  Task asking([&] { EXPECT_EQ(World::Read(file, 0, 600), new_); });
  world_.script.AwaitHeld(1);
  Task other([&] { EXPECT_EQ(World::Read(file, 0, 600), new_); });
  Task third([&] {
    std::string bytes(10, '?');
    std::size_t moved = 0;
    (void)file.ReadAt(bytes.data(), 10, 0, &moved);
  });
  std::this_thread::sleep_for(milliseconds(20));  // for an answer that should not come yet
  EXPECT_FALSE(third.Ended());
  third.Cancel();  // which wakes the others as well
  EXPECT_TRUE(third.Await());
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_FALSE(other.Ended());
  world_.script.Heal();
  EXPECT_TRUE(asking.Await());
  EXPECT_TRUE(other.Await());
}

// Bytes of ours that had arrived before the other program's, in another range than the one where
// that is found out. Nobody has collected their end.
TEST_F(FreshnessTest, OwnBytesThatHadArrivedDoNotHideAForeignChange) {
  const std::string old_content = FileWorld::Content(100 * kBlock);
  const std::string new_content = FileWorld::Content(80 * kBlock, 1);
  world_.Put("a", old_content);
  vesk::Services services = world_.services();
  services.reaper = nullptr;
  vesk::FileSystem files(services, world_.store(), world_.options);
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(files.Open("a", FileWorld::Writing(), &file).ok());
  for (std::uint64_t at = 0; at < 70 * kBlock; at += kBlock) {
    EXPECT_EQ(World::Read(*file, at, kBlock), old_content.substr(at, kBlock));
  }
  ASSERT_GE(file->GetStats().streams, 2u);
  World::Write(*file, "own", 0);
  EXPECT_TRUE(file->Flush().ok());
  EXPECT_EQ(world_.Stored("a").substr(0, 3), "own");
  world_.Put("a", new_content);
  EXPECT_EQ(World::Read(*file, 90 * kBlock, 10), "") << "a fetch that brings too little";
  EXPECT_EQ(World::Read(*file, 0, 100 * kBlock), new_content);
  EXPECT_TRUE(file->Close().ok());
}

// ---- where several requests meet, and who waits for whom ----

// Counts the waits: who is woken for nothing waits once more.
class WaitingClock final : public ManualClock {
 public:
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex, Time until) override
      VESK_REQUIRES(mutex) {
    ++waits;
    ManualClock::WaitUntil(condition, mutex, until);
  }

  std::atomic<unsigned> waits{0};
};

class LookTest : public ::testing::Test {
 protected:
  using World = FileWorld;

  LookTest() {
    world_.settings.refresh_interval = kInterval;
    world_.options.check_patience = std::chrono::hours(1);
    world_.Put("a", old_);
  }
  ~LookTest() override { ahead = 0; }

  static void Pass() { ahead += kInterval + 2; }

  // A request that needs to know what the file is, and nothing else.
  static void Ask(FileHandle& file) {
    char byte = 'x';
    std::size_t moved = 0;
    (void)file.ReadAt(&byte, 0, 0, &moved);
  }

  static constexpr int kInterval = 100;
  const std::string old_ = FileWorld::Content(500);
  const std::string new_ = FileWorld::Content(500, 1);
  WaitingClock clock_;  // it stands still: who waits does so until the test goes on
  FileWorld world_{FileWorld::Kind::kMemoryNoRetry, clock_};
};

TEST_F(LookTest, WhoNeedsToKnowWaitsWhileAnotherRequestLooks) {
  FileHandle& file = world_.Open("a");
  world_.script.FailAfterwards({vesk::kFaultTruncate}, EIO, 1);
  EXPECT_EQ(file.Truncate(100).error(), EIO);
  Pass();
  world_.script.Hold({vesk::kFaultStat});
  Task looking([&] { EXPECT_EQ(World::Read(file, 0, 600), old_.substr(0, 100)); });
  world_.script.AwaitHeld(1);
  Task other([&] { EXPECT_EQ(World::Read(file, 0, 600), old_.substr(0, 100)); });
  clock_.AwaitWaiters(2);
  EXPECT_FALSE(other.Ended());
  const std::uint64_t stats = world_.script.Count(vesk::kFaultStat);
  world_.script.Heal();
  EXPECT_TRUE(looking.Await());
  EXPECT_TRUE(other.Await());
  EXPECT_EQ(world_.script.Count(vesk::kFaultStat), stats) << "the store is asked once";
}

// Nobody knows anything before the one who looks does; that others are called off tells nothing.
TEST_F(LookTest, WhoWaitsForALookIsNotServedBecauseAnotherOneGivesUp) {
  world_.options.when_unknown = UnknownPolicy::kFail;
  FileHandle& file = world_.Open("a");
  ahead += kInterval * 2 / 3;
  EXPECT_EQ(World::Read(file, 0, 600), old_);  // which is not old when the store is asked
  ahead += kInterval * 2 / 3;
  world_.script.Hold({vesk::kFaultStat});
  const auto fail = [&] { World::Read(file, 0, 600, ESTALE); };
  Task looking(fail);
  world_.script.AwaitHeld(1);
  Task waiting(fail);
  clock_.AwaitWaiters(2);
  Task leaving([&] {
    std::string bytes(10, '?');
    std::size_t moved = 0;
    (void)file.ReadAt(bytes.data(), 10, 0, &moved);
  });
  clock_.AwaitWaiters(3);
  const unsigned waits = clock_.waits;
  leaving.Cancel();
  EXPECT_TRUE(leaving.Await());
  EXPECT_TRUE(World::Await([&] { return clock_.waits > waits || waiting.Ended(); }));
  EXPECT_FALSE(waiting.Ended());
  world_.script.EndHeld(EIO);
  EXPECT_TRUE(looking.Await());
  EXPECT_TRUE(waiting.Await());
  world_.script.Heal();
}

// It has less time than a look may take, and keeps half of it for what it came for.
TEST_F(LookTest, AStoreThatHangsLeavesCachedBytesInServiceForARequestWithLittleTime) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultStat | vesk::kFaultRead});
  Pass();
  for (std::size_t asked = 1; asked <= 3; ++asked) {
    Task reading([&] {
      const RequestScope scope(world_.In(milliseconds(100)));
      EXPECT_EQ(World::Read(file, 0, 600), old_);
    });
    world_.script.AwaitHeld(asked);  // nothing was concluded: each request asks
    clock_.AwaitWaiters(1);
    EXPECT_FALSE(reading.Ended());
    clock_.Advance(milliseconds(60));
    EXPECT_TRUE(reading.Await());
  }
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown);
  world_.script.Heal();
}

TEST_F(LookTest, ATruncateThatOutlastedItsRequestIsWaitedForByEverybody) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultTruncate});
  Task cutting([&] { EXPECT_EQ(file.Truncate(100).error(), ECANCELED); });
  world_.script.AwaitHeld(1);
  cutting.Cancel();
  EXPECT_TRUE(cutting.Await());
  const auto read = [&] { EXPECT_EQ(World::Read(file, 0, 600), old_.substr(0, 100)); };
  Task one(read);
  Task two(read);
  Task three(read);
  clock_.AwaitWaiters(3);
  EXPECT_FALSE(one.Ended() || two.Ended() || three.Ended());
  world_.script.Heal();
  EXPECT_TRUE(one.Await());
  EXPECT_TRUE(two.Await());
  EXPECT_TRUE(three.Await());
  EXPECT_EQ(file.Size(), 100u);
}

TEST_F(LookTest, ATruncateLeavesNothingBehindThoughItOutlastsItsRequest) {
  FileHandle& file = world_.Open("a");
  constexpr long kRounds = 50;
  const auto round = [&] {
    world_.script.Hold({vesk::kFaultTruncate}, 1);
    Task cutting([&] { EXPECT_EQ(file.Truncate(100).error(), ECANCELED); });
    world_.script.AwaitHeld(1);
    cutting.Cancel();
    EXPECT_TRUE(cutting.Await());
    world_.script.Heal();
    EXPECT_EQ(World::Read(file, 0, 10), old_.substr(0, 10));
    EXPECT_TRUE(file.Truncate(200).ok());
  };
  round();
  const long before = LiveAllocations();
  for (long i = 0; i < kRounds; ++i) round();
  EXPECT_LT(LiveAllocations(), before + kRounds) << "a job or more each time";
}

// What the store has said before it is not what its file is afterwards.
TEST_F(LookTest, ALookThatMeetsATruncateDoesNotBringTheOldLengthBack) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultTruncate});
  Task cutting([&] { EXPECT_TRUE(file.Truncate(100).ok()); });
  world_.script.AwaitHeld(1);
  world_.Put("a", new_);
  Pass();
  Task looking([&] { Ask(file); });
  clock_.AwaitWaiters(2);  // it has seen the change, and waits for the turn
  world_.script.Heal();
  EXPECT_TRUE(cutting.Await());
  EXPECT_TRUE(looking.Await());
  EXPECT_EQ(file.Size(), 100u);
  EXPECT_EQ(World::Read(file, 0, 600), new_.substr(0, 100));
}

TEST_F(LookTest, ALookThatCannotHaveTheFileIsTakenUpByTheNextRequest) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 600), old_);
  world_.script.Hold({vesk::kFaultTruncate});
  Task cutting([&] { EXPECT_TRUE(file.Truncate(500).ok()); });
  world_.script.AwaitHeld(1);
  world_.Put("a", new_);
  Pass();
  Task looking([&] { Ask(file); });
  clock_.AwaitWaiters(2);
  looking.Cancel();
  EXPECT_TRUE(looking.Await());
  world_.script.Heal();
  EXPECT_TRUE(cutting.Await());
  const std::uint64_t stats = world_.script.Count(vesk::kFaultStat);
  EXPECT_EQ(World::Read(file, 0, 600), new_);
  EXPECT_GT(world_.script.Count(vesk::kFaultStat), stats);
}

// The first look does not hold, since bytes of ours are on their way; the second one fails.
TEST_F(LookTest, ALookThatFailsHalfwayIsTakenUpByTheNextRequest) {
  std::atomic<ino_t> number{7};
  world_.script.Describe(
      [&](const std::string& /*name*/, vesk::FileInfo& info) { info.inode = number; });
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  world_.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  number = 8;
  Pass();
  world_.script.Hold({vesk::kFaultStat}, 1);
  world_.script.Fail({vesk::kFaultStat}, EIO, 1);
  Task looking([&] { Ask(file); });
  world_.script.AwaitHeld(2);
  world_.script.EndOne(1, 0);
  EXPECT_TRUE(looking.Await());
  EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown) << "it is not known yet";
  const std::uint64_t stats = world_.script.Count(vesk::kFaultStat);
  Ask(file);
  EXPECT_GT(world_.script.Count(vesk::kFaultStat), stats);
  EXPECT_EQ(file.GetStats().freshness, Freshness::kChanged);
  world_.script.Heal();
}

// What of ours arrives while the store is asked is in its answer, or not.
TEST_F(LookTest, OwnBytesThatArriveDuringALookAreNotTakenForAForeignChange) {
  for (const bool told : {false, true}) {
    world_.Put("a", old_);
    FileHandle& file = world_.Open("a");
    Pass();
    world_.script.Hold({vesk::kFaultStat}, 1);
    Task looking([&] { Ask(file); });
    world_.script.AwaitHeld(1);
    if (!told) world_.script.HoldEnds({vesk::kFaultWrite});
    World::Write(file, "far", 700);
    EXPECT_TRUE(file.Flush().ok());
    EXPECT_TRUE(World::Await([&] { return (file.GetStats().dirty == 0) == told; }));
    EXPECT_EQ(world_.Stored("a").size(), 703u);
    world_.script.EndOne(0, 0);
    EXPECT_TRUE(looking.Await());
    EXPECT_EQ(file.GetStats().freshness, Freshness::kKnown) << told;
    world_.script.Heal();
    EXPECT_TRUE(file.Close().ok());
  }
}

// A writer that has passed the first look at the file waits for its turn.
TEST_F(LookTest, AWriterWhoComesAfterATruncateIsNotCutByIt) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultTruncate});
  Task cutting([&] { EXPECT_EQ(file.Truncate(100).error(), ECANCELED); });
  world_.script.AwaitHeld(1);
  Task writing([&] {
    World::Write(file, "after", 300);
    EXPECT_TRUE(file.Sync().ok());
  });
  clock_.AwaitWaiters(2);
  const unsigned waits = clock_.waits;
  cutting.Cancel();
  EXPECT_TRUE(cutting.Await());
  EXPECT_TRUE(World::Await([&] { return clock_.waits > waits || writing.Ended(); }));
  EXPECT_FALSE(writing.Ended());
  world_.script.Heal();
  EXPECT_TRUE(writing.Await());
  EXPECT_EQ(world_.Stored("a"), old_.substr(0, 100) + std::string(200, '\0') + "after");
}

// The first look does not hold, since bytes of ours are on their way, and the second one is by the
// thread that has the turn.
TEST_F(LookTest, AFileThatGoesAwayBetweenTwoLooksIsStale) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "own", 0);
  world_.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  world_.Put("a", old_.substr(0, 100));
  world_.script.Hold({vesk::kFaultStat}, 1);
  world_.script.Fail({vesk::kFaultStat}, ENOENT);
  Task reader([&] { World::Read(file, 300, 10, ESTALE); });  // its fetch brings too little
  world_.script.AwaitHeld(2);
  world_.script.EndOne(1, 0);
  EXPECT_TRUE(reader.Await());
  EXPECT_EQ(file.GetStats().freshness, Freshness::kGone);
}

}  // namespace
}  // namespace vesk_test

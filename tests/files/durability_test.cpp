// What a successful write, flush, sync and close mean, and who hears of a failure.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/files/file_world.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using vesk::FileHandle;
using vesk::RequestScope;
using vesk::Status;

constexpr std::uint64_t kBlock = FileWorld::kBlock;

// Failing writes are kept by the runtime, or come back to the file.
class DurabilityTest : public ::testing::TestWithParam<FileWorld::Kind> {
 protected:
  using World = FileWorld;

  // A sync that has to end: a failure is told, or the time is over.
  int Sync(FileHandle& file, milliseconds time = std::chrono::seconds(2)) {
    const RequestScope scope(world_.In(time));
    return file.Sync().error();
  }

  // Waits until a write-back has failed, without asking any handle.
  void AwaitFailure(FileHandle& file) {
    EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().last_error != 0; }));
  }

  // Every byte is stored at last.
  void ExpectRecovery(FileHandle& file, const std::string& expected) {
    EXPECT_TRUE(FileWorld::Await([&] { return Sync(file) == 0; }));
    EXPECT_EQ(World::Read(file, 0, expected.size() + 9), expected);
    EXPECT_EQ(world_.Stored("a"), expected);
    EXPECT_EQ(Sync(file), 0) << "it does not stick";
  }

  FileWorld world_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Writes, DurabilityTest,
                         ::testing::Values(FileWorld::Kind::kMemory,
                                           FileWorld::Kind::kMemoryNoRetry),
                         [](const auto& kind) {
                           return kind.param == FileWorld::Kind::kMemory ? "KeptBelow" : "ComeBack";
                         });

// ---- what a success is about ----

TEST_P(DurabilityTest, SeveralSyncsOfOneHandleAllSayThatAFailingWriteIsNotStored) {
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  World::Write(file, "abc", 0);
  std::atomic<int> successes{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      if (Sync(file, milliseconds(50)) == 0) ++successes;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(successes, 0);
  world_.script.Heal();
  ExpectRecovery(file, "abc");
}

TEST_P(DurabilityTest, AFailingReadAheadIsNoFailedWriteBack) {
  world_.Put("a", World::Content(10 * kBlock));
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultRead}, ENXIO);
  file.Advise(vesk::Advice::kWillNeed, 0, 10 * kBlock);
  const Status closed = file.Close();
  EXPECT_TRUE(closed.ok()) << closed.Message();
}

// ---- what a success means ----

TEST_P(DurabilityTest, AWriteAloneReachesNoStore) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "bytes", 0);
  EXPECT_EQ(world_.script.Count(vesk::kFaultWrite), 0u);
  EXPECT_EQ(file.GetStats().dirty, 5u);
}

TEST_P(DurabilityTest, AFlushStartsEveryWriteOfEveryHandle) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  world_.script.Hold({vesk::kFaultWrite});
  World::Write(file, std::string(3 * kBlock, 'x'), 0);
  World::Write(other, "far", 10 * kBlock);
  EXPECT_LT(world_.script.held(), 4u) << "a writer that has passed a block may have shipped it";
  EXPECT_TRUE(file.Flush().ok());
  EXPECT_EQ(world_.script.held(), 4u);
  EXPECT_EQ(file.GetStats().dirty, 3 * kBlock + 3) << "they count until they are in the store";
  EXPECT_EQ(file.GetStats().in_flight, 4 * kBlock);
}

TEST_P(DurabilityTest, ASyncStoresEverythingAndThenHasTheStoreMakeItDurable) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  World::Write(other, std::string(3 * kBlock, 'x'), 0);
  world_.script.Hold({vesk::kFaultSync});
  std::thread syncing([&] { EXPECT_TRUE(file.Sync().ok()); });
  world_.script.AwaitHeld(1);
  EXPECT_EQ(world_.Stored("a"), std::string(3 * kBlock, 'x')) << "before the store is asked";
  world_.script.Heal();
  syncing.join();
  EXPECT_EQ(world_.script.Count(vesk::kFaultSync), 1u);
}

TEST_P(DurabilityTest, ACloseStoresWithoutMakingDurable) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "bytes", 0);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), "bytes");
  EXPECT_EQ(world_.script.Count(vesk::kFaultSync), 0u);
}

TEST_P(DurabilityTest, ACloseOfOneOfManyHandlesStoresToo) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  World::Write(other, "bytes", 0);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), "bytes");
  EXPECT_EQ(World::Read(other, 0, 9), "bytes");
}

TEST_P(DurabilityTest, SyncAllMakesEveryFileDurable) {
  World::Write(world_.Open("a"), "one", 0);
  World::Write(world_.Open("b"), "two", 0);
  EXPECT_TRUE(world_.files().SyncAll().ok());
  EXPECT_EQ(world_.Stored("a") + world_.Stored("b"), "onetwo");
  EXPECT_EQ(world_.script.Count(vesk::kFaultSync), 2u);
  World::Write(world_.Open("b"), "2", 0);
  for (const int error : {EIO, EPERM}) {
    world_.script.Fail({vesk::kFaultSync, "b"}, error, 1);
    const Status status = world_.files().SyncAll();
    EXPECT_EQ(status.error(), error);
    EXPECT_NE(status.context().find("'b'"), std::string::npos) << status.context();
  }
  EXPECT_TRUE(world_.files().SyncAll().ok());
}

// Nothing of it is to be stored any more.
TEST_P(DurabilityTest, SyncAllPassesOverARemovedFileThatSomebodyHasOpen) {
  FileHandle& removed = world_.Open("a");
  World::Write(removed, "one", 0);
  world_.script.Fail({vesk::kFaultWrite, "a"}, EIO, 1);
  EXPECT_EQ(removed.Sync().error(), EIO);
  EXPECT_TRUE(world_.files().Remove("a").ok());
  World::Write(world_.Open("b"), "two", 0);
  const Status status = world_.files().SyncAll();
  EXPECT_TRUE(status.ok()) << status.Message();
  EXPECT_EQ(status.context(), "");
  EXPECT_EQ(world_.Stored("b"), "two");
  EXPECT_EQ(removed.Sync().error(), ESTALE);
}

// Its failed write is met by whoever looks next.
TEST(UntendedFileTest, AFlushTellsOfAWriteThatHasFailed) {
  FileWorld world(FileWorld::Kind::kMemoryNoRetry);
  vesk::Services services = world.services();
  services.reaper = nullptr;
  vesk::FileSystem files(services, world.store(), world.options);
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(files.Open("a", FileWorld::Writing(), &file).ok());
  FileWorld::Write(*file, "bytes", 0);
  world.script.Fail({vesk::kFaultWrite}, EIO, 1);
  EXPECT_TRUE(file->Flush().ok()) << "nobody knows yet";
  const Status status = file->Flush();
  EXPECT_EQ(status.error(), EIO);
  EXPECT_TRUE(status.write_back());
  EXPECT_TRUE(file->Flush().ok());
  EXPECT_EQ(world.Stored("a"), "bytes");
}

TEST(UntendedFileTest, ADiscardGivesUpWhatHasFailed) {
  FileWorld world(FileWorld::Kind::kMemoryNoRetry);
  vesk::Services services = world.services();
  services.reaper = nullptr;
  vesk::FileSystem files(services, world.store(), world.options);
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(files.Open("a", FileWorld::Writing(), &file).ok());
  FileWorld::Write(*file, "bytes", 0);
  world.script.Fail({vesk::kFaultWrite}, EIO, 1);
  EXPECT_TRUE(file->Flush().ok()) << "nobody knows yet";
  file->Discard();
  EXPECT_EQ(file->GetStats().dirty, 0u);
  EXPECT_EQ(files.memory_used(), 0u);
  EXPECT_TRUE(file->Close().ok());
  EXPECT_EQ(world.Stored("a"), "");
}

// ---- a failing write-back ----

TEST_P(DurabilityTest, EachHandleOpenAtTheTimeIsToldOnceByItsNextSyncFlushOrClose) {
  FileHandle& writer = world_.Open("a");
  FileHandle& syncs = world_.Open("a");
  FileHandle& flushes = world_.Open("a");
  FileHandle& closes = world_.Open("a", {});
  World::Write(writer, "bytes", 0);
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  (void)writer.Flush();  // whether it meets the failure that it starts is a matter of time
  AwaitFailure(writer);
  FileHandle& later = world_.Open("a");

  EXPECT_EQ(Sync(syncs), ENOSPC);
  EXPECT_EQ(flushes.Flush().error(), ENOSPC);
  const Status close = closes.Close();
  EXPECT_EQ(close.error(), ENOSPC);
  EXPECT_NE(close.context().find("write-back of 'a'"), std::string::npos) << close.context();
  EXPECT_NE(close.context().find("5 bytes not in the store"), std::string::npos) << close.context();

  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return Sync(later) == 0; }));
  EXPECT_EQ(Sync(later), 0) << "it was not open at the time";
  for (FileHandle* const told : {&syncs, &flushes, &closes}) {
    // Each of the three above began the write anew, which failed anew.
    if (GetParam() == FileWorld::Kind::kMemoryNoRetry) (void)Sync(*told);
    EXPECT_EQ(Sync(*told), 0);
  }
  EXPECT_EQ(world_.Stored("a"), "bytes");
}

TEST_P(DurabilityTest, AHandleThatWasNotAskedMeanwhileIsToldAfterTheRecoveryToo) {
  FileHandle& writer = world_.Open("a");
  FileHandle& other = world_.Open("a");
  World::Write(writer, "bytes", 0);
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_EQ(Sync(writer), EIO);
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return Sync(writer) == 0; }));
  EXPECT_EQ(Sync(other), EIO);
  EXPECT_EQ(Sync(other), 0);
}

TEST_P(DurabilityTest, BytesWhoseWriteFailsAreReadAndStoredInTheEnd) {
  FileHandle& file = world_.Open("a");
  const std::string content = FileWorld::Content(500);
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  World::Write(file, content, 0);
  EXPECT_EQ(Sync(file), ENOSPC);
  EXPECT_EQ(World::Read(file, 0, 600), content);
  EXPECT_EQ(World::Read(world_.Open("a", {}), 100, 600), content.substr(100));
  EXPECT_EQ(file.GetStats().dirty, 500u);
  EXPECT_EQ(file.GetStats().last_error, ENOSPC);
  world_.files().Tend();
  world_.script.Heal();
  ExpectRecovery(file, content);
  EXPECT_EQ(file.GetStats().dirty, 0u);
  EXPECT_EQ(file.GetStats().parked, 0u);
}

TEST_P(DurabilityTest, OnlySomeBlocksFailAndTheOthersAreStored) {
  FileHandle& file = world_.Open("a");
  const std::string content = FileWorld::Content(10 * kBlock);
  world_.script.Fail({vesk::kFaultWrite, "a", 3 * kBlock, 5 * kBlock}, EIO);
  World::Write(file, content, 0);
  EXPECT_EQ(Sync(file), EIO);
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().dirty == 2 * kBlock; }));
  std::string stored = world_.Stored("a");
  EXPECT_EQ(stored.substr(0, 3 * kBlock), content.substr(0, 3 * kBlock));
  EXPECT_EQ(stored.substr(5 * kBlock), content.substr(5 * kBlock));
  world_.script.Heal();
  ExpectRecovery(file, content);
}

TEST_P(DurabilityTest, AWriteThatDoesNotMeetTheFailingBlockGoesOn) {
  FileHandle& file = world_.Open("a");
  World::Write(file, std::string(kBlock, 'x'), 0);
  world_.script.Fail({vesk::kFaultWrite, "a", 0, kBlock}, EIO);
  EXPECT_EQ(Sync(file), EIO);
  World::Write(file, std::string(kBlock, 'y'), 5 * kBlock);
  EXPECT_EQ(World::Read(file, 5 * kBlock, 2 * kBlock), std::string(kBlock, 'y'));
  world_.script.Heal();
  ExpectRecovery(
      file, std::string(kBlock, 'x') + std::string(4 * kBlock, '\0') + std::string(kBlock, 'y'));
}

TEST_P(DurabilityTest, AFlushNeverSaysSuccessToWhoHasNotBeenTold) {
  FileHandle& file = world_.Open("a");
  int told = 0;
  world_.script.Fail({vesk::kFaultWrite}, EIO, 1);
  World::Write(file, "bytes", 0);
  EXPECT_TRUE(FileWorld::Await([&] {
    if (file.Flush().error() == EIO) ++told;
    return file.GetStats().dirty == 0;
  }));
  if (file.Flush().error() == EIO) ++told;
  EXPECT_EQ(told, 1);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), "bytes");
}

TEST_P(DurabilityTest, ASecondFailureAfterASuccessIsToldAgain) {
  FileHandle& file = world_.Open("a");
  for (const int error : {EIO, ENOSPC, EIO}) {
    World::Write(file, "bytes", 0);
    world_.script.Fail({vesk::kFaultWrite}, error);
    EXPECT_EQ(Sync(file), error);
    world_.script.Heal();
    EXPECT_TRUE(FileWorld::Await([&] { return Sync(file) == 0; }));
  }
}

TEST_P(DurabilityTest, ACloseWithUnsavedBytesSaysSoAndTheHandleGoesOn) {
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  World::Write(file, std::string(100, 'x'), 0);
  Status status;
  {
    const RequestScope scope(world_.In(kPatience));
    status = file.Close();
  }
  EXPECT_EQ(status.error(), ENOSPC);
  EXPECT_TRUE(status.write_back());
  EXPECT_NE(status.context().find("100 bytes not in the store"), std::string::npos)
      << status.context();
  EXPECT_EQ(World::Read(file, 0, 200), std::string(100, 'x'));
  World::Write(file, "more", 1000);
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return file.Close().ok(); }));
  EXPECT_EQ(world_.Stored("a"), std::string(100, 'x') + std::string(900, '\0') + "more");
}

TEST_P(DurabilityTest, AfterADiscardACloseSucceedsAndTheBytesAreGone) {
  world_.Put("a", std::string(200, 'o'));
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, EROFS);
  World::Write(file, std::string(200, 'n'), 0);
  EXPECT_EQ(Sync(file), EROFS);
  World::Write(file, "grown", 500);
  file.Discard();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().dirty == 0; }));
  EXPECT_TRUE(FileWorld::Await([&] { return file.Close().ok(); }));
  world_.script.Heal();
  EXPECT_EQ(world_.Stored("a"), std::string(200, 'o'));
  FileHandle& again = world_.Open("a");
  EXPECT_EQ(again.Size(), 200u);
  EXPECT_EQ(World::Read(again, 0, 300), std::string(200, 'o'));
}

// The first failure was not told, the second one comes while it waits; all of it was given up.
TEST(DiscardTest, ACloseIsNotToldOfWhatWasGivenUpThoughItFailsMeanwhile) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  FileHandle& file = world.Open("a");
  FileHandle& other = world.Open("a");
  FileWorld::Write(file, "given up", 0);
  world.script.Fail({vesk::kFaultWrite}, EIO, 1);
  EXPECT_EQ(other.Sync().error(), EIO);
  world.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(other.Flush().ok());
  world.script.AwaitHeld(1);
  file.Discard();
  Task closing([&] {
    const Status status = file.Close();
    EXPECT_TRUE(status.ok()) << status.Message();
  });
  clock.AwaitWaiters(1);
  world.script.EndHeld(EIO);
  EXPECT_TRUE(closing.Await());
  world.script.Heal();
}

TEST_P(DurabilityTest, AfterADiscardACloseStillSaysWhatElseIsNotStored) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  World::Write(file, "given up", 0);
  (void)file.Flush();
  file.Discard();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().dirty == 0; }));
  World::Write(other, "kept", 100);
  Task closing([&] { EXPECT_EQ(file.Close().error(), EIO); });
  EXPECT_TRUE(closing.Await());
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return other.Close().ok(); }));
  EXPECT_EQ(world_.Stored("a").substr(100), "kept");
}

TEST_P(DurabilityTest, AfterADiscardReadersSeeWhatTheStoreHas) {
  world_.Put("a", std::string(200, 'o'));
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, EROFS);
  World::Write(file, std::string(200, 'n'), 0);
  EXPECT_EQ(Sync(file), EROFS);
  file.Discard();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().dirty == 0; }));
  EXPECT_EQ(World::Read(other, 0, 300), std::string(200, 'o'));
  world_.script.Heal();
  World::Write(other, "kept", 0);
  EXPECT_TRUE(FileWorld::Await([&] { return Sync(other) == 0; }));
  EXPECT_EQ(world_.Stored("a"), "kept" + std::string(196, 'o'));
}

TEST_P(DurabilityTest, WhatIsWrittenAfterADiscardIsKeptWhenItsWriteFails) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "lost", 0);
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_EQ(Sync(file), EIO);
  file.Discard();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().dirty == 0; }));
  World::Write(file, "kept", 0);
  EXPECT_EQ(Sync(file), EIO);
  EXPECT_EQ(World::Read(file, 0, 9), "kept");
  EXPECT_EQ(file.GetStats().dirty, 4u);
  world_.script.Heal();
  ExpectRecovery(file, "kept");
}

// What it says it has given up is not what was written afterwards.
TEST_P(DurabilityTest, ACloseTellsOfAFailureOfWhatWasWrittenAfterADiscard) {
  for (const bool append : {false, true}) {
    FileHandle& file = world_.Open("a");
    World::Write(file, "lost", 0);
    file.Discard();
    world_.script.Fail({vesk::kFaultWrite}, EIO, 1);
    if (append) {
      EXPECT_TRUE(file.Append("kept", 4).ok());
    } else {
      World::Write(file, "kept", 0);
    }
    const Status status = file.Close();
    EXPECT_EQ(status.error(), EIO);
    EXPECT_TRUE(status.write_back());
    world_.script.Heal();
    EXPECT_TRUE(FileWorld::Await([&] { return file.Close().ok(); }));
  }
}

TEST_P(DurabilityTest, ADiscardOfOneFileLeavesTheOthers) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  World::Write(file, "lost", 0);
  World::Write(other, "kept", 0);
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_EQ(Sync(file), EIO);
  EXPECT_EQ(Sync(other), EIO);
  file.Discard();
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return Sync(other) == 0; }));
  EXPECT_EQ(world_.Stored("b"), "kept");
}

TEST_P(DurabilityTest, AFailedSyncOfTheStoreIsToldToEveryHandleOnce) {
  FileHandle& one = world_.Open("a");
  FileHandle& two = world_.Open("a");
  World::Write(one, "bytes", 0);
  world_.script.Fail({vesk::kFaultSync}, EIO, 1);
  EXPECT_EQ(Sync(one), EIO);
  EXPECT_EQ(Sync(one), 0) << "told";
  EXPECT_EQ(two.Flush().error(), EIO) << "its bytes may be lost as well";
  EXPECT_EQ(two.Flush().error(), 0);
  FileHandle& later = world_.Open("a");
  EXPECT_EQ(Sync(later), 0);
  EXPECT_EQ(one.GetStats().last_error, EIO);
  EXPECT_TRUE(one.Close().ok());
  EXPECT_TRUE(two.Close().ok());
}

// Systems report lost bytes once: whoever hears of them afterwards hears of them here.
TEST_P(DurabilityTest, ASyncOfTheStoreThatFailsAfterItsRequestIsToldToEveryHandleOnce) {
  FileHandle& one = world_.Open("a");
  FileHandle& two = world_.Open("a");
  World::Write(one, "bytes", 0);
  world_.script.Hold({vesk::kFaultSync}, 1);
  Task syncing([&] { EXPECT_EQ(one.Sync().error(), ECANCELED); });
  world_.script.AwaitHeld(1);
  syncing.Cancel();
  EXPECT_TRUE(syncing.Await());
  world_.script.EndHeld(EIO);
  for (FileHandle* const file : {&one, &two}) {
    EXPECT_EQ(Sync(*file), EIO);
    EXPECT_EQ(Sync(*file), 0) << "told";
  }
  EXPECT_EQ(one.GetStats().last_error, EIO);
}

TEST_P(DurabilityTest, ASyncOfTheStoreThatEndsWellAfterItsRequestIsNoFailure) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "bytes", 0);
  for (const bool ended : {false, true}) {
    world_.script.Hold({vesk::kFaultSync}, 1);
    Task syncing([&] { EXPECT_EQ(file.Sync().error(), ECANCELED); });
    world_.script.AwaitHeld(1);
    syncing.Cancel();
    EXPECT_TRUE(syncing.Await());
    if (ended) world_.script.EndOne(0, 0);
    EXPECT_EQ(Sync(file, milliseconds(50)), ended ? 0 : ETIMEDOUT)
        << "it may be told of lost bytes";
    world_.script.Heal();
    EXPECT_EQ(Sync(file), 0);
  }
  EXPECT_EQ(file.GetStats().last_error, 0);
}

// Which is told to one sync alone, and that may end after another one.
TEST_P(DurabilityTest, ASyncIsNoSuccessBeforeAnEarlierOneThatIsToldOfLostBytes) {
  FileHandle& one = world_.Open("a");
  FileHandle& two = world_.Open("a");
  World::Write(two, "bytes", 0);
  world_.script.Hold({vesk::kFaultSync}, 2);
  Task earlier([&] { EXPECT_EQ(one.Sync().error(), EIO); });
  world_.script.AwaitHeld(1);
  Task later([&] { EXPECT_EQ(two.Sync().error(), EIO); });
  world_.script.AwaitHeld(2);
  world_.script.EndOne(1, 0);
  std::this_thread::sleep_for(milliseconds(20));  // for a success that should not be told
  EXPECT_FALSE(later.Ended());
  world_.script.EndOne(0, EIO);
  EXPECT_TRUE(earlier.Await());
  EXPECT_TRUE(later.Await());
}

// Though its error has the number of the request's own limits, which are over as well.
TEST_P(DurabilityTest, ASyncThatTheStoreEndsWithItsOwnTimeoutHasFailed) {
  FileHandle& one = world_.Open("a");
  FileHandle& two = world_.Open("a");
  world_.script.Fail({vesk::kFaultSync}, ETIMEDOUT, 1);
  EXPECT_EQ(Sync(one, milliseconds(0)), ETIMEDOUT);
  EXPECT_EQ(Sync(two), ETIMEDOUT) << "its bytes may be lost as well";
  EXPECT_EQ(Sync(two), 0);
}

// Both wait for the store, which tells only one of them.
TEST_P(DurabilityTest, ASyncIsNoSuccessWhenAnotherOneIsToldMeanwhileThatBytesAreLost) {
  FileHandle& one = world_.Open("a");
  FileHandle& two = world_.Open("a");
  World::Write(two, "bytes", 0);
  world_.script.Hold({vesk::kFaultSync}, 2);
  Task first([&] { EXPECT_EQ(one.Sync().error(), EIO); });
  world_.script.AwaitHeld(1);
  Task second([&] { EXPECT_EQ(two.Sync().error(), EIO); });
  world_.script.AwaitHeld(2);
  world_.script.EndOne(0, EIO);
  EXPECT_TRUE(first.Await());
  world_.script.EndOne(0, 0);
  EXPECT_TRUE(second.Await());
  EXPECT_EQ(Sync(one), 0) << "told";
  EXPECT_EQ(Sync(two), 0) << "told";
}

TEST_P(DurabilityTest, AListenerHearsOfEachFailureAtOnceUntilItsHandleIsGone) {
  std::atomic<int> heard{0};
  FileHandle& other = world_.Open("a");
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(world_.files().Open("a", FileWorld::Writing(), &file).ok());
  file->OnWriteFailure([&](const vesk::WriteFailure& failure) {
    EXPECT_EQ(failure.error, ENOSPC);
    EXPECT_EQ(failure.offset, 0u);
    ++heard;
  });
  World::Write(*file, "bytes", 0);
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  (void)other.Flush();
  AwaitFailure(other);
  if (GetParam() == FileWorld::Kind::kMemory) {
    EXPECT_GE(heard, 1);
  }
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return file->Close().ok(); }));
  file.reset();
  heard = 0;
  World::Write(other, "again", 0);
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_TRUE(FileWorld::Await([&] { return Sync(other) == EIO; }));
  EXPECT_EQ(heard, 0);
}

TEST_P(DurabilityTest, AStoreThatIsDownForAWhileLosesNothing) {
  FileHandle& file = world_.Open("a");
  const std::string content = FileWorld::Content(kBlock * 300);
  std::atomic<bool> down{false};
  std::thread outage([&] {
    EXPECT_TRUE(FileWorld::Await([&] { return down.load(); }));
    AwaitFailure(file);
    world_.script.Heal();
  });
  for (std::size_t at = 0; at < content.size(); at += 50) {
    if (at == 50 * 100) {
      world_.script.Fail({vesk::kFaultWrite}, EIO);
      down = true;
    }
    const std::string piece = content.substr(at, 50);
    EXPECT_TRUE(
        FileWorld::Await([&] { return file.WriteAt(piece.data(), piece.size(), at).ok(); }));
    if (at % 2000 == 0) (void)file.Flush();
  }
  outage.join();
  ExpectRecovery(file, content);
}

TEST_P(DurabilityTest, ManyThreadsOverAFlakyStoreLoseNothing) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kPart = kBlock * 40;
  world_.options.memory = 64 * kBlock;
  FileHandle& file = world_.Open("a");
  std::atomic<bool> done{false};
  std::thread chance([&] {
    while (!done) {
      world_.script.Fail({vesk::kFaultWrite}, EIO, 3);
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  const std::string content = FileWorld::Content(kThreads * kPart);
  std::vector<std::thread> writers;
  for (std::size_t t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      FileHandle& mine = file;
      for (std::size_t at = t * kPart; at < (t + 1) * kPart; at += 40) {
        const std::size_t length = std::min<std::size_t>(40, (t + 1) * kPart - at);
        EXPECT_TRUE(
            FileWorld::Await([&] { return mine.WriteAt(content.data() + at, length, at).ok(); }));
        if (at % 3 == 0) (void)mine.Flush();
        EXPECT_EQ(World::Read(mine, at, length), content.substr(at, length));
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  done = true;
  chance.join();
  world_.script.Heal();
  ExpectRecovery(file, content);
}

// Without limits: it waits for no store that takes nothing.
TEST_P(DurabilityTest, WhatNeedsAFileThatCannotBeStoredSaysSoAtOnce) {
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  World::Write(file, "kept", 0);
  Task task([&] {
    for (int i = 0; i < 2; ++i) {  // a failure that comes, and one that is there
      const Status status = file.Truncate(2);
      EXPECT_EQ(status.error(), ENOSPC);
      EXPECT_TRUE(status.write_back());
      EXPECT_EQ(status.context(), "write-back of 'a'");
    }
    EXPECT_EQ(world_.files().Rename("a", "b").error(), ENOSPC);
  });
  EXPECT_TRUE(task.Await());
  EXPECT_EQ(World::Read(file, 0, 9), "kept");
  world_.script.Heal();
  ExpectRecovery(file, "kept");
}

// ---- the failing block itself, kept in flight by the runtime ----

class KeptWriteTest : public ::testing::Test {
 protected:
  using World = FileWorld;

  FileWorld world_;
};

TEST_F(KeptWriteTest, AWriteThatHasToWaitForTheFailingBlockIsToldAtOnce) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "bytes", 0);
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  (void)file.Flush();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().last_error != 0; }));
  std::size_t moved = 7;
  const Status status = file.WriteAt("x", 1, 0, &moved);  // without a limit: it would wait for ever
  EXPECT_EQ(status.error(), ENOSPC);
  EXPECT_EQ(status.context(), "write-back of 'a'");
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(World::Read(file, 0, 5), "bytes");
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return file.WriteAt("x", 1, 0).ok(); }));
}

TEST_F(KeptWriteTest, AnotherErrorDoesNotSwallowAFailedWrite) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  World::Write(file, "bytes", 0);
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  EXPECT_EQ(other.Sync().error(), ENOSPC);
  EXPECT_EQ(file.Truncate(~std::uint64_t{0}).error(), EFBIG);
  EXPECT_EQ(file.Flush().error(), ENOSPC);
  world_.script.Heal();
}

TEST_F(KeptWriteTest, WhoRunsIntoAFailedWriteHasBeenToldOfIt) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("a");
  World::Write(file, "bytes", 0);
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  EXPECT_EQ(other.Sync().error(), ENOSPC);
  World::Write(file, "x", 0, ENOSPC);
  EXPECT_TRUE(file.Flush().ok()) << "told twice";
  world_.script.Heal();
}

// Its own bytes are not taken, since those on their way would be lost without a word.
TEST(WriteThatIsNotKeptTest, WhoWaitsForItIsToldWhenItFails) {
  FileWorld world(FileWorld::Kind::kMemoryNoRetry);
  FileHandle& file = world.Open("a");
  FileWorld::Write(file, "bytes", 0);
  world.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  world.script.AwaitHeld(1);
  const int references = world.script.HeldReferences();
  Task writer([&] { FileWorld::Write(file, "x", 0, EIO); });
  EXPECT_TRUE(FileWorld::Await([&] { return world.script.HeldReferences() > references; }));
  world.script.EndHeld(EIO);
  EXPECT_TRUE(writer.Await());
  world.script.Heal();
}

TEST_F(KeptWriteTest, AWriteThatWaitsWhenTheFailureComesIsToldAtOnce) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "bytes", 0);
  world_.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  std::thread writer([&] { World::Write(file, "x", 0, EIO); });
  world_.script.AwaitHeld(1);
  world_.script.EndHeld(EIO);
  writer.join();
  world_.script.Heal();
}

TEST_F(KeptWriteTest, ASyncThatWaitsWhenTheFailureComesIsToldAtOnce) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultWrite});
  World::Write(file, std::string(3 * kBlock, 'x'), 0);
  std::thread syncing([&] { EXPECT_EQ(file.Sync().error(), ENOSPC); });
  world_.script.AwaitHeld(3);
  world_.script.EndOne(2, ENOSPC);  // while the first one is waited for
  syncing.join();
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return file.Sync().ok(); }));
  EXPECT_EQ(world_.Stored("a"), std::string(3 * kBlock, 'x'));
}

TEST_F(KeptWriteTest, AFailureThatWasToldDoesNotEndALaterWait) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "bytes", 0);
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_EQ(file.Sync().error(), EIO);
  {
    const RequestScope scope(world_.In(milliseconds(30)));
    EXPECT_EQ(file.Sync().error(), ETIMEDOUT) << "it is not stored, and that has been told";
  }
  std::thread syncing([&] { EXPECT_TRUE(file.Sync().ok()); });
  world_.script.Heal();
  syncing.join();
  EXPECT_EQ(world_.Stored("a"), "bytes");
}

TEST_F(KeptWriteTest, ParkedBytesAreCounted) {
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  World::Write(file, std::string(kBlock + 10, 'x'), 0);
  EXPECT_EQ(file.Sync().error(), EIO);
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().parked == kBlock + 10; }));
  EXPECT_EQ(world_.files().GetStats().parked, kBlock + 10);
  EXPECT_GT(file.GetStats().in_flight, 0u);
  world_.script.Heal();
}

TEST_F(KeptWriteTest, ADiscardIsForgottenWithTheLastHandle) {
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  for (unsigned i = 0; i < 2; ++i) {
    std::unique_ptr<FileHandle> file;
    ASSERT_TRUE(world_.files().Open("a", FileWorld::Writing(), &file).ok());
    World::Write(*file, "bytes", 0);
    (void)file->Flush();
    EXPECT_TRUE(FileWorld::Await([&] { return file->GetStats().parked == 5; })) << "time " << i;
    file->Discard();
    EXPECT_TRUE(FileWorld::Await([&] { return file->GetStats().dirty == 0; }));
    World::Write(*file, "again", 0);
    (void)file->Flush();
    EXPECT_TRUE(FileWorld::Await([&] { return file->GetStats().in_flight == 0; })) << "it is kept";
    file->Discard();
    (void)file->Close();
  }
  world_.script.Heal();
}

// It was said of what the file had then, by the name that it had then.
TEST_F(KeptWriteTest, ADiscardIsForgottenWithARename) {
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  World::Write(file, "given up", 0);
  (void)file.Flush();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().parked == 8; }));
  file.Discard();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().dirty == 0; }));
  EXPECT_TRUE(world_.files().Rename("a", "b").ok());
  FileHandle& next = world_.Open("a");
  World::Write(file, "renamed", 0);
  World::Write(next, "next", 0);
  (void)file.Flush();
  (void)next.Flush();
  EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().parked == 7; }));
  EXPECT_TRUE(FileWorld::Await([&] { return next.GetStats().parked == 4; }));
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return file.Close().ok(); }));
  EXPECT_TRUE(FileWorld::Await([&] { return next.Close().ok(); }));
  EXPECT_EQ(world_.Stored("a"), "next");
  EXPECT_EQ(world_.Stored("b"), "renamed");
}

TEST(HeldWriteTest, ASyncThatIsCalledOffIsNoSuccessThoughOneOfItsWritesHasEnded) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  FileHandle& file = world.Open("a");
  world.script.Hold({vesk::kFaultWrite});
  FileWorld::Write(file, std::string(3 * kBlock, 'x'), 0);
  Task syncing([&] { EXPECT_EQ(file.Sync().error(), ECANCELED); });
  world.script.AwaitHeld(3);
  clock.AwaitWaiters(1);
  world.script.EndOne(0, 0);
  syncing.Cancel();
  EXPECT_TRUE(syncing.Await());
  world.script.Heal();
}

// They have ended badly, and were not given up: the file goes on.
TEST(ParkedWriteTest, ASyncIsNotOverBecauseARemovalThatFailsHasEndedItsWrites) {
  ManualClock clock;  // it stands still: no write is tried again by itself
  FileWorld world(FileWorld::Kind::kMemory, clock);
  FileHandle& file = world.Open("a");
  FileWorld::Write(file, "bytes", 0);
  world.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_EQ(file.Sync().error(), EIO);
  Task syncing([&] { EXPECT_EQ(file.Sync().error(), EIO); });
  clock.AwaitWaiters(2);  // this one, and the parked write
  world.script.Fail({vesk::kFaultRemove}, EACCES, 1);
  EXPECT_EQ(world.files().Remove("a").error(), EACCES);
  EXPECT_TRUE(syncing.Await());
  EXPECT_EQ(FileWorld::Read(file, 0, 9), "bytes");
  world.script.Heal();
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world.Stored("a"), "bytes");
}

// Whether the file stays is not known before, and nothing of it sets out until then.
TEST(HeldWriteTest, NothingIsStoredBesideARemovalBeforeItHasFailed) {
  for (const bool replacing : {false, true}) {
    ManualClock clock;
    FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
    world.Put("other", "other");
    FileHandle& file = world.Open("a");
    FileHandle& closes = world.Open("a");
    FileWorld::Write(file, "bytes", 0);
    world.script.Hold({vesk::kFaultRemove | vesk::kFaultRename}, 1);
    Task removing([&] {
      const Status status =
          replacing ? world.files().Rename("other", "a") : world.files().Remove("a");
      EXPECT_EQ(status.error(), EACCES);
    });
    world.script.AwaitHeld(1);
    const auto expect_stored = [&](const Status& status) {
      EXPECT_TRUE(status.ok()) << status.Message();
      EXPECT_EQ(world.Stored("a"), "bytes");
    };
    Task syncing([&] { expect_stored(file.Sync()); });
    Task syncing_all([&] { expect_stored(world.files().SyncAll()); });
    Task closing([&] { expect_stored(closes.Close()); });
    clock.AwaitWaiters(4);
    EXPECT_FALSE(syncing.Ended() || syncing_all.Ended() || closing.Ended());
    world.script.EndHeld(EACCES);
    EXPECT_TRUE(removing.Await());
    EXPECT_TRUE(syncing.Await());
    EXPECT_TRUE(syncing_all.Await());
    EXPECT_TRUE(closing.Await());
  }
}

TEST(HeldWriteTest, ASyncBesideARemovalThatTakesPlaceIsNoSuccess) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  FileHandle& file = world.Open("a");
  FileWorld::Write(file, "never", 0);
  world.script.Hold({vesk::kFaultRemove});
  Task removing([&] { EXPECT_TRUE(world.files().Remove("a").ok()); });
  world.script.AwaitHeld(1);
  Task syncing([&] { EXPECT_EQ(file.Sync().error(), ESTALE); });
  clock.AwaitWaiters(2);
  world.script.Heal();
  EXPECT_TRUE(removing.Await());
  EXPECT_TRUE(syncing.Await());
  EXPECT_EQ(world.Stored("a"), "(no file)");
}

// Its error was told before, so that no count of failures gives it away: it is parked when the sync
// comes to its range, and collected when the sync comes to the next one.
TEST(ParkedWriteTest, ASyncIsNoSuccessWhenAFailingWriteIsGivenUpWhileItStartsOthers) {
  FileWorld world;
  world.settings.retry_first_delay_ms = 3600 * 1000;  // no write is tried again by itself
  world.settings.retry_longest_delay_ms = 3600 * 1000;
  std::atomic<bool> armed{false};
  world.script.Meet({vesk::kFaultWrite}, [&] {
    if (!armed.exchange(false)) return;
    EXPECT_EQ(world.retry->Discard("a"), 1u);  // as when it has been parked for too long
    EXPECT_TRUE(FileWorld::Await([&] { return world.files().GetStats().in_flight == kBlock; }));
  });
  FileHandle& file = world.Open("a");
  constexpr std::uint64_t kLast = 39 * 2 * kBlock;
  for (std::uint64_t at = 0; at <= kLast; at += 2 * kBlock) {
    FileWorld::Write(file, std::string(kBlock, 'o'), at);
  }
  ASSERT_TRUE(file.Sync().ok());
  ASSERT_GE(file.GetStats().streams, 2u);
  world.script.Fail({vesk::kFaultWrite}, EIO, 1);
  FileWorld::Write(file, "lower", 0);
  EXPECT_EQ(file.Sync().error(), EIO);
  FileWorld::Write(file, "upper", kLast);
  armed = true;
  EXPECT_EQ(file.Sync().error(), EIO);
  EXPECT_FALSE(armed) << "nothing was given up";
  EXPECT_TRUE(FileWorld::Await([&] { return file.Sync().ok(); }));
  EXPECT_EQ(world.Stored("a").substr(0, 5), "lower");
}

// Parked and held writes go by name: none may arrive in a file that has the name later.
TEST_F(KeptWriteTest, AParkedWriteOfARemovedFileDoesNotReachItsSuccessor) {
  FileHandle& file = world_.Open("a");
  World::Write(file, "old", 0);
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_EQ(file.Sync().error(), EIO);
  EXPECT_TRUE(world_.files().Remove("a").ok());
  world_.script.Heal();
  FileHandle& next = world_.Open("a");
  World::Write(next, "new bytes", 0);
  EXPECT_TRUE(next.Close().ok());
  (void)file.Close();
  EXPECT_EQ(world_.dispatcher().GetStats().depth, 0u);
  EXPECT_EQ(world_.Stored("a"), "new bytes");
}

// ---- reads that fail ----

TEST_P(DurabilityTest, AFailedReadIsToldAndTheNextOneTriesAgain) {
  const std::string content = FileWorld::Content(300);
  world_.Put("a", content);
  world_.settings.retry_read_attempts = 1;
  FileHandle& file = world_.Open("a");
  world_.script.Fail({vesk::kFaultRead, "a", 2 * kBlock, 3 * kBlock}, EIO);
  std::string bytes(300, '?');
  std::size_t moved = 7;
  const Status status = file.ReadAt(bytes.data(), 300, 0, &moved);
  EXPECT_EQ(status.error(), EIO);
  EXPECT_EQ(status.context(), "read of 'a'");
  EXPECT_EQ(moved, 2 * kBlock) << "what could be fetched before";
  EXPECT_EQ(bytes.substr(0, moved), content.substr(0, moved));
  EXPECT_EQ(bytes.substr(moved), std::string(300 - moved, '?'))
      << "and nothing in place of the rest";
  world_.script.Heal();
  EXPECT_EQ(World::Read(file, 0, 400), content);
  EXPECT_EQ(Sync(file), 0) << "no write has failed";
  EXPECT_FALSE(file.Broken());
}

TEST_P(DurabilityTest, AReadErrorGoesToEveryoneWhoWaitsForThatFetch) {
  const std::string content = FileWorld::Content(300);
  world_.Put("a", content);
  world_.settings.retry_read_attempts = 1;
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultRead});
  std::atomic<int> told{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 4; ++t) {
    readers.emplace_back([&] {
      EXPECT_EQ(World::Read(file, 5, 20, EIO), "");
      ++told;
    });
  }
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(FileWorld::Await([&] {
    world_.script.EndHeld(EIO);  // and what a reader that came late has begun
    return told == 4;
  }));
  for (std::thread& reader : readers) reader.join();
  world_.script.Heal();
  EXPECT_EQ(World::Read(file, 0, 400), content);
}

TEST_P(DurabilityTest, NoOldBytesAreReadAfterAFailedReadAndAWrite) {
  world_.Put("a", FileWorld::Content(kBlock * 100));
  world_.settings.retry_read_attempts = 1;
  world_.options.memory = 4 * kBlock;
  for (const int refresh : {0, 60}) {
    world_.settings.refresh_interval = refresh;
    FileHandle& file = world_.Open("a");
    world_.script.Fail({vesk::kFaultRead}, EIO, 1);
    World::Read(file, 0, kBlock, EIO);
    World::Read(file, 0, kBlock);
    World::Write(file, std::string(kBlock, 'w'), 0);
    EXPECT_EQ(Sync(file), 0);
    for (unsigned int i = 0; i < 12; ++i) {
      World::Read(file, (i + 2) * kBlock, kBlock);
      EXPECT_EQ(World::Read(file, 0, kBlock), std::string(kBlock, 'w')) << i;
    }
    EXPECT_TRUE(file.Close().ok());
  }
}

TEST_P(DurabilityTest, ABlockWhoseReadFailedTakesAWriteAndLosesNoOther) {
  std::string expected = FileWorld::Content(kBlock * 100);
  world_.Put("a", expected);
  world_.settings.retry_read_attempts = 1;
  FileHandle& file = world_.Open("a");
  World::Write(file, "dirty", kBlock * 50);
  world_.script.Fail({vesk::kFaultRead}, EIO, 2);
  World::Read(file, kBlock * 20, kBlock, EIO);
  World::Read(file, 0, kBlock, EIO);
  World::Write(file, "new", kBlock * 20);
  World::Write(file, "new", 0);
  expected.replace(kBlock * 50, 5, "dirty").replace(kBlock * 20, 3, "new").replace(0, 3, "new");
  EXPECT_EQ(World::Read(file, 0, expected.size()), expected);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a"), expected);
}

// A block that holds written bytes at its front only: the rest has to come from the store.
TEST_P(DurabilityTest, AReaderOfAPartlyWrittenBlockGetsNoZerosWhenTheStoreFails) {
  const std::string content = FileWorld::Content(kBlock * 4);
  world_.Put("a", content);
  world_.settings.retry_read_attempts = 1;
  FileHandle& file = world_.Open("a");
  World::Write(file, "new", kBlock);
  world_.script.Fail({vesk::kFaultRead}, EIO);
  std::string bytes(kBlock, '?');
  std::size_t moved = 0;
  EXPECT_EQ(file.ReadAt(bytes.data(), kBlock, kBlock, &moved).error(), EIO);
  EXPECT_LE(moved, 3u);
  EXPECT_EQ(bytes.substr(moved), std::string(kBlock - moved, '?'));
  world_.script.Heal();
  EXPECT_EQ(World::Read(file, kBlock, kBlock), "new" + content.substr(kBlock + 3, kBlock - 3));
}

TEST_P(DurabilityTest, ACancelledRequestLeavesAFileThatCanBeReadFromItsBeginning) {
  const std::string content = FileWorld::Content(kBlock * 100);
  world_.Put("a", content);
  world_.options.memory = kBlock;
  FileHandle& file = world_.Open("a");
  for (std::uint64_t at = 0; at <= kBlock * 50; at += kBlock) World::Read(file, at, kBlock);
  {
    vesk::CancelToken cancelled;
    cancelled.Cancel();
    const RequestScope scope({vesk::Clock::kNever, &cancelled});
    for (const std::uint64_t block : {48u, 49u, 50u}) {
      (void)file.WriteAt("x", 1, block * kBlock + 10);
    }
    file.Discard();
  }
  EXPECT_EQ(World::Read(file, 0, kBlock), content.substr(0, kBlock));
  EXPECT_FALSE(file.Broken());
}

}  // namespace
}  // namespace vesk_test

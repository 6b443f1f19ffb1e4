// The table of open files: what is one file and what is not, opens that meet other requests, all
// files together.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/files/file_world.h"
#include "tests/support/allocation.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"
#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::FileHandle;
using vesk::FileInfo;
using vesk::FileStats;
using vesk::OpenOptions;
using vesk::RequestScope;
using vesk::Status;

constexpr std::uint64_t kBlock = FileWorld::kBlock;

class FileSystemTest : public ::testing::Test {
 protected:
  using World = FileWorld;

  FileSystemTest() { world_.settings.retry_read_attempts = 1; }

  static OpenOptions Exclusive() {
    OpenOptions open = World::Writing();
    open.exclusive = true;
    return open;
  }
  Status TryOpen(const std::string& name, const OpenOptions& open) {
    std::unique_ptr<FileHandle> handle;
    return world_.files().Open(name, open, &handle);
  }
  std::size_t OpenFiles() { return world_.files().GetFiles().size(); }

  FileWorld world_;
};

// ---- one file or two ----

TEST_F(FileSystemTest, FilesOfTheSameNumberOnDifferentDevicesAreDifferent) {
  world_.script.Describe([](const std::string& name, FileInfo& info) {
    info.inode = 7;
    info.device = name == "a" ? 1 : 2;
  });
  World::Write(world_.Open("a"), "one", 0);
  FileHandle& file = world_.Open("b");
  EXPECT_EQ(OpenFiles(), 2u);
  EXPECT_EQ(World::Read(file, 0, 9), "");
}

TEST_F(FileSystemTest, AnyNumberButNoneTellsFilesApart) {
  world_.script.Describe([](const std::string& /*name*/, FileInfo& info) { info.inode = 1; });
  World::Write(world_.Open("a"), "one", 0);
  FileHandle& link = world_.Open("link");
  EXPECT_EQ(OpenFiles(), 1u);
  EXPECT_EQ(World::Read(link, 0, 9), "one");
}

TEST_F(FileSystemTest, WhereTheStoreDoesNotTellFilesApartEachNameIsAFile) {
  world_.script.Describe(
      [](const std::string& /*name*/, FileInfo& info) { info.inode = info.device = 0; });
  FileHandle& file = world_.Open("a");
  World::Write(file, "one", 0);
  World::Write(world_.Open("b"), "two", 0);
  EXPECT_EQ(World::Read(world_.Open("a"), 0, 9), "one");
  EXPECT_EQ(World::Read(world_.Open("b"), 0, 9), "two");
  EXPECT_EQ(OpenFiles(), 2u);
  EXPECT_TRUE(world_.files().Rename("a", "c").ok());
  EXPECT_EQ(World::Read(world_.Open("c"), 0, 9), "one");
  World::Write(file, "ONE", 0);
  EXPECT_EQ(World::Read(world_.Open("c"), 0, 9), "ONE");
  EXPECT_EQ(World::Read(world_.Open("a"), 0, 9), "") << "the name is another file's now";
  EXPECT_EQ(OpenFiles(), 3u);
}

// Systems give the number of a file that has gone to the next one that is made.
TEST_F(FileSystemTest, AFileThatIsMadeAnewIsEmptyThoughItHasTheNumberOfAnOpenOneThatIsGone) {
  world_.script.Describe([](const std::string& /*name*/, FileInfo& info) { info.inode = 7; });
  world_.Put("a", "old bytes");
  EXPECT_EQ(World::Read(world_.Open("a"), 0, 3), "old");
  ASSERT_TRUE(world_.RemoveStored("a"));
  FileHandle& fresh = world_.Open("a", Exclusive());
  EXPECT_EQ(World::Read(fresh, 0, 99), "");
  EXPECT_EQ(fresh.Size(), 0u);
}

// The name leads to another file of the store than before; so does the link to that one.
TEST_F(FileSystemTest, AReplacedFileIsKnownByItsNewNumberToo) {
  ino_t number = 7;
  dev_t device = 1;
  world_.script.Describe([&](const std::string& /*name*/, FileInfo& info) {
    info.inode = number;
    info.device = device;
  });
  FileHandle& file = world_.Open("a");
  for (const auto& change : {&number, &device}) {
    *change = *change + 1;
    world_.Open("a");
    world_.Open("link" + std::to_string(number) + std::to_string(device));
    EXPECT_EQ(OpenFiles(), 1u);
  }
  World::Write(file, "one", 0);
}

// ---- opening ----

TEST_F(FileSystemTest, AFileThatAppearsBeforeItIsMadeIsOpenedUnlessItHasToBeNew) {
  for (const bool exclusive : {false, true}) {
    const std::string name = exclusive ? "a" : "b";
    world_.script.Hold({vesk::kFaultCreate, name}, 1);
    Task opening([&] {
      const Status status = TryOpen(name, exclusive ? Exclusive() : World::Writing());
      EXPECT_EQ(status.error(), exclusive ? EEXIST : 0);
    });
    world_.script.AwaitHeld(1);
    world_.Put(name, "another program's");
    world_.script.Heal();
    EXPECT_TRUE(opening.Await());
    EXPECT_EQ(world_.Stored(name), "another program's");
  }
}

TEST_F(FileSystemTest, AnErrorOfTheStoreIsNotTakenForAFileThatIsThere) {
  world_.script.Fail({vesk::kFaultStat}, EACCES, 1);
  EXPECT_EQ(TryOpen("a", Exclusive()).error(), EACCES);
  EXPECT_EQ(world_.Stored("a"), "(no file)");
}

TEST_F(FileSystemTest, AFileIsAskedForNoMoreAccessThanItIsOpenedWith) {
  world_.Put("a", "bytes");
  EXPECT_TRUE(TryOpen("a", {}).ok());
  EXPECT_EQ(world_.script.Count(vesk::kFaultOpen), 1u);
  EXPECT_TRUE(TryOpen("a", World::Writing()).ok());
  EXPECT_EQ(world_.script.Count(vesk::kFaultOpen), 3u);
}

TEST_F(FileSystemTest, AStoreWithoutAnOperationToOpenWithIsNoError) {
  world_.Put("a", "bytes");
  world_.script.Fail({vesk::kFaultOpen}, ENOTSUP);
  EXPECT_EQ(World::Read(world_.Open("a", {}), 0, 9), "bytes");
  EXPECT_EQ(World::Read(world_.Open("a"), 0, 9), "bytes");
}

// ---- opens that meet other requests ----

// What it has been told of the file is that of before.
TEST_F(FileSystemTest, AnOpenThatMeetsACloseFindsWhatWasWritten) {
  world_.Put("a", "old");
  world_.script.Hold({vesk::kFaultOpen, "a"}, 1);
  std::unique_ptr<FileHandle> file;
  Task opening([&] { EXPECT_TRUE(world_.files().Open("a", {}, &file).ok()); });
  world_.script.AwaitHeld(1);
  {
    FileHandle& other = world_.Open("a");
    World::Write(other, "longer bytes", 0);
    EXPECT_TRUE(other.Close().ok());
  }
  world_.script.Heal();
  EXPECT_TRUE(opening.Await());
  EXPECT_EQ(file->Size(), 12u);
  EXPECT_EQ(World::Read(*file, 0, 99), "longer bytes");
}

TEST_F(FileSystemTest, AnOpenThatMeetsARenameFindsTheFileThatHasTheNameAfterwards) {
  for (const bool during : {false, true}) {  // it is answered while the store still renames
    world_.Put("a", "old");
    world_.Put("b", "longer bytes");
    world_.script.Hold({vesk::kFaultOpen, "a"}, 1);
    std::unique_ptr<FileHandle> file;
    Task opening([&] { EXPECT_TRUE(world_.files().Open("a", {}, &file).ok()); });
    world_.script.AwaitHeld(1);
    if (during) world_.script.Hold({vesk::kFaultRename});
    Task renaming([&] { EXPECT_TRUE(world_.files().Rename("b", "a").ok()); });
    if (during) {
      world_.script.AwaitHeld(2);
      world_.script.EndOne(0, 0);
      (void)World::Await([&] { return world_.script.Count(vesk::kFaultOpen) > 1; });
      world_.script.EndOne(0, 0);
    }
    EXPECT_TRUE(renaming.Await());
    world_.script.Heal();
    EXPECT_TRUE(opening.Await());
    EXPECT_EQ(file->Size(), 12u);
    EXPECT_EQ(World::Read(*file, 0, 99), "longer bytes");
  }
}

TEST_F(FileSystemTest, AnOpenThatMeetsARemovalFindsTheFileThatHasTheNameAfterwards) {
  world_.Put("a", "old");
  world_.script.Hold({vesk::kFaultOpen, "a"}, 1);
  std::unique_ptr<FileHandle> file;
  Task opening([&] { EXPECT_TRUE(world_.files().Open("a", {}, &file).ok()); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(world_.files().Remove("a").ok());
  world_.Put("a", "longer bytes");
  world_.script.Heal();
  EXPECT_TRUE(opening.Await());
  EXPECT_EQ(file->Size(), 12u);
  EXPECT_EQ(World::Read(*file, 0, 99), "longer bytes");
}

TEST_F(FileSystemTest, AnOpenThatMeetsAFileThatNobodyHasWrittenLooksOnce) {
  world_.Put("a", "bytes");
  world_.Put("b", "bytes");
  world_.script.Hold({vesk::kFaultOpen, "a"}, 1);
  Task opening([&] { EXPECT_TRUE(TryOpen("a", {}).ok()); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(TryOpen("b", {}).ok());
  world_.script.Heal();
  EXPECT_TRUE(opening.Await());
  EXPECT_EQ(world_.script.Count(vesk::kFaultOpen), 2u);
}

// It looks once more: the file is there now, since it has made it.
TEST_F(FileSystemTest, AnOpenThatMakesItsFileAndMeetsACloseHasMadeIt) {
  world_.script.Hold({vesk::kFaultOpen, "new"}, 1);
  Task opening([&] { EXPECT_TRUE(TryOpen("new", Exclusive()).ok()); });
  world_.script.AwaitHeld(1);
  FileHandle& other = world_.Open("a");
  World::Write(other, "bytes", 0);
  EXPECT_TRUE(other.Close().ok());
  world_.script.Heal();
  EXPECT_TRUE(opening.Await());
}

// ---- closing ----

TEST_F(FileSystemTest, ACloseLeavesOtherHandlesTheirFileAndItsCache) {
  const std::string content = World::Content(1000);
  world_.Put("a", content);
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(World::Read(file, 0, 2000), content);
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  EXPECT_TRUE(world_.Open("a").Close().ok());
  EXPECT_EQ(World::Read(file, 0, 2000), content);
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), reads);
}

TEST_F(FileSystemTest, AHandleThatGoesLeavesOneHandleLessHoweverItGoes) {
  for (const int closes : {0, 1, 2, 3}) {
    const std::string name = std::to_string(closes);
    FileHandle& file = world_.Open(name);
    std::unique_ptr<FileHandle> other;
    ASSERT_TRUE(world_.files().Open(name, World::Writing(), &other).ok());
    if (closes == 3) other->Discard();
    for (int i = 0; i < closes; ++i) EXPECT_TRUE(other->Close().ok());
    other.reset();
    World::Write(file, "unsaved", 0);
    EXPECT_EQ(World::Read(world_.Open(name), 0, 9), "unsaved") << "another file";
  }
}

TEST_F(FileSystemTest, AFileThatIsOpenedWhileItsLastHandleClosesStaysOneFile) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  world.Put("a", World::Content(500));
  FileHandle& file = world.Open("a");
  world.script.Hold({vesk::kFaultTruncate});
  Task cutting([&] { EXPECT_EQ(file.Truncate(100).error(), ECANCELED); });
  world.script.AwaitHeld(1);
  cutting.Cancel();
  EXPECT_TRUE(cutting.Await());
  Task closing([&] { EXPECT_TRUE(file.Close().ok()); });
  clock.AwaitWaiters(1);  // for the truncate
  FileHandle& one = world.Open("a");
  world.script.Heal();
  EXPECT_TRUE(closing.Await());
  FileHandle& two = world.Open("a");
  World::Write(one, "new", 0);
  EXPECT_EQ(World::Read(two, 0, 3), "new");
  EXPECT_EQ(world.files().GetFiles().size(), 1u);
}

TEST_F(FileSystemTest, TheEndOfAFileSystemTellsOfUnsavedBytesOnlyWhereThereAreSome) {
  for (const bool hangs : {false, true}) {
    auto files =
        std::make_unique<vesk::FileSystem>(world_.services(), world_.store(), world_.options);
    std::unique_ptr<FileHandle> file;
    ASSERT_TRUE(files->Open("a", World::Writing(), &file).ok());
    World::Write(*file, "x", 0);
    if (hangs) world_.script.Hold({vesk::kFaultWrite});
    const RequestScope scope(world_.In(hangs ? milliseconds(20) : kPatience));
    file.reset();
    files.reset();
    EXPECT_EQ(world_.logger.Count("Error", "could not be stored"), hangs ? 1u : 0u);
  }
  EXPECT_EQ(world_.logger.Count("Error", "1 bytes could not be stored"), 1u);
  world_.script.Heal();
}

// In a process of its own: what cannot be stored is left in memory, and nobody has it any more.
TEST_F(FileSystemTest, AFileSystemEndsWithoutMemoryAndTellsWhatItCouldNotStore) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto told = [&] { return world_.logger.Count("Error", "5 bytes could not be stored"); };
  const auto failed_checks = [&] { return world_.logger.Count("Error", "ASSERT failure"); };
  const auto end_without = [&](long nth) {
    const std::string name = std::to_string(nth);
    auto files =
        std::make_unique<vesk::FileSystem>(world_.services(), world_.store(), world_.options);
    std::unique_ptr<FileHandle> file;
    EXPECT_TRUE(files->Open(name, World::Writing(), &file).ok());
    World::Write(*file, "bytes", 0);
    const std::size_t told_before = told();
    const std::size_t failed_before = failed_checks();
    bool fired = false;
    {
      const FailingAllocation failing(nth, true);
      file.reset();
      files.reset();
      fired = failing.Fired();
    }
    if (failed_checks() == failed_before) {  // else it has been told by that
      EXPECT_EQ(told(), told_before + (world_.Stored(name) == "bytes" ? 0 : 1)) << nth;
    }
    return fired;
  };
  EXPECT_EXIT(
      {
        for (long nth = 1; end_without(nth);) ++nth;
        _exit(HasFailure() ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

// ---- names ----

TEST_F(FileSystemTest, NothingIsRenamedOrRemovedWhereTheStoreCannotTellWhatItIs) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  World::Write(file, "one", 0);
  World::Write(other, "two", 0);
  EXPECT_TRUE(world_.files().SyncAll().ok());
  for (const char* const name : {"a", "b"}) {
    world_.script.Fail({vesk::kFaultStat, name}, EIO, 1);
    EXPECT_EQ(world_.files().Rename("a", "b").error(), EIO);
  }
  world_.script.Fail({vesk::kFaultStat}, EIO, 1);
  EXPECT_EQ(world_.files().Remove("a").error(), EIO);
  EXPECT_EQ(world_.Stored("a") + world_.Stored("b"), "onetwo");
  EXPECT_EQ(World::Read(file, 0, 9), "one");
  EXPECT_EQ(World::Read(other, 0, 9), "two");
}

// The discard has begun by the old name: its failing writes are given up in the middle of it.
TEST_F(FileSystemTest, ADiscardThatMeetsARenameLeavesTheOldNameToOthers) {
  world_.settings.retry_first_delay_ms = 3600 * 1000;  // no write is tried again by itself
  world_.settings.retry_longest_delay_ms = 3600 * 1000;
  bool renamed = false;
  world_.retry->OnWriteFailure([&](const vesk::WriteFailure& failure) {
    if (!failure.given_up || std::exchange(renamed, true)) return;
    EXPECT_TRUE(world_.files().Rename("a", "b").ok());
  });
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(world_.files().Open("a", World::Writing(), &file).ok());
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  // Past the file, which could not be renamed with bytes of its own that are not stored.
  const JobHolder job(NewWrite("a", "bytes", 5, 0));
  world_.services().bundler.SubmitJob(job.get());
  ASSERT_TRUE(World::Await([&] { return world_.retry->GetParked("a").jobs == 1; }));
  file->Discard();
  ASSERT_TRUE(renamed);
  EXPECT_TRUE(file->Close().ok());
  file.reset();
  for (const char* const name : {"a", "b"}) {
    FileHandle& next = world_.Open(name);
    World::Write(next, "kept", 0);
    (void)next.Flush();
    EXPECT_TRUE(World::Await([&] { return next.GetStats().parked == 4; })) << name;
  }
  EXPECT_EQ(world_.retry->DiscardAll(), 2u);
  world_.script.Heal();
}

// The store has done it, and the files may not know: then nothing more is done with them.
TEST_F(FileSystemTest, ARenameWithoutMemoryTakesPlaceForBothFilesOrTakesThemOutOfService) {
  const std::string from(40, 'f');  // longer than what fits into a string by itself
  const std::string to(40, 't');
  unsigned out_of_service = 0;
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    world_.Put(from, "moved");
    world_.Put(to, "replaced");
    FileHandle& file = world_.Open(from);
    FileHandle& replaced = world_.Open(to);
    Status status;
    {
      const FailingAllocation failing(nth);
      status = world_.files().Rename(from, to);
      fired = failing.Fired();
    }
    EXPECT_TRUE(status.ok() || status.error() == ENOMEM) << status.Message();
    const bool done = world_.Stored(from) == "(no file)";
    if (status.ok()) {
      EXPECT_TRUE(done);
    }
    if (file.Broken()) {
      ++out_of_service;
      EXPECT_TRUE(done);
      EXPECT_FALSE(status.ok());
      World::Write(replaced, "x", 0, EIO);
    } else {
      World::Write(file, "MOVED", 0);
      World::Read(replaced, 0, 8, done ? ESTALE : 0);
      EXPECT_TRUE(file.Close().ok());
      EXPECT_EQ(world_.Stored(done ? to : from), "MOVED");
    }
    world_.CloseAll();
    (void)world_.RemoveStored(from);
  }
  EXPECT_GE(out_of_service, 1u);
}

// Names of a file on disk, of which a table knows but cannot be sure.
class LinksTest : public FileSystemTest {
 protected:
  LinksTest() {
    disk_.Put(directory_ / "a", "bytes");
    Link("a", "link");
  }

  void Link(const std::string& from, const std::string& to) {
    std::filesystem::create_hard_link(directory_ / from, directory_ / to);
  }

  const TemporaryDirectory directory_;
  FileWorld disk_{FileWorld::Kind::kDisk};
};

TEST_F(LinksTest, ARemovedFileDoesNotGoOnAsAnotherOneThatHasGotItsOtherName) {
  FileHandle& file = disk_.Open(directory_ / "a");
  disk_.Open(directory_ / "link");
  std::filesystem::remove(directory_ / "link");
  disk_.Put(directory_ / "link", "foreign");
  EXPECT_TRUE(disk_.files().Remove(directory_ / "a").ok());
  World::Write(file, "x", 0, ESTALE);
  EXPECT_EQ(disk_.Stored(directory_ / "link"), "foreign");
}

TEST_F(LinksTest, ARemovedFileIsStaleWhenItsOtherNameHasGoneAsWell) {
  FileHandle& file = disk_.Open(directory_ / "a");
  disk_.Open(directory_ / "link");
  World::Write(file, "given up", 0);
  disk_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  std::filesystem::remove(directory_ / "link");
  const Status removed = disk_.files().Remove(directory_ / "a");
  EXPECT_TRUE(removed.ok()) << removed.Message();
  World::Write(file, "x", 0, ESTALE);
}

TEST_F(LinksTest, AFileThatLosesAnotherNameKeepsItsOwn) {
  Link("a", "m");
  Link("a", "z");
  FileHandle& file = disk_.Open(directory_ / "m");
  disk_.Open(directory_ / "link");
  disk_.Open(directory_ / "a");
  disk_.Open(directory_ / "z");
  EXPECT_EQ(file.GetStats().name, directory_ / "m");
  EXPECT_TRUE(disk_.files().Remove(directory_ / "a").ok());
  EXPECT_EQ(file.GetStats().name, directory_ / "m");
}

TEST_F(LinksTest, AFileWithTwoWaysToWriteItsOnlyNameIsStaleWhenItIsRemoved) {
  std::filesystem::remove(directory_ / "link");
  std::filesystem::create_directory(directory_ / "d");
  FileHandle& file = disk_.Open(directory_ / "a");
  disk_.Open(directory_ / "d/../a");
  EXPECT_TRUE(disk_.files().Remove(directory_ / "a").ok());
  World::Write(file, "x", 0, ESTALE);
}

TEST_F(LinksTest, ANameThatWasRemovedLeadsToANewFile) {
  FileHandle& file = disk_.Open(directory_ / "a");
  disk_.Open(directory_ / "link");
  EXPECT_TRUE(disk_.files().Remove(directory_ / "a").ok());
  FileHandle& next = disk_.Open(directory_ / "a");
  EXPECT_EQ(World::Read(next, 0, 9), "");
  World::Write(next, "next", 0);
  EXPECT_EQ(World::Read(file, 0, 9), "bytes");
  EXPECT_TRUE(next.Close().ok());
  EXPECT_EQ(disk_.Stored(directory_ / "a"), "next");
}

TEST_F(LinksTest, AFileThatGoesOnLosesNoNameBeforeItIsStored) {
  FileHandle& file = disk_.Open(directory_ / "a");
  disk_.Open(directory_ / "link");
  World::Write(file, "DIRTY", 0);
  disk_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  Task removing([&] { EXPECT_EQ(disk_.files().Remove(directory_ / "a").error(), ENOSPC); });
  EXPECT_TRUE(removing.Await());
  EXPECT_EQ(disk_.Stored(directory_ / "a"), "bytes");
  disk_.script.Heal();
  EXPECT_TRUE(World::Await([&] { return file.Sync().ok(); }));
}

// Whether it is removed or replaced by a file that nobody has open.
TEST_F(LinksTest, AFileGoesOnWithItsOtherNameOrOutOfServiceWithoutMemory) {
  const std::string name = directory_ / "a";
  const std::string successor = directory_ / "successor";
  for (const bool replace : {false, true}) {
    unsigned out_of_service = 0;
    bool fired = true;
    for (long nth = 1; fired; ++nth) {
      SCOPED_TRACE(nth);
      std::filesystem::remove(name);
      Link("link", "a");
      disk_.Put(successor, "next");
      FileHandle& file = disk_.Open(name);
      disk_.Open(directory_ / "link");
      Status status;
      {
        const FailingAllocation failing(nth);
        status = replace ? disk_.files().Rename(successor, name) : disk_.files().Remove(name);
        fired = failing.Fired();
      }
      EXPECT_TRUE(status.ok() || status.error() == ENOMEM) << status.Message();
      const std::string stored = disk_.Stored(name);
      const bool done = stored == "(no file)" || stored == "next";
      if (file.Broken()) {
        ++out_of_service;
        EXPECT_TRUE(done);
        EXPECT_FALSE(status.ok());
      } else {
        World::Write(file, "BYTES", 0);
        EXPECT_TRUE(file.Sync().ok());
        EXPECT_EQ(disk_.Stored(directory_ / "link"), "BYTES");
        EXPECT_EQ(disk_.Stored(name), done ? stored : "BYTES");
      }
      disk_.CloseAll();
    }
    EXPECT_GE(out_of_service, 1u);
  }
}

// ---- all files ----

TEST_F(FileSystemTest, SyncAllWritesAllFilesAtOnce) {
  World::Write(world_.Open("a"), "one", 0);
  World::Write(world_.Open("b"), "two", 0);
  world_.script.Hold({vesk::kFaultWrite});
  Task syncing([&] { EXPECT_TRUE(world_.files().SyncAll().ok()); });
  world_.script.AwaitHeld(2);
  world_.script.Heal();
  EXPECT_TRUE(syncing.Await());
  EXPECT_EQ(world_.Stored("a") + world_.Stored("b"), "onetwo");
}

// Without limits: it waits for no store that takes nothing.
TEST_F(FileSystemTest, SyncAllTellsOfTheFirstFileThatCannotBeStoredAndGoesOnWithOthers) {
  World::Write(world_.Open("a"), "one", 0);
  World::Write(world_.Open("b"), "two", 0);
  World::Write(world_.Open("c"), "three", 0);
  world_.script.Fail({vesk::kFaultWrite, "a"}, ENOSPC);
  world_.script.Fail({vesk::kFaultWrite, "b"}, EROFS);
  Task syncing([&] {
    for (int i = 0; i < 2; ++i) {  // a failure that comes, and one that is there
      const Status status = world_.files().SyncAll();
      EXPECT_EQ(status.error(), ENOSPC);
      EXPECT_EQ(status.context(), "write-back of 'a'");
    }
  });
  EXPECT_TRUE(syncing.Await());
  EXPECT_EQ(world_.Stored("c"), "three");
  world_.script.Heal();
  EXPECT_TRUE(World::Await([&] { return world_.files().SyncAll().ok(); }));
  world_.script.Fail({vesk::kFaultSync, "b"}, EPERM, 1);
  EXPECT_EQ(world_.files().SyncAll().context(), "sync of 'b'");
}

TEST_F(FileSystemTest, FilesAreListedByName) {
  for (const char* const name : {"b", "d", "a", "c"}) world_.Open(name);
  std::string names;
  for (const FileStats& file : world_.files().GetFiles()) names += file.name;
  EXPECT_EQ(names, "abcd");
}

TEST_F(FileSystemTest, WhatIsToldOfAllFilesIsTheWorstOfEach) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  FileHandle& a = world.Open("a");
  FileHandle& b = world.Open("b");
  world.Open("c");
  EXPECT_EQ(world.files().GetStats().last_error, 0);
  EXPECT_EQ(world.files().GetStats().oldest_dirty, seconds(0));
  world.script.Fail({vesk::kFaultWrite, "a"}, ENOSPC, 1);
  World::Write(a, "one", 0);
  EXPECT_EQ(a.Sync().error(), ENOSPC);
  EXPECT_EQ(world.files().GetStats().last_error, ENOSPC) << "the others have none";
  EXPECT_TRUE(a.Sync().ok());
  World::Write(b, "two", 0);
  clock.Advance(seconds(2));
  World::Write(a, "one", 0);
  clock.Advance(seconds(1));
  EXPECT_EQ(a.GetStats().oldest_dirty, seconds(1));
  EXPECT_EQ(b.GetStats().oldest_dirty, seconds(3));
  EXPECT_EQ(world.files().GetStats().oldest_dirty, seconds(3));
}

// ---- in the background ----

// Notes until when somebody sleeps.
class NotingClock final : public ManualClock {
 public:
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex, Time time) override
      VESK_REQUIRES(mutex) {
    until = time;
    ManualClock::WaitUntil(condition, mutex, time);
  }

  std::atomic<Time> until{Time()};
};

TEST(BackgroundTest, OldBytesAreLookedForFourTimesInTheirAgeWithinReason) {
  const struct {
    vesk::Clock::Duration age;
    vesk::Clock::Duration interval;
  } table[] = {
      {milliseconds(0), milliseconds(10)},
      {milliseconds(39), milliseconds(10)},
      {milliseconds(44), milliseconds(11)},
      {milliseconds(400), milliseconds(100)},
      {seconds(4), seconds(1)},
      {seconds(60), seconds(1)},
  };
  for (const auto& row : table) {
    NotingClock clock;
    FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
    world.options.background = true;
    world.options.dirty_age = row.age;
    FileHandle& file = world.Open("a");
    clock.AwaitWaiters(1);
    EXPECT_EQ(clock.until.load() - clock.Now(), row.interval);
    FileWorld::Write(file, "bytes", 0);
    clock.Advance(row.age + row.interval);
    EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().dirty == 0; }));
    EXPECT_EQ(world.Stored("a"), "bytes");
  }
}

// However much is allowed by name: blocks that wait for the store cannot go.
TEST(BackgroundTest, HalfOfTheMemoryIsKeptFreeOfUnsavedBytes) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  world.options.memory = 8 * kBlock;
  world.options.dirty_soft = world.options.dirty_hard = 100 * kBlock;
  FileHandle& file = world.Open("a");
  // Towards the beginning of the file: a write that passes a dirty block would have it stored.
  for (std::uint64_t block = 4; block > 0; --block) {
    FileWorld::Write(file, std::string(kBlock, 'x'), block * kBlock);
  }
  EXPECT_EQ(world.script.Count(vesk::kFaultWrite), 0u);
  FileWorld::Write(file, std::string(kBlock, 'x'), 0);
  EXPECT_GT(world.script.Count(vesk::kFaultWrite), 0u);
}

}  // namespace
}  // namespace vesk_test

// One name, one set of bytes: aliases, renaming, replacing and removing of open files.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "tests/files/file_world.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"
#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using vesk::FileHandle;
using vesk::RequestScope;
using vesk::Status;

class NamesTest : public ::testing::TestWithParam<FileWorld::Kind> {
 protected:
  using World = FileWorld;

  std::string Path(const std::string& name) const { return directory_ / name; }
  FileHandle& Open(const std::string& name) { return world_.Open(Path(name)); }
  void Put(const std::string& name, const std::string& bytes) { world_.Put(Path(name), bytes); }
  std::string Stored(const std::string& name) { return world_.Stored(Path(name)); }
  Status Rename(const std::string& from, const std::string& to) {
    return world_.files().Rename(Path(from), Path(to));
  }
  Status Remove(const std::string& name) { return world_.files().Remove(Path(name)); }

  // Every request of a handle whose file has gone.
  void ExpectStale(FileHandle& file) {
    World::Read(file, 0, 10, ESTALE);
    World::Write(file, "x", 0, ESTALE);
    EXPECT_EQ(file.Append("x", 1).error(), ESTALE);
    EXPECT_EQ(file.Truncate(3).error(), ESTALE);
    EXPECT_EQ(file.Sync().error(), ESTALE);
    EXPECT_TRUE(file.Close().ok()) << "nothing is left to store";
  }

  const TemporaryDirectory directory_;
  FileWorld world_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Stores, NamesTest,
                         ::testing::Values(FileWorld::Kind::kMemory, FileWorld::Kind::kDisk),
                         [](const auto& kind) {
                           return kind.param == FileWorld::Kind::kDisk ? "Disk" : "Memory";
                         });

class AliasTest : public NamesTest {
 protected:
  // What is written by one name is read by the other at once, both ways, and stored once.
  void ExpectOneFile(const std::string& name, const std::string& alias) {
    FileHandle& one = world_.Open(name);
    FileHandle& two = world_.Open(alias);
    EXPECT_EQ(World::Read(two, 0, 9), "bytes");
    World::Write(one, "BY", 0);
    EXPECT_EQ(World::Read(two, 0, 9), "BYtes");
    World::Write(two, "longer", 100);
    EXPECT_EQ(one.Size(), 106u);
    EXPECT_EQ(World::Read(one, 100, 9), "longer");
    EXPECT_EQ(world_.files().GetFiles().size(), 1u);
    EXPECT_TRUE(one.Close().ok());
    World::Write(two, "end", 0);
    EXPECT_TRUE(two.Close().ok());
    EXPECT_EQ(world_.Stored(name), "endes" + std::string(95, '\0') + "longer");
  }
};

INSTANTIATE_TEST_SUITE_P(Stores, AliasTest, ::testing::Values(FileWorld::Kind::kDisk),
                         [](const auto& /*kind*/) { return "Disk"; });

TEST_P(AliasTest, HardLinksMeetInTheSameFile) {
  Put("a", "bytes");
  std::filesystem::create_hard_link(Path("a"), Path("link"));
  ExpectOneFile(Path("a"), Path("link"));
}

TEST_P(AliasTest, SymbolicLinksMeetInTheSameFile) {
  Put("a", "bytes");
  std::filesystem::create_symlink("a", Path("link"));
  ExpectOneFile(Path("a"), Path("link"));
}

TEST_P(AliasTest, PathsThatAreSpelledDifferentlyMeetInTheSameFile) {
  Put("a", "bytes");
  std::filesystem::create_directory(Path("d"));
  ExpectOneFile(Path("a"), Path("d/../a"));
}

TEST_P(AliasTest, RelativeAndAbsolutePathsMeetInTheSameFile) {
  Put("a", "bytes");
  ExpectOneFile(Path("a"), std::filesystem::relative(Path("a")).string());
}

// As editors do that save a file: the name was another way to the open file, and is one no more.
TEST_P(AliasTest, ALinkThatAnotherProgramHasReplacedLeadsToTheOtherFile) {
  for (const bool symbolic : {false, true}) {
    Put("a", "AAAA");
    if (symbolic) {
      std::filesystem::create_symlink("a", Path("link"));
    } else {
      std::filesystem::create_hard_link(Path("a"), Path("link"));
    }
    FileHandle& file = Open("a");
    Open("link");
    Put("new", "BBBBBBBB");
    std::filesystem::rename(Path("new"), Path("link"));
    FileHandle& other = Open("link");
    EXPECT_EQ(World::Read(other, 0, 9), "BBBBBBBB");
    World::Write(other, "bb", 0);
    EXPECT_TRUE(other.Sync().ok());
    EXPECT_EQ(World::Read(file, 0, 9), "AAAA");
    EXPECT_EQ(Stored("a"), "AAAA");
    EXPECT_EQ(Stored("link"), "bbBBBBBB");
    world_.CloseAll();
    std::filesystem::remove(Path("link"));
  }
}

TEST_P(NamesTest, DifferentNamesAreDifferentFiles) {
  FileHandle& one = Open("a");
  FileHandle& two = Open("b");
  World::Write(one, "one", 0);
  World::Write(two, "two!", 0);
  EXPECT_EQ(World::Read(one, 0, 9), "one");
  EXPECT_EQ(World::Read(two, 0, 9), "two!");
  EXPECT_EQ(world_.files().GetFiles().size(), 2u);
}

TEST_P(NamesTest, AFileThatWasClosedAndReopenedHasItsBytes) {
  for (int i = 0; i < 3; ++i) {
    FileHandle& file = Open("a");
    EXPECT_EQ(World::Read(file, 0, 99), std::string(static_cast<std::size_t>(i), 'x'));
    EXPECT_TRUE(file.Append("x", 1).ok());
    EXPECT_TRUE(file.Close().ok());
  }
}

// Another program has removed it while somebody here had it open.
TEST_P(NamesTest, AFileThatIsMadeInPlaceOfAnOpenOneThatIsGoneIsEmpty) {
  Put("a", "old bytes");
  FileHandle& gone = Open("a");
  EXPECT_EQ(World::Read(gone, 0, 3), "old");
  if (GetParam() == FileWorld::Kind::kDisk) {
    ASSERT_TRUE(std::filesystem::remove(Path("a")));  // past the store, which has it open
  } else {
    ASSERT_TRUE(world_.RemoveStored(Path("a")));
  }
  vesk::OpenOptions open = World::Writing();
  open.exclusive = true;
  FileHandle& fresh = world_.Open(Path("a"), open);
  EXPECT_EQ(World::Read(fresh, 0, 99), "");
  EXPECT_EQ(fresh.Size(), 0u);
  std::uint64_t at = 99;
  EXPECT_TRUE(fresh.Append("new", 3, &at).ok());
  EXPECT_EQ(at, 0u);
  EXPECT_TRUE(fresh.Sync().ok());
  EXPECT_EQ(Stored("a"), "new");
}

// ---- renaming ----

TEST_P(NamesTest, AnOpenFileGoesOnUnderItsNewName) {
  Put("a", FileWorld::Content(300));
  FileHandle& file = Open("a");
  EXPECT_EQ(World::Read(file, 0, 10), FileWorld::Content(300).substr(0, 10));
  World::Write(file, "dirty", 100);
  EXPECT_TRUE(Rename("a", "b").ok());
  std::string expected = FileWorld::Content(300).replace(100, 5, "dirty");
  EXPECT_EQ(Stored("a"), "(no file)");
  EXPECT_EQ(Stored("b"), expected) << "what was dirty went before";
  EXPECT_EQ(World::Read(file, 0, 400), expected);
  World::Write(file, "after", 200);
  expected.replace(200, 5, "after");
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(Stored("b"), expected);
  EXPECT_EQ(file.GetStats().name, Path("b"));
  FileHandle& other = Open("b");
  EXPECT_EQ(World::Read(other, 0, 400), expected);
  EXPECT_EQ(world_.files().GetFiles().size(), 1u);
  EXPECT_EQ(Stored("a"), "(no file)") << "nothing came back by the old name";
}

TEST_P(NamesTest, ARenamedFileIsTendedByItsNewName) {
  FileHandle& file = Open("a");
  EXPECT_TRUE(Rename("a", "b").ok());
  World::Write(file, "bytes", 0);
  EXPECT_TRUE(file.Flush().ok());
  EXPECT_TRUE(World::Await([&] { return file.GetStats().dirty == 0; }));
}

TEST_P(NamesTest, AFileThatNobodyTendsIsRenamedAndRemoved) {
  vesk::Services services = world_.services();
  services.reaper = nullptr;
  vesk::FileSystem files(services, world_.store(), world_.options);
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(files.Open(Path("a"), FileWorld::Writing(), &file).ok());
  World::Write(*file, "bytes", 0);
  EXPECT_TRUE(files.Rename(Path("a"), Path("b")).ok());
  EXPECT_EQ(Stored("b"), "bytes");
  World::Write(*file, "never", 0);
  EXPECT_TRUE(file->Flush().ok());
  EXPECT_TRUE(files.Remove(Path("b")).ok());
  EXPECT_EQ(Stored("b"), "(no file)");
  EXPECT_TRUE(file->Close().ok());
}

// The store has no such file any more, but that is not what became of the bytes.
TEST_P(NamesTest, ASyncThatMeetsARenameIsDoneByTheNewName) {
  FileHandle& file = Open("a");
  World::Write(file, "bytes", 0);
  world_.script.Hold({vesk::kFaultSync, Path("a")});
  Task sync([&] { EXPECT_EQ(file.Sync().error(), 0); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(Rename("a", "b").ok());
  world_.script.Heal();
  EXPECT_TRUE(sync.Await());
  EXPECT_EQ(Stored("b"), "bytes");
}

// By the old name the store has made another file durable.
TEST_P(NamesTest, ASyncThatMeetsARenameIsNotDoneForWhoHasTheOldNameNow) {
  FileHandle& file = Open("a");
  World::Write(file, "bytes", 0);
  world_.script.Hold({vesk::kFaultSync, Path("a")}, 1);
  Task sync([&] { EXPECT_EQ(file.Sync().error(), EIO); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(Rename("a", "b").ok());
  Open("a");
  world_.script.Fail({vesk::kFaultSync, Path("b")}, EIO);
  world_.script.EndOne(0, 0);
  EXPECT_TRUE(sync.Await());
  world_.script.Heal();
}

TEST_P(NamesTest, TheOldNameIsFreeForAnotherFile) {
  FileHandle& file = Open("a");
  World::Write(file, "first", 0);
  EXPECT_TRUE(Rename("a", "b").ok());
  FileHandle& second = Open("a");
  EXPECT_EQ(second.Size(), 0u);
  World::Write(second, "second", 0);
  World::Write(file, "FIRST", 0);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_TRUE(second.Close().ok());
  EXPECT_EQ(Stored("a"), "second");
  EXPECT_EQ(Stored("b"), "FIRST");
}

TEST_P(NamesTest, AFileThatNobodyHasOpenIsRenamedAndRemoved) {
  Put("a", "bytes");
  EXPECT_TRUE(Rename("a", "b").ok());
  EXPECT_EQ(Stored("b"), "bytes");
  EXPECT_TRUE(Remove("b").ok());
  EXPECT_EQ(Stored("b"), "(no file)");
  EXPECT_EQ(Remove("b").error(), ENOENT);
  const Status status = Rename("b", "c");
  EXPECT_EQ(status.error(), ENOENT);
  EXPECT_NE(status.context().find(Path("b")), std::string::npos);
  EXPECT_NE(status.context().find(Path("c")), std::string::npos);
}

TEST_P(NamesTest, RenamingToItselfChangesNothing) {
  FileHandle& file = Open("a");
  World::Write(file, "bytes", 0);
  EXPECT_TRUE(Rename("a", "a").ok());
  EXPECT_EQ(World::Read(file, 0, 9), "bytes");
  World::Write(file, "more", 5);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), "bytesmore");
}

TEST_P(NamesTest, TheHandlesOfAReplacedFileAreStale) {
  Put("b", "replaced");
  FileHandle& file = Open("a");
  FileHandle& replaced = Open("b");
  World::Write(file, "bytes", 0);
  EXPECT_EQ(World::Read(replaced, 0, 9), "replaced");
  World::Write(replaced, "never", 0);
  EXPECT_TRUE(Rename("a", "b").ok());
  ExpectStale(replaced);
  EXPECT_EQ(World::Read(file, 0, 9), "bytes");
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("b"), "bytes");
  EXPECT_EQ(World::Read(Open("b"), 0, 9), "bytes");
}

// Another program has removed it: its bytes would be stored by the name that is the other's now.
TEST_P(NamesTest, TheHandlesOfAFileThatIsGoneAreStaleWhenItsNameIsAnothers) {
  Put("a", "AAAAAAAA");
  Put("b", "BBBBBBBB");
  FileHandle& file = Open("a");
  FileHandle& gone = Open("b");
  World::Write(gone, "never", 0);
  ASSERT_TRUE(world_.RemoveStored(Path("b")));
  EXPECT_TRUE(Rename("a", "b").ok());
  ExpectStale(gone);
  EXPECT_EQ(World::Read(file, 0, 9), "AAAAAAAA");
  World::Write(Open("b"), "aa", 0);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(Stored("b"), "aaAAAAAA");
}

// Writes go by name: one that sets out for the replaced file must not arrive in the other.
TEST_P(NamesTest, AWriteOfAReplacedFileThatIsOnItsWayDoesNotReachItsSuccessor) {
  Put("b", "replaced");
  FileHandle& file = Open("a");
  FileHandle& replaced = Open("b");
  World::Write(file, "bytes", 0);
  World::Write(replaced, "never", 0);
  world_.script.Hold({vesk::kFaultWrite, Path("b")});
  EXPECT_TRUE(replaced.Flush().ok());
  EXPECT_EQ(world_.script.held(), 1u);
  Status renamed;
  {
    const RequestScope scope(world_.In(milliseconds(50)));
    renamed = Rename("a", "b");
  }
  world_.script.Heal();
  if (!renamed.ok()) {
    EXPECT_EQ(renamed.error(), ETIMEDOUT) << "it may wait for the write";
    EXPECT_TRUE(Rename("a", "b").ok());
  }
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("b"), "bytes");
}

TEST_P(NamesTest, AWriteOfARemovedFileThatIsOnItsWayDoesNotReachItsSuccessor) {
  FileHandle& file = Open("a");
  World::Write(file, "never", 0);
  world_.script.Hold({vesk::kFaultWrite, Path("a")});
  EXPECT_TRUE(file.Flush().ok());
  Status removed;
  {
    const RequestScope scope(world_.In(milliseconds(50)));
    removed = Remove("a");
  }
  if (!removed.ok()) {
    EXPECT_EQ(removed.error(), ETIMEDOUT) << "it may wait for the write";
    world_.script.Heal();
    EXPECT_TRUE(Remove("a").ok());
  }
  Put("a", "another");
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return world_.dispatcher().GetStats().depth == 0; }));
  EXPECT_EQ(Stored("a"), "another");
  EXPECT_EQ(World::Read(Open("a"), 0, 9), "another");
}

TEST_P(NamesTest, AFailedRenameLeavesBothFilesAsTheyWere) {
  FileHandle& file = Open("a");
  FileHandle& other = Open("b");
  World::Write(file, "one", 0);
  World::Write(other, "two", 0);
  world_.script.Fail({vesk::kFaultRename}, EACCES, 1);
  EXPECT_EQ(Rename("a", "b").error(), EACCES);
  EXPECT_EQ(World::Read(file, 0, 9), "one");
  EXPECT_EQ(World::Read(other, 0, 9), "two");
  EXPECT_TRUE(file.Close().ok());
  EXPECT_TRUE(other.Close().ok());
  EXPECT_EQ(Stored("a") + Stored("b"), "onetwo");
}

TEST_P(NamesTest, ARenameOfAFileThatCannotBeStoredSaysSoAndChangesNothing) {
  FileHandle& file = Open("a");
  World::Write(file, "dirty", 0);
  world_.script.Fail({vesk::kFaultWrite}, ENOSPC);
  {
    const RequestScope scope(world_.In(milliseconds(50)));
    EXPECT_NE(Rename("a", "b").error(), 0);
  }
  EXPECT_EQ(Stored("b"), "(no file)");
  EXPECT_EQ(World::Read(file, 0, 9), "dirty");
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return file.Sync().ok(); }));
  EXPECT_TRUE(Rename("a", "b").ok());
  EXPECT_EQ(Stored("b"), "dirty");
}

// The file is where it was asked to be: not being able to look at it is no loss.
TEST_P(NamesTest, ARenameWhoseStoreCannotBeAskedAfterwardsKeepsTheFile) {
  FileHandle& file = Open("a");
  World::Write(file, "bytes", 0);
  EXPECT_TRUE(file.Sync().ok());
  world_.settings.retry_read_attempts = 1;
  std::thread breaking([&] {
    world_.script.AwaitHeld(1);
    world_.script.Fail({vesk::kFaultStat}, EIO);
    world_.script.EndOne(0, 0);
  });
  world_.script.Hold({vesk::kFaultRename});
  (void)Rename("a", "b");
  breaking.join();
  world_.script.Heal();
  EXPECT_EQ(Stored("b"), "bytes");
  EXPECT_EQ(World::Read(file, 0, 9), "bytes");
  World::Write(file, "BYTES", 0);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("b"), "BYTES");
}

TEST_P(NamesTest, ReadersAndWritersBesideRenamesMissNothing) {
  Put("a", std::string(2000, 'x'));
  FileHandle& file = Open("a");
  std::thread writer([&] {
    for (unsigned int i = 0; i < 400; ++i) {
      const std::uint64_t at = i * 41 % 1900;
      const std::string bytes(20, static_cast<char>('a' + i % 26));
      World::Write(file, bytes, at);
      EXPECT_EQ(World::Read(file, at, 20), bytes);
    }
  });
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(Rename("a", "b").ok());
    EXPECT_TRUE(Rename("b", "a").ok());
  }
  writer.join();
  const std::string all = World::Read(file, 0, 3000);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), all);
  EXPECT_EQ(Stored("b"), "(no file)");
}

// It had seen the file by the old name, and must not bring that back.
TEST_P(NamesTest, AnOpenThatMeetsTheRenameOfAnOpenFileLeavesTheOldNameFree) {
  Put("a", "first");
  FileHandle& file = Open("a");
  world_.script.HoldEnds({vesk::kFaultOpen, Path("a")});
  std::unique_ptr<FileHandle> late;
  Task opening([&] { EXPECT_EQ(world_.files().Open(Path("a"), {}, &late).error(), ENOENT); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(Rename("a", "b").ok());
  world_.script.Heal();
  EXPECT_TRUE(opening.Await());
  FileHandle& successor = Open("a");
  EXPECT_EQ(successor.Size(), 0u);
  World::Write(successor, "SECOND", 0);
  EXPECT_TRUE(successor.Sync().ok());
  EXPECT_EQ(World::Read(file, 0, 9), "first");
  EXPECT_EQ(Stored("a"), "SECOND");
  EXPECT_EQ(Stored("b"), "first");
}

// Between the moments at which the store and the table of open files have changed the name.
TEST_P(NamesTest, AnOpenThatMakesAFileWhileItsNameIsGivenAwayHasMadeAnother) {
  for (const bool removal : {false, true}) {
    Put("a", "first");
    FileHandle& file = Open("a");
    world_.script.Hold({vesk::kFaultStat, Path("a")}, 1);
    std::unique_ptr<FileHandle> fresh;
    Task opening(
        [&] { EXPECT_TRUE(world_.files().Open(Path("a"), World::Writing(), &fresh).ok()); });
    world_.script.AwaitHeld(1);  // it has found nobody who changes names
    world_.script.HoldEnds({vesk::kFaultRename | vesk::kFaultRemove});
    Task changing([&] { EXPECT_TRUE((removal ? Remove("a") : Rename("a", "b")).ok()); });
    world_.script.AwaitHeld(2);
    const std::uint64_t opens = world_.script.Count(vesk::kFaultOpen);
    world_.script.EndOne(0, 0);
    (void)World::Await(
        [&] { return world_.script.Count(vesk::kFaultOpen) >= opens + 2 || opening.Ended(); });
    std::this_thread::sleep_for(milliseconds(10));  // for a handle that should not come yet
    EXPECT_FALSE(opening.Ended());
    world_.script.Heal();
    EXPECT_TRUE(changing.Await());
    EXPECT_TRUE(opening.Await());
    World::Write(*fresh, "SECOND", 0);
    EXPECT_TRUE(fresh->Sync().ok());
    EXPECT_EQ(World::Read(file, 0, 9, removal ? ESTALE : 0), removal ? "" : "first");
    EXPECT_EQ(Stored("b"), removal ? "(no file)" : "first");
    EXPECT_EQ(Stored("a"), "SECOND");
    fresh.reset();
    world_.CloseAll();
    (void)Remove("b");
  }
}

// Nor is it looked after by a name that is another file's.
TEST_P(NamesTest, ARenamedFileHearsNothingOfWhoGetsItsOldName) {
  FileHandle& file = Open("a");
  EXPECT_TRUE(Rename("a", "b").ok());
  FileHandle& other = Open("a");
  world_.script.Fail({vesk::kFaultWrite, Path("a")}, EIO);
  World::Write(other, "kept", 0);
  (void)other.Flush();  // it may fail at once
  EXPECT_TRUE(FileWorld::Await([&] { return other.GetStats().last_error != 0; }));
  EXPECT_EQ(file.GetStats().last_error, 0);
  World::Write(file, "bytes", 0);
  const Status closed = file.Close();
  EXPECT_TRUE(closed.ok()) << closed.Message();
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return other.Close().ok(); }));
  EXPECT_EQ(Stored("a"), "kept");
  EXPECT_EQ(Stored("b"), "bytes");
}

// ---- removing ----

TEST_P(NamesTest, TheHandlesOfARemovedFileAreStaleAndItsNameIsFree) {
  Put("a", "old bytes");
  FileHandle& file = Open("a");
  FileHandle& reader = world_.Open(Path("a"), {});
  World::Write(file, "dirty", 0);
  EXPECT_EQ(World::Read(reader, 0, 5), "dirty");
  EXPECT_TRUE(Remove("a").ok());
  EXPECT_EQ(Stored("a"), "(no file)");
  FileHandle& next = Open("a");
  EXPECT_EQ(next.Size(), 0u);
  World::Write(next, "new", 0);
  ExpectStale(file);
  World::Read(reader, 0, 10, ESTALE);
  EXPECT_TRUE(reader.Close().ok());
  EXPECT_TRUE(next.Close().ok());
  EXPECT_EQ(Stored("a"), "new");
  EXPECT_EQ(world_.files().memory_used(), 0u);
}

TEST_P(NamesTest, ARemovedFileHearsNothingOfItsSuccessor) {
  FileHandle& file = Open("a");
  EXPECT_TRUE(Remove("a").ok());
  FileHandle& successor = Open("a");
  world_.script.Fail({vesk::kFaultWrite, Path("a")}, EIO);
  World::Write(successor, "kept", 0);
  (void)successor.Flush();  // it may fail at once
  EXPECT_TRUE(FileWorld::Await([&] { return successor.GetStats().last_error != 0; }));
  const Status closed = file.Close();
  EXPECT_TRUE(closed.ok()) << closed.Message();
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return successor.Close().ok(); }));
  EXPECT_EQ(Stored("a"), "kept");
}

TEST_P(NamesTest, ARemovedFileClosesThoughItsWritesHadFailed) {
  FileHandle& told = Open("a");
  FileHandle& file = Open("a");
  World::Write(file, "never", 0);
  world_.script.Fail({vesk::kFaultWrite}, EIO);
  EXPECT_EQ(told.Sync().error(), EIO);
  EXPECT_TRUE(Remove("a").ok());
  const Status closed = file.Close();
  EXPECT_TRUE(closed.ok()) << closed.Message();
  EXPECT_EQ(file.GetStats().parked, 0u);
  world_.script.Heal();
  EXPECT_EQ(Stored("a"), "(no file)");
}

// And does not turn round in circles meanwhile, whoever collects the ends.
TEST(RemovalTest, WhoNeedsTheFileToItselfSleepsUntilNothingIsInFlight) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  vesk::Services services = world.services();
  services.reaper = nullptr;
  vesk::FileSystem files(services, world.store(), world.options);
  const auto waits = [&] { return world.dispatcher().GetStats().waits["Flush"].count; };
  std::unique_ptr<FileHandle> file;
  const std::function<Status()> requests[] = {
      [&] { return file->Truncate(500); },
      [&] { return files.Rename("a", "b"); },
      [&] { return files.Remove("a"); },
  };
  for (const auto& request : requests) {
    for (const auto operation : {vesk::kFaultWrite, vesk::kFaultRead}) {
      world.Put("a", FileWorld::Content(1000));
      ASSERT_TRUE(files.Open("a", FileWorld::Writing(), &file).ok());
      world.script.Hold({operation});
      if (operation == vesk::kFaultWrite) {
        FileWorld::Write(*file, "bytes", 0);
        EXPECT_TRUE(file->Flush().ok());
      } else {
        file->Advise(vesk::Advice::kWillNeed, 0, 10);
      }
      world.script.AwaitHeld(1);
      const std::uint64_t before = waits();
      Task task([&] { EXPECT_TRUE(request().ok()); });
      clock.AwaitWaiters(1);
      world.script.Heal();
      EXPECT_TRUE(task.Await());
      EXPECT_EQ(waits(), before + 1);
      EXPECT_EQ(file->GetStats().in_flight, 0u);
      file.reset();
    }
  }
}

// It could arrive in another file that has the name by then.
TEST(RemovalTest, NothingMoreSetsOutForAFileThatIsBeingRemoved) {
  ManualClock clock;  // it stands still
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  FileHandle& file = world.Open("a");
  FileWorld::Write(file, "on its way", 0);
  world.script.Hold({vesk::kFaultWrite});
  EXPECT_TRUE(file.Flush().ok());
  world.script.AwaitHeld(1);
  FileWorld::Write(file, "later", std::uint64_t{10} * FileWorld::kBlock);
  Task remover([&] { EXPECT_TRUE(world.files().Remove("a").ok()); });
  clock.AwaitWaiters(1);
  {
    const RequestScope scope(world.In(milliseconds(0)));
    EXPECT_EQ(file.Truncate(1).error(), ETIMEDOUT);  // though others try, and give up
  }
  EXPECT_TRUE(file.Flush().ok());
  EXPECT_EQ(world.script.Count(vesk::kFaultWrite), 1u);
  world.script.Heal();
  EXPECT_TRUE(remover.Await());
  EXPECT_EQ(world.Stored("a"), "(no file)");
  EXPECT_TRUE(file.Close().ok());
}

TEST_P(NamesTest, AFailedRemovalLeavesTheFile) {
  FileHandle& file = Open("a");
  World::Write(file, "dirty", 0);
  world_.script.Fail({vesk::kFaultRemove}, EACCES, 1);
  EXPECT_EQ(Remove("a").error(), EACCES);
  EXPECT_EQ(World::Read(file, 0, 9), "dirty");
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), "dirty");
}

TEST_P(AliasTest, ARemovedFileGoesOnWithItsOtherName) {
  Put("a", "bytes");
  std::filesystem::create_hard_link(Path("a"), Path("link"));
  FileHandle& file = Open("a");
  FileHandle& other = Open("link");
  World::Write(file, "dirty", 100);
  EXPECT_TRUE(Remove("a").ok());
  const std::string expected = "bytes" + std::string(95, '\0') + "dirty";
  EXPECT_EQ(World::Read(file, 0, 200), expected);
  EXPECT_EQ(World::Read(other, 0, 200), expected);
  World::Write(file, "BY", 0);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(Stored("link"), "BY" + expected.substr(2));
  EXPECT_EQ(Stored("a"), "(no file)");
}

TEST_P(AliasTest, UnsavedBytesOutliveTheRemovalOfOneNameThoughTheOtherCannotBeAsked) {
  Put("a", "bytes");
  std::filesystem::create_hard_link(Path("a"), Path("link"));
  Open("a");
  FileHandle& other = Open("link");
  World::Write(other, "dirty", 0);
  world_.settings.retry_read_attempts = 1;
  world_.script.Fail({vesk::kFaultStat, Path("link")}, EIO);
  (void)Remove("a");
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] { return other.Sync().ok(); }));
  EXPECT_EQ(Stored("link"), "dirty");
}

// The link led to the file before, and leads to its successor now.
TEST_P(AliasTest, AReplacedFileDoesNotGoOnByALinkToItsName) {
  std::filesystem::create_symlink(Path("b"), Path("link"));
  for (const char* const to : {"b", "./b"}) {
    Put("b", "BBBBBBBB");
    Put("x", "XXXXXXXX");
    FileHandle& replaced = Open("b");
    Open("link");
    EXPECT_TRUE(Rename("x", to).ok());
    ExpectStale(replaced);
    EXPECT_EQ(Stored("b"), "XXXXXXXX");
    world_.CloseAll();
  }
}

TEST_P(AliasTest, AFileWhoseNameIsRemovedInAnotherSpellingGoesOnWithItsOtherName) {
  Put("b", "bytes");
  std::filesystem::create_hard_link(Path("b"), Path("a"));
  FileHandle& file = Open("b");
  Open("a");
  EXPECT_TRUE(Remove("./b").ok());
  World::Write(file, "BY", 0);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(Stored("a"), "BYtes");
}

TEST_P(AliasTest, ARemovedFileDoesNotGoOnByASpellingThatCannotBeAskedNow) {
  Put("b", "bytes");
  FileHandle& file = Open("b");
  Open("./b");
  world_.script.Hold({vesk::kFaultRemove}, 1);
  Task removing([&] { EXPECT_TRUE(Remove("b").ok()); });
  world_.script.AwaitHeld(1);
  world_.script.Fail({vesk::kFaultStat, Path("./b")}, EIO, 1);
  world_.script.EndOne(0, 0);
  EXPECT_TRUE(removing.Await());
  world_.files().Tend();
  Put("b", "successor");
  ExpectStale(file);
  EXPECT_EQ(Stored("b"), "successor");
}

TEST_P(AliasTest, RenamingOntoAnotherLinkOfTheFileKeepsIt) {
  Put("a", "bytes");
  std::filesystem::create_hard_link(Path("a"), Path("link"));
  FileHandle& file = Open("a");
  World::Write(file, "dirty", 0);
  EXPECT_TRUE(Rename("a", "link").ok());  // the system leaves both names
  EXPECT_EQ(World::Read(file, 0, 9), "dirty");
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("link"), "dirty");
}

TEST_P(NamesTest, RemoveDuringReadsInFlightEndsThemAll) {
  Put("a", FileWorld::Content(1000));
  FileHandle& file = Open("a");
  world_.script.Hold({vesk::kFaultRead});
  std::thread reader([&] {
    std::string bytes(100, '?');
    std::size_t moved = 0;
    const Status status = file.ReadAt(bytes.data(), 100, 300, &moved);
    EXPECT_TRUE(status.ok() || status.error() == ESTALE || status.error() == ENOENT)
        << status.Message();
    if (status.ok()) {
      EXPECT_EQ(bytes, FileWorld::Content(1000).substr(300, 100));
    }
  });
  world_.script.AwaitHeld(1);
  std::thread remover([&] { EXPECT_TRUE(Remove("a").ok()); });
  world_.script.Heal();
  remover.join();
  reader.join();
  World::Read(file, 0, 10, ESTALE);
}

// ---- names that change late ----

// A rename or a removal that outlasts its request goes on. Until it is known what has become of it
// nobody knows which file has which name.
class LateNamesTest : public NamesTest {
 protected:
  // It waits, and gives up within its limits.
  template <typename Request>
  void ExpectToWait(const char* what, const Request& request) {
    const RequestScope scope(world_.In(milliseconds(10)));
    EXPECT_EQ(request().error(), ETIMEDOUT) << what;
  }
  void ExpectRequestsToWait(FileHandle& file) {
    char byte = 'x';
    std::size_t moved = 0;
    ExpectToWait("read", [&] { return file.ReadAt(&byte, 1, 0, &moved); });
    ExpectToWait("write", [&] { return file.WriteAt("x", 1, 0); });
    ExpectToWait("append", [&] { return file.Append("x", 1); });
    ExpectToWait("truncate", [&] { return file.Truncate(3); });
    ExpectToWait("sync", [&] { return file.Sync(); });
  }

  Status TryOpen(const std::string& name) {
    std::unique_ptr<FileHandle> handle;
    return world_.files().Open(Path(name), {}, &handle);
  }
  std::unique_ptr<FileHandle> OpenExclusively(const std::string& name) {
    vesk::OpenOptions open = World::Writing();
    open.exclusive = true;
    std::unique_ptr<FileHandle> handle;
    const Status status = world_.files().Open(Path(name), open, &handle);
    EXPECT_TRUE(status.ok()) << status.Message();
    return handle;
  }

  // Rename("a", "b") has taken place, and the two files know it.
  void ExpectRenamed(FileHandle& file, FileHandle& replaced) {
    ExpectStale(replaced);
    EXPECT_EQ(file.GetStats().name, Path("b"));
    EXPECT_EQ(World::Read(file, 0, 9), "AAAAAAAA");
    World::Write(file, "aa", 0);
    EXPECT_TRUE(file.Sync().ok());
    EXPECT_EQ(Stored("b"), "aaAAAAAA");
    EXPECT_EQ(Stored("a"), "(no file)");
  }

  void CloseAndRemoveAll() {
    world_.CloseAll();
    for (const char* const name : {"a", "b", "c", "d"}) (void)world_.RemoveStored(Path(name));
  }
};

INSTANTIATE_TEST_SUITE_P(Stores, LateNamesTest,
                         ::testing::Values(FileWorld::Kind::kMemory, FileWorld::Kind::kDisk),
                         [](const auto& kind) {
                           return kind.param == FileWorld::Kind::kDisk ? "Disk" : "Memory";
                         });

TEST_P(LateNamesTest, ARenameThatTakesPlaceAfterItsRequestIsTakenUpByWhoeverComesNext) {
  const std::function<Status()> comers[] = {
      [&] { return TryOpen("c"); },
      [&] { return Rename("c", "d"); },
      [&] { return Remove("c"); },
  };
  for (const auto& come : comers) {
    Put("a", "AAAAAAAA");
    Put("b", "BBBBBBBB");
    Put("c", "other");
    FileHandle& file = Open("a");
    FileHandle& replaced = Open("b");
    EXPECT_EQ(World::Read(replaced, 0, 9), "BBBBBBBB");
    World::Write(replaced, "never", 0);
    world_.script.Hold({vesk::kFaultRename}, 1);
    ExpectToWait("rename", [&] { return Rename("a", "b"); });
    EXPECT_EQ(world_.script.held(), 1u);
    ExpectRequestsToWait(file);
    ExpectRequestsToWait(replaced);
    for (const auto& request : comers) ExpectToWait("other names", request);
    EXPECT_EQ(Stored("b"), "BBBBBBBB");
    EXPECT_EQ(Stored("c"), "other");
    Task writing([&] { World::Write(replaced, "never", 0, ESTALE); });
    world_.script.Heal();
    EXPECT_TRUE(come().ok());
    EXPECT_TRUE(writing.Await());
    ExpectRenamed(file, replaced);
    CloseAndRemoveAll();
  }
}

TEST_P(LateNamesTest, ARenameThatTakesPlaceAfterItsRequestIsTakenUpWhenFilesAreTended) {
  Put("a", "AAAAAAAA");
  Put("b", "BBBBBBBB");
  FileHandle& file = Open("a");
  FileHandle& replaced = Open("b");
  World::Write(replaced, "never", 0);
  world_.script.Hold({vesk::kFaultRename}, 1);
  Task renaming([&] { EXPECT_EQ(Rename("a", "b").error(), ECANCELED); });
  world_.script.AwaitHeld(1);
  renaming.Cancel();
  EXPECT_TRUE(renaming.Await());
  world_.files().Tend();
  EXPECT_EQ(file.GetStats().name, Path("a")) << "it is not known yet";
  world_.script.Heal();
  EXPECT_TRUE(World::Await([&] {
    world_.files().Tend();
    return file.GetStats().name == Path("b");
  }));
  ExpectRenamed(file, replaced);
}

TEST_P(LateNamesTest, ARenameThatFailsAfterItsRequestLeavesBothFilesAsTheyWere) {
  FileHandle& file = Open("a");
  FileHandle& other = Open("b");
  World::Write(file, "one", 0);
  World::Write(other, "two", 0);
  world_.script.Hold({vesk::kFaultRename}, 1);
  ExpectToWait("rename", [&] { return Rename("a", "b"); });
  ExpectRequestsToWait(other);
  world_.script.EndHeld(EACCES);
  EXPECT_EQ(TryOpen("c").error(), ENOENT);
  EXPECT_EQ(World::Read(file, 0, 9), "one");
  EXPECT_EQ(World::Read(other, 0, 9), "two");
  World::Write(file, "ONE", 0);
  World::Write(other, "TWO", 0);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_TRUE(other.Close().ok());
  EXPECT_EQ(Stored("a") + Stored("b"), "ONETWO");
}

TEST_P(LateNamesTest, AFileThatIsMadeAfterARemovalThatOutlastedItsRequestIsEmpty) {
  Put("a", "old bytes");
  FileHandle& old = Open("a");
  World::Write(old, "unsaved", 20);
  world_.script.Hold({vesk::kFaultRemove}, 1);
  ExpectToWait("remove", [&] { return Remove("a"); });
  EXPECT_EQ(world_.script.held(), 1u);
  ExpectRequestsToWait(old);
  for (const char* const name : {"a", "c"}) ExpectToWait("open", [&] { return TryOpen(name); });
  world_.script.Heal();
  const std::unique_ptr<FileHandle> fresh = OpenExclusively("a");
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(World::Read(*fresh, 0, 99), "");
  EXPECT_TRUE(fresh->Sync().ok());
  EXPECT_EQ(Stored("a"), "");
  ExpectStale(old);
}

// One that is tried again below has nothing to rename the second time: that is a success.
TEST_P(LateNamesTest, ARenameThatTookPlaceThoughItFailedIsKnownToItsFiles) {
  for (const auto& [error, told] : {std::pair(EIO, 0), std::pair(EACCES, EACCES)}) {
    Put("a", "AAAAAAAA");
    Put("b", "BBBBBBBB");
    FileHandle& file = Open("a");
    FileHandle& replaced = Open("b");
    World::Write(replaced, "never", 0);
    world_.script.FailAfterwards({vesk::kFaultRename}, error, 1);
    EXPECT_EQ(Rename("a", "b").error(), told);
    ExpectRenamed(file, replaced);
    EXPECT_EQ(Rename("c", "b").error(), ENOENT) << "there is a file of that name, but not for that";
    CloseAndRemoveAll();
  }
}

TEST_P(LateNamesTest, ARemovalThatTookPlaceThoughItFailedIsKnownToItsFile) {
  for (const auto& [error, told] : {std::pair(EIO, 0), std::pair(EACCES, EACCES)}) {
    Put("a", "old bytes");
    FileHandle& old = Open("a");
    World::Write(old, "never", 0);
    world_.script.FailAfterwards({vesk::kFaultRemove}, error, 1);
    EXPECT_EQ(Remove("a").error(), told);
    ExpectStale(old);
    const std::unique_ptr<FileHandle> fresh = OpenExclusively("a");
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->Size(), 0u);
    EXPECT_TRUE(fresh->Close().ok());
    CloseAndRemoveAll();
  }
}

// Its caller takes the file for the one that it has made.
TEST_P(LateNamesTest, NamesDoNotChangeBesideAnOpenThatHasMadeItsFile) {
  const std::function<Status()> changes[] = {
      [&] { return Rename("b", "a"); },
      [&] { return Rename("a", "c"); },
      [&] { return Remove("a"); },
  };
  for (const auto& change : changes) {
    Put("b", "somebody else's");
    world_.script.Hold({vesk::kFaultOpen, Path("a")}, 1);
    std::unique_ptr<FileHandle> file;
    Task opening([&] { file = OpenExclusively("a"); });
    world_.script.AwaitHeld(1);
    ExpectToWait("change", change);
    EXPECT_EQ(Stored("a"), "");
    world_.script.Heal();
    ASSERT_TRUE(opening.Await());
    ASSERT_NE(file, nullptr);
    World::Write(*file, "own", 0);
    EXPECT_TRUE(file->Sync().ok());
    EXPECT_EQ(Stored("a"), "own");
    EXPECT_EQ(Stored("b"), "somebody else's");
    EXPECT_TRUE(change().ok());
    file.reset();
    CloseAndRemoveAll();
  }
}

// It looks again, since a file that was written has left the table, while the rename waits for it.
TEST_P(LateNamesTest, AnOpenThatHasMadeItsFileAndARenameDoNotWaitForEachOther) {
  Put("b", "somebody else's");
  Put("c", "other");
  FileHandle& written = Open("c");
  World::Write(written, "own", 0);
  world_.script.Hold({vesk::kFaultOpen, Path("a")}, 1);
  std::unique_ptr<FileHandle> file;
  Task opening([&] { file = OpenExclusively("a"); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(written.Close().ok());
  Task renaming([&] { EXPECT_TRUE(Rename("b", "d").ok()); });
  std::this_thread::sleep_for(milliseconds(20));  // for a rename that should wait
  EXPECT_EQ(Stored("d"), "(no file)");
  world_.script.Heal();
  EXPECT_TRUE(opening.Await());
  EXPECT_TRUE(renaming.Await());
}

// No thread in the background, and nobody calls Tend.
TEST_P(LateNamesTest, WhoeverWaitsTakesUpWhatHasComeOfIt) {
  Put("a", "AAAAAAAA");
  FileHandle& file = Open("a");
  std::unique_ptr<FileHandle> other;
  ASSERT_TRUE(world_.files().Open(Path("a"), World::Writing(), &other).ok());
  world_.script.Hold({vesk::kFaultRename}, 1);
  Task renaming([&] { EXPECT_EQ(Rename("a", "b").error(), ECANCELED); });
  world_.script.AwaitHeld(1);
  Task reading([&] { EXPECT_EQ(World::Read(file, 0, 9), "AAAAAAAA"); }, Task::Limits::kNone);
  Task opening([&] { EXPECT_EQ(TryOpen("c").error(), ENOENT); }, Task::Limits::kNone);
  Task closing([&] { other.reset(); }, Task::Limits::kNone);
  renaming.Cancel();
  EXPECT_TRUE(renaming.Await());
  world_.script.Heal();
  EXPECT_TRUE(reading.Await());
  EXPECT_TRUE(opening.Await());
  EXPECT_TRUE(closing.Await());
  EXPECT_EQ(file.GetStats().name, Path("b"));
}

// What the rename was about is not there any more, but not because of the rename.
TEST_P(LateNamesTest, ARenameWhoseFileSomebodyElseHasTakenAwayHasNotTakenPlace) {
  Put("a", "AAAAAAAA");
  Put("b", "BBBBBBBB");
  FileHandle& file = Open("b");
  World::Write(file, "dirty", 0);
  world_.script.Hold({vesk::kFaultRename}, 1);
  Task renaming([&] { EXPECT_EQ(Rename("a", "b").error(), ENOENT); });
  world_.script.AwaitHeld(1);
  EXPECT_TRUE(world_.RemoveStored(Path("a")));
  world_.script.Heal();
  EXPECT_TRUE(renaming.Await());
  EXPECT_EQ(World::Read(file, 0, 9), "dirtyBBB");
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(Stored("b"), "dirtyBBB");
}

TEST_P(LateNamesTest, ARenameOfAFileThatNobodyHasOpenIsASuccessToo) {
  Put("a", "AAAAAAAA");
  world_.script.FailAfterwards({vesk::kFaultRename}, EIO, 1);
  EXPECT_TRUE(Rename("a", "b").ok());
  EXPECT_EQ(Stored("b"), "AAAAAAAA");
}

// Its own file is out of service then: nobody knows what it is called.
TEST_P(LateNamesTest, ANameThatCannotBeLookedUpHoldsUpNoOther) {
  Put("a", "AAAAAAAA");
  Put("c", "other");
  FileHandle& file = Open("a");
  world_.script.Hold({vesk::kFaultRename}, 1);
  Task renaming([&] { EXPECT_EQ(Rename("a", "b").error(), EPERM); });
  world_.script.AwaitHeld(1);
  world_.script.Fail({vesk::kFaultStat, Path("a")}, EACCES);
  world_.script.EndHeld(EPERM);
  EXPECT_TRUE(renaming.Await());
  EXPECT_TRUE(TryOpen("c").ok());
  EXPECT_TRUE(Remove("c").ok());
  EXPECT_TRUE(file.Broken());
}

TEST_P(LateNamesTest, OpensOfOneFileMeet) {
  Put("a", "AAAAAAAA");
  Open("a");
  const auto open = [&] {
    for (int i = 0; i < 300; ++i) EXPECT_TRUE(TryOpen("a").ok());
  };
  Task one(open);
  Task two(open);
  EXPECT_TRUE(one.Await());
  EXPECT_TRUE(two.Await());
}

}  // namespace
}  // namespace vesk_test

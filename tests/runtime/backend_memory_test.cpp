// Files in memory: alone, and in front of another store. What all backends promise is in
// backend_test.cpp.

#include "runtime/backend_memory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/backend_threads.h"
#include "runtime/decorator_faults.h"
#include "runtime/decorator_latency.h"
#include "runtime/dispatcher.h"
#include "runtime/name_operation.h"
#include "runtime/random.h"
#include "runtime/store.h"
#include "tests/support/jobs.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskBundler.h"

namespace vesk_test {
namespace {

using vesk::Access;
using vesk::Clock;
using vesk::FaultRule;
using vesk::FaultsDecorator;
using vesk::FileInfo;
using vesk::LatencyDecorator;
using vesk::MemoryBackend;
using vesk::Random;
using vesk::Store;
using vesk::ThreadsBackend;
using vesk::VeskBundler;
using vesk::VeskJob;

constexpr std::uint64_t kChunk = 64 * 1024;

using DataRun = std::pair<std::uint64_t, std::uint64_t>;  // of data: begin and end

// What a caller does with a store of files in memory.
class Files {
 public:
  explicit Files(MemoryBackend& memory) : bundler_(memory) {}

  Store& names() { return store_; }

  int Write(const std::string& name, const std::string& bytes, std::uint64_t offset) {
    return Do(NewWrite(name, bytes.data(), static_cast<unsigned>(bytes.size()), offset));
  }
  std::string Read(const std::string& name, std::size_t length, std::uint64_t offset,
                   int expected_result = 0) {
    std::string bytes(length, '?');
    unsigned int count = 0;
    EXPECT_EQ(Do(NewRead(name, bytes.data(), static_cast<unsigned>(length), offset, &count)),
              expected_result);
    return bytes.substr(0, count);
  }
  std::string ReadWhole(const std::string& name) { return Read(name, Stat(name).size + 1, 0); }

  FileInfo Stat(const std::string& name) {
    FileInfo info;
    EXPECT_EQ(store_.Stat(name, &info), 0) << name;
    return info;
  }
  DataRun NextData(const std::string& name, std::uint64_t offset) {
    vesk::Extent extent;
    EXPECT_EQ(store_.NextData(name, offset, &extent), 0);
    return {extent.begin, extent.end};
  }

  int Do(VeskJob* job) {
    const JobHolder holder(job);
    bundler_.SubmitJob(job);
    bundler_.WaitForJob(job, nullptr, "test");
    return job->GetReturnValue();
  }

 private:
  VeskBundler bundler_;
  Store store_{bundler_};
};

// One random change, made to a file and to the plain bytes that it shall equal.
void ChangeBoth(Random& random, Files& files, const std::string& name, std::string* model) {
  const std::uint64_t place = random.Next() % (5 * kChunk);
  if (random.Next() % 4 == 0) {
    ASSERT_EQ(files.names().Truncate(name, place), 0);
    model->resize(place);
    return;
  }
  const std::string bytes(random.Next() % (2 * kChunk) + 1,
                          static_cast<char>('a' + random.Next() % 26));
  ASSERT_EQ(files.Write(name, bytes, place), 0);
  if (model->size() < place + bytes.size()) model->resize(place + bytes.size());
  model->replace(place, bytes.size(), bytes);
}

// ---- alone ----

class MemoryBackendTest : public ::testing::Test {
 protected:
  MemoryBackend memory_;
  Files files_{memory_};
};

TEST_F(MemoryBackendTest, JobsEndBeforeStartReturns) {
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  VeskBundler bundler(memory_);
  const JobHolder write(NewWrite("f", "abc", 3, 0));
  bundler.SubmitJob(write.get());
  EXPECT_EQ(write->GetJobState(), vesk::JOB_STATE_DONE);
}

TEST_F(MemoryBackendTest, AFileHasItsOwnInodeAndItsPermissions) {
  ASSERT_EQ(files_.names().Create("f", 0640), 0);
  ASSERT_EQ(files_.names().Create("g", 0604), 0);
  const FileInfo f = files_.Stat("f");
  const FileInfo g = files_.Stat("g");
  EXPECT_EQ(f.mode, static_cast<mode_t>(S_IFREG | 0640));
  EXPECT_EQ(g.mode, static_cast<mode_t>(S_IFREG | 0604));
  EXPECT_EQ(f.device, 0u);
  EXPECT_NE(f.inode, g.inode);
  ASSERT_EQ(files_.names().Rename("f", "h"), 0);
  EXPECT_EQ(files_.Stat("h").inode, f.inode);
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  EXPECT_NE(files_.Stat("f").inode, f.inode);
}

TEST_F(MemoryBackendTest, TheTimeOfAFileMovesOnWithEveryChangeOfItsContentsAndNothingElse) {
  using std::chrono::system_clock;
  const auto now_ns = [] {
    return std::chrono::nanoseconds(system_clock::now().time_since_epoch()).count();
  };
  const std::int64_t before = now_ns();
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  std::int64_t last = files_.Stat("f").modified_ns;
  EXPECT_GE(last, before);
  for (int i = 0; i < 1000; ++i) {  // faster than any clock ticks
    if (i % 3 == 0) {
      ASSERT_EQ(files_.names().Truncate("f", 3), 0);
    } else {
      ASSERT_EQ(files_.Write("f", "abc", 0), 0);
    }
    const std::int64_t modified = files_.Stat("f").modified_ns;
    ASSERT_GT(modified, last) << "also where the contents are the same again";
    last = modified;
  }
  EXPECT_EQ(files_.Read("f", 3, 0), "abc");
  EXPECT_EQ(files_.Write("f", "", 0), 0);
  EXPECT_EQ(files_.names().Sync("f"), 0);
  EXPECT_EQ(files_.names().Rename("f", "g"), 0);
  EXPECT_EQ(files_.Stat("g").modified_ns, last);
  EXPECT_LE(last, now_ns() + 1000);
}

TEST_F(MemoryBackendTest, NamesThatAreTakenOrAbsent) {
  Store& names = files_.names();
  ASSERT_EQ(names.Create("f", 0600), 0);
  EXPECT_EQ(names.Create("f", 0600), EEXIST);
  EXPECT_EQ(names.Open("f", Access::kWrite), 0);
  EXPECT_EQ(names.Sync("f"), 0);
  EXPECT_EQ(names.Rename("f", "f"), 0);
  EXPECT_EQ(names.Open("f", Access::kRead), 0) << "a rename to itself loses nothing";
  EXPECT_EQ(names.Remove("f"), 0);
  EXPECT_EQ(names.Open("f", Access::kRead), ENOENT);
  EXPECT_EQ(names.Sync("f"), ENOENT);
  EXPECT_EQ(names.Remove("f"), ENOENT);
  EXPECT_EQ(names.Truncate("f", 0), ENOENT);
  EXPECT_EQ(files_.Write("f", "x", 0), ENOENT);
  EXPECT_EQ(files_.Do(vesk::NewNameJob(12345, "f")), ENOTSUP);
}

TEST_F(MemoryBackendTest, HolesTakeNoMemoryAndAreKnown) {
  constexpr std::uint64_t kFar = 5UL << 32;
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  EXPECT_EQ(files_.NextData("f", 0), (DataRun{0, 0}));
  ASSERT_EQ(files_.Write("f", "x", kFar), 0);
  EXPECT_EQ(files_.Stat("f").size, kFar + 1);
  EXPECT_EQ(files_.NextData("f", 0), (DataRun{kFar, kFar + 1}));
  EXPECT_EQ(files_.Read("f", 4, kFar - 2), std::string("\0\0x", 3));

  ASSERT_EQ(files_.names().Truncate("f", 1UL << 62), 0);
  EXPECT_EQ(files_.NextData("f", kFar), (DataRun{kFar, kFar + kChunk}));
  EXPECT_EQ(files_.NextData("f", kFar + 7), (DataRun{kFar + 7, kFar + kChunk}));
  EXPECT_EQ(files_.NextData("f", kFar + kChunk), (DataRun{1UL << 62, 1UL << 62}));
  EXPECT_EQ(files_.NextData("f", 1UL << 63), (DataRun{1UL << 62, 1UL << 62}));
}

TEST_F(MemoryBackendTest, NeighbouringDataIsOneRun) {
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  ASSERT_EQ(files_.Write("f", std::string(2 * kChunk, 'a'), kChunk), 0);
  ASSERT_EQ(files_.Write("f", "b", 5 * kChunk), 0);
  EXPECT_EQ(files_.NextData("f", 0), (DataRun{kChunk, 3 * kChunk}));
  EXPECT_EQ(files_.NextData("f", 3 * kChunk), (DataRun{5 * kChunk, 5 * kChunk + 1}));
}

TEST_F(MemoryBackendTest, WhatWasCutOffReadsAsZerosWhenTheFileGrowsAgain) {
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  ASSERT_EQ(files_.Write("f", std::string(3 * kChunk, 'a'), 0), 0);
  for (const std::uint64_t size : {2 * kChunk + 1, 2 * kChunk, kChunk - 1, std::uint64_t{0}}) {
    ASSERT_EQ(files_.names().Truncate("f", size), 0);
    ASSERT_EQ(files_.names().Truncate("f", 3 * kChunk), 0);
    const std::string expected = std::string(size, 'a') + std::string(3 * kChunk - size, '\0');
    EXPECT_TRUE(files_.ReadWhole("f") == expected) << size;
  }
  EXPECT_EQ(files_.NextData("f", 0), (DataRun{3 * kChunk, 3 * kChunk})) << "nothing but a hole";
}

TEST_F(MemoryBackendTest, AFileEndsWhereOffsetsEnd) {
  constexpr auto kLast = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  EXPECT_EQ(files_.Write("f", "ab", kLast - 1), EFBIG);
  EXPECT_EQ(files_.Write("f", "a", ~0UL), EFBIG);
  EXPECT_EQ(files_.names().Truncate("f", kLast + 1), EFBIG);
  EXPECT_EQ(files_.Stat("f").size, 0u);
  EXPECT_EQ(files_.Write("f", "a", kLast - 1), 0);
  EXPECT_EQ(files_.Read("f", 2, kLast - 1), "a");
}

TEST_F(MemoryBackendTest, EqualsPlainBytesThroughRandomChanges) {
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  std::string model;
  Random random(1);
  for (int round = 0; round < 200; ++round) {
    ASSERT_NO_FATAL_FAILURE(ChangeBoth(random, files_, "f", &model));
    ASSERT_EQ(files_.Stat("f").size, model.size());
    const std::uint64_t offset = random.Next() % (5 * kChunk);
    const std::size_t length = random.Next() % (2 * kChunk);
    const std::string expected = offset < model.size() ? model.substr(offset, length) : "";
    ASSERT_TRUE(files_.Read("f", length, offset) == expected) << "round " << round;
  }
}

TEST_F(MemoryBackendTest, ManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i) {
    threads.emplace_back([this, i] {
      const std::string name = "f" + std::to_string(i / 2);  // two threads a file
      const int created = files_.names().Create(name, 0600);
      EXPECT_TRUE(created == 0 || created == EEXIST);
      const std::uint64_t offset = static_cast<std::uint64_t>(i % 2) * kChunk + 7;
      for (int round = 0; round < 100; ++round) {
        const std::string bytes(100, static_cast<char>('a' + round % 26));
        EXPECT_EQ(files_.Write(name, bytes, offset), 0);
        EXPECT_EQ(files_.Read(name, 100, offset), bytes);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(MemoryBackendTest, AfterCancelAllJobsEndWithItsError) {
  ASSERT_EQ(files_.names().Create("f", 0600), 0);
  memory_.CancelAll(ESHUTDOWN);
  EXPECT_EQ(files_.Write("f", "x", 0), ESHUTDOWN);
  EXPECT_EQ(files_.names().Create("g", 0600), ESHUTDOWN);
}

// ---- in front of the operating system's files ----

std::string OnDisk(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

void PutOnDisk(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

class MemoryInFrontTest : public ::testing::Test {
 protected:
  // `rules` are for the store behind; the fixture's own store has none.
  struct Stack {
    explicit Stack(const std::vector<FaultRule>& rules)
        : faults(disk, rules, Clock::System()), memory(&faults), files(memory) {}

    ThreadsBackend disk{ThreadsBackend::Options{}};
    FaultsDecorator faults;
    MemoryBackend memory;
    Files files;
  };

  static FaultRule Failing(vesk::FaultOperations operations, std::uint64_t times) {
    FaultRule rule;
    rule.operations = operations;
    rule.error = EIO;
    rule.times = times;
    return rule;
  }

  const TemporaryDirectory directory_;
  const std::string path_ = directory_ / "file";
  Stack stack_{{}};
  Files& files_ = stack_.files;
};

TEST_F(MemoryInFrontTest, TakesAFileInAndGivesItBackAtSync) {
  PutOnDisk(path_, "0123456789");
  EXPECT_EQ(files_.Read(path_, 4, 3), "3456");
  ASSERT_EQ(files_.Write(path_, "abc", 2), 0);
  ASSERT_EQ(files_.Write(path_, "end", 10), 0);
  EXPECT_EQ(OnDisk(path_), "0123456789") << "not synced yet";
  EXPECT_EQ(files_.Stat(path_).size, 13u);
  ASSERT_EQ(files_.names().Sync(path_), 0);
  EXPECT_EQ(OnDisk(path_), "01abc56789end");
}

TEST_F(MemoryInFrontTest, ASyncBringsANewLengthToo) {
  PutOnDisk(path_, "0123456789");
  ASSERT_EQ(files_.names().Truncate(path_, 4), 0);
  ASSERT_EQ(files_.names().Truncate(path_, 8), 0);
  EXPECT_EQ(OnDisk(path_), "0123456789");
  ASSERT_EQ(files_.names().Sync(path_), 0);
  EXPECT_EQ(OnDisk(path_), std::string("0123\0\0\0\0", 8)) << "what was cut off must not come back";
}

TEST_F(MemoryInFrontTest, TellsWhoAFileIsAsTheStoreBehindDoes) {
  PutOnDisk(path_, "abc");
  ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
  struct stat status = {};
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  for (int round = 0; round < 2; ++round) {
    const FileInfo info = files_.Stat(path_);
    EXPECT_EQ(info.inode, status.st_ino);
    EXPECT_EQ(info.device, status.st_dev);
    EXPECT_EQ(info.mode, status.st_mode);
    EXPECT_EQ(files_.Read(path_, 3, 0), "abc");  // taken in: the second round asks memory
  }
}

TEST_F(MemoryInFrontTest, TellsTheTimeOfAFileAsTheStoreBehindDoesUntilItChangesHere) {
  PutOnDisk(path_, "abc");
  const timespec times[2] = {{1000000000, 5}, {1000000000, 5}};
  ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  constexpr std::int64_t kBehind = 1000000000000000005;
  EXPECT_EQ(files_.Stat(path_).modified_ns, kBehind);
  EXPECT_EQ(files_.Read(path_, 3, 0), "abc");
  EXPECT_EQ(files_.Stat(path_).modified_ns, kBehind) << "it was only taken in";
  ASSERT_EQ(files_.Write(path_, "X", 0), 0);
  const std::int64_t changed = files_.Stat(path_).modified_ns;
  EXPECT_GT(changed, kBehind);
  ASSERT_EQ(files_.names().Sync(path_), 0);
  EXPECT_EQ(files_.Stat(path_).modified_ns, changed) << "bringing it to disk changes nothing here";
}

TEST_F(MemoryInFrontTest, CreatedAndRemovedFilesAreSoOnDisk) {
  ASSERT_EQ(files_.names().Create(path_, 0600), 0);
  EXPECT_EQ(OnDisk(path_), "");
  EXPECT_EQ(files_.names().Create(path_, 0600), EEXIST);
  ASSERT_EQ(files_.Write(path_, "abc", 0), 0);
  ASSERT_EQ(files_.names().Remove(path_), 0);
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
  EXPECT_EQ(files_.Read(path_, 3, 0, ENOENT), "");
  EXPECT_EQ(files_.names().Remove(path_), ENOENT);
  ASSERT_EQ(files_.names().Create(path_, 0600), 0);
  EXPECT_EQ(files_.ReadWhole(path_), "") << "the bytes of the removed file are gone";
}

TEST_F(MemoryInFrontTest, PermissionsAreSetHereAndOnDiskTakenInOrNot) {
  for (const bool taken_in : {false, true}) {
    PutOnDisk(path_, "abc");
    EXPECT_EQ(taken_in ? files_.ReadWhole(path_) : "abc", "abc");
    const mode_t permissions = taken_in ? 0441 : 0604;
    EXPECT_EQ(files_.names().SetPermissions(path_, permissions), 0);
    EXPECT_EQ(files_.Stat(path_).mode, S_IFREG | permissions);
    struct stat on_disk = {};
    ASSERT_EQ(stat(path_.c_str(), &on_disk), 0);
    EXPECT_EQ(on_disk.st_mode, S_IFREG | permissions);
  }
}

TEST_F(MemoryInFrontTest, ARenameTakesUnsyncedBytesAlongAndReplaces) {
  const std::string other = directory_ / "other";
  PutOnDisk(other, "what was here");
  EXPECT_EQ(files_.ReadWhole(other), "what was here");
  ASSERT_EQ(files_.names().Create(path_, 0600), 0);
  ASSERT_EQ(files_.Write(path_, "new", 0), 0);
  ASSERT_EQ(files_.names().Rename(path_, other), 0);
  EXPECT_EQ(OnDisk(other), "new");
  EXPECT_EQ(files_.ReadWhole(other), "new");
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
  EXPECT_EQ(files_.Read(path_, 3, 0, ENOENT), "");
}

TEST_F(MemoryInFrontTest, ARenameOfAFileThatWasNotTakenIn) {
  const std::string other = directory_ / "other";
  PutOnDisk(path_, "abc");
  ASSERT_EQ(files_.names().Rename(path_, other), 0);
  EXPECT_EQ(files_.ReadWhole(other), "abc");
  EXPECT_EQ(files_.names().Rename(path_, other), ENOENT);
}

TEST_F(MemoryInFrontTest, ALinkIsTheSameFile) {
  PutOnDisk(path_, "abc");
  const std::string soft = directory_ / "soft";
  const std::string hard = directory_ / "hard";
  const std::string dotted = directory_ / "./file";
  ASSERT_EQ(symlink(path_.c_str(), soft.c_str()), 0);
  ASSERT_EQ(link(path_.c_str(), hard.c_str()), 0);
  EXPECT_EQ(files_.ReadWhole(path_), "abc");
  ASSERT_EQ(files_.Write(soft, "X", 0), 0);
  ASSERT_EQ(files_.Write(hard, "YZ", 2), 0);
  EXPECT_EQ(files_.Stat(dotted).size, 4u);
  EXPECT_EQ(files_.ReadWhole(path_), "XbYZ");
  ASSERT_EQ(files_.names().Sync(hard), 0);
  EXPECT_EQ(OnDisk(path_), "XbYZ");
}

TEST_F(MemoryInFrontTest, ARemovedNameLeavesItsLinksToTheStoreBehind) {
  PutOnDisk(path_, "abc");
  const std::string soft = directory_ / "soft";
  const std::string hard = directory_ / "hard";
  ASSERT_EQ(symlink(path_.c_str(), soft.c_str()), 0);
  ASSERT_EQ(link(path_.c_str(), hard.c_str()), 0);
  for (const std::string& name : {path_, soft, hard}) EXPECT_EQ(files_.ReadWhole(name), "abc");
  ASSERT_EQ(files_.Write(path_, "XYZ", 0), 0);
  ASSERT_EQ(files_.names().Remove(path_), 0);
  EXPECT_EQ(files_.ReadWhole(hard), "XYZ") << "unsynced bytes of a file that is still there";
  EXPECT_EQ(files_.Read(soft, 3, 0, ENOENT), "") << "the link's target is gone";
}

// One file under four names, none of which is in use yet: `path_`, a hard link, a symbolic link,
// and another spelling.
class MemoryLinksTest : public MemoryInFrontTest {
 protected:
  MemoryLinksTest() {
    PutOnDisk(path_, kBefore);
    EXPECT_EQ(link(path_.c_str(), hard_.c_str()), 0);
    EXPECT_EQ(symlink(path_.c_str(), soft_.c_str()), 0);
  }

  // Runs `act` for each two names, each time with a memory of its own and the file as it was.
  template <typename Act>
  void ForEachPair(const Act& act) {
    for (const std::string& one : names_) {
      for (const std::string& other : names_) {
        SCOPED_TRACE(one + ", then " + other);
        PutOnDisk(path_, kBefore);
        Stack stack({});
        act(stack.files, one, other);
      }
    }
  }

  static constexpr const char* kBefore = "0123456789";

  const std::string hard_ = directory_ / "hard";
  const std::string soft_ = directory_ / "soft";
  const std::string dotted_ = directory_ / "./file";
  const std::vector<std::string> names_{path_, hard_, soft_, dotted_};
  const std::string other_ = directory_ / "other";
};

TEST_F(MemoryLinksTest, ASyncByAnyNameStoresWhatWasWrittenByAnyOther) {
  ForEachPair([&](Files& files, const std::string& one, const std::string& other) {
    ASSERT_EQ(files.Write(one, "abc", 2), 0);
    EXPECT_EQ(OnDisk(path_), kBefore) << "not synced yet";
    ASSERT_EQ(files.names().Sync(other), 0);
    EXPECT_EQ(OnDisk(path_), "01abc56789");
  });
}

TEST_F(MemoryLinksTest, ASyncByAnyNameStoresALengthSetByAnyOther) {
  ForEachPair([&](Files& files, const std::string& one, const std::string& other) {
    ASSERT_EQ(files.names().Truncate(one, 4), 0);
    ASSERT_EQ(files.names().Sync(other), 0);
    EXPECT_EQ(OnDisk(path_), "0123");
  });
}

TEST_F(MemoryLinksTest, AFailedSyncByOneNameIsMadeUpForByAnother) {
  Stack failing({Failing(vesk::kFaultSync, 1)});
  ASSERT_EQ(failing.files.Write(path_, "abc", 0), 0);
  ASSERT_EQ(failing.files.names().Sync(hard_), EIO);
  PutOnDisk(path_, kBefore);  // the system lost what the sync did not keep
  ASSERT_EQ(failing.files.names().Sync(soft_), 0);
  EXPECT_EQ(OnDisk(path_), "abc3456789");
}

TEST_F(MemoryLinksTest, ATruncateByAnyNameIsSeenByAllOthers) {
  ForEachPair([](Files& files, const std::string& one, const std::string& other) {
    EXPECT_EQ(files.Read(one, 10, 0), kBefore);
    ASSERT_EQ(files.names().Truncate(other, 4), 0);
    EXPECT_EQ(files.Stat(one).size, 4u);
    EXPECT_EQ(files.Read(one, 10, 0), "0123");
  });
}

TEST_F(MemoryLinksTest, AStatByAnyNameTellsOfChangesByAnyOther) {
  ForEachPair([](Files& files, const std::string& one, const std::string& other) {
    ASSERT_EQ(files.Write(one, "end", 10), 0);
    EXPECT_EQ(files.Stat(other).size, 13u);
    EXPECT_EQ(files.Stat(other).modified_ns, files.Stat(one).modified_ns);
  });
}

TEST_F(MemoryLinksTest, NextDataByAnyNameFindsWhatWasWrittenByAnyOther) {
  ForEachPair([](Files& files, const std::string& one, const std::string& other) {
    ASSERT_EQ(files.Write(one, "far", 8 * kChunk), 0);
    EXPECT_EQ(files.NextData(other, kChunk), (DataRun{8 * kChunk, 8 * kChunk + 3}));
  });
}

TEST_F(MemoryLinksTest, ARemovedNameLeavesUnsyncedBytesToALinkThatWasNeverUsedHere) {
  ASSERT_EQ(files_.Write(path_, "abc", 0), 0);
  ASSERT_EQ(files_.names().Remove(path_), 0);
  EXPECT_EQ(files_.Read(hard_, 10, 0), "abc3456789");
  EXPECT_EQ(files_.Read(soft_, 1, 0, ENOENT), "");
}

TEST_F(MemoryLinksTest, ARemovalByANameThatWasNeverUsedHereLeavesUnsyncedBytesToTheOthers) {
  ASSERT_EQ(files_.Write(path_, "abc", 0), 0);
  ASSERT_EQ(files_.names().Remove(hard_), 0);
  ASSERT_EQ(files_.names().Remove(soft_), 0);
  EXPECT_EQ(files_.Read(path_, 10, 0), "abc3456789");
  ASSERT_EQ(files_.names().Sync(path_), 0);
  EXPECT_EQ(OnDisk(path_), "abc3456789");
}

// The next file is likely to have the same inode number.
TEST_F(MemoryLinksTest, ALinkWhoseTargetWasRemovedDoesNotKeepItsBytes) {
  ASSERT_EQ(unlink(hard_.c_str()), 0);
  ASSERT_EQ(files_.Write(soft_, "abc", 0), 0);
  ASSERT_EQ(files_.names().Remove(path_), 0);
  EXPECT_EQ(files_.Read(soft_, 10, 0, ENOENT), "");
  ASSERT_EQ(files_.names().Create(path_, 0600), 0);
  EXPECT_EQ(files_.ReadWhole(path_), "");
  EXPECT_EQ(files_.ReadWhole(soft_), "");
}

TEST_F(MemoryLinksTest, ALinkToNowhereCanBeRenamedAndRemoved) {
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_EQ(files_.names().Rename(soft_, other_), 0);
  ASSERT_EQ(files_.names().Remove(other_), 0);
  EXPECT_EQ(files_.names().Remove(other_), ENOENT);
}

TEST_F(MemoryLinksTest, AFileThatTheStoreHasNoRoomForCanBeRemoved) {
  Stack failing({Failing(vesk::kFaultWrite, 0)});
  ASSERT_EQ(failing.files.Write(path_, "abc", 0), 0);
  EXPECT_EQ(failing.files.names().Remove(path_), 0);
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
}

TEST_F(MemoryLinksTest, ANameIsNotRemovedWhileBytesOfItsOtherNamesCannotBeStored) {
  Stack failing({Failing(vesk::kFaultWrite, 1)});
  ASSERT_EQ(failing.files.Write(path_, "abc", 0), 0);
  EXPECT_EQ(failing.files.Stat(hard_).size, 10u);
  EXPECT_EQ(failing.files.names().Remove(path_), EIO);
  EXPECT_EQ(failing.files.Read(hard_, 10, 0), "abc3456789");
  EXPECT_EQ(failing.files.names().Remove(path_), 0);
  EXPECT_EQ(OnDisk(hard_), "abc3456789");
}

TEST_F(MemoryLinksTest, ARenameByOneNameTakesAlongWhatWasWrittenByAnother) {
  ASSERT_EQ(files_.Write(dotted_, "abc", 0), 0);
  ASSERT_EQ(files_.names().Rename(path_, other_), 0);
  EXPECT_EQ(OnDisk(other_), "abc3456789");
  EXPECT_EQ(files_.Read(other_, 10, 0), "abc3456789");
  EXPECT_EQ(files_.Read(hard_, 10, 0), "abc3456789");
}

TEST_F(MemoryLinksTest, NamesThatLedToARenamedFileLeadToTheNextOneThere) {
  for (const std::string& name : names_) EXPECT_EQ(files_.Read(name, 10, 0), kBefore);
  ASSERT_EQ(files_.names().Rename(path_, other_), 0);
  EXPECT_EQ(files_.Read(dotted_, 10, 0, ENOENT), "");
  EXPECT_EQ(files_.Read(soft_, 10, 0, ENOENT), "");
  ASSERT_EQ(files_.names().Create(path_, 0600), 0);
  ASSERT_EQ(files_.Write(soft_, "new", 0), 0);
  EXPECT_EQ(files_.ReadWhole(path_), "new");
  EXPECT_EQ(files_.ReadWhole(dotted_), "new");
  EXPECT_EQ(files_.ReadWhole(hard_), kBefore);
  EXPECT_EQ(files_.ReadWhole(other_), kBefore);
}

TEST_F(MemoryLinksTest, AReplacedNameLeavesUnsyncedBytesToItsLinks) {
  PutOnDisk(other_, "replacement");
  ASSERT_EQ(files_.Write(dotted_, "abc", 0), 0);
  ASSERT_EQ(files_.names().Rename(other_, path_), 0);
  EXPECT_EQ(files_.ReadWhole(hard_), "abc3456789");
  for (const std::string& name : {path_, dotted_, soft_}) {
    EXPECT_EQ(files_.ReadWhole(name), "replacement") << name;
  }
}

TEST_F(MemoryLinksTest, ARenameOntoAnotherLinkOfTheFileChangesNothing) {
  ForEachPair([&](Files& files, const std::string& one, const std::string& other) {
    if (one == soft_ || other == soft_) return;  // they do not survive it
    ASSERT_EQ(files.Write(other, "abc", 0), 0);
    ASSERT_EQ(files.names().Rename(one, other), 0);
    EXPECT_EQ(files.Read(one, 10, 0), "abc3456789");
    EXPECT_EQ(files.Read(other, 10, 0), "abc3456789");
    ASSERT_EQ(files.names().Sync(one), 0);
    EXPECT_EQ(OnDisk(path_), "abc3456789");
  });
}

TEST_F(MemoryLinksTest, ALinkThatIsRenamedOntoItsTargetLeadsNowhere) {
  ASSERT_EQ(files_.Write(soft_, "abc", 0), 0);
  ASSERT_EQ(files_.names().Rename(soft_, path_), 0);
  EXPECT_EQ(files_.Read(path_, 10, 0, ELOOP), "");
  EXPECT_EQ(files_.Read(hard_, 10, 0), "abc3456789");
}

TEST_F(MemoryLinksTest, ARelativeLinkThatIsRenamedLeadsWhereTheStoreBehindSays) {
  const std::string relative = directory_ / "relative";
  const std::string folder = directory_ / "folder";
  ASSERT_EQ(symlink("file", relative.c_str()), 0);
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  PutOnDisk(folder + "/file", "the other file");
  ASSERT_EQ(files_.Write(relative, "abc", 0), 0);
  ASSERT_EQ(files_.names().Rename(relative, folder + "/relative"), 0);
  EXPECT_EQ(files_.ReadWhole(folder + "/relative"), "the other file");
  EXPECT_EQ(files_.ReadWhole(path_), "abc3456789");
}

TEST_F(MemoryLinksTest, ARenamedDirectoryTakesTheNamesInItAlong) {
  const std::string folder = directory_ / "folder";
  const std::string moved = directory_ / "moved";
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(files_.names().Create(folder + "/f", 0600), 0);
  ASSERT_EQ(files_.Write(folder + "/f", "abc", 0), 0);
  ASSERT_EQ(files_.names().Rename(folder, moved), 0);
  EXPECT_EQ(files_.Read(folder + "/f", 3, 0, ENOENT), "");
  EXPECT_EQ(files_.Read(moved + "/f", 3, 0), "abc");
  EXPECT_EQ(OnDisk(moved + "/f"), "abc");
}

// A store that does not tell which names are the same file.
class Nameless final : public vesk::Decorator {
 public:
  using Decorator::Decorator;

 private:
  void JobEnded(VeskJob* job, int result) override {
    if (job->GetType() == vesk::JOB_TYPE_NAME) {
      const vesk::NameOperation operation(job->GetOP());
      if (operation.code == vesk::OPCODE_STAT) {
        auto& info = operation.ResultAs<FileInfo>();
        info.device = 0;
        info.inode = 0;
      }
    }
    End(job, result);
  }
};

TEST_F(MemoryInFrontTest, WhereTheStoreDoesNotTellFilesApartEachNameIsAFile) {
  const std::string other = directory_ / "other";
  PutOnDisk(path_, "one");
  PutOnDisk(other, "another");
  ThreadsBackend disk(ThreadsBackend::Options{});
  Nameless nameless(disk);
  MemoryBackend memory(&nameless);
  Files files(memory);
  EXPECT_EQ(files.ReadWhole(path_), "one");
  EXPECT_EQ(files.ReadWhole(other), "another");
  ASSERT_EQ(files.Write(path_, "ONE", 0), 0);
  ASSERT_EQ(files.names().Sync(other), 0);
  EXPECT_EQ(OnDisk(other), "another");
  ASSERT_EQ(files.names().Rename(path_, other), 0);
  EXPECT_EQ(files.ReadWhole(other), "ONE");
  EXPECT_EQ(OnDisk(other), "ONE");
}

TEST_F(MemoryInFrontTest, WhatIsNoRegularFileHasNoBytes) {
  const std::string folder = directory_ / "folder";
  const std::string pipe = directory_ / "pipe";
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_TRUE(S_ISDIR(files_.Stat(folder).mode));
  EXPECT_EQ(files_.Read(folder, 1, 0, EISDIR), "");
  EXPECT_EQ(files_.Read(pipe, 1, 0, ENOTSUP), "") << "and nobody waits for a writer";
  EXPECT_EQ(files_.Write(directory_ / "absent", "x", 0), ENOENT);
  EXPECT_EQ(files_.names().Open(directory_ / "absent", Access::kRead), ENOENT);
  EXPECT_EQ(files_.names().Sync(directory_ / "absent"), ENOENT);
}

TEST_F(MemoryInFrontTest, HolesAreTakenInAsHoles) {
  constexpr std::uint64_t kSize = 64UL << 20;
  PutOnDisk(path_, "");
  ASSERT_EQ(truncate(path_.c_str(), kSize), 0);
  {
    std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(32 << 20);
    file << "data";
  }
  EXPECT_EQ(files_.Read(path_, 5, (32 << 20) - 1), std::string("\0data", 5));
  EXPECT_EQ(files_.Stat(path_).size, kSize);
  const DataRun data = files_.NextData(path_, 0);
  EXPECT_LE(data.first, 32u << 20);
  EXPECT_GE(data.second, (32u << 20) + 4);
}

TEST_F(MemoryInFrontTest, AFailureBehindIsTheResult) {
  PutOnDisk(path_, "abc");
  struct Row {
    vesk::FaultOperations operation;
    int (*act)(Files& files, const std::string& name);
  };
  const auto read = [](Files& files, const std::string& name) {
    char byte = 0;
    unsigned int count = 0;
    return files.Do(NewRead(name, &byte, 1, 0, &count));
  };
  const auto sync = [](Files& files, const std::string& name) { return files.names().Sync(name); };
  const auto change = [](Files& files, const std::string& name) {
    EXPECT_EQ(files.Write(name, "X", 0), 0);
    return files.names().Sync(name);
  };
  const auto rename = [](Files& files, const std::string& name) {
    return files.names().Rename(name, name + "2");
  };
  const auto remove = [](Files& files, const std::string& name) {
    return files.names().Remove(name);
  };
  const Row rows[] = {
      {vesk::kFaultStat, read},     {vesk::kFaultRead, read},     {vesk::kFaultNextData, read},
      {vesk::kFaultSync, sync},     {vesk::kFaultWrite, change},  {vesk::kFaultTruncate, change},
      {vesk::kFaultStat, sync},     {vesk::kFaultStat, rename},   {vesk::kFaultStat, remove},
      {vesk::kFaultRename, rename}, {vesk::kFaultRemove, remove},
  };
  for (const Row& row : rows) {
    Stack failing({Failing(row.operation, 1)});
    EXPECT_EQ(row.act(failing.files, path_), EIO) << row.operation;
    EXPECT_EQ(row.act(failing.files, path_), 0) << row.operation << " recovers";
    PutOnDisk(path_, "abc");
  }
}

TEST_F(MemoryInFrontTest, MissingBytesBehindAreAnErrorAndNotZeros) {
  PutOnDisk(path_, "0123456789");
  FaultRule rule;
  rule.operations = vesk::kFaultRead;
  rule.effect = FaultRule::Effect::kShort;
  rule.times = 1;
  Stack failing({rule});
  EXPECT_EQ(failing.files.Read(path_, 10, 0, EIO), "");
  EXPECT_EQ(failing.files.Read(path_, 10, 0), "0123456789") << "half of it was kept";
}

TEST_F(MemoryInFrontTest, AFailedSyncLosesNothing) {
  PutOnDisk(path_, std::string(3 * kChunk, 'a'));
  Stack failing({Failing(vesk::kFaultSync, 1)});
  ASSERT_EQ(failing.files.Write(path_, "X", 0), 0);
  ASSERT_EQ(failing.files.names().Sync(path_), EIO);
  PutOnDisk(path_, std::string(3 * kChunk, 'a'));  // the system lost what the sync did not keep
  ASSERT_EQ(failing.files.names().Sync(path_), 0);
  EXPECT_EQ(OnDisk(path_), "X" + std::string(3 * kChunk - 1, 'a'));
}

TEST_F(MemoryInFrontTest, WhatAFailedSyncLeftBehindDoesNotComeBack) {
  PutOnDisk(path_, "");
  Stack failing({Failing(vesk::kFaultSync, 1)});
  ASSERT_EQ(failing.files.Write(path_, "0123456789", 0), 0);
  ASSERT_EQ(failing.files.names().Sync(path_), EIO);
  ASSERT_EQ(OnDisk(path_), "0123456789") << "it came so far";
  ASSERT_EQ(failing.files.names().Truncate(path_, 4), 0);
  ASSERT_EQ(failing.files.names().Truncate(path_, 2 * kChunk), 0);
  ASSERT_EQ(failing.files.names().Sync(path_), 0);
  EXPECT_TRUE(OnDisk(path_) == "0123" + std::string(2 * kChunk - 4, '\0'));
}

// Errors come at any step of a write-back, which changes on both sides of the cut follow.
TEST_F(MemoryInFrontTest, ASyncedFileEqualsMemoryWhateverFailedBefore) {
  int failed = 0;
  for (std::uint64_t seed = 1; seed <= 12; ++seed) {
    PutOnDisk(path_, std::string(3 * kChunk + 5, 'o'));
    std::string model(3 * kChunk + 5, 'o');
    FaultRule rule = Failing(vesk::kFaultWrite | vesk::kFaultTruncate | vesk::kFaultSync, 0);
    rule.when = FaultRule::When::kChance;
    rule.chance = 0.3;
    rule.seed = seed;
    Stack failing({rule});
    Random random(seed);
    for (int round = 0; round < 12; ++round) {
      ASSERT_NO_FATAL_FAILURE(ChangeBoth(random, failing.files, path_, &model));
      if (random.Next() % 2 != 0) continue;
      const int error = failing.files.names().Sync(path_);
      ASSERT_TRUE(error == 0 || error == EIO);
      failed += error == 0 ? 0 : 1;
      ASSERT_TRUE(error != 0 || OnDisk(path_) == model) << "seed " << seed << " round " << round;
    }
    failing.faults.SetOn(false);
    ASSERT_EQ(failing.files.names().Sync(path_), 0);
    ASSERT_TRUE(OnDisk(path_) == model) << "seed " << seed;
    ASSERT_TRUE(failing.files.ReadWhole(path_) == model) << "seed " << seed;
  }
  EXPECT_GT(failed, 12) << "hardly a sync failed, so nothing was tested";
}

TEST_F(MemoryInFrontTest, TheStoreBehindMayEndJobsOnOtherThreads) {
  PutOnDisk(path_, "0123456789");
  ThreadsBackend disk(ThreadsBackend::Options{});
  LatencyDecorator other_threads(disk, {}, Clock::System());
  MemoryBackend memory(&other_threads);
  Files files(memory);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      const std::string name = directory_ / ("new" + std::to_string(i));
      EXPECT_EQ(files.Read(path_, 10, 0), "0123456789");
      EXPECT_EQ(files.names().Create(name, 0600), 0);
      EXPECT_EQ(files.Write(name, "abc", 0), 0);
      EXPECT_EQ(files.names().Sync(name), 0);
      EXPECT_EQ(OnDisk(name), "abc");
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(MemoryInFrontTest, CancelAllReachesAJobThatWaitsForTheStoreBehind) {
  PutOnDisk(path_, "abc");
  FaultRule rule;
  rule.operations = vesk::kFaultStat;
  rule.effect = FaultRule::Effect::kNever;
  Stack stuck({rule});
  std::thread reader([&] { EXPECT_EQ(stuck.files.Read(path_, 3, 0, ECANCELED), ""); });
  const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (stuck.faults.GetCounts()[0].faulted == 0 && std::chrono::steady_clock::now() < watchdog) {
    std::this_thread::yield();
  }
  EXPECT_EQ(stuck.faults.GetCounts()[0].faulted, 1u);
  stuck.memory.CancelAll(ECANCELED);
  reader.join();
}

}  // namespace
}  // namespace vesk_test

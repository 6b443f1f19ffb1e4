// What a handle promises: opening, bytes, length, limits of time, and a failed check.

#include "files/file_handle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fstream>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
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
using vesk::Advice;
using vesk::CancelToken;
using vesk::FileHandle;
using vesk::FileSystemOptions;
using vesk::OpenOptions;
using vesk::RequestScope;
using vesk::Status;

constexpr std::uint64_t kMaxSize = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kBlock = FileWorld::kBlock;

// Over memory and over files on disk alike.
class FileHandleTest : public ::testing::TestWithParam<FileWorld::Kind> {
 protected:
  std::string Path(const std::string& name) const { return directory_ / name; }
  FileHandle& Open(const std::string& name, const OpenOptions& open = FileWorld::Writing()) {
    return world_.Open(Path(name), open);
  }
  Status TryOpen(const std::string& name, const OpenOptions& open) {
    std::unique_ptr<FileHandle> handle;
    Status status = world_.files().Open(Path(name), open, &handle);
    EXPECT_EQ(handle != nullptr, status.ok());
    return status;
  }
  static std::string Read(FileHandle& file, std::uint64_t offset, std::size_t length,
                          int error = 0) {
    return FileWorld::Read(file, offset, length, error);
  }
  static void Write(FileHandle& file, const std::string& bytes, std::uint64_t offset,
                    int error = 0) {
    FileWorld::Write(file, bytes, offset, error);
  }
  std::string Stored(const std::string& name) { return world_.Stored(Path(name)); }
  void Put(const std::string& name, const std::string& bytes) { world_.Put(Path(name), bytes); }

  const TemporaryDirectory directory_;
  FileWorld world_{GetParam()};
};

std::string KindName(const ::testing::TestParamInfo<FileWorld::Kind>& info) {
  return info.param == FileWorld::Kind::kDisk ? "Disk" : "Memory";
}

INSTANTIATE_TEST_SUITE_P(Stores, FileHandleTest,
                         ::testing::Values(FileWorld::Kind::kMemory, FileWorld::Kind::kDisk),
                         KindName);

// ---- opening ----

TEST_P(FileHandleTest, OpenOfAFileThatIsNotThereFailsOrMakesIt) {
  OpenOptions open;
  const Status missing = TryOpen("a", open);
  EXPECT_EQ(missing.error(), ENOENT);
  EXPECT_NE(missing.context().find("'" + Path("a") + "'"), std::string::npos);
  open.write = true;
  EXPECT_EQ(TryOpen("a", open).error(), ENOENT);
  open.create = true;
  EXPECT_EQ(TryOpen("a", open).error(), 0);
  EXPECT_EQ(Stored("a"), "") << "the file is there though nothing was written";
  EXPECT_EQ(TryOpen("a", open).error(), 0) << "and may be there already";
}

TEST_P(FileHandleTest, ExclusiveCreationRefusesAFileThatIsThere) {
  OpenOptions open = FileWorld::Writing();
  open.exclusive = true;
  EXPECT_EQ(TryOpen("a", open).error(), 0);
  EXPECT_EQ(TryOpen("a", open).error(), EEXIST);
  open.create = false;
  EXPECT_EQ(TryOpen("a", open).error(), 0) << "it means something with `create` alone";
}

TEST_P(FileHandleTest, CreatingAndTruncatingNeedWriting) {
  Put("a", "bytes");
  for (const bool create : {true, false}) {
    OpenOptions open;
    (create ? open.create : open.truncate) = true;
    const Status status = TryOpen("a", open);
    EXPECT_EQ(status.error(), EINVAL);
    EXPECT_NE(status.context().find("opened for writing"), std::string::npos) << status.context();
  }
  EXPECT_EQ(Stored("a"), "bytes");
}

TEST_P(FileHandleTest, OpenCanBeginWithNoBytes) {
  Put("a", "bytes");
  OpenOptions open = FileWorld::Writing(false);
  FileHandle& other = Open("a");
  EXPECT_EQ(Read(other, 0, 9), "bytes");
  open.truncate = true;
  FileHandle& file = Open("a", open);
  EXPECT_EQ(file.Size(), 0u);
  EXPECT_EQ(other.Size(), 0u);
  EXPECT_EQ(Read(other, 0, 9), "");
  EXPECT_EQ(Stored("a"), "");
}

TEST_P(FileHandleTest, AHandleForReadingRefusesWhatChangesTheFile) {
  Put("a", "bytes");
  FileHandle& file = Open("a", {});
  std::size_t moved = 7;
  EXPECT_EQ(file.WriteAt("x", 1, 0, &moved).error(), EBADF);
  EXPECT_EQ(moved, 0u);
  Write(file, "x", 100, EBADF);
  EXPECT_EQ(file.Append("x", 1).error(), EBADF);
  EXPECT_EQ(file.Truncate(0).error(), EBADF);
  EXPECT_EQ(Read(file, 0, 9), "bytes");
  EXPECT_TRUE(file.Flush().ok());
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), "bytes");
}

TEST_P(FileHandleTest, AFileThatMayNotBeWrittenIsNotOpenedForWriting) {
  Put("a", "bytes");
  world_.script.Hold({vesk::kFaultOpen});
  int error = 0;
  Task opening([&] { error = TryOpen("a", FileWorld::Writing(false)).error(); });
  world_.script.AwaitHeld(1);
  world_.script.EndOne(0, 0);  // it may be read
  world_.script.AwaitHeld(1);
  world_.script.EndOne(0, EROFS);
  EXPECT_TRUE(opening.Await());
  EXPECT_EQ(error, EROFS);
}

TEST(OptionsFromTest, EverySettingReachesItsOption) {
  vesk::Settings settings;
  settings.memory = 1001;
  settings.block_size = 1002;
  settings.read_ahead = 3;
  settings.dirty_soft = 1004;
  settings.dirty_hard = 1005;
  settings.dirty_age_ms = 1006;
  settings.when_unknown = vesk::UnknownPolicy::kFail;
  const FileSystemOptions options = vesk::OptionsFrom(settings);
  EXPECT_EQ(options.memory, 1001u);
  EXPECT_EQ(options.block_size, 1002u);
  EXPECT_EQ(options.read_ahead, 3u);
  EXPECT_EQ(options.dirty_soft, 1004u);
  EXPECT_EQ(options.dirty_hard, 1005u);
  EXPECT_EQ(options.dirty_age, milliseconds(1006));
  EXPECT_EQ(options.when_unknown, vesk::UnknownPolicy::kFail);
}

TEST_P(FileHandleTest, AClosedHandleTakesNoMoreRequests) {
  Put("a", "bytes");
  FileHandle& file = Open("a");
  FileHandle& other = Open("a");
  EXPECT_TRUE(file.Close().ok());
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(file.Flush().error(), EBADF);
  EXPECT_EQ(file.Sync().error(), EBADF);
  EXPECT_EQ(file.Truncate(1).error(), EBADF);
  EXPECT_EQ(file.Append("x", 1).error(), EBADF);
  Write(file, "x", 0, EBADF);
  char byte = 'x';
  std::size_t moved = 7;
  EXPECT_EQ(file.ReadAt(&byte, 1, 0, &moved).error(), EBADF);
  EXPECT_EQ(moved, 0u);
  const iovec nothing = {&byte, 0};
  EXPECT_EQ(file.ReadAt(&nothing, 1, 0, &moved).error(), EBADF);
  file.Advise(Advice::kWillNeed, 0, 5);
  EXPECT_EQ(other.GetStats().in_flight + other.GetStats().cached, 0u);
  Write(other, "BY", 0);
  file.Discard();
  EXPECT_EQ(Read(other, 0, 9), "BYtes");
}

class DiskTest : public FileHandleTest {};
INSTANTIATE_TEST_SUITE_P(Stores, DiskTest, ::testing::Values(FileWorld::Kind::kDisk), KindName);

TEST_P(DiskTest, OnlyARegularFileCanBeOpened) {
  ASSERT_EQ(mkdir(Path("directory").c_str(), 0755), 0);
  EXPECT_EQ(TryOpen("directory", {}).error(), EISDIR);
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0644), 0);
  EXPECT_EQ(TryOpen("pipe", {}).error(), EINVAL);
  EXPECT_EQ(TryOpen("none/a", FileWorld::Writing()).error(), ENOENT);
  Put("a", "bytes");
  EXPECT_EQ(TryOpen("a/b", FileWorld::Writing()).error(), ENOTDIR);
}

TEST_P(DiskTest, AFileIsMadeWithThePermissionsAskedFor) {
  OpenOptions open = FileWorld::Writing();
  open.permissions = 0640;
  EXPECT_TRUE(Open("a", open).Close().ok());
  struct stat info;
  ASSERT_EQ(stat(Path("a").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0640u);
}

TEST_P(FileHandleTest, APermissionErrorIsToldByTheOpen) {
  Put("a", "bytes");
  world_.script.Fail({vesk::kFaultOpen}, EACCES, 1);
  EXPECT_EQ(TryOpen("a", {}).error(), EACCES);
  EXPECT_EQ(TryOpen("a", FileWorld::Writing()).error(), 0);
  world_.script.Fail({vesk::kFaultOpen}, EACCES, 1);
  EXPECT_EQ(TryOpen("a", FileWorld::Writing()).error(), EACCES) << "it may be written alone";
  world_.script.Fail({vesk::kFaultStat}, EACCES, 1);
  EXPECT_EQ(TryOpen("b", FileWorld::Writing()).error(), EACCES);
  world_.script.Fail({vesk::kFaultCreate}, EROFS, 1);
  EXPECT_EQ(TryOpen("b", FileWorld::Writing()).error(), EROFS);
  EXPECT_TRUE(world_.files().GetFiles().empty()) << "nothing is left open";
}

struct BadOption {
  const char* what;
  const char* text;
  void (*set)(FileSystemOptions* options);
};

TEST(FileSystemOptionsTest, OptionsBeyondTheirRangeAreRefusedWithWhatWouldBeRight) {
  FileWorld world;
  const BadOption table[] = {
      {"memory", "at least 1", [](FileSystemOptions* o) { o->memory = 0; }},
      {"block size", "between 1 byte", [](FileSystemOptions* o) { o->block_size = 0; }},
      {"block size", "100 MiB - 1", [](FileSystemOptions* o) { o->block_size = 100u << 20; }},
      {"read-ahead", "99", [](FileSystemOptions* o) { o->read_ahead = 100; }},
      {"soft limit", "above the hard one", [](FileSystemOptions* o) { o->dirty_soft = 1u << 30; }},
  };
  for (const BadOption& bad : table) {
    FileSystemOptions options;
    options.background = false;
    bad.set(&options);
    try {
      const vesk::FileSystem files(world.services(), world.store(), options);
      ADD_FAILURE() << bad.what << " was taken";
    } catch (const std::invalid_argument& refusal) {
      const std::string text = refusal.what();
      EXPECT_NE(text.find(bad.what), std::string::npos) << text;
      EXPECT_NE(text.find(bad.text), std::string::npos) << text;
    }
  }
}

TEST(FileSystemOptionsTest, OptionsAtTheEndsOfTheirRangesWork) {
  void (*const table[])(FileSystemOptions*) = {
      [](FileSystemOptions* o) { o->memory = 1; },
      [](FileSystemOptions* o) { o->block_size = 1; },
      [](FileSystemOptions* o) { o->block_size = FileSystemOptions::kMaxBlockSize; },
      [](FileSystemOptions* o) { o->read_ahead = 99; },
      [](FileSystemOptions* o) { o->read_ahead = 0; },
      [](FileSystemOptions* o) { o->dirty_soft = o->dirty_hard; },
      [](FileSystemOptions* o) { o->dirty_soft = o->dirty_hard = 0; },
  };
  for (const auto set : table) {
    FileWorld world;
    set(&world.options);
    const std::string content = FileWorld::Content(300);
    FileHandle& file = world.Open("a");
    FileWorld::Write(file, content, 0);
    EXPECT_EQ(FileWorld::Read(file, 0, 400), content);
    EXPECT_TRUE(file.Close().ok());
    EXPECT_EQ(world.Stored("a"), content);
    EXPECT_EQ(FileWorld::Read(world.Open("a"), 0, 400), content);
  }
}

// ---- bytes ----

TEST_P(FileHandleTest, IsByteIdenticalAroundEveryBlockBoundary) {
  for (const std::size_t size : {0u, 1u, 63u, 64u, 65u, 127u, 128u, 129u, 640u, 641u, 9000u}) {
    const std::string content = FileWorld::Content(size);
    const std::string name = "f" + std::to_string(size);
    FileHandle& out = Open(name);
    for (std::size_t at = 0; at < size; at += 50) Write(out, content.substr(at, 50), at);
    EXPECT_EQ(Read(out, 0, size + 100), content);
    EXPECT_TRUE(out.Close().ok());
    EXPECT_EQ(Stored(name), content);

    FileHandle& in = Open(name, {});
    EXPECT_EQ(in.Size(), size);
    EXPECT_EQ(Read(in, 0, size + 100), content);
    EXPECT_TRUE(in.Close().ok());
    FileHandle& pieces = Open(name, {});
    std::string read;
    while (read.size() < size) read += Read(pieces, read.size(), 33);
    EXPECT_EQ(read, content);
    EXPECT_TRUE(pieces.Close().ok());
  }
}

TEST_P(FileHandleTest, ReadsEndWhereTheFileDoes) {
  Put("a", "0123456789");
  FileHandle& file = Open("a");
  EXPECT_EQ(Read(file, 8, 100), "89");
  EXPECT_EQ(Read(file, 9, 1), "9");
  EXPECT_EQ(Read(file, 10, 1), "");
  EXPECT_EQ(Read(file, 11, 1), "");
  EXPECT_EQ(Read(file, 3, 0), "");
}

TEST_P(FileHandleTest, ReadsNearTheLargestOffsetsFindNothing) {
  Put("a", "0123456789");
  FileHandle& file = Open("a");
  for (const std::uint64_t at :
       {kMaxSize - 1, kMaxSize, kMaxSize + 1, ~std::uint64_t{0} - 1, ~std::uint64_t{0}}) {
    EXPECT_EQ(Read(file, at, 1), "");
    EXPECT_EQ(Read(file, at, 100), "");
    EXPECT_EQ(Read(file, at, 0), "");
  }
  EXPECT_EQ(Read(file, 0, 100), "0123456789");
}

TEST_P(FileHandleTest, AFileCannotGrowBeyondTheLargestOffset) {
  FileHandle& file = Open("a");
  Write(file, "ab", kMaxSize - 1, EFBIG);
  Write(file, "a", kMaxSize, EFBIG);
  Write(file, "ab", kMaxSize + 1, EFBIG);
  Write(file, "ab", ~std::uint64_t{0}, EFBIG);
  Write(file, "ab", ~std::uint64_t{0} - 1, EFBIG);
  Write(file, "", kMaxSize);
  Write(file, "", kMaxSize + 1, EFBIG);
  EXPECT_EQ(file.Truncate(kMaxSize + 1).error(), EFBIG);
  EXPECT_EQ(file.Size(), 0u);
  Write(file, "ab", 0);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), "ab");
}

TEST_P(FileHandleTest, ALengthOfZeroChangesNothing) {
  FileHandle& file = Open("a");
  Write(file, "", 0);
  Write(file, "", 1000);
  std::uint64_t at = 7;
  EXPECT_TRUE(file.Append("", 0, &at).ok());
  EXPECT_EQ(at, 0u);
  EXPECT_EQ(file.Size(), 0u);
  std::size_t moved = 7;
  EXPECT_TRUE(file.ReadAt(nullptr, 0, 0, &moved).ok());
  EXPECT_EQ(moved, 0u);
  EXPECT_TRUE(file.WriteAt(static_cast<const struct iovec*>(nullptr), 0, 0, &moved).ok());
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(world_.files().GetStats().cached, 0u);
  Write(file, "bytes", 0);
  EXPECT_EQ(Read(file, 0, 5), "bytes");
  const std::uint64_t hits = file.GetStats().hits;
  EXPECT_TRUE(file.ReadAt(nullptr, 0, 2, &moved).ok());
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(file.GetStats().hits, hits);
}

TEST(FarOffsetsTest, AMemoryFileHoldsBytesAtTheLargestOffset) {
  FileWorld world;
  FileHandle& file = world.Open("a");
  FileWorld::Write(file, "first", 0);
  FileWorld::Write(file, "end", kMaxSize - 3);
  EXPECT_EQ(file.Size(), kMaxSize);
  char end[] = "END";
  const iovec out[] = {{end, 1}, {end + 1, 2}};
  EXPECT_TRUE(file.WriteAt(out, 2, kMaxSize - 3).ok());
  FileWorld::Write(file, "end", kMaxSize - 3);
  EXPECT_EQ(file.Append("x", 1).error(), EFBIG);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(FileWorld::Read(file, kMaxSize - 5, 100), std::string("\0\0end", 5));
    EXPECT_EQ(FileWorld::Read(file, kMaxSize / 2, 3), std::string(3, '\0'));
    EXPECT_EQ(FileWorld::Read(file, 0, 6), std::string("first\0", 6));
    EXPECT_TRUE(file.Sync().ok());
    file.Advise(Advice::kDontNeed, 0, kMaxSize);
  }
  EXPECT_TRUE(file.Truncate(2).ok());
  EXPECT_EQ(FileWorld::Read(file, 0, 100), "fi");
  EXPECT_TRUE(file.Truncate(kMaxSize).ok());
  EXPECT_EQ(file.Size(), kMaxSize);
}

TEST_P(FileHandleTest, AGapThatWasNeverWrittenReadsAsZeros) {
  for (const std::uint64_t gap : {1u, 63u, 64u, 65u, 300u, 20000u}) {
    const std::string name = "gap" + std::to_string(gap);
    FileHandle& file = Open(name);
    Write(file, "begin", 0);
    Write(file, "end", 5 + gap);
    const std::string expected = "begin" + std::string(gap, '\0') + "end";
    EXPECT_EQ(Read(file, 0, expected.size() + 9), expected) << "before it is stored";
    EXPECT_EQ(Read(file, 5 + gap / 2, 1), std::string(1, '\0'));
    EXPECT_TRUE(file.Sync().ok());
    EXPECT_EQ(Read(file, 0, expected.size() + 9), expected) << "afterwards";
    file.Advise(Advice::kDontNeed, 0, file.Size());
    EXPECT_EQ(Read(file, 0, expected.size() + 9), expected) << "and from the store";
    EXPECT_TRUE(file.Close().ok());
    EXPECT_EQ(Stored(name), expected);
  }
}

TEST_P(FileHandleTest, AGapIsReadWhileOnlyItsFarEndIsStored) {
  FileHandle& file = Open("a");
  Write(file, "end", 10 * kBlock);
  EXPECT_TRUE(file.Sync().ok());
  Write(file, "near", 2 * kBlock + 10);
  std::string expected(10 * kBlock, '\0');
  expected += "end";
  expected.replace(2 * kBlock + 10, 4, "near");
  EXPECT_EQ(Read(file, 0, 2000), expected);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), expected);
}

TEST_P(FileHandleTest, BytesWrittenAreReadBackBeforeTheyReachTheStore) {
  Put("a", std::string(1000, '.'));
  FileHandle& file = Open("a");
  Write(file, "new", 100);
  EXPECT_EQ(Read(file, 98, 7), "..new..");
  EXPECT_EQ(Stored("a"), std::string(1000, '.'));
  EXPECT_EQ(file.GetStats().dirty, 3u);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(Stored("a"), std::string(100, '.') + "new" + std::string(897, '.'));
  EXPECT_EQ(file.GetStats().dirty, 0u);
}

TEST_P(FileHandleTest, ManySmallWritesOverEachOtherLeaveTheLastOfEachByte) {
  std::string expected = FileWorld::Content(2000);
  Put("a", expected);
  FileHandle& file = Open("a");
  for (unsigned int i = 0; i < 600; ++i) {
    const std::size_t at = i * 7919 % 1950;
    const std::string bytes(1 + i % 47, static_cast<char>('a' + i % 26));
    Write(file, bytes, at);
    expected.replace(at, bytes.size(), bytes);
    if (i % 50 == 0) {
      EXPECT_TRUE(file.Flush().ok());
    }
    if (i % 37 == 0) {
      EXPECT_EQ(Read(file, 0, 3000), expected);
    }
  }
  EXPECT_EQ(Read(file, 0, 3000), expected);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), expected);
}

TEST_P(FileHandleTest, VectoredRequestsMoveTheirPartsInOrder) {
  FileHandle& file = Open("a");
  std::string a = FileWorld::Content(100);
  std::string b;
  std::string c = FileWorld::Content(70, 3);
  const auto part = [](std::string& s) { return iovec{s.data(), s.size()}; };
  const iovec out[] = {part(a), part(b), part(c)};
  std::size_t moved = 0;
  EXPECT_TRUE(file.WriteAt(out, 3, 10, &moved).ok());
  EXPECT_EQ(moved, 170u);
  std::string x(50, '?');
  std::string y(60, '?');
  std::string z(100, '?');
  const iovec in[] = {part(x), part(b), part(y), part(z)};
  EXPECT_TRUE(file.ReadAt(in, 4, 10, &moved).ok());
  EXPECT_EQ(moved, 170u) << "the file ends within the last part";
  EXPECT_EQ(x + y + z.substr(0, 60), a + c);
  EXPECT_EQ(z.substr(60), std::string(40, '?'));
  EXPECT_TRUE(file.ReadAt(in, 4, 1000, &moved).ok());
  EXPECT_EQ(moved, 0u);
}

TEST_P(FileHandleTest, AVectoredWriteBeyondTheLargestOffsetWritesNothing) {
  FileHandle& file = Open("a");
  std::string a(10, 'a');
  const iovec out[] = {{a.data(), 10}, {a.data(), 10}};
  std::size_t moved = 7;
  EXPECT_EQ(file.WriteAt(out, 2, kMaxSize - 15, &moved).error(), EFBIG);
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(file.WriteAt(out, 2, kMaxSize - 15).error(), EFBIG);
  // However far beyond, and though the sum of the lengths is small again.
  const std::size_t half = std::size_t{1} << 63;
  const iovec around[] = {{a.data(), 10}, {a.data(), half}, {a.data(), half}, {a.data(), 10}};
  EXPECT_EQ(file.WriteAt(around, 4, 0, &moved).error(), EFBIG);
  EXPECT_EQ(moved, 0u);
  EXPECT_EQ(file.Size(), 0u);
}

// The next part would stand where the one before it should.
TEST_P(FileHandleTest, AVectoredWriteWithoutMemoryTellsHowMuchItHasWritten) {
  const std::string a(10, 'a');
  const std::string b(20, 'b');
  const auto part = [](const std::string& s) {
    return iovec{const_cast<char*>(s.data()), s.size()};
  };
  const iovec out[] = {part(a), part(b)};
  unsigned errors = 0;
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    FileHandle& file = Open(std::to_string(nth));
    std::size_t moved = 7;
    Status status;
    {
      const FailingAllocation failing(nth);
      status = file.WriteAt(out, 2, 0, &moved);
      fired = failing.Fired();
    }
    if (!status.ok()) ++errors;
    EXPECT_FALSE(status.write_back());
    if (file.Broken()) continue;  // a failed check: what that means has its own test
    EXPECT_EQ(status.ok(), moved == 30u) << status.Message();
    EXPECT_EQ(Read(file, 0, 100), (a + b).substr(0, moved));
  }
  EXPECT_GE(errors, 1u);
}

TEST_P(FileHandleTest, AppendTellsWhereTheBytesWent) {
  Put("a", "0123");
  FileHandle& file = Open("a");
  std::uint64_t at = 0;
  EXPECT_TRUE(file.Append("abc", 3, &at).ok());
  EXPECT_EQ(at, 4u);
  Write(file, "z", 9);
  EXPECT_TRUE(file.Append(std::string(200, 'x').data(), 200, &at).ok());
  EXPECT_EQ(at, 10u);
  EXPECT_EQ(file.Size(), 210u);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), std::string("0123abc\0\0z", 10) + std::string(200, 'x'));
}

TEST_P(FileHandleTest, AppendsOfManyThreadsAreWholeAndNoneIsLost) {
  constexpr int kThreads = 4;
  constexpr int kEach = 60;
  Open("a");
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    FileHandle& file = Open("a");
    threads.emplace_back([&file, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string record(100, static_cast<char>('a' + t));
        std::uint64_t at = 1;
        EXPECT_TRUE(file.Append(record.data(), record.size(), &at).ok());
        EXPECT_EQ(at % 100, 0u);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  FileHandle& file = Open("a");
  const std::string all = Read(file, 0, 1000000);
  ASSERT_EQ(all.size(), std::size_t{kThreads} * kEach * 100);
  std::map<char, int> records;
  for (std::size_t at = 0; at < all.size(); at += 100) {
    EXPECT_EQ(all.substr(at, 100), std::string(100, all[at]));
    ++records[all[at]];
  }
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(records[static_cast<char>('a' + t)], kEach);
}

TEST_P(FileHandleTest, ManyThreadsReadOneFile) {
  const std::string content = FileWorld::Content(kBlock * 200);
  Put("a", content);
  world_.options.memory = 8 * kBlock;
  world_.options.read_ahead = 3;
  FileHandle& file = Open("a");
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 6; ++t) {
    readers.emplace_back([&] {
      for (std::size_t at = 0; at + 50 <= content.size(); at += 50) {
        if (Read(file, at, 50) != content.substr(at, 50)) ++wrong;
      }
    });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(world_.files().memory_peak(), 8 * kBlock);
}

TEST_P(FileHandleTest, AWriteThroughOneHandleIsReadThroughAllAtOnce) {
  Put("a", std::string(500, '.'));
  FileHandle& one = Open("a");
  FileHandle& two = Open("a", {});
  EXPECT_EQ(Read(two, 0, 5), ".....");
  Write(one, "12345", 0);
  EXPECT_EQ(Read(two, 0, 5), "12345");
  Write(one, "x", 999);
  EXPECT_EQ(two.Size(), 1000u);
  EXPECT_EQ(Read(two, 999, 5), "x");
  EXPECT_TRUE(one.Close().ok());
  EXPECT_EQ(Read(two, 0, 5), "12345");
}

TEST_P(FileHandleTest, ACloseStoresEverythingAndGivesTheMemoryBack) {
  const std::string content = FileWorld::Content(5000);
  FileHandle& file = Open("a");
  Write(file, content, 0);
  EXPECT_GT(world_.files().memory_used(), 0u);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), content);
  EXPECT_EQ(world_.files().memory_used(), 0u);
  EXPECT_TRUE(world_.files().GetFiles().empty());
}

// ---- length ----

TEST_P(FileHandleTest, TruncateCutsAtAnyPlaceWhateverIsDirty) {
  for (const bool stored : {true, false}) {
    for (const std::uint64_t to : {0u, 1u, 63u, 64u, 65u, 200u, 1279u, 1280u, 3000u, 3200u}) {
      const std::string name = std::to_string(to) + (stored ? "s" : "d");
      std::string content = FileWorld::Content(3200);
      Put(name, content);
      FileHandle& file = Open(name);
      EXPECT_EQ(Read(file, 0, 4000), content);
      if (!stored) {
        Write(file, std::string(1500, 'd'), 30);
        content.replace(30, 1500, std::string(1500, 'd'));
      }
      EXPECT_TRUE(file.Truncate(to).ok());
      EXPECT_EQ(file.Size(), to);
      EXPECT_EQ(Read(file, 0, 4000), content.substr(0, to));
      EXPECT_EQ(Stored(name), content.substr(0, to));
      Write(file, "after", to + 5);
      const std::string expected = content.substr(0, to) + std::string(5, '\0') + "after";
      EXPECT_EQ(Read(file, 0, 4000), expected) << "no byte from before comes back";
      EXPECT_TRUE(file.Close().ok());
      EXPECT_EQ(Stored(name), expected);
    }
  }
}

TEST_P(FileHandleTest, TruncateUpAddsZeros) {
  Put("a", "bytes");
  FileHandle& file = Open("a");
  EXPECT_EQ(Read(file, 0, 100), "bytes");
  for (const std::uint64_t to : {6u, 64u, 65u, 1000u}) {
    EXPECT_TRUE(file.Truncate(to).ok());
    EXPECT_EQ(file.Size(), to);
    EXPECT_EQ(Read(file, 0, 2000), "bytes" + std::string(to - 5, '\0'));
  }
  EXPECT_EQ(Stored("a"), "bytes" + std::string(995, '\0'));
  EXPECT_TRUE(file.Truncate(1000).ok());
}

TEST_P(FileHandleTest, TruncateDownAndUpAgainBringsNoOldBytesBack) {
  Put("a", std::string(1000, 'o'));
  FileHandle& file = Open("a");
  EXPECT_EQ(Read(file, 0, 2000), std::string(1000, 'o'));
  EXPECT_TRUE(file.Truncate(10).ok());
  EXPECT_TRUE(file.Truncate(1000).ok());
  EXPECT_EQ(Read(file, 0, 2000), std::string(10, 'o') + std::string(990, '\0'));
}

TEST_P(FileHandleTest, TruncateBelowARangeThatBeginsFarUp) {
  Put("a", FileWorld::Content(kBlock * 200));
  FileHandle& file = Open("a");
  EXPECT_EQ(Read(file, kBlock * 150, 64),
            FileWorld::Content(kBlock * 200).substr(kBlock * 150, 64));
  EXPECT_TRUE(file.Truncate(kBlock * 20 + 5).ok());
  EXPECT_EQ(Read(file, kBlock * 20, 64), FileWorld::Content(kBlock * 200).substr(kBlock * 20, 5));
  Write(file, "far", kBlock * 180);
  EXPECT_EQ(Read(file, kBlock * 180 - 3, 64), std::string("\0\0\0far", 6));
  EXPECT_FALSE(file.Broken());
}

TEST_P(FileHandleTest, TruncateAcrossManyRanges) {
  const std::string content = FileWorld::Content(kBlock * 200);
  Put("a", content);
  FileHandle& file = Open("a");
  for (std::uint64_t at = 0; at < content.size(); at += kBlock) Read(file, at, kBlock);
  EXPECT_GT(file.GetStats().streams, 3u);
  Write(file, "dirty", kBlock * 190);
  EXPECT_TRUE(file.Truncate(kBlock * 60 + 7).ok());
  EXPECT_EQ(Read(file, 0, content.size()), content.substr(0, kBlock * 60 + 7));
  EXPECT_EQ(Stored("a"), content.substr(0, kBlock * 60 + 7));
  EXPECT_TRUE(file.Truncate(0).ok());
  EXPECT_EQ(Read(file, 0, content.size()), "");
  Write(file, "new", kBlock * 100);
  EXPECT_EQ(Read(file, 0, content.size()), std::string(kBlock * 100, '\0') + "new");
}

TEST_P(FileHandleTest, AFailedTruncateLeavesTheFileAsItWas) {
  const std::string content = FileWorld::Content(500);
  Put("a", content);
  FileHandle& file = Open("a");
  Write(file, "dirty", 0);
  world_.script.Fail({vesk::kFaultTruncate}, EROFS, 1);
  const Status status = file.Truncate(10);
  EXPECT_EQ(status.error(), EROFS);
  EXPECT_NE(status.context().find("truncation of"), std::string::npos);
  EXPECT_EQ(file.Size(), 500u);
  EXPECT_EQ(Read(file, 0, 600), "dirty" + content.substr(5));
  EXPECT_TRUE(file.Truncate(10).ok());
  EXPECT_EQ(Read(file, 0, 600), "dirty" + content.substr(5, 5));
}

// It ends in an error, and has taken place all the same.
TEST_P(FileHandleTest, ATruncateThatTookPlaceAndFailedBringsNoOldBytesBack) {
  const std::string content = FileWorld::Content(500);
  for (const std::size_t size : {500u, 300u, 1000u}) {
    Put("a", content);
    FileHandle& file = Open("a");
    EXPECT_EQ(Read(file, 0, 600), content);
    world_.script.FailAfterwards({vesk::kFaultTruncate}, EROFS, 1);
    EXPECT_EQ(file.Truncate(100).error(), EROFS);
    EXPECT_TRUE(file.Truncate(size).ok());
    const std::string expected = content.substr(0, 100) + std::string(size - 100, '\0');
    EXPECT_EQ(Read(file, 0, 2000), expected);
    EXPECT_TRUE(file.Close().ok());
    EXPECT_EQ(Stored("a"), expected);
  }
}

// Each byte of the file is its version: 'A' before, 'B' after a cut and a rewrite, 0 in between.
TEST_P(FileHandleTest, ReadersBesideATruncateSeeOldOrNewBytes) {
  constexpr std::size_t kSize = 2000;
  Put("a", std::string(kSize, 'A'));
  FileHandle& file = Open("a");
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&, t] {
      for (unsigned int i = 0; !done; ++i) {
        const std::string bytes = Read(file, (i * 97 + static_cast<unsigned>(t) * 31) % kSize, 150);
        EXPECT_EQ(bytes.find_first_not_of(std::string("ABC\0", 4)), std::string::npos);
      }
    });
  }
  for (int i = 0; i < 40; ++i) {
    EXPECT_TRUE(file.Truncate(700).ok());
    EXPECT_EQ(file.Size(), 700u);
    EXPECT_EQ(Read(file, 690, 500).size(), 10u);
    Write(file, std::string(kSize - 700, i % 2 == 0 ? 'B' : 'C'), 700);
    EXPECT_EQ(file.Size(), kSize);
  }
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(Stored("a"), std::string(700, 'A') + std::string(kSize - 700, 'C'));
}

TEST_P(FileHandleTest, WritersBesideATruncateLoseNothingBelowIt) {
  Put("a", std::string(100, 'x'));
  FileHandle& file = Open("a");
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  for (std::uint64_t t = 0; t < 2; ++t) {
    writers.emplace_back([&, t] {
      for (std::uint64_t i = 0; i < 300; ++i) {
        const std::string bytes(30, static_cast<char>('a' + i % 26));
        const std::uint64_t at = t * 1000 + i % 10 * 30;
        Write(file, bytes, at);
        EXPECT_EQ(Read(file, at, 30), bytes) << "it is never cut away: " << at;
      }
    });
  }
  std::thread cutter([&] {
    while (!done) EXPECT_TRUE(file.Truncate(1300).ok());
  });
  for (std::thread& writer : writers) writer.join();
  done = true;
  cutter.join();
  EXPECT_EQ(file.Size(), 1300u);
  EXPECT_TRUE(file.Close().ok());
}

// ---- limits of time ----

class LimitsTest : public ::testing::Test {
 protected:
  LimitsTest() {
    world_.Put("a", content_);
    world_.Put("b", content_);
  }

  // Ends in ETIMEDOUT although the store does nothing, and at once when it is called off.
  template <typename Request>
  void ExpectLimits(const char* what, const Request& request) {
    SCOPED_TRACE(what);
    {
      const RequestScope scope(world_.In(milliseconds(30)));
      const Status status = request();
      EXPECT_EQ(status.error(), ETIMEDOUT);
      EXPECT_FALSE(status.write_back()) << "no write has failed";
    }
    CancelToken token;
    std::atomic<bool> ended{false};
    std::thread requester([&] {
      const RequestScope scope({vesk::Clock::kNever, &token});
      EXPECT_EQ(request().error(), ECANCELED);
      ended = true;
    });
    EXPECT_FALSE(ended);
    token.Cancel();
    requester.join();
  }

  Status Read(FileHandle& file, std::uint64_t offset, std::size_t length = 10) {
    std::string bytes(length, '?');
    std::size_t moved = 0;
    return file.ReadAt(bytes.data(), length, offset, &moved);
  }

  const std::string content_ = FileWorld::Content(kBlock * 100);
  FileWorld world_;
};

TEST_F(LimitsTest, AReadEndsInTimeAndOtherRequestsGoOn) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  world_.script.Hold({vesk::kFaultRead, "a", 0, kBlock});
  ExpectLimits("read", [&] { return Read(file, 5); });
  EXPECT_EQ(FileWorld::Read(file, kBlock * 50, 10), content_.substr(kBlock * 50, 10));
  EXPECT_EQ(FileWorld::Read(other, 0, 10), content_.substr(0, 10));
  FileWorld::Write(file, "elsewhere", kBlock * 60);
  world_.script.Heal();
  EXPECT_EQ(FileWorld::Read(file, 5, 10), content_.substr(5, 10));
}

TEST_F(LimitsTest, ARequestWhoseTimeIsOverIsStillServedFromMemory) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(FileWorld::Read(file, 0, 10), content_.substr(0, 10));
  const RequestScope scope(world_.In(seconds(0)));
  EXPECT_EQ(FileWorld::Read(file, 0, 10), content_.substr(0, 10));
  EXPECT_EQ(Read(file, kBlock * 70).error(), ETIMEDOUT);
}

TEST_F(LimitsTest, AWriteBeyondTheLargestOffsetIsNoFailedWriteBack) {
  FileHandle& file = world_.Open("a");
  const Status status = file.WriteAt("xx", 2, std::uint64_t{1} << 63);
  EXPECT_EQ(status.error(), EFBIG);
  EXPECT_FALSE(status.write_back());
}

// What is in memory is not served for that.
TEST_F(LimitsTest, ARemovedFileIsNotReadFromMemory) {
  FileHandle& file = world_.Open("a");
  for (unsigned i = 0; i < 2; ++i) {
    EXPECT_EQ(FileWorld::Read(file, 0, 10), content_.substr(0, 10));
  }
  EXPECT_TRUE(world_.files().Remove("a").ok());
  EXPECT_EQ(FileWorld::Read(file, 0, 10, ESTALE), "");
}

// Its name may be another's.
TEST_F(LimitsTest, ARemovedFileIsNotReadAheadOf) {
  FileHandle& file = world_.Open("a");
  EXPECT_TRUE(world_.files().Remove("a").ok());
  world_.Put("a", content_);
  const std::uint64_t reads = world_.script.Count(vesk::kFaultRead);
  file.Advise(Advice::kWillNeed, 0, kBlock);
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), reads);
}

// More than 32 bits tell; the buffer has room for all that the file has.
TEST_F(LimitsTest, AReadOfMoreThanFourGibibytesEndsWhereTheFileDoes) {
  FileHandle& file = world_.Open("a");
  std::string bytes(content_.size(), '?');
  for (unsigned i = 0; i < 2; ++i) {
    std::size_t moved = 0;
    EXPECT_TRUE(file.ReadAt(bytes.data(), (std::size_t{1} << 32) + 10, 0, &moved).ok());
    EXPECT_EQ(moved, content_.size());
    EXPECT_TRUE(bytes == content_);
  }
}

TEST_F(LimitsTest, AReadOfNothingIsNoHit) {
  FileHandle& file = world_.Open("a");
  for (unsigned i = 0; i < 2; ++i) EXPECT_EQ(FileWorld::Read(file, 0, 10).size(), 10u);
  const std::uint64_t hits = file.GetStats().hits;
  EXPECT_EQ(FileWorld::Read(file, 0, 0), "");
  EXPECT_EQ(file.GetStats().hits, hits);
}

TEST_F(LimitsTest, AReadOfWhatIsThereNeedsNoMemory) {
  FileHandle& file = world_.Open("a");
  const std::string expected = FileWorld::Read(file, 0, 10 * kBlock);
  std::string bytes(10 * kBlock, '?');
  std::size_t moved = 0;
  const FailingAllocation failing(1, true);
  EXPECT_TRUE(file.ReadAt(bytes.data(), bytes.size(), 0, &moved).ok());
  EXPECT_EQ(moved, bytes.size());
  EXPECT_TRUE(bytes == expected);
}

TEST_F(LimitsTest, AWriteIntoABlockThatIsBeingWrittenEndsInTime) {
  FileHandle& file = world_.Open("a");
  FileWorld::Write(file, "one", 0);
  world_.script.Hold({vesk::kFaultWrite, "a"});
  EXPECT_TRUE(file.Flush().ok());
  EXPECT_EQ(world_.script.held(), 1u);
  ExpectLimits("write", [&] { return file.WriteAt("two", 3, 0); });
  EXPECT_EQ(FileWorld::Read(file, 0, 3), "one") << "readers see what is on its way";
  FileWorld::Write(file, "far", kBlock * 30);
  world_.script.Heal();
  FileWorld::Write(file, "two", 0);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("a").substr(0, 3), "two");
}

TEST_F(LimitsTest, SyncAndCloseEndInTimeAndNothingIsLost) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  FileWorld::Write(file, "bytes", 10);
  world_.script.Hold({vesk::kFaultWrite, "a"});
  ExpectLimits("sync", [&] { return file.Sync(); });
  ExpectLimits("close", [&] { return file.Close(); });
  const RequestScope scope(world_.In(milliseconds(20)));
  const Status status = file.Close();
  EXPECT_EQ(status.error(), ETIMEDOUT);
  EXPECT_NE(status.context().find("5 bytes not in the store"), std::string::npos)
      << status.context();
  EXPECT_EQ(FileWorld::Read(file, 10, 5), "bytes") << "it is still open";
  FileWorld::Write(other, "x", 0);
  EXPECT_TRUE(other.Sync().ok());
  world_.script.Heal();
  EXPECT_EQ(world_.Stored("a").substr(10, 5), "bytes");
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(file.Sync().error(), EBADF);
}

TEST_F(LimitsTest, ASyncIsNotOverWhenItsFirstWriteIs) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultWrite, "a"});
  FileWorld::Write(file, std::string(3 * kBlock, 'x'), 0);
  EXPECT_TRUE(file.Flush().ok());
  world_.script.AwaitHeld(3);
  for (unsigned left = 3; left > 0; --left) {
    const RequestScope scope(world_.In(milliseconds(10)));
    EXPECT_EQ(file.Sync().error(), ETIMEDOUT) << left;
    world_.script.EndOne(0, 0);
  }
  EXPECT_TRUE(file.Sync().ok());
}

TEST_F(LimitsTest, AFlushWaitsForNothing) {
  FileHandle& file = world_.Open("a");
  FileWorld::Write(file, "bytes", 10);
  world_.script.Hold({vesk::kFaultWrite, "a"});
  EXPECT_TRUE(file.Flush().ok());
  EXPECT_EQ(world_.script.held(), 1u) << "it is on its way";
}

TEST_F(LimitsTest, ASyncOfTheStoreThatHangsEndsInTimeAndIsNoFailure) {
  FileHandle& file = world_.Open("a");
  FileWorld::Write(file, "bytes", 10);
  world_.script.Hold({vesk::kFaultSync, "a"});
  ExpectLimits("sync", [&] { return file.Sync(); });
  EXPECT_EQ(FileWorld::Read(file, 10, 5), "bytes");
  world_.script.Heal();
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(file.GetStats().last_error, 0);
}

// It is over when the store has done it, whatever has begun meanwhile.
TEST_F(LimitsTest, ASyncThatIsDoneDoesNotWaitForATruncateThatHangs) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultSync | vesk::kFaultTruncate});
  Task syncing([&] { EXPECT_TRUE(file.Sync().ok()); });
  world_.script.AwaitHeld(1);
  Task cutting([&] { EXPECT_TRUE(file.Truncate(10).ok()); });
  world_.script.AwaitHeld(2);
  world_.script.EndOne(0, 0);
  EXPECT_TRUE(syncing.Await());
  EXPECT_FALSE(cutting.Ended());
  world_.script.Heal();
  EXPECT_TRUE(cutting.Await());
}

// Whoever reads "write-back" believes that bytes written before are not stored.
TEST_F(LimitsTest, AnErrorIsCalledAFailedWriteBackOnlyWhereItIsOne) {
  FileHandle& file = world_.Open("a");
  FileHandle& closed = world_.Open("a");
  EXPECT_TRUE(closed.Close().ok());
  const auto expect = [](const char* what, const Status& status, int error) {
    EXPECT_EQ(status.error(), error) << what;
    EXPECT_FALSE(status.write_back()) << what;
    EXPECT_EQ(status.context().find("write-back"), std::string::npos) << status.context();
  };
  const auto expect_all = [&](FileHandle& handle, int error) {
    expect("read", Read(handle, 0), error);
    expect("write", handle.WriteAt("x", 1, 0), error);
    expect("append", handle.Append("x", 1), error);
    expect("truncate", handle.Truncate(1), error);
    expect("sync", handle.Sync(), error);
  };
  expect_all(closed, EBADF);
  expect("flush", closed.Flush(), EBADF);
  char byte = 'x';
  const iovec beyond = {&byte, std::size_t{1} << 63};
  expect("vectored write beyond the largest offset", file.WriteAt(&beyond, 1, 0), EFBIG);
  expect("write beyond the largest offset", file.WriteAt("x", 1, ~std::uint64_t{0}), EFBIG);
  expect("truncate beyond the largest offset", file.Truncate(~std::uint64_t{0}), EFBIG);
  world_.script.Fail({vesk::kFaultTruncate | vesk::kFaultSync}, EPERM, 2);
  expect("truncate that the store refuses", file.Truncate(1), EPERM);
  expect("sync that the store refuses", file.Sync(), EPERM);
  world_.script.Hold({vesk::kFaultSync | vesk::kFaultWrite});
  {
    const RequestScope scope(world_.In(milliseconds(10)));
    expect("sync that the store does not end", file.Sync(), ETIMEDOUT);
    FileWorld::Write(file, "dirty", 0);
    expect("sync whose writes do not end", file.Sync(), ETIMEDOUT);
    expect("truncate that waits for writes", file.Truncate(1), ETIMEDOUT);
    expect("close that waits for writes", file.Close(), ETIMEDOUT);
  }
  world_.script.Heal();
  EXPECT_TRUE(world_.files().Remove("a").ok());
  expect_all(file, ESTALE);
}

TEST_F(LimitsTest, TruncateEndsInTimeAndTheFileGoesOn) {
  FileHandle& file = world_.Open("a");
  FileWorld::Write(file, "bytes", 10);
  world_.script.Hold({vesk::kFaultWrite, "a"});
  ExpectLimits("truncate that waits for a write-back", [&] { return file.Truncate(5); });
  EXPECT_EQ(FileWorld::Read(file, 10, 5), "bytes");
  EXPECT_EQ(file.Size(), content_.size());
  world_.script.Heal();
  EXPECT_TRUE(file.Truncate(15).ok());
  EXPECT_EQ(FileWorld::Read(file, 0, 100), content_.substr(0, 10) + "bytes");
}

TEST_F(LimitsTest, TruncateWaitsForReadsInFlightAndWithinItsTime) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultRead, "a"});
  std::thread reader([&] {
    const std::string bytes = FileWorld::Read(file, kBlock * 5, 10);
    EXPECT_TRUE(bytes.empty() || bytes == content_.substr(kBlock * 5, 10)) << bytes;
  });
  world_.script.AwaitHeld(1);
  ExpectLimits("truncate that waits for a read", [&] { return file.Truncate(5); });
  world_.script.Heal();
  EXPECT_TRUE(file.Truncate(5).ok());
  reader.join();
  EXPECT_EQ(FileWorld::Read(file, 0, 100), content_.substr(0, 5));
}

// What the store has been asked for may still happen: neither the old nor the new length is certain
// until the store is asked again.
TEST_F(LimitsTest, ATruncateThatTookPlaceAfterItsTimeIsNoticed) {
  FileHandle& file = world_.Open("a");
  EXPECT_EQ(FileWorld::Read(file, 0, 100), content_.substr(0, 100));
  world_.script.Hold({vesk::kFaultTruncate, "a"});
  {
    const RequestScope scope(world_.In(milliseconds(20)));
    EXPECT_EQ(file.Truncate(10).error(), ETIMEDOUT);
  }
  world_.script.Heal();
  EXPECT_EQ(world_.Stored("a").size(), 10u);
  EXPECT_EQ(FileWorld::Read(file, 0, 100), content_.substr(0, 10));
  EXPECT_EQ(file.Size(), 10u);
}

// It could cut off later what is written now, or reach another file that has the name by then.
TEST_F(LimitsTest, WhileATruncateThatOutlastedItsTimeIsOnItsWayNothingIsDoneWithTheFile) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultTruncate, "a"});
  {
    const RequestScope scope(world_.In(milliseconds(20)));
    EXPECT_EQ(file.Truncate(10).error(), ETIMEDOUT);
  }
  const auto no_write_back = [](Status status) {
    EXPECT_FALSE(status.write_back()) << status.Message();
    return status;
  };
  ExpectLimits("read", [&] { return Read(file, 0); });
  ExpectLimits("write", [&] { return no_write_back(file.WriteAt("x", 1, 0)); });
  ExpectLimits("append", [&] { return no_write_back(file.Append("x", 1)); });
  ExpectLimits("truncate", [&] { return no_write_back(file.Truncate(5)); });
  ExpectLimits("close", [&] {
    Status status = no_write_back(file.Close());
    EXPECT_EQ(status.context(), "close of 'a'") << "nothing is unsaved";
    return status;
  });
  ExpectLimits("rename", [&] { return world_.files().Rename("a", "c"); });
  ExpectLimits("replacing rename", [&] { return world_.files().Rename("b", "a"); });
  ExpectLimits("remove", [&] { return world_.files().Remove("a"); });
  EXPECT_EQ(world_.Stored("a"), content_) << "it has its name";
  EXPECT_EQ(world_.Stored("b"), content_);
  EXPECT_EQ(world_.script.held(), 1u);
  world_.script.Heal();
  EXPECT_EQ(FileWorld::Read(file, 0, 100), content_.substr(0, 10));
  EXPECT_TRUE(world_.files().Rename("a", "c").ok());
  EXPECT_EQ(world_.Stored("c"), content_.substr(0, 10));
}

// Who had the turn before it has waited for the truncate, and has not asked what the file is now.
TEST(LateTruncateTest, AnAppendBehindAnotherRequestThatHasWaitedForItGoesToTheNewEnd) {
  ManualClock clock;
  FileWorld world(FileWorld::Kind::kMemoryNoRetry, clock);
  world.Put("a", std::string(1000, 'o'));
  FileHandle& file = world.Open("a");
  world.script.Hold({vesk::kFaultTruncate}, 1);
  Task cutting([&] { EXPECT_EQ(file.Truncate(0).error(), ECANCELED); });
  world.script.AwaitHeld(1);
  clock.AwaitWaiters(1);
  Task renaming([&] { EXPECT_TRUE(world.files().Rename("a", "b").ok()); });
  clock.AwaitWaiters(2);
  std::uint64_t at = 99;
  Task appending([&] { EXPECT_TRUE(file.Append("tail", 4, &at).ok()); });
  clock.AwaitWaiters(3);
  cutting.Cancel();
  EXPECT_TRUE(cutting.Await());
  world.script.Heal();
  EXPECT_TRUE(renaming.Await());
  EXPECT_TRUE(appending.Await());
  EXPECT_EQ(at, 0u);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_EQ(world.Stored("b"), "tail");
}

TEST_F(LimitsTest, OpenRenameAndRemoveEndInTime) {
  FileHandle& file = world_.Open("a");
  for (const auto operation : {vesk::kFaultStat, vesk::kFaultOpen}) {
    world_.script.Hold({operation, "b"});
    ExpectLimits("open", [&] {
      std::unique_ptr<FileHandle> handle;
      return world_.files().Open("b", {}, &handle);
    });
    world_.script.Heal();
  }
  world_.script.Hold({vesk::kFaultCreate, "new"});
  ExpectLimits("create", [&] {
    std::unique_ptr<FileHandle> handle;
    return world_.files().Open("new", FileWorld::Writing(), &handle);
  });
  EXPECT_EQ(FileWorld::Read(file, 0, 10), content_.substr(0, 10));
  world_.script.Heal();
  FileWorld::Write(file, "bytes", 0);
  world_.script.Hold({vesk::kFaultWrite, "a"});
  ExpectLimits("rename", [&] { return world_.files().Rename("a", "c"); });
  EXPECT_EQ(FileWorld::Read(file, 0, 5), "bytes");
  world_.script.Heal();
  EXPECT_TRUE(world_.files().Rename("a", "c").ok());
  EXPECT_EQ(world_.Stored("c").substr(0, 5), "bytes");
  EXPECT_EQ(FileWorld::Read(file, 0, 5), "bytes");
  world_.script.Hold({vesk::kFaultRemove, "b"});
  ExpectLimits("remove", [&] { return world_.files().Remove("b"); });
}

TEST_F(LimitsTest, ARequestThatWaitsForMemoryEndsInTime) {
  world_.options.memory = 2 * kBlock;
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  world_.script.Hold({vesk::kFaultRead, "a"});
  std::vector<std::thread> readers;
  for (const std::uint64_t at : {std::uint64_t{0}, kBlock * 10}) {
    readers.emplace_back(
        [&, at] { EXPECT_EQ(FileWorld::Read(file, at, 10), content_.substr(at, 10)); });
  }
  world_.script.AwaitHeld(2);  // all memory is in flight
  ExpectLimits("read", [&] { return Read(other, 0); });
  ExpectLimits("write", [&] { return other.WriteAt("x", 1, 0); });
  world_.script.Heal();
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(FileWorld::Read(other, 0, 10), content_.substr(0, 10));
  EXPECT_LE(world_.files().memory_peak(), 2 * kBlock);
}

TEST_F(LimitsTest, AWriteThatWaitsForTheDirtyLimitEndsInTime) {
  world_.options.dirty_soft = world_.options.dirty_hard = 2 * kBlock;
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  world_.script.Hold({vesk::kFaultWrite});
  FileWorld::Write(file, std::string(2 * kBlock, 'd'), 0);
  ExpectLimits("write", [&] { return other.WriteAt("x", 1, 0); });
  EXPECT_EQ(FileWorld::Read(other, 0, 10), content_.substr(0, 10)) << "readers go on";
  world_.script.Heal();
  FileWorld::Write(other, "x", 0);
  EXPECT_TRUE(other.Close().ok());
  EXPECT_EQ(world_.Stored("b")[0], 'x');
}

// Otherwise nobody knew what of it to append again.
TEST_F(LimitsTest, AnAppendTellsHowMuchItHasAppendedHoweverItEnds) {
  world_.options.dirty_soft = world_.options.dirty_hard = 4 * kBlock;
  FileHandle& file = world_.Open("new");
  const std::string bytes = FileWorld::Content(10 * kBlock);
  std::uint64_t at = 99;
  std::size_t moved = 99;
  world_.script.Hold({vesk::kFaultWrite});
  Task appending(
      [&] { EXPECT_EQ(file.Append(bytes.data(), bytes.size(), &at, &moved).error(), ECANCELED); });
  EXPECT_TRUE(FileWorld::Await([&] { return file.Size() == 4 * kBlock; }));
  appending.Cancel();
  EXPECT_TRUE(appending.Await());
  EXPECT_EQ(at, 0u);
  EXPECT_EQ(moved, 4 * kBlock);
  EXPECT_EQ(file.Size(), moved);
  world_.script.Heal();
  std::size_t rest = 99;
  EXPECT_TRUE(file.Append(bytes.data() + moved, bytes.size() - moved, &at, &rest).ok());
  EXPECT_EQ(at, moved);
  EXPECT_EQ(rest, bytes.size() - moved);
  EXPECT_TRUE(file.Close().ok());
  EXPECT_EQ(world_.Stored("new"), bytes);
  EXPECT_EQ(file.Append("x", 1, nullptr, &moved).error(), EBADF);
  EXPECT_EQ(moved, 0u);
}

TEST_F(LimitsTest, ARequestThatWaitsForTheTurnEndsInTime) {
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  world_.script.Hold({vesk::kFaultTruncate, "a"});
  std::thread cutter([&] { EXPECT_TRUE(file.Truncate(kBlock * 50).ok()); });
  world_.script.AwaitHeld(1);  // and has the turn
  ExpectLimits("read", [&] { return Read(file, 0); });
  ExpectLimits("write", [&] { return file.WriteAt("x", 1, 0); });
  ExpectLimits("append", [&] { return file.Append("x", 1); });
  ExpectLimits("truncate", [&] { return file.Truncate(1); });
  EXPECT_EQ(FileWorld::Read(other, 0, 10), content_.substr(0, 10));
  world_.script.Heal();
  cutter.join();
  EXPECT_EQ(FileWorld::Read(file, 0, kBlock * 60), content_.substr(0, kBlock * 50));
}

TEST_F(LimitsTest, ACancelWhileTheReadWaitsEndsItAndTheNextOneIsServed) {
  FileHandle& file = world_.Open("a");
  world_.script.Hold({vesk::kFaultRead, "a"});
  CancelToken token;
  std::thread reader([&] {
    const RequestScope scope({vesk::Clock::kNever, &token});
    EXPECT_EQ(Read(file, 0).error(), ECANCELED);
  });
  world_.script.AwaitHeld(1);
  token.Cancel();
  reader.join();
  world_.script.Heal();
  EXPECT_EQ(FileWorld::Read(file, 0, 10), content_.substr(0, 10));
}

TEST_F(LimitsTest, AHandleMayBeDestroyedWhileTheStoreHangsAndItsBytesAreStoredLater) {
  {
    std::unique_ptr<FileHandle> file;
    ASSERT_TRUE(world_.files().Open("a", FileWorld::Writing(), &file).ok());
    FileWorld::Write(*file, "bytes", 0);
    world_.script.Hold({vesk::kFaultWrite, "a"});
    const RequestScope scope(world_.In(milliseconds(20)));
    EXPECT_EQ(file->Close().error(), ETIMEDOUT);
    file.reset();
  }
  EXPECT_EQ(world_.files().GetStats().dirty, 5u);
  EXPECT_EQ(FileWorld::Read(world_.Open("a"), 0, 5), "bytes") << "who opens it finds them";
  world_.script.Heal();
  EXPECT_EQ(world_.Stored("a").substr(0, 5), "bytes");
}

TEST_F(LimitsTest, AFileThatNobodyHasOpenIsDroppedWhenItsBytesAreStored) {
  {
    std::unique_ptr<FileHandle> file;
    ASSERT_TRUE(world_.files().Open("a", FileWorld::Writing(), &file).ok());
    FileWorld::Write(*file, "bytes", 0);
    world_.script.Hold({vesk::kFaultWrite, "a"});
    const RequestScope scope(world_.In(milliseconds(20)));
    file.reset();
  }
  world_.files().Tend();
  EXPECT_EQ(world_.files().GetFiles().size(), 1u);
  world_.script.Heal();
  EXPECT_TRUE(FileWorld::Await([&] {
    world_.files().Tend();
    return world_.files().GetFiles().empty();
  }));
  EXPECT_EQ(world_.files().memory_used(), 0u);
}

TEST_F(LimitsTest, AFileSystemMayEndWhileTheStoreHangs) {
  auto world = std::make_unique<FileWorld>();
  world->Put("a", content_);
  std::unique_ptr<vesk::FileSystem> files =
      std::make_unique<vesk::FileSystem>(world->services(), world->store(), world->options);
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(files->Open("a", FileWorld::Writing(), &file).ok());
  FileWorld::Write(*file, "bytes", 0);
  world->script.Hold({vesk::kFaultWrite, "a"});
  {
    const RequestScope scope(world->In(milliseconds(20)));
    file.reset();
    files.reset();
  }
  EXPECT_EQ(world->logger.Count("Error", "5 bytes could not be stored"), 1u);
  world->script.Heal();  // its memory is still there
  EXPECT_EQ(world->Stored("a").substr(0, 5), "bytes");
  world.reset();
  vesk::gEnv = nullptr;
}

// ---- a failed check ----

// Out of memory at the wrong moment is a failed check of the cache: in one of the reads from `from`
// on, `step` bytes apart.
void Break(FileHandle& file, std::uint64_t from = kBlock, std::uint64_t step = kBlock) {
  for (long nth = 1; nth < 60 && !file.Broken(); ++nth, from += step) {
    const FailingAllocation failing(nth);
    std::string bytes(10, '?');
    std::size_t moved = 0;
    const Status status = file.ReadAt(bytes.data(), bytes.size(), from, &moved);
    EXPECT_TRUE(status.ok() || status.error() == ENOMEM || status.error() == EIO)
        << status.Message();
  }
  ASSERT_TRUE(file.Broken());
}

TEST_F(LimitsTest, AFailedCheckTakesTheFileOutOfServiceAndNothingElse) {
  FileHandle& file = world_.Open("a");
  FileHandle& second = world_.Open("a");
  FileHandle& other = world_.Open("b");
  FileWorld::Write(other, "dirty", 0);
  EXPECT_FALSE(file.Broken());
  Break(file);
  EXPECT_TRUE(second.Broken());
  EXPECT_FALSE(other.Broken());

  EXPECT_GE(world_.logger.Count("Error", "ASSERT failure"), 1u);
  EXPECT_GE(world_.logger.Count("Dump", ""), 1u) << "what the stream looked like";

  const Status status = Read(file, 0);
  EXPECT_EQ(status.error(), EIO);
  EXPECT_NE(status.context().find("out of service"), std::string::npos) << status.context();
  EXPECT_EQ(file.WriteAt("x", 1, 0).error(), EIO);
  EXPECT_EQ(file.Append("x", 1).error(), EIO);
  EXPECT_EQ(file.Flush().error(), EIO);
  EXPECT_EQ(file.Sync().error(), EIO);
  EXPECT_EQ(file.Truncate(3).error(), EIO);
  EXPECT_EQ(Read(second, 0).error(), EIO);
  file.Advise(Advice::kWillNeed, 0, 1000);
  file.Advise(Advice::kDontNeed, 0, 1000);
  file.Discard();
  EXPECT_EQ(file.GetStats().name, "a");

  EXPECT_EQ(FileWorld::Read(other, 0, 10), "dirty" + content_.substr(5, 5));
  EXPECT_TRUE(other.Close().ok());
  EXPECT_EQ(world_.Stored("b").substr(0, 5), "dirty");
}

// Whether it waits for its bytes to be written or for the store to make them durable.
TEST_F(LimitsTest, ASyncDuringWhichACheckFailsDoesNotSaySuccess) {
  for (const auto operation : {vesk::kFaultWrite, vesk::kFaultSync}) {
    FileHandle& file = world_.Open("a");
    FileWorld::Write(file, "bytes", 0);
    world_.script.Hold({operation, "a"});
    Task syncing([&] { EXPECT_EQ(file.Sync().error(), EIO); });
    world_.script.AwaitHeld(1);
    Break(file);
    world_.script.Heal();
    EXPECT_TRUE(syncing.Await());
    world_.CloseAll();
  }
}

TEST_F(LimitsTest, AFileStaysOutOfServiceAsLongAsAnybodyHasItOpen) {
  std::unique_ptr<FileHandle> one;
  std::unique_ptr<FileHandle> two;
  ASSERT_TRUE(world_.files().Open("a", FileWorld::Writing(), &one).ok());
  ASSERT_TRUE(world_.files().Open("a", FileWorld::Writing(), &two).ok());
  Break(*one);
  EXPECT_EQ(one->Close().error(), EIO);
  one.reset();
  EXPECT_EQ(Read(*two, 0).error(), EIO);
  EXPECT_TRUE(world_.Open("a").Broken()) << "as long as a handle is left";
  two.reset();
}

TEST_F(LimitsTest, AFileOutOfServiceIsOpenedAfresh) {
  std::unique_ptr<FileHandle> file;
  ASSERT_TRUE(world_.files().Open("a", FileWorld::Writing(), &file).ok());
  Break(*file);
  file.reset();
  FileHandle& again = world_.Open("a");
  EXPECT_FALSE(again.Broken());
  EXPECT_EQ(FileWorld::Read(again, 0, 100), content_.substr(0, 100));
}

// Nobody knows what of it would have to be stored first.
TEST_F(LimitsTest, AFileOutOfServiceKeepsItsName) {
  FileHandle& file = world_.Open("a");
  Break(file);
  EXPECT_EQ(world_.files().Rename("a", "c").error(), EIO);
  EXPECT_EQ(world_.files().Rename("b", "a").error(), EIO);
  EXPECT_EQ(world_.files().Remove("a").error(), EIO);
  EXPECT_EQ(world_.Stored("a"), content_);
  EXPECT_EQ(world_.Stored("b"), content_);
  EXPECT_EQ(world_.Stored("c"), "(no file)");
}

// Dirty bytes up to the limit, and clean blocks in all the rest of the memory.
TEST_F(LimitsTest, AFileOutOfServiceHoldsUpNobody) {
  world_.options.memory = 48 * kBlock;
  world_.options.dirty_soft = world_.options.dirty_hard = 8 * kBlock;
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  FileWorld::Write(file, std::string(8 * kBlock, 'd'), 90 * kBlock);
  EXPECT_EQ(FileWorld::Read(file, 40 * kBlock, 40 * kBlock).size(), 40 * kBlock);
  Break(file);
  {
    const RequestScope scope(world_.In(kPatience));
    FileWorld::Write(other, std::string(60 * kBlock, 'x'), 0);
    EXPECT_EQ(FileWorld::Read(other, 60 * kBlock, 40 * kBlock),
              content_.substr(60 * kBlock, 40 * kBlock));
    EXPECT_TRUE(other.Close().ok());
  }
  EXPECT_EQ(world_.Stored("b"), std::string(60 * kBlock, 'x') + content_.substr(60 * kBlock));
  world_.CloseAll();
  EXPECT_EQ(world_.files().memory_used(), 0u);
  EXPECT_EQ(world_.files().GetStats().dirty, 0u);
}

// The check fails in a range of ten bytes; the others, with nothing unsaved, have all the rest of
// the memory.
TEST_F(LimitsTest, AFileOutOfServiceHoldsNoMemory) {
  world_.options.memory = 48 * kBlock + 10;
  world_.Put("a", content_ + "ten bytes.");
  FileHandle& file = world_.Open("a");
  FileHandle& other = world_.Open("b");
  for (std::uint64_t block = 52; block < 100; ++block) {  // one by one: ranges of 16 blocks
    EXPECT_EQ(FileWorld::Read(file, block * kBlock, kBlock).size(), kBlock);
  }
  Break(file, 100 * kBlock, 0);
  ASSERT_EQ(file.GetStats().cached, 48 * kBlock);
  const RequestScope scope(world_.In(kPatience));
  EXPECT_EQ(FileWorld::Read(other, 0, content_.size()), content_);
  EXPECT_LE(world_.files().memory_peak(), 48 * kBlock + 10);
}

// The system's, which counts how often the calling thread waits.
class CountingClock final : public vesk::Clock {
 public:
  inline static thread_local unsigned waits = 0;

  Time Now() override { return System().Now(); }
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex, Time until) override
      VESK_REQUIRES(mutex) {
    ++waits;
    System().WaitUntil(condition, mutex, until);
  }
};

// It is asked again and again to write out what it has, and each time it has nothing to give.
TEST(OutOfServiceTest, WhoWaitsForMemoryBesideAFileOutOfServiceSleeps) {
  CountingClock clock;
  FileWorld world(FileWorld::Kind::kMemory, clock);
  world.options.memory = 2 * kBlock;
  for (const char* const name : {"a", "b"}) world.Put(name, FileWorld::Content(100 * kBlock));
  Break(world.Open("a"));
  FileHandle& file = world.Open("b");
  world.script.Hold({vesk::kFaultRead});
  file.Advise(vesk::Advice::kWillNeed, 0, 2 * kBlock);
  EXPECT_EQ(world.script.held(), 2u);
  CountingClock::waits = 0;
  const RequestScope scope(world.In(milliseconds(30)));
  EXPECT_EQ(FileWorld::Read(file, 10 * kBlock, 1, ETIMEDOUT), "");
  EXPECT_GT(CountingClock::waits, 0u);
}

// What it holds is left as it is, for which a process of its own has found no place yet.
TEST_F(LimitsTest, AFileOutOfServiceIsClosedWithoutMemory) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        std::unique_ptr<FileHandle> file;
        (void)world_.files().Open("a", FileWorld::Writing(), &file);
        FileWorld::Write(*file, "bytes", 0);
        Break(*file);
        {
          const FailingAllocation failing(1, true);
          file.reset();
        }
        _exit(world_.files().GetFiles().empty() ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

// Nobody has waited for what it held.
TEST_F(LimitsTest, AFileOutOfServiceGivesItsMemoryBackWhenItIsClosed) {
  for (int round = 0; round < 3; ++round) {
    FileHandle& file = world_.Open("a");
    FileWorld::Write(file, std::string(8 * kBlock, 'd'), 90 * kBlock);
    EXPECT_EQ(FileWorld::Read(file, 40 * kBlock, 40 * kBlock).size(), 40 * kBlock);
    Break(file);
    world_.CloseAll();
    EXPECT_EQ(world_.files().memory_used(), 0u);
    EXPECT_TRUE(world_.files().GetFiles().empty());
  }
}

// ---- no memory ----

// What ends in an error for want of memory needs memory again for the text of that error.
TEST_F(LimitsTest, AnErrorWithoutMemoryForItsTextIsStillAStatus) {
  const std::string name(40, 'n');  // no text about it is short enough to need no memory
  const std::string new_name(40, 'm');
  char bytes[10] = {};
  std::size_t moved = 0;
  const struct {
    const char* what;
    std::function<Status(FileHandle&)> request;
  } kRequests[] = {
      {"read", [&](FileHandle& file) { return file.ReadAt(bytes, 10, 0, &moved); }},
      {"write", [&](FileHandle& file) { return file.WriteAt(bytes, 10, 0); }},
      {"append", [&](FileHandle& file) { return file.Append(bytes, 10); }},
      {"flush", [](FileHandle& file) { return file.Flush(); }},
      {"sync", [](FileHandle& file) { return file.Sync(); }},
      {"truncate", [](FileHandle& file) { return file.Truncate(5); }},
      {"close", [](FileHandle& file) { return file.Close(); }},
      {"discard and close",
       [](FileHandle& file) {
         file.Discard();
         return file.Close();
       }},
      {"open",
       [&](FileHandle& /*file*/) {
         std::unique_ptr<FileHandle> handle;
         return world_.files().Open(name, FileWorld::Writing(), &handle);
       }},
      {"rename", [&](FileHandle& /*file*/) { return world_.files().Rename(name, new_name); }},
      {"remove", [&](FileHandle& /*file*/) { return world_.files().Remove(name); }},
      {"sync of all", [&](FileHandle& /*file*/) { return world_.files().SyncAll(); }},
  };
  for (const auto& [what, request] : kRequests) {
    SCOPED_TRACE(what);
    unsigned errors = 0;
    bool fired = true;
    for (long nth = 1; fired; ++nth) {
      world_.Put(name, content_);
      FileHandle& file = world_.Open(name);
      FileWorld::Write(file, "dirty", kBlock);
      Status status;
      {
        const FailingAllocation failing(nth, true);
        status = request(file);
        fired = failing.Fired();
      }
      if (!status.ok()) ++errors;
      EXPECT_TRUE(status.ok() || status.error() == ENOMEM || status.error() == EIO)
          << status.Message();
      world_.CloseAll();
    }
    EXPECT_GE(errors, 1u) << "no memory was needed";
  }
}

TEST_F(LimitsTest, AnOpenWithoutMemoryLeavesNoFileOpen) {
  vesk::FileSystem& files = world_.files();
  for (const bool and_all_later : {false, true}) {
    for (const bool truncate : {false, true}) {
      bool fired = true;
      for (long nth = 1; fired; ++nth) {
        SCOPED_TRACE(nth);
        OpenOptions open = FileWorld::Writing();
        open.truncate = truncate;
        std::unique_ptr<FileHandle> file;
        Status status;
        {
          const FailingAllocation failing(nth, and_all_later);
          status = files.Open("a", open, &file);
          fired = failing.Fired();
        }
        EXPECT_EQ(status.ok(), file != nullptr);
        EXPECT_TRUE(status.ok() || status.error() == ENOMEM) << status.Message();
        file.reset();
        EXPECT_TRUE(files.GetFiles().empty());
        EXPECT_EQ(files.memory_used(), 0u);
      }
    }
  }
}

// Whoever needs memory asks everybody for some, but not those that have come to nothing.
TEST_F(LimitsTest, AnOpenWithoutMemoryIsInNobodysWay) {
  world_.options.memory = 4 * kBlock;
  FileHandle& other = world_.Open("b");
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    {
      const FailingAllocation failing(nth);
      std::unique_ptr<FileHandle> file;
      (void)world_.files().Open("a", FileWorld::Writing(), &file);
      fired = failing.Fired();
    }
    EXPECT_TRUE(FileWorld::Read(other, 0, 20 * kBlock) == content_.substr(0, 20 * kBlock));
  }
}

TEST_F(LimitsTest, ADivisionWithoutMemoryIsInNobodysWay) {
  world_.options.memory = 24 * kBlock;
  FileHandle& other = world_.Open("b");
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    FileHandle& file = world_.Open("a");
    std::string bytes(20 * kBlock, '?');
    std::size_t moved = 0;
    {
      const FailingAllocation failing(nth);
      (void)file.ReadAt(bytes.data(), bytes.size(), 0, &moved);
      fired = failing.Fired();
    }
    EXPECT_TRUE(FileWorld::Read(other, 0, content_.size()) == content_);
    (void)file.Close();
  }
}

// Its writes were stopped, or what it had not stored was to be given up.
TEST_F(LimitsTest, ARemovalWithoutMemoryHoldsUpNobody) {
  const std::string name(40, 'n');
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    world_.Put(name, content_);
    FileHandle& file = world_.Open(name);
    FileWorld::Write(file, "dirty", 0);
    {
      const FailingAllocation failing(nth);
      const int error = world_.files().Remove(name).error();
      EXPECT_TRUE(error == 0 || error == ENOMEM) << error;
      fired = failing.Fired();
    }
    const bool removed = world_.Stored(name) == "(no file)";
    {
      const RequestScope scope(world_.In(kPatience));
      ASSERT_TRUE(file.Close().ok());
    }
    if (!removed) {
      EXPECT_EQ(world_.Stored(name).substr(0, 5), "dirty");
    }
    EXPECT_EQ(world_.files().memory_used(), 0u);
  }
}

// The bytes were there; that others could not be fetched ahead is no concern of the reader's.
TEST_F(LimitsTest, AReadThatIsServedDoesNotFailForWantOfMemoryToReadAhead) {
  world_.options.read_ahead = 8;
  unsigned served = 0;
  for (long nth = 1; nth <= 3; ++nth) {
    SCOPED_TRACE(nth);
    FileHandle& file = world_.Open("a");
    EXPECT_TRUE(FileWorld::Read(file, 0, kBlock) == content_.substr(0, kBlock));
    for (std::uint64_t at = kBlock; at < content_.size() && !file.Broken(); at += kBlock) {
      EXPECT_TRUE(FileWorld::Await([&] { return file.GetStats().in_flight == 0; }));
      const std::uint64_t misses = file.GetStats().misses;
      std::string bytes(kBlock, '?');
      std::size_t moved = 0;
      Status status;
      bool fired = false;
      {
        const FailingAllocation failing(nth);
        status = file.ReadAt(bytes.data(), bytes.size(), at, &moved);
        fired = failing.Fired();
      }
      if (file.Broken()) break;  // a failed check, and what that means has its own test
      EXPECT_TRUE(FileWorld::Read(file, at, kBlock) == content_.substr(at, kBlock));
      if (!fired || file.GetStats().misses != misses) continue;
      ++served;
      EXPECT_TRUE(status.ok()) << status.Message();
      EXPECT_EQ(moved, kBlock);
      EXPECT_TRUE(bytes == content_.substr(at, kBlock));
    }
    world_.CloseAll();
  }
  EXPECT_GT(served, 0u) << "no memory was needed ahead of a read: nothing was shown";
}

// The bytes go before a block that is there already, so that ranges are divided around them.
TEST_F(LimitsTest, AWriteWithoutMemoryTellsHowMuchItHasWritten) {
  constexpr std::size_t kLength = 40 * kBlock;
  const std::string bytes(kLength, 'w');
  unsigned parts = 0;
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    SCOPED_TRACE(nth);
    world_.Put("a", content_);
    FileHandle& file = world_.Open("a");
    FileWorld::Write(file, "behind", 99 * kBlock);
    std::size_t moved = 0;
    Status status;
    {
      const FailingAllocation failing(nth);
      status = file.WriteAt(bytes.data(), kLength, kBlock, &moved);
      fired = failing.Fired();
    }
    if (!file.Broken()) {  // else: a failed check, and what that means has its own test
      EXPECT_EQ(status.ok(), moved == kLength);
      if (moved > 0 && moved < kLength) ++parts;
      std::string expected = content_;
      expected.replace(kBlock, moved, bytes, 0, moved);
      expected.replace(99 * kBlock, 6, "behind");
      EXPECT_TRUE(FileWorld::Read(file, 0, expected.size() + 1) == expected);
      EXPECT_TRUE(file.Close().ok());
      EXPECT_TRUE(world_.Stored("a") == expected);
    }
    world_.CloseAll();
  }
  EXPECT_GT(parts, 0u) << "no write was cut short: nothing was shown";
}

TEST_F(LimitsTest, NoMemoryForARequestLosesNothing) {
  FileHandle& file = world_.Open("a");
  std::string expected = content_;
  for (long nth = 1; nth < 12 && !file.Broken(); ++nth) {
    const std::uint64_t at = static_cast<std::uint64_t>(nth) * kBlock * 2;
    FileWorld::Write(file, "bytes", at);
    expected.replace(at, 5, "bytes");
    const FailingAllocation failing(nth);
    const Status status = file.Sync();
    EXPECT_TRUE(status.ok() || status.error() == ENOMEM || status.error() == EIO)
        << status.Message();
  }
  if (file.Broken()) return;  // a failed check: what that means has its own test
  EXPECT_TRUE(FileWorld::Await([&] { return file.Sync().ok(); }));
  EXPECT_EQ(FileWorld::Read(file, 0, expected.size()), expected);
  EXPECT_EQ(world_.Stored("a"), expected);
}

}  // namespace
}  // namespace vesk_test

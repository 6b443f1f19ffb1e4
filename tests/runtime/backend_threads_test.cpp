// The backend over the operating system's files, and its descriptors. pread and pwrite are put in
// front of the system's, so that calls can be interrupted, cut short, or fail.

#include "runtime/backend_threads.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>

#include "runtime/descriptor_cache.h"
#include "tests/support/jobs.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskBundler.h"

namespace vesk_test {
namespace {

// What the next calls of pread and pwrite do, in order; without a step they go through whole.
struct Step {
  int error = 0;                   // fail with this, or
  std::size_t at_most = SIZE_MAX;  // move no more bytes than this
};
std::deque<Step> steps;
std::atomic<int> calls{0};

ssize_t Next(long system_call, int fd, void* bytes, std::size_t length, off_t offset) {
  ++calls;
  Step step;
  if (!steps.empty()) {
    step = steps.front();
    steps.pop_front();
  }
  if (step.error != 0) {
    errno = step.error;
    return -1;
  }
  length = std::min(length, step.at_most);
  return length == 0 ? 0 : syscall(system_call, fd, bytes, length, offset);
}

}  // namespace
}  // namespace vesk_test

extern "C" ssize_t pread(int fd, void* bytes, std::size_t length, off_t offset) {
  return vesk_test::Next(SYS_pread64, fd, bytes, length, offset);
}
extern "C" ssize_t pwrite(int fd, const void* bytes, std::size_t length, off_t offset) {
  return vesk_test::Next(SYS_pwrite64, fd, const_cast<void*>(bytes), length, offset);
}

namespace vesk_test {
namespace {

using vesk::ThreadsBackend;
using vesk::VeskBackend;
using vesk::VeskJob;

void Put(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::binary) << content;
}

std::string Get(const std::string& name) {
  std::ostringstream content;
  content << std::ifstream(name, std::ios::binary).rdbuf();
  return content.str();
}

class ThreadsBackendTest : public ::testing::Test {
 protected:
  ThreadsBackendTest() {
    steps.clear();
    calls = 0;
  }

  // Runs a read of `length` bytes through the dispatcher; the bytes obtained.
  std::string Read(const std::string& name, unsigned int length, unsigned long offset,
                   int expected_result = 0) {
    std::string bytes(length, '?');
    unsigned int count = 0;
    const JobHolder job(NewRead(name, bytes.data(), length, offset, &count));
    EXPECT_EQ(RunJob(job.get()), expected_result);
    return bytes.substr(0, count);
  }

  int Write(const std::string& name, const std::string& bytes, unsigned long offset) {
    const JobHolder job(
        NewWrite(name, bytes.data(), static_cast<unsigned int>(bytes.size()), offset));
    return RunJob(job.get());
  }

  int RunJob(VeskJob* job) {
    bundler_.SubmitJob(job);
    bundler_.WaitForJob(job, nullptr, "test");
    return job->GetReturnValue();
  }

  const TemporaryDirectory directory_;
  const std::string name_ = directory_ / "file";
  ThreadsBackend backend_{{}};
  vesk::VeskBundler bundler_{backend_};
};

TEST_F(ThreadsBackendTest, ReadsWhatIsThere) {
  Put(name_, "0123456789");
  EXPECT_EQ(Read(name_, 4, 3), "3456");
}

TEST_F(ThreadsBackendTest, AReadThatMeetsTheEndOfTheFileStoresAShortCount) {
  Put(name_, "0123456789");
  EXPECT_EQ(Read(name_, 10, 0), "0123456789");
  EXPECT_EQ(Read(name_, 11, 0), "0123456789");
  EXPECT_EQ(Read(name_, 8, 9), "9");
  EXPECT_EQ(Read(name_, 8, 10), "");
  EXPECT_EQ(Read(name_, 8, 5UL << 32), "");
}

TEST_F(ThreadsBackendTest, CarriesAReadOnOverShortCountsAndInterruptions) {
  Put(name_, "0123456789");
  steps = {{EINTR}, {0, 3}, {EINTR}, {EINTR}, {0, 1}};
  EXPECT_EQ(Read(name_, 10, 0), "0123456789");
  EXPECT_EQ(calls, 6);
}

TEST_F(ThreadsBackendTest, CarriesAWriteOnOverShortCountsAndInterruptions) {
  Put(name_, "..........");
  steps = {{EINTR}, {0, 3}, {EINTR}, {EINTR}, {0, 1}};
  EXPECT_EQ(Write(name_, "abcdefgh", 1), 0);
  EXPECT_EQ(calls, 6);
  EXPECT_EQ(Get(name_), ".abcdefgh.");
}

TEST_F(ThreadsBackendTest, AnErrorHalfWayIsTheResult) {
  Put(name_, "0123456789");
  steps = {{0, 3}, {EIO}};
  EXPECT_EQ(Read(name_, 10, 0, EIO), "");
  steps = {{0, 3}, {ENOSPC}};
  EXPECT_EQ(Write(name_, "abcdefgh", 0), ENOSPC);
}

TEST_F(ThreadsBackendTest, AWriteThatMovesNothingIsAnErrorNotSuccess) {
  Put(name_, "");
  steps = {{0, 0}};
  EXPECT_EQ(Write(name_, "abc", 0), EIO);
}

TEST_F(ThreadsBackendTest, AFailureIsAPositiveErrnoEvenWhereNoneWasGiven) {
  Put(name_, "0123456789");
  EXPECT_EQ(Write("/dev/full", "abc", 0), ENOSPC);
  EXPECT_EQ(Write(directory_ / "absent", "abc", 0), ENOENT);
  EXPECT_EQ(Read(directory_ / "absent", 3, 0, ENOENT), "");
  EXPECT_EQ(Read(directory_ / "", 3, 0, EISDIR), "");
}

TEST_F(ThreadsBackendTest, MovesBytesBeyondFourGiB) {
  constexpr unsigned long kFar = (5UL << 32) + 1;
  Put(name_, "");
  EXPECT_EQ(Write(name_, "far", kFar), 0);
  EXPECT_EQ(Read(name_, 9, kFar - 2), std::string("\0\0far", 5));
  VeskBackend::FileInfo info;
  EXPECT_EQ(backend_.Stat(name_, &info), 0);
  EXPECT_EQ(info.size, kFar + 3);
}

TEST_F(ThreadsBackendTest, RunsWhatIsQueuedBeforeItEnds) {
  Put(name_, "");
  std::vector<std::unique_ptr<JobHolder>> jobs;
  {
    ThreadsBackend backend({1, 1});
    vesk::VeskBundler bundler(backend);
    for (unsigned int i = 0; i < 100; ++i) {
      jobs.push_back(std::make_unique<JobHolder>(NewWrite(name_, "x", 1, i)));
      bundler.SubmitJob(jobs.back()->get());
    }
  }
  for (const auto& job : jobs) EXPECT_EQ(job->get()->GetReturnValue(), 0);
  EXPECT_EQ(Get(name_), std::string(100, 'x'));
}

TEST_F(ThreadsBackendTest, CreatesAFileWithExactlyThesePermissions) {
  const mode_t mask = umask(077);
  EXPECT_EQ(backend_.Create(name_, 0664), 0);
  umask(mask);
  VeskBackend::FileInfo info;
  EXPECT_EQ(backend_.Stat(name_, &info), 0);
  EXPECT_EQ(info.mode, static_cast<mode_t>(S_IFREG | 0664));
  EXPECT_EQ(backend_.Create(name_, 0600), EEXIST);
  EXPECT_EQ(backend_.Create(directory_ / "absent/file", 0600), ENOENT);
}

TEST_F(ThreadsBackendTest, StatTellsTheSameFileByDeviceAndInode) {
  Put(name_, "abc");
  const std::string link = directory_ / "link";
  ASSERT_EQ(symlink(name_.c_str(), link.c_str()), 0);
  VeskBackend::FileInfo file;
  VeskBackend::FileInfo behind_link;
  EXPECT_EQ(backend_.Stat(name_, &file), 0);
  EXPECT_EQ(backend_.Stat(link, &behind_link), 0);
  EXPECT_EQ(file.size, 3u);
  EXPECT_EQ(file.device, behind_link.device);
  EXPECT_EQ(file.inode, behind_link.inode);
  EXPECT_EQ(backend_.Stat(directory_ / "absent", &file), ENOENT);
}

TEST_F(ThreadsBackendTest, OpenTellsWhetherAJobWouldFindTheFile) {
  EXPECT_EQ(backend_.Open(name_, VeskBackend::Access::kRead), ENOENT);
  Put(name_, "");
  EXPECT_EQ(backend_.Open(name_, VeskBackend::Access::kRead), 0);
  EXPECT_EQ(backend_.Open(name_, VeskBackend::Access::kWrite), 0);
  EXPECT_EQ(backend_.Open(directory_ / "", VeskBackend::Access::kWrite), EISDIR);
}

TEST_F(ThreadsBackendTest, TruncateCutsAndExtends) {
  Put(name_, "0123456789");
  EXPECT_EQ(backend_.Truncate(name_, 4), 0);
  EXPECT_EQ(Get(name_), "0123");
  EXPECT_EQ(backend_.Truncate(name_, 6), 0);
  EXPECT_EQ(Get(name_), std::string("0123\0\0", 6));
  EXPECT_EQ(backend_.Truncate(directory_ / "absent", 0), ENOENT);
}

TEST_F(ThreadsBackendTest, NextDataPassesOverHoles) {
  constexpr std::uint64_t kMiB = 1 << 20;
  Put(name_, "");
  ASSERT_EQ(Write(name_, std::string(4096, 'x'), 2 * kMiB), 0);
  ASSERT_EQ(backend_.Truncate(name_, 4 * kMiB), 0);

  VeskBackend::Extent extent;
  ASSERT_EQ(backend_.NextData(name_, 0, &extent), 0);
  // A file system may see data in larger units, or see nothing but data.
  EXPECT_LE(extent.begin, 2 * kMiB);
  EXPECT_GE(extent.end, 2 * kMiB + 4096);
  ASSERT_EQ(backend_.NextData(name_, 2 * kMiB + 100, &extent), 0);
  EXPECT_EQ(extent.begin, 2 * kMiB + 100);
  ASSERT_EQ(backend_.NextData(name_, 4 * kMiB, &extent), 0);
  EXPECT_EQ(extent.begin, 4 * kMiB);
  EXPECT_EQ(extent.end, 4 * kMiB);
  EXPECT_EQ(backend_.NextData(directory_ / "absent", 0, &extent), ENOENT);
}

TEST_F(ThreadsBackendTest, SyncAndRemoveSpeakErrno) {
  Put(name_, "abc");
  EXPECT_EQ(backend_.Sync(name_), 0);
  EXPECT_EQ(backend_.Remove(name_), 0);
  EXPECT_EQ(backend_.Remove(name_), ENOENT);
  EXPECT_EQ(backend_.Sync(name_), ENOENT) << "the descriptor of a removed file was kept";
}

TEST_F(ThreadsBackendTest, RenameReplacesAndNoDescriptorOfTheOldFilesIsUsed) {
  const std::string other = directory_ / "other";
  Put(name_, "new");
  Put(other, "old");
  EXPECT_EQ(Read(name_, 3, 0), "new");
  EXPECT_EQ(Read(other, 3, 0), "old");
  EXPECT_EQ(backend_.Rename(name_, other), 0);
  EXPECT_EQ(Read(other, 3, 0), "new");
  EXPECT_EQ(Read(name_, 3, 0, ENOENT), "");
  EXPECT_EQ(backend_.Rename(name_, other), ENOENT);
}

TEST_F(ThreadsBackendTest, RenameWorksInTheCurrentDirectory) {
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(directory_ / "");
  Put("a", "abc");
  EXPECT_EQ(backend_.Rename("a", "b"), 0);
  EXPECT_EQ(Get("b"), "abc");
  std::filesystem::current_path(before);
}

class DescriptorCacheTest : public ::testing::Test {
 protected:
  std::shared_ptr<const vesk::Descriptor> Open(const std::string& name) {
    Put(directory_ / name, "");
    std::shared_ptr<const vesk::Descriptor> descriptor;
    EXPECT_EQ(cache_.Get(directory_ / name, VeskBackend::Access::kRead, &descriptor), 0);
    return descriptor;
  }
  static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

  const TemporaryDirectory directory_;
  vesk::DescriptorCache cache_{2};
};

TEST_F(DescriptorCacheTest, KeepsADescriptorForTheNextJob) {
  EXPECT_EQ(Open("a"), Open("a"));
  EXPECT_NE(Open("a"), Open("b"));
}

TEST_F(DescriptorCacheTest, ReadersAndWritersHaveTheirOwn) {
  const auto reader = Open("a");
  std::shared_ptr<const vesk::Descriptor> writer;
  EXPECT_EQ(cache_.Get(directory_ / "a", VeskBackend::Access::kWrite, &writer), 0);
  EXPECT_EQ(fcntl(reader->fd(), F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(fcntl(writer->fd(), F_GETFL) & O_ACCMODE, O_WRONLY);
}

TEST_F(DescriptorCacheTest, ClosesTheLeastRecentlyUsedOverItsBound) {
  const int a = Open("a")->fd();
  const int b = Open("b")->fd();
  Open("a");
  Open("c");
  EXPECT_TRUE(IsOpen(a));
  EXPECT_EQ(Open("a")->fd(), a);
  // b was closed; its number went to c or is free.
  EXPECT_TRUE(!IsOpen(b) || Open("c")->fd() == b);
}

TEST_F(DescriptorCacheTest, ADescriptorInUseOutlivesItsEntry) {
  const auto used = Open("a");
  Open("b");
  Open("c");
  EXPECT_TRUE(IsOpen(used->fd()));
  EXPECT_NE(Open("a"), used);
}

TEST_F(DescriptorCacheTest, ForgetsANameWithoutAnEntry) {
  const auto before = Open("a");
  cache_.Forget(directory_ / "a");
  cache_.Forget(directory_ / "never opened");
  EXPECT_NE(Open("a"), before);
}

}  // namespace
}  // namespace vesk_test

// Jobs on the operating system's files. The system's calls are put behind ones of the test's, so
// that they can be interrupted, cut short, or refused.

#include "runtime/posix_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "runtime/backend_threads.h"
#include "tests/support/allocation.h"
#include "tests/support/jobs.h"
#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

// What the next calls do, in order; without a step they go through whole.
struct Step {
  int error = 0;                   // fail with this, or
  std::size_t at_most = SIZE_MAX;  // move no more bytes than this
};

// It is off for other tests of the program: its mutex would order what they leave unordered, and so
// hide their races.
class Script {
 public:
  void SwitchOn(bool on) { on_.store(on, std::memory_order_relaxed); }
  void Set(std::deque<Step> steps) {
    const std::lock_guard<std::mutex> guard(mutex_);
    steps_ = std::move(steps);
    calls_ = 0;
  }
  Step Next() {
    if (!on_.load(std::memory_order_relaxed)) return {};
    const std::lock_guard<std::mutex> guard(mutex_);
    ++calls_;
    if (steps_.empty()) return {};
    const Step step = steps_.front();
    steps_.pop_front();
    return step;
  }
  int Calls() {
    const std::lock_guard<std::mutex> guard(mutex_);
    return calls_;
  }

 private:
  std::atomic<bool> on_{false};
  std::mutex mutex_;
  std::deque<Step> steps_;
  int calls_ = 0;
};

Script moves;                             // pread and pwrite
Script tries;                             // preadv2
std::atomic<bool> refuses_direct{false};  // open: as a file system without O_DIRECT
std::atomic<int> opened_direct{0};        // opens with O_DIRECT that went through
std::atomic<int> direct_moves{0};         // pread and pwrite on such a descriptor

ssize_t Move(long system_call, int fd, void* bytes, std::size_t length, off_t offset) {
  const Step step = moves.Next();
  const int flags = fcntl(fd, F_GETFL);
  if (flags >= 0 && (flags & O_DIRECT) != 0) ++direct_moves;
  if (step.error != 0) {
    errno = step.error;
    return -1;
  }
  length = std::min(length, step.at_most);
  return length == 0 && step.at_most == 0 ? 0 : syscall(system_call, fd, bytes, length, offset);
}

}  // namespace
}  // namespace vesk_test

extern "C" ssize_t pread(int fd, void* bytes, std::size_t length, off_t offset) {
  return vesk_test::Move(SYS_pread64, fd, bytes, length, offset);
}
extern "C" ssize_t pwrite(int fd, const void* bytes, std::size_t length, off_t offset) {
  return vesk_test::Move(SYS_pwrite64, fd, const_cast<void*>(bytes), length, offset);
}
extern "C" ssize_t preadv2(int fd, const iovec* targets, int count, off_t offset, int flags) {
  const vesk_test::Step step = vesk_test::tries.Next();
  if (step.error != 0) {
    errno = step.error;
    return -1;
  }
  iovec first = targets[0];  // all that is asked for here
  first.iov_len = std::min(first.iov_len, step.at_most);
  return syscall(SYS_preadv2, fd, &first, count, offset, 0L, flags);
}
extern "C" int open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list more;
    va_start(more, flags);
    mode = va_arg(more, mode_t);
    va_end(more);
  }
  const bool direct = (flags & O_DIRECT) != 0;
  if (direct && vesk_test::refuses_direct) {
    errno = EINVAL;
    return -1;
  }
  const long fd = syscall(SYS_openat, AT_FDCWD, path, flags, mode);
  if (direct && fd >= 0) ++vesk_test::opened_direct;
  return static_cast<int>(fd);
}

namespace vesk_test {
namespace {

using vesk::PosixFiles;
using vesk::VeskJob;

void Put(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::binary) << content;
}

std::string Get(const std::string& name) {
  std::ostringstream content;
  content << std::ifstream(name, std::ios::binary).rdbuf();
  return content.str();
}

class PosixFilesTest : public ::testing::Test {
 protected:
  PosixFilesTest() { Reset(true); }
  ~PosixFilesTest() override { Reset(false); }

  static void Reset(bool on) {
    for (Script* script : {&moves, &tries}) {
      script->SwitchOn(on);
      script->Set({});
    }
    refuses_direct = false;
    opened_direct = 0;
    direct_moves = 0;
  }

  int Do(PosixFiles& files, VeskJob* job) {
    const JobHolder holder(job);
    return files.Perform(*job);
  }

  // The bytes obtained.
  std::string Read(PosixFiles& files, const std::string& name, unsigned int length,
                   unsigned long offset, int expected_result = 0) {
    std::string bytes(length, '?');
    unsigned int count = 0;
    EXPECT_EQ(Do(files, NewRead(name, bytes.data(), length, offset, &count)), expected_result);
    return bytes.substr(0, count);
  }
  std::string Read(const std::string& name, unsigned int length, unsigned long offset,
                   int expected_result = 0) {
    return Read(files_, name, length, offset, expected_result);
  }

  int Write(PosixFiles& files, const std::string& name, const std::string& bytes,
            unsigned long offset) {
    return Do(files, NewWrite(name, bytes.data(), static_cast<unsigned int>(bytes.size()), offset));
  }
  int Write(const std::string& name, const std::string& bytes, unsigned long offset) {
    return Write(files_, name, bytes, offset);
  }

  int DoOnName(unsigned int code, const std::string& name, std::uint64_t number = 0) {
    return Do(files_, vesk::NewNameJob(code, name, {}, number));
  }
  int Stat(const std::string& name, vesk::FileInfo* info) {
    const auto result = std::make_shared<vesk::FileInfo>();
    const int error = Do(files_, vesk::NewNameJob(vesk::OPCODE_STAT, name, {}, 0, result));
    *info = *result;
    return error;
  }

  const TemporaryDirectory directory_;
  const std::string name_ = directory_ / "file";
  PosixFiles files_{{}};
};

TEST_F(PosixFilesTest, CarriesAReadOnOverShortCountsAndInterruptions) {
  Put(name_, "0123456789");
  moves.Set({{EINTR}, {0, 3}, {EINTR}, {EINTR}, {0, 1}});
  EXPECT_EQ(Read(name_, 10, 0), "0123456789");
  EXPECT_EQ(moves.Calls(), 6);
}

TEST_F(PosixFilesTest, CarriesAWriteOnOverShortCountsAndInterruptions) {
  Put(name_, "..........");
  moves.Set({{EINTR}, {0, 3}, {EINTR}, {EINTR}, {0, 1}});
  EXPECT_EQ(Write(name_, "abcdefgh", 1), 0);
  EXPECT_EQ(moves.Calls(), 6);
  EXPECT_EQ(Get(name_), ".abcdefgh.");
}

TEST_F(PosixFilesTest, AnErrorHalfWayIsTheResult) {
  Put(name_, "0123456789");
  moves.Set({{0, 3}, {EIO}});
  EXPECT_EQ(Read(name_, 10, 0, EIO), "");
  moves.Set({{0, 3}, {ENOSPC}});
  EXPECT_EQ(Write(name_, "abcdefgh", 0), ENOSPC);
}

TEST_F(PosixFilesTest, AWriteThatMovesNothingIsAnErrorNotSuccess) {
  Put(name_, "");
  moves.Set({{0, 0}});
  EXPECT_EQ(Write(name_, "abc", 0), EIO);
}

TEST_F(PosixFilesTest, AFailureIsAPositiveErrno) {
  EXPECT_EQ(Write("/dev/full", "abc", 0), ENOSPC);
  EXPECT_EQ(Read(directory_ / "", 3, 0, EISDIR), "");
  EXPECT_EQ(DoOnName(vesk::OPCODE_OPEN, directory_ / "",
                     static_cast<unsigned long>(vesk::Access::kWrite)),
            EISDIR);
  EXPECT_EQ(DoOnName(vesk::OPCODE_CREATE, directory_ / "absent/file", 0600), ENOENT);
}

TEST_F(PosixFilesTest, StatTellsTheSameFileByDeviceAndInode) {
  Put(name_, "abc");
  const std::string link = directory_ / "link";
  ASSERT_EQ(symlink(name_.c_str(), link.c_str()), 0);
  vesk::FileInfo file;
  vesk::FileInfo behind_link;
  EXPECT_EQ(Stat(name_, &file), 0);
  EXPECT_EQ(Stat(link, &behind_link), 0);
  EXPECT_EQ(file.size, 3u);
  EXPECT_EQ(file.device, behind_link.device);
  EXPECT_EQ(file.inode, behind_link.inode);
}

TEST_F(PosixFilesTest, StatTellsTheLastChangeInNanoseconds) {
  Put(name_, "abc");
  const timespec times[2] = {{7, 7}, {1234567890, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, name_.c_str(), times, 0), 0);
  vesk::FileInfo info;
  EXPECT_EQ(Stat(name_, &info), 0);
  EXPECT_EQ(info.modified_ns, 1234567890123456789);
  for (const bool write : {true, false}) {
    ASSERT_EQ(utimensat(AT_FDCWD, name_.c_str(), times, 0), 0);
    EXPECT_EQ(write ? Write(name_, "X", 0) : DoOnName(vesk::OPCODE_TRUNCATE, name_, 1), 0);
    EXPECT_EQ(Stat(name_, &info), 0);
    EXPECT_GT(info.modified_ns, 1234567890123456789);
  }
}

// Another program has put another file in its place: what is open is the old one.
TEST_F(PosixFilesTest, AFileThatWasReplacedIsOpenedAgainOnceTheStatShowsIt) {
  Put(name_, "old");
  EXPECT_EQ(Read(name_, 3, 0), "old");
  Put(directory_ / "new", "new");
  std::filesystem::rename(directory_ / "new", name_);
  vesk::FileInfo info;
  EXPECT_EQ(Stat(name_, &info), 0);
  EXPECT_EQ(Read(name_, 3, 0), "new");
}

TEST_F(PosixFilesTest, WithoutMemoryAJobFailsAndNoMore) {
  Put(name_, "0123456789");
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    PosixFiles files({});
    std::string bytes(4, '?');
    unsigned int count = 0;
    const JobHolder job(NewRead(name_, bytes.data(), 4, 3, &count));
    int result = 0;
    {
      const FailingAllocation failing(nth);
      result = files.Perform(*job.get());
      fired = failing.Fired();
    }
    EXPECT_EQ(result, fired ? ENOMEM : 0) << nth;
    EXPECT_EQ(files.Perform(*job.get()), 0) << "nothing is left half done";
    EXPECT_EQ(bytes, "3456");
  }
}

TEST_F(PosixFilesTest, RenameWorksInTheCurrentDirectory) {
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(directory_ / "");
  Put("a", "abc");
  EXPECT_EQ(Do(files_, vesk::NewNameJob(vesk::OPCODE_RENAME, "a", "b")), 0);
  EXPECT_EQ(Get("b"), "abc");
  std::filesystem::current_path(before);
}

// --- Reads from memory alone

class TryPerformTest : public PosixFilesTest {
 protected:
  // True: the read was performed; its bytes are in `bytes_`.
  bool Try(const std::string& name, unsigned int length, unsigned long offset = 0) {
    bytes_.assign(length, '?');
    count_ = 12345;
    const JobHolder job(NewRead(name, bytes_.data(), length, offset, &count_));
    int result = -1;
    const bool performed = files_.TryPerform(*job.get(), &result);
    EXPECT_EQ(result, performed ? 0 : -1);
    return performed;
  }

  std::string bytes_;
  unsigned int count_ = 0;
};

TEST_F(TryPerformTest, ReadsWhatIsInMemory) {
  Put(name_, "0123456789");
  Read(name_, 1, 0);  // opens the file
  moves.Set({});
  ASSERT_TRUE(Try(name_, 4, 3));
  EXPECT_EQ(bytes_, "3456");
  EXPECT_EQ(count_, 4u);
  EXPECT_EQ(tries.Calls(), 1);
  EXPECT_EQ(moves.Calls(), 0);
}

TEST_F(TryPerformTest, LeavesWhatMayBlockToPerform) {
  Put(name_, "0123456789");
  EXPECT_FALSE(Try(name_, 4)) << "the file is not open yet";
  EXPECT_EQ(tries.Calls(), 0);
  Read(name_, 1, 0);
  tries.Set({{EAGAIN}, {EOPNOTSUPP}, {EINTR}, {EIO}, {0, 2}});
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(Try(name_, 4)) << i;
    EXPECT_EQ(count_, 12345u) << "the count is stored once, with the end";
  }
  EXPECT_TRUE(Try(name_, 4));
}

TEST_F(TryPerformTest, LeavesTheEndOfTheFileToPerform) {
  Put(name_, "0123456789");
  Read(name_, 1, 0);
  EXPECT_FALSE(Try(name_, 11));
  EXPECT_FALSE(Try(name_, 1, 10));
}

TEST_F(TryPerformTest, LeavesTheWantOfMemoryToPerform) {
  Put(name_, "0123456789");
  Read(name_, 1, 0);
  const JobHolder job(NewRead(name_, nullptr, 4, 0, &count_));
  int result = -1;
  const FailingAllocation failing(1);
  EXPECT_FALSE(files_.TryPerform(*job.get(), &result));
  EXPECT_TRUE(failing.Fired());
}

TEST_F(TryPerformTest, IsForReadsOnly) {
  Put(name_, "0123456789");
  Write(name_, "0", 0);
  int result = -1;
  const JobHolder write(NewWrite(name_, "x", 1, 0));
  EXPECT_FALSE(files_.TryPerform(*write.get(), &result));
  const JobHolder stat(
      vesk::NewNameJob(vesk::OPCODE_STAT, name_, {}, 0, std::make_shared<vesk::FileInfo>()));
  EXPECT_FALSE(files_.TryPerform(*stat.get(), &result));
  EXPECT_EQ(Get(name_), "0123456789");
}

// Ends of jobs, counted.
class Ends : public vesk::EndHandler {
 public:
  ~Ends() = default;
  void JobEnded(VeskJob* job, int result) override {
    by_starter_ += std::this_thread::get_id() == starter_ ? 1 : 0;
    job->RefCountInc();  // whoever sees the end may drop the test's
    job->Publish(result);
    VeskJob::RefCountDec(job);
  }
  int by_starter() const { return by_starter_; }

 private:
  const std::thread::id starter_ = std::this_thread::get_id();
  std::atomic<int> by_starter_{0};
};

TEST_F(PosixFilesTest, AThreadThatStartsReadsEndsThoseThatAreInMemoryItself) {
  Put(name_, "0123456789");
  Ends ends;
  vesk::ThreadsBackend backend({});
  backend.ReportEndsTo(ends);
  std::string bytes(10, '?');
  unsigned int counts[3] = {};
  const JobHolder opens(NewRead(name_, bytes.data(), 1, 0, &counts[0]));
  backend.Run(opens.get());
  EXPECT_EQ(ends.by_starter(), 1);

  tries.Set({{0, SIZE_MAX}, {EAGAIN}});
  const JobHolder in_memory(NewRead(name_, bytes.data(), 5, 0, &counts[1]));
  const JobHolder on_disk(NewRead(name_, bytes.data() + 5, 5, 5, &counts[2]));
  vesk::JobQueue batch;
  batch.Push(in_memory.get());
  batch.Push(on_disk.get());
  backend.Start(batch);
  EXPECT_EQ(in_memory->GetJobState(), vesk::JOB_STATE_DONE);
  on_disk->WaitUntilDone();
  EXPECT_EQ(ends.by_starter(), 2) << "what may block is for the threads";
  EXPECT_EQ(bytes, "0123456789");
}

// --- Past the page cache

class DirectTest : public PosixFilesTest {
 protected:
  // What transfers at all kinds of places obtain and leave, in one text.
  std::string Transcript(PosixFiles& files, const std::string& name) {
    std::string content;
    for (int i = 0; i < 5 * 4096 + 100; ++i) content += static_cast<char>('a' + i % 23);
    Put(name, content);
    std::ostringstream transcript;
    for (const unsigned long offset : {0UL, 1UL, 4096UL, 16384UL, 20480UL, 24576UL, 1UL << 33}) {
      for (const unsigned int length : {0u, 1u, 512u, 4095u, 4096u, 8192u, 24576u}) {
        transcript << offset << ' ' << length << ' ' << Read(files, name, length, offset) << '\n';
      }
    }
    for (const unsigned long offset : {4096UL, 4097UL, 20480UL, 32768UL}) {
      for (const unsigned int length : {0u, 1u, 4096u, 4097u, 8192u}) {
        transcript << Write(files, name, std::string(length, 'X'), offset) << ' ';
        transcript << Get(name) << '\n';
      }
    }
    return transcript.str();
  }

  // Transfers end the same with and without O_DIRECT.
  void ExpectNoDifference(const std::string& name) {
    PosixFiles direct({64, true});
    const std::string expected = Transcript(files_, name);
    EXPECT_EQ(opened_direct, 0);
    EXPECT_TRUE(Transcript(direct, name) == expected) << name;
  }
};

TEST_F(DirectTest, MovesTheSameBytes) { ExpectNoDifference(name_); }

TEST_F(DirectTest, MovesTheSameBytesInAFileSystemInMemory) {
  const char* const kInMemory = "/dev/shm";
  if (access(kInMemory, W_OK) != 0) GTEST_SKIP() << kInMemory << " cannot be written to";
  const std::string name = std::string(kInMemory) + "/vesk-test-" + std::to_string(getpid());
  ExpectNoDifference(name);
  unlink(name.c_str());
}

TEST_F(DirectTest, MovesTheSameBytesWhereAFileSystemRefusesIt) {
  refuses_direct = true;
  ExpectNoDifference(name_);
  EXPECT_EQ(opened_direct, 0);
  EXPECT_EQ(direct_moves, 0);
}

TEST_F(DirectTest, MovesTheSameBytesWhereAFileSystemAsksForLargerUnits) {
  Put(name_, std::string(8192, 'a'));
  PosixFiles direct({64, true});
  moves.Set({{EINVAL}});
  EXPECT_EQ(Read(direct, name_, 4096, 4096), std::string(4096, 'a'));
  moves.Set({{EINVAL}});
  EXPECT_EQ(Write(direct, name_, std::string(4096, 'b'), 4096), 0);
  EXPECT_EQ(Get(name_), std::string(4096, 'a') + std::string(4096, 'b'));
}

TEST_F(DirectTest, OnlyAlignedTransfersGoPastThePageCache) {
  Put(name_, std::string(16384, 'a'));
  PosixFiles direct({64, true});
  Read(direct, name_, 4096, 0);
  if (opened_direct == 0) GTEST_SKIP() << "no O_DIRECT in " << directory_ / "";
  EXPECT_EQ(direct_moves, 1);
  Write(direct, name_, std::string(8192, 'b'), 4096);
  EXPECT_EQ(direct_moves, 2);
  Read(direct, name_, 4095, 0);
  Read(direct, name_, 4096, 1);
  Write(direct, name_, std::string(4097, 'b'), 4096);
  Write(direct, name_, std::string(4096, 'b'), 512);
  EXPECT_EQ(direct_moves, 2);
}

TEST_F(DirectTest, ShortCountsAndErrorsEndAsWithoutIt) {
  const std::string content = std::string(4096, 'a') + std::string(4096, 'b');
  Put(name_, content);
  PosixFiles direct({64, true});
  moves.Set({{EINTR}, {0, 4096}, {EINTR}});
  EXPECT_EQ(Read(direct, name_, 8192, 0), content);
  moves.Set({{0, 4096}, {EIO}});
  EXPECT_EQ(Read(direct, name_, 8192, 0, EIO), "");
  moves.Set({{0, 4096}, {ENOSPC}});
  EXPECT_EQ(Write(direct, name_, content, 0), ENOSPC);
  moves.Set({{0, 0}});
  EXPECT_EQ(Write(direct, name_, content, 0), EIO);
}

TEST_F(DirectTest, ATransferThatNeedsOtherMemoryOrAnOpenFileIsNotFoundReady) {
  Put(name_, std::string(8192, 'a'));
  PosixFiles direct({64, true});
  const std::unique_ptr<unsigned char, decltype(&std::free)> memory(
      static_cast<unsigned char*>(std::aligned_alloc(4096, 8192)), &std::free);
  unsigned int count = 0;
  const JobHolder suits(NewRead(name_, memory.get(), 4096, 0, &count));
  const JobHolder other_memory(NewRead(name_, memory.get() + 16, 4096, 0, &count));
  const JobHolder not_direct(NewRead(name_, memory.get() + 16, 4095, 0, &count));
  const auto find = [&](const JobHolder& job) { return direct.Find(vesk::Transfer(job->GetOP())); };
  EXPECT_EQ(find(suits), nullptr);
  EXPECT_EQ(find(not_direct), nullptr);
  direct.Perform(*suits.get());
  direct.Perform(*not_direct.get());
  if (opened_direct == 0) GTEST_SKIP() << "no O_DIRECT in " << directory_ / "";
  ASSERT_NE(find(suits), nullptr);
  EXPECT_TRUE(find(suits)->IsDirect());
  EXPECT_EQ(find(other_memory), nullptr);
  ASSERT_NE(find(not_direct), nullptr);
  EXPECT_FALSE(find(not_direct)->IsDirect());
}

}  // namespace
}  // namespace vesk_test

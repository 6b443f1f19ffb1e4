// What every backend promises, whatever it stores bytes in: one suite over all of them, for jobs
// that are started and for jobs that the waiting thread runs itself.

#include "runtime/backend.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "runtime/backend_memory.h"
#include "runtime/backend_threads.h"
#include "runtime/clock.h"
#include "runtime/decorator_faults.h"
#include "runtime/decorator_latency.h"
#include "runtime/decorator_retry.h"
#include "runtime/dispatcher.h"
#include "runtime/name_operation.h"
#include "runtime/request.h"
#include "runtime/settings.h"
#include "tests/support/jobs.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskLock.h"

#ifdef VESK_HAVE_URING
#include "runtime/backend_uring.h"
#endif

namespace vesk_test {
namespace {

using vesk::Access;
using vesk::Clock;
using vesk::FileInfo;
using vesk::MemoryBackend;
using vesk::RequestLimits;
using vesk::RequestScope;
using vesk::ThreadsBackend;
using vesk::VeskBackend;
using vesk::VeskBundler;
using vesk::VeskJob;
using vesk::VeskLock;

// A store and what stands in front of it.
class Stack {
 public:
  Stack() = default;
  ~Stack() {
    while (!backends_.empty()) backends_.pop_back();  // the front first: it borrows what it is on
  }
  Stack(const Stack&) = delete;
  Stack& operator=(const Stack&) = delete;

  template <typename Store, typename... Arguments>
  Stack& On(Arguments&&... arguments) {
    backends_.push_back(std::make_unique<Store>(std::forward<Arguments>(arguments)...));
    return *this;
  }

  // `arguments` follow the backend in the decorator's constructor.
  template <typename Decorator, typename... Arguments>
  Stack& Behind(Arguments&&... arguments) {
    backends_.push_back(std::make_unique<Decorator>(top(), std::forward<Arguments>(arguments)...));
    return *this;
  }

  VeskBackend& top() { return *backends_.back(); }

 private:
  std::vector<std::unique_ptr<VeskBackend>> backends_;
};

// In front of a store whose writes may fail for good: none is kept that has more than a byte.
const vesk::Settings& NothingParked() {
  static vesk::Settings settings;
  settings.retry_parked_bytes = 1;
  return settings;
}

// A rule that is asked about every job and chooses none.
vesk::FaultRule FaultThatNeverFires() {
  vesk::FaultRule rule;
  rule.when = vesk::FaultRule::When::kChance;
  rule.chance = 0;
  rule.error = EIO;
  return rule;
}

void OnPosix(Stack& stack) { stack.On<ThreadsBackend>(ThreadsBackend::Options{}); }
void OnMemory(Stack& stack) { stack.On<MemoryBackend>(); }
#ifdef VESK_HAVE_URING
void OnUring(Stack& stack) { stack.On<vesk::UringBackend>(vesk::UringBackend::Options{}); }
#endif

void BehindLatency(Stack& stack) {
  vesk::LatencyDecorator::Options slow;
  slow.fixed = std::chrono::microseconds(50);
  slow.jitter = std::chrono::microseconds(50);
  stack.Behind<vesk::LatencyDecorator>(slow, Clock::System());
}
void BehindFaults(Stack& stack) {
  stack.Behind<vesk::FaultsDecorator>(std::vector{FaultThatNeverFires()}, Clock::System());
}
void BehindRetry(Stack& stack) {
  stack.Behind<vesk::RetryDecorator>(NothingParked(), Clock::System(), 1U);
}

using Layers = std::vector<void (*)(Stack&)>;

// One line a case: a store, and what is in front of it. The suite asks nothing of the disk, only of
// the store.
struct BackendCase {
  const char* name;
  Layers layers;                                  // the store first
  std::function<int()> probe = [] { return 0; };  // why this machine cannot have it, as errno
};

// NOLINTNEXTLINE(cert-err58-cpp): nothing to catch it with before main
const BackendCase kCases[] = {
    {"posix", {OnPosix}},
    {"posix_direct", {[](Stack& s) {
       s.On<ThreadsBackend>(ThreadsBackend::Options{2, {64, true}});
     }}},
    {"posix_few", {[](Stack& s) {
       s.On<ThreadsBackend>(ThreadsBackend::Options{1, {1, false}});
     }}},
    {"memory", {OnMemory}},
    {"memory_over_posix", {OnPosix, [](Stack& s) { s.On<MemoryBackend>(&s.top()); }}},
    {"latency", {OnPosix, BehindLatency}},
    {"latency_over_memory", {OnMemory, BehindLatency}},
    {"faults", {OnPosix, BehindFaults}},
    {"faults_over_memory", {OnMemory, BehindFaults}},
    {"retry", {OnPosix, BehindRetry}},
    {"retry_over_memory", {OnMemory, BehindRetry}},
    {"retry_over_faults_over_latency", {OnPosix, BehindLatency, BehindFaults, BehindRetry}},
    {"latency_over_retry", {OnPosix, BehindRetry, BehindLatency}},
#ifdef VESK_HAVE_URING
    {"uring", {OnUring}, vesk::UringBackend::Probe},
    {"uring_direct",
     {[](Stack& s) {
       s.On<vesk::UringBackend>(vesk::UringBackend::Options{16, {64, true}});
     }},
     vesk::UringBackend::Probe},
    {"uring_few",
     {[](Stack& s) {
       s.On<vesk::UringBackend>(vesk::UringBackend::Options{2, {1, false}});
     }},
     vesk::UringBackend::Probe},
    {"latency_over_uring", {OnUring, BehindLatency}, vesk::UringBackend::Probe},
    {"faults_over_uring", {OnUring, BehindFaults}, vesk::UringBackend::Probe},
    {"retry_over_uring", {OnUring, BehindRetry}, vesk::UringBackend::Probe},
#endif
};

void PrintTo(const BackendCase& tested, std::ostream* out) { *out << tested.name; }

// Memory that suits O_DIRECT, and some behind it that no transfer may touch.
class Memory {
 public:
  explicit Memory(std::size_t length)
      : bytes_(static_cast<char*>(std::aligned_alloc(kUnit, (length / kUnit + 2) * kUnit)),
               &std::free),
        end_((length / kUnit + 2) * kUnit) {
    if (bytes_ == nullptr) throw std::bad_alloc();
    std::memset(bytes_.get(), '?', end_);
  }

  char* data() const { return bytes_.get(); }
  bool IsWholeBehind(std::size_t length) const {
    return std::all_of(data() + length, data() + end_, [](char byte) { return byte == '?'; });
  }

 private:
  static constexpr std::size_t kUnit = 4096;

  const std::unique_ptr<char, decltype(&std::free)> bytes_;
  const std::size_t end_;
};

enum class By {
  kStart,  // handed to the backend, which ends it when it likes
  kRun,    // held back until its thread waits, and run by that
};

class BackendTest : public ::testing::TestWithParam<std::tuple<BackendCase, By>> {
 protected:
  void SetUp() override {
    const BackendCase& tested = std::get<BackendCase>(GetParam());
    if (const int error = tested.probe()) {
      GTEST_SKIP() << tested.name << " is not to be had here: " << std::strerror(error);
    }
    stack_ = std::make_unique<Stack>();
    for (const auto layer : tested.layers) layer(*stack_);
    bundler_ = std::make_unique<VeskBundler>(stack_->top());
  }

  VeskBackend& backend() { return stack_->top(); }

  // Sees `job` through to its end; what it ended in.
  int Do(VeskJob* job) {
    const JobHolder holder(job);
    if (std::get<By>(GetParam()) == By::kRun) {
      VeskLock lock;
      lock.lock();
      bundler_->SubmitJob(job);
      bundler_->WaitForJob(job, &lock, "test");
      lock.unlock();
    } else {
      const RequestScope limited({});  // a thread whose request has limits runs nothing itself
      bundler_->SubmitJob(job);
      bundler_->WaitForJob(job, nullptr, "test");
    }
    EXPECT_EQ(job->GetJobState(), vesk::JOB_STATE_DONE);
    return job->GetReturnValue();
  }

  // The bytes that a read of `length` bytes obtained.
  std::string Read(const std::string& name, std::size_t length, std::uint64_t offset,
                   int expected_result = 0) {
    const Memory memory(length);
    unsigned int count = 0;
    EXPECT_EQ(Do(NewRead(name, memory.data(), static_cast<unsigned>(length), offset, &count)),
              expected_result);
    EXPECT_LE(count, length);
    EXPECT_TRUE(memory.IsWholeBehind(length));
    return std::string(memory.data(), count);
  }

  int Write(const std::string& name, const std::string& bytes, std::uint64_t offset) {
    const Memory memory(bytes.size());
    bytes.copy(memory.data(), bytes.size());
    return Do(NewWrite(name, memory.data(), static_cast<unsigned>(bytes.size()), offset));
  }

  // A file with this content that has been opened both ways, so that nothing is in the way of
  // transfers.
  std::string NewFile(const std::string& content, const std::string& name = "file") {
    const std::string path = directory_ / name;
    EXPECT_EQ(Create(path, 0600), 0);
    EXPECT_EQ(Write(path, content, 0), 0);
    EXPECT_EQ(Open(path, Access::kRead), 0);
    EXPECT_EQ(Open(path, Access::kWrite), 0);
    return path;
  }

  int Create(const std::string& name, mode_t permissions) {
    return Do(vesk::NewNameJob(vesk::OPCODE_CREATE, name, {}, permissions));
  }
  int Open(const std::string& name, Access access) {
    return Do(vesk::NewNameJob(vesk::OPCODE_OPEN, name, {}, static_cast<unsigned long>(access)));
  }
  int SetPermissions(const std::string& name, mode_t permissions) {
    return Do(vesk::NewNameJob(vesk::OPCODE_SET_PERMISSIONS, name, {}, permissions));
  }
  int Truncate(const std::string& name, std::uint64_t size) {
    return Do(vesk::NewNameJob(vesk::OPCODE_TRUNCATE, name, {}, size));
  }
  int Sync(const std::string& name) { return Do(vesk::NewNameJob(vesk::OPCODE_SYNC, name)); }
  int Remove(const std::string& name) { return Do(vesk::NewNameJob(vesk::OPCODE_REMOVE, name)); }
  int Rename(const std::string& from, const std::string& to) {
    return Do(vesk::NewNameJob(vesk::OPCODE_RENAME, from, to));
  }
  int Stat(const std::string& name, FileInfo* info) {
    const auto result = std::make_shared<FileInfo>();
    const int error = Do(vesk::NewNameJob(vesk::OPCODE_STAT, name, {}, 0, result));
    if (error == 0) *info = *result;
    return error;
  }
  int NextData(const std::string& name, std::uint64_t offset, vesk::Extent* extent) {
    const auto result = std::make_shared<vesk::Extent>();
    const int error = Do(vesk::NewNameJob(vesk::OPCODE_NEXT_DATA, name, {}, offset, result));
    if (error == 0) *extent = *result;
    return error;
  }
  std::uint64_t SizeOf(const std::string& name) {
    FileInfo info;
    EXPECT_EQ(Stat(name, &info), 0);
    return info.size;
  }

  const TemporaryDirectory directory_;  // a prefix of names, where the store is none of files
  const std::string absent_ = directory_ / "absent";
  std::unique_ptr<Stack> stack_;
  std::unique_ptr<VeskBundler> bundler_;
};

// Bytes that tell their own place.
std::string Pattern(std::size_t length, unsigned seed = 1) {
  std::string bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    seed = seed * 1664525 + 1013904223;
    bytes[i] = static_cast<char>('A' + (seed >> 24) % 26);
  }
  return bytes;
}

TEST_P(BackendTest, ReadsWhatWasWritten) {
  const std::string file = NewFile("0123456789");
  EXPECT_EQ(Read(file, 4, 3), "3456");
  EXPECT_EQ(Write(file, "abc", 2), 0);
  EXPECT_EQ(Read(file, 10, 0), "01abc56789");
  EXPECT_EQ(Write(file, "end", 10), 0);
  EXPECT_EQ(Read(file, 13, 0), "01abc56789end");
}

TEST_P(BackendTest, AFileNeedsNotToHaveBeenOpened) {
  const std::string file = directory_ / "file";
  ASSERT_EQ(Create(file, 0600), 0);
  EXPECT_EQ(Read(file, 4, 0), "");
  EXPECT_EQ(Write(file, "abc", 0), 0);
  EXPECT_EQ(Read(file, 4, 0), "abc");
}

TEST_P(BackendTest, AReadThatMeetsTheEndOfTheFileStoresAShortCount) {
  const std::string file = NewFile("0123456789");
  EXPECT_EQ(Read(file, 10, 0), "0123456789");
  EXPECT_EQ(Read(file, 11, 0), "0123456789");
  EXPECT_EQ(Read(file, 8, 9), "9");
  EXPECT_EQ(Read(file, 8, 10), "");
  EXPECT_EQ(Read(file, 8, 11), "");
  EXPECT_EQ(Read(file, 8, 5UL << 32), "");
  EXPECT_EQ(Read(NewFile("", "empty"), 8, 0), "");
}

TEST_P(BackendTest, MovesBytesBeyondFourGiB) {
  constexpr std::uint64_t kFar = (5UL << 32) + 1;
  const std::string file = NewFile("");
  EXPECT_EQ(Write(file, "far", kFar), 0);
  EXPECT_EQ(Read(file, 9, kFar - 2), std::string("\0\0far", 5));
  EXPECT_EQ(SizeOf(file), kFar + 3);
}

TEST_P(BackendTest, MovesLargeTransfersWhole) {
  const std::string bytes = Pattern(9 * 1024 * 1024 + 13);
  const std::string file = NewFile(bytes);
  EXPECT_TRUE(Read(file, bytes.size(), 0) == bytes);
  EXPECT_TRUE(Read(file, bytes.size(), 5) == bytes.substr(5));
}

TEST_P(BackendTest, OffsetsAndLengthsNeedNoAlignment) {
  std::string expected = Pattern(3 * 4096 + 100);
  const std::string file = NewFile(expected);
  for (const std::size_t offset : {0u, 1u, 511u, 4095u, 4096u, 4097u, 8192u}) {
    for (const std::size_t length : {1u, 100u, 4095u, 4096u, 4097u, 8192u}) {
      EXPECT_EQ(Read(file, length, offset), expected.substr(offset, length))
          << length << " at " << offset;
      const std::string bytes = Pattern(length, static_cast<unsigned>(offset + length));
      EXPECT_EQ(Write(file, bytes, offset), 0) << length << " at " << offset;
      if (expected.size() < offset + length) expected.resize(offset + length);
      expected.replace(offset, length, bytes);
    }
  }
  EXPECT_EQ(Read(file, expected.size() + 1, 0), expected);
}

TEST_P(BackendTest, ATransferOfNothingMovesNothing) {
  const std::string file = NewFile("abc");
  EXPECT_EQ(Read(file, 0, 0), "");
  EXPECT_EQ(Read(file, 0, 100), "");
  EXPECT_EQ(Write(file, "", 1), 0);
  EXPECT_EQ(Write(file, "", 100), 0);
  EXPECT_EQ(SizeOf(file), 3u);
}

TEST_P(BackendTest, AnAbsentFileIsAPositiveErrnoToEveryOperation) {
  FileInfo info;
  vesk::Extent extent;
  EXPECT_EQ(Read(absent_, 3, 0, ENOENT), "");
  EXPECT_EQ(Write(absent_, "abc", 0), ENOENT);
  EXPECT_EQ(Stat(absent_, &info), ENOENT);
  EXPECT_EQ(Open(absent_, Access::kRead), ENOENT);
  EXPECT_EQ(Open(absent_, Access::kWrite), ENOENT);
  EXPECT_EQ(Truncate(absent_, 0), ENOENT);
  EXPECT_EQ(SetPermissions(absent_, 0600), ENOENT);
  EXPECT_EQ(NextData(absent_, 0, &extent), ENOENT);
  EXPECT_EQ(Sync(absent_), ENOENT);
  EXPECT_EQ(Rename(absent_, directory_ / "other"), ENOENT);
  EXPECT_EQ(Remove(absent_), ENOENT);
}

TEST_P(BackendTest, CreatesAFileWithExactlyThesePermissions) {
  const std::string file = directory_ / "file";
  const mode_t mask = umask(077);
  EXPECT_EQ(Create(file, 0664), 0);
  umask(mask);
  FileInfo info;
  EXPECT_EQ(Stat(file, &info), 0);
  EXPECT_EQ(info.mode, static_cast<mode_t>(S_IFREG | 0664));
  EXPECT_EQ(info.size, 0u);
}

TEST_P(BackendTest, SetsExactlyThesePermissionsAndLeavesTheRestAlone) {
  const std::string file = NewFile("abc");
  FileInfo before;
  EXPECT_EQ(Stat(file, &before), 0);
  const mode_t mask = umask(077);
  EXPECT_EQ(SetPermissions(file, 0464), 0);
  umask(mask);
  FileInfo info;
  EXPECT_EQ(Stat(file, &info), 0);
  EXPECT_EQ(info.mode, static_cast<mode_t>(S_IFREG | 0464));
  EXPECT_EQ(info.size, 3u);
  EXPECT_EQ(info.modified_ns, before.modified_ns);
  EXPECT_EQ(Read(file, 4, 0), "abc");
  EXPECT_EQ(Write(file, "x", 1), 0) << "it was opened before";
}

TEST_P(BackendTest, CreateLeavesAFileThatIsThereAlone) {
  const std::string file = NewFile("abc");
  EXPECT_EQ(Create(file, 0644), EEXIST);
  EXPECT_EQ(Read(file, 4, 0), "abc");
  FileInfo info;
  EXPECT_EQ(Stat(file, &info), 0);
  EXPECT_EQ(info.mode, static_cast<mode_t>(S_IFREG | 0600));
}

TEST_P(BackendTest, StatTellsFilesApart) {
  FileInfo first;
  FileInfo second;
  FileInfo again;
  const std::string file = NewFile("a");
  ASSERT_EQ(Stat(file, &first), 0);
  ASSERT_EQ(Stat(NewFile("b", "other"), &second), 0);
  ASSERT_EQ(Stat(file, &again), 0);
  EXPECT_EQ(std::tie(first.device, first.inode), std::tie(again.device, again.inode));
  EXPECT_NE(std::tie(first.device, first.inode), std::tie(second.device, second.inode));
}

TEST_P(BackendTest, TruncateCutsAndExtends) {
  const std::string file = NewFile("0123456789");
  EXPECT_EQ(Truncate(file, 4), 0);
  EXPECT_EQ(Read(file, 10, 0), "0123");
  EXPECT_EQ(Truncate(file, 6), 0);
  EXPECT_EQ(Read(file, 10, 0), std::string("0123\0\0", 6));
  EXPECT_EQ(SizeOf(file), 6u);
  EXPECT_EQ(Truncate(file, 0), 0);
  EXPECT_EQ(Read(file, 10, 0), "");
}

TEST_P(BackendTest, NextDataFindsAllThatWasWritten) {
  constexpr std::uint64_t kMiB = 1 << 20;
  const std::string file = NewFile("");
  ASSERT_EQ(Write(file, std::string(4096, 'x'), 2 * kMiB), 0);
  ASSERT_EQ(Truncate(file, 4 * kMiB), 0);

  vesk::Extent extent;
  ASSERT_EQ(NextData(file, 0, &extent), 0);
  // A store may see data in larger units, or see nothing but data.
  EXPECT_LE(extent.begin, 2 * kMiB);
  EXPECT_GE(extent.end, 2 * kMiB + 4096);
  EXPECT_LE(extent.end, 4 * kMiB);
  ASSERT_EQ(NextData(file, 2 * kMiB + 100, &extent), 0);
  EXPECT_EQ(extent.begin, 2 * kMiB + 100);
  for (const std::uint64_t offset : {4 * kMiB, 5 * kMiB}) {
    ASSERT_EQ(NextData(file, offset, &extent), 0);
    EXPECT_EQ(extent.begin, 4 * kMiB);
    EXPECT_EQ(extent.end, 4 * kMiB);
  }
}

TEST_P(BackendTest, SyncAndRemove) {
  const std::string file = NewFile("abc");
  EXPECT_EQ(Sync(file), 0);
  EXPECT_EQ(Remove(file), 0);
  EXPECT_EQ(Remove(file), ENOENT);
  EXPECT_EQ(Sync(file), ENOENT) << "the descriptor of a removed file was kept";
  EXPECT_EQ(Read(file, 3, 0, ENOENT), "");
  EXPECT_EQ(Write(file, "abc", 0), ENOENT);
}

TEST_P(BackendTest, ARemovedNameIsFree) {
  ASSERT_EQ(Remove(NewFile("old content")), 0);
  EXPECT_EQ(Read(NewFile("new"), 11, 0), "new");
}

TEST_P(BackendTest, RenameReplacesAndTheOldNamesAreGone) {
  const std::string file = NewFile("new");
  const std::string other = NewFile("what was here", "other");
  EXPECT_EQ(Rename(file, other), 0);
  EXPECT_EQ(Read(other, 13, 0), "new");
  EXPECT_EQ(Write(other, "NEW", 0), 0);
  EXPECT_EQ(Read(other, 13, 0), "NEW");
  EXPECT_EQ(Read(file, 3, 0, ENOENT), "");
  EXPECT_EQ(Write(file, "abc", 0), ENOENT);
  EXPECT_EQ(Rename(file, other), ENOENT);
}

TEST_P(BackendTest, RenameGivesANewName) {
  const std::string file = NewFile("abc");
  EXPECT_EQ(Rename(file, directory_ / "other"), 0);
  EXPECT_EQ(Read(directory_ / "other", 3, 0), "abc");
  EXPECT_EQ(Read(file, 3, 0, ENOENT), "");
}

TEST_P(BackendTest, AnOperationThatTheStoreDoesNotKnowIsNotSupported) {
  EXPECT_EQ(Do(vesk::NewNameJob(12345, NewFile("abc"))), ENOTSUP);
}

// Jobs of all kinds, and what is to come of them.
class Mixture {
 public:
  // Of every four: a write, a read and a stat of what is there, and a read of what is not.
  Mixture(const std::string& file, const std::string& absent, std::size_t jobs) {
    for (std::size_t i = 0; i < jobs; ++i) {
      const std::size_t place = i / 4 * 4;
      parts_.push_back(std::make_unique<Part>());
      Part& part = *parts_.back();
      part.bytes = std::string(4, '?');
      part.kind = i % 4;
      switch (part.kind) {
        case 0:
          part.bytes = Content(place);
          part.job = NewWrite(file, part.bytes.data(), 4, kWritten + place);
          break;
        case 1: part.job = NewRead(file, part.bytes.data(), 4, place, &part.count); break;
        case 2:
          part.info = std::make_shared<FileInfo>();
          part.job = vesk::NewNameJob(vesk::OPCODE_STAT, file, {}, 0, part.info);
          break;
        default: part.job = NewRead(absent, part.bytes.data(), 4, place, &part.count);
      }
      part.holder = std::make_unique<JobHolder>(part.job);
    }
  }

  static std::string Content(std::size_t place) { return Pattern(4, static_cast<unsigned>(place)); }

  // What the file holds before, for reads at any place up to `jobs`.
  static std::string ContentBefore(std::size_t jobs) {
    std::string content;
    while (content.size() < jobs) content += Content(content.size());
    return content;
  }

  void Submit(VeskBundler& bundler) {
    for (const auto& part : parts_) bundler.SubmitJob(part->job);
  }

  void Wait(VeskBundler& bundler) {
    for (const auto& part : parts_) bundler.WaitForJob(part->job, nullptr, "test");
  }

  void ExpectRight() {
    for (std::size_t i = 0; i < parts_.size(); ++i) {
      const Part& part = *parts_[i];
      ASSERT_EQ(part.job->GetJobState(), vesk::JOB_STATE_DONE) << i;
      EXPECT_EQ(part.job->GetReturnValue(), part.kind == 3 ? ENOENT : 0) << i;
      switch (part.kind) {
        case 1:
          EXPECT_EQ(part.bytes, Content(i / 4 * 4)) << i;
          EXPECT_EQ(part.count, 4u) << i;
          break;
        case 2: EXPECT_GE(part.info->size, parts_.size()) << i; break;
        case 3: EXPECT_EQ(part.bytes, "????") << i; break;
        default: break;  // what was written is read back by the test
      }
    }
  }

  static constexpr std::uint64_t kWritten = 1 << 20;  // where writes go

 private:
  struct Part {
    std::size_t kind;
    VeskJob* job;
    std::unique_ptr<JobHolder> holder;
    std::string bytes;
    unsigned int count = 0;
    std::shared_ptr<FileInfo> info;
  };
  std::vector<std::unique_ptr<Part>> parts_;
};

TEST_P(BackendTest, ABatchOfAllKindsEndsWholeAndRight) {
  constexpr std::size_t kJobs = 100;
  const std::string file = NewFile(Mixture::ContentBefore(kJobs));
  Mixture jobs(file, absent_, kJobs);
  {
    VeskLock lock;
    const std::lock_guard<VeskLock> guard(lock);
    jobs.Submit(*bundler_);
  }
  if (std::get<By>(GetParam()) == By::kRun) {
    jobs.Wait(*bundler_);  // runs what it can withdraw
  } else {
    const RequestScope limited({});
    jobs.Wait(*bundler_);
  }
  jobs.ExpectRight();
  for (std::size_t place = 0; place < kJobs; place += 4) {
    EXPECT_EQ(Read(file, 4, Mixture::kWritten + place), Mixture::Content(place));
  }
}

TEST_P(BackendTest, ManyThreadsAtOnce) {
  constexpr std::size_t kThreads = 6;
  constexpr std::size_t kRounds = 8;
  constexpr std::size_t kJobs = 24;
  std::vector<std::string> files;
  for (std::size_t i = 0; i < kThreads; ++i) {
    files.push_back(NewFile(Mixture::ContentBefore(kJobs), "file" + std::to_string(i)));
  }
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (std::size_t round = 0; round < kRounds; ++round) {
        // Every file has two threads that write the same, and read what is never changed.
        Mixture jobs(files[i / 2], absent_, kJobs);
        if (round % 2 == 0) {
          jobs.Submit(*bundler_);
        } else {
          VeskLock lock;
          const std::lock_guard<VeskLock> guard(lock);
          jobs.Submit(*bundler_);
        }
        jobs.Wait(*bundler_);
        jobs.ExpectRight();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_P(BackendTest, AThreadMayEndBeforeTheJobsThatItStarted) {
  constexpr std::size_t kJobs = 40;
  Mixture jobs(NewFile(Mixture::ContentBefore(kJobs)), absent_, kJobs);
  std::thread([&] {
    VeskLock lock;
    const std::lock_guard<VeskLock> guard(lock);
    jobs.Submit(*bundler_);
  }).join();
  jobs.Wait(*bundler_);
  jobs.ExpectRight();
}

TEST_P(BackendTest, CarriesOutWhatWasStartedBeforeItEnds) {
  constexpr std::size_t kJobs = 100;
  Mixture jobs(NewFile(Mixture::ContentBefore(kJobs)), absent_, kJobs);
  jobs.Submit(*bundler_);
  bundler_.reset();
  stack_.reset();
  jobs.ExpectRight();
}

TEST_P(BackendTest, AfterCancelAllJobsEndWithItsError) {
  const std::string file = NewFile("abc");
  backend().CancelAll(ESHUTDOWN);
  std::string bytes = "xyz";
  unsigned int count = 0;
  const JobHolder read(NewRead(file, bytes.data(), 3, 0, &count));
  const JobHolder write(NewWrite(file, bytes.data(), 3, 0));
  const JobHolder stat(
      vesk::NewNameJob(vesk::OPCODE_STAT, file, {}, 0, std::make_shared<FileInfo>()));
  for (const JobHolder* job : {&read, &write, &stat}) {
    bundler_->SubmitJob(job->get());
    bundler_->WaitForJob(job->get(), nullptr, "test");
    EXPECT_EQ((*job)->GetReturnValue(), ESHUTDOWN);
  }
  EXPECT_EQ(bytes, "xyz");
}

TEST_P(BackendTest, CancelAllLeavesNoJobBehind) {
  constexpr std::size_t kJobs = 200;
  const std::string file = NewFile(Pattern(kJobs));
  std::vector<std::unique_ptr<JobHolder>> jobs;
  for (std::size_t i = 0; i < kJobs; ++i) {
    jobs.push_back(std::make_unique<JobHolder>(NewWrite(file, "x", 1, i)));
  }
  {
    VeskLock lock;
    const std::lock_guard<VeskLock> guard(lock);
    for (const auto& job : jobs) bundler_->SubmitJob(job->get());
  }
  backend().CancelAll(ECANCELED);
  bundler_.reset();  // waits for every job
  for (const auto& job : jobs) {
    ASSERT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
    const int result = job->get()->GetReturnValue();
    EXPECT_TRUE(result == 0 || result == ECANCELED) << result;
  }
}

TEST_P(BackendTest, AJobThatIsNotInsideCannotBeWithdrawn) {
  const std::string file = NewFile("abc");
  const JobHolder never_started(NewWrite(file, "x", 1, 0));
  EXPECT_FALSE(backend().Withdraw(never_started.get()));
  const JobHolder ended(NewWrite(file, "x", 1, 0));
  bundler_->SubmitJob(ended.get());
  bundler_->WaitForJob(ended.get(), nullptr, "test");
  EXPECT_FALSE(backend().Withdraw(ended.get()));
}

// Counts ends, and starts a job from inside the end of another one.
class Chain : public vesk::EndHandler {
 public:
  explicit Chain(VeskBackend& backend) : backend_(backend) { backend.ReportEndsTo(*this); }
  ~Chain() = default;

  void JobEnded(VeskJob* job, int result) override {
    EXPECT_EQ(result, 0);
    job->RefCountInc();  // whoever sees the end may drop the test's
    job->Publish(result);
    VeskJob::RefCountDec(job);
    VeskJob* const next = next_.exchange(nullptr);
    if (next != nullptr) Start({next});
  }

  void StartNext(VeskJob* job) { next_ = job; }

  void Start(const std::vector<VeskJob*>& jobs) {
    vesk::JobQueue batch;
    for (VeskJob* job : jobs) batch.Push(job);
    backend_.Start(batch);
    EXPECT_TRUE(batch.Empty()) << "Start takes the whole batch";
  }

 private:
  VeskBackend& backend_;
  std::atomic<VeskJob*> next_{nullptr};
};

TEST_P(BackendTest, AnEndMayStartTheNextJobAndEndsMayComeInsideStart) {
  const std::string file = NewFile("abc");
  bundler_.reset();
  Chain chain(backend());
  std::string bytes(6, '?');
  unsigned int counts[2] = {};
  const JobHolder first(NewRead(file, bytes.data(), 3, 0, &counts[0]));
  const JobHolder second(NewRead(file, bytes.data() + 3, 3, 0, &counts[1]));
  chain.StartNext(second.get());
  if (std::get<By>(GetParam()) == By::kRun) {
    backend().Run(first.get());
  } else {
    chain.Start({first.get()});
  }
  first->WaitUntilDone();
  second->WaitUntilDone();
  EXPECT_EQ(bytes, "abcabc");
  stack_.reset();  // nobody calls `chain` from here on
}

std::string CaseName(const ::testing::TestParamInfo<BackendTest::ParamType>& info) {
  const bool run = std::get<By>(info.param) == By::kRun;
  return std::string(std::get<BackendCase>(info.param).name) + (run ? "_run" : "_started");
}

INSTANTIATE_TEST_SUITE_P(All, BackendTest,
                         ::testing::Combine(::testing::ValuesIn(kCases),
                                            ::testing::Values(By::kStart, By::kRun)),
                         CaseName);

}  // namespace
}  // namespace vesk_test

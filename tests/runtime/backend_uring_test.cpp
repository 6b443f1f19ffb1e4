// What is the ring's own: how many system calls a batch costs, a full ring, short counts, failures
// that are the ring's alone. The library's submission is replaced by one of the test's, which can
// change entries on their way to the kernel, or refuse them.

#include "runtime/backend_uring.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <liburing.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "runtime/name_operation.h"
#include "tests/support/allocation.h"
#include "tests/support/jobs.h"
#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

// What becomes of an entry on its way.
struct Entry {
  unsigned at_most = UINT_MAX;  // moves no more bytes than this, or
  bool replaced = false;        // moves nothing and ends in `result`
  int result = 0;
};

// What the kernel makes of a submission.
struct Submission {
  int error = 0;                // refuses it, or
  unsigned at_most = UINT_MAX;  // takes no more entries than this
};

struct Script {
  std::mutex mutex;
  std::deque<Entry> entries;           // in order; what follows passes unchanged
  std::deque<Submission> submissions;  // the same
  int calls = 0;
  unsigned most_taken = 0;        // entries in one call
  std::vector<unsigned> lengths;  // asked for by entries, as they were
};
Script script;

// A kernel's own way to end an entry with any result, in later versions of its interface.
constexpr unsigned kNopInjectResult = 1;

void Change(io_uring_sqe& entry, const Entry& change) {
  entry.len = std::min(entry.len, change.at_most);
  if (!change.replaced) return;
  const auto data = entry.user_data;
  io_uring_prep_nop(&entry);
  entry.user_data = data;
  if (change.result == 0) return;
  entry.rw_flags = kNopInjectResult;
  entry.len = static_cast<unsigned>(change.result);
}

}  // namespace
}  // namespace vesk_test

extern "C" int io_uring_submit(io_uring* ring) {
  using vesk_test::script;
  const vesk_test::SparedAllocations spared;
  const std::lock_guard<std::mutex> guard(script.mutex);
  ++script.calls;
  vesk_test::Submission submission;
  if (!script.submissions.empty()) {
    submission = script.submissions.front();
    script.submissions.pop_front();
  }
  io_uring_sq& queue = ring->sq;
  queue.sqe_head = queue.sqe_tail;
  io_uring_smp_store_release(queue.ktail, queue.sqe_tail);
  if (submission.error != 0) return -submission.error;

  const unsigned begin = *queue.khead;
  const unsigned count = std::min(queue.sqe_tail - begin, submission.at_most);
  for (unsigned i = begin; i != begin + count; ++i) {
    io_uring_sqe& entry = queue.sqes[i & queue.ring_mask];
    script.lengths.push_back(entry.len);
    if (script.entries.empty()) continue;
    vesk_test::Change(entry, script.entries.front());
    script.entries.pop_front();
  }
  script.most_taken = std::max(script.most_taken, count);
  const long taken = syscall(SYS_io_uring_enter, ring->ring_fd, count, 0U, 0U, nullptr, 0UL);
  return taken < 0 ? -errno : static_cast<int>(taken);
}

namespace vesk_test {
namespace {

using vesk::UringBackend;
using vesk::VeskJob;

void Put(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::binary) << content;
}

std::string Get(const std::string& name) {
  std::ostringstream content;
  content << std::ifstream(name, std::ios::binary).rdbuf();
  return content.str();
}

class Publisher : public vesk::EndHandler {
 public:
  ~Publisher() = default;
  void JobEnded(VeskJob* job, int result) override {
    job->RefCountInc();  // whoever sees the end may drop the test's
    job->Publish(result);
    VeskJob::RefCountDec(job);
  }
};

// A read or write with memory of its own.
struct Moving {
  static std::unique_ptr<Moving> Read(const std::string& name, std::size_t length,
                                      std::uint64_t offset) {
    auto moving = std::make_unique<Moving>();
    moving->bytes.assign(length, '?');
    moving->job = std::make_unique<JobHolder>(
        NewRead(name, moving->bytes.data(), static_cast<unsigned>(length), offset, &moving->count));
    return moving;
  }
  static std::unique_ptr<Moving> Write(const std::string& name, std::string content,
                                       std::uint64_t offset) {
    auto moving = std::make_unique<Moving>();
    moving->bytes = std::move(content);
    moving->job = std::make_unique<JobHolder>(
        NewWrite(name, moving->bytes.data(), static_cast<unsigned>(moving->bytes.size()), offset));
    return moving;
  }

  VeskJob* get() const { return job->get(); }
  int Result() const {
    get()->WaitUntilDone();
    return get()->GetReturnValue();
  }
  std::string Obtained() const { return bytes.substr(0, count); }

  std::string bytes;
  unsigned int count = 0;
  std::unique_ptr<JobHolder> job;
};
using Movings = std::vector<std::unique_ptr<Moving>>;

class UringTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const int error = UringBackend::Probe()) {
      GTEST_SKIP() << "the kernel offers no ring: " << std::strerror(error);
    }
    const std::lock_guard<std::mutex> guard(script.mutex);
    script.entries.clear();
    script.submissions.clear();
    script.lengths.clear();
    script.calls = 0;
    script.most_taken = 0;
  }

  void Use(const UringBackend::Options& options) {
    backend_ = std::make_unique<UringBackend>(options);
    backend_->ReportEndsTo(publisher_);
  }

  // Such a file; the backend has it open both ways.
  std::string NewFile(const std::string& content, const std::string& name = "file") {
    Put(directory_ / name, content);
    Open(directory_ / name, vesk::Access::kRead);
    Open(directory_ / name, vesk::Access::kWrite);
    return directory_ / name;
  }

  void Open(const std::string& name, vesk::Access access) {
    const JobHolder job(
        vesk::NewNameJob(vesk::OPCODE_OPEN, name, {}, static_cast<unsigned long>(access)));
    backend_->Run(job.get());
    EXPECT_EQ(job->GetReturnValue(), 0);
  }

  void Start(const std::vector<VeskJob*>& jobs) {
    vesk::JobQueue batch;
    for (VeskJob* job : jobs) batch.Push(job);
    backend_->Start(batch);
  }
  void StartAll(const Movings& movings) {
    vesk::JobQueue batch;
    for (const auto& moving : movings) batch.Push(moving->get());
    backend_->Start(batch);
  }

  std::string Read(const std::string& name, std::size_t length, std::uint64_t offset,
                   int expected_result = 0) {
    const auto moving = Moving::Read(name, length, offset);
    Start({moving->get()});
    EXPECT_EQ(moving->Result(), expected_result);
    return moving->Obtained();
  }
  int Write(const std::string& name, const std::string& content, std::uint64_t offset) {
    const auto moving = Moving::Write(name, content, offset);
    Start({moving->get()});
    return moving->Result();
  }

  static void SetEntries(std::deque<Entry> entries) {
    const std::lock_guard<std::mutex> guard(script.mutex);
    script.entries = std::move(entries);
  }
  static void SetSubmissions(std::deque<Submission> submissions) {
    const std::lock_guard<std::mutex> guard(script.mutex);
    script.submissions = std::move(submissions);
  }
  static int Calls() {
    const std::lock_guard<std::mutex> guard(script.mutex);
    return script.calls;
  }

  const TemporaryDirectory directory_;
  Publisher publisher_;
  std::unique_ptr<UringBackend> backend_;
};

TEST_F(UringTest, ARingThatTheKernelDoesNotOfferIsSaidClearly) {
  for (const unsigned entries : {0u, 1u << 30}) {
    try {
      Use({entries, {}});
      FAIL() << entries;
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code().value(), EINVAL);
      EXPECT_EQ(std::string(error.what()), "io_uring: no ring of " + std::to_string(entries) +
                                               " entries: " + std::strerror(EINVAL));
    }
  }
}

TEST_F(UringTest, ABatchCostsOneSystemCall) {
  Use({});
  const std::string file = NewFile("0123456789abcdef");
  Movings reads;
  for (std::size_t i = 0; i < 16; ++i) reads.push_back(Moving::Read(file, 1, i));
  StartAll(reads);
  std::string all;
  for (const auto& read : reads) {
    EXPECT_EQ(read->Result(), 0);
    all += read->Obtained();
  }
  EXPECT_EQ(all, "0123456789abcdef");
  EXPECT_EQ(backend_->Submissions(), 1u);
  EXPECT_EQ(Calls(), 1);
}

TEST_F(UringTest, AJobThatItsWaiterRunsCostsNoHandOff) {
  Use({});
  const std::string file = NewFile("abc");
  const auto read = Moving::Read(file, 3, 0);
  backend_->Run(read->get());
  EXPECT_EQ(read->get()->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(read->Obtained(), "abc");
  EXPECT_EQ(backend_->Submissions(), 0u);
}

TEST_F(UringTest, AFileIsOpenedByThreadsAndReadInTheRingFromThenOn) {
  Use({});
  Put(directory_ / "file", "abc");
  EXPECT_EQ(Read(directory_ / "file", 3, 0), "abc");
  EXPECT_EQ(backend_->Submissions(), 0u);
  EXPECT_EQ(Read(directory_ / "file", 3, 0), "abc");
  EXPECT_EQ(backend_->Submissions(), 1u);
}

TEST_F(UringTest, OperationsOnNamesAreNotForTheRing) {
  Use({});
  const std::string file = NewFile("abc");
  const auto info = std::make_shared<vesk::FileInfo>();
  const JobHolder stat(vesk::NewNameJob(vesk::OPCODE_STAT, file, {}, 0, info));
  Start({stat.get()});
  stat->WaitUntilDone();
  EXPECT_EQ(info->size, 3u);
  EXPECT_EQ(Calls(), 0);
}

TEST_F(UringTest, MoreJobsThanTheRingHoldsGoOnAsOthersEnd) {
  Use({4, {}});
  const std::string file = NewFile("");
  Movings writes;
  for (std::size_t i = 0; i < 100; ++i) {
    writes.push_back(Moving::Write(file, std::string(3, static_cast<char>('0' + i % 10)), 3 * i));
  }
  StartAll(writes);
  std::string expected;
  for (const auto& write : writes) {
    EXPECT_EQ(write->Result(), 0);
    expected += write->bytes;
  }
  EXPECT_EQ(Get(file), expected);
  EXPECT_LE(script.most_taken, 4u);
  EXPECT_GE(backend_->Submissions(), 25u);
}

TEST_F(UringTest, CarriesAReadOnOverShortCounts) {
  Use({});
  const std::string file = NewFile("0123456789");
  SetEntries({{3}, {1}, {5}});
  EXPECT_EQ(Read(file, 10, 0), "0123456789");
  EXPECT_EQ(script.lengths, (std::vector<unsigned>{10, 7, 6, 1}));
  SetEntries({{3}, {1}});
  EXPECT_EQ(Read(file, 20, 2), "23456789") << "and to the end of the file";
}

TEST_F(UringTest, CarriesAWriteOnOverShortCounts) {
  Use({});
  const std::string file = NewFile("..........");
  SetEntries({{3}, {1}});
  EXPECT_EQ(Write(file, "abcdefgh", 1), 0);
  EXPECT_EQ(Get(file), ".abcdefgh.");
  EXPECT_EQ(backend_->Submissions(), 3u);
}

TEST_F(UringTest, CarriesOnManyShortTransfersAtOnce) {
  Use({4, {}});
  const std::string file = NewFile(std::string(64, 'x'));
  SetEntries(std::deque<Entry>(64, Entry{1}));
  Movings reads;
  for (std::size_t i = 0; i < 16; ++i) reads.push_back(Moving::Read(file, 4, 4 * i));
  StartAll(reads);
  for (const auto& read : reads) {
    EXPECT_EQ(read->Result(), 0);
    EXPECT_EQ(read->Obtained(), "xxxx");
  }
}

TEST_F(UringTest, AWriteThatMovesNothingIsNotTakenForAWhole) {
  Use({});
  const std::string file = NewFile("......");
  SetEntries({{2}, {UINT_MAX, true, 0}});
  EXPECT_EQ(Write(file, "abcd", 0), 0);
  EXPECT_EQ(Get(file), "abcd..") << "the threads wrote it";
}

TEST_F(UringTest, AFailureIsWhatTheThreadsSay) {
  Use({});
  Open("/dev/full", vesk::Access::kWrite);
  EXPECT_EQ(Write("/dev/full", "abc", 0), ENOSPC);
  Open(directory_ / "", vesk::Access::kRead);
  EXPECT_EQ(Read(directory_ / "", 3, 0, EISDIR), "");
  EXPECT_EQ(Calls(), 2) << "both were tried in the ring";
}

class InjectedTest : public UringTest {
 protected:
  // Needs a kernel that lets an entry end in any result.
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(UringTest::SetUp());
    if (IsSkipped()) return;
    io_uring ring;
    ASSERT_EQ(io_uring_queue_init(1, &ring, 0), 0);
    io_uring_sqe* const entry = io_uring_get_sqe(&ring);
    Change(*entry, {UINT_MAX, true, -EINTR});
    ASSERT_EQ(io_uring_submit(&ring), 1);
    io_uring_cqe* completion = nullptr;
    ASSERT_EQ(io_uring_peek_cqe(&ring, &completion), 0);
    const bool works = completion->res == -EINTR;
    io_uring_queue_exit(&ring);
    script.calls = 0;
    script.lengths.clear();
    if (!works) GTEST_SKIP() << "this kernel ends no entry with a result of the test's";
  }
};

TEST_F(InjectedTest, FailuresOfTheRingAloneAreNoFailures) {
  Use({});
  const std::string file = NewFile("0123456789");
  for (const int error : {EINTR, EAGAIN, ECANCELED, EFAULT, EINVAL, EOPNOTSUPP}) {
    SetEntries({{UINT_MAX, true, -error}});
    EXPECT_EQ(Read(file, 4, 3), "3456") << std::strerror(error);
    SetEntries({{3}, {UINT_MAX, true, -error}});
    EXPECT_EQ(Read(file, 20, 0), "0123456789") << std::strerror(error);
    SetEntries({{2}, {UINT_MAX, true, -error}});
    EXPECT_EQ(Write(file, "0123456789", 0), 0) << std::strerror(error);
    EXPECT_EQ(Get(file), "0123456789");
  }
}

TEST_F(UringTest, WhatTheKernelRefusesIsDoneByThreads) {
  Use({8, {}});
  const std::string file = NewFile("0123456789");
  for (const int error : {EAGAIN, EBUSY, EPERM, ENOMEM}) {
    SetSubmissions({{error}, {error}, {0, 3}, {error}, {0, 3}, {error}, {error}});
    for (int round = 0; round < 4; ++round) {
      Movings reads;
      for (std::size_t i = 0; i < 10; ++i) reads.push_back(Moving::Read(file, 1, i));
      StartAll(reads);
      std::string all;
      for (const auto& read : reads) {
        EXPECT_EQ(read->Result(), 0);
        all += read->Obtained();
      }
      EXPECT_EQ(all, "0123456789") << std::strerror(error);
    }
  }
}

TEST_F(UringTest, ARefusedRestIsDoneByThreads) {
  Use({});
  const std::string file = NewFile("..........");
  SetEntries({{3}});
  SetSubmissions({{}, {EAGAIN}});
  EXPECT_EQ(Write(file, "abcdefgh", 1), 0);
  EXPECT_EQ(Get(file), ".abcdefgh.");
}

TEST_F(UringTest, AnInterruptedSubmissionIsRepeatedAndOneTakenInPartsGoesOn) {
  Use({});
  const std::string file = NewFile("0123456789");
  SetSubmissions({{EINTR}, {0, 1}, {EINTR}, {0, 4}});
  Movings reads;
  for (std::size_t i = 0; i < 10; ++i) reads.push_back(Moving::Read(file, 1, i));
  StartAll(reads);
  std::string all;
  for (const auto& read : reads) {
    EXPECT_EQ(read->Result(), 0);
    all += read->Obtained();
  }
  EXPECT_EQ(all, "0123456789");
  EXPECT_EQ(backend_->Submissions(), 5u);
}

TEST_F(UringTest, WithoutMemoryTransfersEndAllTheSame) {
  Use({});
  const std::string file = NewFile("0123456789");
  bool fired = true;
  for (long nth = 1; fired; ++nth) {
    const auto read = Moving::Read(file, 10, 0);
    vesk::JobQueue batch;
    batch.Push(read->get());
    {
      const FailingAllocation failing(nth);
      backend_->Start(batch);
      fired = failing.Fired();
    }
    EXPECT_EQ(read->Result(), 0) << nth;
    EXPECT_EQ(read->Obtained(), "0123456789");
  }
  EXPECT_EQ(backend_->Submissions(), 1u) << "the last one was in the ring";
}

TEST_F(UringTest, MovesAHundredMiBAcrossFourGiB) {
  constexpr std::size_t kLength = 100UL << 20;
  constexpr std::uint64_t kOffset = (4UL << 30) - (50UL << 20);
  Use({});
  const std::string file = NewFile("");
  ASSERT_EQ(Write(file, "begin", kOffset), 0);
  ASSERT_EQ(Write(file, "middle", 4UL << 30), 0);
  ASSERT_EQ(Write(file, "end", kOffset + kLength - 3), 0);
  const auto read = Moving::Read(file, kLength, kOffset);
  Start({read->get()});
  ASSERT_EQ(read->Result(), 0);
  EXPECT_EQ(read->count, kLength);
  EXPECT_EQ(read->bytes.substr(0, 5), "begin");
  EXPECT_EQ(read->bytes.substr(50UL << 20, 6), "middle");
  EXPECT_EQ(read->bytes.substr(kLength - 3), "end");
}

TEST_F(UringTest, NoEntryAsksForMoreThanTheKernelMovesAtOnceAndBadMemoryIsAnError) {
  Use({});
  const std::string file = NewFile("0123456789");
  void* const memory =
      mmap(nullptr, INT_MAX, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  unsigned int count = 0;
  const JobHolder read(NewRead(file, memory, INT_MAX, 0, &count));
  Start({read.get()});
  read->WaitUntilDone();
  EXPECT_EQ(read->GetReturnValue(), EFAULT);
  EXPECT_EQ(script.lengths, std::vector<unsigned>{1U << 30});
  munmap(memory, INT_MAX);
}

// A ring of one entry, taken by a read that ends when the test says.
class OccupiedRingTest : public UringTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(UringTest::SetUp());
    if (IsSkipped()) return;
    Use({1, {}});
    file_ = NewFile("......");
    const std::string pipe = directory_ / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    pipe_ = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(pipe_, 0);
    Open(pipe, vesk::Access::kRead);
    occupant_ = Moving::Read(pipe, 3, 0);
    Start({occupant_->get()});
    ASSERT_EQ(backend_->Submissions(), 1u);
  }
  void TearDown() override {
    backend_.reset();
    if (pipe_ >= 0) close(pipe_);
  }

  void EndOccupant() {
    ASSERT_EQ(write(pipe_, "end", 3), 3);
    EXPECT_EQ(occupant_->Result(), 0);
    EXPECT_EQ(occupant_->Obtained(), "end");
  }

  std::string file_;
  int pipe_ = -1;
  std::unique_ptr<Moving> occupant_;
};

TEST_F(OccupiedRingTest, JobsWaitForAPlaceInOrder) {
  const auto first = Moving::Write(file_, "aaaa", 0);
  const auto second = Moving::Write(file_, "bb", 1);
  Start({first->get()});
  Start({second->get()});
  EXPECT_EQ(backend_->Submissions(), 1u);
  EXPECT_EQ(first->get()->GetJobState(), vesk::JOB_STATE_NEW);
  EndOccupant();
  EXPECT_EQ(first->Result(), 0);
  EXPECT_EQ(second->Result(), 0);
  EXPECT_EQ(Get(file_), "abba..");
}

TEST_F(OccupiedRingTest, WhatWaitsCanBeWithdrawnWhatIsInTheRingCannot) {
  const auto first = Moving::Write(file_, "aaaa", 0);
  const auto second = Moving::Write(file_, "bb", 1);
  Start({first->get(), second->get()});
  EXPECT_FALSE(backend_->Withdraw(occupant_->get()));
  EXPECT_TRUE(backend_->Withdraw(first->get()));
  EXPECT_FALSE(backend_->Withdraw(first->get()));
  EndOccupant();
  EXPECT_EQ(second->Result(), 0);
  EXPECT_EQ(Get(file_), ".bb...");
}

TEST_F(OccupiedRingTest, CancelAllEndsWhatWaitsAndLeavesWhatIsInTheRing) {
  const auto waiting = Moving::Write(file_, "aaaa", 0);
  Start({waiting->get()});
  backend_->CancelAll(ESHUTDOWN);
  EXPECT_EQ(waiting->get()->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(waiting->Result(), ESHUTDOWN);
  const auto later = Moving::Write(file_, "aaaa", 0);
  Start({later->get()});
  EXPECT_EQ(later->get()->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(later->Result(), ESHUTDOWN);
  EndOccupant();
  EXPECT_EQ(Get(file_), "......");
}

TEST_F(OccupiedRingTest, AFileThatWasClosedMeanwhileIsOpenedAgain) {
  const auto write = Moving::Write(file_, "aaaa", 0);
  Start({write->get()});
  const JobHolder rename(vesk::NewNameJob(vesk::OPCODE_RENAME, file_, directory_ / "other"));
  backend_->Run(rename.get());
  ASSERT_EQ(rename->GetReturnValue(), 0);
  Put(file_, "new_file");
  EndOccupant();
  EXPECT_EQ(write->Result(), 0);
  EXPECT_EQ(Get(file_), "aaaafile") << "the name stands for the new file";
}

TEST_F(OccupiedRingTest, DestructionCarriesOutWhatIsInTheRingAndWhatWaits) {
  const auto write = Moving::Write(file_, "aaaa", 0);
  Start({write->get()});
  std::thread destruction([this] { backend_.reset(); });
  EndOccupant();
  destruction.join();
  EXPECT_EQ(write->get()->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(Get(file_), "aaaa..");
}

TEST_F(UringTest, TransfersOutliveTheThreadThatStartedThem) {
  constexpr std::size_t kPiece = 32768;
  constexpr std::size_t kPieces = 32;
  Use({16, {}});
  std::string content;
  for (std::size_t i = 0; i < kPieces; ++i) {
    content += std::string(kPiece, static_cast<char>('A' + i % 26));
  }
  const std::string file = NewFile(content);
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  for (int round = 0; round < 10; ++round) {
    ASSERT_EQ(fdatasync(fd), 0);
    ASSERT_EQ(posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED), 0);  // reads have to wait for the disk
    Movings jobs;
    for (std::size_t i = 0; i < kPieces; ++i) {
      const std::string piece = content.substr(i * kPiece, kPiece);
      jobs.push_back(i % 4 == 3 ? Moving::Write(file, piece, i * kPiece)
                                : Moving::Read(file, kPiece, i * kPiece));
    }
    std::thread([&] { StartAll(jobs); }).join();
    for (std::size_t i = 0; i < kPieces; ++i) {
      EXPECT_EQ(jobs[i]->Result(), 0) << i;
      EXPECT_TRUE(jobs[i]->bytes == content.substr(i * kPiece, kPiece)) << i;
    }
  }
  close(fd);
}

TEST_F(UringTest, DirectTransfersInSuitableMemoryUseTheRingOthersTheThreads) {
  constexpr std::size_t kUnit = 4096;
  Use({256, {64, true}});
  const std::string content = std::string(kUnit, 'a') + std::string(kUnit, 'b') + "tail";
  Put(directory_ / "file", content);
  const std::string file = directory_ / "file";
  const std::unique_ptr<unsigned char, decltype(&std::free)> memory(
      static_cast<unsigned char*>(std::aligned_alloc(kUnit, 4 * kUnit)), &std::free);
  const auto read = [&](std::size_t into, std::size_t length, std::uint64_t offset) {
    unsigned int count = 0;
    const JobHolder job(
        NewRead(file, memory.get() + into, static_cast<unsigned>(length), offset, &count));
    Start({job.get()});
    job->WaitUntilDone();
    EXPECT_EQ(job->GetReturnValue(), 0);
    return std::string(memory.get() + into, memory.get() + into + count);
  };
  EXPECT_EQ(read(0, kUnit, 0), content.substr(0, kUnit));  // opens the file
  EXPECT_EQ(backend_->Submissions(), 0u);

  EXPECT_EQ(read(16, kUnit, kUnit), content.substr(kUnit, kUnit));
  EXPECT_EQ(backend_->Submissions(), 0u) << "the memory does not suit";
  EXPECT_EQ(read(0, 3 * kUnit, 0), content) << "to the end of the file, which is within a unit";

  const auto before = backend_->Submissions();
  EXPECT_EQ(read(0, kUnit, kUnit), content.substr(kUnit, kUnit));
  const int fd = open(file.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  if (fd < 0) GTEST_SKIP() << "no O_DIRECT in " << directory_ / "";
  close(fd);
  EXPECT_EQ(backend_->Submissions(), before + 1);
}

}  // namespace
}  // namespace vesk_test

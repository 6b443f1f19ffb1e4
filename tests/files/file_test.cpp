// The file-access layer over real files, and over a store that fails.

#include "files/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "runtime/backend_threads.h"
#include "runtime/decorator_retry.h"
#include "runtime/dispatcher.h"
#include "runtime/request.h"
#include "runtime/settings.h"
#include "runtime/transfer.h"
#include "tests/support/manual_clock.h"
#include "tests/support/null_logger.h"
#include "tests/support/stub_backend.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskJob.h"

namespace vesk_test {
namespace {

using vesk::CacheShape;
using vesk::File;
using vesk::VeskJob;

// The operating system's files, with failures by kind and offset.
class FailingBackend : public vesk::ThreadsBackend {
 public:
  FailingBackend() : ThreadsBackend({}) {}

  void Run(VeskJob* job) override {
    const vesk::Transfer transfer(job->GetOP());
    int& budget = transfer.is_write ? failing_writes : failing_reads;
    if (budget > 0 && transfer.offset >= from) {
      --budget;
      End(job, error);
      return;
    }
    ThreadsBackend::Run(job);
  }
  void Start(vesk::JobQueue& jobs) override {  // by this thread: the test says when
    while (!jobs.Empty()) Run(jobs.Pop());
  }

  int error = EIO;
  int failing_reads = 0;   // the next so many reads ...
  int failing_writes = 0;  // ... and writes
  std::uint64_t from = 0;  // at or beyond this offset
};

class FileTest : public ::testing::Test {
 protected:
  FileTest() {
    settings_.refresh_interval = 60;
    vesk::gEnv = &env_;
  }
  ~FileTest() override { vesk::gEnv = nullptr; }

  static std::string Content(std::size_t length) {
    std::string content(length, '\0');
    for (std::size_t i = 0; i < length; ++i) content[i] = static_cast<char>(i * 7 + i / 253);
    return content;
  }

  void Put(const std::string& content) { std::ofstream(name_, std::ios::binary) << content; }

  std::string Get() const {
    std::ostringstream content;
    content << std::ifstream(name_, std::ios::binary).rdbuf();
    return content.str();
  }

  std::string Read(File& file, std::uint64_t offset, std::size_t length, int expected_error = 0) {
    std::string bytes(length, '?');
    std::size_t moved = 0;
    EXPECT_EQ(file.ReadAt(bytes.data(), length, offset, &moved), expected_error);
    return bytes.substr(0, moved);
  }

  const TemporaryDirectory directory_;
  const std::string name_ = directory_ / "file";
  NullLogger logger_;
  vesk::VeskSettings settings_;
  vesk::VeskEnv env_{nullptr, &logger_, &settings_};
};

class RealFileTest : public FileTest {
 protected:
  vesk::ThreadsBackend backend_{{}};
  vesk::VeskBundler bundler_{backend_};
  const vesk::Services services_{bundler_, vesk::Clock::System()};
};

TEST_F(RealFileTest, IsByteIdenticalAroundEveryBlockBoundary) {
  constexpr unsigned int kBlock = 64;
  for (const CacheShape shape : {CacheShape{kBlock, 1, 0}, CacheShape{kBlock, 2, 1},
                                 CacheShape{kBlock, 8, 4}, CacheShape{1, 4, 2}}) {
    for (const std::size_t size : {0u, 1u, 63u, 64u, 65u, 127u, 128u, 129u, 640u, 641u}) {
      const std::string content = Content(size);
      Put("");
      File out(services_, name_, 0, shape);
      for (std::size_t at = 0; at < size; at += 50) {
        EXPECT_EQ(out.WriteAt(content.data() + at, std::min<std::size_t>(50, size - at), at), 0);
      }
      EXPECT_EQ(out.Close(), 0);
      EXPECT_EQ(Get(), content);

      File in(services_, name_, size, shape);
      EXPECT_EQ(Read(in, 0, size + 100), content);
      EXPECT_EQ(in.Close(), 0);
      File pieces(services_, name_, size, shape);
      std::string read;
      while (read.size() < size) read += Read(pieces, read.size(), 33);
      EXPECT_EQ(read, content);
    }
  }
}

TEST_F(RealFileTest, ReadsAreClippedToTheSize) {
  Put("0123456789");
  File file(services_, name_, 10, CacheShape{});
  EXPECT_EQ(Read(file, 8, 100), "89");
  EXPECT_EQ(Read(file, 10, 1), "");
  EXPECT_EQ(Read(file, ~0UL, 1), "");
  EXPECT_EQ(Read(file, 3, 0), "");
}

TEST_F(RealFileTest, AFileThatBecameShorterEndsTheReadThere) {
  Put(Content(100));
  File file(services_, name_, 1000, CacheShape{64, 8, 0});
  EXPECT_EQ(Read(file, 0, 1000), Content(100));
}

TEST_F(RealFileTest, AGapThatWasNeverWrittenReadsAsZeros) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt("end", 3, 300), 0);
  EXPECT_EQ(file.Flush(), 0);
  EXPECT_EQ(Get(), std::string(300, '\0') + "end");
}

TEST_F(RealFileTest, BytesWrittenAreReadBackBeforeTheyReachTheStore) {
  Put(std::string(1000, '.'));
  File file(services_, name_, 1000, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt("new", 3, 0), 0);
  EXPECT_EQ(Read(file, 0, 3), "new");
  EXPECT_EQ(Get(), std::string(1000, '.'));
  EXPECT_EQ(file.Flush(), 0);
  EXPECT_EQ(Get(), "new" + std::string(997, '.'));
}

TEST_F(RealFileTest, SequentialReadsAreServedByReadAhead) {
  Put(Content(64 * 100));
  File file(services_, name_, 64 * 100, CacheShape{64, 16, 8});
  for (unsigned int i = 0; i < 100; ++i) EXPECT_EQ(Read(file, i * 64, 64).size(), 64u);
  EXPECT_EQ(bundler_.dispatcher().GetStats().waits["Read"].count, 1u)
      << "only the first block is a miss";
  EXPECT_EQ(file.GetStats().requests, 100u);
  EXPECT_GE(file.GetStats().waited, 1u);
}

TEST_F(RealFileTest, AFileCannotGrowBeyondTheLargestOffset) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(file.WriteAt("ab", 2, kMax - 1), EFBIG);
  EXPECT_EQ(file.WriteAt("ab", 2, kMax + 1), EFBIG);
  EXPECT_EQ(file.WriteAt("ab", 2, ~0UL), EFBIG);
  EXPECT_EQ(file.WriteAt("ab", 2, 0), 0);
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(Get(), "ab");
}

TEST_F(RealFileTest, AClosedFileTakesNoMoreRequests) {
  Put("abc");
  File file(services_, name_, 3, CacheShape{});
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(file.Flush(), EBADF);
  EXPECT_EQ(file.WriteAt("x", 1, 0), EBADF);
  Read(file, 0, 1, EBADF);
}

TEST_F(RealFileTest, ManyThreadsReadOneFile) {
  const std::string content = Content(64 * 200);
  Put(content);
  File file(services_, name_, content.size(), CacheShape{64, 8, 4});
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 6; ++t) {
    readers.emplace_back([&] {
      std::string bytes(50, '?');
      for (std::size_t at = 0; at + bytes.size() <= content.size(); at += bytes.size()) {
        std::size_t moved = 0;
        const int error = file.ReadAt(bytes.data(), bytes.size(), at, &moved);
        if (error != 0 || bytes != content.substr(at, bytes.size())) ++wrong;
      }
    });
  }
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(file.Close(), 0);
}

class FailingFileTest : public FileTest {
 protected:
  FailingBackend backend_;
  vesk::VeskBundler bundler_{backend_};
  const vesk::Services services_{bundler_, vesk::Clock::System()};
};

TEST_F(FailingFileTest, AFailedReadIsReportedAndTheNextOneTriesAgain) {
  Put(Content(200));
  File file(services_, name_, 200, CacheShape{64, 8, 0});
  backend_.failing_reads = 1;
  EXPECT_EQ(Read(file, 0, 200, EIO), "");
  EXPECT_EQ(Read(file, 0, 200), Content(200));
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(FailingFileTest, AFailedWriteIsReportedByTheFlushOnce) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(Content(64).data(), 64, 0), 0);
  backend_.error = ENOSPC;
  backend_.failing_writes = 1;
  EXPECT_EQ(file.Flush(), ENOSPC);
  EXPECT_EQ(file.Flush(), 0);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(FailingFileTest, AFailedWriteIsReportedByClose) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(Content(64).data(), 64, 0), 0);
  backend_.failing_writes = 1;
  EXPECT_EQ(file.Close(), EIO);
}

TEST_F(FailingFileTest, EveryFailedBlockIsPassedAndTheOthersAreStored) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  const std::string content = Content(192);
  for (unsigned int at = 0; at < 192; at += 64) {
    EXPECT_EQ(file.WriteAt(content.data() + at, 64, at), 0);
  }
  backend_.failing_writes = 1;  // the first two blocks were shipped on the way: the last fails
  backend_.from = 128;
  EXPECT_EQ(file.Close(), EIO);
  EXPECT_EQ(Get(), content.substr(0, 128));
}

TEST_F(FailingFileTest, AFailedWriteThatAReaderRanIntoIsReportedToTheWriterAsWell) {
  Put(Content(1000));
  File file(services_, name_, 1000, CacheShape{64, 1, 0});
  backend_.failing_writes = 1;
  EXPECT_EQ(file.WriteAt(Content(64).data(), 64, 0), 0);
  int reader_errors = 0;
  for (unsigned int at = 64; at < 1000; at += 64) {
    std::string bytes(64, '?');
    std::size_t moved = 0;
    if (file.ReadAt(bytes.data(), 64, at, &moved) != 0) ++reader_errors;
  }
  EXPECT_EQ(reader_errors, 1);
  EXPECT_EQ(file.Flush(), EIO);
  EXPECT_EQ(file.Flush(), 0);
}

TEST_F(FailingFileTest, ALaterWriteReportsAFailedWriteBack) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 1, 0});
  backend_.failing_writes = 1;
  int errors = 0;
  for (unsigned int at = 0; at < 640; at += 64) {
    if (file.WriteAt(Content(64).data(), 64, at) != 0) ++errors;
  }
  EXPECT_EQ(errors, 1);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(FailingFileTest, AFailedCheckOfTheCacheBreaksTheFileAndNotTheProcess) {
  Put(Content(64 * 200));
  CacheShape shape{64, 200, 150};  // more blocks ahead than a stream bears
  File file(services_, name_, 64 * 200, shape);
  EXPECT_FALSE(file.Broken());
  Read(file, 0, 64, EIO);
  EXPECT_TRUE(file.Broken());
  Read(file, 64, 64, EIO);
  EXPECT_EQ(file.Flush(), EIO);
  EXPECT_EQ(file.Close(), EIO);
}

// Jobs end when the test says; a clock that moves when it says.
class HeldStore : public StubBackend {
 public:
  void Start(vesk::JobQueue& jobs) override {
    const vesk::MutexLock guard(mutex_);
    held_.Take(jobs);
    changed_.WakeAll();
  }

  // Ends the job after `older` others, when so many have come, a read with zeros.
  void EndJob(int older, int result = 0) {
    vesk::JobQueue before;
    VeskJob* job = Next();
    for (; older > 0; --older) {
      before.Push(job);
      job = Next();
    }
    {
      const vesk::MutexLock guard(mutex_);
      before.Take(held_);
      held_.Take(before);
    }
    EndNow(job, result);
  }

  // Ends `count` jobs, when they have come, reads with zeros.
  void EndJobs(int count, int result = 0) {
    for (; count > 0; --count) EndNow(Next(), result);
  }

 private:
  void EndNow(VeskJob* job, int result) {
    const vesk::Transfer transfer(job->GetOP());
    if (!transfer.is_write) {
      std::memset(transfer.data, 0, transfer.length);
      transfer.StoreCount(transfer.length);
    }
    End(job, result);
  }

  VeskJob* Next() {
    const vesk::MutexLock guard(mutex_);
    while (held_.Empty()) changed_.Wait(mutex_);
    return held_.Pop();
  }

  vesk::Mutex mutex_;
  vesk::Condition changed_;
  vesk::JobQueue held_ VESK_GUARDED_BY(mutex_);
};

class HeldFileTest : public FileTest {
 protected:
  HeldFileTest() {
    env_.thread_pool = &pool_;
    bundler_.dispatcher().OnEnd([this](const std::string& name) { reaper_.JobEnded(name); });
  }

  vesk::RequestLimits In(std::chrono::seconds time) { return {clock_.Now() + time, nullptr}; }

  ManualClock clock_;
  HeldStore store_;
  vesk::VeskBundler bundler_{store_, clock_};
  vesk::VeskThreadPool pool_;
  vesk::Reaper reaper_{pool_, 1};
  const vesk::Services services_{bundler_, clock_, &reaper_};
};

TEST_F(HeldFileTest, AReadEndsAtItsDeadlineAndMayBeAskedAgain) {
  File file(services_, name_, 64, CacheShape{64, 8, 0});
  std::thread time([&] {
    clock_.AwaitWaiters(1);
    clock_.Advance(std::chrono::seconds(3));
  });
  {
    const vesk::RequestScope scope(In(std::chrono::seconds(3)));
    EXPECT_EQ(Read(file, 0, 64, ETIMEDOUT), "");
  }
  time.join();
  store_.EndJobs(1);
  EXPECT_EQ(Read(file, 0, 64), std::string(64, '\0'));
}

TEST_F(HeldFileTest, ACancelEndsAFlushAndTheBytesAreStillOnTheirWay) {
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt("bytes", 5, 0), 0);
  vesk::CancelToken token;
  std::thread other([&] {
    clock_.AwaitWaiters(1);
    token.Cancel();
  });
  {
    const vesk::RequestScope scope({vesk::Clock::kNever, &token});
    EXPECT_EQ(file.Flush(), ECANCELED);
    EXPECT_EQ(file.Close(), ECANCELED) << "and the file stays open";
  }
  other.join();
  store_.EndJobs(1);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(HeldFileTest, TheReaperCollectsAFailedWriteAndTheNextFlushTellsIt) {
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  EXPECT_EQ(file.WriteAt(std::string(64, 'b').data(), 64, 64), 0);  // ships the first block
  store_.EndJobs(1, ENOSPC);
  std::thread second([&] { store_.EndJobs(1); });
  EXPECT_EQ(file.Flush(), ENOSPC);
  second.join();
  EXPECT_EQ(file.Flush(), 0);
}

TEST_F(HeldFileTest, TheReaperCollectsEveryEndWithoutAnyRequest) {
  File file(services_, name_, 64 * 100, CacheShape{64, 50, 20});
  std::thread reader([&] { EXPECT_EQ(Read(file, 0, 64).size(), 64u); });
  store_.EndJobs(1);
  reader.join();
  store_.EndJobs(20, EIO);  // read ahead, nobody waits
  const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (file.GetStats().failed_read_ahead < 20 && std::chrono::steady_clock::now() < watchdog) {
    std::this_thread::yield();
  }
  EXPECT_EQ(file.GetStats().failed_read_ahead, 20u);
  EXPECT_EQ(file.Flush(), 0) << "nothing that was written has failed";
}

TEST_F(HeldFileTest, AFileWhoseStoreNeverAnswersIsLeftWithoutWaiting) {
  auto file = std::make_unique<File>(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file->WriteAt("bytes", 5, 0), 0);
  {
    const vesk::RequestScope scope(In(std::chrono::seconds(0)));
    EXPECT_EQ(file->Close(), ETIMEDOUT);
    file.reset();  // its block stays in memory, for the job may still use it
  }
  store_.EndJobs(1);
}

TEST_F(HeldFileTest, AFailureDuringACloseIsToldThoughAnotherBlockIsWaitedFor) {
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  EXPECT_EQ(file.WriteAt(std::string(64, 'b').data(), 64, 64), 0);
  std::thread store([&] {
    store_.EndJob(1, EIO);  // the second block, while the first one is waited for
    store_.EndJobs(1);
  });
  EXPECT_EQ(file.Close(), EIO);
  store.join();
}

TEST_F(HeldFileTest, AFailureDuringAFlushThatMeetsItsLimitsIsToldByTheNextOne) {
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  EXPECT_EQ(file.WriteAt(std::string(64, 'b').data(), 64, 64), 0);
  std::thread time([&] {
    store_.EndJob(1, ENOSPC);
    clock_.AwaitWaiters(1);
    clock_.Advance(std::chrono::seconds(1));
  });
  {
    const vesk::RequestScope scope(In(std::chrono::seconds(1)));
    EXPECT_EQ(file.Flush(), ETIMEDOUT);
  }
  time.join();
  store_.EndJobs(1);
  EXPECT_EQ(file.Flush(), ENOSPC);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(HeldFileTest, AFailureBeforeAFlushThatMeetsItsLimitsIsToldByTheNextOne) {
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  EXPECT_EQ(file.WriteAt(std::string(64, 'b').data(), 64, 64), 0);  // ships the first block
  store_.EndJobs(1, ENOSPC);
  {
    const vesk::RequestScope scope(In(std::chrono::seconds(0)));
    EXPECT_EQ(file.Flush(), ETIMEDOUT);
  }
  store_.EndJobs(1);
  EXPECT_EQ(file.Flush(), ENOSPC);
  EXPECT_EQ(file.Close(), 0);
}

// The store's own ETIMEDOUT is a failure like any other, whatever the request's limits.
TEST_F(HeldFileTest, AStoreThatTimesOutIsNotTakenForTheLimits) {
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  std::thread store([&] { store_.EndJobs(1, ETIMEDOUT); });
  const vesk::RequestScope scope(In(std::chrono::seconds(1)));
  EXPECT_EQ(file.Flush(), ETIMEDOUT);
  store.join();
  clock_.Advance(std::chrono::seconds(2));
  EXPECT_EQ(file.Flush(), 0) << "told once";
  EXPECT_EQ(file.Close(), 0) << "and closed, though the deadline has passed: nothing is waited for";
  EXPECT_EQ(file.Flush(), EBADF);
}

TEST_F(HeldFileTest, AFileMayBeClosedWhileAReaderWaits) {
  File file(services_, name_, 64 * 10, CacheShape{64, 8, 0});
  std::thread reader([&] {
    std::string bytes(64, '?');
    std::size_t moved = 0;
    const int error = file.ReadAt(bytes.data(), bytes.size(), 0, &moved);
    EXPECT_TRUE(error == 0 || error == EBADF) << error;
  });
  std::thread closer([&] {
    while (bundler_.dispatcher().GetStats().reads.ended == 0 &&
           bundler_.dispatcher().GetStats().depth == 0) {
      std::this_thread::yield();
    }
    EXPECT_EQ(file.Close(), 0);
  });
  store_.EndJobs(1);
  closer.join();
  reader.join();
}

TEST_F(HeldFileTest, WhatFailsAfterADiscardIsNotKept) {
  vesk::Settings settings;
  HeldStore store;
  vesk::RetryDecorator retry(store, settings, clock_, 1);
  vesk::VeskBundler bundler(retry, clock_);
  File file({bundler, clock_, nullptr, &retry}, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  EXPECT_EQ(file.WriteAt(std::string(64, 'b').data(), 64, 64), 0);  // ships the first block
  file.Discard();
  store.EndJobs(1, EIO);  // its first try
  EXPECT_EQ(retry.GetParked().jobs, 0u);
  EXPECT_EQ(file.Close(), EIO);
}

TEST_F(FailingFileTest, ABlockWhoseWriteFailedTakesTheNextWrite) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  backend_.failing_writes = 2;
  EXPECT_EQ(file.WriteAt(std::string(64, 'b').data(), 64, 64), 0);  // ships the first block
  EXPECT_EQ(file.Flush(), EIO);
  for (const std::uint64_t at : {64u, 0u}) {
    EXPECT_EQ(file.WriteAt(std::string(64, 'c').data(), 64, at), 0);
  }
  EXPECT_FALSE(file.Broken());
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(Get(), std::string(128, 'c'));
}

TEST_F(FailingFileTest, ABlockWhoseReadFailedTakesAWriteAndLosesNoOther) {
  Put(Content(64 * 100));
  File file(services_, name_, 64 * 100, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt("dirty", 5, 64 * 50), 0);
  backend_.failing_reads = 2;
  Read(file, 64 * 20, 64, EIO);
  Read(file, 0, 64, EIO);
  EXPECT_EQ(file.WriteAt("new", 3, 64 * 20), 0);
  EXPECT_EQ(file.WriteAt("new", 3, 0), 0);
  EXPECT_EQ(Read(file, 64 * 20, 64), "new" + Content(64 * 100).substr(64 * 20 + 3, 61));
  EXPECT_FALSE(file.Broken());
  EXPECT_EQ(file.Flush(), EIO) << "it may have been a write-back that the reader met";
  EXPECT_EQ(file.Close(), 0);
  std::string expected = Content(64 * 100);
  expected.replace(64 * 50, 5, "dirty").replace(64 * 20, 3, "new").replace(0, 3, "new");
  EXPECT_EQ(Get(), expected);
}

// Once the failed block was kept, as an empty one: it took the write, was dropped first, and the
// block that had been read in its place served the bytes from before the write.
TEST_F(FailingFileTest, NoOldBytesAreReadAfterAFailedReadAndAWrite) {
  for (const int refresh : {0, 60}) {
    settings_.refresh_interval = refresh;
    Put(Content(64 * 100));
    File file(services_, name_, 64 * 100, CacheShape{64, 8, 0});
    backend_.failing_reads = 1;
    Read(file, 0, 64, EIO);
    EXPECT_EQ(Read(file, 0, 64), Content(64));
    EXPECT_EQ(file.WriteAt(std::string(64, 'w').data(), 64, 0), 0);
    EXPECT_EQ(file.Flush(), 0);
    for (int i = 0; i < 6; ++i) {
      Read(file, 128, 64);
      EXPECT_EQ(Read(file, 0, 64), std::string(64, 'w')) << i;
    }
    EXPECT_EQ(file.Close(), 0);
  }
}

// With one block, a refused request could leave a stream that covers nothing, far up in the file.
TEST_F(FailingFileTest, ACancelledRequestLeavesAFileThatCanBeReadFromItsBeginning) {
  Put(Content(64 * 100));
  File file(services_, name_, 64 * 100, CacheShape{64, 1, 0});
  for (unsigned int at = 0; at <= 64 * 50; at += 64) Read(file, at, 64);
  {
    vesk::CancelToken cancelled;
    cancelled.Cancel();
    const vesk::RequestScope scope({vesk::Clock::kNever, &cancelled});
    for (const unsigned int block : {48u, 49u, 50u}) file.WriteAt("x", 1, block * 64 + 10);
  }
  EXPECT_EQ(Read(file, 0, 64), Content(64));
  EXPECT_FALSE(file.Broken());
  EXPECT_EQ(file.Close(), 0);
}

// A store that is out of order for a while, behind the retry decorator.
class OutageTest : public FileTest {
 protected:
  OutageTest() {
    env_.thread_pool = &pool_;
    env_.settings = &retry_settings_;
    retry_settings_.refresh_interval = 60;
    retry_settings_.retry_first_delay_ms = 1;
    retry_settings_.retry_longest_delay_ms = 5;
    bundler_.dispatcher().OnEnd([this](const std::string& name) { reaper_.JobEnded(name); });
    retry_.OnWriteFailure(
        [this](const vesk::WriteFailure& failure) { reaper_.WriteFails(failure); });
  }

  // Files on disk that can be switched off.
  class SwitchedStore : public vesk::ThreadsBackend {
   public:
    SwitchedStore() : ThreadsBackend({}) {}
    void Start(vesk::JobQueue& jobs) override {
      while (!jobs.Empty()) Run(jobs.Pop());
    }
    void Run(VeskJob* job) override {
      if (const int error = down) {
        End(job, error);
      } else {
        ThreadsBackend::Run(job);
      }
    }
    std::atomic<int> down{0};  // errno of every operation
  };

  vesk::Settings retry_settings_;
  SwitchedStore store_;
  vesk::RetryDecorator retry_{store_, retry_settings_, vesk::Clock::System(), 1};
  vesk::VeskBundler bundler_{retry_};
  vesk::VeskThreadPool pool_;
  vesk::Reaper reaper_{pool_, 1};
  const vesk::Services services_{bundler_, vesk::Clock::System(), &reaper_, &retry_};
};

TEST_F(OutageTest, AStoreThatIsDownForAWhileLosesNothing) {
  const std::string content = Content(64 * 100);
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  std::atomic<int> told{0};
  file.OnWriteFailure([&](const vesk::WriteFailure& failure) {
    EXPECT_EQ(failure.error, EIO);
    EXPECT_FALSE(failure.given_up);
    ++told;
  });
  std::thread outage([&] {
    while (told == 0) std::this_thread::yield();  // the failure is told at once, the write waits
    store_.down = 0;
  });
  for (std::size_t at = 0; at < content.size(); at += 64) {
    if (at == 64 * 50) store_.down = EIO;
    EXPECT_EQ(file.WriteAt(content.data() + at, 64, at), 0);
  }
  EXPECT_EQ(file.Close(), 0);
  outage.join();
  EXPECT_EQ(Get(), content);
  EXPECT_EQ(file.LastWriteFailure(), EIO);
  EXPECT_EQ(retry_.GetParked().jobs, 0u);
}

TEST_F(OutageTest, AFlushDuringAnOutageEndsInTimeAndTheBytesAreKept) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt("bytes", 5, 0), 0);
  store_.down = ENOSPC;
  {
    const vesk::RequestScope scope(
        {vesk::Clock::System().Now() + std::chrono::milliseconds(30), nullptr});
    EXPECT_EQ(file.Flush(), ETIMEDOUT);
  }
  EXPECT_EQ(Read(file, 0, 5), "bytes") << "readers still see what was written";
  store_.down = 0;
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(Get(), "bytes");
}

TEST_F(OutageTest, OnlyADiscardGivesTheBytesUp) {
  Put("");
  File file(services_, name_, 0, CacheShape{64, 8, 0});
  EXPECT_EQ(file.WriteAt(std::string(64, 'a').data(), 64, 0), 0);
  store_.down = EROFS;
  EXPECT_EQ(file.WriteAt(std::string(64, 'b').data(), 64, 64), 0);  // ships the first block
  while (file.LastWriteFailure() == 0) std::this_thread::yield();
  file.Discard();  // the parked write and the dirty block
  EXPECT_EQ(file.Close(), EROFS);
  EXPECT_EQ(Get(), "");
}

}  // namespace
}  // namespace vesk_test

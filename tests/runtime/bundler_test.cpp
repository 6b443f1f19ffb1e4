// The dispatcher: when jobs start, who runs them, what a wait gives up, and how an end is told.

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/jobs.h"
#include "tests/support/stub_backend.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"

namespace vesk_test {
namespace {

using vesk::VeskBundler;
using vesk::VeskJob;
using vesk::VeskLock;

// Records what it is asked; `on_start` and `on_run` say how jobs end.
class ScriptedBackend : public StubBackend {
 public:
  void Start(VeskJob* job) override {
    started.push_back(job);
    if (on_start) on_start(job);
  }
  void Run(VeskJob* job) override {
    run.push_back(job);
    on_run(job);
  }

  std::vector<VeskJob*> started;
  std::vector<VeskJob*> run;
  std::function<void(VeskJob*)> on_start;
  std::function<void(VeskJob*)> on_run = [](VeskJob* job) { job->Complete(0); };
};

class BundlerTest : public ::testing::Test {
 protected:
  std::unique_ptr<JobHolder> Read() {
    return std::make_unique<JobHolder>(NewRead("f", memory_, sizeof memory_, 0, &count_));
  }

  static void ClaimAndEnd(VeskJob* job, int return_value) {
    ASSERT_TRUE(job->Claim());
    job->Complete(return_value);
  }

  // True when another thread can take the lock, within a bounded time; false leaves that thread to
  // take it later.
  bool LockIsFree() {
    std::promise<void> taken;
    std::future<void> signal = taken.get_future();
    takers_.emplace_back([this, taken = std::move(taken)]() mutable {
      lock_.lock();
      taken.set_value();
      lock_.unlock();
    });
    return signal.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
  }

  ~BundlerTest() override {
    for (std::thread& taker : takers_) taker.join();
  }

  std::vector<std::thread> takers_;
  unsigned char memory_[64] = {};
  unsigned int count_ = 0;
  VeskLock lock_;
  ScriptedBackend backend_;
  VeskBundler bundler_{backend_};
};

TEST_F(BundlerTest, StartsAJobAtOnceForAThreadWithoutALock) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  ASSERT_EQ(backend_.started.size(), 1u);
  EXPECT_EQ(backend_.started[0], job->get());
  ClaimAndEnd(job->get(), 0);
}

TEST_F(BundlerTest, HoldsJobsBackUntilTheLockIsGivenUp) {
  const auto first = Read();
  const auto second = Read();
  {
    const std::lock_guard<VeskLock> guard(lock_);
    bundler_.SubmitJob(first->get());
    bundler_.SubmitJob(second->get());
    EXPECT_TRUE(backend_.started.empty());
    EXPECT_EQ(first->get()->GetJobState(), vesk::JOB_STATE_SUBMITTED);
  }
  EXPECT_EQ(backend_.started, (std::vector<VeskJob*>{first->get(), second->get()}));
  ClaimAndEnd(first->get(), 0);
  ClaimAndEnd(second->get(), 0);
}

TEST_F(BundlerTest, StartsJobsAfterTheLockIsFree) {
  bool free = false;
  backend_.on_start = [&](VeskJob* job) {
    free = LockIsFree();
    ClaimAndEnd(job, 0);
  };
  const auto job = Read();
  {
    const std::lock_guard<VeskLock> guard(lock_);
    bundler_.SubmitJob(job->get());
  }
  EXPECT_TRUE(free);
}

TEST_F(BundlerTest, GivingUpOneOfTwoLocksStartsTheJobs) {
  const auto job = Read();
  VeskLock outer;
  const std::lock_guard<VeskLock> outer_guard(outer);
  {
    const std::lock_guard<VeskLock> guard(lock_);
    bundler_.SubmitJob(job->get());
  }
  EXPECT_EQ(backend_.started.size(), 1u);
  ClaimAndEnd(job->get(), 0);

  const auto next = Read();  // the other lock is still held: plugged again
  bundler_.SubmitJob(next->get());
  EXPECT_EQ(backend_.started.size(), 1u);
  bundler_.WaitForJob(next->get(), nullptr, "Read");
}

TEST_F(BundlerTest, AThreadsPlugDoesNotHoldBackAnotherThreadsJobs) {
  const auto job = Read();
  const std::lock_guard<VeskLock> guard(lock_);
  std::thread([&] { bundler_.SubmitJob(job->get()); }).join();
  EXPECT_EQ(backend_.started.size(), 1u);
  ClaimAndEnd(job->get(), 0);
}

TEST_F(BundlerTest, TheWaiterRunsAJobThatHasNotStartedWithTheLockGivenUp) {
  const auto job = Read();
  bool free = false;
  std::thread::id runner;
  backend_.on_run = [&](VeskJob* ended) {
    free = LockIsFree();
    runner = std::this_thread::get_id();
    ended->Complete(0);
  };
  lock_.lock();
  bundler_.SubmitJob(job->get());
  bundler_.WaitForJob(job->get(), &lock_, "Read");
  EXPECT_TRUE(free);
  EXPECT_EQ(runner, std::this_thread::get_id());
  EXPECT_TRUE(backend_.started.empty()) << "nobody else was asked to run it";
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
  // The lock is held again: jobs are held back.
  const auto next = Read();
  bundler_.SubmitJob(next->get());
  EXPECT_TRUE(backend_.started.empty());
  lock_.unlock();
  EXPECT_EQ(backend_.started.size(), 1u);
  ClaimAndEnd(next->get(), 0);
}

TEST_F(BundlerTest, AWaitStartsTheRestOfThePlugBeforeItRunsItsOwnJob) {
  const auto awaited = Read();
  const auto ahead = Read();
  backend_.on_run = [&](VeskJob* job) {
    EXPECT_EQ(backend_.started, std::vector<VeskJob*>{ahead->get()});
    job->Complete(0);
  };
  lock_.lock();
  bundler_.SubmitJob(awaited->get());
  bundler_.SubmitJob(ahead->get());
  bundler_.WaitForJob(awaited->get(), &lock_, "Read");
  lock_.unlock();
  EXPECT_EQ(backend_.run, std::vector<VeskJob*>{awaited->get()});
  ClaimAndEnd(ahead->get(), 0);
}

TEST_F(BundlerTest, WaitsForAJobThatAnotherThreadRuns) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  ASSERT_TRUE(job->get()->Claim());
  std::thread runner([&] {
    // Gets the lock only because the waiter has given it up.
    const std::lock_guard<VeskLock> guard(lock_);
    job->get()->Complete(EIO);
  });
  lock_.lock();
  while (job->get()->GetJobState() != vesk::JOB_STATE_DONE) {
    bundler_.WaitForJob(job->get(), &lock_, "Read");
  }
  lock_.unlock();
  runner.join();
  EXPECT_EQ(job->get()->GetReturnValue(), EIO);
  EXPECT_TRUE(backend_.run.empty());
}

TEST_F(BundlerTest, TwoThreadsMayWaitForOneJob) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  ASSERT_TRUE(job->get()->Claim());
  std::thread other([&] { bundler_.WaitForJob(job->get(), nullptr, "Read-io-active"); });
  std::thread runner([&] { job->get()->Complete(0); });
  bundler_.WaitForJob(job->get(), nullptr, "Read-io-active");
  other.join();
  runner.join();
  EXPECT_EQ(bundler_.GetStats().waits["Read-io-active"].count, 2u);
}

TEST_F(BundlerTest, AWaitForAFinishedJobReturns) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  ClaimAndEnd(job->get(), 0);
  const std::lock_guard<VeskLock> guard(lock_);
  bundler_.WaitForJob(job->get(), &lock_, "Read");
}

TEST_F(BundlerTest, KeepsAJobAliveUntilItsEndIsPublished) {
  VeskJob* const job = NewRead("f", memory_, sizeof memory_, 0, &count_);
  bundler_.SubmitJob(job);
  EXPECT_EQ(job->GetRefCount(), 2);
  VeskJob::RefCountDec(job);  // the block's
  ClaimAndEnd(job, 0);        // the address sanitizer tells when it was freed too early, or never
}

// Between the unlock and the start of what was held back, another thread may wait for one of these
// jobs, run it, and let it go.
TEST_F(BundlerTest, PassesOverAJobThatAWaiterTookOutOfThePlug) {
  const auto first = Read();
  VeskJob* const second = NewRead("f", memory_, sizeof memory_, 0, &count_);
  backend_.on_start = [&](VeskJob* job) {
    std::thread([&] {
      bundler_.WaitForJob(second, nullptr, "Read-io-active");
      VeskJob::RefCountDec(second);  // reaped: the plug's reference is the last
    }).join();
    ClaimAndEnd(job, 0);
  };
  {
    const std::lock_guard<VeskLock> guard(lock_);
    bundler_.SubmitJob(first->get());
    bundler_.SubmitJob(second);
  }
  EXPECT_EQ(backend_.started, std::vector<VeskJob*>{first->get()});
  EXPECT_EQ(backend_.run, std::vector<VeskJob*>{second});
}

TEST_F(BundlerTest, TakesAReadOffItsStreamBeforeItsEndCanBeSeen) {
  vesk::VeskStream stream("f", &bundler_, 0, 0, 0);
  stream.pending_io = 1;
  const auto job = Read();
  job->get()->owner_stream = &stream;
  bundler_.SubmitJob(job->get());

  pthread_mutex_lock(&stream.stream_mutex);
  std::thread runner([&] { ClaimAndEnd(job->get(), 0); });
  while (job->get()->GetJobState() != vesk::JOB_STATE_RUNNING) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for a wrong order to show
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_RUNNING);
  EXPECT_EQ(stream.pending_io, 1u);
  pthread_mutex_unlock(&stream.stream_mutex);
  runner.join();
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(stream.pending_io, 0u);
}

TEST_F(BundlerTest, CountsJobsByKindAndWaitsByTag) {
  const auto good = Read();
  const auto at_end = Read();
  const auto bad = Read();
  const JobHolder write(NewWrite("f", memory_, 10, 0));
  for (VeskJob* job : {good->get(), at_end->get(), bad->get(), write.get()}) {
    bundler_.SubmitJob(job);
  }
  count_ = 7;
  ClaimAndEnd(good->get(), 0);
  ClaimAndEnd(at_end->get(), vesk::RC_EOF);
  ClaimAndEnd(bad->get(), EIO);
  backend_.on_run = [](VeskJob* job) { job->Complete(0); };
  bundler_.WaitForJob(write.get(), nullptr, "Flush");

  const vesk::DispatcherStats stats = bundler_.GetStats();
  EXPECT_EQ(stats.reads.jobs, 3u);
  EXPECT_EQ(stats.reads.bytes, 7u);
  EXPECT_EQ(stats.reads.failed, 1u);
  EXPECT_EQ(stats.writes.jobs, 1u);
  EXPECT_EQ(stats.writes.bytes, 10u);
  EXPECT_EQ(stats.writes.failed, 0u);
  ASSERT_EQ(stats.waits.size(), 1u);
  EXPECT_EQ(stats.waits.at("Flush").count, 1u);
  EXPECT_GE(stats.waits.at("Flush").time.count(), 0);
}

TEST_F(BundlerTest, ItsEndWaitsForJobsInFlight) {
  auto bundler = std::make_unique<VeskBundler>(backend_);
  const auto job = Read();
  bundler->SubmitJob(job->get());
  std::thread runner([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ClaimAndEnd(job->get(), 0);
  });
  bundler.reset();
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
  runner.join();
}

TEST_F(BundlerTest, ItsEndStartsWhatThisThreadStillHeldBack) {
  backend_.on_start = [](VeskJob* job) { ClaimAndEnd(job, 0); };
  auto bundler = std::make_unique<VeskBundler>(backend_);
  const auto job = Read();
  const std::lock_guard<VeskLock> guard(lock_);
  bundler->SubmitJob(job->get());
  bundler.reset();
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
}

}  // namespace
}  // namespace vesk_test

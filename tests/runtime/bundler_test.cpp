// The dispatcher: when jobs start, who runs them, what a wait gives up, and how an end is told.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/dispatcher.h"
#include "runtime/name_operation.h"
#include "runtime/request.h"
#include "tests/support/jobs.h"
#include "tests/support/manual_clock.h"
#include "tests/support/stub_backend.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"

namespace vesk_test {
namespace {

using vesk::CancelToken;
using vesk::JobQueue;
using vesk::RequestLimits;
using vesk::RequestScope;
using vesk::VeskBundler;
using vesk::VeskJob;
using vesk::VeskLock;

// Records what it is asked; `on_start` and `on_run` say how jobs end. What was started can be
// withdrawn until the test ends it.
class ScriptedBackend : public StubBackend {
 public:
  void Start(JobQueue& jobs) override {
    batches.push_back(0);
    while (!jobs.Empty()) {
      VeskJob* const job = jobs.Pop();
      ++batches.back();
      started.push_back(job);
      if (on_start) on_start(job);
    }
  }
  void Run(VeskJob* job) override {
    run.push_back(job);
    on_run(job);
  }
  bool Withdraw(VeskJob* job) override { return job == withdrawable; }
  void CancelAll(int error) override {
    if (on_cancel) on_cancel(error);
  }

  std::vector<int> batches;  // their sizes
  std::vector<VeskJob*> started;
  std::vector<VeskJob*> run;
  VeskJob* withdrawable = nullptr;
  std::function<void(VeskJob*)> on_start;
  std::function<void(VeskJob*)> on_run = [this](VeskJob* job) { End(job, 0); };
  std::function<void(int)> on_cancel;
};

// Does `work` on a thread whose stack nobody can touch once it has ended: what still points there
// is found out.
class ThreadOfALostStack {
 public:
  explicit ThreadOfALostStack(std::function<void()> work) : work_(std::move(work)) {
    stack_ = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(stack_, MAP_FAILED);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    EXPECT_EQ(pthread_attr_setstack(&attributes, stack_, kBytes), 0);
    EXPECT_EQ(pthread_create(&thread_, &attributes, Work, this), 0);
    pthread_attr_destroy(&attributes);
  }
  ~ThreadOfALostStack() { munmap(stack_, kBytes); }
  ThreadOfALostStack(const ThreadOfALostStack&) = delete;
  ThreadOfALostStack& operator=(const ThreadOfALostStack&) = delete;

  void Join() {
    EXPECT_EQ(pthread_join(thread_, nullptr), 0);
    EXPECT_EQ(mprotect(stack_, kBytes, PROT_NONE), 0);
  }

 private:
  static constexpr std::size_t kBytes = std::size_t{1} << 20;

  static void* Work(void* self) {
    static_cast<ThreadOfALostStack*>(self)->work_();
    return nullptr;
  }

  const std::function<void()> work_;
  void* stack_;
  pthread_t thread_ = {};
};

class BundlerTest : public ::testing::Test {
 protected:
  std::unique_ptr<JobHolder> Read() {
    return std::make_unique<JobHolder>(NewRead("f", memory_, sizeof memory_, 0, &count_));
  }

  void End(VeskJob* job, int return_value) { backend_.End(job, return_value); }

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
  End(job->get(), 0);
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
  End(first->get(), 0);
  End(second->get(), 0);
}

TEST_F(BundlerTest, StartsJobsAfterTheLockIsFree) {
  bool free = false;
  backend_.on_start = [&](VeskJob* job) {
    free = LockIsFree();
    End(job, 0);
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
  End(job->get(), 0);

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
  End(job->get(), 0);
}

TEST_F(BundlerTest, TheWaiterRunsAJobThatHasNotStartedWithTheLockGivenUp) {
  const auto job = Read();
  bool free = false;
  std::thread::id runner;
  backend_.on_run = [&](VeskJob* ended) {
    free = LockIsFree();
    runner = std::this_thread::get_id();
    End(ended, 0);
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
  End(next->get(), 0);
}

TEST_F(BundlerTest, AWaitStartsTheRestOfThePlugBeforeItRunsItsOwnJob) {
  const auto awaited = Read();
  const auto ahead = Read();
  backend_.on_run = [&](VeskJob* job) {
    EXPECT_EQ(backend_.started, std::vector<VeskJob*>{ahead->get()});
    End(job, 0);
  };
  lock_.lock();
  bundler_.SubmitJob(awaited->get());
  bundler_.SubmitJob(ahead->get());
  bundler_.WaitForJob(awaited->get(), &lock_, "Read");
  lock_.unlock();
  EXPECT_EQ(backend_.run, std::vector<VeskJob*>{awaited->get()});
  End(ahead->get(), 0);
}

TEST_F(BundlerTest, WaitsForAJobThatAnotherThreadRuns) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  std::thread runner([&] {
    // Gets the lock only because the waiter has given it up.
    const std::lock_guard<VeskLock> guard(lock_);
    End(job->get(), EIO);
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
  std::thread other([&] { bundler_.WaitForJob(job->get(), nullptr, "Read-io-active"); });
  std::thread runner([&] { End(job->get(), 0); });
  bundler_.WaitForJob(job->get(), nullptr, "Read-io-active");
  other.join();
  runner.join();
  EXPECT_EQ(bundler_.dispatcher().GetStats().waits["Read-io-active"].count, 2u);
}

TEST_F(BundlerTest, AWaitForAFinishedJobReturns) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  End(job->get(), 0);
  const std::lock_guard<VeskLock> guard(lock_);
  bundler_.WaitForJob(job->get(), &lock_, "Read");
}

TEST_F(BundlerTest, KeepsAJobAliveUntilItsEndIsPublished) {
  VeskJob* const job = NewRead("f", memory_, sizeof memory_, 0, &count_);
  bundler_.SubmitJob(job);
  EXPECT_EQ(job->GetRefCount(), 2);
  VeskJob::RefCountDec(job);  // the block's
  End(job, 0);                // the address sanitizer tells when it was freed too early, or never
}

// Between the unlock and the start of what was held back, another thread may wait for one of these
// jobs: it sleeps until the job has been started and has ended.
TEST_F(BundlerTest, AWaiterMeetsAJobInAnotherThreadsPlug) {
  const auto first = Read();
  const auto second = Read();
  std::thread waiter;
  backend_.on_start = [&](VeskJob* job) {
    if (job == first->get()) {
      waiter = std::thread([&] { bundler_.WaitForJob(second->get(), nullptr, "Read-io-active"); });
    }
    End(job, 0);
  };
  {
    const std::lock_guard<VeskLock> guard(lock_);
    bundler_.SubmitJob(first->get());
    bundler_.SubmitJob(second->get());
  }
  waiter.join();
  EXPECT_EQ(backend_.started, (std::vector<VeskJob*>{first->get(), second->get()}));
  EXPECT_TRUE(backend_.run.empty());
}

TEST_F(BundlerTest, WhatALockHeldBackStartsAsOneBatch) {
  std::vector<std::unique_ptr<JobHolder>> jobs;
  backend_.on_start = [this](VeskJob* job) { End(job, 0); };
  {
    const std::lock_guard<VeskLock> guard(lock_);
    for (int i = 0; i < 16; ++i) {
      jobs.push_back(Read());
      bundler_.SubmitJob(jobs.back()->get());
    }
  }
  EXPECT_EQ(backend_.batches, std::vector<int>{16});
  EXPECT_EQ(bundler_.dispatcher().GetStats().batches, 1u);
}

TEST_F(BundlerTest, JobsOfTwoDispatchersUnderOneLockGoToTheirOwn) {
  ScriptedBackend other_backend;
  VeskBundler other(other_backend);
  const auto mine = Read();
  const auto others = Read();
  {
    const std::lock_guard<VeskLock> guard(lock_);
    bundler_.SubmitJob(mine->get());
    other.SubmitJob(others->get());
  }
  EXPECT_EQ(backend_.started, std::vector<VeskJob*>{mine->get()});
  EXPECT_EQ(other_backend.started, std::vector<VeskJob*>{others->get()});
  End(mine->get(), 0);
  other_backend.End(others->get(), 0);
}

TEST_F(BundlerTest, TheWaiterRunsAJobThatTheBackendHasNotBegun) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  backend_.withdrawable = job->get();
  bundler_.WaitForJob(job->get(), nullptr, "Read-io-active");
  EXPECT_EQ(backend_.run, std::vector<VeskJob*>{job->get()});
}

class LimitedWaitTest : public BundlerTest {
 protected:
  // Waits under `limits` for a job that nobody has ended; the job must still be in flight then.
  void WaitInVain(const RequestLimits& limits) {
    in_vain_ = Read();
    VeskJob* const job = in_vain_->get();
    lock_.lock();
    manual_.SubmitJob(job);
    {
      const RequestScope scope(limits);
      manual_.WaitForJob(job, &lock_, "Read");
      exceeded_ = RequestScope::Exceeded(clock_);
    }
    EXPECT_NE(job->GetJobState(), vesk::JOB_STATE_DONE);
    EXPECT_TRUE(lock_backend_.run.empty()) << "run where nothing could call it back";
    EXPECT_EQ(lock_backend_.started, std::vector<VeskJob*>{job});
    lock_.unlock();
    const vesk::DispatcherStats::Waits waits = manual_.dispatcher().GetStats().waits.at("Read");
    EXPECT_EQ(waits.count, 1u);
    EXPECT_EQ(waits.given_up, 1u);
    lock_backend_.End(job, 0);
  }

  ManualClock clock_;
  ScriptedBackend lock_backend_;
  VeskBundler manual_{lock_backend_, clock_};
  int exceeded_ = 0;
  std::unique_ptr<JobHolder> in_vain_;  // alive until whoever ends the wait has let go of it
};

TEST_F(LimitedWaitTest, ADeadlineEndsAWait) {
  std::thread time([&] {
    clock_.AwaitWaiters(1);
    EXPECT_TRUE(LockIsFree());
    clock_.Advance(std::chrono::seconds(3));
  });
  WaitInVain({clock_.Now() + std::chrono::seconds(3), nullptr});
  EXPECT_EQ(exceeded_, ETIMEDOUT);
  time.join();
}

TEST_F(LimitedWaitTest, ADeadlineThatHasComeEndsAWaitAtOnce) {
  WaitInVain({clock_.Now(), nullptr});
  EXPECT_EQ(exceeded_, ETIMEDOUT);
}

TEST_F(LimitedWaitTest, ACancelEndsAWait) {
  CancelToken token;
  std::thread other([&] {
    clock_.AwaitWaiters(1);
    token.Cancel();
  });
  WaitInVain({vesk::Clock::kNever, &token});
  EXPECT_EQ(exceeded_, ECANCELED);
  other.join();
}

TEST_F(LimitedWaitTest, ACancelBeforeTheWaitEndsItAtOnce) {
  CancelToken token;
  token.Cancel();
  WaitInVain({vesk::Clock::kNever, &token});
  EXPECT_EQ(exceeded_, ECANCELED);
}

TEST_F(LimitedWaitTest, OneCancelEndsTheWaitsOfManyThreads) {
  CancelToken token;
  std::vector<std::unique_ptr<JobHolder>> jobs;
  std::vector<std::thread> threads;
  for (int i = 0; i < 5; ++i) {
    jobs.push_back(Read());
    manual_.SubmitJob(jobs.back()->get());
  }
  for (const auto& job : jobs) {
    threads.emplace_back([&] {
      const RequestScope scope({vesk::Clock::kNever, &token});
      manual_.WaitForJob(job->get(), nullptr, "Read");
    });
  }
  clock_.AwaitWaiters(5);
  lock_backend_.End(jobs[2]->get(), 0);  // one of them gets its job
  token.Cancel();
  for (std::thread& thread : threads) thread.join();
  for (const int i : {0, 1, 3, 4}) {
    lock_backend_.End(jobs[static_cast<std::size_t>(i)]->get(), 0);
  }
}

// Touching the first waiter ends the program: its stack and its job are gone.
TEST_F(LimitedWaitTest, ATokenForgetsAWaitThatHasEnded) {
  CancelToken token;
  auto first = Read();
  manual_.SubmitJob(first->get());
  ThreadOfALostStack waiter([&] {
    const RequestScope scope({vesk::Clock::kNever, &token});
    manual_.WaitForJob(first->get(), nullptr, "Read-ended");
  });
  clock_.AwaitWaiters(1);
  lock_backend_.End(first->get(), 0);
  waiter.Join();
  first.reset();

  const auto second = Read();
  manual_.SubmitJob(second->get());
  std::thread next([&] {
    const RequestScope scope({vesk::Clock::kNever, &token});
    manual_.WaitForJob(second->get(), nullptr, "Read-cancelled");
  });
  clock_.AwaitWaiters(1);
  token.Cancel();
  next.join();
  token.Cancel();  // nobody waits
  {
    const RequestScope scope({vesk::Clock::kNever, &token});
    manual_.WaitForJob(second->get(), nullptr, "Read-cancelled");
  }
  lock_backend_.End(second->get(), 0);
  const auto waits = manual_.dispatcher().GetStats().waits;
  EXPECT_EQ(waits.at("Read-ended").given_up, 0u);
  EXPECT_EQ(waits.at("Read-cancelled").given_up, 2u);
}

TEST_F(LimitedWaitTest, AJobThatEndsInTimeEndsTheWaitWell) {
  const auto job = Read();
  lock_backend_.on_start = [&](VeskJob* started) { lock_backend_.End(started, 0); };
  CancelToken token;
  const RequestScope scope({clock_.Now() + std::chrono::seconds(3), &token});
  manual_.SubmitJob(job->get());
  manual_.WaitForJob(job->get(), nullptr, "Read");
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(RequestScope::Exceeded(clock_), 0);
  EXPECT_EQ(manual_.dispatcher().GetStats().waits.at("Read").given_up, 0u);
}

TEST_F(LimitedWaitTest, TheNearerDeadlineOfTwoScopesCountsAndTheTokenGivenLast) {
  CancelToken outer_token;
  CancelToken inner_token;
  const vesk::Clock::Time near = clock_.Now() + std::chrono::seconds(1);
  const vesk::Clock::Time far = clock_.Now() + std::chrono::seconds(9);
  EXPECT_EQ(RequestScope::Current(), nullptr);
  const RequestScope outer({near, &outer_token});
  {
    const RequestScope inner({far, &inner_token});
    EXPECT_EQ(RequestScope::Current()->deadline, near);
    EXPECT_EQ(RequestScope::Current()->cancel, &inner_token);
  }
  {
    const RequestScope inner(RequestLimits{});
    EXPECT_EQ(RequestScope::Current()->cancel, &outer_token);
  }
  EXPECT_EQ(RequestScope::Current()->deadline, near);
}

TEST_F(BundlerTest, TakesAReadOffItsStreamBeforeItsEndCanBeSeen) {
  vesk::VeskStream stream("f", &bundler_, 0, 0, 0);
  stream.pending_io = 1;
  const auto job = Read();
  job->get()->owner_stream = &stream;
  bundler_.SubmitJob(job->get());

  pthread_mutex_lock(&stream.stream_mutex);
  std::atomic<bool> ending{false};
  std::thread runner([&] {
    ending = true;
    End(job->get(), 0);
  });
  while (!ending) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for a wrong order to show
  EXPECT_NE(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
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
  End(good->get(), 0);
  End(at_end->get(), vesk::RC_EOF);
  End(bad->get(), EIO);
  backend_.withdrawable = write.get();
  bundler_.WaitForJob(write.get(), nullptr, "Flush");

  const vesk::DispatcherStats stats = bundler_.dispatcher().GetStats();
  EXPECT_EQ(stats.reads.ended, 3u);
  EXPECT_EQ(stats.reads.bytes, 7u);
  EXPECT_EQ(stats.reads.size.max, 7u);
  EXPECT_EQ(stats.reads.failed, 1u);
  EXPECT_EQ(stats.writes.ended, 1u);
  EXPECT_EQ(stats.writes.bytes, 10u);
  EXPECT_EQ(stats.writes.failed, 0u);
  EXPECT_EQ(stats.depth, 0u);
  EXPECT_EQ(stats.max_depth, 4u);
  ASSERT_EQ(stats.waits.size(), 1u);
  EXPECT_EQ(stats.waits.at("Flush").count, 1u);
}

TEST_F(BundlerTest, CountsOperationsOnNamesApartFromTransfers) {
  const JobHolder good(vesk::NewNameJob(vesk::OPCODE_SYNC, "f"));
  const JobHolder bad(vesk::NewNameJob(vesk::OPCODE_REMOVE, "f"));
  bundler_.SubmitJob(good.get());
  bundler_.SubmitJob(bad.get());
  EXPECT_EQ(bundler_.dispatcher().GetStats().depth, 2u);
  End(good.get(), 0);
  End(bad.get(), ENOENT);

  const vesk::DispatcherStats stats = bundler_.dispatcher().GetStats();
  EXPECT_EQ(stats.names.ended, 2u);
  EXPECT_EQ(stats.names.failed, 1u);
  EXPECT_EQ(stats.names.bytes, 0u);
  for (const vesk::DispatcherStats::Jobs* transfers : {&stats.reads, &stats.writes}) {
    EXPECT_EQ(transfers->ended, 0u);
    EXPECT_EQ(transfers->failed, 0u);
    EXPECT_EQ(transfers->latency.max, 0u);
  }
}

// A hundred jobs of a kind, two of which are large and late.
class DistributionTest : public LimitedWaitTest {
 protected:
  static constexpr std::uint64_t kMillisecond = 1000000;

  // `make` is given the bytes that the job is to move, and count_ holds them when it ends.
  void EndTwoOfAHundredLate(const std::function<VeskJob*(unsigned int bytes)>& make) {
    std::vector<std::unique_ptr<JobHolder>> jobs;
    const auto submit = [&](unsigned int bytes) {
      jobs.push_back(std::make_unique<JobHolder>(make(bytes)));
      manual_.SubmitJob(jobs.back()->get());
    };
    for (std::size_t i = 0; i < kQuick; ++i) submit(100);
    submit(3000);
    submit(70000);
    ExpectDepth(100);

    clock_.Advance(std::chrono::milliseconds(1));
    count_ = 100;
    for (std::size_t i = 0; i < kQuick; ++i) lock_backend_.End(jobs[i]->get(), 0);
    ExpectDepth(2);
    clock_.Advance(std::chrono::milliseconds(49));
    count_ = 3000;
    lock_backend_.End(jobs[kQuick]->get(), 0);
    ExpectDepth(1);
    clock_.Advance(std::chrono::milliseconds(150));
    count_ = 70000;
    lock_backend_.End(jobs[kQuick + 1]->get(), 0);
    ExpectDepth(0);
  }

  void ExpectLatencyOfThem(const vesk::DispatcherStats::Jobs& kind) {
    EXPECT_EQ(kind.ended, 100u);
    Expect(kind.latency, 1 * kMillisecond, 50 * kMillisecond, 200 * kMillisecond);
  }
  void ExpectSizeOfThem(const vesk::DispatcherStats::Jobs& kind) {
    EXPECT_EQ(kind.bytes, 98u * 100 + 3000 + 70000);
    Expect(kind.size, 100, 3000, 70000);
  }

  vesk::DispatcherStats Stats() { return manual_.dispatcher().GetStats(); }

 private:
  static constexpr std::size_t kQuick = 98;

  void ExpectDepth(std::uint64_t depth) {
    EXPECT_EQ(Stats().depth, depth);
    EXPECT_EQ(Stats().max_depth, 100u);
  }

  // A percentile is exact to 12.5 %.
  static void Expect(const vesk::Distribution& told, std::uint64_t p50, std::uint64_t p99,
                     std::uint64_t max) {
    EXPECT_GE(told.p50, p50);
    EXPECT_LE(told.p50, p50 + p50 / 8);
    EXPECT_GE(told.p99, p99);
    EXPECT_LE(told.p99, p99 + p99 / 8);
    EXPECT_EQ(told.max, max);
  }
};

TEST_F(DistributionTest, TellsTheFewSlowReadsFromTheMany) {
  EndTwoOfAHundredLate(
      [this](unsigned int bytes) { return NewRead("f", nullptr, bytes, 0, &count_); });
  ExpectLatencyOfThem(Stats().reads);
  ExpectSizeOfThem(Stats().reads);
}

TEST_F(DistributionTest, TellsTheFewSlowWritesFromTheMany) {
  EndTwoOfAHundredLate([](unsigned int bytes) { return NewWrite("f", nullptr, bytes, 0); });
  ExpectLatencyOfThem(Stats().writes);
  ExpectSizeOfThem(Stats().writes);
}

TEST_F(DistributionTest, TellsTheFewSlowOperationsOnNamesFromTheMany) {
  EndTwoOfAHundredLate(
      [](unsigned int /*bytes*/) { return vesk::NewNameJob(vesk::OPCODE_SYNC, "f"); });
  ExpectLatencyOfThem(Stats().names);
}

TEST_F(LimitedWaitTest, LatencyIsFromSubmissionToEndAndWaitsAreTimed) {
  const auto job = Read();
  manual_.SubmitJob(job->get());
  std::thread time([&] {
    clock_.AwaitWaiters(1);
    clock_.Advance(std::chrono::milliseconds(7));
    lock_backend_.End(job->get(), 0);
  });
  const RequestScope scope({clock_.Now() + std::chrono::hours(1), nullptr});
  manual_.WaitForJob(job->get(), nullptr, "Read");
  time.join();
  const vesk::DispatcherStats stats = manual_.dispatcher().GetStats();
  EXPECT_EQ(stats.reads.latency.max, 7000000u);
  EXPECT_EQ(stats.reads.latency.p50, 7000000u);
  EXPECT_EQ(stats.waits.at("Read").nanoseconds, 7000000u);
}

TEST_F(BundlerTest, MoreTagsThanThereAreCountersShareTheLastOne) {
  const auto job = Read();
  bundler_.SubmitJob(job->get());
  End(job->get(), 0);
  for (int i = 0; i < 100; ++i) {
    bundler_.WaitForJob(job->get(), nullptr, ("tag " + std::to_string(i)).c_str());
  }
  std::uint64_t waits = 0;
  const vesk::DispatcherStats stats = bundler_.dispatcher().GetStats();
  for (const auto& [tag, counted] : stats.waits) waits += counted.count;
  EXPECT_EQ(waits, 100u);
  EXPECT_EQ(stats.waits.size(), 32u);
  EXPECT_EQ(stats.waits.at("(others)").count, 69u);
}

TEST_F(BundlerTest, TellsOfEachEndThatNoThreadIsSureToCollect) {
  std::vector<std::string> told;
  int state = 0;
  VeskJob* looked_at = nullptr;
  bundler_.dispatcher().OnEnd([&](const std::string& name) {
    told.push_back(name);
    state = looked_at->GetJobState();
  });
  const auto alone = Read();
  const auto waited_for = Read();
  looked_at = alone->get();
  bundler_.SubmitJob(alone->get());
  End(alone->get(), EIO);
  EXPECT_EQ(told, std::vector<std::string>{"f"});
  EXPECT_EQ(state, vesk::JOB_STATE_DONE) << "told before the end could be seen";

  const std::lock_guard<VeskLock> guard(lock_);
  bundler_.SubmitJob(waited_for->get());
  bundler_.WaitForJob(waited_for->get(), &lock_, "Read");
  EXPECT_EQ(told.size(), 1u) << "the waiter collects what it ran itself";
}

class ShutdownTest : public LimitedWaitTest {};

TEST_F(ShutdownTest, WaitsForWhatIsInFlight) {
  const auto job = Read();
  manual_.SubmitJob(job->get());
  std::thread other([&] {
    clock_.AwaitWaiters(1);
    lock_backend_.End(job->get(), 0);
  });
  EXPECT_TRUE(
      manual_.dispatcher().Shutdown(clock_.Now() + std::chrono::seconds(1), vesk::Clock::kNever));
  EXPECT_EQ(job->get()->GetReturnValue(), 0);
  other.join();
}

TEST_F(ShutdownTest, NoJobStartsAfterIt) {
  EXPECT_TRUE(manual_.dispatcher().Shutdown(clock_.Now(), clock_.Now()));
  const auto alone = Read();
  manual_.SubmitJob(alone->get());
  EXPECT_EQ(alone->get()->GetReturnValue(), ESHUTDOWN);

  const auto held_back = Read();
  lock_.lock();
  manual_.SubmitJob(held_back->get());
  EXPECT_NE(held_back->get()->GetJobState(), vesk::JOB_STATE_DONE) << "seen too early";
  manual_.WaitForJob(held_back->get(), &lock_, "Read");
  lock_.unlock();
  EXPECT_EQ(held_back->get()->GetReturnValue(), ESHUTDOWN);
  EXPECT_TRUE(lock_backend_.started.empty());
  EXPECT_TRUE(lock_backend_.run.empty());
}

TEST_F(ShutdownTest, NoJobStartsWhileItWaitsForOthers) {
  const auto in_flight = Read();
  manual_.SubmitJob(in_flight->get());
  std::future<bool> ended = std::async(std::launch::async, [&] {
    return manual_.dispatcher().Shutdown(vesk::Clock::kNever, vesk::Clock::kNever);
  });
  clock_.AwaitWaiters(1);

  lock_backend_.on_start = [&](VeskJob* job) { lock_backend_.End(job, 0); };
  const auto started = Read();
  manual_.SubmitJob(started->get());
  EXPECT_EQ(started->get()->GetReturnValue(), ESHUTDOWN);
  const auto run = Read();
  lock_.lock();
  manual_.SubmitJob(run->get());
  manual_.WaitForJob(run->get(), &lock_, "Read");
  lock_.unlock();
  EXPECT_EQ(run->get()->GetReturnValue(), ESHUTDOWN);
  EXPECT_EQ(lock_backend_.started, std::vector<VeskJob*>{in_flight->get()});
  EXPECT_TRUE(lock_backend_.run.empty());
  EXPECT_NE(ended.wait_for(std::chrono::seconds(0)), std::future_status::ready);

  lock_backend_.End(in_flight->get(), 0);
  EXPECT_TRUE(ended.get());
  EXPECT_EQ(in_flight->get()->GetReturnValue(), 0);
}

TEST_F(ShutdownTest, WhatCannotFinishEndsWithAClearCode) {
  const auto job = Read();
  manual_.SubmitJob(job->get());
  lock_backend_.on_cancel = [&](int error) { lock_backend_.End(job->get(), error); };
  EXPECT_TRUE(manual_.dispatcher().Shutdown(clock_.Now(), clock_.Now()));
  EXPECT_EQ(job->get()->GetReturnValue(), ESHUTDOWN);
}

TEST_F(ShutdownTest, WaitsForWhatEndsSomeTimeAfterItWasCalledOff) {
  const auto job = Read();
  manual_.SubmitJob(job->get());
  std::thread other([&] {
    clock_.AwaitWaiters(1);
    lock_backend_.End(job->get(), ESHUTDOWN);
  });
  EXPECT_TRUE(manual_.dispatcher().Shutdown(clock_.Now(), clock_.Now() + std::chrono::seconds(1)));
  other.join();
}

TEST_F(ShutdownTest, SaysWhenJobsAreStuckInsideTheStore) {
  const auto job = Read();
  manual_.SubmitJob(job->get());
  EXPECT_FALSE(manual_.dispatcher().Shutdown(clock_.Now(), clock_.Now()));
  lock_backend_.End(job->get(), 0);
  EXPECT_TRUE(manual_.dispatcher().Shutdown(clock_.Now(), clock_.Now()));
}

TEST_F(BundlerTest, ItsEndWaitsForJobsInFlight) {
  auto bundler = std::make_unique<VeskBundler>(backend_);
  const auto job = Read();
  bundler->SubmitJob(job->get());
  std::thread runner([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    End(job->get(), 0);
  });
  bundler.reset();
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
  runner.join();
}

TEST_F(BundlerTest, ItsEndStartsWhatThisThreadStillHeldBack) {
  backend_.on_start = [this](VeskJob* job) { End(job, 0); };
  auto bundler = std::make_unique<VeskBundler>(backend_);
  const auto job = Read();
  const std::lock_guard<VeskLock> guard(lock_);
  bundler->SubmitJob(job->get());
  bundler.reset();
  EXPECT_EQ(job->get()->GetJobState(), vesk::JOB_STATE_DONE);
}

}  // namespace
}  // namespace vesk_test

// What fails is kept and tried again: when, how often, who is told, and what ends it.

#include "runtime/decorator_retry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/dispatcher.h"
#include "runtime/name_operation.h"
#include "runtime/request.h"
#include "runtime/settings.h"
#include "runtime/store.h"
#include "runtime/transfer.h"
#include "tests/support/allocation.h"
#include "tests/support/jobs.h"
#include "tests/support/manual_clock.h"
#include "tests/support/stub_backend.h"
#include "vesk/VeskBundler.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::Clock;
using vesk::JobQueue;
using vesk::MutexLock;
using vesk::RetryDecorator;
using vesk::VeskJob;

constexpr seconds kWatchdog(20);

// Time for one decorator, which shows what the decorator's thread waits for.
class WatchedClock : public Clock {
 public:
  explicit WatchedClock(ManualClock& time) : time_(time) {}

  Time Now() override { return time_.Now(); }
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex, Time until) override
      VESK_REQUIRES(mutex) {
    Show(until);
    time_.WaitUntil(condition, mutex, until);
    Show(std::nullopt);
  }

  // Returns when the thread has handed over all that was due.
  void AwaitIdle() { Await(true); }

  // The same, with something left to wait for: the time when that is due.
  Time AwaitDue() { return Await(false); }

 private:
  void Show(std::optional<Time> until) {
    {
      const MutexLock guard(mutex_);
      until_ = until;
    }
    changed_.WakeAll();
  }

  Time Await(bool or_never) {
    const auto watchdog = std::chrono::steady_clock::now() + kWatchdog;
    const MutexLock guard(mutex_);
    while (!until_ || *until_ <= Now() || (!or_never && *until_ == kNever)) {
      if (std::chrono::steady_clock::now() >= watchdog) {
        ADD_FAILURE() << "the thread does not wait as it should";
        return Now();
      }
      changed_.WaitUntil(mutex_, watchdog);
    }
    return *until_;
  }

  ManualClock& time_;
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  std::optional<Time> until_ VESK_GUARDED_BY(mutex_);
};

// Holds jobs until the test ends them, or ends them at once as `answer` says.
class ScriptedStore : public StubBackend {
 public:
  void Start(JobQueue& jobs) override {
    std::vector<VeskJob*> batch;
    while (!jobs.Empty()) batch.push_back(jobs.Pop());
    int cancelled = 0;
    {
      const MutexLock guard(mutex_);
      cancelled = cancelled_;
      batches_.push_back(batch.size());
      for (VeskJob* const job : batch) {
        ++tries_[job];
        if (cancelled == 0 && !answer) held_.Push(job);
      }
    }
    changed_.WakeAll();
    if (cancelled == 0 && !answer) return;
    for (VeskJob* const job : batch)
      StubBackend::End(job, cancelled != 0 ? cancelled : answer(job));
  }

  void Run(VeskJob* job) override {
    {
      const MutexLock guard(mutex_);
      ++runs_;
    }
    StubBackend::End(job, on_run(job));
  }

  bool Withdraw(VeskJob* job) override {
    const MutexLock guard(mutex_);
    if (!held_.Holds(job)) return false;
    held_.Remove(job);
    return true;
  }

  // Held jobs are being carried out: they stay.
  void CancelAll(int error) override {
    const MutexLock guard(mutex_);
    cancelled_ = error;
  }

  // Ends try number `attempt` of `job`, once it has begun.
  void EndTry(VeskJob* job, int attempt, int result) {
    AwaitTry(job, attempt);
    {
      const MutexLock guard(mutex_);
      if (!held_.Holds(job)) {
        ADD_FAILURE() << "try " << attempt << " is not in the store";
        return;
      }
      held_.Remove(job);
    }
    StubBackend::End(job, result);
  }

  void AwaitTry(VeskJob* job, int attempt) {
    const auto watchdog = std::chrono::steady_clock::now() + kWatchdog;
    const MutexLock guard(mutex_);
    while (tries_[job] < attempt && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    EXPECT_EQ(tries_[job], attempt);
  }

  void EndAll() {
    JobQueue held;
    {
      const MutexLock guard(mutex_);
      held.Take(held_);
    }
    while (!held.Empty()) StubBackend::End(held.Pop(), ECANCELED);
  }

  int Tries(VeskJob* job) {
    const MutexLock guard(mutex_);
    return tries_[job];
  }
  int runs() {
    const MutexLock guard(mutex_);
    return runs_;
  }
  std::vector<std::size_t> batches() {
    const MutexLock guard(mutex_);
    return batches_;
  }

  std::function<int(VeskJob*)> answer;  // set while no job is in here
  std::function<int(VeskJob*)> on_run;

 private:
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  JobQueue held_ VESK_GUARDED_BY(mutex_);
  std::map<VeskJob*, int> tries_ VESK_GUARDED_BY(mutex_);
  std::vector<std::size_t> batches_ VESK_GUARDED_BY(mutex_);  // their sizes
  int runs_ VESK_GUARDED_BY(mutex_) = 0;
  int cancelled_ VESK_GUARDED_BY(mutex_) = 0;
};

std::string Text(const vesk::WriteFailure& failure) {
  return failure.name + " " + std::to_string(failure.offset) + "+" +
         std::to_string(failure.length) + " error " + std::to_string(failure.error) +
         (failure.transient ? " may pass" : "") + ", try " + std::to_string(failure.attempts) +
         (failure.given_up ? ", given up" : "");
}

class RetryTest : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kSeed = 7;
  static constexpr unsigned int kLength = 16;

  RetryTest() {
    retry_.OnWriteFailure([this](const vesk::WriteFailure& failure) {
      const MutexLock guard(mutex_);
      told_.push_back(Text(failure));
      if (on_told_) on_told_();
    });
    retry_.OnWriteRecovered([this](const std::string& name) {
      const MutexLock guard(mutex_);
      told_.push_back(name + " recovered");
    });
  }

  // Ends what a test left, on purpose or because it failed.
  void TearDown() override {
    retry_.OnWriteFailure(nullptr);
    retry_.CancelAll(ESHUTDOWN);
    store_.EndAll();
  }

  // Jobs live as long as the test.
  VeskJob* Submit(VeskJob* job) {
    jobs_.push_back(std::make_unique<JobHolder>(job));
    bundler_.SubmitJob(job);
    return job;
  }
  VeskJob* Write(const std::string& name, unsigned long offset = 0) {
    return Submit(NewWrite(name, memory_, kLength, offset));
  }
  VeskJob* Read(const std::string& name) {
    return Submit(NewRead(name, memory_, kLength, 0, &count_));
  }
  VeskJob* FailedWrite(const std::string& name, int error = EIO, unsigned long offset = 0) {
    VeskJob* const job = Write(name, offset);
    store_.EndTry(job, 1, error);
    return job;
  }

  // The time until the next try; passes it.
  Clock::Duration PassPause() { return PassPause(clock_); }
  Clock::Duration PassPause(WatchedClock& clock) {
    const Clock::Duration pause = clock.AwaitDue() - time_.Now();
    time_.Advance(pause);
    return pause;
  }

  static bool Ended(const VeskJob* job) { return job->GetJobState() == vesk::JOB_STATE_DONE; }
  static void ExpectEnd(const VeskJob* job, int result) {
    ASSERT_TRUE(Ended(job));
    EXPECT_EQ(job->GetReturnValue(), result);
  }

  std::vector<std::string> Told() {
    const MutexLock guard(mutex_);
    return std::exchange(told_, {});
  }

  void Set(int first_delay_ms, int longest_delay_ms) {
    settings_.retry_first_delay_ms = first_delay_ms;
    settings_.retry_longest_delay_ms = longest_delay_ms;
  }

  // The first `count` pauses of a write that goes on failing.
  std::vector<Clock::Duration> Pauses(std::uint64_t seed, int count) {
    WatchedClock clock(time_);
    ScriptedStore store;
    RetryDecorator retry(store, settings_, clock, seed);
    vesk::VeskBundler bundler(retry, time_);
    const JobHolder job(NewWrite("f", memory_, kLength, 0));
    bundler.SubmitJob(job.get());
    std::vector<Clock::Duration> pauses;
    for (int i = 1; i <= count; ++i) {
      store.EndTry(job.get(), i, EIO);
      pauses.push_back(PassPause(clock));
    }
    store.EndTry(job.get(), count + 1, 0);
    return pauses;
  }

  unsigned char memory_[kLength] = {};
  unsigned int count_ = 0;
  vesk::Mutex mutex_;
  std::vector<std::string> told_ VESK_GUARDED_BY(mutex_);
  std::function<void()> on_told_;

  ManualClock time_;
  WatchedClock clock_{time_};
  vesk::Settings settings_;
  ScriptedStore store_;
  RetryDecorator retry_{store_, settings_, clock_, kSeed};
  vesk::VeskBundler bundler_{retry_, time_};
  std::vector<std::unique_ptr<JobHolder>> jobs_;
};

using Lines = std::vector<std::string>;

// ---- writes ----

TEST_F(RetryTest, WhatSucceedsIsLeftAlone) {
  VeskJob* const write = Write("f");
  VeskJob* const read = Read("f");
  VeskJob* const at_end = Read("f");
  store_.EndTry(write, 1, 0);
  store_.EndTry(read, 1, 0);
  store_.EndTry(at_end, 1, vesk::RC_EOF);
  ExpectEnd(write, 0);
  ExpectEnd(read, 0);
  ExpectEnd(at_end, vesk::RC_EOF);
  EXPECT_EQ(Told(), Lines{});
  EXPECT_EQ(retry_.GetTotals().writes.recovered, 0u);
  EXPECT_EQ(retry_.GetTotals().others.recovered, 0u);
}

TEST_F(RetryTest, AFailedWriteIsTriedAgainUntilItSucceeds) {
  VeskJob* const job = Write("f", 32);
  for (int i = 1; i <= 50; ++i) {
    store_.EndTry(job, i, EIO);
    EXPECT_FALSE(Ended(job));
    PassPause();
  }
  store_.EndTry(job, 51, 0);
  ExpectEnd(job, 0);
  EXPECT_EQ(retry_.GetTotals().writes.retried, 50u);
  EXPECT_EQ(retry_.GetTotals().writes.recovered, 1u);
  EXPECT_EQ(retry_.GetTotals().writes.given_up, 0u);
  EXPECT_EQ(retry_.GetParked().jobs, 0u);
}

TEST_F(RetryTest, AWriteIsKeptWhateverItsError) {
  int tries = 0;
  VeskJob* const job = Write("f");
  for (const int error : {EIO, ENOSPC, EDQUOT, EROFS, EACCES, EPERM, ENOENT, EISDIR, EFBIG, EINVAL,
                          ENOTSUP, ESHUTDOWN, ECANCELED, 12345}) {
    store_.EndTry(job, ++tries, error);
    ASSERT_FALSE(Ended(job)) << error;
    PassPause();
  }
  store_.EndTry(job, ++tries, 0);
  ExpectEnd(job, 0);
}

TEST_F(RetryTest, JobsThatAreDueTogetherGoAsOneBatch) {
  for (int i = 0; i < 5; ++i) FailedWrite("f");
  time_.Advance(milliseconds(100));
  for (const auto& job : jobs_) store_.AwaitTry(job->get(), 2);
  EXPECT_EQ(store_.batches(), (std::vector<std::size_t>{1, 1, 1, 1, 1, 5}));
  for (const auto& job : jobs_) store_.EndTry(job->get(), 2, 0);
}

// ---- back-off ----

TEST_F(RetryTest, ThePauseDoublesUpToTheLongestAndChanceTakesUpToHalfOfIt) {
  Set(100, 3000);
  const std::vector<Clock::Duration> pauses = Pauses(kSeed, 10);
  const int whole[] = {100, 200, 400, 800, 1600, 3000, 3000, 3000, 3000, 3000};
  for (std::size_t i = 0; i < pauses.size(); ++i) {
    EXPECT_GE(pauses[i], milliseconds(whole[i]) / 2) << i;
    EXPECT_LE(pauses[i], milliseconds(whole[i])) << i;
  }
}

TEST_F(RetryTest, ChanceUsesAllOfItsHalf) {
  Set(1000, 1000);
  const std::vector<Clock::Duration> pauses = Pauses(kSeed, 200);
  EXPECT_LT(*std::min_element(pauses.begin(), pauses.end()), milliseconds(510));
  EXPECT_GT(*std::max_element(pauses.begin(), pauses.end()), milliseconds(990));
}

TEST_F(RetryTest, TheSameSeedGivesTheSamePausesAnotherOneOthers) {
  const std::vector<Clock::Duration> pauses = Pauses(1, 10);
  EXPECT_EQ(Pauses(1, 10), pauses);
  EXPECT_NE(Pauses(2, 10), pauses);
}

TEST_F(RetryTest, AFirstPauseBeyondTheLongestIsCutToIt) {
  Set(5000, 10);
  for (const Clock::Duration pause : Pauses(kSeed, 3)) EXPECT_LE(pause, milliseconds(10));
}

TEST_F(RetryTest, APauseOfADayIsExact) {
  Set(24 * 3600 * 1000, 24 * 3600 * 1000);
  for (const Clock::Duration pause : Pauses(kSeed, 3)) {
    EXPECT_GE(pause, std::chrono::hours(12));
    EXPECT_LE(pause, std::chrono::hours(24));
  }
}

TEST_F(RetryTest, ChangedDelaysCountFromTheNextFailureOn) {
  VeskJob* const job = FailedWrite("f");
  Set(8000, 8000);
  EXPECT_LE(PassPause(), milliseconds(100));
  store_.EndTry(job, 2, EIO);
  EXPECT_GE(PassPause(), milliseconds(4000));
  store_.EndTry(job, 3, 0);
}

// ---- who is told ----

TEST_F(RetryTest, AFailureIsToldAtOnceAndWhenItChangesNotAtEachTry) {
  VeskJob* const job = Write("dir/f", 4096);
  store_.EndTry(job, 1, EIO);
  EXPECT_EQ(Told(), Lines{"dir/f 4096+16 error 5 may pass, try 1"});
  for (int i = 2; i < 10; ++i) {
    PassPause();
    store_.EndTry(job, i, EIO);
  }
  EXPECT_EQ(Told(), Lines{});
  PassPause();
  store_.EndTry(job, 10, ENOSPC);
  EXPECT_EQ(Told(), Lines{"dir/f 4096+16 error 28, try 10"});
  PassPause();
  store_.EndTry(job, 11, 0);
  EXPECT_EQ(Told(), Lines{"dir/f recovered"});
}

TEST_F(RetryTest, ANameHasRecoveredWhenItsLastFailingWriteHasSucceeded) {
  VeskJob* const f1 = FailedWrite("f");
  VeskJob* const f2 = FailedWrite("f");
  VeskJob* const g = FailedWrite("g");
  VeskJob* const read = Read("f");
  store_.EndTry(read, 1, EIO);
  time_.Advance(milliseconds(100));
  Told();
  store_.EndTry(f1, 2, 0);
  EXPECT_EQ(Told(), Lines{});
  store_.EndTry(g, 2, 0);
  EXPECT_EQ(Told(), Lines{"g recovered"});
  store_.EndTry(f2, 2, 0);
  EXPECT_EQ(Told(), Lines{"f recovered"});
  store_.EndTry(read, 2, 0);
  EXPECT_EQ(Told(), Lines{}) << "reads do not count";
}

TEST_F(RetryTest, WhoIsToldMayAskAndDiscardAtOnce) {
  RetryDecorator::Parked seen;
  std::size_t discarded = 0;
  VeskJob* const job = Write("f");
  on_told_ = [&] {
    EXPECT_FALSE(Ended(job));
    if (seen.jobs == 0) {
      seen = retry_.GetParked("f");
      discarded = retry_.Discard("f");  // the job is not parked yet
    }
  };
  std::thread([&] { store_.EndTry(job, 1, EIO); }).join();
  EXPECT_EQ(seen.jobs, 1u);
  EXPECT_EQ(discarded, 1u);
  ExpectEnd(job, EIO);
}

TEST_F(RetryTest, NobodyNeedsToBeTold) {
  retry_.OnWriteFailure(nullptr);
  retry_.OnWriteRecovered(nullptr);
  VeskJob* const job = FailedWrite("f");
  PassPause();
  store_.EndTry(job, 2, 0);
  ExpectEnd(job, 0);
}

// ---- what it has ----

TEST_F(RetryTest, TellsWhatIsParkedInAllAndByName) {
  VeskJob* const f = FailedWrite("f", EIO);
  time_.Advance(milliseconds(20));
  VeskJob* const g = FailedWrite("g", ENOSPC);
  VeskJob* const read = Read("f");
  store_.EndTry(read, 1, EAGAIN);
  Write("f");  // has not failed
  time_.Advance(milliseconds(5));

  const RetryDecorator::Parked all = retry_.GetParked();
  EXPECT_EQ(all.jobs, 2u);
  EXPECT_EQ(all.bytes, 2u * kLength);
  EXPECT_EQ(all.age, milliseconds(25));
  EXPECT_EQ(all.error, ENOSPC);
  const RetryDecorator::Parked of_f = retry_.GetParked("f");
  EXPECT_EQ(of_f.jobs, 1u);
  EXPECT_EQ(of_f.bytes, kLength);
  EXPECT_EQ(of_f.age, milliseconds(25));
  EXPECT_EQ(of_f.error, EIO);
  EXPECT_EQ(retry_.GetParked("g").age, milliseconds(5));
  const RetryDecorator::Parked none = retry_.GetParked("h");
  EXPECT_EQ(none.jobs, 0u);
  EXPECT_EQ(none.age, milliseconds(0));
  EXPECT_EQ(none.error, 0);

  time_.Advance(milliseconds(95));
  store_.AwaitTry(g, 2);
  EXPECT_EQ(retry_.GetParked().jobs, 2u) << "one that is being tried is failing still";
  store_.EndTry(f, 2, EDQUOT);
  EXPECT_EQ(retry_.GetParked().error, EDQUOT);
  EXPECT_EQ(retry_.GetParked("f").age, milliseconds(120)) << "since the first failure";
  store_.EndTry(g, 2, 0);
  store_.EndTry(read, 2, 0);
  store_.EndTry(jobs_.back()->get(), 1, 0);
  clock_.AwaitIdle();
  store_.EndTry(f, 3, 0);
  EXPECT_EQ(retry_.GetParked().jobs, 0u);
  EXPECT_EQ(retry_.GetParked().bytes, 0u);
}

// ---- limits ----

TEST_F(RetryTest, AWriteThatWouldExceedTheLimitOfJobsIsGivenUp) {
  settings_.retry_parked_jobs = 2;
  VeskJob* const a = FailedWrite("a");
  VeskJob* const b = FailedWrite("b");
  Told();
  VeskJob* const c = FailedWrite("c", ENOSPC, 64);
  ExpectEnd(c, ENOSPC);
  EXPECT_EQ(Told(), Lines{"c 64+16 error 28, try 1, given up"});
  EXPECT_EQ(retry_.GetTotals().writes.given_up, 1u);
  EXPECT_EQ(retry_.GetParked().jobs, 2u);

  time_.Advance(milliseconds(100));
  store_.EndTry(a, 2, EIO);
  EXPECT_FALSE(Ended(a)) << "it was within the limit and is";
  store_.EndTry(b, 2, 0);
  store_.AwaitTry(a, 3);  // brought forward
  VeskJob* const d = FailedWrite("d");
  EXPECT_FALSE(Ended(d)) << "there is room again";
  EXPECT_EQ(retry_.DiscardAll(), 2u);
  store_.EndTry(a, 3, EIO);
}

TEST_F(RetryTest, AWriteThatWouldExceedTheLimitOfBytesIsGivenUp) {
  settings_.retry_parked_bytes = 2 * kLength;
  VeskJob* const a = FailedWrite("a");
  VeskJob* const b = FailedWrite("b");
  EXPECT_FALSE(Ended(a));
  EXPECT_FALSE(Ended(b));
  VeskJob* const small = Submit(NewWrite("c", memory_, 1, 0));
  store_.EndTry(small, 1, EIO);
  ExpectEnd(small, EIO);
  EXPECT_EQ(retry_.GetParked().bytes, 2u * kLength);
  EXPECT_EQ(retry_.DiscardAll(), 2u);
}

TEST_F(RetryTest, AWriteHasItsLastTryWhenItReachesTheLimitOfAge) {
  Set(1000, 1000000);
  settings_.retry_parked_age_ms = 5000;
  const Clock::Time begin = time_.Now();
  VeskJob* const job = FailedWrite("f");
  int tries = 1;
  while (!Ended(job) && tries < 100) {
    PassPause();
    store_.EndTry(job, ++tries, ENOSPC);
  }
  ExpectEnd(job, ENOSPC);
  EXPECT_EQ(time_.Now() - begin, milliseconds(5000));
  EXPECT_EQ(retry_.GetTotals().writes.given_up, 1u);
  EXPECT_EQ(Told().back(), "f 0+16 error 28, try " + std::to_string(tries) + ", given up");
}

TEST_F(RetryTest, ALastTryMaySucceed) {
  Set(1000, 1000);
  settings_.retry_parked_age_ms = 10;
  VeskJob* const job = FailedWrite("f");
  EXPECT_EQ(PassPause(), milliseconds(10));
  store_.EndTry(job, 2, 0);
  ExpectEnd(job, 0);
}

TEST_F(RetryTest, LimitsCanChangeWhileWritesAreParked) {
  for (int i = 0; i < 3; ++i) FailedWrite("f");
  settings_.retry_parked_jobs = 2;
  time_.Advance(milliseconds(100));
  store_.EndTry(jobs_[0]->get(), 2, EIO);
  ExpectEnd(jobs_[0]->get(), EIO);
  store_.EndTry(jobs_[1]->get(), 2, EIO);
  EXPECT_FALSE(Ended(jobs_[1]->get())) << "two are left, and two may be";
  settings_.retry_parked_age_ms = 100;
  store_.EndTry(jobs_[2]->get(), 2, EIO);
  ExpectEnd(jobs_[2]->get(), EIO);
  EXPECT_EQ(retry_.DiscardAll(), 1u);
}

// ---- discarding ----

TEST_F(RetryTest, DiscardEndsTheParkedWritesOfANameEachWithItsError) {
  VeskJob* const f1 = FailedWrite("f", EIO);
  VeskJob* const g = FailedWrite("g", EIO);
  VeskJob* const f2 = FailedWrite("f", ENOSPC, 64);
  VeskJob* const healthy = Write("f");
  VeskJob* const read = Read("f");
  store_.EndTry(read, 1, EIO);
  Told();

  EXPECT_EQ(retry_.Discard("f"), 2u);
  ExpectEnd(f1, EIO);
  ExpectEnd(f2, ENOSPC);
  EXPECT_FALSE(Ended(g));
  EXPECT_FALSE(Ended(healthy));
  EXPECT_FALSE(Ended(read));
  EXPECT_EQ(Told(), (Lines{"f 0+16 error 5 may pass, try 1, given up",
                           "f 64+16 error 28, try 1, given up"}));
  EXPECT_EQ(retry_.GetTotals().writes.discarded, 2u);
  EXPECT_EQ(retry_.GetTotals().writes.given_up, 0u);
  EXPECT_EQ(retry_.GetParked("f").jobs, 0u);
  EXPECT_EQ(retry_.Discard("f"), 0u);

  store_.EndTry(healthy, 1, EIO);
  EXPECT_FALSE(Ended(healthy)) << "it failed after the word was given";
  EXPECT_EQ(retry_.DiscardAll(), 2u);
  ExpectEnd(g, EIO);
  ExpectEnd(healthy, EIO);
  time_.Advance(milliseconds(100));
  store_.EndTry(read, 2, 0);
}

TEST_F(RetryTest, AWriteThatIsDiscardedDuringATryEndsWithTheErrorOfThat) {
  VeskJob* const job = FailedWrite("f");
  PassPause();
  store_.AwaitTry(job, 2);
  EXPECT_EQ(retry_.Discard("f"), 1u);
  EXPECT_FALSE(Ended(job));
  EXPECT_EQ(retry_.Discard("f"), 0u) << "counted once";
  store_.EndTry(job, 2, ENOSPC);
  ExpectEnd(job, ENOSPC);
  EXPECT_EQ(retry_.GetTotals().writes.discarded, 1u);
  EXPECT_EQ(retry_.GetTotals().writes.given_up, 0u);
  EXPECT_EQ(Told().back(), "f 0+16 error 28, try 2, given up");
}

TEST_F(RetryTest, AWriteThatIsDiscardedDuringATryMayStillSucceed) {
  VeskJob* const job = FailedWrite("f");
  PassPause();
  store_.AwaitTry(job, 2);
  EXPECT_EQ(retry_.DiscardAll(), 1u);
  store_.EndTry(job, 2, 0);
  ExpectEnd(job, 0);
  EXPECT_EQ(retry_.GetTotals().writes.discarded, 0u);
  EXPECT_EQ(retry_.GetTotals().writes.recovered, 1u);
}

// ---- the end of all ----

TEST_F(RetryTest, CancelAllEndsWhatIsParkedAndNothingIsParkedAfterwards) {
  VeskJob* const tried_again = FailedWrite("a");
  PassPause();
  store_.AwaitTry(tried_again, 2);
  VeskJob* const parked = FailedWrite("b");
  VeskJob* const parked_read = Read("c");
  store_.EndTry(parked_read, 1, EIO);
  VeskJob* const healthy = Write("d");
  VeskJob* const lucky = Write("e");
  Told();

  retry_.CancelAll(ESHUTDOWN);
  ExpectEnd(parked, ESHUTDOWN);
  ExpectEnd(parked_read, ESHUTDOWN);
  EXPECT_EQ(Told(), Lines{"b 0+16 error 108, try 1, given up"});
  store_.EndTry(tried_again, 2, ENOSPC);
  ExpectEnd(tried_again, ENOSPC);
  EXPECT_EQ(Told(), Lines{"a 0+16 error 28, try 2, given up"});
  store_.EndTry(healthy, 1, EIO);
  ExpectEnd(healthy, EIO);
  EXPECT_EQ(Told(), Lines{"d 0+16 error 5 may pass, try 1, given up"});
  store_.EndTry(lucky, 1, 0);
  ExpectEnd(lucky, 0);
  VeskJob* const later = Write("f");
  ExpectEnd(later, ESHUTDOWN);
  EXPECT_EQ(retry_.GetTotals().writes.given_up, 4u);
  EXPECT_EQ(retry_.GetParked().jobs, 0u);
}

TEST_F(RetryTest, AWriteThatIsAboutToBeParkedIsNotMissedByCancelAll) {
  VeskJob* const job = Write("f");
  bool cancelled = false;
  on_told_ = [&] {
    if (!std::exchange(cancelled, true)) retry_.CancelAll(ESHUTDOWN);
  };
  store_.EndTry(job, 1, EIO);
  ExpectEnd(job, EIO);
}

TEST_F(RetryTest, AShutdownThatIsOverEndsWhatIsParked) {
  VeskJob* const job = FailedWrite("f");
  EXPECT_TRUE(bundler_.dispatcher().Shutdown(time_.Now(), time_.Now()));
  ExpectEnd(job, ESHUTDOWN);
}

// ---- reads, and operations on names ----

TEST_F(RetryTest, AReadIsTriedAgainAFewTimes) {
  VeskJob* const job = Read("f");
  for (int i = 1; i < 5; ++i) {
    store_.EndTry(job, i, EIO);
    EXPECT_FALSE(Ended(job));
    const Clock::Duration pause = PassPause();
    EXPECT_GE(pause, milliseconds(50 << (i - 1)));
    EXPECT_LE(pause, milliseconds(100 << (i - 1)));
  }
  store_.EndTry(job, 5, ETIMEDOUT);
  ExpectEnd(job, ETIMEDOUT);
  const RetryDecorator::Counts counts = retry_.GetTotals().others;
  EXPECT_EQ(counts.retried, 4u);
  EXPECT_EQ(counts.given_up, 1u);
  EXPECT_EQ(counts.recovered, 0u);
  EXPECT_EQ(Told(), Lines{}) << "whoever reads sees it";
}

TEST_F(RetryTest, AReadThatIsTriedAgainMaySucceedOrFindTheEnd) {
  for (const int result : {0, vesk::RC_EOF}) {
    VeskJob* const job = Read("f");
    store_.EndTry(job, 1, EAGAIN);
    PassPause();
    store_.EndTry(job, 2, result);
    ExpectEnd(job, result);
  }
  EXPECT_EQ(retry_.GetTotals().others.recovered, 2u);
}

TEST_F(RetryTest, AnErrorOfAReadThatWillNotPassEndsItAtOnce) {
  for (const int error : {ENOENT, EACCES, EISDIR, EINVAL, 12345}) {
    VeskJob* const job = Read("f");
    store_.EndTry(job, 1, error);
    ExpectEnd(job, error);
  }
  VeskJob* const job = Read("f");
  store_.EndTry(job, 1, EIO);
  PassPause();
  store_.EndTry(job, 2, ENOENT);
  ExpectEnd(job, ENOENT);
  EXPECT_EQ(retry_.GetTotals().others.given_up, 1u) << "the one that was tried again";
}

TEST_F(RetryTest, TheTriesOfAReadCanChangeWhileItIsParked) {
  settings_.retry_read_attempts = 1;
  VeskJob* const once = Read("f");
  store_.EndTry(once, 1, EIO);
  ExpectEnd(once, EIO);

  settings_.retry_read_attempts = 100;
  VeskJob* const job = Read("f");
  store_.EndTry(job, 1, EIO);
  PassPause();
  settings_.retry_read_attempts = 2;
  store_.EndTry(job, 2, EIO);
  ExpectEnd(job, EIO);
}

TEST_F(RetryTest, LimitsOfWritesAreNotThoseOfReads) {
  settings_.retry_parked_jobs = 1;
  settings_.retry_parked_bytes = 1;
  settings_.retry_parked_age_ms = 1;
  VeskJob* const job = Read("f");
  store_.EndTry(job, 1, EIO);
  EXPECT_GE(PassPause(), milliseconds(50));
  store_.EndTry(job, 2, 0);
  ExpectEnd(job, 0);
}

TEST_F(RetryTest, OperationsOnNamesAreTriedAgainButForSync) {
  VeskJob* const stat =
      Submit(vesk::NewNameJob(vesk::OPCODE_STAT, "f", {}, 0, std::make_shared<vesk::FileInfo>()));
  store_.EndTry(stat, 1, ETIMEDOUT);
  EXPECT_FALSE(Ended(stat));
  PassPause();
  store_.EndTry(stat, 2, ENOENT);
  ExpectEnd(stat, ENOENT);

  VeskJob* const sync = Submit(vesk::NewNameJob(vesk::OPCODE_SYNC, "f"));
  store_.EndTry(sync, 1, EIO);
  ExpectEnd(sync, EIO);
}

TEST_F(RetryTest, AReadGoesOnWhenItsWaiterHasLeft) {
  VeskJob* const job = Read("f");
  store_.EndTry(job, 1, EIO);
  {
    const vesk::RequestScope scope({time_.Now(), nullptr});
    bundler_.WaitForJob(job, nullptr, "Read");
  }
  EXPECT_FALSE(Ended(job));
  PassPause();
  store_.EndTry(job, 2, 0);
  ExpectEnd(job, 0);
}

// ---- waiters that run their job themselves ----

TEST_F(RetryTest, AJobThatItsWaiterRunsIsKeptAndCountedLikeAnyOther) {
  store_.on_run = [](VeskJob*) { return EIO; };
  settings_.retry_read_attempts = 3;
  VeskJob* const job = Read("f");
  std::thread waiter([&] { bundler_.WaitForJob(job, nullptr, "Read"); });
  PassPause();
  EXPECT_EQ(store_.runs(), 1);
  store_.EndTry(job, 2, EIO);  // the store's second one; the first was withdrawn
  PassPause();
  store_.EndTry(job, 3, EIO);
  waiter.join();
  ExpectEnd(job, EIO);
}

TEST_F(RetryTest, AJobThatIsTriedAgainCannotBeWithdrawn) {
  VeskJob* const job = FailedWrite("f");
  PassPause();
  store_.AwaitTry(job, 2);
  if (retry_.Withdraw(job)) {
    store_.End(job, 0);
    FAIL() << "its record is left behind";
  }
  store_.EndTry(job, 2, EIO);
  EXPECT_EQ(retry_.GetTotals().writes.retried, 1u);
  const Clock::Duration pause = PassPause();
  EXPECT_GE(pause, milliseconds(100));
  EXPECT_LE(pause, milliseconds(200));
  store_.EndTry(job, 3, 0);
  ExpectEnd(job, 0);
}

TEST_F(RetryTest, AParkedJobCannotBeWithdrawn) {
  VeskJob* const job = FailedWrite("f");
  EXPECT_FALSE(retry_.Withdraw(job));
  PassPause();
  store_.EndTry(job, 2, 0);
}

// ---- recovery ----

class RecoveryTest : public RetryTest {
 protected:
  static constexpr int kBroughtForward = 8;
  static constexpr int kParked = 30;

  // The first write is due, all others only in hours.
  void SetUp() override {
    VeskJob* const probe = FailedWrite("probe");
    Set(10 * 3600 * 1000, 10 * 3600 * 1000);
    for (int i = 0; i < kParked; ++i) FailedWrite(i % 2 == 0 ? "f" : "g");
    read_ = Read("f");
    store_.EndTry(read_, 1, EIO);
    time_.Advance(milliseconds(100));
    store_.AwaitTry(probe, 2);
  }
  VeskJob* Probe() { return jobs_[0]->get(); }
  VeskJob* Parked(int i) { return jobs_[static_cast<std::size_t>(1 + i)]->get(); }

  // How many of the parked writes have had their second try.
  int AwaitTried(int count) {
    const auto watchdog = std::chrono::steady_clock::now() + kWatchdog;
    while (Tried() < count && std::chrono::steady_clock::now() < watchdog) {
      std::this_thread::yield();
    }
    clock_.AwaitIdle();
    return Tried();
  }
  int Tried() {
    int tried = 0;
    for (int i = 0; i < kParked; ++i) tried += store_.Tries(Parked(i)) > 1 ? 1 : 0;
    return tried;
  }

  VeskJob* read_ = nullptr;
};

TEST_F(RecoveryTest, AWriteThatSucceedsAgainBringsAFewOthersForward) {
  EXPECT_EQ(Tried(), 0);
  store_.EndTry(Probe(), 2, 0);
  EXPECT_EQ(AwaitTried(kBroughtForward), kBroughtForward);
  EXPECT_EQ(store_.Tries(read_), 1) << "its few tries are not spent early";
}

TEST_F(RecoveryTest, WritesThatFailAgainBringNothingForward) {
  store_.EndTry(Probe(), 2, 0);
  ASSERT_EQ(AwaitTried(kBroughtForward), kBroughtForward);
  for (int i = 0; i < kParked; ++i) {
    if (store_.Tries(Parked(i)) == 2) store_.EndTry(Parked(i), 2, EIO);
  }
  clock_.AwaitIdle();
  EXPECT_EQ(Tried(), kBroughtForward);
  for (int i = 0; i < kParked; ++i) EXPECT_LE(store_.Tries(Parked(i)), 2);
}

TEST_F(RecoveryTest, AWriteThatNeverFailedBringsNothingForward) {
  VeskJob* const healthy = Write("f");
  store_.EndTry(healthy, 1, 0);
  clock_.AwaitIdle();
  EXPECT_EQ(Tried(), 0);
}

TEST_F(RecoveryTest, AReadThatSucceedsAgainSpeaksForTheStoreAsWell) {
  Set(1, 1);
  VeskJob* const read = Read("h");
  store_.EndTry(read, 1, EIO);
  time_.Advance(milliseconds(1));
  store_.EndTry(read, 2, 0);
  EXPECT_EQ(AwaitTried(kBroughtForward), kBroughtForward);
}

TEST_F(RecoveryTest, EachOneThatSucceedsBringsMoreForwardUntilAllAreStored) {
  store_.EndTry(Probe(), 2, 0);
  for (int stored = 0; stored < kParked;) {
    AwaitTried(std::min(stored + 1, kParked));
    for (int i = 0; i < kParked; ++i) {
      if (Ended(Parked(i)) || store_.Tries(Parked(i)) < 2) continue;
      store_.EndTry(Parked(i), 2, 0);
      ++stored;
    }
    if (HasFailure()) return;
  }
  EXPECT_EQ(retry_.GetParked().jobs, 0u);
  EXPECT_EQ(retry_.GetTotals().writes.recovered, 1u + kParked);
}

// ---- the store is down for a while ----

// Keeps bytes, unless it is down.
class Disk {
 public:
  int Perform(VeskJob* job) {
    const MutexLock guard(mutex_);
    if (down_ != 0) return down_;
    const vesk::Transfer write(job->GetOP());
    std::string& bytes = files_[write.name];
    bytes.resize(std::max<std::size_t>(bytes.size(), write.offset + write.length));
    std::memcpy(&bytes[write.offset], write.data, write.length);
    return 0;
  }

  void SetDown(int error) {
    const MutexLock guard(mutex_);
    down_ = error;
  }

  std::string Bytes(const std::string& name) {
    const MutexLock guard(mutex_);
    return files_[name];
  }

 private:
  vesk::Mutex mutex_;
  int down_ VESK_GUARDED_BY(mutex_) = 0;
  std::map<std::string, std::string> files_ VESK_GUARDED_BY(mutex_);
};

TEST_F(RetryTest, AStoreThatIsDownForAWhileLosesNothing) {
  constexpr int kFiles = 4;
  constexpr int kWrites = 150;  // of each file
  Disk disk;
  store_.answer = [&](VeskJob* job) { return disk.Perform(job); };
  std::map<std::string, std::string> expected;
  for (int i = 0; i < kFiles; ++i) {
    std::string& bytes = expected["file " + std::to_string(i)];
    for (unsigned int k = 0; k < kWrites * kLength; ++k) {
      bytes.push_back(static_cast<char>(k * 31 + static_cast<unsigned int>(i)));
    }
  }
  for (int i = 0; i < kWrites; ++i) {
    if (i == 20) disk.SetDown(EIO);
    for (const auto& [name, bytes] : expected) {
      const auto offset = static_cast<std::size_t>(i) * kLength;
      Submit(NewWrite(name, &bytes[offset], kLength, offset));
    }
  }
  const std::size_t parked = kFiles * (kWrites - 20);
  EXPECT_EQ(retry_.GetParked().jobs, parked);

  for (int i = 0; i < 20; ++i) {  // hours
    time_.Advance(std::chrono::minutes(10));
    clock_.AwaitDue();
    if (i == 10) disk.SetDown(ENOSPC);
  }
  EXPECT_EQ(retry_.GetParked().jobs, parked);
  const std::uint64_t retried = retry_.GetTotals().writes.retried;
  EXPECT_EQ(retried, 20 * parked) << "one try for each step of the clock";

  disk.SetDown(0);
  PassPause();  // one of them is due; it brings all others
  for (const auto& job : jobs_) job->get()->WaitUntilDone();
  for (const auto& job : jobs_) ExpectEnd(job->get(), 0);
  for (const auto& [name, bytes] : expected) EXPECT_EQ(disk.Bytes(name), bytes) << name;

  const RetryDecorator::Counts counts = retry_.GetTotals().writes;
  EXPECT_EQ(counts.recovered, parked);
  EXPECT_EQ(counts.retried, retried + parked);
  EXPECT_EQ(counts.given_up + counts.discarded, 0u);
  const Lines told = Told();
  EXPECT_EQ(told.size(), 2 * parked + kFiles) << "each failed, changed its error; files recovered";
}

// ---- no memory ----

TEST_F(RetryTest, AWriteIsKeptEvenWithoutMemoryForItsRecord) {
  clock_.AwaitIdle();
  std::optional<FailingAllocation> failing;
  bool fired = false;
  VeskJob* const job = Write("f");
  store_.AwaitTry(job, 1);
  retry_.OnWriteFailure([&](const vesk::WriteFailure& failure) {
    EXPECT_EQ(failure.error, ENOSPC);
    EXPECT_FALSE(failure.given_up);
    if (!failing) return;
    fired = failing->Fired();
    failing.reset();
  });
  failing.emplace(1);
  store_.EndTry(job, 1, ENOSPC);
  EXPECT_TRUE(fired);
  EXPECT_FALSE(Ended(job));
  EXPECT_EQ(retry_.GetParked().jobs, 0u) << "kept, but not counted";
  const Clock::Duration pause = PassPause();
  EXPECT_LE(pause, milliseconds(100));
  store_.EndTry(job, 2, ENOSPC);
  EXPECT_EQ(retry_.GetParked().jobs, 1u);
  PassPause();
  store_.EndTry(job, 3, 0);
  ExpectEnd(job, 0);
}

TEST_F(RetryTest, AWriteWithoutARecordCanBeDiscardedAndCancelled) {
  for (const bool cancel : {false, true}) {
    clock_.AwaitIdle();
    VeskJob* const job = Write("f");
    std::optional<FailingAllocation> failing;
    retry_.OnWriteFailure([&](const vesk::WriteFailure&) { failing.reset(); });
    failing.emplace(1);
    store_.EndTry(job, 1, ENOSPC);
    ASSERT_FALSE(Ended(job));
    if (cancel) {
      retry_.CancelAll(ESHUTDOWN);
    } else {
      EXPECT_EQ(retry_.Discard("g"), 0u);
      EXPECT_EQ(retry_.Discard("f"), 1u);
    }
    ExpectEnd(job, cancel ? ESHUTDOWN : EIO);
  }
}

TEST_F(RetryTest, AReadWithoutMemoryForItsRecordEndsWithItsError) {
  clock_.AwaitIdle();
  VeskJob* const job = Read("f");
  {
    const FailingAllocation failing(1);
    store_.EndTry(job, 1, EIO);
    EXPECT_TRUE(failing.Fired());
  }
  ExpectEnd(job, EIO);
}

// ---- many threads ----

// Threads carry jobs out, and fail as chance has it until it is healed.
class FlakyStore : public StubBackend {
 public:
  FlakyStore() {
    for (std::uint64_t i = 0; i < 3; ++i) threads_.emplace_back([this, i] { Work(i); });
  }
  ~FlakyStore() override {
    {
      const MutexLock guard(mutex_);
      ending_ = true;
    }
    work_.WakeAll();
    for (std::thread& thread : threads_) thread.join();
  }

  void Start(JobQueue& jobs) override {
    {
      const MutexLock guard(mutex_);
      queue_.Take(jobs);
    }
    work_.WakeAll();
  }
  void Run(VeskJob* job) override { StubBackend::End(job, disk.Perform(job)); }
  bool Withdraw(VeskJob* job) override {
    const MutexLock guard(mutex_);
    if (!queue_.Holds(job)) return false;
    queue_.Remove(job);
    return true;
  }

  Disk disk;
  std::atomic<bool> healed{false};
  std::atomic<unsigned int> failures{0};  // but for those of the file "a"

 private:
  void Work(std::uint64_t seed) {
    vesk::Random random(seed);
    MutexLock guard(mutex_);
    for (;;) {
      while (!ending_ && queue_.Empty()) work_.Wait(mutex_);
      if (queue_.Empty()) return;
      VeskJob* const job = queue_.Pop();
      guard.Unlock();
      const bool fails = !healed && random.Next() % 3 != 0;
      if (fails && job->GetOP().GetString(0) != "a") ++failures;
      StubBackend::End(job, fails ? EIO : disk.Perform(job));
      guard.Lock();
    }
  }

  vesk::Mutex mutex_;
  vesk::Condition work_;
  JobQueue queue_ VESK_GUARDED_BY(mutex_);
  bool ending_ VESK_GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;
};

TEST(RetryThreadsTest, ManyThreadsLoseNothingButWhatTheyDiscard) {
  constexpr unsigned int kThreads = 6;
  constexpr unsigned int kWrites = 300;  // of each thread, in its own file
  constexpr unsigned int kLength = 8;
  constexpr unsigned int kDiscarding = 0;  // the thread whose writes are discarded
  vesk::Settings settings;
  settings.retry_first_delay_ms = 1;
  settings.retry_longest_delay_ms = 3;
  FlakyStore store;
  RetryDecorator retry(store, settings, Clock::System(), 1);
  std::atomic<std::uint64_t> lost{0};
  std::atomic<std::uint64_t> recovered{0};
  retry.OnWriteFailure(
      [&](const vesk::WriteFailure& failure) { lost += failure.given_up ? 1 : 0; });
  retry.OnWriteRecovered([&](const std::string&) { ++recovered; });
  std::string bytes(kWrites * kLength, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(1 + i % 97);
  std::atomic<std::uint64_t> failed{0};
  {
    vesk::VeskBundler bundler(retry);
    std::vector<std::vector<std::unique_ptr<JobHolder>>> jobs(kThreads);
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        const std::string name(1, static_cast<char>('a' + t));
        for (unsigned int i = 0; i < kWrites; ++i) {
          jobs[t].push_back(std::make_unique<JobHolder>(
              NewWrite(name, &bytes[i * kLength], kLength, i * kLength)));
          VeskJob* const job = jobs[t].back()->get();
          bundler.SubmitJob(job);
          if (i % 7 == 0) bundler.WaitForJob(job, nullptr, "Write");
          if (i % 11 == 0) (void)retry.GetParked(name);
          if (t == kDiscarding && i % 5 == 0) retry.Discard(name);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    // The store's threads may not have run yet.
    for (int i = 0; i < 10000 && store.failures == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    store.healed = true;
    for (unsigned int t = 0; t < kThreads; ++t) {
      for (const auto& job : jobs[t]) {
        bundler.WaitForJob(job->get(), nullptr, "Write");
        const int result = job->get()->GetReturnValue();
        if (result == 0) continue;
        ++failed;
        EXPECT_EQ(result, EIO);
        EXPECT_EQ(t, kDiscarding);
      }
      if (t != kDiscarding) {
        EXPECT_EQ(store.disk.Bytes(std::string(1, static_cast<char>('a' + t))), bytes);
      }
    }
  }
  const RetryDecorator::Counts counts = retry.GetTotals().writes;
  EXPECT_EQ(counts.discarded, failed);
  EXPECT_EQ(counts.discarded, lost);
  EXPECT_EQ(counts.given_up, 0u);
  EXPECT_GT(counts.recovered, 0u);
  EXPECT_GT(recovered, 0u);
  EXPECT_EQ(retry.GetParked().jobs, 0u);
  EXPECT_EQ(retry.GetParked().bytes, 0u);
}

TEST(RetryThreadsTest, CancelAllAmongManyThreadsLeavesNoJobBehind) {
  constexpr unsigned int kThreads = 4;
  vesk::Settings settings;
  settings.retry_first_delay_ms = 1;
  settings.retry_longest_delay_ms = 2;
  FlakyStore store;
  store.disk.SetDown(ENOSPC);
  RetryDecorator retry(store, settings, Clock::System(), 1);
  vesk::VeskBundler bundler(retry);
  unsigned char memory[8] = {};
  std::vector<std::vector<std::unique_ptr<JobHolder>>> jobs(kThreads);
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (unsigned int i = 0; i < 200; ++i) {
        jobs[t].push_back(std::make_unique<JobHolder>(NewWrite("f", memory, 8, 0)));
        bundler.SubmitJob(jobs[t].back()->get());
        if (t == 0 && i == 100) retry.CancelAll(ESHUTDOWN);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& of_thread : jobs) {
    for (const auto& job : of_thread) {
      job->get()->WaitUntilDone();
      EXPECT_NE(job->get()->GetReturnValue(), 0);
    }
  }
  EXPECT_EQ(retry.GetTotals().writes.given_up, kThreads * 200u);
}

}  // namespace
}  // namespace vesk_test

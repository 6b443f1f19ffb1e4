// A slow way to the store: what waits for how long, and what for.

#include "runtime/decorator_latency.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "runtime/dispatcher.h"
#include "runtime/name_operation.h"
#include "tests/support/jobs.h"
#include "tests/support/manual_clock.h"
#include "tests/support/stub_backend.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskLock.h"

namespace vesk_test {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::Clock;
using vesk::LatencyDecorator;
using vesk::MutexLock;
using vesk::VeskBundler;
using vesk::VeskJob;

// Notes what arrives when, and ends it well.
class NotingStore : public StubBackend {
 public:
  struct Arrival {
    VeskJob* job;
    Clock::Duration after;  // since the store was made
    std::size_t batch;      // a number of its own
  };

  explicit NotingStore(Clock& clock) : clock_(clock), begin_(clock.Now()) {}

  void Start(vesk::JobQueue& jobs) override {
    vesk::JobQueue noted;
    {
      const MutexLock guard(mutex_);
      while (!jobs.Empty()) {
        arrivals_.push_back({jobs.First(), clock_.Now() - begin_, batches_});
        noted.Push(jobs.Pop());
      }
      ++batches_;
    }
    while (!noted.Empty()) End(noted.Pop(), 0);
  }

  void CancelAll(int error) override { cancelled = error; }

  std::vector<Arrival> arrivals() {
    const MutexLock guard(mutex_);
    return arrivals_;
  }

  int cancelled = 0;

 private:
  Clock& clock_;
  const Clock::Time begin_;
  vesk::Mutex mutex_;
  std::vector<Arrival> arrivals_ VESK_GUARDED_BY(mutex_);
  std::size_t batches_ VESK_GUARDED_BY(mutex_) = 0;
};

// In the dispatcher's place, for jobs that a test hands to the decorator itself.
class EndedJobs : public vesk::EndHandler {
 public:
  explicit EndedJobs(vesk::VeskBackend& backend) { backend.ReportEndsTo(*this); }
  ~EndedJobs() = default;

  void JobEnded(VeskJob* job, int result) override {
    job->Publish(result);
    VeskJob::RefCountDec(job);
  }
};

class LatencyTest : public ::testing::Test {
 protected:
  // A slow way, and who uses it.
  struct Stack {
    Stack(const LatencyDecorator::Options& options, ManualClock& clock)
        : store(clock), latency(store, options, clock), bundler(latency, clock) {}

    NotingStore store;
    LatencyDecorator latency;
    VeskBundler bundler;
  };

  LatencyDecorator& Make(const LatencyDecorator::Options& options) {
    stack_ = std::make_unique<Stack>(options, clock_);
    clock_.AwaitWaiters(1);
    return stack_->latency;
  }

  VeskJob* Keep(VeskJob* job) {
    jobs_.push_back(std::make_unique<JobHolder>(job));
    return job;
  }
  VeskJob* NewWriteJob(unsigned int length = 1) {
    return Keep(NewWrite("f", memory_.data(), length, 0));
  }

  // As one batch.
  void Submit(const std::vector<VeskJob*>& jobs) {
    vesk::VeskLock lock;
    lock.lock();
    for (VeskJob* const job : jobs) stack_->bundler.SubmitJob(job);
    lock.unlock();
  }
  std::vector<VeskJob*> Writes(std::size_t count, unsigned int length = 1) {
    std::vector<VeskJob*> jobs;
    while (jobs.size() < count) jobs.push_back(NewWriteJob(length));
    return jobs;
  }

  // Waits for it to end, and tells how long after the start it reached the store.
  Clock::Duration Arrived(VeskJob* job) {
    if (!job->WaitUntilDone(Clock::System(), Clock::System().Now() + seconds(20), nullptr)) {
      ADD_FAILURE() << "the job does not end";
      return {};
    }
    for (const NotingStore::Arrival& arrival : stack_->store.arrivals()) {
      if (arrival.job == job) return arrival.after;
    }
    ADD_FAILURE() << "the job did not reach the store";
    return {};
  }

  // The order in which so many jobs that were started together reached the store, by index.
  std::vector<std::size_t> OrderOfArrival(const LatencyDecorator::Options& options) {
    Make(options);
    const std::vector<VeskJob*> jobs = Writes(20);
    Submit(jobs);
    clock_.Advance(seconds(10));
    for (VeskJob* const job : jobs) Arrived(job);
    std::vector<std::size_t> order;
    for (const NotingStore::Arrival& arrival : stack_->store.arrivals()) {
      for (std::size_t i = 0; i < jobs.size(); ++i) {
        if (jobs[i] == arrival.job) order.push_back(i);
      }
    }
    return order;
  }

  ManualClock clock_;
  std::string memory_ = std::string(10000, 'x');
  std::vector<std::unique_ptr<JobHolder>> jobs_;
  std::unique_ptr<Stack> stack_;
};

TEST_F(LatencyTest, SixteenJobsEndTogetherAfterOneLatency) {
  Make({milliseconds(2)});
  const std::vector<VeskJob*> jobs = Writes(16);
  Submit(jobs);
  EXPECT_TRUE(stack_->store.arrivals().empty());
  clock_.Advance(milliseconds(2));
  for (VeskJob* const job : jobs) EXPECT_EQ(Arrived(job), milliseconds(2));
  for (const auto& arrival : stack_->store.arrivals()) EXPECT_EQ(arrival.batch, 0u);
}

TEST_F(LatencyTest, NothingArrivesBeforeItsTime) {
  Make({milliseconds(2)});
  VeskJob* const first = NewWriteJob();
  Submit({first});
  clock_.AwaitWaiters(1);
  clock_.Advance(milliseconds(1));
  VeskJob* const second = NewWriteJob();
  Submit({second});
  clock_.Advance(milliseconds(1) - microseconds(1));
  EXPECT_TRUE(stack_->store.arrivals().empty());
  clock_.Advance(microseconds(1));
  EXPECT_EQ(Arrived(first), milliseconds(2));
  EXPECT_EQ(second->GetJobState(), vesk::JOB_STATE_SUBMITTED);
  clock_.AwaitWaiters(1);
  clock_.Advance(milliseconds(1));
  EXPECT_EQ(Arrived(second), milliseconds(3));
}

TEST_F(LatencyTest, OperationsOnNamesTakeTheLatencyToo) {
  Make({milliseconds(2)});
  VeskJob* const sync = Keep(vesk::NewNameJob(vesk::OPCODE_SYNC, "f"));
  Submit({sync});
  clock_.Advance(milliseconds(2));
  EXPECT_EQ(Arrived(sync), milliseconds(2));
}

TEST_F(LatencyTest, AWaitingThreadGetsNoJobBackAndNoShortcut) {
  LatencyDecorator& latency = Make({milliseconds(2)});
  VeskJob* const job = NewWriteJob();
  Submit({job});
  EXPECT_FALSE(latency.Withdraw(job));
  clock_.Advance(milliseconds(2));
  EXPECT_EQ(Arrived(job), milliseconds(2));

  VeskJob* const run = NewWriteJob();
  run->RefCountInc();  // as if submitted: this test runs it in place of a waiting thread
  EndedJobs ends(latency);
  latency.Run(run);
  EXPECT_EQ(run->GetJobState(), vesk::JOB_STATE_NEW);
  clock_.AwaitWaiters(1);
  clock_.Advance(milliseconds(2));
  EXPECT_EQ(Arrived(run), milliseconds(4));
}

TEST_F(LatencyTest, TransfersShareThePipeOneAfterTheOther) {
  LatencyDecorator::Options options;
  options.fixed = milliseconds(500);
  options.bandwidth = 1000;
  Make(options);
  const std::vector<VeskJob*> jobs = Writes(2, 1000);
  unsigned int count = 0;
  VeskJob* const read = Keep(NewRead("f", memory_.data(), 2000, 0, &count));
  VeskJob* const name = Keep(vesk::NewNameJob(vesk::OPCODE_SYNC, "f"));
  Submit({jobs[0], jobs[1], read, name});
  for (int i = 0; i < 9; ++i) {
    clock_.Advance(milliseconds(500));
    if (i == 0) {
      EXPECT_EQ(Arrived(name), milliseconds(500)) << "it has no bytes to queue with";
    }
    if (i == 2) {
      EXPECT_EQ(Arrived(jobs[0]), milliseconds(1500));
    }
    if (i == 4) {
      EXPECT_EQ(Arrived(jobs[1]), milliseconds(2500));
    }
  }
  EXPECT_EQ(Arrived(read), milliseconds(4500)) << "by the bytes that it asks for";

  // What the pipe did not carry while nobody used it is lost.
  clock_.Advance(seconds(100));
  VeskJob* const later = NewWriteJob(1000);
  Submit({later});
  clock_.Advance(milliseconds(1499));
  EXPECT_EQ(stack_->store.arrivals().size(), 4u);
  clock_.Advance(milliseconds(1));
  EXPECT_EQ(Arrived(later), milliseconds(4500 + 100000 + 1500));
}

TEST_F(LatencyTest, JitterIsRepeatedByItsSeed) {
  LatencyDecorator::Options options;
  options.jitter = milliseconds(10);
  options.seed = 1;
  const std::vector<std::size_t> order = OrderOfArrival(options);
  EXPECT_EQ(order.size(), 20u);
  EXPECT_EQ(OrderOfArrival(options), order);
  options.seed = 2;
  EXPECT_NE(OrderOfArrival(options), order);
  options.jitter = Clock::Duration::zero();
  std::vector<std::size_t> as_started(20);
  std::iota(as_started.begin(), as_started.end(), std::size_t{0});
  EXPECT_EQ(OrderOfArrival(options), as_started);
  EXPECT_NE(order, as_started);
}

TEST_F(LatencyTest, JitterAddsAtMostItself) {
  LatencyDecorator::Options options;
  options.fixed = milliseconds(5);
  options.jitter = milliseconds(3);
  Make(options);
  const std::vector<VeskJob*> jobs = Writes(200);
  Submit(jobs);
  clock_.Advance(milliseconds(5) - microseconds(1));
  EXPECT_TRUE(stack_->store.arrivals().empty());
  clock_.Advance(microseconds(1501));
  const auto watchdog = std::chrono::steady_clock::now() + seconds(20);
  while (stack_->store.arrivals().empty() && std::chrono::steady_clock::now() < watchdog) {
    std::this_thread::yield();
  }
  clock_.Advance(microseconds(1500));
  int early = 0;
  for (VeskJob* const job : jobs) {
    const Clock::Duration after = Arrived(job);  // none takes longer, or this would not end
    EXPECT_TRUE(after == microseconds(6500) || after == milliseconds(8));
    early += after == microseconds(6500) ? 1 : 0;
  }
  EXPECT_GT(early, 0);
}

TEST_F(LatencyTest, AfterCancelAllNothingWaits) {
  LatencyDecorator& latency = Make({seconds(5)});
  const std::vector<VeskJob*> jobs = Writes(3);
  Submit(jobs);
  latency.CancelAll(ECANCELED);
  VeskJob* const later = NewWriteJob();
  Submit({later});
  for (VeskJob* const job : {jobs[0], jobs[1], jobs[2], later}) {
    ASSERT_EQ(job->GetJobState(), vesk::JOB_STATE_DONE);
    EXPECT_EQ(job->GetReturnValue(), ECANCELED);
  }
  EXPECT_EQ(stack_->store.cancelled, ECANCELED);
  EXPECT_TRUE(stack_->store.arrivals().empty());
}

// The pipe and the seed are shared by all threads.
TEST(LatencyThreadsTest, EveryJobOfManyThreadsEnds) {
  NotingStore store(Clock::System());
  LatencyDecorator::Options options;
  options.jitter = microseconds(200);
  options.bandwidth = std::uint64_t{1} << 30;
  LatencyDecorator latency(store, options, Clock::System());
  {
    VeskBundler bundler(latency);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&bundler] {
        for (int round = 0; round < 100; ++round) {
          const JobHolder job(NewWrite("f", "x", 1, 0));
          bundler.SubmitJob(job.get());
          bundler.WaitForJob(job.get(), nullptr, "test");
          EXPECT_EQ(job->GetReturnValue(), 0);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  EXPECT_EQ(store.arrivals().size(), 400u);
}

}  // namespace
}  // namespace vesk_test

// Jobs that wait for their time.

#include "runtime/delay_queue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "tests/support/jobs.h"
#include "tests/support/manual_clock.h"

namespace vesk_test {
namespace {

using std::chrono::seconds;
using vesk::JobQueue;
using vesk::MutexLock;
using vesk::VeskJob;

class DelayQueueTest : public ::testing::Test {
 protected:
  using Batch = std::vector<VeskJob*>;

  VeskJob* NewJob() {
    jobs_.push_back(std::make_unique<JobHolder>(NewRead("f", nullptr, 0, 0, &count_)));
    return jobs_.back()->get();
  }

  void Due(JobQueue& due) {
    const MutexLock guard(mutex_);
    batches_.emplace_back();
    while (!due.Empty()) batches_.back().push_back(due.Pop());
    changed_.WakeAll();
  }

  // The batches handed over, once there are that many or a bounded while has passed.
  std::vector<Batch> Batches(std::size_t count) {
    const auto watchdog = std::chrono::steady_clock::now() + seconds(20);
    const MutexLock guard(mutex_);
    while (batches_.size() < count && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return batches_;
  }

  unsigned int count_ = 0;
  std::vector<std::unique_ptr<JobHolder>> jobs_;
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  std::vector<Batch> batches_ VESK_GUARDED_BY(mutex_);
  ManualClock clock_;
  vesk::DelayQueue queue_{clock_, [this](JobQueue& due) { Due(due); }};
};

TEST_F(DelayQueueTest, HandsJobsOverInOrderOfTimeAsOneBatch) {
  VeskJob* const late = NewJob();
  VeskJob* const soon = NewJob();
  VeskJob* const soon_too = NewJob();
  VeskJob* const later_still = NewJob();
  clock_.AwaitWaiters(1);
  queue_.Add(late, clock_.Now() + seconds(2));
  queue_.Add(soon, clock_.Now() + seconds(1));
  queue_.Add(later_still, clock_.Now() + seconds(3));
  queue_.Add(soon_too, clock_.Now() + seconds(1));
  EXPECT_EQ(Batches(0).size(), 0u);
  clock_.Advance(seconds(2));
  EXPECT_EQ(Batches(1), (std::vector<Batch>{{soon, soon_too, late}}));
  clock_.AwaitWaiters(1);
  clock_.Advance(seconds(1));
  EXPECT_EQ(Batches(2).back(), Batch{later_still});
}

TEST_F(DelayQueueTest, KeepsTheOrderWhereverAJobBelongs) {
  const vesk::Clock::Time now = clock_.Now();
  std::vector<VeskJob*> jobs(40);
  for (VeskJob*& job : jobs) job = NewJob();
  for (std::size_t i = 0; i < jobs.size(); ++i) {
    const std::size_t which = i * 17 % jobs.size();  // each once, in an order of its own
    queue_.Add(jobs[which], now + seconds(1 + which));
  }
  clock_.AwaitWaiters(1);
  clock_.Advance(seconds(100));
  EXPECT_EQ(Batches(1), std::vector<Batch>{jobs});
}

TEST_F(DelayQueueTest, TakesNoMoreThanAskedForTheNearestFirst) {
  std::vector<VeskJob*> jobs;
  for (int i = 0; i < 5; ++i) {
    jobs.push_back(NewJob());
    queue_.Add(jobs.back(), clock_.Now() + seconds(5 - i));
  }
  JobQueue taken;
  queue_.Take([](const VeskJob&) { return true; }, taken, 2);
  EXPECT_EQ(taken.Pop(), jobs[4]);
  EXPECT_EQ(taken.Pop(), jobs[3]);
  EXPECT_TRUE(taken.Empty());
  queue_.Take([](const VeskJob&) { return true; }, taken);
  while (!taken.Empty()) taken.Pop();
}

TEST_F(DelayQueueTest, AnEarlierJobWakesTheThread) {
  VeskJob* const late = NewJob();
  VeskJob* const now = NewJob();
  queue_.Add(late, clock_.Now() + seconds(9));
  clock_.AwaitWaiters(1);
  queue_.Add(now, clock_.Now());
  EXPECT_EQ(Batches(1), std::vector<Batch>{{now}});
  JobQueue taken;
  queue_.Take([](const VeskJob&) { return true; }, taken);
  EXPECT_EQ(taken.Pop(), late);
}

TEST_F(DelayQueueTest, TakesOutWhatIsAskedForAndKeepsTheRest) {
  std::vector<VeskJob*> jobs;
  for (int i = 0; i < 6; ++i) {
    jobs.push_back(NewJob());
    queue_.Add(jobs.back(), clock_.Now() + seconds(i + 1));
  }
  JobQueue taken;
  queue_.Take([&](const VeskJob& job) { return &job == jobs[0] || &job == jobs[3]; }, taken);
  EXPECT_EQ(taken.Pop(), jobs[0]);
  EXPECT_EQ(taken.Pop(), jobs[3]);
  EXPECT_TRUE(taken.Empty());
  clock_.AwaitWaiters(1);
  clock_.Advance(seconds(100));
  EXPECT_EQ(Batches(1), (std::vector<Batch>{{jobs[1], jobs[2], jobs[4], jobs[5]}}));
}

}  // namespace
}  // namespace vesk_test

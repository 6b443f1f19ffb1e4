// Operations and jobs.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <variant>
#include <vector>

#include "runtime/job_queue.h"
#include "runtime/transfer.h"
#include "tests/support/jobs.h"
#include "tests/support/manual_clock.h"

namespace vesk_test {
namespace {

using vesk::JobQueue;
using vesk::VeskJob;
using vesk::VeskOP;

TEST(OperationTest, KeepsArgumentsByPositionAndType) {
  std::string name = "a/file";
  int target = 0;
  VeskOP op(vesk::OPCODE_WRITE, vesk::OPFLAG_WRITE_MODE);
  op.AddString(name);
  op.AddPtr(&target);
  op.AddInt(-7);
  op.AddULong(~0UL);
  EXPECT_EQ(op.GetOpcode(), 10u);
  EXPECT_EQ(op.GetFlags(), 8u);
  EXPECT_EQ(op.GetArgumentCount(), 4u);
  EXPECT_EQ(op.GetString(0), "a/file");
  EXPECT_EQ(op.GetPtr(1), &target);
  EXPECT_EQ(op.GetInt(2), -7);
  EXPECT_EQ(op.GetULong(3), ~0UL);
  EXPECT_THROW(op.GetInt(0), std::bad_variant_access);
  EXPECT_THROW(op.GetInt(4), std::out_of_range);
}

TEST(OperationTest, OwnsItsCopyOfTheName) {
  auto* const name = new std::string("a name that is longer than any small-string buffer");
  VeskOP op(vesk::OPCODE_READ, 0);
  op.AddString(*name);
  delete name;
  EXPECT_EQ(op.GetString(0), "a name that is longer than any small-string buffer");
}

TEST(TransferTest, ReadsBothOperationsByName) {
  unsigned char memory[8];
  unsigned int count = 0;
  const JobHolder read(NewRead("r", memory, 8, 1UL << 40, &count));
  const vesk::Transfer in(read->GetOP());
  EXPECT_FALSE(in.is_write);
  EXPECT_EQ(in.name, "r");
  EXPECT_EQ(in.data, memory);
  EXPECT_EQ(in.length, 8u);
  EXPECT_EQ(in.offset, 1UL << 40);
  in.StoreCount(5);
  EXPECT_EQ(count, 5u);
  EXPECT_EQ(in.Moved(), 5u);

  const JobHolder write(NewWrite("w", memory, 3, 9));
  const vesk::Transfer out(write->GetOP());
  EXPECT_TRUE(out.is_write);
  EXPECT_EQ(out.name, "w");
  EXPECT_EQ(out.length, 3u);
  EXPECT_EQ(out.offset, 9u);
  EXPECT_EQ(out.Moved(), 3u);
}

TEST(JobTest, IsFreedWithItsLastReference) {
  unsigned int count = 0;
  VeskJob* const job = NewRead("f", nullptr, 0, 0, &count);
  EXPECT_EQ(job->GetRefCount(), 1);
  job->RefCountInc();
  EXPECT_EQ(job->GetRefCount(), 2);
  VeskJob::RefCountDec(job);
  EXPECT_EQ(job->GetRefCount(), 1);
  VeskJob::RefCountDec(job);  // the address sanitizer tells a leak or a second free
}

TEST(JobTest, AWaitForAFinishedJobReturnsAtOnce) {
  unsigned int count = 0;
  const JobHolder job(NewRead("f", nullptr, 0, 0, &count));
  job->Publish(13);
  EXPECT_EQ(job->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(job->GetReturnValue(), 13);
  job->WaitUntilDone();
}

TEST(JobTest, WakesEveryWaiter) {
  unsigned int count = 0;
  const JobHolder job(NewRead("f", nullptr, 0, 0, &count));
  std::vector<std::thread> waiters;
  std::atomic<int> woken{0};
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      job->WaitUntilDone();
      if (job->GetReturnValue() == vesk::RC_EOF) ++woken;
    });
  }
  job->Publish(vesk::RC_EOF);
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(woken, 4);
}

TEST(JobTest, AWaitEndsAtItsDeadlineByTheClock) {
  unsigned int count = 0;
  const JobHolder job(NewRead("f", nullptr, 0, 0, &count));
  ManualClock clock;
  EXPECT_FALSE(job->WaitUntilDone(clock, clock.Now(), nullptr)) << "it had come before the wait";

  std::thread waiter([&] {
    EXPECT_FALSE(job->WaitUntilDone(clock, clock.Now() + std::chrono::seconds(5), nullptr));
  });
  clock.AwaitWaiters(1);
  clock.Advance(std::chrono::seconds(5));
  waiter.join();
}

TEST(JobQueueTest, KeepsOrderAndLetsAnyJobGo) {
  unsigned int count = 0;
  std::vector<std::unique_ptr<JobHolder>> jobs;
  JobQueue queue;
  for (int i = 0; i < 5; ++i) {
    jobs.push_back(std::make_unique<JobHolder>(NewRead("f", nullptr, 0, 0, &count)));
    EXPECT_FALSE(queue.Holds(jobs.back()->get()));
    queue.Push(jobs.back()->get());
    EXPECT_TRUE(queue.Holds(jobs.back()->get()));
  }
  for (const int i : {2, 0, 4}) {  // from the middle, the front, the back
    queue.Remove(jobs[static_cast<std::size_t>(i)]->get());
    EXPECT_FALSE(queue.Holds(jobs[static_cast<std::size_t>(i)]->get()));
  }
  JobQueue other;
  other.Take(queue);
  EXPECT_TRUE(queue.Empty());
  EXPECT_EQ(other.Pop(), jobs[1]->get());
  EXPECT_EQ(other.Pop(), jobs[3]->get());
  EXPECT_TRUE(other.Empty());
}

}  // namespace
}  // namespace vesk_test

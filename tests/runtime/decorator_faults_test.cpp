// A store that fails by rules: which jobs, when, for how long, and what comes of them.

#include "runtime/decorator_faults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "runtime/backend_memory.h"
#include "runtime/decorator_latency.h"
#include "runtime/dispatcher.h"
#include "runtime/name_operation.h"
#include "runtime/store.h"
#include "tests/support/jobs.h"
#include "tests/support/manual_clock.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskLock.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::Clock;
using vesk::FaultRule;
using vesk::FaultsDecorator;
using vesk::LatencyDecorator;
using vesk::VeskBundler;
using vesk::VeskJob;
using Effect = FaultRule::Effect;
using When = FaultRule::When;

// Tells how many jobs came by, and which way.
class Counting : public vesk::Decorator {
 public:
  using Decorator::Decorator;

  void Start(vesk::JobQueue& jobs) override {
    ++starts;
    Decorator::Start(jobs);
  }
  void Run(VeskJob* job) override {
    ++runs;
    Decorator::Run(job);
  }
  void JobEnded(VeskJob* job, int result) override {
    ++reached;
    Decorator::JobEnded(job, result);
  }

  std::atomic<int> starts{0};
  std::atomic<int> runs{0};
  std::atomic<int> reached{0};
};

FaultRule Rule(vesk::FaultOperations operations = vesk::kFaultAll, int error = EIO) {
  FaultRule rule;
  rule.operations = operations;
  rule.error = error;
  return rule;
}

class FaultsTest : public ::testing::Test {
 protected:
  struct Stack {
    Stack(const std::vector<FaultRule>& rules, Clock& clock)
        : faults(store, rules, clock), bundler(faults, clock) {}

    vesk::MemoryBackend memory;
    Counting store{memory};
    FaultsDecorator faults;
    VeskBundler bundler;
    vesk::Store names{bundler};
  };

  // A file "f" of ten bytes is there.
  FaultsDecorator& Make(const std::vector<FaultRule>& rules) {
    stack_ = std::make_unique<Stack>(rules, clock_);
    stack_->faults.SetOn(false);
    EXPECT_EQ(stack_->names.Create("f", 0600), 0);
    EXPECT_EQ(Write("f", "0123456789"), 0);
    stack_->faults.SetOn(true);
    stack_->store.reached = 0;
    return stack_->faults;
  }
  FaultsDecorator& Make(const FaultRule& rule) { return Make(std::vector<FaultRule>{rule}); }

  VeskJob* Submit(VeskJob* job) {
    jobs_.push_back(std::make_unique<JobHolder>(job));
    stack_->bundler.SubmitJob(job);
    return job;
  }
  int Result(VeskJob* job) {
    if (!job->WaitUntilDone(Clock::System(), Clock::System().Now() + seconds(20), nullptr)) {
      ADD_FAILURE() << "the job does not end";
      return -1;
    }
    return job->GetReturnValue();
  }
  VeskJob* SubmitWrite(const std::string& name) { return Submit(NewWrite(name, "x", 1, 0)); }
  int Write(const std::string& name, const std::string& bytes = "x") {
    return Result(Submit(NewWrite(name, bytes.data(), static_cast<unsigned>(bytes.size()), 0)));
  }
  std::size_t ReadCount(unsigned int length, unsigned long offset = 0) {
    std::string bytes(length, '?');
    unsigned int count = 0;
    EXPECT_EQ(Result(Submit(NewRead("f", bytes.data(), length, offset, &count))), 0);
    return count;
  }

  // What so many writes come to: '.' ended well, 'X' failed.
  std::string Writes(int count) {
    std::string results;
    for (int i = 0; i < count; ++i) results += Write("f") == 0 ? '.' : 'X';
    return results;
  }
  std::string WritesWith(const FaultRule& rule, int count) {
    Make(rule);
    return Writes(count);
  }

  ManualClock clock_;
  std::vector<std::unique_ptr<JobHolder>> jobs_;
  std::unique_ptr<Stack> stack_;
};

// ---- which operations ----

TEST_F(FaultsTest, EveryOperationHasABitOfItsOwn) {
  char byte = 0;
  unsigned int count = 0;
  const auto info = std::make_shared<vesk::FileInfo>();
  const auto extent = std::make_shared<vesk::Extent>();
  const auto job = [&](vesk::FaultOperations operation) -> VeskJob* {
    switch (operation) {
      case vesk::kFaultRead: return NewRead("f", &byte, 1, 0, &count);
      case vesk::kFaultWrite: return NewWrite("f", "x", 1, 0);
      case vesk::kFaultStat: return vesk::NewNameJob(vesk::OPCODE_STAT, "f", {}, 0, info);
      case vesk::kFaultOpen: return vesk::NewNameJob(vesk::OPCODE_OPEN, "f");
      case vesk::kFaultCreate: return vesk::NewNameJob(vesk::OPCODE_CREATE, "g", {}, 0600);
      case vesk::kFaultTruncate: return vesk::NewNameJob(vesk::OPCODE_TRUNCATE, "f", {}, 1);
      case vesk::kFaultNextData:
        return vesk::NewNameJob(vesk::OPCODE_NEXT_DATA, "f", {}, 0, extent);
      case vesk::kFaultSync: return vesk::NewNameJob(vesk::OPCODE_SYNC, "f");
      case vesk::kFaultRename: return vesk::NewNameJob(vesk::OPCODE_RENAME, "f", "h");
      case vesk::kFaultRemove: return vesk::NewNameJob(vesk::OPCODE_REMOVE, "f");
      default: return vesk::NewNameJob(vesk::OPCODE_SET_PERMISSIONS, "f", {}, 0600);
    }
  };
  for (unsigned rule = 0; rule < 11; ++rule) {
    for (unsigned operation = 0; operation < 11; ++operation) {
      Make(Rule(1u << rule, ENOSPC));
      EXPECT_EQ(Result(Submit(job(1u << operation))), rule == operation ? ENOSPC : 0)
          << "rule " << rule << ", operation " << operation;
      EXPECT_EQ(stack_->store.reached, rule == operation ? 0 : 1);
    }
  }
  Make(Rule(vesk::kFaultTransfers));
  EXPECT_EQ(Write("f"), EIO);
  EXPECT_EQ(stack_->names.Sync("f"), 0);
  Make(Rule(vesk::kFaultAll & ~vesk::kFaultSync));
  EXPECT_EQ(Result(Submit(vesk::NewNameJob(12345, "f"))), ENOTSUP) << "it has no bit";
  Make(Rule());
  EXPECT_EQ(Result(Submit(vesk::NewNameJob(12345, "f"))), EIO);
}

TEST_F(FaultsTest, ANameIsMatchedAsAPattern) {
  FaultRule rule = Rule();
  rule.name = "*/data-?.bin";
  Make(rule);
  EXPECT_EQ(Write("a/b/data-1.bin"), EIO);
  EXPECT_EQ(Write("data-1.bin"), ENOENT) << "passed on to a store that has no such file";
  EXPECT_EQ(Write("a/data-12.bin"), ENOENT);
  EXPECT_EQ(stack_->names.Rename("f", "a/data-2.bin"), EIO) << "either name of a rename";
  EXPECT_EQ(stack_->names.Rename("f", "g"), 0);
  EXPECT_EQ(stack_->faults.GetCounts()[0].matched, 2u);
}

// ---- when ----

TEST_F(FaultsTest, RulesChooseByNumber) {
  struct Row {
    When when;
    std::uint64_t number, after, times;
    const char* expected;
  };
  // clang-format off
  const Row rows[] = {
      {When::kAlways, 1, 0, 0, "XXXXXXXXXX"},
      {When::kAlways, 1, 3, 0, "...XXXXXXX"},
      {When::kAlways, 1, 0, 2, "XX........"},
      {When::kAlways, 1, 3, 2, "...XX....."},
      {When::kNth,    1, 0, 0, "X........."},
      {When::kNth,    4, 0, 0, "...X......"},
      {When::kNth,    4, 2, 0, ".....X...."},
      {When::kEvery,  1, 0, 0, "XXXXXXXXXX"},
      {When::kEvery,  3, 0, 0, "..X..X..X."},
      {When::kEvery,  3, 1, 0, "...X..X..X"},
      {When::kEvery,  3, 0, 2, "..X..X...."},
  };
  // clang-format on
  for (const Row& row : rows) {
    FaultRule rule = Rule(vesk::kFaultWrite);
    rule.when = row.when;
    rule.number = row.number;
    rule.after = row.after;
    rule.times = row.times;
    EXPECT_EQ(WritesWith(rule, 10), row.expected);
    const std::string expected = row.expected;
    const FaultsDecorator::Counts counts = stack_->faults.GetCounts()[0];
    EXPECT_EQ(counts.matched, 10u);
    EXPECT_EQ(counts.faulted,
              static_cast<std::uint64_t>(std::count(expected.begin(), expected.end(), 'X')));
  }
}

TEST_F(FaultsTest, OnlyMatchingOperationsCount) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.when = When::kNth;
  rule.number = 2;
  Make(rule);
  EXPECT_EQ(Write("f"), 0);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(stack_->names.Sync("f"), 0);
  EXPECT_EQ(Write("f"), EIO);
}

TEST_F(FaultsTest, ChanceIsRepeatedByItsSeed) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.when = When::kChance;
  rule.chance = 0.25;
  const std::string results = WritesWith(rule, 2000);
  EXPECT_EQ(WritesWith(rule, 2000), results);
  const auto failed = std::count(results.begin(), results.end(), 'X');
  EXPECT_GT(failed, 400);
  EXPECT_LT(failed, 600);
  rule.seed = 2;
  EXPECT_NE(WritesWith(rule, 2000), results);
  rule.chance = 0;
  EXPECT_EQ(WritesWith(rule, 100), std::string(100, '.'));
  rule.chance = 1;
  EXPECT_EQ(WritesWith(rule, 100), std::string(100, 'X'));
}

TEST_F(FaultsTest, ARuleRecoversSoLongAfterItsFirstFault) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.after = 1;
  rule.lasts = seconds(2);
  Make(rule);
  EXPECT_EQ(Writes(1), ".");
  clock_.Advance(seconds(50));
  EXPECT_EQ(Writes(2), "XX") << "its time begins with the first fault";
  clock_.Advance(seconds(2) - milliseconds(1));
  EXPECT_EQ(Writes(2), "XX");
  clock_.Advance(milliseconds(1));
  EXPECT_EQ(Writes(3), "...");
}

TEST_F(FaultsTest, TheFirstRuleThatFaultsHasTheJob) {
  FaultRule nth = Rule(vesk::kFaultWrite, ENOSPC);
  nth.when = When::kNth;
  nth.number = 2;
  FaultRule every = Rule(vesk::kFaultTransfers, EIO);
  every.when = When::kEvery;
  every.number = 2;
  Make({nth, every});
  EXPECT_EQ(Write("f"), 0);       // 1, 1
  EXPECT_EQ(Write("f"), ENOSPC);  // 2, not asked
  EXPECT_EQ(Write("f"), EIO);     // 3, 2
  EXPECT_EQ(stack_->faults.GetCounts()[0].matched, 3u);
  EXPECT_EQ(stack_->faults.GetCounts()[1].matched, 2u);
  EXPECT_EQ(stack_->faults.GetCounts()[1].faulted, 1u);
}

TEST_F(FaultsTest, SwitchedOffEverythingPassesUncounted) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.when = When::kEvery;
  rule.number = 3;
  FaultsDecorator& faults = Make(rule);
  EXPECT_EQ(Writes(2), "..");
  faults.SetOn(false);
  EXPECT_EQ(Writes(5), ".....");
  faults.SetOn(true);
  EXPECT_EQ(Writes(4), "X..X") << "it goes on where it stood";
  EXPECT_EQ(faults.GetCounts()[0].matched, 6u);
}

TEST_F(FaultsTest, CountsExactlyWhenManyThreadsCome) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.when = When::kEvery;
  rule.number = 10;
  FaultRule shorten = Rule(vesk::kFaultRead);
  shorten.effect = Effect::kShort;
  Make({rule, shorten});
  std::atomic<int> failed{0};
  std::atomic<int> whole{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 250; ++round) {
        const JobHolder write(NewWrite("f", "x", 1, 0));
        char bytes[10];
        unsigned int count = 0;
        const JobHolder read(NewRead("f", bytes, 10, 0, &count));
        for (const JobHolder* job : {&write, &read}) {
          stack_->bundler.SubmitJob(job->get());
          stack_->bundler.WaitForJob(job->get(), nullptr, "test");
        }
        failed += write->GetReturnValue() == EIO ? 1 : 0;
        whole += count == 10 ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failed, 200);
  EXPECT_EQ(whole, 0);
  EXPECT_EQ(stack_->faults.GetCounts()[0].matched, 2000u);
  EXPECT_EQ(stack_->faults.GetCounts()[0].faulted, 200u);
}

// ---- what comes of it ----

TEST_F(FaultsTest, AShortReadEndsWellWithFewerBytes) {
  FaultRule rule = Rule(vesk::kFaultRead);
  rule.effect = Effect::kShort;
  const auto counts = [&] {
    Make(rule);
    std::vector<std::size_t> all;
    for (int i = 0; i < 100; ++i) all.push_back(ReadCount(10));
    return all;
  };
  const std::vector<std::size_t> all = counts();
  for (const std::size_t count : all) EXPECT_TRUE(count >= 1 && count <= 9) << count;
  for (std::size_t count = 1; count <= 9; ++count) {
    EXPECT_NE(std::find(all.begin(), all.end(), count), all.end()) << count << " never happens";
  }
  EXPECT_EQ(counts(), all) << "the seed repeats it";
  EXPECT_EQ(ReadCount(1), 1u) << "nothing at all would be the end of the file";
  EXPECT_EQ(ReadCount(10, 10), 0u);
  EXPECT_EQ(Write("f"), 0);
}

TEST_F(FaultsTest, AFailedReadIsNotShortenedAndItsRecordDoesNotStay) {
  FaultRule rule = Rule(vesk::kFaultRead);
  rule.effect = Effect::kShort;
  rule.times = 1;
  Make(rule);
  char byte = 0;
  unsigned int count = 7;
  EXPECT_EQ(Result(Submit(NewRead("absent", &byte, 1, 0, &count))), ENOENT);
  EXPECT_EQ(count, 7u);
  EXPECT_EQ(ReadCount(10), 10u);
}

TEST_F(FaultsTest, AHeldJobEndsByCancelAll) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.effect = Effect::kNever;
  FaultsDecorator& faults = Make(rule);
  VeskJob* const held = SubmitWrite("f");
  clock_.Advance(seconds(1000000));
  EXPECT_EQ(held->GetJobState(), vesk::JOB_STATE_SUBMITTED);
  EXPECT_EQ(stack_->names.Sync("f"), 0) << "others pass";
  faults.CancelAll(ECANCELED);
  EXPECT_EQ(held->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(Result(held), ECANCELED);
  EXPECT_EQ(Write("f"), ECANCELED);
  EXPECT_EQ(stack_->names.Sync("f"), ECANCELED);
}

TEST_F(FaultsTest, AHeldJobIsPerformedWhenTheRuleHasRecovered) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.effect = Effect::kNever;
  rule.lasts = seconds(2);
  Make(rule);
  VeskJob* const first = SubmitWrite("f");
  clock_.Advance(seconds(1));
  VeskJob* const second = SubmitWrite("f");
  clock_.Advance(milliseconds(999));
  std::this_thread::sleep_for(milliseconds(20));  // for an end that should not come yet
  EXPECT_EQ(first->GetJobState(), vesk::JOB_STATE_SUBMITTED);
  EXPECT_EQ(stack_->store.reached, 0);
  clock_.Advance(milliseconds(1));
  EXPECT_EQ(Result(first), 0);
  EXPECT_EQ(Result(second), 0);
  EXPECT_EQ(stack_->store.reached, 2);
  EXPECT_EQ(Write("f"), 0);
}

TEST_F(FaultsTest, AHeldJobIsPerformedWhenFaultsAreSwitchedOff) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.effect = Effect::kNever;
  rule.times = 2;
  FaultsDecorator& faults = Make(rule);
  VeskJob* const first = SubmitWrite("f");
  VeskJob* const second = SubmitWrite("f");
  EXPECT_EQ(Write("f"), 0) << "the rule has recovered, which frees nobody";
  faults.SetOn(true);
  EXPECT_EQ(Write("f"), 0) << "nor does switching on what is on";
  EXPECT_EQ(first->GetJobState(), vesk::JOB_STATE_SUBMITTED);
  faults.SetOn(false);
  EXPECT_EQ(Result(first), 0);
  EXPECT_EQ(Result(second), 0);
}

// ---- what stays as it was ----

TEST_F(FaultsTest, WhatPassesGoesDownAsOneBatchAndIsCountedOnce) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.when = When::kEvery;
  rule.number = 4;
  FaultsDecorator& faults = Make(rule);
  stack_->store.starts = 0;
  std::vector<VeskJob*> jobs;
  {
    vesk::VeskLock lock;
    const std::lock_guard<vesk::VeskLock> guard(lock);
    for (int i = 0; i < 8; ++i) jobs.push_back(SubmitWrite("f"));
  }
  EXPECT_EQ(stack_->store.starts, 1);
  for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(Result(jobs[i]), i % 4 == 3 ? EIO : 0);
  EXPECT_FALSE(faults.Withdraw(jobs[0]));
  EXPECT_EQ(faults.GetCounts()[0].matched, 8u);
}

TEST_F(FaultsTest, AWaitingThreadStillRunsItsJobItself) {
  FaultRule rule = Rule(vesk::kFaultWrite);
  rule.when = When::kNth;
  Make(rule);
  stack_->store.starts = 0;
  for (const int expected : {EIO, 0}) {
    vesk::VeskLock lock;
    lock.lock();
    VeskJob* const job = SubmitWrite("f");
    stack_->bundler.WaitForJob(job, &lock, "test");
    lock.unlock();
    EXPECT_EQ(job->GetReturnValue(), expected);
  }
  EXPECT_EQ(stack_->store.starts, 0);
  EXPECT_EQ(stack_->store.runs, 1);
}

// ---- with another decorator ----

TEST_F(FaultsTest, InFrontOfLatencyAFaultComesAtOnce) {
  vesk::MemoryBackend memory;
  LatencyDecorator latency(memory, {seconds(1)}, clock_);
  FaultsDecorator faults(latency, {Rule(vesk::kFaultWrite)}, clock_);
  VeskBundler bundler(faults, clock_);
  const JobHolder job(NewWrite("f", "x", 1, 0));
  bundler.SubmitJob(job.get());
  EXPECT_EQ(job->GetJobState(), vesk::JOB_STATE_DONE);
  EXPECT_EQ(job->GetReturnValue(), EIO);
}

TEST_F(FaultsTest, BehindLatencyAFaultTakesTheLatency) {
  vesk::MemoryBackend memory;
  FaultsDecorator faults(memory, {Rule(vesk::kFaultWrite)}, clock_);
  LatencyDecorator latency(faults, {seconds(1)}, clock_);
  VeskBundler bundler(latency, clock_);
  const JobHolder job(NewWrite("f", "x", 1, 0));
  bundler.SubmitJob(job.get());
  EXPECT_EQ(job->GetJobState(), vesk::JOB_STATE_SUBMITTED);
  EXPECT_EQ(faults.GetCounts()[0].matched, 0u);
  clock_.Advance(seconds(1));
  EXPECT_EQ(Result(job.get()), EIO);
  EXPECT_EQ(faults.GetCounts()[0].matched, 1u);
}

}  // namespace
}  // namespace vesk_test

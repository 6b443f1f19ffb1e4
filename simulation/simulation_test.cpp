// The file-access layer in a simulated world: by chance, exhaustively, with each thing failing in
// turn, and once more what has gone wrong before.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <unordered_set>
#include <vector>

#include "simulation/runner.h"

namespace vesk_simulation {
namespace {

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

Scenario SeedWithoutTroubles(std::uint64_t seed) {
  Scenario scenario = FromSeed(seed);
  for (Step& step : scenario.steps) {
    if (step.what == Do::kEnd) step.b = 0;
    if (step.what < Do::kRun) step.c &= 15;
    if (step.what == Do::kFailAllocation || step.what == Do::kCancel) step.what = Do::kRun;
  }
  return scenario;
}

TEST(SimulationTest, AnySeedKeepsEveryPromise) {
  const std::uint64_t first = FromEnvironment("VESK_SIMULATION_SEED", 1);
  const std::uint64_t count = FromEnvironment("VESK_SIMULATION_SEEDS", 2000);
  Totals totals;
  const std::uint64_t failed = RunSeeds(
      first, first + count, [] { return true; }, &totals);
  std::cout << ToText(totals) << "\n";
  if (failed == 0) return;
  const bool shrinks = FromEnvironment("VESK_SIMULATION_SHRINK", 1) != 0;
  const Scenario scenario = shrinks ? Shrink(FromSeed(failed)) : FromSeed(failed);
  FAIL() << "seed " << failed << ": " << Report(scenario, RunApart(scenario));
}

// A store that lies cannot be made up for: the checks have to see it.
class LyingStoreTest : public ::testing::TestWithParam<Lie> {};

INSTANTIATE_TEST_SUITE_P(Lies, LyingStoreTest,
                         ::testing::Values(Lie::kSync, Lie::kWrite, Lie::kRead));

TEST_P(LyingStoreTest, IsFoundOut) {
  int found = 0;
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    Scenario scenario = SeedWithoutTroubles(seed);
    scenario.shape.lies = static_cast<std::uint32_t>(GetParam());
    if (!RunApart(scenario).empty()) ++found;
  }
  EXPECT_GE(found, 10) << "of 40 runs";
}

// ---- small scope ----

// Every sequence of these steps, up to a length, in which each has something to do and no more than
// one is a fault.
class SmallScope {
 public:
  SmallScope(const Shape& shape, std::vector<Step> steps, std::vector<Step> faults)
      : steps_(std::move(steps)), faults_(std::move(faults)) {
    scenario_.shape = shape;
    scenario_.shape.eager = 1;
  }

  void Explore(std::size_t depth, bool faulty = false) {
    if (depth == 0 || ::testing::Test::HasFailure()) return;
    for (const Step& step : steps_) Try(step, depth, faulty);
    for (const Step& step : faults_) {
      if (!faulty) Try(step, depth, true);
    }
  }

  std::uint64_t sequences() const { return sequences_; }
  std::size_t states() const { return states_.size(); }

 private:
  void Try(const Step& step, std::size_t depth, bool faulty) {
    scenario_.steps.push_back(step);
    World world(scenario_);
    std::size_t left = scenario_.steps.size();
    bool idle = false;
    world.on_step = [&](const Step& /*step*/, const World& after) {
      if (--left > 0) return;
      idle = after.idle_step();
      if (!idle) states_.insert(std::hash<std::string>()(after.Describe()));
    };
    const std::string failure = world.Run();
    if (!failure.empty()) {
      ADD_FAILURE() << Report(scenario_, failure);
    } else if (!idle) {
      ++sequences_;
      Explore(depth - 1, faulty);
    }
    scenario_.steps.pop_back();
  }

  const std::vector<Step> steps_;
  const std::vector<Step> faults_;
  Scenario scenario_;
  std::uint64_t sequences_ = 0;
  std::unordered_set<std::size_t> states_;
};

// Two clients, three blocks of two bytes, memory for two of them.
TEST(SmallScopeTest, EverySequenceOfRequestsAndEndsKeepsEveryPromise) {
  const std::size_t depth = FromEnvironment("VESK_SIMULATION_DEPTH", 4);
  const std::vector<Step> steps = {
      {Do::kWrite, 0, 0, 0, 7},  {Do::kWrite, 0, 3, 1, 7},   {Do::kRead, 1, 0, 5, 7},
      {Do::kRead, 0, 4, 0, 7},   {Do::kSync, 0, 0, 0, 7},    {Do::kTruncate, 1, 1, 0, 7},
      {Do::kFlush, 1, 0, 0, 7},  {Do::kDiscard, 1, 0, 0, 7}, {Do::kReopen, 0, 0, 0, 7},
      {Do::kAppend, 1, 0, 1, 7}, {Do::kAdvance, 0, 2, 0, 0}, {Do::kCrash, 0, 1, 0, 0},
      {Do::kEnd, 0, 0, 0, 7},    {Do::kEnd, 1, 0, 0, 7}};
  const std::vector<Step> faults = {
      {Do::kEnd, 0, 0, 1, 7}, {Do::kEnd, 0, 0, 2, 7}, {Do::kEnd, 0, 0, 3, 7}};
  std::uint64_t sequences = 0;
  std::size_t states = 0;
  for (const std::uint32_t retry : {0u, 1u}) {
    Shape shape;
    shape.size = 5;
    shape.block_size = 2;
    shape.memory = 4;
    shape.dirty_soft = shape.dirty_hard = 100;
    shape.read_ahead = 1 - retry;
    shape.retry = retry;
    SmallScope scope(shape, steps, faults);
    scope.Explore(depth);
    sequences += scope.sequences();
    states += scope.states();
  }
  std::cout << "sequences of up to " << depth << " steps: " << sequences << ", states: " << states
            << "\n";
  EXPECT_GT(sequences, 1000u);
}

// ---- the n-th fails ----

// Runs the scenario with the first, second, ... allocation or job failing, until it has no more.
void FailEach(const Scenario& scenario, FailingPlan plan, long FailingPlan::*nth,
              std::uint64_t* runs) {
  for (bool reached = true; reached && !::testing::Test::HasFailure(); ++*runs) {
    ++(plan.*nth);
    Totals totals;
    const std::string failure = Run(scenario, &totals, plan, &reached);
    if (!failure.empty()) {
      ADD_FAILURE() << "the " << plan.*nth << "th fails: " << Report(scenario, failure);
    }
  }
}

// Requests that seldom meet a failure by chance.
const char* const kFixed[] = {
    "clients=2 eager=1; write 0 0 5 7; rename 0 0 0 7; end; end; end; end; end; end; end; end; "
    "end; end; "
    "write 1 3 4 7; sync 0 0 0 7; end; end; read 1 0 9 7; end; rename 1 0 0 7; end; end; end; end; "
    "end",
    "clients=2 eager=1 retry=1 background=1; append 0 0 9 7; truncate 1 3 0 7; end; end; end; "
    "reopen 0 0 0 7; "
    "end; end; end; end; discard 1 0 0 7; write 1 60 20 7; syncall 0 0 0 7; end; end; end; end; "
    "end",
};

TEST(NthFailureTest, WhicheverFailsNothingIsLostWithoutAReport) {
  const std::uint64_t first = FromEnvironment("VESK_SIMULATION_SEED", 1);
  const std::uint64_t count = FromEnvironment("VESK_SIMULATION_NTH_SEEDS", 6);
  std::uint64_t allocations = 0;
  std::uint64_t jobs = 0;
  std::vector<Scenario> scenarios;
  for (const char* const text : kFixed) scenarios.push_back(FromText(text));
  for (std::uint64_t seed = first; seed < first + count; ++seed) {
    scenarios.push_back(SeedWithoutTroubles(seed));
    if (scenarios.back().steps.size() > 120) scenarios.back().steps.resize(120);
  }
  for (const Scenario& scenario : scenarios) {
    for (const bool for_ever : {false, true}) {
      FailingPlan plan;
      plan.for_ever = plan.jobs_for_ever = for_ever;
      FailEach(scenario, plan, &FailingPlan::nth, &allocations);
      FailEach(scenario, plan, &FailingPlan::nth_job, &jobs);
    }
  }
  std::cout << allocations << " runs with a failing allocation, " << jobs
            << " with a failing job\n";
  EXPECT_GT(allocations, 100u);
  EXPECT_GT(jobs, 20u);
}

// ---- what has gone wrong before ----

TEST(FoundBeforeTest, StaysMended) {
  std::ifstream file(VESK_SOURCE_DIR "/simulation/found.txt");
  ASSERT_TRUE(file.good());
  int count = 0;
  std::string what;
  for (std::string line; std::getline(file, line);) {
    if (line.empty()) continue;
    if (line[0] == '#') {
      what = line;
      continue;
    }
    ++count;
    EXPECT_EQ(RunApart(FromText(line)), "") << what << "\n" << line;
  }
  EXPECT_GT(count, 5);
}

}  // namespace
}  // namespace vesk_simulation

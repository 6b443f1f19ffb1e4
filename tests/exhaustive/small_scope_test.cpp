// Every sequence of operations on two or three small blocks, up to a bound: with all orders in
// which jobs end, and one fault at each point. Of states that are equal in all that what follows
// can depend on, one is gone on from.
//
// VESK_EXHAUSTIVE_DEPTH is by how many operations more than by default the sequences are longer.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "tests/exhaustive/driver.h"
#include "tests/exhaustive/mirror.h"
#include "tests/exhaustive/search.h"

namespace vesk_test {

namespace {

// An operation: one step, or one that is put into the next wait.
struct Operation {
  Steps steps;
  bool is_fault = false;
};

using Operations = std::vector<Operation>;

constexpr std::uint8_t kWell = 0, kFails = 4, kEndOfFile = 5, kComesShort = 6, kIsEmpty = 7;
constexpr std::uint8_t kWaitEndsWell = 0, kWaitFails = 1, kWaitGivesUp = 2;

struct Scope {
  const char* name;
  unsigned int depth;
  std::string settings;
  Operations operations;
};

void Add(Operations& operations, Kind kind, unsigned int a, unsigned int b, unsigned int c,
         bool is_fault = false) {
  operations.push_back({{{kind, static_cast<std::uint8_t>(a), static_cast<std::uint8_t>(b),
                          static_cast<std::uint8_t>(c)}},
                        is_fault});
}

// The same steps, taken while something else waits.
void AddInWaits(Operations& operations) {
  for (const Step& step : {Step{Kind::kRead, 0, 0, kWaitEndsWell}, Step{Kind::kWrite, 0, 1, 0},
                           Step{Kind::kEnd, 0, kWell, 0}, Step{Kind::kFlush, 0, 0, 0}}) {
    operations.push_back({{{Kind::kInWait, 0, 0, 0}, step}});
  }
}

// Blocks of two bytes: requests inside one, across two, and beyond.
Operations Requests(unsigned int span) {
  Operations all;
  for (unsigned int off = 0; off < span; ++off) {
    Add(all, Kind::kRead, off, off % 2, kWaitEndsWell);
    Add(all, Kind::kWrite, off, off % 2 == 0 ? 1 : 0, kWaitEndsWell);
  }
  Add(all, Kind::kRead, 0, 3, kWaitGivesUp);
  Add(all, Kind::kRead, 0, 1, kWaitFails, true);
  Add(all, Kind::kWrite, 0, 0, kWaitGivesUp);
  Add(all, Kind::kWrite, 1, 2, kWaitEndsWell);
  Add(all, Kind::kFlush, 0, 0, 0);
  Add(all, Kind::kFlush, 1, 0, kWaitEndsWell);
  Add(all, Kind::kFlush, 3, 0, kWaitFails, true);
  return all;
}

void AddEnds(Operations& operations) {
  for (unsigned int job = 0; job < 3; ++job) {
    Add(operations, Kind::kEnd, job, kWell, 0);
    Add(operations, Kind::kEnd, job, kFails, 1, true);
  }
}

constexpr int kCarefulScope = 1;  // which of them

std::vector<Scope> Scopes() {
  const std::string common = " base=0 block=2 pool=1 values=2 ";
  std::vector<Scope> scopes;

  Operations plain = Requests(4);
  AddEnds(plain);
  Add(plain, Kind::kTruncate, 1, 0, 0);
  Add(plain, Kind::kTruncate, 4, 0, 0);
  Add(plain, Kind::kDirty, 0, 0, 0);
  scopes.push_back({"two blocks", 4, common + "span=4 stored=3 maxbufs=1", plain});

  scopes.push_back(
      {"two blocks, a careful caller", 4, common + "span=4 stored=3 maxbufs=1 careful=1", plain});

  Operations ahead = Requests(6);
  AddEnds(ahead);
  Add(ahead, Kind::kSplit, 1, 0, 0);
  Add(ahead, Kind::kShrink, 5, 0, kWaitEndsWell);
  Add(ahead, Kind::kRemoveEof, 0, 0, 0);
  Add(ahead, Kind::kClock, 2, 1, 0);
  scopes.push_back({"three blocks, read ahead, blocks that grow old", 3,
                    common + "span=6 stored=5 maxbufs=3 ahead=1 refresh=1", ahead});

  Operations lying = Requests(4);
  for (const std::uint8_t how : {kEndOfFile, kComesShort, kIsEmpty}) {
    Add(lying, Kind::kEnd, 0, how, 1);
  }
  AddEnds(lying);
  Add(lying, Kind::kNoMemory, 0, 0, 0, true);
  Add(lying, Kind::kNoMemory, 1, 0, 0, true);
  AddInWaits(lying);
  scopes.push_back({"two blocks, a store that lies, other threads in waits", 3,
                    common + "span=4 stored=4 maxbufs=2 lies=1", lying});
  return scopes;
}

struct State {
  Steps steps;  // the way there
  bool had_fault = false;
};

// How many sequences there are of up to `length` operations, with one fault at most.
double Sequences(const Operations& operations, unsigned int length) {
  double well = 0, faults = 0, all = 0;
  for (const Operation& operation : operations) ++(operation.is_fault ? faults : well);
  double with_none = 1, with_one = 0;
  for (unsigned int i = 0; i < length; ++i) {
    with_one = with_one * well + with_none * faults;
    with_none *= well;
    all += with_none + with_one;
  }
  return all;
}

// One transition, from the beginning; what breaks, and the fingerprint of where it leads.
using Follow = std::string (*)(const Case& c, std::string* fingerprint);

std::string FollowCache(const Case& c, std::string* fingerprint) {
  World world(c.settings);
  for (const Step& step : c.steps) world.Do(step);
  *fingerprint = world.over() ? std::string() : world.Fingerprint();
  world.Settle();
  return world.broken();
}

bool Explore(const Scope& scope, unsigned int depth, Follow follow,
             const std::function<void(const Tried&)>& trying) {
  const Settings settings = FromText(scope.settings).settings;
  unsigned long transitions = 0;
  std::unordered_set<std::size_t> met;
  std::vector<State> reached = {State{}};
  for (unsigned int length = 1; length <= depth; ++length) {
    std::vector<State> next;
    for (const State& from : reached) {
      for (const Operation& operation : scope.operations) {
        if (operation.is_fault && from.had_fault) continue;
        State to{from.steps, from.had_fault || operation.is_fault};
        to.steps.insert(to.steps.end(), operation.steps.begin(), operation.steps.end());
        const Tried tried{length, {settings, to.steps}};
        trying(tried);
        std::string fingerprint;
        ++transitions;
        if (!follow(tried.c, &fingerprint).empty()) return false;
        fingerprint += to.had_fault ? '!' : '.';
        if (met.insert(std::hash<std::string>()(fingerprint)).second) next.push_back(std::move(to));
      }
    }
    reached = std::move(next);
  }
  std::printf("%s: %.0f sequences of up to %u operations, %zu states, %lu transitions\n",
              scope.name, Sequences(scope.operations, depth), depth, met.size(), transitions);
  return true;
}

void ExploreAll(const std::vector<Scope>& scopes, unsigned int depth_less, Follow follow,
                const Trial& trial) {
  const auto deeper = static_cast<unsigned int>(FromEnvironment("VESK_EXHAUSTIVE_DEPTH", 0));
  for (const Scope& scope : scopes) {
    const auto failing = FirstFailing([&](const auto& trying) {
      return Explore(scope, scope.depth + deeper - depth_less, follow, trying);
    });
    if (!failing.has_value()) continue;
    ADD_FAILURE() << scope.name << ", after " << failing->number << " operations: "
                  << Report(failing->c, trial,
                            "exhaustive_tests --gtest_filter='SmallScopeTest.*'");
  }
}

TEST(SmallScopeTest, EverySequenceKeepsWhatMustHold) {
  ExploreAll(Scopes(), 0, FollowCache, [](const Case& c) { return RunCase(c).broken; });
}

// One operation less than above, since two are followed.
TEST(SmallScopeTest, EverySequenceIsTheSameForTheOracle) {
  std::vector<Scope> plain = Scopes();
  plain.erase(plain.begin() + kCarefulScope);
  ExploreAll(plain, 1, RunComparedAtEnd, RunCompared);
}

}  // namespace

}  // namespace vesk_test

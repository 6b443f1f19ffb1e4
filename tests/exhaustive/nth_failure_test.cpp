// Each allocation of a run, and each of its jobs, fails in turn: once, and from there on. Whatever
// it is, nothing leaks, everything holds that must, and no byte is lost without a report.

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/exhaustive/driver.h"
#include "tests/exhaustive/search.h"

namespace vesk_test {

namespace {

// Runs that between them come to every allocation of the cache.
constexpr const char* kScenarios[] = {
    // reads, with read-ahead, that are waited for
    "span=16 stored=16 block=4 maxbufs=9 ahead=2 refresh=9 | read-all 0 11 0 | read-all 3 5 0 | "
    "end "
    "0 0 0 | read-all 8 7 0",
    // the same with the end of the file among them
    "span=24 stored=6 block=4 maxbufs=9 ahead=3 refresh=9 | read-all 0 11 0 | write-all 6 9 0 | "
    "read-all 0 11 0",
    // writes that ship blocks on their way, and a flush that waits, then one that does not
    "span=24 stored=12 block=4 maxbufs=9 | write-all 0 5 0 | write-all 10 5 8 | write 1 0 0 | "
    "flush 1 "
    "0 0 | flush 1 0 0 | write 20 2 0 | flush 0 0 0 | end 0 0 0 | dirty 0 0 0",
    // blocks that are dropped behind a reader, written back first
    "span=24 stored=24 block=4 maxbufs=1 | write 0 3 0 | read-all 8 7 0 | read-all 12 7 0 | "
    "read-all "
    "20 3 0",
    // the same by a careful caller
    "span=24 stored=24 block=4 maxbufs=1 careful=1 | write 0 3 0 | read-all 8 7 0 | read-all 12 7 "
    "0 | "
    "write-all 20 3 0 | flush 1 0 0 | flush 1 0 0 | read-all 0 11 0",
    // a stream that is divided with jobs in flight
    "span=24 stored=24 block=4 maxbufs=9 ahead=2 refresh=9 | read-all 0 3 0 | write 12 3 0 | split "
    "9 0 "
    "0 | ahead 0 1 0 | end 0 0 0 | write 16 3 0 | flush 1 0 0 | truncate 20 0 0",
    // blocks made one by one
    "span=16 stored=8 block=4 maxbufs=9 | allocate 0 3 1 | allocate 0 3 2 | allocate 0 2 0 | end 0 "
    "0 0 "
    "| read-all 0 11 0",
};

std::string InWords(const char* what, bool later, long n) {
  return what + std::string(later ? " from no. " : " no. ") + std::to_string(n) + " fails: ";
}

// What breaks when one allocation fails, or one job, whichever it is.
std::string WhatBreaks(const Case& c) {
  for (const bool later : {false, true}) {
    for (long n = 1;; ++n) {
      const Outcome outcome = RunCase(c, Faults{n, later, 0, false});
      if (!outcome.broken.empty()) return InWords("allocation", later, n) + outcome.broken;
      if (!outcome.allocation_failed) break;
    }
    for (long n = 1;; ++n) {
      const Outcome outcome = RunCase(c, Faults{0, false, n, later});
      if (!outcome.broken.empty()) return InWords("job", later, n) + outcome.broken;
      if (!outcome.job_failed) break;
    }
  }
  return {};
}

Case Scenario(unsigned long number) {
  if (number < std::size(kScenarios)) return FromText(kScenarios[number]);
  std::mt19937 random(static_cast<std::mt19937::result_type>(number));
  return RandomCase(random);
}

// VESK_EXHAUSTIVE_SEED and ..._SEEDS choose the random ones among them: one for each hundred seeds,
// since each is run hundreds of times.
TEST(NthFailureTest, EachAllocationAndEachJobMayFail) {
  const unsigned long fixed = std::size(kScenarios);
  const unsigned long first = FromEnvironment("VESK_EXHAUSTIVE_SEED", fixed);
  const unsigned long count = (FromEnvironment("VESK_EXHAUSTIVE_SEEDS", 1500) + 99) / 100;
  const auto failing = FirstFailing([&](const auto& trying) {
    for (unsigned long i = 0; i < fixed + count; ++i) {
      const unsigned long number = i < fixed ? i : first + i - fixed;
      const Tried tried{number, Scenario(number)};
      trying(tried);
      if (!WhatBreaks(tried.c).empty()) return false;
    }
    return true;
  });
  if (!failing.has_value()) return;
  const std::string number = std::to_string(failing->number);
  FAIL() << "scenario " << number << ": "
         << Report(failing->c, WhatBreaks,
                   "VESK_EXHAUSTIVE_SEED=" + number +
                       " VESK_EXHAUSTIVE_SEEDS=1 exhaustive_tests "
                       "--gtest_filter='NthFailureTest.*'");
}

}  // namespace

}  // namespace vesk_test

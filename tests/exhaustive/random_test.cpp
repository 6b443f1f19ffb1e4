// Random steps under hostile settings. VESK_EXHAUSTIVE_SEED is the first seed, and
// VESK_EXHAUSTIVE_SEEDS says how many are tried.

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>

#include "tests/exhaustive/driver.h"
#include "tests/exhaustive/search.h"

namespace vesk_test {

namespace {

Case CaseOf(unsigned long seed) {
  std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
  return RandomCase(random);
}

std::string WhatBreaks(const Case& c) { return RunCase(c).broken; }

// A case as a failure has printed it.
void ExpectGood(const std::string& text) { EXPECT_EQ(WhatBreaks(FromText(text)), "") << text; }

TEST(RandomTest, AnyStepsInAnyOrderKeepWhatMustHold) {
  const unsigned long first = FromEnvironment("VESK_EXHAUSTIVE_SEED", 1);
  const unsigned long count = FromEnvironment("VESK_EXHAUSTIVE_SEEDS", 5000);
  const auto failing = FirstFailing([&](const auto& trying) {
    for (unsigned long seed = first; seed < first + count; ++seed) {
      const Tried tried{seed, CaseOf(seed)};
      trying(tried);
      if (!WhatBreaks(tried.c).empty()) return false;
    }
    return true;
  });
  if (!failing.has_value()) return;
  const std::string seed = std::to_string(failing->number);
  FAIL() << "seed " << seed << ": "
         << Report(failing->c, WhatBreaks,
                   "VESK_EXHAUSTIVE_SEED=" + seed +
                       " VESK_EXHAUSTIVE_SEEDS=1 exhaustive_tests "
                       "--gtest_filter='RandomTest.Any*'");
}

TEST(RandomTest, TheTextOfACaseIsTheCase) {
  for (unsigned long seed = 1; seed < 200; ++seed) {
    const std::string text = ToText(CaseOf(seed));
    EXPECT_EQ(ToText(FromText(text)), text);
  }
  EXPECT_THROW(FromText("block=4 | jump 1 2 3"), std::invalid_argument);
}

TEST(RandomTest, AFailureIsShrunkToTheStepsThatMakeIt) {
  const auto fails = [](const Case& c) {
    int writes = 0;
    for (const Step& step : c.steps) writes += step.kind == Kind::kWrite && step.a % 2 == 0 ? 1 : 0;
    return writes >= 3;
  };
  int tried = 0;
  for (unsigned long seed = 1; seed < 100; ++seed) {
    const Case c = CaseOf(seed);
    if (!fails(c)) continue;
    ++tried;
    const Case small = Shrunk(c, fails);
    EXPECT_TRUE(fails(small));
    EXPECT_EQ(small.steps.size(), 3u);
  }
  EXPECT_GT(tried, 10);
}

// Cases that were found once, each with what it is about.
TEST(RandomTest, CasesThatWereFoundStayGood) {
  // A caller that takes the ends of jobs itself, with a stream that is divided during a wait.
  ExpectGood(
      "base=0 span=64 stored=1 block=2 maxbufs=5 ahead=2 refresh=1 covered=0 pool=1 careful=1 "
      "lies=0 values=250 | write 71 171 21 | write 101 137 203 | read 128 77 77 | end 231 179 104 "
      "| write 39 67 233 | in-wait 59 20 148 | split 15 213 45 | flush 223 0 1");
  // A block whose read failed, a new one in its place, and a write to it during the wait.
  ExpectGood(
      "base=0 span=4 stored=2 block=4 maxbufs=3 ahead=0 refresh=3 covered=0 pool=0 careful=0 "
      "lies=1 values=250 | read 35 128 133 | read 148 211 49 | write 186 72 22 | in-wait 68 42 194 "
      "| end 216 241 202 | in-wait 79 246 218 | write 57 243 94 | write 79 230 103 | read 213 116 "
      "69 | read 186 104 116");
}

}  // namespace

}  // namespace vesk_test

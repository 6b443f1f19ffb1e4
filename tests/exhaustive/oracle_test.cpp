// The cache beside a second statement of its rules: the same random steps on both.
// VESK_EXHAUSTIVE_SEED and VESK_EXHAUSTIVE_SEEDS are as for the random test.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/exhaustive/mirror.h"
#include "tests/exhaustive/run_bytes.h"
#include "tests/exhaustive/search.h"

namespace vesk_test {

namespace {

TEST(OracleTest, ComparedWithTheOracle) {
  const unsigned long first = FromEnvironment("VESK_EXHAUSTIVE_SEED", 1);
  const unsigned long count = FromEnvironment("VESK_EXHAUSTIVE_SEEDS", 2000);
  const auto failing = FirstFailing([&](const auto& trying) {
    for (unsigned long seed = first; seed < first + count; ++seed) {
      std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
      Tried tried{seed, RandomCase(random)};
      tried.c.settings.careful = 0;
      trying(tried);
      if (!RunCompared(tried.c).empty()) return false;
    }
    return true;
  });
  if (!failing.has_value()) return;
  const std::string seed = std::to_string(failing->number);
  FAIL() << "seed " << seed << ": "
         << Report(failing->c, RunCompared,
                   "VESK_EXHAUSTIVE_SEED=" + seed +
                       " VESK_EXHAUSTIVE_SEEDS=1 exhaustive_tests "
                       "--gtest_filter='OracleTest.*'");
}

// Cases that were found once.
TEST(OracleTest, CasesThatWereFoundStayTheSame) {
  for (const char* const text : {
           // a read that the last block serves by itself fetches nothing ahead
           "base=2 span=4 stored=1 block=4 maxbufs=1 ahead=3 refresh=1000000 covered=1 lies=1 | "
           "truncate 254 52 89 | read 173 137 47 | read 127 203 132 | read-all 138 84 209",
           // a block in the rest of one that came short, out of date once a write has filled that
           "base=3 span=24 stored=0 block=4 maxbufs=1 refresh=1000000 | read 64 215 131 | read 90 "
           "92 "
           "241 | allocate 99 107 62 | flush 247 177 119 | read-all 136 145 31 | write-all 34 227 "
           "140 "
           "| read 114 37 76",
       }) {
    EXPECT_EQ(RunCompared(FromText(text)), "") << text;
  }
}

// What fuzzers hand over: any bytes, of any number.
TEST(OracleTest, AnyBytesAreACase) {
  std::mt19937 random(1);
  for (std::size_t count = 0; count < 300; ++count) {
    std::vector<std::uint8_t> bytes(count);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
    RunBytes(bytes.data(), bytes.size());
  }
}

}  // namespace

}  // namespace vesk_test

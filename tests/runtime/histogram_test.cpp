// Percentiles are exact to an eighth, the greatest value is exact.

#include "runtime/histogram.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace vesk_test {
namespace {

using vesk::Histogram;

TEST(HistogramTest, IsEmptyAtFirst) {
  const Histogram histogram;
  EXPECT_EQ(histogram.Count(), 0u);
  EXPECT_EQ(histogram.Percentile(0.5), 0u);
  EXPECT_EQ(histogram.Max(), 0u);
}

TEST(HistogramTest, OneValueIsEveryPercentile) {
  for (const std::uint64_t value :
       {std::uint64_t{0}, std::uint64_t{7}, std::uint64_t{8}, std::uint64_t{1000003},
        std::numeric_limits<std::uint64_t>::max()}) {
    Histogram histogram;
    histogram.Record(value);
    for (const double fraction : {0.0, 0.5, 0.99, 1.0}) {
      EXPECT_EQ(histogram.Percentile(fraction), value);
    }
  }
}

TEST(HistogramTest, ZeroCountsAsAnyOtherValue) {
  Histogram histogram;
  for (const std::uint64_t value : {0u, 0u, 0u, 10u}) histogram.Record(value);
  EXPECT_EQ(histogram.Percentile(0.5), 0u);
  EXPECT_EQ(histogram.Percentile(1.0), 10u);
}

TEST(HistogramTest, PercentilesAreExactToAnEighth) {
  Histogram histogram;
  std::uint64_t sum = 0;
  for (std::uint64_t i = 1; i <= 100000; ++i) {
    histogram.Record(i * 1000);
    sum += i * 1000;
  }
  for (const double fraction : {0.01, 0.5, 0.9, 0.99}) {
    const double exact = fraction * 1e8;
    const auto told = static_cast<double>(histogram.Percentile(fraction));
    EXPECT_GE(told, exact * 0.999) << fraction;
    EXPECT_LE(told, exact * 1.126) << fraction;
  }
  EXPECT_EQ(histogram.Percentile(1.0), 100000000u);
  EXPECT_EQ(histogram.Max(), 100000000u);
  EXPECT_EQ(histogram.Sum(), sum);
}

TEST(HistogramTest, EveryPowerOfTwoAndItsNeighboursKeepTheirOrder) {
  for (unsigned int bit = 1; bit < 63; ++bit) {
    Histogram histogram;
    const std::uint64_t power = std::uint64_t{1} << bit;
    histogram.Record(power - 1);
    histogram.Record(power);
    histogram.Record(power + power / 2);
    EXPECT_EQ(histogram.Percentile(0.3), power - 1);
    EXPECT_GE(histogram.Percentile(0.6), power);
    EXPECT_LT(histogram.Percentile(0.6), power + power / 4 + 1);
    EXPECT_EQ(histogram.Percentile(1.0), power + power / 2);
  }
}

}  // namespace
}  // namespace vesk_test

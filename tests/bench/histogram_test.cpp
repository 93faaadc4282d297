#include "bench/load/histogram.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>

namespace {

using Bench::Histogram;
using std::chrono::nanoseconds;

/// The histogram of one of each value from 1 to `last`.
Histogram upTo(std::int64_t last) {
  Histogram histogram;
  for (std::int64_t value = 1; value <= last; ++value) {
    histogram.add(nanoseconds(value));
  }
  return histogram;
}

TEST(Histogram, SaysNothingOfNothing) {
  const Histogram histogram;
  EXPECT_EQ(histogram.count(), 0U);
  EXPECT_EQ(histogram.quantile(0.5), nanoseconds(0));
  EXPECT_EQ(histogram.largest(), nanoseconds(0));
}

TEST(Histogram, KeepsShortDurationsExactly) {
  const Histogram histogram = upTo(100);
  EXPECT_EQ(histogram.quantile(0), nanoseconds(1));
  EXPECT_EQ(histogram.quantile(0.5), nanoseconds(51));
  EXPECT_EQ(histogram.quantile(0.99), nanoseconds(100));
}

TEST(Histogram, IsRightToOnePercentAtAnyLength) {
  for (std::int64_t value = 1; value < std::int64_t{3'600'000'000'000}; value = value * 3 + 1) {
    Histogram histogram;
    histogram.add(nanoseconds(value));
    histogram.add(nanoseconds(2 * value + 10));  // so that the largest does not bound the answer
    const auto found = static_cast<double>(histogram.quantile(0).count());
    EXPECT_NEAR(found, static_cast<double>(value), 0.01 * static_cast<double>(value)) << value;
  }
}

TEST(Histogram, NeverExceedsTheLargest) {
  const Histogram histogram = upTo(100'001);
  EXPECT_EQ(histogram.largest(), nanoseconds(100'001));
  EXPECT_LE(histogram.quantile(1), histogram.largest());
}

TEST(Histogram, TakesWhatIsLongerThanItsLastBucket) {
  Histogram histogram;
  histogram.add(std::chrono::hours(100));
  EXPECT_EQ(histogram.count(), 1U);
  EXPECT_EQ(histogram.largest(), std::chrono::hours(100));
}

TEST(Histogram, AddsUp) {
  Histogram sum = upTo(50);
  Histogram longer;
  longer.add(nanoseconds(1'000'000));
  sum.add(longer);
  EXPECT_EQ(sum.count(), 51U);
  EXPECT_EQ(sum.quantile(0.5), nanoseconds(26));
  EXPECT_EQ(sum.largest(), nanoseconds(1'000'000));
}

}  // namespace

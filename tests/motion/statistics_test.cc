// First-order statistics: the cases where the definition departs from the obvious reading
// (index percentiles, strict thresholds, band crossings with memory, divisor n for changes).

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "motion/features/StatisticalFeatures.h"
#include "motion/motion_test_support.h"

namespace orvane {
namespace {

using accel_features::medianOfSorted;
using accel_features::percentileOfSorted;
using accel_features::safeKurtosis;
using accel_features::thresholdCrossings;
using testing::extractAtEnd;
using testing::makeSamples;
using testing::sample;

TEST(motionStatistics, PercentilesTakeTheTruncatedIndexWithoutInterpolation) {
  const std::vector<double> one_to_ten = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(percentileOfSorted(one_to_ten, 0.25), 3);  // index ⌊9 × 0.25⌋ = 2
  EXPECT_EQ(percentileOfSorted(one_to_ten, 0.90), 9);
  EXPECT_EQ(medianOfSorted(one_to_ten), 5.5);
  EXPECT_EQ(medianOfSorted(std::vector<double>{1, 2, 9}), 2);
}

TEST(motionStatistics, NoNoiseSumsCountOnlyTotalsStrictlyAboveTheLevel) {
  // Totals of 0.02 are above the low level (0.015) and below the medium one (0.045); the
  // gyroscope totals sit exactly on the low level (0.03), which does not count.
  const AccelFeature f =
      extractAtEnd(makeSamples(200,
                               [](size_t) {
                                 return sample({0.01, -0.005, 0.005}, {0.01, 0.01, -0.01});
                               }),
                   2);
  ASSERT_TRUE(f.validEntry);
  EXPECT_FLOAT_EQ(f.noNoiseLowAccelAll, 0.02);
  EXPECT_EQ(f.noNoiseLowAccelNumberOfEntries, 1.0f);
  EXPECT_EQ(f.noNoiseMediumAccelAll, 0);
  EXPECT_EQ(f.noNoiseMediumAccelNumberOfEntries, 0.0f);
  EXPECT_EQ(f.noNoiseLowGyroNumberOfEntries, 0.0f);
}

TEST(motionStatistics, MinimumIsCappedAndSpansAreMaxMinusMin) {
  // Totals of 120 leave the minimum at its cap of 100. (The zeros, -98 and NaN of a still
  // window are checked against the at-rest fixture.)
  const AccelFeature f = extractAtEnd(makeSamples(200,
                                                  [](size_t i) {
                                                    const double g =
                                                        i == 17 ? -0.4 : (i == 90 ? 0.7 : 0.1);
                                                    return sample({60, 60, 0}, {g, 0, 0});
                                                  }),
                                      2);
  EXPECT_EQ(f.minAccelValue, 100);
  EXPECT_EQ(f.maxAccelValue, 120);
  EXPECT_DOUBLE_EQ(f.spanGyroX, 1.1);
  EXPECT_EQ(f.gyroXMin, -0.4);
}

TEST(motionStatistics, BandCrossingsRememberTheSideLastLeft) {
  const std::vector<double> alternating = {0.03, -0.03, 0.03, -0.03, 0.03};
  for (double t : {0.002, 0.005, 0.01, 0.02}) EXPECT_EQ(thresholdCrossings(alternating, t), 4);
  EXPECT_EQ(thresholdCrossings(alternating, 0.15), 0);

  // Values inside the band change nothing, and leaving on the same side is no crossing.
  EXPECT_EQ(thresholdCrossings(std::vector<double>{-0.5, 0, 0.05, 0, 0.5, 0.2, 0.6}, 0.1), 1);
  EXPECT_EQ(thresholdCrossings(std::vector<double>{0.5, 0, 0.5, 0, -0.5, 0, -0.5}, 0.1), 1);
  // A first value inside the band counts as the upper side.
  EXPECT_EQ(thresholdCrossings(std::vector<double>{0, -0.5}, 0.1), 1);
  EXPECT_EQ(thresholdCrossings(std::vector<double>{0, 0.5}, 0.1), 0);
}

TEST(motionStatistics, ANotANumberSampleRanksLast) {
  // The platform should never report one; if it does, the order statistics stay defined.
  auto samples = makeSamples(100, [](size_t i) {
    return sample({0.001 * static_cast<double>(i), 0, 0});  // magnitudes 0, 0.001, … 0.099
  });
  samples[40].acceleration.x = std::numeric_limits<double>::quiet_NaN();
  const AccelFeature f = extractAtEnd(samples, 1);
  ASSERT_TRUE(f.validEntry);
  EXPECT_TRUE(std::isnan(f.maxAccelMagnitude));
  EXPECT_DOUBLE_EQ(f.percentile10AccelMagnitude, 0.009);  // rank 9 of the numbers
  EXPECT_DOUBLE_EQ(f.percentile90AccelMagnitude, 0.090);  // rank 89: 0.040 left the numbers
}

TEST(motionStatistics, KurtosisNeedsFourValues) {
  EXPECT_EQ(safeKurtosis(std::vector<double>{1, 2, 4}, 7.0 / 3, 7.0 / 3), -98.0);
  // 1, 2, 3, 4: excess kurtosis −1.2 with the sample correction.
  EXPECT_NEAR(safeKurtosis(std::vector<double>{1, 2, 3, 4}, 2.5, 5.0 / 3), -1.2, 1e-12);
}

}  // namespace
}  // namespace orvane

// Jerk, correlations, axis energies, entropies, and their single-precision accumulation.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "motion/features/AxisFeatures.h"
#include "motion/features/EntropyFeatures.h"
#include "motion/features/JerkFeatures.h"
#include "motion/features/SinglePrecisionStatistics.h"
#include "motion/motion_test_support.h"

namespace orvane::accel_features {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
using Values = std::vector<double>;

TEST(motionSinglePrecision, SummedInFloatAndUnavailableWhenUndefined) {
  // 2²⁴ + 1 is not a float: both values narrow to 2²⁴, so the variance is 0, not 0.5.
  EXPECT_EQ(calculateVariance(Values{16777216, 16777217}), 0.0);
  // Adding 1 to 2²⁴ in float rounds back to 2²⁴: four such additions are lost, in order.
  EXPECT_EQ(singlePrecisionMean(Values{16777216, 1, 1, 1, 1}), 16777216.0f / 5.0f);

  EXPECT_EQ(calculateVariance(Values{1}), -98.0);
  EXPECT_EQ(calculateVariance(Values{1, kNaN, 2}), -98.0);
  EXPECT_EQ(calculateVariance(Values{1e39, 1e39}), -98.0);  // beyond float: the mean is inf
  EXPECT_EQ(calculatePearsonCorrelation(Values{1, 2, 3}, Values{2, 4, 6}), 1.0);
  EXPECT_EQ(calculatePearsonCorrelation(Values{1, 2, 3}, Values{6, 4, 2}), -1.0);
  EXPECT_EQ(calculatePearsonCorrelation(Values{1, 2, 3}, Values{5, 5, 5}), -98.0);
  EXPECT_EQ(calculatePearsonCorrelation(Values{1, 2, 3}, Values{1, 2}), -98.0);
  EXPECT_EQ(calculatePearsonCorrelation(Values{1}, Values{1}), -98.0);
  EXPECT_EQ(calculatePearsonCorrelation(Values{1, kNaN}, Values{1, 2}), -98.0);
}

TEST(motionAxisEnergy, DominantAxisAndRatios) {
  AxisEnergies e = axisEnergies(0.5, 0.2, 0.3);
  EXPECT_EQ(e.dominantAxis, 0.0f);
  EXPECT_DOUBLE_EQ(e.dominantAxisRatio, 0.5);
  EXPECT_DOUBLE_EQ(e.ratioXY, 2.5);
  EXPECT_DOUBLE_EQ(e.ratioYZ, 0.2 / 0.3);
  e = axisEnergies(0.5, 0, 0.3);  // a zero divisor makes only its ratio unavailable
  EXPECT_EQ(e.ratioXY, -98.0);
  EXPECT_DOUBLE_EQ(e.ratioXZ, 0.5 / 0.3);
  EXPECT_EQ(axisEnergies(0.2, 0.2, 0.2).dominantAxis, 0.0f);  // ties: the earlier axis
  EXPECT_EQ(axisEnergies(0.1, 0.3, 0.3).dominantAxis, 1.0f);
  // Unavailable variances (-98) add up to no energy: every ratio is unavailable.
  EXPECT_EQ(axisEnergies(-98, -98, -98).dominantAxisRatio, -98.0);
}

TEST(motionEntropy, HistogramAndPermutationEntropy) {
  EXPECT_EQ(calculateEntropyFromSignal(Values(50, 0.3)), 0.0);
  EXPECT_NEAR(calculateEntropyFromSignal(Values{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}), std::log2(10.0),
              1e-12);
  // Two clusters at the ends of the range: the maximum falls in the last bin, not an eleventh.
  EXPECT_DOUBLE_EQ(calculateEntropyFromSignal(Values{0, 0, 1, 1}), 1.0);
  EXPECT_EQ(calculateEntropyFromSignal(Values{}), -98.0);
  EXPECT_EQ(calculateEntropyFromSignal(Values{1, kNaN}), -98.0);

  EXPECT_EQ(calculatePermutationEntropy(Values{1, 2, 3, 4, 5, 6}, 3), 0.0);
  EXPECT_EQ(calculatePermutationEntropy(Values{1, 2}, 3), -98.0);
  EXPECT_EQ(calculatePermutationEntropy(Values{1, 2, 3}, 0), -98.0);
  EXPECT_EQ(calculatePermutationEntropy(Values{1, kNaN, 3, 4}, 3), -98.0);
  // Windows 1 3 2 → 021, 3 2 4 → 102, 2 4 4 → 012 (equal values keep their order), 4 4 1 → 201:
  // four different patterns, two bits.
  EXPECT_DOUBLE_EQ(calculatePermutationEntropy(Values{1, 3, 2, 4, 4, 1}, 3), 2.0);
  // Falling and rising alternately: patterns 10 and 01 equally often.
  EXPECT_DOUBLE_EQ(calculatePermutationEntropy(Values{2, 1, 2, 1, 2}, 2), 1.0);
}

TEST(motionJerk, CrossingsOfTheThresholdAndUnavailableFields) {
  const Values jerk = jerkSeries(Values{1, 1.02, 1.0});  // 0.02 and 0.02, both above 0.01
  ASSERT_EQ(jerk.size(), 2u);
  EXPECT_EQ(calculateZeroCrossings(jerk, 0.01), 0);
  EXPECT_EQ(calculateZeroCrossings(Values{0, 0.02, 0.02, 0, 0.011}, 0.01), 3);
  EXPECT_EQ(calculateZeroCrossings(Values{0.5}, 0.01), 0);

  // Too few values or a NaN: all eight fields unavailable together.
  for (const auto& [accel, gyro] :
       {std::pair{Values{}, Values{0.1}}, {Values{0.1}, Values{kNaN}}}) {
    AccelFeature f;
    calculateJerkFeatures(accel, gyro, f);
    for (double v :
         {f.meanJerkAccelMagnitude, f.meanJerkGyroMagnitude, f.varianceJerkAccelMagnitude,
          f.varianceJerkGyroMagnitude, f.maxJerkAccelMagnitude, f.maxJerkGyroMagnitude,
          static_cast<double>(f.jerkZeroCrossingsAccelMagnitude),
          static_cast<double>(f.jerkZeroCrossingsGyroMagnitude)}) {
      EXPECT_EQ(v, -98.0);
    }
  }
}

}  // namespace
}  // namespace orvane::accel_features

// Jerk, correlation, axis-energy and entropy helpers on input the recorded traces never hold.

#include <gtest/gtest.h>

#include <functional>
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

TEST(motionAdvanced, DegenerateInputIsUnavailable) {
  const std::pair<const char*, std::function<double()>> cases[] = {
      {"variance of one value", [] { return calculateVariance(Values{1}); }},
      {"variance with a NaN",
       [] {
         return calculateVariance(Values{1, kNaN, 2});
       }},
      {"variance beyond float",
       [] {
         return calculateVariance(Values{1e39, 1e39});
       }},
      {"correlation with a constant",
       [] {
         return calculatePearsonCorrelation(Values{1, 2, 3}, Values{5, 5, 5});
       }},
      {"correlation of unequal lengths",
       [] {
         return calculatePearsonCorrelation(Values{1, 2, 3}, Values{1, 2});
       }},
      {"correlation with a NaN",
       [] {
         return calculatePearsonCorrelation(Values{1, kNaN}, Values{1, 2});
       }},
      {"axis ratio over a zero energy", [] { return axisEnergies(0.5, 0, 0.3).ratioXY; }},
      {"axis ratio of unavailable variances",
       [] { return axisEnergies(-98, -98, -98).dominantAxisRatio; }},
      {"entropy of nothing", [] { return calculateEntropyFromSignal(Values{}); }},
      {"entropy with a NaN",
       [] {
         return calculateEntropyFromSignal(Values{1, kNaN});
       }},
      {"permutation entropy, too short",
       [] {
         return calculatePermutationEntropy(Values{1, 2}, 3);
       }},
      {"permutation entropy, order 0",
       [] {
         return calculatePermutationEntropy(Values{1, 2, 3}, 0);
       }},
      {"permutation entropy with a NaN",
       [] {
         return calculatePermutationEntropy(Values{1, kNaN, 3, 4}, 3);
       }},
  };
  for (const auto& [name, compute] : cases) EXPECT_EQ(compute(), -98.0) << name;
  EXPECT_EQ(calculateEntropyFromSignal(Values(50, 0.3)), 0.0) << "a constant has no entropy";

  // Too few values or a NaN: all eight jerk fields unavailable together.
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

// First-order statistics on input the recorded traces never hold.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "motion/features/StatisticalFeatures.h"
#include "motion/motion_test_support.h"

namespace orvane {
namespace {

using accel_features::safeKurtosis;
using accel_features::thresholdCrossings;
using testing::extractAtEnd;
using testing::makeSamples;
using testing::sample;
using Values = std::vector<double>;

TEST(motionStatistics, DegenerateInput) {
  EXPECT_EQ(safeKurtosis(Values{1, 2, 4}, 7.0 / 3, 7.0 / 3), -98.0) << "fewer than four values";
  // Band crossings: nothing to cross, and a first value inside the band counts as the upper side.
  for (const auto& [values, crossings] :
       {std::pair{Values{}, 0}, {Values{0.5}, 0}, {Values{0, -0.5}, 1}, {Values{0, 0.5}, 0}}) {
    EXPECT_EQ(thresholdCrossings(values, 0.1), crossings) << values.size();
  }

  // The platform should never report a NaN; if it does, the order statistics stay defined.
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

}  // namespace
}  // namespace orvane

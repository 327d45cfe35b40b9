// Features of the last sample where the recorded traces cannot reach: no gravity, a rotation
// too slow for a radius, and components that are not numbers.

#include <gtest/gtest.h>

#include <limits>

#include "motion/features/InstantFeatures.h"
#include "motion/motion_test_support.h"

namespace orvane {
namespace {

using accel_features::extractInstantaneousFeatures;

AccelFeature instantOf(MotionVector a, MotionVector w, MotionVector g, AccelFeature f = {}) {
  extractInstantaneousFeatures(AccelerometerSensorValue(a, w, {}, g), f);
  return f;
}

TEST(motionInstant, DegenerateSamples) {
  // Without gravity the fields measured against it are unavailable; the rest use the device frame.
  const AccelFeature weightless = instantOf({0.3, 0.4, -0.2}, {1, 0, 0}, {0, 0, 0});
  for (double v : {weightless.instantGravityDeviation, weightless.instantTiltAngleFromVertical,
                   weightless.instantGyroAlongGravity, weightless.instantGyroHorizontalComponent}) {
    EXPECT_EQ(v, -98.0);
  }
  EXPECT_DOUBLE_EQ(weightless.instantHorizontalAccelComponent, 0.5);

  // A radius needs a gyroscope magnitude above 0.05 and may not exceed 5.
  for (const auto& [a, w] : {std::pair<MotionVector, MotionVector>{{0.2, 0, 0}, {0.04, 0, 0}},
                             {{3, 0, 0}, {0, 0.6, 0}}}) {
    EXPECT_EQ(instantOf(a, w, {0, 0, -1}).instantImpliedRotationRadius, -98.0);
  }

  // A component that is not a number leaves the previous axis choice in place, or none.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const AccelFeature f = instantOf({nan, 1, 0}, {0, nan, 1}, {0, 1, 0},
                                   instantOf({0.5, -0.5, 0.1}, {0, 0, -2}, {0.9, 0.1, 0.1}));
  EXPECT_EQ(f.instantDominantMotionAxisAccel, 0);
  EXPECT_EQ(f.instantDominantMotionAxisGyro, 2);
  EXPECT_EQ(f.instantPrimaryGravityAxis, 1);
  EXPECT_EQ(instantOf({nan, 0, 0}, {}, {0, 0, 1}).instantDominantMotionAxisAccel, -98);
}

}  // namespace
}  // namespace orvane

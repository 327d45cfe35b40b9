// Features of the last sample: the branches that recorded traces do not reach (no gravity,
// the limits of the implied radius, components that are not numbers) and exact geometry.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>

#include "motion/features/InstantFeatures.h"
#include "motion/motion_test_support.h"

namespace orvane {
namespace {

using accel_features::extractInstantaneousFeatures;

AccelFeature instantOf(MotionVector a, MotionVector w, MotionVector g, AttitudeData att = {}) {
  AccelFeature f;
  extractInstantaneousFeatures(AccelerometerSensorValue(a, w, att, g), f);
  return f;
}

TEST(motionInstant, ZeroGravityTakesTheDeviceFrame) {
  const AccelFeature f = instantOf({0.3, 0.4, -0.2}, {1, 0, 0}, {0, 0, 0});
  EXPECT_EQ(f.instantGravityDeviation, -98.0);  // not 1
  EXPECT_EQ(f.instantTiltAngleFromVertical, -98.0);
  EXPECT_DOUBLE_EQ(f.instantHorizontalAccelComponent, 0.5);
  EXPECT_DOUBLE_EQ(f.instantVerticalAccelComponent, 0.2);
  EXPECT_EQ(f.instantGyroAlongGravity, -98.0);
  EXPECT_EQ(f.instantGyroHorizontalComponent, -98.0);
  EXPECT_FALSE(f.instantLyingFlatAnyOrientation);
}

TEST(motionInstant, AccelerationAcrossGravity) {
  const AccelFeature f = instantOf({0.3, 0, 0}, {0, 0, 0}, {0, 0, -1});
  EXPECT_DOUBLE_EQ(f.instantHorizontalAccelComponent, 0.3);
  EXPECT_EQ(f.instantVerticalAccelComponent, 0);
  EXPECT_DOUBLE_EQ(f.instantCrossProductMagnitude, 0.3);
  EXPECT_DOUBLE_EQ(f.instantAccelGravityAngle, std::numbers::pi / 2);
  EXPECT_EQ(f.instantAxisEnergyRatioXY, 100);  // ay² is negligible, ax² is not
  EXPECT_DOUBLE_EQ(f.instantSphericalTheta, std::numbers::pi / 2);
  EXPECT_EQ(f.instantSphericalPhi, 0);
  // The vertical component keeps its sign: positive along gravity.
  EXPECT_DOUBLE_EQ(instantOf({0, 0, 0.3}, {}, {0, 0, -1}).instantVerticalAccelComponent, -0.3);
  // Tilted past the flatness bounds: neither flat nor face down.
  const AccelFeature tilted = instantOf({}, {}, {0, 0.7, 0.7});
  EXPECT_FALSE(tilted.instantLyingFlatAnyOrientation || tilted.instantIsFaceDown);
}

TEST(motionInstant, RotationAlongAndAcrossGravityAndTheImpliedRadius) {
  AccelFeature f = instantOf({0.2, 0, 0}, {0, 0.3, -0.4}, {0, 0, -1});
  EXPECT_DOUBLE_EQ(f.instantGyroAlongGravity, 0.4);
  EXPECT_DOUBLE_EQ(f.instantGyroHorizontalComponent, 0.3);
  EXPECT_DOUBLE_EQ(f.instantImpliedRotationRadius, 0.2 / 0.25);
  EXPECT_DOUBLE_EQ(f.instantAccelGyroRatio, 0.2 / 0.5);
  EXPECT_DOUBLE_EQ(f.instantMotionCoherenceScore, 0.2 / 0.5);
  // The gyroscope magnitude must exceed 0.05, and the radius may not exceed 5.
  EXPECT_EQ(instantOf({0.2, 0, 0}, {0.04, 0, 0}, {0, 0, -1}).instantImpliedRotationRadius, -98.0);
  EXPECT_EQ(instantOf({3, 0, 0}, {0, 0.6, 0}, {0, 0, -1}).instantImpliedRotationRadius, -98.0);
}

TEST(motionInstant, AxisChoice) {
  AccelFeature f = instantOf({0.5, -0.5, 0.1}, {0, 0, -2}, {0.9, 0.1, 0.1});
  EXPECT_EQ(f.instantDominantMotionAxisAccel, 0);  // ties go to the earlier axis
  EXPECT_EQ(f.instantDominantMotionAxisGyro, 2);
  EXPECT_EQ(f.instantPrimaryGravityAxis, 0);
  // A component that is not a number leaves the previous value in place.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  extractInstantaneousFeatures(AccelerometerSensorValue({nan, 1, 0}, {0, nan, 1}, {}, {0, 1, 0}),
                               f);
  EXPECT_EQ(f.instantDominantMotionAxisAccel, 0);
  EXPECT_EQ(f.instantDominantMotionAxisGyro, 2);
  EXPECT_EQ(f.instantPrimaryGravityAxis, 1);
  EXPECT_EQ(instantOf({nan, 0, 0}, {}, {0, 0, 1}).instantDominantMotionAxisAccel, -98);
}

}  // namespace
}  // namespace orvane

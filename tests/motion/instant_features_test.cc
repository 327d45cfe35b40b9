// Features of the last sample: pose, flatness, axes and the split along and across gravity.

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

TEST(motionInstant, StillFaceUp) {
  const AccelFeature f = instantOf({0, 0, 0}, {0, 0, 0}, {0, 0, -1});
  EXPECT_EQ(f.instantTiltAngleFromVertical, 0);
  EXPECT_EQ(f.instantGravityDeviation, 0);
  EXPECT_EQ(f.instantPrimaryGravityAxis, 2);
  EXPECT_TRUE(f.instantLyingFlatAnyOrientation);
  EXPECT_TRUE(f.instantLyingFlatFaceUp);
  EXPECT_FALSE(f.instantIsFaceDown);
  for (double v :
       {f.instantAccelGravityAngle, f.instantDotProductNormalized, f.instantSphericalTheta,
        f.instantSphericalPhi, f.instantAccelGyroRatio, f.instantImpliedRotationRadius}) {
    EXPECT_EQ(v, -98.0);
  }
  EXPECT_EQ(f.instantMotionCoherenceScore, 0);
  EXPECT_EQ(f.instantAxisEnergyRatioXY, 1);
  EXPECT_EQ(f.instantAxisEnergyRatioXZ, 1);
  EXPECT_EQ(f.instantAxisEnergyRatioYZ, 1);
  EXPECT_EQ(f.instantVerticalAccelComponent, 0);
  EXPECT_EQ(f.instantHorizontalAccelComponent, 0);
}

TEST(motionInstant, FaceDownIsFlatButNotFaceUp) {
  const AccelFeature f = instantOf({0, 0, 0}, {0, 0, 0}, {0, 0, 1});
  EXPECT_TRUE(f.instantIsFaceDown);
  EXPECT_TRUE(f.instantLyingFlatAnyOrientation);
  EXPECT_FALSE(f.instantLyingFlatFaceUp);
  // Tilted past the flatness bounds: neither flat nor face down.
  const AccelFeature tilted = instantOf({0, 0, 0}, {0, 0, 0}, {0, 0.7, 0.7});
  EXPECT_FALSE(tilted.instantLyingFlatAnyOrientation || tilted.instantIsFaceDown);
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
  // Along gravity the vertical component keeps its sign.
  EXPECT_DOUBLE_EQ(instantOf({0, 0, -0.3}, {}, {0, 0, -1}).instantVerticalAccelComponent, 0.3);
  EXPECT_DOUBLE_EQ(instantOf({0, 0, 0.3}, {}, {0, 0, -1}).instantVerticalAccelComponent, -0.3);
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

TEST(motionInstant, AttitudeAndLastGravity) {
  const AccelFeature f = instantOf({}, {}, {0.1, -0.2, -0.9}, AttitudeData{0.3, 1.2, -2.0});
  EXPECT_EQ(f.attitudeRoll, 0.3);
  EXPECT_EQ(f.attitudePitch, 1.2);
  EXPECT_EQ(f.attitudeYaw, -2.0);
  EXPECT_EQ(f.attitudeRollSin, std::sin(0.3));
  EXPECT_EQ(f.attitudeYawCos, std::cos(-2.0));
  EXPECT_EQ(f.instantAttitudePitchCos, std::cos(1.2));
  EXPECT_EQ(f.gravityLastY, -0.2);
}

}  // namespace
}  // namespace orvane

#include "motion/features/InstantFeatures.h"

#include <algorithm>
#include <cmath>

#include "motion/features/MotionSeries.h"

namespace orvane::accel_features {

namespace {

constexpr double kUnavailable = kMotionFeatureUnavailable;

double clampUnit(double x) { return std::clamp(x, -1.0, 1.0); }

double dot(const MotionVector& a, const MotionVector& b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}

// The first axis (x, y, z) whose absolute value is the largest; `previous` when a component is
// not a number, since then no axis is reliably the largest.
int64_t largestAxis(const MotionVector& v, int64_t previous) {
  const double ax = std::fabs(v.x), ay = std::fabs(v.y), az = std::fabs(v.z);
  if (std::isnan(ax) || std::isnan(ay) || std::isnan(az)) return previous;
  const double largest = std::max({ax, ay, az});
  if (ax == largest) return 0;
  if (ay == largest) return 1;
  return 2;
}

// a²/b² when b² is not negligible; otherwise 100 when a² is not, else 1.
double squaredRatio(double a, double b) {
  const double a2 = a * a, b2 = b * b;
  if (b2 > 0.001) return a2 / b2;
  return a2 > 0.001 ? 100.0 : 1.0;
}

void writeGravityFrame(const MotionVector& a, const MotionVector& w, const MotionVector& g,
                       double gravityMagnitude, AccelFeature& f) {
  if (gravityMagnitude <= 0.001) {
    f.instantHorizontalAccelComponent = std::sqrt(a.x * a.x + a.y * a.y);
    f.instantVerticalAccelComponent = std::fabs(a.z);
    f.instantGyroAlongGravity = kUnavailable;
    f.instantGyroHorizontalComponent = kUnavailable;
    f.instantImpliedRotationRadius = kUnavailable;
    f.instantIsFaceDown = f.instantLyingFlatAnyOrientation = f.instantLyingFlatFaceUp = false;
    return;
  }
  const MotionVector u{g.x / gravityMagnitude, g.y / gravityMagnitude, g.z / gravityMagnitude};
  // Signed: positive when the acceleration points along gravity.
  const double vertical = dot(a, u);
  const MotionVector h{a.x - vertical * u.x, a.y - vertical * u.y, a.z - vertical * u.z};
  const double horizontal = std::sqrt(std::max(dot(h, h), 0.0));
  f.instantVerticalAccelComponent = vertical;
  f.instantHorizontalAccelComponent = horizontal;

  // The horizontal part is taken from the stored value, -98 included.
  const double raw = dot(w, u);
  const double alongGravity = std::isfinite(raw) ? raw : kUnavailable;
  f.instantGyroAlongGravity = alongGravity;
  const double gyroSquared = dot(w, w);
  f.instantGyroHorizontalComponent =
      std::isfinite(gyroSquared)
          ? std::sqrt(std::max(gyroSquared - alongGravity * alongGravity, 0.0))
          : kUnavailable;

  const double gyroMagnitude = magnitude(w);
  f.instantImpliedRotationRadius = kUnavailable;
  if (std::isfinite(gyroMagnitude) && gyroMagnitude > 0.05) {
    const double radius = horizontal / (gyroMagnitude * gyroMagnitude);
    if (std::isfinite(radius) && radius <= 5.0) f.instantImpliedRotationRadius = radius;
  }

  const bool flat = std::sqrt(u.x * u.x + u.y * u.y) < 0.3 && std::fabs(u.z) > 0.8;
  f.instantIsFaceDown = u.z > 0.8;
  f.instantLyingFlatAnyOrientation = flat;
  f.instantLyingFlatFaceUp = flat && u.z < -0.8;
}

}  // namespace

void extractInstantaneousFeatures(const AccelerometerSensorValue& sensorValue, AccelFeature& f) {
  const MotionVector& a = sensorValue.acceleration;
  const MotionVector& w = sensorValue.rotationRate;
  const MotionVector& g = sensorValue.gravity;
  const AttitudeData& attitude = sensorValue.attitude;

  f.attitudePitch = attitude.pitch;
  f.attitudeRoll = attitude.roll;
  f.attitudeYaw = attitude.yaw;
  f.attitudeRollSin = std::sin(attitude.roll);
  f.attitudeRollCos = std::cos(attitude.roll);
  f.attitudeYawSin = std::sin(attitude.yaw);
  f.attitudeYawCos = std::cos(attitude.yaw);
  f.gravityLastX = g.x;
  f.gravityLastY = g.y;
  f.gravityLastZ = g.z;

  const double accelMagnitude = magnitude(a);
  const double gyroMagnitude = magnitude(w);
  const double gravityMagnitude = magnitude(g);

  f.instantGyroMagnitude = gyroMagnitude;
  f.instantUserAccelMagnitude = accelMagnitude;
  f.instantTiltAngleFromVertical = gravityMagnitude > 0.1
                                       ? std::acos(clampUnit(std::fabs(g.z) / gravityMagnitude))
                                       : kUnavailable;
  f.instantGravityMagnitude = gravityMagnitude;
  f.instantGravityDeviation = std::isfinite(gravityMagnitude) && gravityMagnitude != 0
                                  ? std::fabs(gravityMagnitude - 1)
                                  : kUnavailable;
  f.instantPrimaryGravityAxis = largestAxis(g, f.instantPrimaryGravityAxis);
  f.instantDominantMotionAxisAccel = largestAxis(a, f.instantDominantMotionAxisAccel);
  f.instantDominantMotionAxisGyro = largestAxis(w, f.instantDominantMotionAxisGyro);

  const bool angleDefined = gravityMagnitude > 0.001 && accelMagnitude > 0.001;
  const double cosine = clampUnit(dot(a, g) / (accelMagnitude * gravityMagnitude));
  f.instantAccelGravityAngle = angleDefined ? std::acos(cosine) : kUnavailable;
  f.instantDotProductNormalized = angleDefined ? cosine : kUnavailable;
  const MotionVector cross{a.y * g.z - a.z * g.y, a.z * g.x - a.x * g.z, a.x * g.y - a.y * g.x};
  f.instantCrossProductMagnitude = magnitude(cross);

  f.instantMotionCoherenceScore =
      accelMagnitude > 0.01 && gyroMagnitude > 0.01
          ? std::min(accelMagnitude, gyroMagnitude) / std::max(accelMagnitude, gyroMagnitude)
          : 0.0;
  f.instantAxisEnergyRatioXY = squaredRatio(a.x, a.y);
  f.instantAxisEnergyRatioXZ = squaredRatio(a.x, a.z);
  f.instantAxisEnergyRatioYZ = squaredRatio(a.y, a.z);

  f.instantSphericalRadius = accelMagnitude;
  f.instantSphericalTheta =
      accelMagnitude > 0.001 ? std::acos(clampUnit(a.z / accelMagnitude)) : kUnavailable;
  f.instantSphericalPhi = accelMagnitude > 0.001 ? std::atan2(a.y, a.x) : kUnavailable;
  f.instantAttitudePitchCos = std::cos(attitude.pitch);

  const double ratio = accelMagnitude / gyroMagnitude;
  f.instantAccelGyroRatio =
      gyroMagnitude > 0.001 && std::isfinite(accelMagnitude) && std::isfinite(ratio) ? ratio
                                                                                     : kUnavailable;

  writeGravityFrame(a, w, g, gravityMagnitude, f);

  f.instantAccelerationX = a.x;
  f.instantAccelerationY = a.y;
  f.instantAccelerationZ = a.z;
  f.instantRotationRateX = w.x;
  f.instantRotationRateY = w.y;
  f.instantRotationRateZ = w.z;
}

}  // namespace orvane::accel_features

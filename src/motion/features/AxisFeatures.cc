#include "motion/features/AxisFeatures.h"

#include <algorithm>

#include "motion/features/SinglePrecisionStatistics.h"

namespace orvane::accel_features {

namespace {

constexpr double kUnavailable = kMotionFeatureUnavailable;

double ratioOrUnavailable(double numerator, double divisor) {
  return divisor > 0 ? numerator / divisor : kUnavailable;
}

}  // namespace

void calculateCorrelationFeatures(const MotionSeries& s, AccelFeature& f) {
  f.correlationAccelXY = calculatePearsonCorrelation(s.accelX, s.accelY);
  f.correlationAccelXZ = calculatePearsonCorrelation(s.accelX, s.accelZ);
  f.correlationAccelYZ = calculatePearsonCorrelation(s.accelY, s.accelZ);
  f.correlationGyroXY = calculatePearsonCorrelation(s.gyroX, s.gyroY);
  f.correlationGyroXZ = calculatePearsonCorrelation(s.gyroX, s.gyroZ);
  f.correlationGyroYZ = calculatePearsonCorrelation(s.gyroY, s.gyroZ);
  f.correlationAccelGyroMagnitude = calculatePearsonCorrelation(s.accelMagnitude, s.gyroMagnitude);
}

AxisEnergies axisEnergies(double vx, double vy, double vz) {
  AxisEnergies out{};
  const double largest = std::max({vx, vy, vz});
  if (vx == largest) {
    out.dominantAxis = 0;
  } else if (vy == largest) {
    out.dominantAxis = 1;
  } else if (vz == largest) {
    out.dominantAxis = 2;
  } else {
    out.dominantAxis = static_cast<float>(kUnavailable);
  }
  const double sum = vx + vy + vz;
  if (sum > 0) {
    out.dominantAxisRatio = largest / sum;
    out.ratioXY = ratioOrUnavailable(vx, vy);
    out.ratioXZ = ratioOrUnavailable(vx, vz);
    out.ratioYZ = ratioOrUnavailable(vy, vz);
  } else {
    out.dominantAxisRatio = out.ratioXY = out.ratioXZ = out.ratioYZ = kUnavailable;
  }
  return out;
}

void calculateAxisEnergyFeatures(const MotionSeries& s, AccelFeature& f) {
  const AxisEnergies accel = axisEnergies(calculateVariance(s.accelX), calculateVariance(s.accelY),
                                          calculateVariance(s.accelZ));
  const AxisEnergies gyro = axisEnergies(calculateVariance(s.gyroX), calculateVariance(s.gyroY),
                                         calculateVariance(s.gyroZ));
  f.dominantAxisAccel = accel.dominantAxis;
  f.dominantAxisGyro = gyro.dominantAxis;
  f.dominantAxisEnergyRatioAccel = accel.dominantAxisRatio;
  f.dominantAxisEnergyRatioGyro = gyro.dominantAxisRatio;
  f.axisEnergyRatioAccelXY = accel.ratioXY;
  f.axisEnergyRatioAccelXZ = accel.ratioXZ;
  f.axisEnergyRatioAccelYZ = accel.ratioYZ;
  f.axisEnergyRatioGyroXY = gyro.ratioXY;
  f.axisEnergyRatioGyroXZ = gyro.ratioXZ;
  f.axisEnergyRatioGyroYZ = gyro.ratioYZ;
}

}  // namespace orvane::accel_features

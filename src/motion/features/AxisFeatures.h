// File: AxisFeatures.h
// How the axes move together and which carries the motion: correlations between axes and
// between the two sensors, the axis of largest variance, and variance ratios between axes.
#pragma once

#include "motion/features/AccelFeature.h"
#include "motion/features/MotionSeries.h"

namespace orvane::accel_features {

// The six axis-pair correlations of each sensor and the correlation of the two magnitudes.
void calculateCorrelationFeatures(const MotionSeries& series, AccelFeature& accelFeature);

struct AxisEnergies {
  float dominantAxis;        // 0, 1 or 2 (first on a tie); -98 when no variance is the largest
  double dominantAxisRatio;  // largest variance / sum
  double ratioXY, ratioXZ, ratioYZ;
};
// From the three single-precision axis variances (each may be -98). The ratios are -98 when the
// variances do not add up to more than 0, or when their divisor is not positive.
AxisEnergies axisEnergies(double varianceX, double varianceY, double varianceZ);

// Dominant axes and energy ratios of both sensors.
void calculateAxisEnergyFeatures(const MotionSeries& series, AccelFeature& accelFeature);

}  // namespace orvane::accel_features

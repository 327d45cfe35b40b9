// File: MotionSeries.h
// The per-sample series of a window, built once and read by every feature group: the six
// axes, the totals (sum of absolute components) and the magnitudes (Euclidean norm) of user
// acceleration and rotation rate, all in time order.
#pragma once

#include <span>
#include <vector>

#include "motion/AccelerometerSensorValue.h"

namespace orvane::accel_features {

struct MotionSeries {
  explicit MotionSeries(std::span<const AccelerometerSensorValue* const> window);

  size_t size() const { return accelX.size(); }

  std::vector<double> accelX, accelY, accelZ;
  std::vector<double> gyroX, gyroY, gyroZ;
  std::vector<double> accelTotal, gyroTotal;
  std::vector<double> accelMagnitude, gyroMagnitude;
};

// √(x² + y² + z²), summed in that order so every feature group sees the same value.
double magnitude(const MotionVector& v);

}  // namespace orvane::accel_features

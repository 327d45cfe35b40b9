// File: JerkFeatures.h
// Jerk: the absolute change of a magnitude from one sample to the next (not divided by the
// sample interval), and the statistics of the two jerk series.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "motion/features/AccelFeature.h"

namespace orvane::accel_features {

// |mᵢ − mᵢ₋₁| for i = 1 … n − 1; empty for fewer than 2 magnitudes.
std::vector<double> jerkSeries(std::span<const double> magnitudes);

// The number of i ≥ 1 for which (xᵢ > threshold) differs from (xᵢ₋₁ > threshold): crossings of
// the threshold, not of zero. 0 for fewer than 2 values.
int64_t calculateZeroCrossings(std::span<const double> signal, double threshold);

// Mean and variance (single precision), maximum and crossing rate (of 0.01 for acceleration,
// 0.06 for rotation) of each jerk series. All eight fields are -98 when either series is
// empty or holds a value that is not finite.
void calculateJerkFeatures(std::span<const double> accelJerk, std::span<const double> gyroJerk,
                           AccelFeature& accelFeature);

}  // namespace orvane::accel_features

#include "motion/features/JerkFeatures.h"

#include <cmath>

#include "motion/features/SinglePrecisionStatistics.h"

namespace orvane::accel_features {

namespace {

constexpr double kUnavailable = kMotionFeatureUnavailable;
constexpr double kAccelJerkThreshold = 0.01;
constexpr double kGyroJerkThreshold = 0.06;

bool usable(std::span<const double> series) {
  if (series.empty()) return false;
  for (double v : series) {
    if (!std::isfinite(v)) return false;
  }
  return true;
}

double largest(std::span<const double> series) {
  if (series.empty()) return kUnavailable;
  double max = series[0];
  for (double v : series) max = v > max ? v : max;
  return max;
}

float crossingRate(std::span<const double> series, double threshold) {
  return static_cast<float>(calculateZeroCrossings(series, threshold)) /
         static_cast<float>(series.size());
}

void markUnavailable(AccelFeature& f) {
  f.meanJerkAccelMagnitude = f.meanJerkGyroMagnitude = kUnavailable;
  f.varianceJerkAccelMagnitude = f.varianceJerkGyroMagnitude = kUnavailable;
  f.maxJerkAccelMagnitude = f.maxJerkGyroMagnitude = kUnavailable;
  f.jerkZeroCrossingsAccelMagnitude = f.jerkZeroCrossingsGyroMagnitude =
      static_cast<float>(kUnavailable);
}

}  // namespace

std::vector<double> jerkSeries(std::span<const double> magnitudes) {
  std::vector<double> jerk;
  if (magnitudes.size() < 2) return jerk;
  jerk.resize(magnitudes.size() - 1);
  for (size_t i = 1; i < magnitudes.size(); ++i) {
    jerk[i - 1] = std::fabs(magnitudes[i] - magnitudes[i - 1]);
  }
  return jerk;
}

int64_t calculateZeroCrossings(std::span<const double> signal, double threshold) {
  int64_t crossings = 0;
  for (size_t i = 1; i < signal.size(); ++i) {
    if ((signal[i] > threshold) != (signal[i - 1] > threshold)) ++crossings;
  }
  return crossings;
}

void calculateJerkFeatures(std::span<const double> accelJerk, std::span<const double> gyroJerk,
                           AccelFeature& f) {
  if (!usable(accelJerk) || !usable(gyroJerk)) return markUnavailable(f);
  const float accelMean = singlePrecisionMean(accelJerk);
  const float gyroMean = singlePrecisionMean(gyroJerk);
  if (!std::isfinite(accelMean) || !std::isfinite(gyroMean)) return markUnavailable(f);

  f.meanJerkAccelMagnitude = accelMean;
  f.meanJerkGyroMagnitude = gyroMean;
  f.varianceJerkAccelMagnitude = calculateVariance(accelJerk);
  f.varianceJerkGyroMagnitude = calculateVariance(gyroJerk);
  f.maxJerkAccelMagnitude = largest(accelJerk);
  f.maxJerkGyroMagnitude = largest(gyroJerk);
  f.jerkZeroCrossingsAccelMagnitude = crossingRate(accelJerk, kAccelJerkThreshold);
  f.jerkZeroCrossingsGyroMagnitude = crossingRate(gyroJerk, kGyroJerkThreshold);
}

}  // namespace orvane::accel_features

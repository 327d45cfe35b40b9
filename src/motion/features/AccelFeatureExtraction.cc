#include "motion/features/AccelFeatureExtraction.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "motion/features/AxisFeatures.h"
#include "motion/features/EntropyFeatures.h"
#include "motion/features/FourierTransform.h"
#include "motion/features/FrequencyFeatures.h"
#include "motion/features/InstantFeatures.h"
#include "motion/features/JerkFeatures.h"
#include "motion/features/StatisticalFeatures.h"

namespace orvane {

namespace {

constexpr int64_t kSamplesPerSecond = 100;
constexpr int kPermutationOrder = 3;

// The window's samples, oldest first: of the samples younger than duration + 1 seconds, the
// newest `expectedCount`.
std::vector<const AccelerometerSensorValue*> selectWindow(
    std::span<const AccelerometerSensorValue> samples, double now, int64_t duration,
    int64_t expectedCount) {
  std::vector<const AccelerometerSensorValue*> window;
  const double maxAge = static_cast<double>(duration) + 1.0;
  for (auto it = samples.rbegin();
       it != samples.rend() && static_cast<int64_t>(window.size()) < expectedCount; ++it) {
    if (now - it->timestamp.secondsSince1970 < maxAge) window.push_back(&*it);
  }
  std::reverse(window.begin(), window.end());
  return window;
}

}  // namespace

AccelFeature AccelFeatureExtraction::extract(
    std::span<const AccelerometerSensorValue> accelSensorValues, int64_t duration) const {
  AccelFeature feature;
  // A duration too long to count in samples can never be filled; it selects like the longest.
  const int64_t expectedCount = duration > std::numeric_limits<int64_t>::max() / kSamplesPerSecond
                                    ? std::numeric_limits<int64_t>::max()
                                    : std::max<int64_t>(duration, 0) * kSamplesPerSecond;
  const double now = dateProvider_->currentDate().secondsSince1970;
  const auto window = selectWindow(accelSensorValues, now, duration, expectedCount);

  feature.numberOfItems = static_cast<int64_t>(window.size());
  feature.validEntry = false;
  if (!window.empty()) {
    feature.numberOfSeconds = static_cast<float>(window.back()->timestamp.secondsSince1970 -
                                                 window.front()->timestamp.secondsSince1970);
    accel_features::extractInstantaneousFeatures(*window.back(), feature);
  }
  // An empty window is never usable, also for a duration of 0 that asks for no samples.
  if (window.empty() || feature.numberOfItems != expectedCount) {
    feature.reasonForBeingInvalidEntry = ReasonForAccelerometerDataInvalid::kWrongNumberOfSamples;
    return feature;
  }
  const float seconds = static_cast<float>(duration);
  if (feature.numberOfSeconds < 0.9f * seconds || feature.numberOfSeconds > 1.1f * seconds) {
    feature.reasonForBeingInvalidEntry = ReasonForAccelerometerDataInvalid::kWrongTimeSpan;
    return feature;
  }

  const accel_features::MotionSeries series(window);
  accel_features::calculateStatisticalFeatures(series, feature);
  accel_features::calculateAdvancedFeatures(series, feature);
  feature.validEntry = true;
  return feature;
}

namespace accel_features {

void calculateAdvancedFeatures(const MotionSeries& series, AccelFeature& f) {
  const std::vector<double> accelSpectrum = computeFFT(series.accelMagnitude);
  const std::vector<double> gyroSpectrum = computeFFT(series.gyroMagnitude);
  extractFrequencyFeatures(accelSpectrum, f, MotionSensorType::kAcceleration);
  extractFrequencyFeatures(gyroSpectrum, f, MotionSensorType::kGyroscope);

  calculateJerkFeatures(jerkSeries(series.accelMagnitude), jerkSeries(series.gyroMagnitude), f);
  calculateCorrelationFeatures(series, f);
  calculateAxisEnergyFeatures(series, f);

  f.shannonEntropyAccelMagnitude = calculateEntropyFromSignal(series.accelMagnitude);
  f.shannonEntropyGyroMagnitude = calculateEntropyFromSignal(series.gyroMagnitude);
  f.permutationEntropyAccelMagnitude =
      calculatePermutationEntropy(series.accelMagnitude, kPermutationOrder);
  f.permutationEntropyGyroMagnitude =
      calculatePermutationEntropy(series.gyroMagnitude, kPermutationOrder);
}

}  // namespace accel_features

}  // namespace orvane

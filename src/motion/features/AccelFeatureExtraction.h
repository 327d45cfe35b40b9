// File: AccelFeatureExtraction.h
// Turns the motion samples of the last `duration` seconds into one AccelFeature record. The
// window is usable only when it holds exactly duration × 100 samples spanning 0.9 to 1.1 times
// the duration; the last-sample features are filled for any window that holds a sample.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "motion/AccelerometerSensorValue.h"
#include "motion/features/AccelFeature.h"
#include "motion/features/MotionSeries.h"
#include "util/DateProvider.h"

namespace orvane {

class AccelFeatureExtraction {
 public:
  explicit AccelFeatureExtraction(std::shared_ptr<const DateProvider> dateProvider)
      : dateProvider_(std::move(dateProvider)) {}

  // Samples in time order (the sensor's buffer). Of those taken less than duration + 1 seconds
  // before now, the newest duration × 100 form the window. Pure apart from reading the clock;
  // safe to call from any thread.
  AccelFeature extract(std::span<const AccelerometerSensorValue> accelSensorValues,
                       int64_t duration) const;

 private:
  std::shared_ptr<const DateProvider> dateProvider_;
};

namespace accel_features {

// The second-order features of a valid window, in this order: spectra and frequency features
// (acceleration, then rotation), jerk, the seven correlations, dominant axes and energy
// ratios, Shannon entropies, permutation entropies (order 3).
void calculateAdvancedFeatures(const MotionSeries& series, AccelFeature& accelFeature);

}  // namespace accel_features

}  // namespace orvane

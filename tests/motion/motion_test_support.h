// File: motion_test_support.h
// Shared helpers of the motion suites: where the fixtures are, and windows of samples built
// by hand.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "motion/AccelerometerSensorValue.h"
#include "motion/features/AccelFeature.h"
#include "motion/features/AccelFeatureExtraction.h"
#include "testutil/Fixtures.h"
#include "util/DateProvider.h"

namespace orvane::testing {

inline std::string motionFixturesDir() { return fixturePath("motion"); }

inline constexpr double kStart = 1763800000.0;

// `count` samples 10 ms apart from kStart, each made by `make(i)` (timestamp set here).
inline std::vector<AccelerometerSensorValue> makeSamples(
    size_t count, const std::function<AccelerometerSensorValue(size_t)>& make,
    double spacing = 0.01) {
  std::vector<AccelerometerSensorValue> samples;
  for (size_t i = 0; i < count; ++i) {
    samples.push_back(make(i));
    samples.back().timestamp = Date{kStart + static_cast<double>(i) * spacing};
  }
  return samples;
}

inline AccelerometerSensorValue sample(MotionVector acceleration, MotionVector rotation = {},
                                       MotionVector gravity = {0, 0, -1}) {
  return AccelerometerSensorValue(acceleration, rotation, AttitudeData{}, gravity);
}

// Extracts as of 5 ms after the last sample.
inline AccelFeature extractAtEnd(const std::vector<AccelerometerSensorValue>& samples,
                                 int64_t duration) {
  const double now = samples.empty() ? kStart : samples.back().timestamp.secondsSince1970 + 0.005;
  AccelFeatureExtraction extraction(std::make_shared<StubDateProvider>(Date{now}));
  return extraction.extract(samples, duration);
}

}  // namespace orvane::testing

// File: RawMotionCapture.h
// The raw-motion record of one request, made when a log needs it rather than while the host
// waits for its answer. The request keeps the samples and the moment it was answered; the
// record (signal 444) is built from them once, on the thread that first asks (the log assembly
// queue), and the samples are let go then. Outcomes that do not carry the record never pay
// for it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "motion/AccelerometerSensorValue.h"
#include "orvane/Signal.h"

namespace orvane {

class AdditionalAccelFeatureExtraction;

class RawMotionCapture {
 public:
  RawMotionCapture(std::shared_ptr<const AdditionalAccelFeatureExtraction> extraction,
                   std::shared_ptr<const std::vector<AccelerometerSensorValue>> samples,
                   double capturedAt, int64_t duration);

  // The record as zero or one signal, as of the moment of capture. Any thread.
  const SignalList& signals() const;

 private:
  mutable std::once_flag built_;
  mutable std::shared_ptr<const AdditionalAccelFeatureExtraction> extraction_;
  mutable std::shared_ptr<const std::vector<AccelerometerSensorValue>> samples_;
  const double capturedAt_;
  const int64_t duration_;
  mutable SignalList signals_;
};

}  // namespace orvane

// File: AdditionalAccelFeatureExtraction.h
// The raw-motion record: the samples of the last seconds as one text signal (444), base64 of
// the raw-DEFLATE-compressed JSON array of their raw-sample records, oldest first.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "logging/ErrorReporter.h"
#include "motion/AccelerometerSensorValue.h"
#include "orvane/Signal.h"
#include "util/DateProvider.h"

namespace orvane {

class AdditionalAccelFeatureExtraction {
 public:
  // `errorReporting` is asked for only when there is something to report.
  AdditionalAccelFeatureExtraction(std::function<ErrorReporter&()> errorReporting,
                                   std::shared_ptr<const DateProvider> dateProvider)
      : errorReporting_(std::move(errorReporting)), dateProvider_(std::move(dateProvider)) {}

  // The samples taken less than `duration` seconds before now, as one signal; no signal when
  // there is none or the record cannot be encoded (then reported). Safe on any thread.
  SignalList extract(std::span<const AccelerometerSensorValue> accelSensorValues,
                     int64_t duration) const;
  // The same as of `now` (seconds since 1970) rather than the current time: for a record
  // built after the request it belongs to.
  SignalList extractAt(std::span<const AccelerometerSensorValue> accelSensorValues,
                       int64_t duration, double now) const;

 private:
  std::function<ErrorReporter&()> errorReporting_;
  std::shared_ptr<const DateProvider> dateProvider_;
};

}  // namespace orvane

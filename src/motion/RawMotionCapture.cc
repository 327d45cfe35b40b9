#include "motion/RawMotionCapture.h"

#include "motion/AdditionalAccelFeatureExtraction.h"

namespace orvane {

RawMotionCapture::RawMotionCapture(
    std::shared_ptr<const AdditionalAccelFeatureExtraction> extraction,
    std::shared_ptr<const std::vector<AccelerometerSensorValue>> samples, double capturedAt,
    int64_t duration)
    : extraction_(std::move(extraction)),
      samples_(std::move(samples)),
      capturedAt_(capturedAt),
      duration_(duration) {}

const SignalList& RawMotionCapture::signals() const {
  std::call_once(built_, [this] {
    if (extraction_ && samples_) {
      signals_ = extraction_->extractAt(*samples_, duration_, capturedAt_);
    }
    // A context can live long after its answer; it keeps the record, not the samples.
    samples_.reset();
    extraction_.reset();
  });
  return signals_;
}

}  // namespace orvane

#include "motion/AccelerometerSensor.h"

#include <algorithm>

namespace orvane {

AccelerometerSensor::AccelerometerSensor(std::shared_ptr<MotionService> motion,
                                         bool alwaysRunInForeground)
    : motion_(std::move(motion)),
      isSupported_(motion_ && motion_->isAccelerometerAvailable() && motion_->isGyroAvailable()),
      alwaysRunInForeground_(alwaysRunInForeground) {}

void AccelerometerSensor::setAlwaysRunInForeground(bool alwaysRun) {
  std::lock_guard<std::mutex> guard(stateLock_);
  alwaysRunInForeground_ = alwaysRun;
  if (alwaysRun) {
    maybeStartAccelerometer();
  } else {
    maybeStopAccelerometer();
  }
}

void AccelerometerSensor::setAppInForeground(bool inForeground) {
  isAppInForeground_ = inForeground;
}

void AccelerometerSensor::addOpenRequest() { ++openForegroundRequests_; }

void AccelerometerSensor::removeOpenRequest() {
  openForegroundRequests_ = std::max(0, openForegroundRequests_ - 1);
}

bool AccelerometerSensor::wantsSampling() const {
  return isAppInForeground_ && (alwaysRunInForeground_ || openForegroundRequests_ > 0);
}

void AccelerometerSensor::maybeStartAccelerometer() {
  if (!isSupported_ || isSampling_ || !wantsSampling()) return;
  isSampling_ = true;
}

void AccelerometerSensor::maybeStopAccelerometer() {
  if (!isSampling_ || wantsSampling()) return;
  isSampling_ = false;
}

}  // namespace orvane

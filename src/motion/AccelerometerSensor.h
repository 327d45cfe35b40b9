// File: AccelerometerSensor.h
// Owns motion sampling: when it runs (the start and stop rules) and, later, the sample
// buffer and the requests waiting for a window. The state lock guards the flags and the
// request counter; callers hold it around a change and the rule that follows.
#pragma once

#include <memory>
#include <mutex>

#include "orvane/platform/MotionService.h"

namespace orvane {

class AccelerometerSensor {
 public:
  AccelerometerSensor(std::shared_ptr<MotionService> motion, bool alwaysRunInForeground);

  // Guards alwaysRunInForeground, openForegroundRequests, isAppInForeground and sampling.
  std::mutex& accelerometerStateLock() { return stateLock_; }

  bool isSupported() const { return isSupported_; }

  // Setup: keep sampling in the foreground or not, then apply the matching rule. Runs before
  // any request exists, so it takes the lock itself.
  void setAlwaysRunInForeground(bool alwaysRun);

  // The caller holds accelerometerStateLock() for these.
  void setAppInForeground(bool inForeground);
  void addOpenRequest();
  void removeOpenRequest();
  // Start sampling when the app is in the foreground and something wants data.
  void maybeStartAccelerometer();
  // Stop sampling unless the app is in the foreground and something still wants data.
  void maybeStopAccelerometer();

  bool isAppInForeground() const { return isAppInForeground_; }
  bool alwaysRunInForeground() const { return alwaysRunInForeground_; }
  int openForegroundRequests() const { return openForegroundRequests_; }
  bool isSampling() const { return isSampling_; }

 private:
  bool wantsSampling() const;

  std::shared_ptr<MotionService> motion_;
  const bool isSupported_;
  std::mutex stateLock_;
  bool alwaysRunInForeground_;
  int openForegroundRequests_ = 0;
  bool isAppInForeground_ = false;
  bool isSampling_ = false;
};

}  // namespace orvane

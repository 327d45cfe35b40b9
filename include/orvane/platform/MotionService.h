// File: MotionService.h
// Motion hardware. This part covers availability; sample delivery joins it with the sensor.
#pragma once

#include <memory>

namespace orvane {

class MotionService {
 public:
  virtual ~MotionService() = default;
  virtual bool isAccelerometerAvailable() const = 0;
  virtual bool isGyroAvailable() const = 0;
  // True when a mobile app runs on a desktop machine.
  virtual bool isAppOnDesktop() const = 0;
};

// A device with accelerometer and gyroscope (samples come from replay).
std::shared_ptr<MotionService> makeReplayMotionService();
// A device without motion hardware, or with only some of it.
std::shared_ptr<MotionService> makeUnsupportedMotionService(bool hasAccelerometer = false,
                                                            bool hasGyro = false);

}  // namespace orvane

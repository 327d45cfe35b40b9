// Hardware that lacks some or all motion sensors, so callers can exercise the paths that
// check availability before asking for samples.
#include "orvane/platform/MotionService.h"

namespace orvane {
namespace {

class UnsupportedMotionService : public MotionService {
 public:
  UnsupportedMotionService(bool hasAccelerometer, bool hasGyro)
      : hasAccelerometer_(hasAccelerometer), hasGyro_(hasGyro) {}
  bool isAccelerometerAvailable() const override { return hasAccelerometer_; }
  bool isGyroAvailable() const override { return hasGyro_; }
  bool isAppOnDesktop() const override { return false; }
  void startDeviceMotionUpdates(std::shared_ptr<SerialQueue>, DeviceMotionHandler) override {}
  void stopMotionUpdates() override {}

 private:
  const bool hasAccelerometer_;
  const bool hasGyro_;
};

}  // namespace

std::shared_ptr<MotionService> makeUnsupportedMotionService(bool hasAccelerometer, bool hasGyro) {
  return std::make_shared<UnsupportedMotionService>(hasAccelerometer, hasGyro);
}

}  // namespace orvane

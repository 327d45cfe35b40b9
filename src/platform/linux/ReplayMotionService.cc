// A device with an accelerometer and a gyroscope whose samples come from a recording rather
// than from hardware. Replay of samples joins this class together with the sensor.
#include "orvane/platform/MotionService.h"

namespace orvane {
namespace {

class ReplayMotionService : public MotionService {
 public:
  bool isAccelerometerAvailable() const override { return true; }
  bool isGyroAvailable() const override { return true; }
  bool isAppOnDesktop() const override { return false; }
};

}  // namespace

std::shared_ptr<MotionService> makeReplayMotionService() {
  return std::make_shared<ReplayMotionService>();
}

}  // namespace orvane

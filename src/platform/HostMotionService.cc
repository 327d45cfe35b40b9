// Motion the host pushes: the SDK says when it wants updates, the host's own sensors supply
// them with the platform's timestamps.
#include "orvane/platform/MotionService.h"

namespace orvane {

HostMotionService::HostMotionService(bool accelerometerAvailable, bool gyroAvailable,
                                     std::function<void(bool)> onDeliveryChange)
    : accelerometerAvailable_(accelerometerAvailable),
      gyroAvailable_(gyroAvailable),
      onDeliveryChange_(std::move(onDeliveryChange)) {}

void HostMotionService::startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                                 DeviceMotionHandler handler) {
  bool started = false;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    started = handler_ == nullptr && handler != nullptr && queue != nullptr;
    if (!queue || !handler) {
      queue_.reset();
      handler_ = nullptr;
    } else {
      queue_ = std::move(queue);
      handler_ = std::move(handler);
    }
  }
  // Starting again only replaces the handler: the host's sensors are already running.
  if (started && onDeliveryChange_) onDeliveryChange_(true);
}

void HostMotionService::stopMotionUpdates() {
  bool stopped = false;
  DeviceMotionHandler released;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopped = handler_ != nullptr;
    queue_.reset();
    // Destroyed outside the lock: the handler may own the last reference to its receiver.
    released = std::move(handler_);
    handler_ = nullptr;
  }
  if (stopped && onDeliveryChange_) onDeliveryChange_(false);
}

bool HostMotionService::push(const DeviceMotion& motion) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!queue_ || !handler_) return false;
  // Posted under the lock, so updates pushed from several threads keep the order of the calls.
  queue_->async([handler = handler_, motion] { handler(&motion); });
  return true;
}

bool HostMotionService::isDelivering() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return handler_ != nullptr;
}

}  // namespace orvane

// Motion the host pushes: the SDK says when it wants updates, the host's own sensors supply
// them with the platform's timestamps.
#include "orvane/platform/MotionService.h"

namespace orvane {

HostMotionService::HostMotionService(bool accelerometerAvailable, bool gyroAvailable,
                                     std::function<void(bool)> onDeliveryChange)
    : accelerometerAvailable_(accelerometerAvailable),
      gyroAvailable_(gyroAvailable),
      onDeliveryChange_(std::move(onDeliveryChange)) {}

void HostMotionService::notify(const std::shared_ptr<SerialQueue>& queue, bool delivering) {
  if (!onDeliveryChange_) return;
  // Start and stop are called under the sensor's state lock; the host hears of them on the
  // sampling queue instead, where it may call back into the SDK.
  auto change = onDeliveryChange_;
  if (queue) {
    queue->async([change, delivering] { change(delivering); });
  } else {
    change(delivering);
  }
}

void HostMotionService::startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                                 DeviceMotionHandler handler) {
  if (!queue || !handler) {
    stopMotionUpdates();
    return;
  }
  bool started = false;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    started = handler_ == nullptr;
    queue_ = queue;
    handler_ = std::move(handler);
    notifyQueue_ = queue;
  }
  // Starting again only replaces the handler: the host's sensors are already running.
  if (started) notify(queue, true);
}

void HostMotionService::stopMotionUpdates() {
  bool stopped = false;
  DeviceMotionHandler released;
  std::shared_ptr<SerialQueue> notifyQueue;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopped = handler_ != nullptr;
    queue_.reset();
    // Destroyed outside the lock: the handler may own the last reference to its receiver.
    released = std::move(handler_);
    handler_ = nullptr;
    notifyQueue = notifyQueue_.lock();
  }
  if (stopped) notify(notifyQueue, false);
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

// File: PostureMotionService.h
// The demo's motion hardware: a device that replays, in real time, the recording of whatever
// posture the script has put it in (flat on a table, in a hand while walking, face down). The
// host installs it in the SDK's Platform in place of the default replay, which is how any
// Linux host brings its own platform services.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Script.h"
#include "orvane/platform/MotionService.h"

namespace orvane::sim::demo {

class PostureMotionService : public MotionService {
 public:
  // Called on the sampling queue with the magnitude of each update's user acceleration (g).
  using MagnitudeListener = std::function<void(double)>;

  // Reads the traces of every posture from `motionDir`; null with `error` set when one cannot
  // be read.
  static std::shared_ptr<PostureMotionService> load(std::shared_ptr<Clock> clock,
                                                    const std::string& motionDir,
                                                    MagnitudeListener listener, std::string* error);
  ~PostureMotionService() override;

  // Takes effect with the next update.
  void setPosture(Posture posture) { posture_->store(posture); }

  bool isAccelerometerAvailable() const override { return true; }
  bool isGyroAvailable() const override { return true; }
  bool isAppOnDesktop() const override { return false; }
  void startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                DeviceMotionHandler handler) override;
  void stopMotionUpdates() override;

 private:
  struct Recordings;
  PostureMotionService(std::shared_ptr<Clock> clock, std::shared_ptr<const Recordings> recordings,
                       MagnitudeListener listener);
  void stopLocked();

  const std::shared_ptr<Clock> clock_;
  const std::shared_ptr<const Recordings> recordings_;
  const std::shared_ptr<MagnitudeListener> listener_;
  const std::shared_ptr<std::atomic<Posture>> posture_;
  std::mutex mutex_;
  std::shared_ptr<std::atomic<bool>> running_;
  std::shared_ptr<Cancellable> timer_;
};

}  // namespace orvane::sim::demo

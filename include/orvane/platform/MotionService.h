// File: MotionService.h
// Motion hardware: which sensors exist, and device-motion updates delivered to a serial queue.
// The device keeps one set of updates: starting again replaces the handler, as the motion
// manager of a mobile platform does.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "orvane/Export.h"
#include "orvane/platform/Clock.h"
#include "orvane/platform/Executors.h"

namespace orvane {

struct ORVANE_API MotionVector {
  double x = 0;
  double y = 0;
  double z = 0;
  bool operator==(const MotionVector&) const = default;
};

// Roll, pitch and yaw in radians.
struct ORVANE_API AttitudeData {
  double roll = 0;
  double pitch = 0;
  double yaw = 0;
  bool operator==(const AttitudeData&) const = default;
};

// One device-motion update: user acceleration (gravity removed) and gravity in g, rotation
// rate in rad/s, and the time it was measured in seconds since boot (Clock::uptime()).
struct ORVANE_API DeviceMotion {
  MotionVector userAcceleration;
  MotionVector rotationRate;
  AttitudeData attitude;
  MotionVector gravity;
  double timestamp = 0;
};

// Called for each update; a null pointer is an update that carries no motion.
using DeviceMotionHandler = std::function<void(const DeviceMotion*)>;

class ORVANE_API MotionService {
 public:
  virtual ~MotionService() = default;
  virtual bool isAccelerometerAvailable() const = 0;
  virtual bool isGyroAvailable() const = 0;
  // True when a mobile app runs on a desktop machine.
  virtual bool isAppOnDesktop() const = 0;

  // Delivers updates at the device's own rate to `handler`, on `queue`, in time order.
  virtual void startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                        DeviceMotionHandler handler) = 0;
  // Stops every kind of motion update. An update already queued may still arrive.
  virtual void stopMotionUpdates() = 0;
};

// The motion of the `index`-th update (its timestamp is set on delivery); none ends the
// recording and the device delivers nothing more.
using DeviceMotionGenerator = std::function<std::optional<DeviceMotion>(uint64_t index)>;

// A device with accelerometer and gyroscope whose updates come from `generator`, `rateHz` per
// second in real time: a repeating timer on the receiving queue, stamped with clock->uptime().
ORVANE_API std::shared_ptr<MotionService> makeReplayMotionService(std::shared_ptr<Clock> clock,
                                                                  double rateHz,
                                                                  DeviceMotionGenerator generator);
// The updates of a motion-trace file (JSON: "rateHz" and "samples" of t, acceleration,
// rotationRate, gravity and attitude), timestamps left for a replay to stamp. None when the
// file cannot be read or holds no samples; `error` then says why.
struct ORVANE_API RecordedMotion {
  double rateHz = 0;
  std::vector<DeviceMotion> motions;
};
ORVANE_API std::optional<RecordedMotion> readRecordedMotion(const std::string& tracePath,
                                                            std::string* error = nullptr);
// A replay device playing the samples of a motion-trace file at the trace's rate, from the
// start again after the last sample. Null when the file cannot be read; `error` then says why.
ORVANE_API std::shared_ptr<MotionService> makeTraceMotionService(std::shared_ptr<Clock> clock,
                                                                 const std::string& tracePath,
                                                                 std::string* error = nullptr);
// A device lying still, face up, at 100 Hz: what a Linux host gets without a trace.
ORVANE_API std::shared_ptr<MotionService> makeStillMotionService(std::shared_ptr<Clock> clock);

// A device without motion hardware, or with only some of it. It never delivers updates.
ORVANE_API std::shared_ptr<MotionService> makeUnsupportedMotionService(
    bool hasAccelerometer = false, bool hasGyro = false);

// A device driven by hand: each push() posts one update, stamped with clock->uptime(), to the
// queue of the current updates (nothing while updates are off).
class ORVANE_API ManualMotionService : public MotionService {
 public:
  explicit ManualMotionService(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}
  bool isAccelerometerAvailable() const override { return true; }
  bool isGyroAvailable() const override { return true; }
  bool isAppOnDesktop() const override { return false; }
  void startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                DeviceMotionHandler handler) override;
  void stopMotionUpdates() override;

  // False while updates are off: the motion was not delivered.
  bool push(DeviceMotion motion);
  bool pushWithoutMotion();
  bool isDelivering() const;
  int startCount() const;

 private:
  bool post(std::optional<DeviceMotion> motion);

  std::shared_ptr<Clock> clock_;
  mutable std::mutex mutex_;
  std::shared_ptr<SerialQueue> queue_;
  DeviceMotionHandler handler_;
  int starts_ = 0;
};

// Motion pushed by the host: a bridge forwarding the platform's motion manager calls push()
// for each update, stamped by the platform in seconds since boot on the base of the
// platform's Clock::uptime(). `onDeliveryChange` hears true when the SDK starts wanting updates
// and false when it stops, so that the host runs its sensors only meanwhile; it runs on the
// queue the updates go to (the last one, for a stop), in order.
class HostMotionService : public MotionService {
 public:
  HostMotionService(bool accelerometerAvailable, bool gyroAvailable,
                    std::function<void(bool delivering)> onDeliveryChange = nullptr);
  bool isAccelerometerAvailable() const override { return accelerometerAvailable_; }
  bool isGyroAvailable() const override { return gyroAvailable_; }
  bool isAppOnDesktop() const override { return false; }
  void startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                DeviceMotionHandler handler) override;
  void stopMotionUpdates() override;

  // Posts `motion` to the queue of the current updates, in the order of the calls; false
  // (and nothing posted) while updates are off.
  bool push(const DeviceMotion& motion);
  bool isDelivering() const;

 private:
  const bool accelerometerAvailable_;
  const bool gyroAvailable_;
  void notify(const std::shared_ptr<SerialQueue>& queue, bool delivering);

  const std::function<void(bool)> onDeliveryChange_;
  mutable std::mutex mutex_;
  std::shared_ptr<SerialQueue> queue_;
  DeviceMotionHandler handler_;
  // Where a stop is announced; weak, so that a stopped service keeps no queue alive.
  std::weak_ptr<SerialQueue> notifyQueue_;
};

}  // namespace orvane

// File: AccelerometerSensor.h
// Owns motion sampling: when it runs (the start and stop rules), the buffer of the last 20
// seconds of samples, and the context requests waiting for a window of their duration.
//
// Threads: samples arrive on the sensor's serial queue "com.orvane.AccelerometerSensor",
// which also runs the 5-second clean-up; waiting requests are answered on the main queue.
// Locks: the state lock (flags, request counter, sampling), taken by callers around a change
// and the rule that follows; the buffer's lock and the waiting requests' lock, each held only
// to copy or change its value and never one inside the other. A sample never takes the state
// lock, and no callback runs under any of them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "logging/ErrorReporter.h"
#include "motion/AccelerometerSensorValue.h"
#include "motion/PendingFetchContextCall.h"
#include "orvane/Signal.h"
#include "orvane/platform/Clock.h"
#include "orvane/platform/Executors.h"
#include "orvane/platform/MotionService.h"
#include "orvane/platform/SystemLog.h"
#include "util/DateProvider.h"

namespace orvane {

class AccelerometerSensor {
 public:
  struct Environment {
    std::shared_ptr<MotionService> motion;
    // The main queue answers waiting requests; the sensor makes its own sampling queue.
    std::shared_ptr<Executors> executors;
    // Uptime, the time base of motion timestamps.
    std::shared_ptr<Clock> clock;
    std::shared_ptr<const DateProvider> dateProvider;
    std::shared_ptr<SystemLog> log;
    // Receives failures to encode the raw-motion record; asked for only then.
    std::function<ErrorReporter&()> errorReporting;
    // Seconds of raw motion a request that captures the raw-motion record carries.
    std::function<int64_t()> additionalAccelDataDuration;
  };

  static constexpr double kCleanupRetentionDuration = 20.0;
  static constexpr double kCleanupInterval = 5.0;
  static constexpr const char* kTrackingQueueName = "com.orvane.AccelerometerSensor";

  AccelerometerSensor(Environment environment, bool alwaysRunInForeground);
  ~AccelerometerSensor();
  AccelerometerSensor(const AccelerometerSensor&) = delete;
  AccelerometerSensor& operator=(const AccelerometerSensor&) = delete;

  // Guards alwaysRunInForeground, openForegroundRequests, isAppInForeground and sampling.
  std::mutex& accelerometerStateLock() { return stateLock_; }

  // Accelerometer and gyroscope present, and not a mobile app on a desktop machine.
  bool isSupported() const { return isSupported_; }

  // Setup: keep sampling in the foreground or not, then apply the matching rule. Runs before
  // any request exists, so it takes the lock itself.
  void setAlwaysRunInForeground(bool alwaysRun);

  // The caller holds accelerometerStateLock() for these.
  void setAppInForeground(bool inForeground);
  void addOpenRequest();
  void removeOpenRequest();
  // Start sampling, on an empty buffer, when the app is in the foreground and something wants
  // data.
  void maybeStartAccelerometer();
  // Stop sampling and empty the buffer unless the app is in the foreground and something
  // still wants data.
  void maybeStopAccelerometer();

  bool isAppInForeground() const { return isAppInForeground_; }
  bool alwaysRunInForeground() const { return alwaysRunInForeground_; }
  int openForegroundRequests() const { return openForegroundRequests_; }
  bool isSampling() const { return isSampling_; }
  std::optional<Date> timestampOfAccelMonitoringStarted() const { return monitoringStarted_; }

  // The motion signals of the last `duration` seconds of the buffer, valid or not, and the
  // raw-motion capture when asked for. Copies only the samples the answer needs.
  MotionAnswer allSignals(int64_t duration, bool logAdditionalAccelData);
  // Keeps `call` until a sample makes its window valid. On an unsupported device it is
  // answered at once (directly when already on the main queue).
  void requestCallback(int64_t duration, std::shared_ptr<PendingFetchContextCall> call);
  // Drops the flow's waiting calls without calling them; returns how many.
  int64_t cancelCallbackForFlow(const std::string& flowName);
  // Drops samples older than the retention span. The clean-up timer calls it.
  void triggerCleanupOfOldObjects();

  // Samples to signals: the extracted features, or the fixed answer of an unsupported device.
  SignalList extractedAccelSignals(std::span<const AccelerometerSensorValue> accelSensorValues,
                                   int64_t duration) const;
  // True when `signals` holds signal 192 with the bool value true.
  static bool hasValidAccelerometerData(const SignalList& signals);

  std::vector<AccelerometerSensorValue> bufferedSamples() const;
  // The buffered samples younger than `maxAge` seconds, in buffer order.
  std::vector<AccelerometerSensorValue> bufferedSamples(double maxAge) const;
  size_t waitingCallCount() const;

 private:
  struct Core;

  bool wantsSampling() const;
  // Empties the buffer and begins a new sampling session; returns its number.
  uint64_t clearForNewSession();

  const bool isSupported_;
  std::shared_ptr<Core> core_;  // shared with queued work, which may outlive the sensor
  std::mutex stateLock_;
  bool alwaysRunInForeground_;
  int openForegroundRequests_ = 0;
  bool isAppInForeground_ = false;
  bool isSampling_ = false;
  std::optional<Date> monitoringStarted_;
  std::shared_ptr<Cancellable> cleanupTimer_;
};

}  // namespace orvane

#include "motion/AccelerometerSensor.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <map>

#include "motion/AdditionalAccelFeatureExtraction.h"
#include "motion/RawMotionCapture.h"
#include "motion/features/AccelFeatureExtraction.h"
#include "util/WrappingLock.h"

namespace orvane {

namespace {

using WaitingCalls = std::vector<std::shared_ptr<PendingFetchContextCall>>;
using SampleCopy = std::shared_ptr<const std::vector<AccelerometerSensorValue>>;

constexpr const char* kRawMotionQueueName = "com.orvane.RawMotionRecord";

// The answer of a device that cannot sample: no samples, invalid for reason 3. The seconds
// covered are an integer here, unlike the float of an extracted window.
SignalList unsupportedSignals() {
  return {SignalInt(SignalEnum::id(106), 0), SignalBool(SignalEnum::id(192), false),
          SignalInt(SignalEnum::id(128), 0), SignalInt(SignalEnum::id(211), 3)};
}

}  // namespace

// What samples, timers and main-queue jobs need. They hold it weakly (samples, timer) or for
// the length of one job, so the sensor can go while work is still queued.
struct AccelerometerSensor::Core {
  struct Buffer {
    std::vector<AccelerometerSensorValue> samples;
    // Samples of an earlier session (one already queued when sampling stopped) are dropped.
    uint64_t session = 0;
  };

  explicit Core(Environment env, bool supported)
      : environment(std::move(env)),
        isSupported(supported),
        mainQueue(environment.executors ? environment.executors->mainQueue() : nullptr),
        trackingQueue(supported && environment.executors
                          ? environment.executors->makeSerialQueue(kTrackingQueueName)
                          : nullptr),
        extraction(environment.dateProvider) {}

  const Environment environment;
  const bool isSupported;
  const std::shared_ptr<SerialQueue> mainQueue;
  const std::shared_ptr<SerialQueue> trackingQueue;
  const AccelFeatureExtraction extraction;
  std::once_flag additionalOnce;
  std::shared_ptr<const AdditionalAccelFeatureExtraction> additional;
  // Builds raw-motion records in the background, away from requests and samples.
  std::shared_ptr<SerialQueue> recordQueue;

  WrappingLock<Buffer> buffer;
  // Waiting calls by duration in whole seconds, each list in arrival order.
  WrappingLock<std::map<int64_t, WaitingCalls>> listenersForDurations;
  // Mirrors the number of waiting calls, so a sample copies the buffer only when one waits.
  std::atomic<size_t> waitingCount{0};
  std::atomic<bool> closed{false};

  double now() const { return environment.dateProvider->currentDate().secondsSince1970; }

  void logInternalError(const char* where, const std::exception* e) const {
    if (!environment.log) return;
    environment.log->error(std::string("[Orvane] Internal error in ") + where +
                           (e ? std::string(": ") + e->what() : std::string()));
  }

  SignalList extractedAccelSignals(std::span<const AccelerometerSensorValue> values,
                                   int64_t duration) const {
    if (!isSupported) return unsupportedSignals();
    return extraction.extract(values, duration).allSignals();
  }

  int64_t rawMotionDuration() const {
    return environment.additionalAccelDataDuration ? environment.additionalAccelDataDuration() : 0;
  }

  // The raw-motion record of `samples` as of now, built in the background from here on: a log
  // made later finds it ready.
  std::shared_ptr<RawMotionCapture> captureRawMotion(SampleCopy samples, int64_t duration) {
    std::call_once(additionalOnce, [&] {
      additional = std::make_shared<const AdditionalAccelFeatureExtraction>(
          environment.errorReporting, environment.dateProvider);
      if (environment.executors) {
        recordQueue = environment.executors->makeSerialQueue(kRawMotionQueueName);
      }
    });
    auto capture =
        std::make_shared<RawMotionCapture>(additional, std::move(samples), now(), duration);
    if (recordQueue) {
      recordQueue->async([self = weakSelf, weakCapture = std::weak_ptr<RawMotionCapture>(capture)] {
        const auto alive = self.lock();
        const auto pending = weakCapture.lock();
        if (alive && pending && !alive->closed.load()) pending->signals();
      });
    }
    return capture;
  }

  void handleSample(uint64_t session, const DeviceMotion* motion) {
    if (motion == nullptr || closed.load()) return;
    // Motion timestamps count from boot; the buffer keeps wall-clock time.
    const double uptime = environment.clock ? environment.clock->uptime() : motion->timestamp;
    const Date taken{now() - uptime + motion->timestamp};
    AccelerometerSensorValue value(motion->userAcceleration, motion->rotationRate, motion->attitude,
                                   motion->gravity, taken);
    const bool someoneWaits = waitingCount.load() > 0;
    SampleCopy copy = buffer.withLock([&](Buffer& b) -> SampleCopy {
      if (b.session != session) return nullptr;
      b.samples.push_back(value);
      if (!someoneWaits) return nullptr;
      return std::make_shared<const std::vector<AccelerometerSensorValue>>(b.samples);
    });
    if (copy) answerWaitingCalls(copy);
  }

  // Extraction runs outside the waiting calls' lock, so a request or a cancellation never
  // waits for it; a duration's calls are taken only once its window is known to be valid.
  void answerWaitingCalls(const SampleCopy& copy) {
    std::vector<int64_t> durations = listenersForDurations.withLock([](auto& listeners) {
      std::vector<int64_t> waiting;
      for (auto it = listeners.begin(); it != listeners.end();) {
        if (it->second.empty()) {
          it = listeners.erase(it);
        } else {
          waiting.push_back(it->first);
          ++it;
        }
      }
      return waiting;
    });
    for (int64_t duration : durations) {
      SignalList signals = extractedAccelSignals(*copy, duration);
      if (!hasValidAccelerometerData(signals)) continue;
      WaitingCalls calls = listenersForDurations.withLock([&](auto& listeners) {
        WaitingCalls taken;
        auto it = listeners.find(duration);
        if (it == listeners.end()) return taken;
        taken = std::move(it->second);
        listeners.erase(it);
        waitingCount -= taken.size();
        return taken;
      });
      if (calls.empty() || !mainQueue) continue;
      mainQueue->async(
          [self = weakSelf.lock(), calls = std::move(calls), signals = std::move(signals), copy] {
            if (self) self->deliver(calls, signals, copy);
          });
    }
  }

  // On the main queue: every call of one duration gets the same motion signals, in order.
  void deliver(const WaitingCalls& calls, const SignalList& signals, const SampleCopy& samples) {
    for (const auto& call : calls) {
      if (closed.load()) return;
      try {
        MotionAnswer answer{signals, nullptr};
        if (call->logAdditionalAccelData) {
          answer.rawMotion = captureRawMotion(samples, rawMotionDuration());
        }
        if (call->callback) call->callback(std::move(answer));
      } catch (const std::exception& e) {
        logInternalError("accelerometer callback", &e);
      } catch (...) {
        logInternalError("accelerometer callback", nullptr);
      }
    }
  }

  void triggerCleanupOfOldObjects() {
    if (std::isinf(kCleanupRetentionDuration)) return;
    const double cutoff = now() - kCleanupRetentionDuration;
    buffer.withLock([&](Buffer& b) {
      std::erase_if(b.samples, [&](const AccelerometerSensorValue& v) {
        return !(v.timestamp.secondsSince1970 > cutoff);
      });
    });
  }

  std::weak_ptr<Core> weakSelf;
};

AccelerometerSensor::AccelerometerSensor(Environment environment, bool alwaysRunInForeground)
    : isSupported_(environment.motion && environment.motion->isAccelerometerAvailable() &&
                   environment.motion->isGyroAvailable() && !environment.motion->isAppOnDesktop()),
      core_(std::make_shared<Core>(std::move(environment), isSupported_)),
      alwaysRunInForeground_(alwaysRunInForeground) {
  core_->weakSelf = core_;
}

AccelerometerSensor::~AccelerometerSensor() {
  core_->closed.store(true);
  std::lock_guard<std::mutex> guard(stateLock_);
  if (isSampling_) core_->environment.motion->stopMotionUpdates();
  if (cleanupTimer_) cleanupTimer_->cancel();
}

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

uint64_t AccelerometerSensor::clearForNewSession() {
  return core_->buffer.withLock([](Core::Buffer& b) {
    b.samples.clear();
    return ++b.session;
  });
}

void AccelerometerSensor::maybeStartAccelerometer() {
  if (!isSupported_ || isSampling_ || !wantsSampling() || !core_->trackingQueue) return;
  isSampling_ = true;
  const uint64_t session = clearForNewSession();
  std::weak_ptr<Core> weak = core_;
  core_->environment.motion->startDeviceMotionUpdates(
      core_->trackingQueue, [weak, session](const DeviceMotion* motion) {
        auto core = weak.lock();
        if (!core) return;
        try {
          core->handleSample(session, motion);
        } catch (const std::exception& e) {
          core->logInternalError("accelerometer sample", &e);
        } catch (...) {
          core->logInternalError("accelerometer sample", nullptr);
        }
      });
  monitoringStarted_ = core_->environment.dateProvider->currentDate();
  if (cleanupTimer_) cleanupTimer_->cancel();
  cleanupTimer_ = core_->trackingQueue->scheduleRepeating(kCleanupInterval, [weak] {
    if (auto core = weak.lock()) core->triggerCleanupOfOldObjects();
  });
}

void AccelerometerSensor::maybeStopAccelerometer() {
  if (!isSampling_ || wantsSampling()) return;
  isSampling_ = false;
  core_->environment.motion->stopMotionUpdates();
  monitoringStarted_.reset();
  if (cleanupTimer_) cleanupTimer_->cancel();
  cleanupTimer_.reset();
  clearForNewSession();
}

MotionAnswer AccelerometerSensor::allSignals(int64_t duration, bool logAdditionalAccelData) {
  // The features look at samples younger than duration + 1 s; a sample that old now is older
  // still when they run, so the copy holds every sample they can pick.
  const int64_t rawDuration = logAdditionalAccelData ? core_->rawMotionDuration() : 0;
  const double maxAge = std::max(static_cast<double>(std::max<int64_t>(duration, 0)) + 1.0,
                                 static_cast<double>(rawDuration));
  auto copy =
      std::make_shared<const std::vector<AccelerometerSensorValue>>(bufferedSamples(maxAge));
  MotionAnswer answer{core_->extractedAccelSignals(*copy, duration), nullptr};
  if (logAdditionalAccelData)
    answer.rawMotion = core_->captureRawMotion(std::move(copy), rawDuration);
  return answer;
}

void AccelerometerSensor::requestCallback(int64_t duration,
                                          std::shared_ptr<PendingFetchContextCall> call) {
  if (!call) return;
  if (isSupported_) {
    core_->listenersForDurations.withLock([&](auto& listeners) {
      listeners[duration].push_back(std::move(call));
      ++core_->waitingCount;
    });
    return;
  }
  auto answer = [call = std::move(call), signals = core_->extractedAccelSignals({}, duration)] {
    if (call->callback) call->callback(MotionAnswer{signals, nullptr});
  };
  auto main = core_->mainQueue;
  if (!main || main->isCurrent()) {
    answer();
  } else {
    main->async(std::move(answer));
  }
}

int64_t AccelerometerSensor::cancelCallbackForFlow(const std::string& flowName) {
  return core_->listenersForDurations.withLock([&](auto& listeners) {
    size_t removed = 0;
    for (auto& [duration, calls] : listeners) {
      removed += std::erase_if(calls, [&](const auto& call) { return call->flowName == flowName; });
    }
    core_->waitingCount -= removed;
    return static_cast<int64_t>(removed);
  });
}

void AccelerometerSensor::triggerCleanupOfOldObjects() { core_->triggerCleanupOfOldObjects(); }

SignalList AccelerometerSensor::extractedAccelSignals(
    std::span<const AccelerometerSensorValue> accelSensorValues, int64_t duration) const {
  return core_->extractedAccelSignals(accelSensorValues, duration);
}

bool AccelerometerSensor::hasValidAccelerometerData(const SignalList& signals) {
  return std::any_of(signals.begin(), signals.end(), [](const Signal& s) {
    const bool* value = std::get_if<bool>(&s.value());
    return s.id() == SignalEnum::id(192) && value != nullptr && *value;
  });
}

std::vector<AccelerometerSensorValue> AccelerometerSensor::bufferedSamples() const {
  return core_->buffer.withLock([](Core::Buffer& b) { return b.samples; });
}

std::vector<AccelerometerSensorValue> AccelerometerSensor::bufferedSamples(double maxAge) const {
  const double now = core_->now();
  return core_->buffer.withLock([&](Core::Buffer& b) {
    std::vector<AccelerometerSensorValue> young;
    young.reserve(b.samples.size());  // pages past what is written are never touched
    for (const AccelerometerSensorValue& value : b.samples) {
      if (now - value.timestamp.secondsSince1970 < maxAge) young.push_back(value);
    }
    return young;
  });
}

size_t AccelerometerSensor::waitingCallCount() const { return core_->waitingCount.load(); }

}  // namespace orvane

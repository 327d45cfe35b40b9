// Devices whose motion comes from a recording or a function rather than from hardware, and one
// a test drives by hand. Replay runs on a repeating timer of the receiving queue, so updates
// arrive in order on that queue and follow a test's clock when the queue is a test queue.
#include <atomic>
#include <utility>
#include <vector>

#include "motion/MotionTrace.h"
#include "orvane/platform/MotionService.h"

namespace orvane {
namespace {

class ReplayMotionService : public MotionService {
 public:
  ReplayMotionService(std::shared_ptr<Clock> clock, double rateHz, DeviceMotionGenerator generator)
      : clock_(std::move(clock)),
        interval_(rateHz > 0 ? 1.0 / rateHz : 0.01),
        generator_(std::make_shared<DeviceMotionGenerator>(std::move(generator))) {}
  ~ReplayMotionService() override { stopMotionUpdates(); }

  bool isAccelerometerAvailable() const override { return true; }
  bool isGyroAvailable() const override { return true; }
  bool isAppOnDesktop() const override { return false; }

  void startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                DeviceMotionHandler handler) override {
    if (!queue || !handler) return;
    auto run = std::make_shared<Run>();
    run->handler = std::move(handler);
    // The timer's task owns what it needs: it may run once more while a stop is under way.
    auto task = [run, generator = generator_, clock = clock_] {
      if (!run->active.load() || run->ended) return;
      std::optional<DeviceMotion> motion = (*generator)(run->next++);
      if (!motion) {
        run->ended = true;
        return;
      }
      motion->timestamp = clock->uptime();
      run->handler(&*motion);
    };
    std::lock_guard<std::mutex> guard(mutex_);
    stopLocked();
    run_ = run;
    timer_ = queue->scheduleRepeating(interval_, std::move(task));
  }

  void stopMotionUpdates() override {
    std::lock_guard<std::mutex> guard(mutex_);
    stopLocked();
  }

 private:
  // Touched only by the timer's task (one at a time on its queue), apart from `active`.
  struct Run {
    DeviceMotionHandler handler;
    std::atomic<bool> active{true};
    uint64_t next = 0;
    bool ended = false;
  };

  void stopLocked() {
    if (run_) run_->active.store(false);
    if (timer_) timer_->cancel();
    run_.reset();
    timer_.reset();
  }

  const std::shared_ptr<Clock> clock_;
  const double interval_;
  const std::shared_ptr<DeviceMotionGenerator> generator_;
  std::mutex mutex_;
  std::shared_ptr<Run> run_;
  std::shared_ptr<Cancellable> timer_;
};

}  // namespace

std::shared_ptr<MotionService> makeReplayMotionService(std::shared_ptr<Clock> clock, double rateHz,
                                                       DeviceMotionGenerator generator) {
  return std::make_shared<ReplayMotionService>(std::move(clock), rateHz, std::move(generator));
}

std::optional<RecordedMotion> readRecordedMotion(const std::string& tracePath, std::string* error) {
  auto trace = readMotionTraceFile(tracePath);
  if (!trace.ok() || trace->samples.empty()) {
    if (error) *error = trace.ok() ? "the trace holds no samples" : trace.error().description;
    return std::nullopt;
  }
  RecordedMotion recorded;
  recorded.rateHz = trace->rateHz;
  recorded.motions.reserve(trace->samples.size());
  for (const AccelerometerSensorValue& s : trace->samples) {
    recorded.motions.push_back({s.acceleration, s.rotationRate, s.attitude, s.gravity, 0});
  }
  return recorded;
}

std::shared_ptr<MotionService> makeTraceMotionService(std::shared_ptr<Clock> clock,
                                                      const std::string& tracePath,
                                                      std::string* error) {
  auto recorded = readRecordedMotion(tracePath, error);
  if (!recorded) return nullptr;
  // A host replaying a short recording keeps getting motion: the trace starts over.
  auto generator =
      [motions = std::move(recorded->motions)](uint64_t index) -> std::optional<DeviceMotion> {
    return motions[index % motions.size()];
  };
  return makeReplayMotionService(std::move(clock), recorded->rateHz, std::move(generator));
}

std::shared_ptr<MotionService> makeStillMotionService(std::shared_ptr<Clock> clock) {
  return makeReplayMotionService(std::move(clock), 100, [](uint64_t) {
    DeviceMotion still;
    still.gravity = {0, 0, -1};
    return std::optional<DeviceMotion>(still);
  });
}

// ---- Driven by hand -------------------------------------------------------------------------

void ManualMotionService::startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                                   DeviceMotionHandler handler) {
  std::lock_guard<std::mutex> guard(mutex_);
  queue_ = std::move(queue);
  handler_ = std::move(handler);
  ++starts_;
}

void ManualMotionService::stopMotionUpdates() {
  std::lock_guard<std::mutex> guard(mutex_);
  queue_.reset();
  handler_ = nullptr;
}

bool ManualMotionService::push(DeviceMotion motion) { return post(std::move(motion)); }

bool ManualMotionService::pushWithoutMotion() { return post(std::nullopt); }

bool ManualMotionService::post(std::optional<DeviceMotion> motion) {
  std::shared_ptr<SerialQueue> queue;
  DeviceMotionHandler handler;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!queue_ || !handler_) return false;
    queue = queue_;
    handler = handler_;
  }
  if (motion) motion->timestamp = clock_->uptime();
  queue->async([handler = std::move(handler), motion = std::move(motion)] {
    handler(motion ? &*motion : nullptr);
  });
  return true;
}

bool ManualMotionService::isDelivering() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return handler_ != nullptr;
}

int ManualMotionService::startCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return starts_;
}

}  // namespace orvane

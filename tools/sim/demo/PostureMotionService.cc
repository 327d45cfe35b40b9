#include "PostureMotionService.h"

#include <array>
#include <cmath>
#include <vector>

namespace orvane::sim::demo {

struct PostureMotionService::Recordings {
  std::array<std::vector<DeviceMotion>, 3> byPosture;
  double rateHz = 100;
};

namespace {

constexpr std::array<Posture, 3> kPostures = {Posture::kTableFaceUp, Posture::kWalkingInHand,
                                              Posture::kTableFaceDown};

}  // namespace

std::shared_ptr<PostureMotionService> PostureMotionService::load(std::shared_ptr<Clock> clock,
                                                                 const std::string& motionDir,
                                                                 MagnitudeListener listener,
                                                                 std::string* error) {
  auto recordings = std::make_shared<Recordings>();
  for (Posture posture : kPostures) {
    const std::string path = motionDir + "/" + traceFileName(posture);
    std::string why;
    auto trace = readRecordedMotion(path, &why);
    if (!trace) {
      if (error) *error = path + ": " + why;
      return nullptr;
    }
    recordings->rateHz = trace->rateHz;
    recordings->byPosture[static_cast<size_t>(posture)] = std::move(trace->motions);
  }
  return std::shared_ptr<PostureMotionService>(
      new PostureMotionService(std::move(clock), std::move(recordings), std::move(listener)));
}

PostureMotionService::PostureMotionService(std::shared_ptr<Clock> clock,
                                           std::shared_ptr<const Recordings> recordings,
                                           MagnitudeListener listener)
    : clock_(std::move(clock)),
      recordings_(std::move(recordings)),
      listener_(std::make_shared<MagnitudeListener>(std::move(listener))),
      posture_(std::make_shared<std::atomic<Posture>>(Posture::kTableFaceUp)) {}

PostureMotionService::~PostureMotionService() { stopMotionUpdates(); }

void PostureMotionService::startDeviceMotionUpdates(std::shared_ptr<SerialQueue> queue,
                                                    DeviceMotionHandler handler) {
  if (!queue || !handler) return;
  auto running = std::make_shared<std::atomic<bool>>(true);
  // The timer's task owns what it uses: a tick may still run while the service stops.
  auto tick = [running, handler = std::move(handler), recordings = recordings_, posture = posture_,
               listener = listener_, clock = clock_, next = uint64_t{0}]() mutable {
    if (!running->load()) return;
    const auto& motions = recordings->byPosture[static_cast<size_t>(posture->load())];
    DeviceMotion motion = motions[next++ % motions.size()];
    motion.timestamp = clock->uptime();
    const MotionVector& a = motion.userAcceleration;
    if (*listener) (*listener)(std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z));
    handler(&motion);
  };
  std::lock_guard<std::mutex> guard(mutex_);
  stopLocked();
  running_ = running;
  timer_ = queue->scheduleRepeating(1.0 / recordings_->rateHz, std::move(tick));
}

void PostureMotionService::stopMotionUpdates() {
  std::lock_guard<std::mutex> guard(mutex_);
  stopLocked();
}

void PostureMotionService::stopLocked() {
  if (running_) running_->store(false);
  if (timer_) timer_->cancel();
  running_.reset();
  timer_.reset();
}

}  // namespace orvane::sim::demo

#include "testutil/FakePlatform.h"

#include "platform/LevelFilteredLog.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace orvane::testing {

double FakeRandomSource::next() {
  return withLock([&] {
    if (!script_.empty()) {
      last_ = script_.front();
      script_.pop_front();
    }
    return last_;
  });
}
int64_t FakeRandomSource::uniformInt(int64_t lower, int64_t upper) {
  if (upper <= lower) return lower;
  const double span = static_cast<double>(upper - lower);
  return std::min(upper, lower + static_cast<int64_t>(next() * (span + 1)));
}
bool FakeRandomSource::secureBytes(std::span<uint8_t> out) {
  return withLock([&] {
    if (mode_ == SecureMode::kFail) return false;
    for (auto& b : out) b = mode_ == SecureMode::kAllOnes ? 0xFF : counter_++;
    return true;
  });
}

size_t CapturingLog::countIf(const std::function<bool(const std::string&)>& match) const {
  return withLock([&] {
    return static_cast<size_t>(
        std::count_if(lines_.begin(), lines_.end(), [&](const auto& l) { return match(l.text); }));
  });
}

namespace {

thread_local const SerialQueue* currentManualQueue = nullptr;

// Test clocks sit near 1.7e9 s, where a double resolves about 0.24 us: a due time and the
// advance() target that should meet it can differ by a rounding step.
constexpr double kDueTolerance = 1e-6;

class ManualCancellable : public Cancellable {
 public:
  explicit ManualCancellable(std::shared_ptr<bool> flag) : flag_(std::move(flag)) {}
  void cancel() override { *flag_ = true; }

 private:
  std::shared_ptr<bool> flag_;
};

class ManualQueue : public SerialQueue {
 public:
  ManualQueue(std::weak_ptr<ManualExecutors> owner, std::string name)
      : owner_(std::move(owner)), name_(std::move(name)) {}
  const std::string& name() const override { return name_; }
  void async(Task task) override { asyncAfter(0, std::move(task)); }
  std::shared_ptr<Cancellable> asyncAfter(double delay, Task task) override {
    if (auto owner = owner_.lock()) return owner->enqueue(this, delay, 0, std::move(task));
    return std::make_shared<ManualCancellable>(std::make_shared<bool>(true));
  }
  std::shared_ptr<Cancellable> scheduleRepeating(double interval, Task task) override {
    if (auto owner = owner_.lock()) {
      return owner->enqueue(this, interval, std::max(interval, 1e-6), std::move(task));
    }
    return std::make_shared<ManualCancellable>(std::make_shared<bool>(true));
  }
  void sync(Task task) override {
    const SerialQueue* previous = currentManualQueue;
    currentManualQueue = this;
    task();
    currentManualQueue = previous;
  }
  bool isCurrent() const override { return currentManualQueue == this; }

 private:
  std::weak_ptr<ManualExecutors> owner_;
  std::string name_;
};

}  // namespace

std::shared_ptr<SerialQueue> ManualExecutors::mainQueue() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!main_) main_ = std::make_shared<ManualQueue>(weak_from_this(), "main");
  return main_;
}

std::shared_ptr<SerialQueue> ManualExecutors::makeSerialQueue(const std::string& name) {
  auto queue = std::make_shared<ManualQueue>(weak_from_this(), name);
  std::lock_guard<std::mutex> guard(mutex_);
  queues_.push_back(queue);
  return queue;
}

std::shared_ptr<Cancellable> ManualExecutors::enqueue(SerialQueue* queue, double delay,
                                                      double interval, Task task) {
  auto cancelled = std::make_shared<bool>(false);
  const double start = clock_->now();
  const double due = start + std::max(0.0, delay);
  std::lock_guard<std::mutex> guard(mutex_);
  entries_.push_back({nextSequence_++, due, interval, start, 1, queue, std::move(task), cancelled});
  return std::make_shared<ManualCancellable>(cancelled);
}

bool ManualExecutors::runOne(double upTo) {
  Entry entry;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [](const Entry& e) { return *e.cancelled; }),
                   entries_.end());
    auto it =
        std::min_element(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
          return a.due != b.due ? a.due < b.due : a.sequence < b.sequence;
        });
    if (it == entries_.end() || it->due > upTo + kDueTolerance) return false;
    entry = *it;
    if (entry.interval > 0) {
      it->due = it->origin + static_cast<double>(++it->runs) * it->interval;
      it->sequence = nextSequence_++;
    } else {
      entries_.erase(it);
    }
  }
  const SerialQueue* previous = currentManualQueue;
  currentManualQueue = entry.queue;
  entry.task();
  currentManualQueue = previous;
  return true;
}

size_t ManualExecutors::runUntilIdle() {
  size_t ran = 0;
  while (runOne(clock_->now())) ++ran;
  return ran;
}

void ManualExecutors::advance(double seconds) {
  const double target = clock_->now() + seconds;
  runUntilIdle();
  while (true) {
    double nextDue = target + 1;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      for (const auto& e : entries_) {
        if (!*e.cancelled) nextDue = std::min(nextDue, e.due);
      }
    }
    if (nextDue > target + kDueTolerance) break;
    if (nextDue > clock_->now()) clock_->set(std::min(nextDue, target));
    runUntilIdle();
  }
  clock_->set(target);
  runUntilIdle();
}

size_t ManualExecutors::pendingCount() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(),
                                           [](const Entry& e) { return !*e.cancelled; }));
}

namespace {
class UnavailableProvider : public KeyValueStoreProvider {
 public:
  std::shared_ptr<KeyValueStore> openSuite(std::string_view) override { return nullptr; }
};
}  // namespace

std::shared_ptr<KeyValueStoreProvider> makeUnavailableKeyValueStoreProvider() {
  return std::make_shared<UnavailableProvider>();
}

FakePlatform::FakePlatform()
    : clock(std::make_shared<FakeClock>()),
      random(std::make_shared<FakeRandomSource>()),
      log(std::make_shared<CapturingLog>()),
      executors(std::make_shared<ManualExecutors>(clock)),
      motion(std::make_shared<ManualMotionService>(clock)),
      network(std::make_shared<HostNetworkPathService>()),
      notifications(std::make_shared<HostNotificationSettingsService>()) {
  // Suites check the lines a manager writes at every level.
  setProcessLogLevel(SdkLogLevel::kDebug);
  application =
      std::make_shared<HostApplicationService>(executors->mainQueue(), ApplicationState::kInactive);
  platform.clock = clock;
  platform.calendar = makeFixedOffsetCalendar("GMT", 0);
  platform.random = random;
  platform.keyValueStores = makeInMemoryKeyValueStoreProvider();
  platform.fileSystem = makeLocalFileSystem(::testing::TempDir() + "orvane-fake-platform");
  platform.log = log;
  platform.executors = executors;
  platform.crypto = makePortableCrypto();
  platform.application = application;
  platform.motion = motion;
  platform.network = network;
  platform.notifications = notifications;
  DeviceFacts facts;
  facts.machineIdentifier = "iPhone15,2";
  facts.modelName = "iPhone";
  facts.systemVersion = "17.2";
  facts.userInterfaceIdiom = UserInterfaceIdiom::kPhone;
  facts.physicalMemoryBytes = uint64_t{6} << 30;
  facts.activeProcessorCount = 6;
  facts.locale = {"en_US", "en", "US", "USD", false};
  facts.battery = BatteryStatus{0.8f, BatteryState::kUnplugged};
  facts.orientation = DeviceOrientation::kPortrait;
  device = std::make_shared<HostDeviceService>(std::move(facts));
  platform.device = device;
  platform.modelRuntime = makePortableModelRuntime();
  platform.bundle.bundleIdentifier = "com.example.host";
  platform.bundle.shortVersion = "1.0";
  platform.bundle.buildVersion = "1";
}

void FakePlatform::feedMotion(size_t count, double xStep, size_t xPeriod, double y) {
  for (size_t i = 0; i < count; ++i) {
    DeviceMotion sample;
    sample.userAcceleration = {xStep * static_cast<double>(i % xPeriod), y, 0};
    sample.gravity = {0, 0, -1};
    motion->push(sample);
    advance(0.01);
  }
}

}  // namespace orvane::testing

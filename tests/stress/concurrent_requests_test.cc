// Host threads use the request forms, logging, global custom signals and cancellation at once,
// on the Linux platform with real thread queues and a replayed motion device. Run it under
// ThreadSanitizer as well: a race or lock-order report fails the run there.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <filesystem>
#include <future>
#include <random>
#include <thread>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "motion/AccelerometerSensor.h"
#include "orvane/Context.h"
#include "orvane/platform/Platform.h"

namespace orvane {
namespace {

using namespace std::chrono_literals;

std::optional<DeviceMotion> swaying(uint64_t i) {
  DeviceMotion motion;
  const double t = static_cast<double>(i) / 100.0;
  motion.userAcceleration = {0.04 * std::sin(5.0 * t), 0.02 * std::cos(3.0 * t), 0.01};
  motion.gravity = {0, -0.6, -0.8};
  return motion;
}

// Swallows the thousands of premature-logging warnings.
class SilentLog : public SystemLog {
 public:
  void write(LogLevel, std::string_view) override {}
};

// What every asynchronous request was promised: one call, on the main queue.
enum Kind { kSteady, kCancellable, kObserver };
struct Ledger {
  std::atomic<int> issued[3]{}, answered[3]{};
  std::atomic<int> goldenSignals{0}, calledTwice{0}, offMainQueue{0};
};

class StressHost {
 public:
  explicit StressHost(Engine& manager) : manager_(manager) {}

  // One callback per request; it calls back into the SDK as hosts do.
  Engine::ContextCallback callback(Kind kind) {
    ledger.issued[kind]++;
    auto called = std::make_shared<std::atomic<bool>>(false);
    return [this, kind, called](std::shared_ptr<Context> context) {
      if (called->exchange(true)) ledger.calledTwice++;
      if (!manager_.platform().executors->mainQueue()->isCurrent()) ledger.offMainQueue++;
      if (context) {
        context->log(EventOutcome::kPositive);
        manager_.recentContextForFlow(context->flowName());
      }
      ledger.answered[kind]++;
    };
  }

  void runOneThread(unsigned seed, std::chrono::steady_clock::time_point until) {
    std::mt19937 random(seed);
    auto pick = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    while (std::chrono::steady_clock::now() < until) {
      const std::string steady = pick(2) == 0 ? "steady_a" : "steady_b";
      switch (pick(12)) {
        case 0:
          manager_.requestFetchContext(steady, 1 + pick(2), {}, callback(kSteady),
                                       MethodUsed::kFetchContext);
          break;
        case 1:
          manager_.requestFetchContext("cancellable", 2, {}, callback(kCancellable),
                                       MethodUsed::kFetchContext);
          break;
        case 2: {
          const std::optional<int64_t> delays[] = {std::nullopt, 0, 1};
          manager_.requestOptimize(steady, delays[pick(3)], {}, callback(kSteady));
          break;
        }
        case 3:
          manager_.requestCalibrate(steady, pick(2), {}, callback(kSteady));
          break;
        case 4:
          if (auto context =
                  manager_.requestInstantContext(steady, 1, {}, MethodUsed::kInstantContext)) {
            context->log(pick(2) == 0 ? EventOutcome::kPositive : EventOutcome::kNegative);
            context->logIfNotLoggedYet(EventOutcome::kSkipped);
          }
          break;
        case 5:
          manager_.cancelContextCallbackFor("cancellable");
          break;
        case 6:
          manager_.storeGlobalCustomSignal(CustomSignalInt("level", pick(100)));
          break;
        case 7:
          manager_.removeGlobalCustomSignals("level");
          break;
        case 8:
          // "observed" always has an observer, so rounds keep running; the steady flows'
          // observers come and go.
          manager_.registerContextObserverFor(pick(2) == 0 ? "observed" : steady,
                                              callback(kObserver));
          if (pick(2) == 0) manager_.unregisterContextObserverFor(steady);
          break;
        case 9:
          if (manager_.collectGoldenSignals("bid", std::nullopt).count("ctxId") == 1) {
            ledger.goldenSignals++;
          }
          break;
        case 10:
          manager_.recordTrackedEvent(steady + "_viewed", {CustomSignalInt("n", pick(9))},
                                      MethodUsed::kTrackPageView, EventType::kPageView);
          break;
        default:
          if (auto context = manager_.recentContextForFlow(steady)) {
            context->appendOutcomeMetadata({CustomSignalString("seen", "yes")});
          }
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500 + pick(2000)));
    }
  }

  Ledger ledger;

 private:
  Engine& manager_;
};

template <typename Predicate>
bool eventually(Predicate done, std::chrono::seconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

TEST(ConcurrentRequestsStressTest, EveryCallbackIsCalledOnceOnTheMainQueueOrCancelled) {
  const auto dir = std::filesystem::temp_directory_path() / "orvane-stress-requests";
  std::filesystem::remove_all(dir);
  setenv("ORVANE_DATA_DIR", dir.c_str(), 1);
  Platform platform = Platform::defaultPlatform();
  platform.http = nullptr;
  platform.log = std::make_shared<SilentLog>();
  platform.motion = makeReplayMotionService(platform.clock, 100, swaying);
  auto manager = std::make_unique<Engine>(platform, ContextManagerIsSupported::kSupported);
  manager->setupWith("KEY-0123456789abcdef", {}, std::nullopt, Configuration{});
  // The host reports its app active, as on launch: the sensor samples from then on.
  std::dynamic_pointer_cast<HostApplicationService>(platform.application)->becomeActive();
  // A round every second (the default is 30 s), applied on the configuration's own queue.
  ServerConfiguration everySecond;
  everySecond.automaticEntryPointPollingIntervalSeconds = 1;
  manager->remoteConfiguration().applyConfigurationUpdate(everySecond);
  auto& remote = manager->remoteConfiguration();
  ASSERT_TRUE(eventually(
      [&] { return remote.getConfiguration().automaticEntryPointPollingIntervalSeconds == 1; },
      5s));
  StressHost host(*manager);
  manager->registerContextObserverFor("observed", host.callback(kObserver));

  // The whole run under a watchdog: a deadlock fails the test instead of hanging CI.
  auto run = std::async(std::launch::async, [&] {
    const auto until = std::chrono::steady_clock::now() + 2s;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
      threads.emplace_back([&host, t, until] { host.runOneThread(17 + t, until); });
    }
    for (auto& thread : threads) thread.join();
  });
  ASSERT_EQ(run.wait_for(60s), std::future_status::ready) << "host threads never finished";

  Ledger& ledger = host.ledger;
  manager->unregisterContextObserverFor("steady_a");
  manager->unregisterContextObserverFor("steady_b");
  // Rounds ran under the load: at least one observer reached its first good moment.
  EXPECT_TRUE(eventually([&] { return ledger.answered[kObserver] > 0; }, 10s));
  manager->unregisterContextObserverFor("observed");
  // Requests that nobody cancels are all served once their window is there.
  EXPECT_TRUE(eventually([&] { return ledger.answered[kSteady] == ledger.issued[kSteady]; }, 20s))
      << ledger.answered[kSteady] << " of " << ledger.issued[kSteady] << " answered";
  manager->cancelContextCallbackFor("cancellable");
  manager->platform().executors->mainQueue()->sync([] {});
  const int cancellableAnswered = ledger.answered[kCancellable];
  std::this_thread::sleep_for(2500ms);  // longer than a cancelled window
  EXPECT_EQ(ledger.answered[kCancellable], cancellableAnswered) << "a cancelled callback ran";
  EXPECT_LE(ledger.answered[kCancellable], ledger.issued[kCancellable]);
  EXPECT_LE(ledger.answered[kObserver], ledger.issued[kObserver]);
  EXPECT_GT(ledger.issued[kSteady], 50);
  EXPECT_GT(ledger.goldenSignals, 0);
  EXPECT_EQ(ledger.calledTwice, 0);
  EXPECT_EQ(ledger.offMainQueue, 0);
  {
    AccelerometerSensor& sensor = manager->accelerometerSensor();
    std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
    EXPECT_EQ(sensor.openForegroundRequests(), 0) << "a request was never released";
  }
  manager.reset();
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace orvane

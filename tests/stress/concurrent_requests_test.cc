// Several host threads use the request forms, logging, global custom signals and cancellation
// at once, on the Linux platform with real thread queues and a replayed motion device. Run it
// under ThreadSanitizer as well: a race or lock-order report fails the run there.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <future>
#include <random>
#include <thread>

#include "motion/AccelerometerSensor.h"
#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/platform/ApplicationService.h"
#include "orvane/platform/MotionService.h"
#include "orvane/platform/Platform.h"
#include "orvane/platform/SystemLog.h"

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

// Counts the lines instead of printing thousands of premature-logging warnings.
class CountingLog : public SystemLog {
 public:
  void write(LogLevel, std::string_view) override { lines++; }
  std::atomic<int> lines{0};
};

// What every asynchronous request was promised: one call, on the main queue.
struct Ledger {
  std::atomic<int> issuedSteady{0};
  std::atomic<int> answeredSteady{0};
  std::atomic<int> issuedCancellable{0};
  std::atomic<int> answeredCancellable{0};
  std::atomic<int> observersRegistered{0};
  std::atomic<int> observersFired{0};
  std::atomic<int> calledTwice{0};
  std::atomic<int> offMainQueue{0};
  std::atomic<int> logsFromCallbacks{0};
};

class StressHost {
 public:
  explicit StressHost(ContextManager& manager) : manager_(manager) {}

  // One callback per request; it calls back into the SDK as hosts do.
  enum class Kind { kSteady, kCancellable, kObserver };
  static std::atomic<int>& issued(Ledger& l, Kind kind) {
    return kind == Kind::kSteady        ? l.issuedSteady
           : kind == Kind::kCancellable ? l.issuedCancellable
                                        : l.observersRegistered;
  }
  static std::atomic<int>& answered(Ledger& l, Kind kind) {
    return kind == Kind::kSteady        ? l.answeredSteady
           : kind == Kind::kCancellable ? l.answeredCancellable
                                        : l.observersFired;
  }

  ContextManager::ContextCallback callback(Kind kind) {
    issued(ledger, kind)++;
    auto called = std::make_shared<std::atomic<bool>>(false);
    return [this, kind, called](std::shared_ptr<Context> context) {
      if (called->exchange(true)) ledger.calledTwice++;
      if (!manager_.platform().executors->mainQueue()->isCurrent()) ledger.offMainQueue++;
      if (context) {
        context->log(EventOutcome::kPositive);
        manager_.recentContextForFlow(context->flowName());
        ledger.logsFromCallbacks++;
      }
      answered(ledger, kind)++;
    };
  }

  void runOneThread(unsigned seed, std::chrono::steady_clock::time_point until) {
    std::mt19937 random(seed);
    auto pick = [&random](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    while (std::chrono::steady_clock::now() < until) {
      const std::string steady = pick(2) == 0 ? "steady_a" : "steady_b";
      switch (pick(10)) {
        case 0:
          manager_.requestFetchContext(steady, 1 + pick(2), {}, callback(Kind::kSteady),
                                       MethodUsed::kFetchContext);
          break;
        case 1:
          manager_.requestFetchContext("cancellable", 2, {}, callback(Kind::kCancellable),
                                       MethodUsed::kFetchContext);
          break;
        case 2: {
          const std::optional<int64_t> delays[] = {std::nullopt, 0, 1};
          manager_.requestOptimize(steady, delays[pick(3)], {}, callback(Kind::kSteady));
          break;
        }
        case 3:
          manager_.requestCalibrate(steady, pick(2), {}, callback(Kind::kSteady));
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
          if (pick(2) == 0) {
            manager_.registerContextObserverFor(steady, callback(Kind::kObserver));
          } else {
            manager_.unregisterContextObserverFor(steady);
          }
          break;
        default:
          if (auto context = manager_.recentContextForFlow(steady)) {
            context->appendOutcomeMetadata({CustomSignalString("seen", "yes")});
          }
          break;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(500 + pick(2000)));
    }
  }

  Ledger ledger;

 private:
  ContextManager& manager_;
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
  auto log = std::make_shared<CountingLog>();
  platform.log = log;
  platform.motion = makeReplayMotionService(platform.clock, 100, swaying);
  auto manager = std::make_unique<ContextManager>(platform, ContextManagerIsSupported::kSupported);
  Configuration configuration;
  configuration.enableInstantContext = true;
  manager->setupWith("KEY-0123456789abcdef", {}, std::nullopt, configuration);
  // The host reports its app active, as on launch: the sensor samples from then on.
  if (auto host = std::dynamic_pointer_cast<HostApplicationService>(platform.application)) {
    host->becomeActive();
  }
  StressHost host(*manager);

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
  // Requests that nobody cancels are all served once their window is there.
  EXPECT_TRUE(eventually([&] { return ledger.answeredSteady == ledger.issuedSteady; }, 20s))
      << ledger.answeredSteady << " of " << ledger.issuedSteady << " answered";
  manager->cancelContextCallbackFor("cancellable");
  manager->platform().executors->mainQueue()->sync([] {});
  const int cancellableAnswered = ledger.answeredCancellable;
  std::this_thread::sleep_for(2500ms);  // longer than a cancelled window
  EXPECT_EQ(ledger.answeredCancellable, cancellableAnswered) << "a cancelled callback ran";
  EXPECT_LE(ledger.answeredCancellable, ledger.issuedCancellable);

  std::printf(
      "steady %d, cancellable %d issued (%d answered), observers %d (%d fired), "
      "%d logs from callbacks\n",
      ledger.issuedSteady.load(), ledger.issuedCancellable.load(),
      ledger.answeredCancellable.load(), ledger.observersRegistered.load(),
      ledger.observersFired.load(), ledger.logsFromCallbacks.load());
  EXPECT_LE(ledger.observersFired, ledger.observersRegistered);
  EXPECT_GT(ledger.issuedSteady, 50);
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

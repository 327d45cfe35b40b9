// The public static API end to end, as a host calls it: the process-wide manager runs on a
// platform whose device replays motion at 100 Hz and whose main queue the test drives.
#include <gtest/gtest.h>

#include <cmath>

#include "api/Engine.h"
#include "models/CoreMLModelManager.h"
#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/Version.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

std::optional<DeviceMotion> handheld(uint64_t i) {
  DeviceMotion motion;
  const double t = static_cast<double>(i) / 100.0;
  motion.userAcceleration = {0.05 * std::sin(7.0 * t), 0.02 * std::cos(3.0 * t), 0.01};
  motion.gravity = {0, -0.7, -0.7};
  return motion;
}

class StaticApiTest : public ::testing::Test {
 protected:
  // The shared manager lives as long as the process, so its platform does too.
  static testing::FakePlatform& fake() {
    static auto* platform = [] {
      auto* fake = new testing::FakePlatform();
      fake->platform.motion = makeReplayMotionService(fake->platform.clock, 100, handheld);
      return fake;
    }();
    return *platform;
  }

  static void SetUpTestSuite() {
    ASSERT_TRUE(ContextManager::installDefaultPlatform(fake().platform));
    ContextManager::setup("KEY-0123456789abcdef");
    fake().application->becomeActive();
    fake().drain();
  }

  // Real time for the device: each 10 ms step delivers a sample and runs what it posts.
  static void play(double seconds) {
    for (int step = 0; step < static_cast<int>(std::lround(seconds * 100)); ++step) {
      fake().advance(0.01);
    }
  }

  ContextManager::ContextCallback record(std::vector<std::shared_ptr<Context>>& into) {
    return [&into](std::shared_ptr<Context> context) {
      EXPECT_TRUE(fake().executors->mainQueue()->isCurrent());
      into.push_back(std::move(context));
    };
  }
};

TEST_F(StaticApiTest, RequestFormsObserversGoldenSignalsAndValidation) {
  std::vector<std::shared_ptr<Context>> waited, atOnce, optimized, instant, cancelled, observed;

  // A fetch that waits for its window, then one served from the buffer at once.
  ContextManager::fetchContext("home", 2, {}, record(waited));
  play(1.0);
  EXPECT_TRUE(waited.empty());
  play(1.2);
  ASSERT_EQ(waited.size(), 1u);
  ContextManager::fetchContext("home", 1, {}, record(atOnce));
  fake().drain();
  EXPECT_EQ(atOnce.size(), 1u);

  // optimize without a model waits for 3 s of data; with no delay it answers at once.
  ContextManager::optimize("paywall", std::nullopt, {}, record(optimized));
  fake().drain();
  EXPECT_TRUE(optimized.empty());
  play(1.0);
  ASSERT_EQ(optimized.size(), 1u);
  ContextManager::optimize("paywall", 0, {}, record(instant));
  fake().drain();
  EXPECT_EQ(instant.size(), 1u);
  EXPECT_EQ(ContextManager::recentContext("paywall"), instant.at(0));

  // A cancelled request is never answered.
  ContextManager::fetchContext("checkout", 10, {}, record(cancelled));
  ContextManager::cancelContextCallback("checkout");
  play(10.5);
  EXPECT_TRUE(cancelled.empty());

  // An observer fires once, at the first round (every 30 s by default), and is then gone.
  ContextManager::registerContextObserver("feed", record(observed));
  play(31);
  EXPECT_EQ(observed.size(), 1u);
  play(31);
  EXPECT_EQ(observed.size(), 1u);

  const PlistDictionary golden = ContextManager::goldenSignals("bid", std::nullopt);
  ASSERT_TRUE(golden.count("ctxId"));
  EXPECT_FALSE(golden.at("ctxId").asString()->empty());

  const std::string report = ContextManager::instantContext("home", 3, {})->validate();
  EXPECT_NE(report.find("✅ Calibration Mode active"), std::string::npos) << report;
  EXPECT_NE(report.find("✅ Accelerometer Data: Valid"), std::string::npos) << report;
  EXPECT_EQ(report.find("❌"), std::string::npos) << report;
}

TEST_F(StaticApiTest, StaticSettersReachTheSharedManager) {
  EXPECT_FALSE(ContextManager::installDefaultPlatform(fake().platform));  // too late now
  EXPECT_EQ(&ContextManager::shared(), &ContextManager::shared());
  Engine& shared = ContextManagerAccess::engine(ContextManager::shared());
  EXPECT_EQ(shared.licenseKey(), "KEY-0123456789abcdef");
  EXPECT_EQ(ContextManager::sdkVersion(), ORVANE_VERSION_STRING);

  ContextManager::setGlobalCustomSignal("n", 1);
  ContextManager::setGlobalCustomSignal("f", 0.5);
  ContextManager::setGlobalCustomSignal("s", "text");
  ContextManager::setGlobalCustomSignal("d", *Decimal::parse("1.25"));
  ContextManager::setGlobalCustomSignal("f", 2);  // replaced in place
  ContextManager::setGlobalCustomSignal("n", std::optional<std::string>());
  ContextManager::setGlobalCustomSignal("n", "again");  // removed ids come back at the end
  EXPECT_EQ(shared.globalCustomSignals(),
            (CustomSignalList{CustomSignalInt("f", 2), CustomSignalString("s", "text"),
                              CustomSignalDecimal("d", *Decimal::parse("1.25")),
                              CustomSignalString("n", "again")}));

  ContextManager::setControlMode(true);
  EXPECT_FALSE(shared.coreMLModelManager().decisionsEnabled());
  ContextManager::setDecisionsEnabled(true);
  EXPECT_TRUE(shared.coreMLModelManager().decisionsEnabled());

  int sent = 0;
  fake().drain();  // logs still queued by the requests above
  ContextManager::setLogSender([&](std::shared_ptr<Log>) { ++sent; });
  shared.sendLog(nullptr);
  fake().drain();
  EXPECT_EQ(sent, 1);
  ContextManager::setLogSender(nullptr);
}

}  // namespace
}  // namespace orvane

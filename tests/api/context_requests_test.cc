// The request forms through a manager with a hand-driven motion device and a test main queue.
#include <gtest/gtest.h>

#include "api/Engine.h"
#include "motion/AccelerometerSensor.h"
#include "orvane/Context.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

class RequestsTest : public ::testing::Test {
 protected:
  RequestsTest() {
    Configuration configuration;
    configuration.enableInstantContext = false;  // sample only while a request waits
    manager.setupWith(
        "KEY-0123456789abcdef", [](std::shared_ptr<Log>) {}, std::nullopt, configuration);
    fake.application->becomeActive();
    fake.drain();
  }
  // Samples at 100 Hz; each is delivered, and what it posts runs, before the next.
  void feed(size_t count) { fake.feedMotion(count, 0.02, 5, 0.01); }
  Engine::ContextCallback record() {
    return [this](std::shared_ptr<Context> c) {
      onMain.push_back(fake.executors->mainQueue()->isCurrent());
      answered.push_back(std::move(c));
    };
  }

  testing::FakePlatform fake;
  Engine manager{fake.platform, ContextManagerIsSupported::kSupported};
  std::vector<std::shared_ptr<Context>> answered;
  std::vector<bool> onMain;
};

// Waiting, serving from the buffer and cancelling are run end to end through the static API;
// here: what the answer carries, and that the sensor samples only while a request waits.
TEST_F(RequestsTest, FetchSamplesOnlyWhileARequestWaits) {
  manager.requestFetchContext("paywall", 3, {}, record(), MethodUsed::kFetchContext);
  fake.drain();
  EXPECT_TRUE(manager.accelerometerSensor().isSampling());
  feed(350);
  ASSERT_EQ(answered.size(), 1u);
  EXPECT_TRUE(onMain[0]);
  const SignalList signals = answered[0]->signals();
  EXPECT_EQ(testing::intSignal(signals, 191), 3);
  EXPECT_EQ(testing::intSignal(signals, 25), 2);
  EXPECT_GE(testing::intSignal(signals, 106).value_or(0), 300);  // samples in the window
  EXPECT_FALSE(manager.accelerometerSensor().isSampling());

  manager.requestFetchContext("home", 5, {}, record(), MethodUsed::kFetchContext);
  fake.drain();
  EXPECT_TRUE(manager.accelerometerSensor().isSampling());
  manager.cancelContextCallbackFor("home");
  EXPECT_FALSE(manager.accelerometerSensor().isSampling());
}

TEST_F(RequestsTest, InstantOptimizeAndCalibrateForms) {
  auto instant =
      manager.requestInstantContext(std::string(501, 'x'), 3, {}, MethodUsed::kInstantContext);
  ASSERT_TRUE(instant);
  EXPECT_EQ(fake.log->countContaining("exceeds the maximum allowed length of 500 characters"), 1u);
  EXPECT_EQ(fake.log->countContaining("requires instant context to be enabled"), 1u);

  // A zero delay is instant, and from the main queue the callback runs before optimize returns.
  fake.executors->mainQueue()->sync(
      [&] { manager.requestOptimize("flow", int64_t{0}, {}, record()); });
  ASSERT_EQ(answered.size(), 1u);
  EXPECT_EQ(testing::intSignal(answered[0]->signals(), 191), 3);
  EXPECT_EQ(testing::intSignal(answered[0]->signals(), 25), 4);

  manager.requestCalibrate("flow", 0, {}, record());
  fake.drain();
  ASSERT_EQ(answered.size(), 2u);
  EXPECT_EQ(testing::intSignal(answered[1]->signals(), 25), 3);
  EXPECT_EQ(manager.recentContextForFlow("flow"), answered[1]);
}

}  // namespace
}  // namespace orvane

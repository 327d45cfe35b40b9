// The request forms through a manager with a hand-driven motion device and a test main queue.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
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

// Waiting and serving from the buffer are run end to end through the static API; here: what
// the answer carries, and that the sensor samples only while a request waits.
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
}

TEST_F(RequestsTest, CancellingAFlowDropsEveryOneOfItsWaitingRequests) {
  AccelerometerSensor& sensor = manager.accelerometerSensor();
  auto openRequests = [&] {
    std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
    return sensor.openForegroundRequests();
  };
  for (int64_t duration : {3, 3, 5}) {
    manager.requestFetchContext("paywall", duration, {}, record(), MethodUsed::kFetchContext);
  }
  manager.requestFetchContext("home", 6, {}, record(), MethodUsed::kFetchContext);
  fake.drain();
  ASSERT_EQ(openRequests(), 4);

  // None of the flow's callbacks runs, each request lets go of the sensor, and the other
  // flow's request keeps it sampling until its own, longer window is there.
  manager.cancelContextCallbackFor("paywall");
  EXPECT_EQ(openRequests(), 1);
  EXPECT_TRUE(sensor.isSampling());
  feed(650);
  ASSERT_EQ(answered.size(), 1u);
  EXPECT_EQ(answered[0]->flowName(), "home");
  EXPECT_EQ(openRequests(), 0);
  EXPECT_FALSE(sensor.isSampling());

  // With only the cancelled flow waiting, sampling stops at once.
  manager.requestFetchContext("paywall", 2, {}, record(), MethodUsed::kFetchContext);
  manager.requestFetchContext("paywall", 4, {}, record(), MethodUsed::kFetchContext);
  fake.drain();
  EXPECT_TRUE(sensor.isSampling());
  manager.cancelContextCallbackFor("paywall");
  EXPECT_EQ(openRequests(), 0);
  EXPECT_FALSE(sensor.isSampling());
  EXPECT_EQ(sensor.waitingCallCount(), 0u);
  EXPECT_EQ(answered.size(), 1u);
}

// Whether a request carries the raw-motion record (444) is drawn per request from the
// configured share, for requests that wait, those served from the buffer and instant ones.
TEST_F(RequestsTest, EachRequestDrawsItsOwnRawMotionDecision) {
  struct Case {
    float rate;
    std::vector<double> draws;  // of requests A to D in turn
    std::map<char, bool> carried;
  };
  const Case cases[] = {
      {0, {0.0}, {{'A', false}, {'B', false}, {'C', false}, {'D', false}}},
      {1, {1.0}, {{'A', true}, {'B', true}, {'C', true}, {'D', true}}},
      {0.5f, {0.4, 0.6, 0.5, 0.7}, {{'A', true}, {'B', false}, {'C', true}, {'D', false}}},
      {0.25f, {0.9, 0.1, 0.3, 0.2}, {{'A', false}, {'B', true}, {'C', false}, {'D', true}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rate);
    ServerConfiguration update;
    update.additionalAccelDataSampleRate = c.rate;
    manager.remoteConfiguration().applyConfigurationUpdate(update);
    fake.drain();
    fake.random->scriptUniform(c.draws);
    std::map<char, bool> carried;
    auto request = [&](char name, int64_t duration) {
      manager.requestFetchContext(
          "paywall", duration, {},
          [&carried, name](std::shared_ptr<Context> context) {
            carried[name] = testing::findSignal(context->signals(), 444) != nullptr;
          },
          MethodUsed::kFetchContext);
      fake.drain();
    };
    request('A', 1);  // both wait for their window
    request('B', 2);
    feed(110);
    request('C', 1);  // served from the buffer at once
    auto instant = [&](MethodUsed method) {
      auto context = manager.requestInstantContext("paywall", 1, {}, method);
      return testing::findSignal(context->signals(), 444) != nullptr;
    };
    carried['D'] = instant(MethodUsed::kInstantContext);
    EXPECT_FALSE(instant(MethodUsed::kFurther10));  // never carries it
    feed(100);
    EXPECT_EQ(carried, c.carried);
  }
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

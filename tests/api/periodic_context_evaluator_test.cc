// Observers through a manager on virtual time: rounds every polling interval (30 s by
// default), each waiting for 3 s of hand-fed motion data; control chances decide yes or no.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "models/CoreMLModelManager.h"
#include "motion/AccelerometerSensor.h"
#include "orvane/Context.h"
#include "testutil/FakePlatform.h"
#include "testutil/ManagerHelpers.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

constexpr double kInterval = 30;

class ObserverTest : public ::testing::Test {
 protected:
  ObserverTest() {
    Configuration configuration;
    configuration.enableInstantContext = false;  // sample only while a request waits
    manager.setupWith(
        "KEY-0123456789abcdef", [this](std::shared_ptr<Log>) { ++logsSent; }, std::nullopt,
        configuration);
    fake.application->becomeActive();
    fake.drain();
  }

  // 0: the flow always says no; 1: always yes. Forgets the decisions already cached.
  void assignControl(const std::string& flow, double chance) {
    testing::storeFlowRecord(*manager.userDefaultsProvider(), flow,
                             testing::controlRecord(chance, 3));
    manager.setDecisionsSwitch(true);
  }
  // Samples at 100 Hz, each delivered (and what it posts run) before the next.
  void feed(size_t count) { fake.feedMotion(count, 0.02, 5, 0.01); }
  void feedWindow() { feed(350); }
  Engine::ContextCallback observer(const std::string& name) {
    return [this, name](std::shared_ptr<Context> context) {
      fired.push_back(name);
      firedOnMain.push_back(fake.executors->mainQueue()->isCurrent());
      firedContexts.push_back(std::move(context));
    };
  }
  // The flow's last context, without marking it as handed out again.
  std::shared_ptr<Context> lastContext(const std::string& flow) {
    return manager.withRecentContexts([&](Engine::RecentContexts& recent) {
      auto it = recent.find(flow);
      return it == recent.end() ? nullptr : it->second;
    });
  }
  size_t waiting() { return manager.accelerometerSensor().waitingCallCount(); }

  testing::FakePlatform fake;
  Engine manager{fake.platform, ContextManagerIsSupported::kSupported};
  int logsSent = 0;
  std::vector<std::string> fired;
  std::vector<bool> firedOnMain;
  std::vector<std::shared_ptr<Context>> firedContexts;
};

TEST_F(ObserverTest, SilentNoThenTheLatestObserverFiresOnceAtTheFirstYes) {
  assignControl("paywall", 0);
  manager.registerContextObserverFor("paywall", observer("first"));
  manager.registerContextObserverFor("paywall", observer("second"));
  fake.advance(kInterval - 1);
  EXPECT_EQ(waiting(), 0u);  // the first round is one interval away
  fake.advance(1);
  EXPECT_EQ(waiting(), 1u);
  feedWindow();

  // The round decided no: nothing is called and nothing is logged.
  auto no = lastContext("paywall");
  ASSERT_TRUE(no);
  EXPECT_FALSE(no->shouldUpsell());
  EXPECT_EQ(testing::intSignal(no->signals(), 25), 15);
  EXPECT_EQ(testing::intSignal(no->signals(), 191), 3);
  EXPECT_TRUE(fired.empty());
  EXPECT_EQ(logsSent, 0);
  EXPECT_FALSE(manager.accelerometerSensor().isSampling());  // the round's request is released

  assignControl("paywall", 1);
  fake.advance(kInterval);
  feedWindow();
  ASSERT_EQ(fired, std::vector<std::string>{"second"});
  EXPECT_TRUE(firedOnMain[0]);
  EXPECT_EQ(firedContexts[0], lastContext("paywall"));
  EXPECT_EQ(logsSent, 0);  // that a fired observer is gone is checked through the static API
}

TEST_F(ObserverTest, AYesEndsTheRoundAndTheOtherFlowWaitsAnInterval) {
  assignControl("a", 1);
  assignControl("b", 1);
  manager.registerContextObserverFor("b", observer("b"));
  manager.registerContextObserverFor("a", observer("a"));
  fake.advance(kInterval);
  feedWindow();
  EXPECT_EQ(fired, std::vector<std::string>{"a"});
  EXPECT_FALSE(lastContext("b"));

  fake.advance(kInterval - 1);
  EXPECT_EQ(waiting(), 0u);
  fake.advance(1);
  feedWindow();
  EXPECT_EQ(fired, (std::vector<std::string>{"a", "b"}));
}

TEST_F(ObserverTest, RoundsStopWithTheLastObserverAndWhileTheAppIsInactive) {
  assignControl("paywall", 0);
  manager.registerContextObserverFor("paywall", observer("paywall"));
  fake.drain();
  manager.unregisterContextObserverFor("paywall");
  fake.advance(3 * kInterval);
  EXPECT_EQ(waiting(), 0u);
  EXPECT_FALSE(lastContext("paywall"));

  manager.registerContextObserverFor("paywall", observer("paywall"));
  fake.advance(kInterval / 2);
  fake.application->resignActive();
  fake.advance(3 * kInterval);
  EXPECT_EQ(waiting(), 0u);
  // Registering in the background schedules nothing either.
  assignControl("home", 0);
  manager.registerContextObserverFor("home", observer("home"));
  fake.advance(3 * kInterval);
  EXPECT_EQ(waiting(), 0u);

  fake.application->becomeActive();
  fake.advance(kInterval - 1);
  EXPECT_EQ(waiting(), 0u);
  fake.advance(1);
  EXPECT_EQ(waiting(), 1u);
  feedWindow();
  EXPECT_TRUE(lastContext("home"));
  feedWindow();  // a "no" moves on to the next flow in the same round
  EXPECT_TRUE(lastContext("paywall"));
}

TEST_F(ObserverTest, CancellingTheAwaitedFlowReleasesTheRound) {
  assignControl("a", 1);
  assignControl("b", 1);
  manager.registerContextObserverFor("a", observer("a"));
  manager.registerContextObserverFor("b", observer("b"));
  fake.advance(kInterval);
  ASSERT_EQ(waiting(), 1u);  // the round waits for motion data for "a"

  // Changes made while the round waits apply after it: "b" is still evaluated this round.
  manager.unregisterContextObserverFor("b");
  manager.cancelContextCallbackFor("a");
  fake.drain();
  EXPECT_EQ(waiting(), 1u);  // now for "b"
  feedWindow();
  EXPECT_EQ(fired, std::vector<std::string>{"b"});
  EXPECT_FALSE(lastContext("a"));

  // The cancelled observer is still registered and fires in the next round.
  fake.advance(kInterval);
  feedWindow();
  EXPECT_EQ(fired, (std::vector<std::string>{"b", "a"}));
}

// On real threads the round holds the evaluator's queue while the main queue creates the
// context: this must neither deadlock nor call the observer anywhere but on the main queue.
TEST(ObserverThreadsTest, ARoundOnRealQueuesReachesTheObserverOnTheMainQueue) {
  testing::FakePlatform fake;
  fake.platform.executors = makeThreadExecutors();
  fake.platform.motion = makeUnsupportedMotionService();  // requests are answered at once
  Engine manager(fake.platform, ContextManagerIsSupported::kSupported);
  ServerConfiguration fast;
  fast.automaticEntryPointPollingIntervalSeconds = 0;  // raised to the one-second floor
  manager.remoteConfiguration().applyConfigurationUpdate(fast);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (
      manager.remoteConfiguration().getConfiguration().automaticEntryPointPollingIntervalSeconds !=
          0 &&
      std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  auto main = fake.platform.executors->mainQueue();
  std::promise<bool> firedOnMain;
  const auto registered = std::chrono::steady_clock::now();
  manager.registerContextObserverFor(
      "paywall", [&](std::shared_ptr<Context>) { firedOnMain.set_value(main->isCurrent()); });
  auto answer = firedOnMain.get_future();
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(answer.get());
  EXPECT_GE(std::chrono::steady_clock::now() - registered, std::chrono::milliseconds(900));
}

}  // namespace
}  // namespace orvane

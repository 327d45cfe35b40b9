// The request forms through a manager with a hand-driven motion device and a test main queue.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <vector>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "config/ServerPayload.h"
#include "models/CoreMLModelManager.h"
#include "motion/AccelerometerSensor.h"
#include "orvane/Context.h"
#include "orvane/Log.h"
#include "testutil/FakePlatform.h"
#include "testutil/Fixtures.h"
#include "testutil/ManagerHelpers.h"
#include "testutil/RecordingHttpTransport.h"

namespace orvane {
namespace {

// Model downloads go to a transport the test scripts, into a folder of the test's own.
Platform withModelDownloads(testing::FakePlatform& fake,
                            std::shared_ptr<testing::RecordingHttpTransport> http) {
  const std::string root = ::testing::TempDir() + "orvane-requests-" +
                           ::testing::UnitTest::GetInstance()->current_test_info()->name();
  std::filesystem::remove_all(root);
  fake.platform.fileSystem = makeLocalFileSystem(root);
  fake.platform.http = std::move(http);
  return fake.platform;
}

class RequestsTest : public ::testing::Test {
 protected:
  RequestsTest() {
    Configuration configuration;
    configuration.enableInstantContext = false;  // sample only while a request waits
    manager.setupWith("KEY-0123456789abcdef", sent.sender(), std::nullopt, configuration);
    fake.application->becomeActive();
    fake.drain();
  }
  // Assigns the fixture model (which wants 5 s of motion data) to `flow`; a threshold above
  // any probability makes it always answer no, one below any always yes.
  void assignModel(const std::string& flow, double threshold) {
    ServerModelInfo entry;
    entry.modelUrl = "http://127.0.0.1:9/models/upsell.mlmodel";
    entry.modelVersion = "upsell-demo-2024.06.1";
    entry.upsellThreshold = threshold;
    entry.randomUpsellChance = 0.0;
    entry.useInstantContext = false;
    ServerUpdatePayload payload;
    payload.version = ++modelUpdates;
    payload.modelInfoPerFlow = {{flow, entry}};
    http->script({{HttpResponse{200, {}, {}}, std::nullopt,
                   testing::readFixture("coreml/upsell_signals.mlmodel")}});
    manager.coreMLModelManager().applyModelUpdates(payload);
    fake.drain();
    ASSERT_EQ(manager.coreMLModelManager().getModelInfoForFlow(flow).supportedDuration, 5);
  }
  size_t negativeOutcomesLogged() {
    size_t count = 0;
    for (const auto& log : sent.take()) {
      if (testing::intSignal(log->signals(), 3) == Context::kAutomaticNegativeOutcome) ++count;
    }
    return count;
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
  std::shared_ptr<testing::RecordingHttpTransport> http =
      std::make_shared<testing::RecordingHttpTransport>();
  Engine manager{withModelDownloads(fake, http), ContextManagerIsSupported::kSupported};
  testing::SentLogs sent;
  int64_t modelUpdates = 0;
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
    // The record goes with the outcome's log, never with the creation log.
    auto outcomeCarries = [&](const std::shared_ptr<Context>& context) {
      sent.take();
      context->log(EventOutcome::kPositive);
      fake.drain();
      const auto logs = sent.take();
      return logs.size() == 1 && testing::findSignal(logs[0]->signals(), 444) != nullptr;
    };
    std::map<char, std::shared_ptr<Context>> contexts;
    auto request = [&](char name, int64_t duration) {
      manager.requestFetchContext(
          "paywall", duration, {},
          [&contexts, name](std::shared_ptr<Context> context) { contexts[name] = context; },
          MethodUsed::kFetchContext);
      fake.drain();
    };
    request('A', 1);  // both wait for their window
    request('B', 2);
    feed(110);
    request('C', 1);  // served from the buffer at once
    contexts['D'] = manager.requestInstantContext("paywall", 1, {}, MethodUsed::kInstantContext);
    auto further = manager.requestInstantContext("paywall", 1, {}, MethodUsed::kFurther10);
    feed(100);
    std::map<char, bool> carried;
    for (const auto& [name, context] : contexts) {
      ASSERT_TRUE(context) << name;
      EXPECT_FALSE(testing::findSignal(context->signals(), 444));
      carried[name] = outcomeCarries(context);
    }
    EXPECT_EQ(carried, c.carried);
    EXPECT_FALSE(outcomeCarries(further));  // never carries it
  }
}

TEST_F(RequestsTest, InstantOptimizeAndCalibrateForms) {
  auto instant = manager.requestInstantContext("home", 3, {}, MethodUsed::kInstantContext);
  ASSERT_TRUE(instant);
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

// The limit is 500 characters, whatever their UTF-8 length; every request is still served.
TEST_F(RequestsTest, FlowNamesOverFiveHundredCharactersAreLoggedAndServed) {
  std::string cjk500;
  for (int i = 0; i < 500; ++i) cjk500 += "\u6D41";  // three bytes each
  const struct {
    std::string name;
    size_t lines;
  } cases[] = {
      {std::string(500, 'x'), 0}, {std::string(501, 'x'), 1}, {cjk500, 0}, {cjk500 + "\u00E9", 1}};
  for (const auto& c : cases) {
    fake.log->clear();
    EXPECT_TRUE(manager.requestInstantContext(c.name, 3, {}, MethodUsed::kInstantContext));
    EXPECT_EQ(fake.log->countContaining("exceeds the maximum allowed length of 500 characters"),
              c.lines)
        << c.name.size() << " bytes";
  }
}

// A wait the 20-second buffer cannot answer is clamped into 1...20 s, with a line naming the
// call, and answered as for the clamped duration.
TEST_F(RequestsTest, WaitsOutsideWhatTheBufferHoldsAreClampedAndAnswered) {
  const struct {
    const char* form;
    int64_t asked;
    int64_t used;
  } cases[] = {{"fetchContext", 0, 1},
               {"fetchContext", -4, 1},
               {"optimize", 45, 20},
               {"calibrate", 21, 20},
               {"fetchContext", 20, 20}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.form) + " " + std::to_string(c.asked));
    fake.log->clear();
    answered.clear();
    const std::string form = c.form;
    if (form == "optimize") {
      manager.requestOptimize("flow", c.asked, {}, record());
    } else if (form == "calibrate") {
      manager.requestCalibrate("flow", c.asked, {}, record());
    } else {
      manager.requestFetchContext("flow", c.asked, {}, record(), MethodUsed::kFetchContext);
    }
    fake.drain();
    const bool clamped = c.asked != c.used;
    EXPECT_EQ(fake.log->countContaining("[Orvane] ContextManager." + form + " was asked for " +
                                        std::to_string(c.asked) + " s of motion data"),
              clamped ? 1u : 0u);
    feed(static_cast<size_t>(c.used) * 100 + 60);
    ASSERT_EQ(answered.size(), 1u);
    EXPECT_EQ(testing::intSignal(answered[0]->signals(), 191), c.used);
    EXPECT_FALSE(manager.accelerometerSensor().isSampling());
  }
}

// With its own model a flow is served for the model's duration; a delay too short for it gets
// a line and an instant answer, and a "no" is logged at once before the host sees it.
TEST_F(RequestsTest, OptimizeWithAModelFollowsTheModelsDuration) {
  assignModel("upsell", 2.0);  // always no
  fake.executors->mainQueue()->sync(
      [&] { manager.requestOptimize("upsell", int64_t{2}, {}, record()); });
  ASSERT_EQ(answered.size(), 1u);  // at once, on the main queue
  EXPECT_EQ(fake.log->countContaining(
                "[Orvane] You are using a custom model for \"upsell\" requiring 5s of data while "
                "supplying a lower maxDelay value of 2s."),
            1u);
  EXPECT_EQ(testing::intSignal(answered[0]->signals(), 191), 5);
  EXPECT_FALSE(answered[0]->shouldUpsell());
  fake.drain();
  EXPECT_EQ(negativeOutcomesLogged(), 1u);

  // A delay long enough (or none) waits for the model's five seconds.
  fake.log->clear();
  manager.requestOptimize("upsell", std::nullopt, {}, record());
  fake.drain();
  EXPECT_EQ(answered.size(), 1u);
  feed(560);
  ASSERT_EQ(answered.size(), 2u);
  EXPECT_EQ(testing::intSignal(answered[1]->signals(), 191), 5);
  EXPECT_EQ(fake.log->countContaining("requiring 5s of data"), 0u);
  fake.drain();
  EXPECT_EQ(negativeOutcomesLogged(), 1u);

  // A "yes" is left for the host to log.
  assignModel("upsell", -1.0);
  manager.requestOptimize("upsell", int64_t{9}, {}, record());
  fake.drain();
  feed(560);
  ASSERT_EQ(answered.size(), 3u);
  EXPECT_TRUE(answered[2]->shouldUpsell());
  EXPECT_EQ(negativeOutcomesLogged(), 0u);
}

TEST_F(RequestsTest, CalibrateWarnsOnlyWhereAModelIsAssigned) {
  assignModel("upsell", 0.5);
  manager.requestCalibrate("upsell", 5, {}, record());
  manager.requestCalibrate("plain", 5, {}, record());
  fake.drain();
  feed(560);
  ASSERT_EQ(answered.size(), 2u);
  EXPECT_EQ(fake.log->countContaining("You're using the `calibrate` method for a flow for which "
                                      "you already have a custom model for."),
            1u);
  EXPECT_EQ(fake.log->count("ContextManager.optimize(customModel: .[yourModelNameHere], ...)"), 1u);
}

}  // namespace
}  // namespace orvane

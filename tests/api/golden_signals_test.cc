// Tracked events and golden signals: instant contexts that log themselves at once.
#include <gtest/gtest.h>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "motion/AccelerometerSensor.h"
#include "motion/MotionTrace.h"
#include "orvane/Context.h"
#include "orvane/Log.h"
#include "testutil/FakePlatform.h"
#include "testutil/Fixtures.h"
#include "testutil/ManagerHelpers.h"

namespace orvane {
namespace {

using testing::signalValue;

class TrackingTest : public ::testing::Test {
 protected:
  TrackingTest() {
    Configuration configuration;
    configuration.enableInstantContext = true;
    manager.setupWith("KEY-0123456789abcdef", logs.sender(), std::nullopt, configuration);
    sent();
  }
  std::vector<std::shared_ptr<Log>> sent() {
    fake.drain();
    return logs.take();
  }

  void configure(ServerConfiguration update) {
    manager.remoteConfiguration().applyConfigurationUpdate(std::move(update));
    fake.drain();
  }
  // The last `count` samples of a recorded trace, delivered at 100 Hz.
  void replay(const std::string& trace, size_t count) {
    auto recorded = readMotionTraceFile(testing::fixturePath("motion/" + trace + ".json"));
    ASSERT_TRUE(recorded.ok());
    const auto& samples = recorded->samples;
    for (size_t i = samples.size() - count; i < samples.size(); ++i) {
      fake.motion->push(DeviceMotion{samples[i].acceleration, samples[i].rotationRate,
                                     samples[i].attitude, samples[i].gravity});
      fake.advance(0.01);
    }
  }

  testing::FakePlatform fake;
  Engine manager{[this] {
                   fake.platform.bundle.sdkResourceDirectory = ORVANE_SOURCE_RESOURCES;
                   return fake.platform;
                 }(),
                 ContextManagerIsSupported::kSupported};
  testing::SentLogs logs;
};

TEST_F(TrackingTest, EachTrackedFormLogsOneRecordOfItsKind) {
  struct Case {
    MethodUsed method;
    EventType type;
  };
  for (const Case c : {Case{MethodUsed::kTrackEvent, EventType::kTrackedEvent},
                       Case{MethodUsed::kTrackPageView, EventType::kPageView},
                       Case{MethodUsed::kTrackUserAction, EventType::kUserAction}}) {
    manager.recordTrackedEvent("checkout", {CustomSignalInt("items", 3)}, c.method, c.type);
    const auto records = sent();
    ASSERT_EQ(records.size(), 1u) << "no creation record, one event record";
    const SignalList& signals = records[0]->signals();
    EXPECT_EQ(signalValue<int64_t>(signals, 3), -100);
    EXPECT_EQ(signalValue<int64_t>(signals, 23), static_cast<int64_t>(c.type));
    EXPECT_EQ(signalValue<int64_t>(signals, 25), static_cast<int64_t>(c.method));
    EXPECT_EQ(signalValue<int64_t>(signals, 191), 3);
    EXPECT_EQ(signalValue<std::string>(signals, 20), "checkout");
    ASSERT_EQ(records[0]->customSignals().size(), 1u);
    EXPECT_EQ(records[0]->customSignals()[0].id(), "items");
  }
}

TEST_F(TrackingTest, GoldenSignalsWithoutTriggerOrBid) {
  const PlistDictionary result = manager.collectGoldenSignals(std::nullopt, std::nullopt);
  const auto records = sent();
  ASSERT_EQ(records.size(), 1u) << "one golden-signals record, no creation record";
  const SignalList& signals = records[0]->signals();
  EXPECT_EQ(signalValue<std::string>(signals, 20), "Orvane_41e6625b_golden_signals");
  EXPECT_EQ(signalValue<int64_t>(signals, 3), -104);
  EXPECT_EQ(signalValue<int64_t>(signals, 23), 1);
  EXPECT_EQ(signalValue<int64_t>(signals, 25), 16);
  EXPECT_FALSE(signalValue<std::string>(signals, 750));
  EXPECT_FALSE(signalValue<std::string>(signals, 752));

  ASSERT_TRUE(result.count("ctxId"));
  EXPECT_EQ(*result.at("ctxId").asString(), signalValue<std::string>(signals, 751));
  EXPECT_EQ(result.at("ctxId").asString()->size(), 17u);
  EXPECT_FALSE(result.count("contextDuration"));
  // The default configuration names activities, but without motion data nothing is scored.
  for (const auto& [key, value] : result) EXPECT_NE(key.rfind("u_", 0), 0u) << key;
}

TEST_F(TrackingTest, GoldenSignalsSelectConfiguredSignalsInTheirOwnTypes) {
  ServerConfiguration update;
  update.goldenSignals = std::vector<uint16_t>{191, 999, 9, 20};
  update.goldenSignalsDurationSeconds = 5;
  update.returnContextDurationAsGoldenSignal = true;
  configure(update);

  const PlistDictionary result = manager.collectGoldenSignals("banner", "bid-42");
  const auto records = sent();
  ASSERT_EQ(records.size(), 1u);
  const SignalList& signals = records[0]->signals();
  EXPECT_EQ(signalValue<std::string>(signals, 20), "Orvane_41e6625b_golden_signals_banner");
  EXPECT_EQ(signalValue<std::string>(signals, 750), "banner");
  EXPECT_EQ(signalValue<std::string>(signals, 752), "bid-42");

  EXPECT_EQ(result.at("contextDuration"), PlistValue(int64_t{5}));
  EXPECT_EQ(result.at("c191"), PlistValue(int64_t{5}));
  EXPECT_EQ(result.at("c20"), PlistValue("Orvane_41e6625b_golden_signals_banner"));
  EXPECT_EQ(result.at("c9").type(), PlistValue::Type::kFloat);  // set when the record was made
  EXPECT_FALSE(result.count("c999"));
  EXPECT_EQ(result.size(), 5u);
}

TEST_F(TrackingTest, GoldenSignalsScoreConfiguredActivitiesOnValidMotion) {
  ServerConfiguration update;
  update.activities = std::vector<std::string>{"walking", "table", "unicycle"};
  update.activityTaggerVersion = "0.0.5";
  configure(update);
  ASSERT_TRUE(manager.accelerometerSensor().isSampling());
  replay("walking_in_hand", 310);

  const PlistDictionary result = manager.collectGoldenSignals("feed", std::nullopt);
  std::vector<std::string> scored;
  for (const auto& [key, value] : result) {
    if (key.rfind("u_", 0) == 0) scored.push_back(key);
  }
  EXPECT_EQ(scored, (std::vector<std::string>{"u_table_0_0_5", "u_walking_0_0_5"}));
  EXPECT_GT(result.at("u_walking_0_0_5").asFloat().value_or(0), 0.6f);
  EXPECT_LT(result.at("u_table_0_0_5").asFloat().value_or(1), 0.1f);
}

}  // namespace
}  // namespace orvane

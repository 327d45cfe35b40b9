// The sensor: when it samples, what its buffer keeps, and how waiting requests are answered.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "logging/Compression.h"
#include "motion/AccelerometerSensor.h"
#include "motion/AdditionalAccelFeatureExtraction.h"
#include "motion/MotionTrace.h"
#include "motion/motion_test_support.h"
#include "testutil/FakePlatform.h"
#include "util/Base64.h"

namespace orvane {
namespace {

using testing::FakePlatform;
using testing::signalTexts;

// The samples of a raw-motion record (base64 of raw DEFLATE of a JSON array).
nlohmann::json rawRecords(const Signal& record) {
  auto compressed = base64Decode(std::get<std::string>(record.value()));
  if (!compressed) return nlohmann::json::array();
  auto json = inflateRaw(*compressed);
  if (!json.ok()) return nlohmann::json::array();
  return nlohmann::json::parse(json->begin(), json->end());
}

AccelerometerSensor::Environment environmentOf(FakePlatform& fake,
                                               std::shared_ptr<MotionService> motion) {
  return {std::move(motion),
          fake.executors,
          fake.clock,
          std::make_shared<DefaultDateProvider>(fake.clock),
          fake.log,
          nullptr,
          [] { return int64_t{1}; }};
}

// Runs `change` under the state lock, as the manager does.
void locked(AccelerometerSensor& sensor, const std::function<void()>& change) {
  std::lock_guard<std::mutex> guard(sensor.accelerometerStateLock());
  change();
}

// A waiting call that records what it was answered with and whether that ran on the main queue.
struct Answer {
  std::string flow;
  SignalList signals;
  std::shared_ptr<RawMotionCapture> rawMotion;
  bool onMainQueue;
};

class SensorTest : public ::testing::Test {
 protected:
  SensorTest() : sensor(environmentOf(fake, fake.motion), /*alwaysRunInForeground=*/false) {}

  void request(const std::string& flow, int64_t duration, bool logAdditional = false) {
    auto main = fake.executors->mainQueue();
    sensor.requestCallback(duration,
                           std::make_shared<PendingFetchContextCall>(PendingFetchContextCall{
                               flow, duration, logAdditional, [=, this](MotionAnswer a) {
                                 answers.push_back({flow, std::move(a.signals),
                                                    std::move(a.rawMotion), main->isCurrent()});
                               }}));
  }
  void foregroundWithRequest() {
    locked(sensor, [&] {
      sensor.setAppInForeground(true);
      sensor.addOpenRequest();
      sensor.maybeStartAccelerometer();
    });
  }
  // `count` samples at 100 Hz; each is delivered, and anything it posts runs, before the next.
  void feed(size_t count) { fake.feedMotion(count, 0.01, 7); }
  int64_t sampleCount(const SignalList& signals) { return *testing::intSignal(signals, 106); }

  FakePlatform fake;
  AccelerometerSensor sensor;
  std::vector<Answer> answers;
};

TEST_F(SensorTest, SamplesOnlyInTheForegroundWhileSomethingWantsData) {
  locked(sensor, [&] {
    sensor.addOpenRequest();
    sensor.maybeStartAccelerometer();  // still in the background
    EXPECT_FALSE(sensor.isSampling());
    sensor.removeOpenRequest();
    sensor.setAppInForeground(true);
    sensor.maybeStartAccelerometer();  // foreground, but nothing wants data
    EXPECT_FALSE(fake.motion->isDelivering());
  });
  sensor.setAlwaysRunInForeground(true);
  EXPECT_TRUE(fake.motion->isDelivering());
  EXPECT_EQ(sensor.timestampOfAccelMonitoringStarted(), Date{fake.clock->now()});
  feed(50);
  EXPECT_EQ(sensor.bufferedSamples().size(), 50u);
  // The sample's wall-clock time is derived from its uptime stamp.
  EXPECT_NEAR(sensor.bufferedSamples().back().timestamp.secondsSince1970, fake.clock->now() - 0.01,
              1e-6);

  // A sample already queued when sampling stops must not reach the next session's buffer.
  fake.motion->push(DeviceMotion{});
  locked(sensor, [&] {
    sensor.setAppInForeground(false);
    sensor.maybeStopAccelerometer();
    EXPECT_FALSE(sensor.isSampling());
    EXPECT_FALSE(fake.motion->isDelivering());
    EXPECT_FALSE(sensor.timestampOfAccelMonitoringStarted());
    sensor.setAppInForeground(true);
    sensor.maybeStartAccelerometer();
  });
  fake.drain();
  EXPECT_TRUE(sensor.bufferedSamples().empty());
  EXPECT_EQ(fake.motion->startCount(), 2);

  // An open request keeps sampling after instant context is switched off.
  locked(sensor, [&] { sensor.addOpenRequest(); });
  sensor.setAlwaysRunInForeground(false);
  EXPECT_TRUE(sensor.isSampling());
  locked(sensor, [&] {
    sensor.removeOpenRequest();
    sensor.maybeStopAccelerometer();
  });
  EXPECT_FALSE(sensor.isSampling());
}

TEST_F(SensorTest, CleanupKeepsTheLastTwentySecondsAtEachTick) {
  foregroundWithRequest();
  const double started = fake.clock->now();
  request("never", 26);  // longer than the buffer can ever hold
  feed(2200);
  // The tick at 20 s found nothing older than 20 s; samples now older wait for the next one.
  auto samples = sensor.bufferedSamples();
  EXPECT_GT(samples.size(), 2150u);
  EXPECT_LT(samples.front().timestamp.secondsSince1970, fake.clock->now() - 21);
  feed(350);  // past the tick at 25 s
  samples = sensor.bufferedSamples();
  EXPECT_GT(samples.front().timestamp.secondsSince1970, started + 4.99);
  EXPECT_LT(samples.front().timestamp.secondsSince1970, started + 5.05);
  EXPECT_TRUE(answers.empty());
  EXPECT_EQ(sensor.waitingCallCount(), 1u);
}

TEST_F(SensorTest, WaitingCallsOfOneDurationAreAnsweredTogetherByTheFirstValidWindow) {
  foregroundWithRequest();
  request("first", 3);
  request("second", 3, /*logAdditional=*/true);
  request("longer", 5);
  feed(299);
  EXPECT_TRUE(answers.empty());
  EXPECT_FALSE(AccelerometerSensor::hasValidAccelerometerData(sensor.allSignals(3, false).signals));

  feed(1);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_EQ(answers[0].flow, "first");
  EXPECT_EQ(answers[1].flow, "second");
  EXPECT_TRUE(answers[0].onMainQueue && answers[1].onMainQueue);
  EXPECT_TRUE(AccelerometerSensor::hasValidAccelerometerData(answers[0].signals));
  EXPECT_EQ(sampleCount(answers[0].signals), 300);
  // The same motion signals; only the call that asked for it carries the raw-motion record,
  // and that one covers the samples of the moment it was answered, whenever it is built.
  EXPECT_EQ(signalTexts(answers[0].signals), signalTexts(answers[1].signals));
  EXPECT_FALSE(answers[0].rawMotion);
  ASSERT_TRUE(answers[1].rawMotion);
  const std::string newestWhenAnswered =
      *sensor.bufferedSamples().back().toJSON().at("t").asString();
  feed(50);
  const SignalList& raw = answers[1].rawMotion->signals();
  ASSERT_EQ(raw.size(), 1u);
  const nlohmann::json records = rawRecords(raw[0]);
  EXPECT_EQ(records.back()["t"], newestWhenAnswered);
  EXPECT_NEAR(static_cast<double>(records.size()), 100, 1);  // the configured 1 s
  EXPECT_EQ(sensor.waitingCallCount(), 1u);                  // the five-second call still waits

  // With a valid window in the buffer a request needs no callback.
  EXPECT_TRUE(AccelerometerSensor::hasValidAccelerometerData(sensor.allSignals(3, false).signals));
  feed(150);
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(answers[2].flow, "longer");
  EXPECT_EQ(sampleCount(answers[2].signals), 500);
}

TEST(AccelerometerSensorUnsupported, AnswersAtOnceWithReasonThreeAndNeverSamples) {
  FakePlatform fake;
  AccelerometerSensor sensor(environmentOf(fake, makeUnsupportedMotionService(true, false)), true);
  locked(sensor, [&] {
    sensor.setAppInForeground(true);
    sensor.addOpenRequest();
    sensor.maybeStartAccelerometer();
  });
  EXPECT_FALSE(sensor.isSampling());
  const SignalList expected = {
      SignalInt(SignalEnum::id(106), 0), SignalBool(SignalEnum::id(192), false),
      SignalInt(SignalEnum::id(128), 0), SignalInt(SignalEnum::id(211), 3)};
  EXPECT_EQ(sensor.allSignals(3, false).signals, expected);

  std::vector<SignalList> answers;
  auto call = std::make_shared<PendingFetchContextCall>(PendingFetchContextCall{
      "flow", 3, false, [&](MotionAnswer a) { answers.push_back(a.signals); }});
  sensor.requestCallback(3, call);  // off the main queue: answered from it
  EXPECT_TRUE(answers.empty());
  fake.drain();
  fake.executors->mainQueue()->sync([&] { sensor.requestCallback(3, call); });
  EXPECT_EQ(answers, (std::vector<SignalList>{expected, expected}));
  EXPECT_EQ(sensor.waitingCallCount(), 0u);
}

TEST(ReplayMotionService, PlaysATraceAtItsRateAndStartsOverAfterTheEnd) {
  FakePlatform fake;
  const std::string path = testing::motionFixturesDir() + "/walking_in_hand.json";
  auto trace = readMotionTraceFile(path);
  ASSERT_TRUE(trace.ok());
  auto service = makeTraceMotionService(fake.clock, path);
  ASSERT_TRUE(service);
  std::vector<DeviceMotion> received;
  service->startDeviceMotionUpdates(fake.executors->makeSerialQueue("replay"),
                                    [&](const DeviceMotion* m) { received.push_back(*m); });
  fake.advance(8.025);
  service->stopMotionUpdates();
  fake.advance(1);
  ASSERT_EQ(received.size(), 802u);
  for (size_t i : {size_t{0}, size_t{417}, size_t{800}, size_t{801}}) {
    const AccelerometerSensorValue& s = trace->samples[i % 800];
    EXPECT_EQ(received[i].userAcceleration, s.acceleration) << i;
    EXPECT_EQ(received[i].attitude, s.attitude) << i;
  }
  EXPECT_NEAR(received[801].timestamp - received[0].timestamp, 8.01, 1e-6);

  std::string error;
  EXPECT_FALSE(makeTraceMotionService(fake.clock, path + ".missing", &error));
  EXPECT_FALSE(error.empty());
}

TEST(AdditionalAccelFeatureExtraction, RecordsTheSamplesOfTheDurationOldestFirst) {
  auto samples = testing::makeSamples(500, [](size_t i) {
    return testing::sample({0.001 * static_cast<double>(i), 0, 0});
  });
  const double now = samples.back().timestamp.secondsSince1970 + 0.005;
  AdditionalAccelFeatureExtraction extraction(nullptr,
                                              std::make_shared<StubDateProvider>(Date{now}));
  EXPECT_TRUE(extraction.extract({}, 5).empty());
  EXPECT_TRUE(extraction.extract(samples, 0).empty());

  const SignalList signals = extraction.extract(samples, 2);
  ASSERT_EQ(signals.size(), 1u);
  EXPECT_EQ(signals[0].id().rawValue(), 444);
  const nlohmann::json records = rawRecords(signals[0]);  // older ones left out
  ASSERT_EQ(records.size(), 200u);
  EXPECT_EQ(records.front()["t"], *samples[300].toJSON().at("t").asString());
  EXPECT_EQ(records.back()["t"], *samples[499].toJSON().at("t").asString());
  EXPECT_FLOAT_EQ(records.back()["a"][0].get<float>(), 0.499f);
  EXPECT_EQ(records.back()["g"], nlohmann::json::parse("[0, 0, -1]"));
  EXPECT_EQ(records.back().size(), 5u);
}

}  // namespace
}  // namespace orvane

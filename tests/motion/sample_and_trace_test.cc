// The raw-sample record of a sample, and reading recorded traces.

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "logging/AnyEncodable.h"
#include "motion/AccelerometerSensorValue.h"
#include "motion/MotionTrace.h"
#include "motion/motion_test_support.h"

namespace orvane {
namespace {

TEST(motionSample, RawRecordHoldsTheTimeAsTextAndRoundedFloatTriples) {
  const AccelerometerSensorValue value({0.1, -0.25, 3}, {1.23456749e-6, 7e-13, 1e300},
                                       AttitudeData{0.5, 1, 1.5}, {0, 0, -1}, Date{1763800000.01});
  const PlistDictionary json = value.toJSON();
  ASSERT_EQ(json.size(), 5u);
  EXPECT_EQ(*json.at("t").asString(), "1763800000.01");
  EXPECT_EQ(json.at("a").asArray()->at(1).asFloat(), -0.25f);
  EXPECT_EQ(json.at("at").asArray()->at(2).asFloat(), 1.5f);
  EXPECT_EQ(json.at("g").asArray()->at(2).asFloat(), -1.0f);
  // Printed with twelve decimals before narrowing: small values lose digits a plain narrowing
  // would keep, and values beyond the float range saturate.
  const PlistArray& r = *json.at("r").asArray();
  EXPECT_EQ(r[0].asFloat(), 1.234567e-6f);
  EXPECT_NE(r[0].asFloat(), static_cast<float>(1.23456749e-6));
  EXPECT_EQ(r[1].asFloat(), 1e-12f);
  EXPECT_EQ(r[2].asFloat(), std::numeric_limits<float>::infinity());
  EXPECT_TRUE(std::isnan(rawSampleComponent(std::numeric_limits<double>::quiet_NaN())));

  // The text written straight is the dictionary's JSON, non-finite components included.
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const AccelerometerSensorValue odd({nan, -0.0, -1e300}, {1e-7, 123456.789, -3.25},
                                     AttitudeData{0.1, 0.2, 0.3}, {0, 0, -1}, Date{-0.5});
  for (const AccelerometerSensorValue& sample : {value, odd}) {
    std::string direct;
    sample.appendRawRecordJson(direct);
    EXPECT_EQ(direct, *AnyEncodable(PlistValue(sample.toJSON())).toJson());
  }
}

TEST(motionSample, RawComponentsAgreeWithTheTextRoundTripEverywhere) {
  std::mt19937_64 random(3);
  std::uniform_real_distribution<double> mantissa(-1, 1);
  std::uniform_int_distribution<int> exponent(-45, 40);
  std::vector<double> values{0.0, -0.0, 1e-13, -4e-13, 6e-13, 3.4028235e38, 3.4028236e38, -1e39};
  for (int i = 0; i < 200000; ++i) {
    const double v = mantissa(random) * std::pow(10.0, exponent(random));
    values.push_back(v);
    // Right at, and just either side of, the point halfway to the next float: where the
    // twelve-decimal rounding can tip the result.
    const float f = static_cast<float>(v);
    const double halfway = (double(f) + double(std::nextafter(f, HUGE_VALF))) / 2;
    for (double offset : {0.0, 2e-13, -2e-13, 6e-13, -6e-13, 2e-12, -2e-12}) {
      values.push_back(halfway + offset);
    }
  }
  for (const double v : values) {
    const float expected = rawSampleComponentThroughText(v);
    const float actual = rawSampleComponent(v);
    ASSERT_TRUE(std::memcmp(&expected, &actual, sizeof(float)) == 0)
        << std::hexfloat << v << ": " << actual << " instead of " << expected;
  }
}

TEST(motionTrace, ReadsARecordedTrace) {
  auto trace = readMotionTraceFile(testing::motionFixturesDir() + "/walking_in_hand.json");
  ASSERT_TRUE(trace.ok()) << trace.error().description;
  EXPECT_EQ(trace->rateHz, 100);
  ASSERT_EQ(trace->samples.size(), 800u);
  const AccelerometerSensorValue& first = trace->samples.front();
  EXPECT_EQ(first.timestamp.secondsSince1970, 1763800000.0);
  EXPECT_EQ(first.acceleration, (MotionVector{0.001894, 0.037501, 0.092059}));
  EXPECT_EQ(first.rotationRate, (MotionVector{0.449619, -0.012958, -0.013076}));
  EXPECT_EQ(first.gravity, (MotionVector{-0.0, -0.783327, -0.62161}));
  EXPECT_EQ(first.attitude, (AttitudeData{0.0, 0.9, 0.5}));
  EXPECT_EQ(trace->samples.back().timestamp.secondsSince1970, 1763800007.99);
}

TEST(motionTrace, RejectionsNameTheFirstProblemOrTheErrno) {
  const std::string sample =
      R"({"t": 1, "acceleration": [0, 0, 0], "rotationRate": [0, 0, 0], "gravity": [0, 0, -1], )";
  const struct {
    std::string json;
    std::string path;
  } cases[] = {
      {"[1, 2]", ""},
      {"{\"rateHz\": 100, \"samples\": [", "not JSON"},
      {"{\"rateHz\": 0, \"samples\": []}", "rateHz"},
      {"{\"rateHz\": 100, \"samples\": [" + sample + "\"attitude\": [0, 0]}]}",
       "samples[0].attitude"},
      {"{\"rateHz\": 100, \"samples\": [" + sample + "\"attitude\": [0, 0, \"x\"]}]}",
       "samples[0].attitude[2]"},
  };
  for (const auto& c : cases) {
    auto trace = parseMotionTrace(c.json);
    ASSERT_FALSE(trace.ok()) << c.json;
    EXPECT_EQ(trace.error().domain, kDecodingErrorDomain);
    EXPECT_NE(trace.error().description.find(c.path), std::string::npos)
        << trace.error().description;
  }
  auto valid =
      parseMotionTrace("{\"rateHz\": 50, \"samples\": [" + sample + "\"attitude\": [0, 0, 0]}]}");
  ASSERT_TRUE(valid.ok()) << valid.error().description;
  EXPECT_EQ(valid->samples.size(), 1u);
  EXPECT_EQ(valid->description, "");

  auto missing = readMotionTraceFile(testing::motionFixturesDir() + "/no_such_trace.json");
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.error().domain, kPosixErrorDomain);
  EXPECT_EQ(missing.error().code, ENOENT);
}

}  // namespace
}  // namespace orvane

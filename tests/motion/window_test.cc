// Which samples form the window, when it is usable, and what an unusable one emits.

#include <gtest/gtest.h>

#include <set>

#include "motion/motion_test_support.h"
#include "testutil/SignalReaders.h"

namespace orvane {
namespace {

using testing::extractAtEnd;
using testing::makeSamples;
using testing::sample;

std::vector<AccelerometerSensorValue> moving(size_t count, double spacing = 0.01) {
  return makeSamples(
      count,
      [](size_t i) {
        const double v = 0.01 * static_cast<double>(i % 7) - 0.03;
        return sample({v, -v, 0.5 * v}, {2 * v, v, -v});
      },
      spacing);
}

std::set<uint16_t> ids(const SignalList& signals) {
  const auto list = testing::signalIds(signals);
  return {list.begin(), list.end()};
}
int64_t reason(const AccelFeature& f) { return *testing::intSignal(f.allSignals(), 211); }

TEST(motionWindow, ExactCountWithinTheTimeSpanIsValid) {
  const AccelFeature f = extractAtEnd(moving(200), 2);  // 200 samples over 1.99 s
  EXPECT_TRUE(f.validEntry);
  EXPECT_FALSE(f.reasonForBeingInvalidEntry);
  EXPECT_EQ(f.numberOfItems, 200);
  EXPECT_EQ(f.numberOfSeconds,
            static_cast<float>((testing::kStart + 199 * 0.01) - testing::kStart));
}

TEST(motionWindow, OneSampleShortIsReasonOneWithTheLastSampleBlock) {
  const AccelFeature f = extractAtEnd(moving(199), 2);
  EXPECT_FALSE(f.validEntry);
  EXPECT_EQ(f.reasonForBeingInvalidEntry, ReasonForAccelerometerDataInvalid::kWrongNumberOfSamples);
  EXPECT_EQ(reason(f), 1);
  const auto emitted = ids(f.allSignals());
  EXPECT_TRUE(emitted.contains(958) && emitted.contains(217) && emitted.contains(114));
  EXPECT_FALSE(emitted.contains(113)) << "statistics belong to valid windows only";
}

TEST(motionWindow, CompressedOrStretchedTimeSpanIsReasonTwo) {
  // 200 samples over 1.5 s and over 2.4 s; the bounds are 0.9 and 1.1 times the duration.
  for (double spacing : {1.5 / 199, 2.4 / 199}) {
    const AccelFeature f = extractAtEnd(moving(200, spacing), 2);
    EXPECT_FALSE(f.validEntry) << spacing;
    EXPECT_EQ(f.reasonForBeingInvalidEntry, ReasonForAccelerometerDataInvalid::kWrongTimeSpan);
    EXPECT_EQ(reason(f), 2);
    EXPECT_NE(f.instantGyroMagnitude, AccelFeature::kUnavailable);
  }
  EXPECT_TRUE(extractAtEnd(moving(200, 1.81 / 199), 2).validEntry);
  EXPECT_TRUE(extractAtEnd(moving(200, 2.19 / 199), 2).validEntry);
}

TEST(motionWindow, OnlyRecentSamplesAndOnlyTheNewestCount) {
  // 350 samples: the newest 300 are a 3-second window and the 50 before them are left out.
  auto samples = moving(350);
  samples[49].acceleration = {5, 5, 5};  // would show in the maximum if it were included
  AccelFeature f = extractAtEnd(samples, 3);
  EXPECT_TRUE(f.validEntry);
  EXPECT_LT(f.maxAccelValue, 1);

  // Samples older than duration + 1 s never count, even when too few remain without them.
  samples = moving(200);
  for (size_t i = 0; i < 150; ++i) samples[i].timestamp.secondsSince1970 -= 5;
  f = extractAtEnd(samples, 2);
  EXPECT_EQ(f.numberOfItems, 50);
  EXPECT_EQ(f.reasonForBeingInvalidEntry, ReasonForAccelerometerDataInvalid::kWrongNumberOfSamples);
}

TEST(motionWindow, EmptyOrZeroDurationWindowEmitsOnlyTheFirstBlocks) {
  for (int64_t duration : {int64_t{2}, int64_t{0}, int64_t{-3}}) {
    const AccelFeature f = extractAtEnd(
        duration == 2 ? std::vector<AccelerometerSensorValue>{} : moving(200), duration);
    EXPECT_EQ(f.numberOfItems, 0) << duration;
    EXPECT_FALSE(f.validEntry) << duration;
    EXPECT_EQ(ids(f.allSignals()), (std::set<uint16_t>{106, 192, 128, 211})) << duration;
  }
}

}  // namespace
}  // namespace orvane

// Which windows are unusable, and what an unusable one emits.

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

TEST(motionWindow, UnusableWindowsGiveTheirReason) {
  auto stale = moving(200);  // samples older than duration + 1 s never count
  for (size_t i = 0; i < 150; ++i) stale[i].timestamp.secondsSince1970 -= 5;
  // 200 samples over 2 s is valid; the time-span bounds are 0.9 and 1.1 times the duration.
  const struct {
    const char* name;
    std::vector<AccelerometerSensorValue> samples;
    int64_t reason;  // 0: valid
  } cases[] = {
      {"exact", moving(200), 0},
      {"one sample short", moving(199), 1},
      {"stale samples dropped", stale, 1},
      {"compressed", moving(200, 1.5 / 199), 2},
      {"stretched", moving(200, 2.4 / 199), 2},
      {"just inside the low bound", moving(200, 1.81 / 199), 0},
      {"just inside the high bound", moving(200, 2.19 / 199), 0},
  };
  for (const auto& c : cases) {
    const AccelFeature f = extractAtEnd(c.samples, 2);
    EXPECT_EQ(f.validEntry, c.reason == 0) << c.name;
    EXPECT_EQ(testing::intSignal(f.allSignals(), 211).value_or(0), c.reason) << c.name;
    if (c.reason == 0) continue;
    const auto emitted = ids(f.allSignals());
    EXPECT_TRUE(emitted.contains(958) && emitted.contains(217) && emitted.contains(114)) << c.name;
    EXPECT_FALSE(emitted.contains(113)) << c.name << ": statistics belong to valid windows only";
  }
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

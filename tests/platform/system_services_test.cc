#include <cmath>
#include <cstdlib>
#include <set>

#include <gtest/gtest.h>

#include "orvane/platform/RandomSource.h"
#include "orvane/platform/SystemLog.h"

namespace orvane {
namespace {

TEST(SystemRandomSource, DrawsStayInRangeOnTheirResolutionGrid) {
  auto random = makeSystemRandomSource();
  for (int i = 0; i < 2000; ++i) {
    const float f = random->uniformFloat();
    ASSERT_TRUE(f >= 0 && f <= 1) << f;
    ASSERT_EQ(std::ldexp(f, 24), std::floor(std::ldexp(f, 24))) << "more than 24 bits: " << f;
    const double d = random->uniformDouble();
    ASSERT_TRUE(d >= 0 && d <= 1) << d;
    ASSERT_EQ(std::ldexp(d, 53), std::floor(std::ldexp(d, 53))) << d;
  }
}

TEST(SystemRandomSource, IntegersCoverBothBoundsEvenAtTheExtremes) {
  auto random = makeSystemRandomSource();
  EXPECT_EQ(random->uniformInt(5, 5), 5);
  EXPECT_EQ(random->uniformInt(9, 3), 9);
  std::set<int64_t> seen;
  for (int i = 0; i < 200; ++i) {
    seen.insert(random->uniformInt(INT64_MIN, INT64_MIN + 1));
    seen.insert(random->uniformInt(INT64_MAX - 1, INT64_MAX));
  }
  EXPECT_EQ(seen, (std::set<int64_t>{INT64_MIN, INT64_MIN + 1, INT64_MAX - 1, INT64_MAX}));
  random->uniformInt(INT64_MIN, INT64_MAX);  // the full range must not divide by zero
  std::vector<uint8_t> a(32), b(32);
  ASSERT_TRUE(random->secureBytes(a));
  ASSERT_TRUE(random->secureBytes(b));
  EXPECT_NE(a, b);
}

TEST(StderrLog, WritesWholeLinesAndDebugOnlyWhenAskedFor) {
  unsetenv("ORVANE_DEBUG_LOG");
  auto quiet = makeStderrLog();
  setenv("ORVANE_DEBUG_LOG", "1", 1);
  auto verbose = makeStderrLog();
  unsetenv("ORVANE_DEBUG_LOG");
  ::testing::internal::CaptureStderr();
  quiet->write(LogLevel::kDebug, "[Orvane] hidden");
  quiet->error("[Orvane] failed");
  verbose->write(LogLevel::kDebug, "[Orvane] detail");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[Orvane] failed\n[Orvane] detail\n");
}

}  // namespace
}  // namespace orvane

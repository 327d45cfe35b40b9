#include <cmath>
#include <cstdlib>
#include <set>

#include <gtest/gtest.h>

#include "orvane/ContextManager.h"
#include "orvane/platform/RandomSource.h"
#include "orvane/platform/SystemLog.h"
#include "platform/LevelFilteredLog.h"
#include "testutil/FakePlatform.h"

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

TEST(StderrLog, WritesWholeLines) {
  auto log = makeStderrLog();
  ::testing::internal::CaptureStderr();
  log->error("[Orvane] failed");
  log->write(LogLevel::kDebug, "[Orvane] detail");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "[Orvane] failed\n[Orvane] detail\n");
}

TEST(LevelFilteredLog, ShowsWhatTheHostChose) {
  auto lines = std::make_shared<testing::CapturingLog>();
  auto log = makeLevelFilteredLog(lines);
  const SdkLogLevel before = processLogLevel();
  const std::pair<SdkLogLevel, size_t> settings[] = {{SdkLogLevel::kError, 1},
                                                     {SdkLogLevel::kWarning, 2},
                                                     {SdkLogLevel::kInfo, 3},
                                                     {SdkLogLevel::kDebug, 4}};
  for (const auto& [setting, shown] : settings) {
    ContextManager::setLogLevel(setting);
    const size_t already = lines->lines().size();
    log->error("e");
    log->notice("w");
    log->info("i");
    log->write(LogLevel::kDebug, "d");
    EXPECT_EQ(lines->lines().size() - already, shown) << static_cast<int>(setting);
  }
  setProcessLogLevel(before);
}

}  // namespace
}  // namespace orvane

// The integration report of Context::validate().
#include <gtest/gtest.h>

#include <sstream>

#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "models/ModelExecutionInformation.h"
#include "orvane/Context.h"
#include "orvane/Log.h"
#include "orvane/Version.h"
#include "testutil/FakePlatform.h"
#include "testutil/ManagerHelpers.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class ValidateTest : public ::testing::Test {
 protected:
  void setUp(Engine& m) {
    m.setupWith(
        "KEY-0123456789abcdef", [this](std::shared_ptr<Log>) { ++logsSent; }, std::nullopt,
        Configuration{});
    fake.drain();
    logsSent = 0;
  }

  testing::FakePlatform fake;
  Engine manager{fake.platform, ContextManagerIsSupported::kSupported};
  int logsSent = 0;
};

TEST_F(ValidateTest, UnsupportedDeviceGetsTwoLinesOnly) {
  Engine unsupported(fake.platform, ContextManagerIsSupported::kUnsupported);
  setUp(unsupported);
  auto context = unsupported.requestInstantContext("paywall", 3, {}, MethodUsed::kTrackEvent);
  ASSERT_TRUE(context);
  EXPECT_EQ(linesOf(context->validate()),
            (std::vector<std::string>{
                "❌ You're currently running Orvane on an unsupported device (Simulator) - please "
                "run context.validate() on a physical iPhone",
                "✅ Calibration Mode active"}));
}

TEST_F(ValidateTest, ReportsAContextWithoutMotionDataAndLeavesItAlone) {
  setUp(manager);
  auto context = manager.requestInstantContext("paywall", 3, {}, MethodUsed::kTrackEvent);
  ASSERT_TRUE(context);
  const size_t before = context->signals().size();

  const auto lines = linesOf(context->validate());
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[0], "✅ Calibration Mode active");
  EXPECT_NE(lines[1].find(" Number of Signals: "), std::string::npos);
  EXPECT_EQ(lines[2], "✅ Flow name provided: paywall");
  EXPECT_EQ(lines[3], "❌ Accelerometer Data: Invalid");
  EXPECT_EQ(lines[4].rfind("👉 Signal Sample 1: undefined (", 0), 0u);
  EXPECT_EQ(lines[6], "👉 Orvane Version: " ORVANE_VERSION_STRING);
  EXPECT_EQ(lines[7],
            "❌ Insufficient Data During instantContext or calibrate(maxDelay: 0) Call - Check out "
            "the docs for further instructions");

  EXPECT_EQ(context->signals().size(), before);  // no per-log signals were set
  EXPECT_FALSE(context->alreadyLogged());
  fake.drain();
  EXPECT_EQ(logsSent, 0);
}

TEST_F(ValidateTest, ReportsValidMotionAndTheAssignedModel) {
  setUp(manager);
  testing::storeFlowRecord(*manager.userDefaultsProvider(), "paywall", testing::controlRecord(1));
  SignalList request{SignalBool(SignalEnum::id(192), true), SignalFloat(SignalEnum::id(112), 0.0f),
                     SignalFloat(SignalEnum::id(113), 0.25f)};
  for (uint16_t id : signal_catalogue::kAllIds) {  // enough columns for the count to pass
    if (id >= 100 && id != 112 && id != 113 && id != 191 && id != 192) {
      request.push_back(SignalInt(*SignalEnum::fromRawValue(id), 1));
    }
  }
  auto context = ContextAccess::create(manager, request, "paywall", {CustomSignalInt("plan", 2)},
                                       MethodUsed::kTrackEvent, {});

  const auto lines = linesOf(context->validate());
  ASSERT_EQ(lines.size(), 8u) << context->validate();
  EXPECT_EQ(lines[0], "✅ Custom Model Active");
  EXPECT_EQ(lines[1].substr(0, lines[1].find(':')), "✅ Number of Signals");
  EXPECT_EQ(lines[3], "✅ Accelerometer Data: Valid");
  EXPECT_EQ(lines[4],
            "👉 Signal Sample 1: 0.0 (if your device was flat on the table not moving, this "
            "should be 0.0)");
  EXPECT_EQ(lines[5], "👉 Signal Sample 2: 0.25 (this should never be exactly 0.0)");
  EXPECT_EQ(lines[7], "👉 Custom Model Version: calibration");
}

TEST_F(ValidateTest, AnEncodingFailureAsksForAReport) {
  // Before setup there is no key to encrypt the record with.
  auto context = ContextAccess::create(manager, {}, "paywall", {}, MethodUsed::kTrackEvent, {});
  const auto lines = linesOf(context->validate());
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1].rfind("❌ Failed to validate the context: ", 0), 0u);
  EXPECT_NE(lines[1].find("support@orvanepellam.com"), std::string::npos);
}

}  // namespace
}  // namespace orvane

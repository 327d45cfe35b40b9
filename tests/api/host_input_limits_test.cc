// Runaway host input (a document as a flow name, thousands of custom signals) is cut to the
// bounds with one line each, and the request is still answered.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "api/Engine.h"
#include "api/HostInputLimits.h"
#include "orvane/Context.h"
#include "orvane/ContextManager.h"
#include "orvane/Log.h"
#include "testutil/FakePlatform.h"
#include "testutil/ManagerHelpers.h"

namespace orvane {
namespace {

using Limits = HostInputLimits;

TEST(Utf8PrefixTest, NeverSplitsASequence) {
  const std::string twoByte = "\xC3\xA9\xC3\xA9\xC3\xA9";  // "ééé"
  EXPECT_EQ(utf8Prefix(twoByte, 3), "\xC3\xA9");
  EXPECT_EQ(utf8Prefix(twoByte, 4), "\xC3\xA9\xC3\xA9");
  const std::string fourByte = "a\xF0\x9F\x98\x80";  // "a😀"
  EXPECT_EQ(utf8Prefix(fourByte, 4), "a");
  EXPECT_EQ(utf8Prefix(fourByte, 5), fourByte);
  EXPECT_EQ(utf8Prefix("short", 100), "short");
}

class HostInputLimitsTest : public ::testing::Test {
 protected:
  HostInputLimitsTest() {
    manager.setupWith("KEY-0123456789abcdef", logs.sender(), std::nullopt, Configuration{});
    fake.drain();
    logs.take();
  }
  size_t linesContaining(std::string_view fragment) const {
    return fake.log->countContaining(fragment);
  }

  testing::FakePlatform fake;
  ContextManager manager{fake.platform, ContextManagerIsSupported::kSupported};
  testing::SentLogs logs;
};

TEST_F(HostInputLimitsTest, RunawayRequestIsCutAndStillAnswered) {
  const std::string hugeFlow = "paywall-" + std::string(1 << 20, 'x');
  CustomSignalList signals;
  for (int i = 0; i < 10'000; ++i) {
    signals.push_back(CustomSignalInt("signal" + std::to_string(i), i));
  }
  signals[3] = CustomSignalString("plan", std::string(100'000, 'p'));
  signals[4] = CustomSignalBool(std::string(1000, 'i'), true);

  auto context = manager.requestInstantContext(hugeFlow, 3, signals);
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(context->flowName(), hugeFlow.substr(0, Limits::kMaximumFlowNameBytes));
  context->log(EventOutcome::kPositive);
  fake.drain();

  auto sent = logs.take();
  ASSERT_FALSE(sent.empty());
  const CustomSignalList& recorded = sent.back()->customSignals();
  ASSERT_EQ(recorded.size(), Limits::kMaximumCustomSignals);
  EXPECT_EQ(recorded[0], CustomSignalInt("signal0", 0));
  EXPECT_EQ(std::get<std::string>(recorded[3].value()).size(), Limits::kMaximumTextValueBytes);
  EXPECT_EQ(recorded[4].id().size(), Limits::kMaximumSignalIdBytes);
  EXPECT_EQ(recorded.back().id(), "signal63");

  EXPECT_EQ(linesContaining("[Orvane] The flow name \"paywall-xxx"), 1u);
  EXPECT_EQ(linesContaining("10000 custom signals were passed with one request; only the first "
                            "64 are used."),
            1u);
  // The flow-name rule still speaks for names over 500 characters, now about the cut name.
  EXPECT_EQ(linesContaining("exceeds the maximum allowed length of 500 characters."), 1u);
  EXPECT_EQ(linesContaining("[Orvane] The text of custom signal \"plan\" is 100000 bytes"), 1u);
  EXPECT_EQ(linesContaining("[Orvane] The custom signal id \"iii"), 1u);
}

TEST_F(HostInputLimitsTest, RunawayTrackedEventIsCutAndStillRecorded) {
  const std::string hugeName = "checkout-" + std::string(1 << 20, 'e');
  CustomSignalList signals;
  for (int i = 0; i < 10'000; ++i) signals.push_back(CustomSignalInt("s" + std::to_string(i), i));

  manager.recordTrackedEvent(hugeName, signals, EventType::kPageView);
  fake.drain();

  auto sent = logs.take();
  ASSERT_EQ(sent.size(), 1u);
  const SignalList& recorded = sent[0]->signals();
  const auto name = std::find_if(recorded.begin(), recorded.end(),
                                 [](const Signal& s) { return s.id() == SignalEnum::id(20); });
  ASSERT_NE(name, recorded.end());
  EXPECT_EQ(std::get<std::string>(name->value()),
            hugeName.substr(0, Limits::kMaximumFlowNameBytes));
  EXPECT_EQ(sent[0]->customSignals().size(), Limits::kMaximumCustomSignals);
  EXPECT_EQ(linesContaining("[Orvane] The event name \"checkout-eee"), 1u);
  EXPECT_EQ(linesContaining("10000 custom signals were passed"), 1u);
}

TEST_F(HostInputLimitsTest, InputWithinBoundsPassesUntouched) {
  const std::string flow(500, 'f');
  CustomSignalList signals(Limits::kMaximumCustomSignals, CustomSignalInt("n", 1));
  signals[0] = CustomSignalString("plan", std::string(Limits::kMaximumTextValueBytes, 'p'));
  auto context = manager.requestInstantContext(flow, 3, signals);
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(context->flowName(), flow);
  context->log(EventOutcome::kPositive);
  fake.drain();
  auto sent = logs.take();
  ASSERT_FALSE(sent.empty());
  EXPECT_EQ(sent.back()->customSignals(), signals);
  EXPECT_EQ(linesContaining("[Orvane] The "), 0u);
}

TEST_F(HostInputLimitsTest, GlobalSignalsStopAtTheBoundButCanBeReplaced) {
  for (size_t i = 0; i < Limits::kMaximumGlobalSignals + 5; ++i) {
    manager.storeGlobalCustomSignal(CustomSignalInt("g" + std::to_string(i), 1));
  }
  manager.storeGlobalCustomSignal(CustomSignalInt("g0", 2));  // an existing id still updates
  Engine& engine = ContextManagerAccess::engine(manager);
  const CustomSignalList globals = engine.globalCustomSignals();
  ASSERT_EQ(globals.size(), Limits::kMaximumGlobalSignals);
  EXPECT_EQ(globals[0], CustomSignalInt("g0", 2));
  EXPECT_EQ(linesContaining("global custom signals; \"g6"), 5u);

  manager.removeGlobalCustomSignals("g1");
  manager.storeGlobalCustomSignal(CustomSignalInt("late", 3));
  EXPECT_EQ(engine.globalCustomSignals().back(), CustomSignalInt("late", 3));
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include "orvane/Configuration.h"
#include "orvane/CustomSignal.h"
#include "orvane/Signal.h"
#include "signals/SignalsManager.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

TEST(SignalTest, DescriptionsNameTheKindIdAndValue) {
  EXPECT_EQ(SignalInt(SignalEnum::id(25), 3).description(), "SignalInt(id: 25, value: 3)");
  EXPECT_EQ(SignalBool(SignalEnum::id(1), false).description(), "SignalBool(id: 1, value: false)");
  EXPECT_EQ(SignalFloat(SignalEnum::id(100), 0.1f).description(),
            "SignalFloat(id: 100, value: 0.1)");
  EXPECT_EQ(SignalDecimal(SignalEnum::id(2), *Decimal::parse("2.50")).description(),
            "SignalDecimal(id: 2, value: 2.5)");
  EXPECT_EQ(SignalString(SignalEnum::id(3), "home").description(),
            "SignalString(id: 3, value: \"home\")");
  EXPECT_EQ(CustomSignalString("a", "b").description(), "CustomSignalString(id: a, value: \"b\")");
  EXPECT_EQ(CustomSignalFloat("f", 1.5f).description(), "CustomSignalFloat(id: f, value: 1.5)");
  EXPECT_EQ(CustomSignalInt("n", -4).description(), "CustomSignalInt(id: n, value: -4)");
  // Float signals stay single precision.
  EXPECT_EQ(std::get<float>(SignalFloat(SignalEnum::id(100), 0.1f).value()), 0.1f);
  EXPECT_EQ(shortestFloatText(16777217.0f), "16777216");
}

class SignalsManagerTest : public ::testing::Test {
 protected:
  std::shared_ptr<testing::CapturingLog> log = std::make_shared<testing::CapturingLog>();
  static constexpr const char* kDuplicate = "[Orvane] SignalsManager: Duplicate signal ids found";
};

TEST_F(SignalsManagerTest, DuplicatesAreReportedNotRepaired) {
  SignalsManager m({SignalInt(SignalEnum::id(25), 1)}, log);
  m.append(SignalInt(SignalEnum::id(25), 2));
  EXPECT_EQ(log->count(kDuplicate), 1u);
  EXPECT_EQ(m.intValue(SignalEnum::id(25)), 1);  // the first one wins
  m.append(SignalBool(SignalEnum::id(1), true));
  EXPECT_EQ(log->count(kDuplicate), 2u);  // every check reports again
  m.removeSignal(SignalEnum::id(25));
  ASSERT_EQ(m.signals().size(), 1u);
  EXPECT_EQ(m.signals()[0].id(), SignalEnum::id(1));
}

TEST_F(SignalsManagerTest, TypedReadsAndReplacement) {
  SignalsManager m({SignalBool(SignalEnum::id(5), true), SignalInt(SignalEnum::id(6), 9),
                    SignalString(SignalEnum::id(7), "x")},
                   log);
  EXPECT_FALSE(m.intValue(SignalEnum::id(5)));
  EXPECT_EQ(m.boolValue(SignalEnum::id(5)), true);
  EXPECT_FALSE(m.boolValue(SignalEnum::id(6)));
  EXPECT_FALSE(m.intValue(SignalEnum::id(8)));

  m.replaceSignal(SignalInt(SignalEnum::id(5), 42));  // moves to the end with its new value
  m.replaceSignal(SignalInt(SignalEnum::id(9), 1));   // absent: simply appended
  std::vector<uint16_t> order;
  for (const auto& s : m.signals()) order.push_back(s.id().rawValue());
  EXPECT_EQ(order, (std::vector<uint16_t>{6, 7, 5, 9}));
  EXPECT_EQ(m.intValue(SignalEnum::id(5)), 42);
  EXPECT_EQ(log->count(kDuplicate), 0u);
}

TEST(CustomSignalTest, ListComparisonIgnoresOrderButNotTypesOrValues) {
  CustomSignalList a{CustomSignalInt("x", 1), CustomSignalString("y", "s")};
  CustomSignalList reordered{CustomSignalString("y", "s"), CustomSignalInt("x", 1)};
  CustomSignalList otherType{CustomSignalFloat("x", 1.0f), CustomSignalString("y", "s")};
  CustomSignalList otherValue{CustomSignalInt("x", 2), CustomSignalString("y", "s")};
  CustomSignalList shorter{CustomSignalInt("x", 1)};
  CustomSignalList repeated{CustomSignalInt("x", 1), CustomSignalInt("x", 1)};
  EXPECT_TRUE(containSameElements(a, reordered));
  EXPECT_FALSE(containSameElements(a, otherType));
  EXPECT_FALSE(containSameElements(a, otherValue));
  EXPECT_FALSE(containSameElements(a, shorter));
  EXPECT_FALSE(containSameElements(a, repeated));
  EXPECT_FALSE(containSameElements(
      repeated, CustomSignalList{CustomSignalInt("x", 1), CustomSignalInt("z", 1)}));
}

TEST(ConfigurationTest, AllSignalsCarryTheFlagsInWireOrder) {
  Configuration c;
  c.enableScreenshotMonitoring = false;
  c.enableInstantContext = false;
  EXPECT_EQ(testing::signalSummary(c.allSignals()),
            "b801=true b802=true b803=false b804=true b805=true b806=true b800=false");
}

}  // namespace
}  // namespace orvane

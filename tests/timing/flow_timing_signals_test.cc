#include "timing/FlowTimingSignalsGenerator.h"

#include <gtest/gtest.h>

#include "orvane/platform/KeyValueStore.h"

namespace orvane {
namespace {

constexpr std::string_view kKey = "last_flow_occurence_dates";

SignalList expected(float sinceUpsell, float sinceNoUpsell, float sinceEither) {
  return {SignalFloat(SignalEnum::id(92), sinceUpsell),
          SignalFloat(SignalEnum::id(93), sinceNoUpsell),
          SignalFloat(SignalEnum::id(94), sinceEither)};
}

class FlowTimingSignalsTest : public ::testing::Test {
 protected:
  FlowTimingSignalsTest()
      : defaults_(std::make_shared<UserDefaultsProvider>(
            makeInMemoryKeyValueStoreProvider()->openSuite("com.orvane.ads"))),
        dates_(std::make_shared<StubDateProvider>(Date{1000})),
        generator_(dates_, defaults_) {}

  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::shared_ptr<StubDateProvider> dates_;
  FlowTimingSignalsGenerator generator_;
};

TEST_F(FlowTimingSignalsTest, ReportsTheTimeSinceEachAnswerAndRecordsThisOne) {
  defaults_->set(kKey, PlistDictionary{{"other_true", Date{10}}});
  EXPECT_EQ(generator_.trackFlowCalled("home", false), expected(-1, -1, -1));
  EXPECT_EQ(defaults_->dictionary(kKey),
            (PlistDictionary{{"other_true", Date{10}}, {"home_false", Date{1000}}}));

  dates_->setStubDate(Date{1030});
  EXPECT_EQ(generator_.trackFlowCalled("home", true), expected(-1, 30, 30));
  dates_->setStubDate(Date{1100});
  EXPECT_EQ(generator_.trackFlowCalled("home", false), expected(70, 100, 70));
  EXPECT_EQ(defaults_->dictionary(kKey)->at("other_true"), PlistValue(Date{10}));
}

TEST_F(FlowTimingSignalsTest, StoredValueOfAnotherShapeCountsAsEmpty) {
  for (const PlistValue& stored :
       {PlistValue("text"), PlistValue(PlistDictionary{{"home_true", Date{5}}, {"x", 1}})}) {
    defaults_->set(kKey, stored);
    EXPECT_EQ(generator_.trackFlowCalled("home", true), expected(-1, -1, -1));
    EXPECT_EQ(defaults_->dictionary(kKey), (PlistDictionary{{"home_true", Date{1000}}}));
  }
}

TEST(FlowTimingSignalsWithoutStoreTest, GivesNoSignals) {
  FlowTimingSignalsGenerator generator(std::make_shared<StubDateProvider>(Date{0}),
                                       std::make_shared<UserDefaultsProvider>(nullptr));
  EXPECT_TRUE(generator.trackFlowCalled("home", true).empty());
}

}  // namespace
}  // namespace orvane

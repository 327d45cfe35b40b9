#include <gtest/gtest.h>

#include "generators/AppLaunchReasonSignalsGenerator.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

class AppLaunchHistoryTest : public ::testing::Test {
 protected:
  std::shared_ptr<StubDateProvider> dates = std::make_shared<StubDateProvider>(Date{1.7e9});
  std::shared_ptr<KeyValueStore> store = makeInMemoryKeyValueStoreProvider()->openSuite("s");
  std::shared_ptr<UserDefaultsProvider> defaults = std::make_shared<UserDefaultsProvider>(store);
  AppLaunchSignalsGenerator generator{dates, defaults};

  size_t todaysEntries(const char* key) {
    auto history = defaults->dictionary(key);
    if (!history) return 0;
    auto it = history->find(generator.currentDateFormatted());
    return it == history->end() ? 0 : it->second.asArray()->size();
  }
};

TEST_F(AppLaunchHistoryTest, LaunchesAreCountedAcrossDays) {
  EXPECT_EQ(generator.incrementAndGetNumberOfAppLaunches(), 1);
  EXPECT_EQ(generator.incrementAndGetNumberOfAppLaunches(), 2);
  dates->setStubDate(Date{1.7e9 + 2 * 86400});
  EXPECT_EQ(generator.incrementAndGetNumberOfAppLaunches(), 3);
  EXPECT_EQ(defaults->dictionary("app_launches")->size(), 2u);
  EXPECT_EQ(todaysEntries("app_launches"), 1u);
}

TEST_F(AppLaunchHistoryTest, WronglyTypedHistoryCountsAsEmpty) {
  store->set("app_launches", "garbage");
  store->set("app_seconds", PlistDictionary{{generator.currentDateFormatted(), "not a list"}});
  EXPECT_EQ(generator.incrementAndGetNumberOfAppLaunches(), 1);
  generator.storeNewSessionDuration(30);
  EXPECT_EQ(todaysEntries("app_seconds"), 1u);
}

TEST_F(AppLaunchHistoryTest, TriggersCloserThanThreeSecondsCountOnce) {
  generator.didUserTriggerOrvane();
  dates->setStubDate(Date{1.7e9 + 2});
  generator.didUserTriggerOrvane();
  EXPECT_EQ(todaysEntries("orvane_triggers"), 1u);
  dates->setStubDate(Date{1.7e9 + 6});
  generator.didUserTriggerOrvane();
  EXPECT_EQ(todaysEntries("orvane_triggers"), 2u);
}

TEST_F(AppLaunchHistoryTest, ResignDateIsStoredAndReloaded) {
  generator.updateLastAppWillResignDate();
  AppLaunchSignalsGenerator reloaded(dates, defaults);
  EXPECT_EQ(reloaded.lastAppWillResignDate(), Date{1.7e9});
}

TEST(LaunchReasonTest, FirstKeyInPriorityOrderDecides) {
  using namespace launch_option;
  const std::pair<std::optional<LaunchOptions>, int64_t> cases[] = {
      {std::nullopt, 1},
      {LaunchOptions{}, 0},
      {LaunchOptions{{kShortcutItem, true}}, 0},
      {LaunchOptions{{kRemoteNotification, true}}, 3},
      {LaunchOptions{{kUrl, "app://x"}, {kRemoteNotification, true}}, 2},
      {LaunchOptions{{kSourceApplication, "com.x"}, {kUrl, "app://x"}}, 2},
      {LaunchOptions{{kBluetoothPeripherals, true}, {kLocation, true}}, 6},
      {LaunchOptions{{kBluetoothCentrals, true}, {kBluetoothPeripherals, true}}, 7},
      {LaunchOptions{{kSourceApplication, "com.x"}}, 9},
      {LaunchOptions{{kCloudKitShareMetadata, true}, {kRemoteNotification, true}}, 3},
      {LaunchOptions{{kCloudKitShareMetadata, true}}, 10},
  };
  for (const auto& [options, code] : cases) {
    EXPECT_EQ(LaunchReasonHelper::determineLaunchReason(options), code);
  }
}

TEST(LaunchReasonTest, SignalIsCodeMinusOneOnceKnown) {
  AppLaunchReasonSignalsGenerator generator;
  EXPECT_TRUE(generator.allSignals().empty());
  generator.appDidBecomeActive();  // no resign yet: nothing changes
  EXPECT_FALSE(generator.currentAppLaunchReason());
  generator.setLaunchReason(3);
  ASSERT_EQ(generator.allSignals().size(), 1u);
  EXPECT_EQ(generator.allSignals()[0], SignalInt(SignalEnum::id(452), 2));
}

}  // namespace
}  // namespace orvane

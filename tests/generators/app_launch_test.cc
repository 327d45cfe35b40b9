#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <vector>

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
  // Two hours east of UTC, so a day's boundary is not UTC midnight.
  std::shared_ptr<Calendar> calendar = makeFixedOffsetCalendar("Test/East", 7200);
  AppLaunchSignalsGenerator generator{dates, defaults, calendar};

  std::map<int, float> signalValues(const SignalList& signals) {
    std::map<int, float> values;
    for (const Signal& s : signals) values[s.id().rawValue()] = std::get<float>(s.value());
    return values;
  }

  size_t todaysEntries(const char* key) {
    auto history = defaults->dictionary(key);
    if (!history) return 0;
    auto it = history->find(generator.currentDateFormatted());
    return it == history->end() ? 0 : it->second.asArray()->size();
  }
};

TEST_F(AppLaunchHistoryTest, ASuiteThatOpensLateKeepsEarlierLaunches) {
  generator.incrementAndGetNumberOfAppLaunches();
  generator.incrementAndGetNumberOfAppLaunches();
  testing::LateKeyValueStoreProvider late;
  auto lateDefaults = UserDefaultsProvider::open(&late, "s");
  AppLaunchSignalsGenerator lateGenerator{dates, lateDefaults, calendar};
  // Nothing to count or keep while the suite is shut; read before it opens, the history is
  // still read from it afterwards rather than written over.
  EXPECT_EQ(lateGenerator.incrementAndGetNumberOfAppLaunches(), 0);
  late.open(store);
  EXPECT_EQ(lateGenerator.incrementAndGetNumberOfAppLaunches(), 3);
  EXPECT_EQ(todaysEntries("app_launches"), 3u);
}

TEST_F(AppLaunchHistoryTest, WronglyTypedHistoryCountsAsEmpty) {
  store->set("app_launches", "garbage");
  store->set("app_seconds", PlistDictionary{{generator.currentDateFormatted(), "not a list"}});
  EXPECT_EQ(generator.incrementAndGetNumberOfAppLaunches(), 1);
  generator.storeNewSessionDuration(30);
  EXPECT_EQ(todaysEntries("app_seconds"), 1u);
}

TEST_F(AppLaunchHistoryTest, ATriggerWithinThreeSecondsOfTheLastRecordedOneIsNotRecorded) {
  struct Case {
    std::vector<double> offsets;  // seconds after the first trigger
    size_t recorded;
  };
  const Case cases[] = {
      {{0, 2}, 1},
      {{0, 4}, 2},
      {{0, 2.999}, 1},
      {{0, 3}, 2},
      // The gap counts from the last recorded trigger, not from the last attempt.
      {{0, 2, 4}, 2},
      {{0, 1, 2, 3, 4, 5, 6}, 3},
  };
  for (const Case& c : cases) {
    auto clock = std::make_shared<testing::FakeClock>(1.7e9);
    auto suite = makeInMemoryKeyValueStoreProvider()->openSuite("triggers");
    auto suiteDefaults = std::make_shared<UserDefaultsProvider>(suite);
    AppLaunchSignalsGenerator triggers(std::make_shared<DefaultDateProvider>(clock), suiteDefaults,
                                       calendar);
    for (double offset : c.offsets) {
      clock->set(1.7e9 + offset);
      triggers.didUserTriggerOrvane();
    }
    const auto history = suiteDefaults->dictionary("orvane_triggers");
    ASSERT_TRUE(history);
    EXPECT_EQ(history->at(triggers.currentDateFormatted()).asArray()->size(), c.recorded)
        << ::testing::PrintToString(c.offsets);
  }
  // The rule lives in memory only: a new process records at once.
  generator.didUserTriggerOrvane();
  AppLaunchSignalsGenerator(dates, defaults, calendar).didUserTriggerOrvane();
  EXPECT_EQ(todaysEntries("orvane_triggers"), 2u);
}

TEST_F(AppLaunchHistoryTest, FirstLaunchEverAndNoSessionYet) {
  generator.incrementAndGetNumberOfAppLaunches();
  EXPECT_EQ(testing::signalSummary(generator.appLaunchSignals()),
            "f80=1 f81=1 f82=1 f83=1 f90=1 f85=0 f86=0 f87=0 f88=0 f89=0 f91=-1");
  const SignalList seconds = generator.appSecondsSignals(Date{1.7e9 - 40});
  ASSERT_EQ(seconds.size(), 6u);  // no usual length to compare the session with
  auto values = signalValues(seconds);
  EXPECT_TRUE(std::isnan(values[412]));
  EXPECT_EQ(values[410] + values[411] + values[413] + values[414] + values[415], 0);
}

TEST_F(AppLaunchHistoryTest, DaysAreCountedOnTheUsersCalendar) {
  // 1 March 2026 23:30 local (21:30 UTC) and 3 March 00:30 local (2 March 22:30 UTC).
  const double march1Late = 1772323200 + 21.5 * 3600;
  dates->setStubDate(Date{march1Late});
  generator.incrementAndGetNumberOfAppLaunches();
  generator.didUserTriggerOrvane();
  dates->setStubDate(Date{march1Late + 25 * 3600});
  generator.incrementAndGetNumberOfAppLaunches();
  EXPECT_EQ(generator.currentDateFormatted(), "2026-03-03");
  auto values = signalValues(generator.appLaunchSignals());
  EXPECT_EQ(values[81], 2);  // 1 and 3 March
  EXPECT_EQ(values[82], 1);
  EXPECT_NEAR(values[90], 2.0 / 3.0, 1e-6);
  EXPECT_NEAR(values[83], 2.0 / 3.0, 1e-6);
  EXPECT_NEAR(values[87], 0.5, 1e-6);
  EXPECT_NEAR(values[88], 25.0, 1e-4);
  EXPECT_EQ(values[89], 0);  // the trigger was on 1 March
}

TEST_F(AppLaunchHistoryTest, SessionMediansAndComparisons) {
  for (int64_t length : {10, 40, 20}) generator.storeNewSessionDuration(length);
  dates->setStubDate(Date{1.7e9 + 86400});
  for (int64_t length : {100, 50}) generator.storeNewSessionDuration(length);
  auto values = signalValues(generator.appSecondsSignals(Date{1.7e9 + 86400 - 150}));
  EXPECT_EQ(values[410], 220);
  EXPECT_EQ(values[411], 150);
  EXPECT_EQ(values[412], 110);
  EXPECT_EQ(values[413], 75);
  EXPECT_EQ(values[414], 40);  // 10 20 40 50 100
  EXPECT_EQ(values[415], 75);  // (50 + 100) / 2
  EXPECT_EQ(values[416], 110);
  EXPECT_EQ(values[420], 150.0f / 40.0f);
  EXPECT_EQ(values[419], 75);
  EXPECT_EQ(values[423], 2);
  // The history and the last resign survive a new process, stored in the suite.
  generator.updateLastAppWillResignDate();
  AppLaunchSignalsGenerator reloaded(dates, defaults, calendar);
  EXPECT_EQ(signalValues(reloaded.appSecondsSignals(Date{1.7e9}))[410], 220);
  EXPECT_EQ(reloaded.lastAppWillResignDate(), Date{1.7e9 + 86400});
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

#include <gtest/gtest.h>

#include "api/Engine.h"
#include "generators/AppLaunchReasonSignalsGenerator.h"
#include "generators/AppLaunchSignalsGenerator.h"
#include "logging/OrvaneLogSender.h"
#include "models/CoreMLModelManager.h"
#include "motion/AccelerometerSensor.h"
#include "testutil/FakePlatform.h"
#include "testutil/ManagerHelpers.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using testing::FakePlatform;

constexpr const char* kLateSetupLine =
    "[Orvane] ContextManager.applicationDidFinishLaunchingWithOptions was not called right after "
    "app start. This can lead to lost events or your custom models not being used. Please make "
    "sure to call ContextManager.applicationDidFinishLaunchingWithOptions() as early after app "
    "start as possible.";

std::vector<std::pair<UploadQueueKind, bool>> triggers(Engine& m) {
  std::vector<std::pair<UploadQueueKind, bool>> out;
  for (const auto& t : m.orvaneLogSender().triggerHistory()) out.emplace_back(t.queue, t.force);
  return out;
}

TEST(ContextManagerTest, LateSetupWarnsAfterThePlatformsGracePeriod) {
  struct Case {
    HostPlatform platform;
    double delay;
    bool warns;
  };
  const Case cases[] = {
      {HostPlatform::kNative, 4, false},         {HostPlatform::kNative, 5, true},
      {HostPlatform::kNative, 6, true},          {HostPlatform::kManagedRuntime, 6, false},
      {HostPlatform::kManagedRuntime, 31, true}, {HostPlatform::kScriptBridge, 29, false},
      {HostPlatform::kCompiledBridge, 30, true}, {HostPlatform::kHybridWeb, 6, true},
      {HostPlatform::kUnknown, 4.9, false},
  };
  for (const auto& c : cases) {
    FakePlatform fake;
    Engine manager(fake.platform);
    manager.setCurrentPlatform(c.platform);
    fake.clock->advance(c.delay);
    EXPECT_TRUE(manager.setupWith("key", nullptr, std::nullopt, Configuration{}));
    EXPECT_EQ(fake.log->count(kLateSetupLine), c.warns ? 1u : 0u)
        << "platform " << static_cast<int>(c.platform) << " after " << c.delay << " s";
  }
}

TEST(ContextManagerTest, CreationStartsASessionAndSetupTakesTheHostsChoices) {
  FakePlatform fake;
  Engine manager(fake.platform);
  EXPECT_TRUE(manager.isActive());
  EXPECT_TRUE(manager.isFirstStart());
  EXPECT_EQ(manager.numberOfAppLaunches(), 1);
  EXPECT_EQ(manager.bundleIdentifier(), "com.example.host");
  EXPECT_EQ(manager.isSupported(), ContextManagerIsSupported::kSupported);
  // Creation: one main-queue upload without forcing.
  EXPECT_EQ(triggers(manager),
            (std::vector<std::pair<UploadQueueKind, bool>>{{UploadQueueKind::kMain, false}}));

  Configuration configuration;
  configuration.enableInstantContext = false;
  std::vector<std::shared_ptr<Log>> received;
  LaunchOptions options{{launch_option::kRemoteNotification, PlistDictionary{}}};
  manager.setupWith(
      "APP-KEY", [&](std::shared_ptr<Log> log) { received.push_back(log); }, options,
      configuration);

  EXPECT_EQ(manager.licenseKey(), "APP-KEY");
  EXPECT_EQ(manager.configuration(), configuration);
  EXPECT_FALSE(manager.accelerometerSensor().alwaysRunInForeground());
  EXPECT_FALSE(manager.accelerometerSensor().isSampling());
  EXPECT_EQ(manager.appLaunchReasonSignalsGenerator().currentAppLaunchReason(), 3);
  // Setup: the unlogged queue without forcing, then the main queue forced.
  EXPECT_EQ(triggers(manager), (std::vector<std::pair<UploadQueueKind, bool>>{
                                   {UploadQueueKind::kMain, false},
                                   {UploadQueueKind::kUnloggedContexts, false},
                                   {UploadQueueKind::kMain, true}}));
  manager.sendLog(nullptr);
  EXPECT_TRUE(received.empty());  // senders run on the main queue
  fake.drain();
  EXPECT_EQ(received.size(), 1u);
  EXPECT_TRUE(manager.orvaneLogSender().mainQueue().empty());
}

TEST(ContextManagerTest, DeviceWithoutGyroscopeIsUnsupported) {
  FakePlatform fake;
  fake.platform.motion = makeUnsupportedMotionService(/*hasAccelerometer=*/true, /*hasGyro=*/false);
  Engine manager(fake.platform);
  EXPECT_EQ(manager.isSupported(), ContextManagerIsSupported::kUnsupported);
  EXPECT_FALSE(manager.accelerometerSensor().isSampling());
}

TEST(ContextManagerTest, LifecycleNotificationsArriveOnTheMainQueue) {
  FakePlatform fake;
  Engine manager(fake.platform);
  const std::string firstSession = manager.currentSessionId();
  AccelerometerSensor& sensor = manager.accelerometerSensor();
  EXPECT_TRUE(sensor.isSampling());  // instant context keeps sampling in the foreground

  // A become-active while already active does only the first-start part.
  fake.application->becomeActive();
  EXPECT_TRUE(manager.isFirstStart()) << "handlers must wait for the main queue";
  fake.drain();
  EXPECT_FALSE(manager.isFirstStart());
  EXPECT_EQ(manager.currentSessionId(), firstSession);
  EXPECT_EQ(manager.numberOfAppLaunches(), 1);
  EXPECT_EQ(triggers(manager).size(), 3u);  // creation + first-start pair

  fake.clock->advance(12.4);
  fake.application->resignActive();
  fake.drain();
  EXPECT_FALSE(manager.isActive());
  EXPECT_FALSE(sensor.isSampling());
  EXPECT_FALSE(sensor.isAppInForeground());
  const std::string backgroundSession = manager.currentSessionId();
  EXPECT_NE(backgroundSession, firstSession);
  EXPECT_EQ(manager.appLaunchReasonSignalsGenerator().lastResignDate(), Date{fake.clock->now()});

  fake.application->resignActive();  // a second resign changes nothing
  fake.drain();
  EXPECT_EQ(manager.currentSessionId(), backgroundSession);

  fake.clock->advance(100);
  fake.application->becomeActive();
  fake.drain();
  EXPECT_TRUE(manager.isActive());
  EXPECT_TRUE(sensor.isSampling());
  EXPECT_NE(manager.currentSessionId(), backgroundSession);
  EXPECT_EQ(manager.currentSessionStarted(), Date{fake.clock->now()});
  EXPECT_EQ(manager.numberOfAppLaunches(), 2);
  EXPECT_EQ(manager.appLaunchReasonSignalsGenerator().currentAppLaunchReason(), 1);
  EXPECT_EQ(triggers(manager).size(), 4u);  // no first-start pair the second time

  fake.clock->advance(12.6);
  fake.application->resignActive();
  fake.drain();
  auto seconds = manager.userDefaultsProvider()->dictionary("app_seconds");
  ASSERT_TRUE(seconds);
  ASSERT_EQ(seconds->size(), 1u);
  EXPECT_EQ(*seconds->begin()->second.asArray(), (PlistArray{int64_t{12}, int64_t{13}}));
}

TEST(ContextManagerTest, ManagerStopsListeningWhenDestroyed) {
  FakePlatform fake;
  { Engine manager(fake.platform); }
  fake.application->becomeActive();
  fake.application->resignActive();
  fake.drain();
  // A handler of the destroyed manager would have recorded a launch and a session.
  UserDefaultsProvider defaults(fake.platform.keyValueStores->openSuite("com.orvane.ads"));
  EXPECT_EQ(defaults.dictionary("app_launches")->begin()->second.asArray()->size(), 1u);
  EXPECT_FALSE(defaults.dictionary("app_seconds"));
}

TEST(ContextManagerTest, InstallationIdentitySurvivesRestartsOnlyWithASuite) {
  FakePlatform fake;
  std::string first;
  {
    Engine manager(fake.platform);
    first = manager.installationUUID();
    EXPECT_EQ(manager.userDefaultsProvider()->string("orvane_installation_uuid"), first);
  }
  EXPECT_EQ(Engine(fake.platform).installationUUID(), first);
  EXPECT_EQ(fake.log->count("[Orvane] Failed to get Installation UUID"), 0u);

  // Without a suite: one per process, logged, and nothing can be recorded.
  fake.platform.keyValueStores = testing::makeUnavailableKeyValueStoreProvider();
  Engine a(fake.platform);
  Engine b(fake.platform);
  const std::string idA = a.installationUUID();
  EXPECT_EQ(a.installationUUID(), idA);
  EXPECT_NE(b.installationUUID(), idA);
  EXPECT_EQ(fake.log->count("[Orvane] Failed to get Installation UUID"), 2u);
  EXPECT_EQ(a.numberOfAppLaunches(), 0);
}

TEST(ContextManagerTest, ASuiteThatOpensLateKeepsTheStoredIdentity) {
  FakePlatform fake;
  auto late = std::make_shared<testing::LateKeyValueStoreProvider>();
  fake.platform.keyValueStores = late;
  auto suites = makeInMemoryKeyValueStoreProvider();

  // Stored by an earlier launch: it wins over the identity made while the suite was shut.
  auto stored = suites->openSuite("earlier launch");
  stored->set("orvane_installation_uuid", "from disk");
  Engine engine(fake.platform);
  const std::string interim = engine.installationUUID();
  EXPECT_NE(interim, "from disk");
  EXPECT_FALSE(engine.userDefaultsProvider()->isAvailable());
  late->open(stored);
  EXPECT_TRUE(engine.userDefaultsProvider()->isAvailable());
  EXPECT_EQ(engine.installationUUID(), "from disk");
  EXPECT_EQ(stored->get("orvane_installation_uuid"), PlistValue("from disk"));

  // Nothing stored: the interim identity, already in records, is the one kept.
  auto empty = suites->openSuite("first launch");
  Engine fresh(fake.platform);
  const std::string freshInterim = fresh.installationUUID();
  late->open(empty);
  EXPECT_EQ(fresh.installationUUID(), freshInterim);
  EXPECT_EQ(empty->get("orvane_installation_uuid"), PlistValue(freshInterim));
  EXPECT_EQ(fake.log->count("[Orvane] Failed to get Installation UUID"), 2u);
}

TEST(ContextManagerTest, PublicModelViewFollowsTheStoreAndTheSwitch) {
  FakePlatform fake;
  Engine manager(fake.platform);
  EXPECT_EQ(manager.appliedModelGenerationId(), "calibration");
  EXPECT_FALSE(manager.modelInformation("home"));  // nothing assigned: always upsell

  testing::storeFlowRecord(
      *manager.userDefaultsProvider(), "paywall",
      R"({"isControl":true,"supportedDuration":3,"useInstantContext":true,"randomUpsellChance":0.2,"modelVersion":"ctl-1"})");
  manager.userDefaultsProvider()->set("ota_last_applied_version", int64_t{4});
  EXPECT_EQ(manager.appliedModelGenerationId(), "ota-4");
  EXPECT_EQ(manager.modelInformation("paywall"),
            (ContextModelInformation{true, "ctl-1", 3, true, 0.2, std::nullopt}));

  // Each switch empties the answers cached so far.
  manager.setDecisionsSwitch(false);
  EXPECT_FALSE(manager.coreMLModelManager().decisionsEnabled());
  auto switched = manager.modelInformation("paywall");
  ASSERT_TRUE(switched);
  EXPECT_DOUBLE_EQ(switched->randomUpsellChance, 1.0);
  EXPECT_TRUE(switched->modelVersion.starts_with("CCCC"));
  manager.setDecisionsSwitch(true);
  EXPECT_EQ(manager.modelInformation("paywall")->randomUpsellChance, 0.2);
}

// The notification settings are asked for once sampling already runs: the sensor is the
// first thing to follow the app into the foreground.
TEST(ContextManagerTest, BecomingActiveStartsSamplingBeforeAskingForNotificationSettings) {
  class Probe : public NotificationSettingsService {
   public:
    void getNotificationSettings(NotificationSettingsCompletion completion) override {
      if (manager) samplingWhenAsked.push_back(manager->accelerometerSensor().isSampling());
      completion(std::nullopt);
    }
    Engine* manager = nullptr;
    std::vector<bool> samplingWhenAsked;
  };
  FakePlatform fake;
  auto probe = std::make_shared<Probe>();
  fake.platform.notifications = probe;
  Engine manager(fake.platform, ContextManagerIsSupported::kSupported);
  probe->manager = &manager;
  fake.application->becomeActive();  // the host's app was active already
  fake.application->resignActive();
  fake.application->becomeActive();
  fake.drain();
  EXPECT_EQ(probe->samplingWhenAsked, std::vector<bool>{true});
}

}  // namespace
}  // namespace orvane

// The host's controls, on a fake platform: what the process still sees while writes are held
// for consent, and what a shut-down manager and its contexts still do.
#include <gtest/gtest.h>

#include "api/Engine.h"
#include "logging/OrvaneErrorReporting.h"
#include "logging/OrvaneLogSender.h"
#include "motion/AccelerometerSensor.h"
#include "testutil/FakePlatform.h"
#include "testutil/RecordingHttpTransport.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using testing::FakePlatform;

TEST(DataControlTest, WithoutConsentTheProcessReadsItsWritesAndTheSuiteNeverSeesThem) {
  FakePlatform fake;
  auto http = std::make_shared<testing::RecordingHttpTransport>();
  fake.platform.http = http;
  auto suite = fake.platform.keyValueStores->openSuite("com.orvane.ads");
  Engine manager(fake.platform);
  Configuration configuration;
  configuration.requireConsent = true;
  manager.setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, configuration);
  fake.application->becomeActive();
  fake.drain();
  const size_t requestsAtSetup = http->requests().size();

  const auto& defaults = manager.userDefaultsProvider();
  // The launch was counted before setup asked for consent: taken back from the suite, held.
  EXPECT_TRUE(defaults->object("app_launches"));
  EXPECT_FALSE(suite->get("app_launches"));
  defaults->set("written_meanwhile", "value");
  defaults->remove("app_launches");
  EXPECT_EQ(defaults->string("written_meanwhile"), "value");
  EXPECT_FALSE(defaults->object("app_launches"));
  EXPECT_FALSE(suite->get("written_meanwhile"));
  manager.orvaneErrorReporting().reportError("a failure", std::nullopt, true, std::nullopt);
  manager.orvaneLogSender().triggerUpload(UploadQueueKind::kMain, true);
  fake.drain();
  EXPECT_EQ(http->requests().size(), requestsAtSetup);
  EXPECT_EQ(requestsAtSetup, 0u);

  // Granting writes what was held, removals included, and opens the network.
  manager.setConsent(ConsentState::kGranted);
  fake.drain();
  EXPECT_EQ(suite->get("written_meanwhile"), PlistValue("value"));
  EXPECT_FALSE(suite->get("app_launches"));
  EXPECT_EQ(suite->get(CollectionConsent::kStateKey), PlistValue(int64_t{1}));
  EXPECT_GT(http->requests().size(), requestsAtSetup);

  // A denial without the requirement still stops writes.
  manager.setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
  manager.setConsent(ConsentState::kDenied);
  defaults->set("after_denial", true);
  EXPECT_FALSE(suite->get("after_denial"));
  EXPECT_EQ(suite->get(CollectionConsent::kRequiredKey), PlistValue(false));
}

TEST(DataControlTest, AfterShutdownCallsAndContextsAreLoggedNoOps) {
  FakePlatform fake;
  ContextManager manager(fake.platform, ContextManagerIsSupported::kSupported);
  manager.setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
  fake.drain();
  auto context = manager.requestInstantContext("paywall", 3, {});
  ASSERT_TRUE(context);
  Engine& engine = ContextManagerAccess::engine(manager);
  EXPECT_TRUE(engine.accelerometerSensor().isSampling());

  manager.shutdownManager(0.05);
  fake.drain();
  EXPECT_FALSE(engine.accelerometerSensor().isSampling());
  EXPECT_FALSE(manager.requestInstantContext("paywall", 3, {}));
  EXPECT_EQ(fake.log->count("[Orvane] ContextManager.instantContext does nothing: the SDK was "
                            "shut down."),
            1u);
  const size_t queued = engine.orvaneLogSender().mainQueue().size();
  context->log(EventOutcome::kPositive);
  fake.drain();
  EXPECT_EQ(engine.orvaneLogSender().mainQueue().size(), queued);
  EXPECT_EQ(fake.log->countContaining("Context.log on flow \"paywall\" does nothing: the SDK was "
                                      "shut down."),
            1u);
  // Coming back to the foreground starts nothing again.
  fake.application->resignActive();
  fake.application->becomeActive();
  fake.drain();
  EXPECT_FALSE(engine.accelerometerSensor().isSampling());
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include "config/RemoteConfiguration.h"
#include "generators/GeoIPSignalGenerator.h"
#include "logging/UploadQueueFixture.h"
#include "models/CoreMLModelManager.h"
#include "orvane/Version.h"
#include "timing/TimingCoordinator.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using testing::EstablishedAppUploadTest;
using testing::status;
using testing::UploadQueueTest;

TEST_F(UploadQueueTest, ForcedPostCarriesTheInstallationAndAnEmptyBatch) {
  trigger(UploadQueueKind::kMain, true);
  auto bodies = posts();
  ASSERT_EQ(bodies.size(), 1u);
  const auto& body = bodies[0];
  EXPECT_EQ(body["events"], nlohmann::json::array());
  EXPECT_EQ(body["bundle_id"], "com.example.host");
  EXPECT_EQ(body["license_key"], "KEY-0123456789abcdef");
  EXPECT_EQ(body["sdk_version"], ORVANE_VERSION_STRING);
  EXPECT_EQ(body["last_ota_update"], 0);
  EXPECT_EQ(body["installation_uuid"], manager->installationUUID());
  EXPECT_EQ(body["platform"], "ios_ads");
  EXPECT_EQ(http->requests().back().url, "http://127.0.0.1:9/v3/queue/tech");
  trigger(UploadQueueKind::kMain, false);  // empty and not forced: nothing
  EXPECT_TRUE(posts().empty());

  fake.application->resignActive();
  fake.drain();
  trigger(UploadQueueKind::kMain, true);  // never while inactive
  add(101);
  EXPECT_TRUE(posts().empty());
  auto queue = sender().mainQueue();
  ASSERT_EQ(queue.size(), 100u);  // the oldest record was dropped
  EXPECT_EQ(queue.front().at("ctx_8"), PlistValue("log-1"));
}

TEST_F(EstablishedAppUploadTest, BatchOfFiftyStartsAnUploadThatRemovesExactlyWhatWasSent) {
  http->script({status(500)});
  add(49);
  EXPECT_TRUE(posts().empty());
  add(1);
  auto bodies = posts();
  ASSERT_EQ(bodies.size(), 1u);
  EXPECT_EQ(bodies[0]["events"].size(), 50u);
  EXPECT_EQ(bodies[0]["events"][0]["ctx_8"], "log-0");
  EXPECT_EQ(sender().mainQueue().size(), 50u);  // the failed batch stays

  // A record that lands while the batch is in flight survives the removal that follows.
  http->script({status(202)});
  http->duringFlight = [this] {
    auto defaults = manager->userDefaultsProvider();
    PlistArray queue = *defaults->array("orvane_log");
    queue.emplace_back(PlistDictionary{{"ctx_8", "late"}});
    defaults->set("orvane_log", queue);
  };
  fake.advance(40);  // past the back-off
  add(1);
  EXPECT_EQ(posts().at(0)["events"].size(), 51u);
  EXPECT_EQ(sender().currentBackoffSeconds(), 0);
  ASSERT_EQ(sender().mainQueue().size(), 1u);
  EXPECT_EQ(sender().mainQueue()[0].at("ctx_8"), PlistValue("late"));
}

TEST_F(EstablishedAppUploadTest, BackoffGrowsIsCappedAndClearsOnSuccess) {
  add(1);
  fake.random->scriptUniform({0.5});
  http->script(std::vector<testing::Answer>(40, status(503)));
  trigger(UploadQueueKind::kMain, true);
  EXPECT_DOUBLE_EQ(sender().currentBackoffSeconds(), 30.5);
  fake.advance(10);
  trigger(UploadQueueKind::kMain, false);
  EXPECT_TRUE(posts().size() == 1u);  // only the forced one
  fake.advance(21);
  trigger(UploadQueueKind::kMain, false);
  EXPECT_EQ(posts().size(), 1u);
  EXPECT_DOUBLE_EQ(sender().currentBackoffSeconds(), 30.5 * 1.25);
  for (int i = 0; i < 30; ++i) trigger(UploadQueueKind::kMain, true);
  EXPECT_DOUBLE_EQ(sender().currentBackoffSeconds(), 3600);
  EXPECT_EQ(sender().mainQueue().size(), 1u);  // nothing lost

  http->script({status(200)});
  trigger(UploadQueueKind::kMain, true);
  EXPECT_EQ(sender().currentBackoffSeconds(), 0);
  EXPECT_TRUE(sender().mainQueue().empty());
}

TEST_F(UploadQueueTest, UnloggedRecordsOfTheRunningSessionStay) {
  add(2, manager->currentSessionId(), -101);
  add(1, "earlier-session", -101);
  ASSERT_EQ(sender().unloggedQueue().size(), 3u);
  trigger(UploadQueueKind::kUnloggedContexts, false);
  auto bodies = posts();
  ASSERT_EQ(bodies.size(), 1u);
  ASSERT_EQ(bodies[0]["events"].size(), 1u);
  EXPECT_EQ(bodies[0]["events"][0]["ctx_14"], "earlier-session");
  EXPECT_EQ(sender().unloggedQueue().size(), 2u);
}

TEST_F(UploadQueueTest, AcceptedAnswerAppliesUpdatesOrReportsAnUnreadableBody) {
  add(1);
  posts();
  add(1);
  http->script({status(200, "\xff{not json")});
  trigger(UploadQueueKind::kMain, true);
  EXPECT_TRUE(sender().mainQueue().empty());  // removed as after any success
  const nlohmann::json payload = {
      {"geoIpData", {{"estimated_country_code", "DE"}}},
      {"updateData",
       {{"version", 3},
        {"modelInfoPerFlow",
         {{"paywall",
           {{"isControl", true},
            {"randomUpsellChance", 0.5},
            {"supportedDuration", 3},
            {"useInstantContext", false},
            {"timingConfiguration", {{"atMostOncePer", {{"unit", "hours"}, {"value", 1}}}}}}}}}}}};
  http->script({status(201, payload.dump())});
  trigger(UploadQueueKind::kMain, true);
  EXPECT_EQ(manager->userDefaultsProvider()->integer("ota_last_applied_version"), 3);
  EXPECT_EQ(manager->geoIPSignalGenerator().allSignals().front(),
            SignalString(SignalEnum::id(600), "DE"));
  EXPECT_TRUE(
      manager->timingCoordinator().currentConfiguration().flowConfigurations.count("paywall"));
  trigger(UploadQueueKind::kMain, true);
  EXPECT_EQ(posts().back()["last_ota_update"], 3);
}

TEST_F(UploadQueueTest, ModelUpdatesWaitWhileTheNetworkIsConstrained) {
  const std::string payload =
      nlohmann::json{{"updateData",
                      {{"version", 4},
                       {"modelInfoPerFlow",
                        {{"paywall",
                          {{"isControl", true},
                           {"randomUpsellChance", 0.5},
                           {"supportedDuration", 3},
                           {"useInstantContext", false},
                           {"timingConfiguration",
                            {{"atMostOncePer", {{"unit", "hours"}, {"value", 1}}}}}}}}}}}}
          .dump();
  fake.network->setPath(NetworkInterfaceKind::kAny, {true, true, false});
  fake.drain();
  http->script({status(200, payload)});
  trigger(UploadQueueKind::kMain, true);
  EXPECT_EQ(manager->userDefaultsProvider()->integer("ota_last_applied_version"), std::nullopt);
  EXPECT_TRUE(  // the small rules still apply
      manager->timingCoordinator().currentConfiguration().flowConfigurations.count("paywall"));

  fake.network->setPath(NetworkInterfaceKind::kAny, {true, false, false});
  fake.drain();
  http->script({status(200, payload)});
  trigger(UploadQueueKind::kMain, true);
  EXPECT_EQ(manager->userDefaultsProvider()->integer("ota_last_applied_version"), 4);
}

TEST_F(EstablishedAppUploadTest, OnlyStatus200To202IsASuccess) {
  const struct {
    int status;
    bool accepted;
  } cases[] = {{199, false}, {200, true},  {201, true},  {202, true},  {203, false},
               {204, false}, {206, false}, {299, false}, {304, false}, {500, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.status);
    if (sender().mainQueue().empty()) add(1);
    http->script({status(c.status)});
    trigger(UploadQueueKind::kMain, true);
    EXPECT_EQ(sender().mainQueue().empty(), c.accepted);
    EXPECT_EQ(sender().currentBackoffSeconds() == 0, c.accepted);
  }
}

// An upload starts at once in builds that are not from the store, for the service's own
// apps, and in the first ten launches; otherwise only from the fiftieth record on.
TEST(UploadTriggerTest, InternalAppsTestInstallsAndEarlyLaunchesUploadEachRecord) {
  struct Probe : testing::UploadQueueTest {
    Probe(int previousLaunches, std::string bundleId, bool profile, std::string receipt)
        : UploadQueueTest(previousLaunches, std::move(bundleId),
                          std::make_shared<testing::ScriptedTransport>(), profile,
                          std::move(receipt)) {}
    void TestBody() override {}
    using UploadQueueTest::add;
    using UploadQueueTest::posts;
  };
  const struct {
    const char* name;
    int previousLaunches;
    const char* bundleId;
    bool profile;
    const char* receipt;
    bool uploads;
  } cases[] = {
      {"store install of a host", 19, "com.example.host", false, "receipt", false},
      {"demo app", 19, "com.orvane.demo", false, "receipt", true},
      {"demo app, development", 19, "com.orvane.demo.dev", false, "receipt", true},
      {"internal app", 19, "com.orvane.internal", false, "receipt", true},
      {"a name that only starts like one", 19, "com.orvane.demo.other", false, "receipt", false},
      {"sandbox receipt", 19, "com.example.host", false, "sandboxReceipt", true},
      {"provisioning profile", 19, "com.example.host", true, "receipt", true},
      {"tenth launch", 9, "com.example.host", false, "receipt", true},
      {"eleventh launch", 10, "com.example.host", false, "receipt", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Probe probe(c.previousLaunches, c.bundleId, c.profile, c.receipt);
    probe.add(1);
    EXPECT_EQ(probe.posts().size(), c.uploads ? 1u : 0u);
  }
}

TEST_F(UploadQueueTest, ARecordThatCannotBeEncodedIsDroppedAndTheRestStillGoes) {
  ServerConfiguration update;
  update.errorReportingSampleRate = 1.0f;
  manager->remoteConfiguration().applyConfigurationUpdate(update);
  // Stored by hand: the queue never takes a date, but a damaged or older store may hold one.
  manager->userDefaultsProvider()->set(
      "orvane_log", PlistArray{PlistDictionary{{"ctx_8", "undated"}, {"ctx_9", Date{1.7e9}}}});
  add(1);  // in the first launches each record uploads the queue at once
  add(1);
  std::vector<std::string> sent;
  for (const auto& body : posts()) {
    for (const auto& event : body["events"]) sent.push_back(event["ctx_8"]);
  }
  EXPECT_EQ(sent, (std::vector<std::string>{"log-0", "log-1"}));
  EXPECT_TRUE(sender().mainQueue().empty());
  EXPECT_EQ(fake.log->countContaining("could not be written as JSON (first: undated)"), 1u);
  EXPECT_EQ(http->errorReportsMentioning("Upload dropped records that could not be encoded"), 1u);
}

TEST(StoredQueueTest, OnlyAnArrayOfMapsIsAQueue) {
  EXPECT_TRUE(readStoredQueue(std::nullopt).empty());
  EXPECT_TRUE(readStoredQueue(PlistValue("text")).empty());
  EXPECT_TRUE(readStoredQueue(PlistValue(PlistArray{PlistDictionary{}, PlistValue(1)})).empty());
  EXPECT_EQ(readStoredQueue(PlistValue(PlistArray{PlistDictionary{{"ctx_8", "a"}}})).size(), 1u);
}

}  // namespace
}  // namespace orvane

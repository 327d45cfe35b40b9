#include <gtest/gtest.h>

#include "generators/GeoIPSignalGenerator.h"
#include "logging/UploadQueueFixture.h"
#include "models/CoreMLModelManager.h"
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
  EXPECT_EQ(body["sdk_version"], "5.13.0");
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

TEST(StoredQueueTest, OnlyAnArrayOfMapsIsAQueue) {
  EXPECT_TRUE(readStoredQueue(std::nullopt).empty());
  EXPECT_TRUE(readStoredQueue(PlistValue("text")).empty());
  EXPECT_TRUE(readStoredQueue(PlistValue(PlistArray{PlistDictionary{}, PlistValue(1)})).empty());
  EXPECT_EQ(readStoredQueue(PlistValue(PlistArray{PlistDictionary{{"ctx_8", "a"}}})).size(), 1u);
}

}  // namespace
}  // namespace orvane

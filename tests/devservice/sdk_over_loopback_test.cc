// The SDK against the development service over real HTTP on loopback: failed uploads (an
// error status, a connection that breaks off) back off and lose nothing, an unreadable answer
// is reported and still accepted, and a model the service names is downloaded, compiled,
// applied and then decides the flow's next context.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "devservice/ServiceProcess.h"
#include "logging/OrvaneLogSender.h"
#include "models/ModelExecutionInformation.h"
#include "orvane/Context.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "testutil/DrainUploads.h"
#include "testutil/FakePlatform.h"
#include "testutil/Fixtures.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using devservice_testing::Service;
using devservice_testing::TempDir;
using nlohmann::json;

TEST(SdkOverLoopbackTest, BackoffRecoveryGarbageAnswerAndAModelUpdate) {
  TempDir dir;
  const std::filesystem::path payloadFile = dir.write("payload.json", "");
  Service service(std::vector<std::string>{"--faults", "500,timeout:0.3", "--payload",
                                           payloadFile.string(), "--models",
                                           testing::fixturePath("coreml"), "--time-limit", "120"});
  ASSERT_GT(service.port(), 0);
  const std::string base = "http://127.0.0.1:" + std::to_string(service.port());

  testing::FakePlatform fake;
  fake.platform.http = makeCurlHttpTransport();
  fake.random->scriptUniform({0.5});
  Engine manager(fake.platform, ContextManagerIsSupported::kSupported);
  manager.setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
  manager.setServiceBaseURLValue(base);
  OrvaneLogSender& sender = manager.orvaneLogSender();
  fake.application->becomeActive();
  testing::drainUploads(fake, sender);  // launch: the forced post meets the first 500

  auto context = ContextAccess::create(manager, {}, "upsell", {}, MethodUsed::kFetchContext, {});
  fake.advance(1);
  context->log(EventOutcome::kPositive);
  fake.drain();  // the record starts an upload inside the back-off: nothing is sent
  EXPECT_DOUBLE_EQ(sender.currentBackoffSeconds(), 30.5);
  ASSERT_EQ(sender.mainQueue().size(), 1u);

  fake.advance(31);
  sender.triggerUpload(UploadQueueKind::kMain, false);
  testing::drainUploads(fake, sender);  // the connection breaks off: the back-off grows
  EXPECT_DOUBLE_EQ(sender.currentBackoffSeconds(), 30.5 * 1.25);
  EXPECT_EQ(sender.mainQueue().size(), 1u);

  // The service recovers and names a model for the flow.
  const json payload = {{"updateData",
                         {{"version", 2},
                          {"configuration", {{"errorReportingSampleRate", 1.0}}},
                          {"modelInfoPerFlow",
                           {{"upsell",
                             {{"isControl", false},
                              {"modelUrl", base + "/models/upsell_signals.mlmodel"},
                              {"modelVersion", "upsell-demo-2024.06.1"},
                              {"upsellThreshold", 0.5},
                              {"randomUpsellChance", 0.0},
                              {"supportedDuration", 5},
                              {"useInstantContext", false}}}}}}}};
  dir.write("payload.json", payload.dump());
  fake.advance(60);
  sender.triggerUpload(UploadQueueKind::kMain, false);
  testing::drainUploads(fake, sender);  // accepted; the store downloads and applies the model
  EXPECT_EQ(sender.currentBackoffSeconds(), 0);
  EXPECT_TRUE(sender.mainQueue().empty());
  EXPECT_EQ(manager.userDefaultsProvider()->integer("ota_last_applied_version"), 2);

  auto decided = ContextAccess::create(manager, {SignalInt(SignalEnum::id(191), 5)}, "upsell", {},
                                       MethodUsed::kFetchContext, {});
  EXPECT_EQ(testing::signalValue<std::string>(decided->signals(), 18), "upsell-demo-2024.06.1");
  EXPECT_FALSE(ContextAccess::modelInfo(*decided).isControl);

  // An answer that is not a payload: reported to the service, the records still removed.
  dir.write("payload.json", "\xff not json");
  fake.advance(2);
  decided->log(EventOutcome::kNegative);
  fake.drain();
  sender.triggerUpload(UploadQueueKind::kMain, true);
  testing::drainUploads(fake, sender);
  EXPECT_TRUE(sender.mainQueue().empty());

  // Error reports go out on their own thread: give the report a moment to arrive.
  json stored = service.stored();
  for (int attempt = 0; attempt < 100 && stored["counts"]["error_reports"].get<int>() < 1;
       ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    stored = service.stored();
  }
  // Two failed posts of the launch batch and the retry, then the accepted ones; every
  // outcome reached the service.
  std::set<std::string> outcomes;
  for (const json& event : stored["events"]) {
    if (event.contains("outcome") && event["outcome"].is_number() && event["outcome"] != -101) {
      outcomes.insert(event["log_id"].get<std::string>());
    }
  }
  EXPECT_GE(outcomes.size(), 2u);
  EXPECT_GE(stored["counts"]["error_reports"].get<int>(), 1);
}

}  // namespace
}  // namespace orvane

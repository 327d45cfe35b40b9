#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "logging/OrvaneErrorReporting.h"
#include "models/ControlGrouper.h"
#include "orvane/Version.h"
#include "testutil/FakePlatform.h"
#include "testutil/RecordingHttpTransport.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

class ErrorReportingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake.platform.http = http;
    manager = std::make_unique<Engine>(fake.platform);
    manager->setServiceBaseURLValue("http://127.0.0.1:9/");
    manager->setupWith("APP-KEY-0123456789", nullptr, std::nullopt, Configuration{});
  }
  void setSampleRate(float rate) {
    ServerConfiguration update;
    update.errorReportingSampleRate = rate;
    manager->remoteConfiguration().applyConfigurationUpdate(update);
    fake.drain();
  }
  std::vector<nlohmann::json> sentBodies() {
    fake.drain();
    std::vector<nlohmann::json> out;
    for (const auto& r : http->requests()) out.push_back(nlohmann::json::parse(r.body));
    return out;
  }

  testing::FakePlatform fake;
  std::shared_ptr<testing::RecordingHttpTransport> http =
      std::make_shared<testing::RecordingHttpTransport>();
  std::unique_ptr<Engine> manager;
};

TEST_F(ErrorReportingTest, SendsOneJsonRequestPerReport) {
  setSampleRate(1.0f);
  manager->userDefaultsProvider()->set("ota_last_applied_version", int64_t{42});
  manager->orvaneErrorReporting().reportError(
      "Failed to parse V3 JSON returned by server.",
      PlatformError{kDecodingErrorDomain, 4864, "The data couldn't be read."}, false,
      PlistDictionary{{"serverData", "{oops"}});
  EXPECT_TRUE(http->requests().empty()) << "sending waits for the reporting queue";
  const auto bodies = sentBodies();
  ASSERT_EQ(bodies.size(), 1u);
  const auto request = http->requests()[0];
  EXPECT_EQ(request.url, "http://127.0.0.1:9/v2/error-reporting");
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.timeoutSeconds, 60);
  EXPECT_EQ(
      request.headers,
      (std::vector<std::pair<std::string, std::string>>{{"Content-Type", "application/json"}}));
  const nlohmann::json expected = {{"message", "Failed to parse V3 JSON returned by server."},
                                   {"bundle_id", "com.example.host"},
                                   {"license_key", "APP-KEY-0123456789"},
                                   {"sdk_version", ORVANE_VERSION_STRING},
                                   {"last_ota_update", 42},
                                   {"installation_uuid", manager->installationUUID()},
                                   {"severity", "error"},
                                   {"payload",
                                    {{"err", "The data couldn't be read."},
                                     {"err_domain", "DecodingError"},
                                     {"err_code", 4864},
                                     {"serverData", "{oops"}}}};
  EXPECT_EQ(bodies[0], expected);

  // Without an error the details are null.
  manager->userDefaultsProvider()->remove("ota_last_applied_version");
  manager->orvaneErrorReporting().reportError("Something failed");
  const auto second = sentBodies().back();
  EXPECT_EQ(second["payload"],
            (nlohmann::json{{"err", nullptr}, {"err_domain", nullptr}, {"err_code", nullptr}}));
  EXPECT_EQ(second["last_ota_update"], 0);
}

TEST_F(ErrorReportingTest, EchoedServerDataAndLongTextsAreCut) {
  setSampleRate(1.0f);
  const std::string answer(size_t{52} << 20, '{');
  manager->orvaneErrorReporting().reportError(
      "Failed to parse V3 JSON returned by server.",
      PlatformError{kDecodingErrorDomain, 0, std::string(10000, 'e')}, false,
      PlistDictionary{{"serverData", answer}, {"flowName", "upsell"}});
  const auto bodies = sentBodies();
  ASSERT_EQ(bodies.size(), 1u);
  EXPECT_LT(http->requests()[0].body.size(), size_t{12} * 1024);
  const auto& payload = bodies[0]["payload"];
  const std::string serverData = payload["serverData"];
  EXPECT_LE(serverData.size(), 4096u);
  EXPECT_EQ(serverData.rfind("{{{{", 0), 0u);
  EXPECT_NE(serverData.find(std::to_string(answer.size()) + " bytes"), std::string::npos);
  EXPECT_LE(payload["err"].get<std::string>().size(), 4096u);
  EXPECT_EQ(payload["flowName"], "upsell");
}

TEST_F(ErrorReportingTest, HostSwitchAndSamplingDecide) {
  OrvaneErrorReporting& reporting = manager->orvaneErrorReporting();
  setSampleRate(1.0f);
  EXPECT_TRUE(reporting.shouldReportError(false));
  setSampleRate(0.0f);
  EXPECT_FALSE(reporting.shouldReportError(false));
  EXPECT_TRUE(reporting.shouldReportError(true));

  setSampleRate(0.5f);
  const bool drawn = ControlGrouper::getGroupAssignment<bool>(
      *fake.platform.crypto, manager->installationUUID(), "error_reporting",
      std::vector<ControlGroup<bool>>{{true, 0.5}, {false, 1.0}});
  EXPECT_EQ(reporting.shouldReportError(false), drawn);

  Configuration off;
  off.enableErrorReporting = false;
  manager->setupWith("APP-KEY-0123456789", nullptr, std::nullopt, off);
  setSampleRate(1.0f);
  EXPECT_FALSE(reporting.shouldReportError(false));
  EXPECT_FALSE(reporting.shouldReportError(true));
  reporting.reportError("never sent");
  EXPECT_TRUE(sentBodies().empty());
}

TEST_F(ErrorReportingTest, TransientFailuresAreNeverReported) {
  struct Case {
    const char* domain;
    int64_t code;
    bool skipped;
  };
  const Case cases[] = {{kUrlErrorDomain, -1001, true},      {kUrlErrorDomain, -1003, true},
                        {kUrlErrorDomain, -1005, true},      {kUrlErrorDomain, -1004, false},
                        {kPosixErrorDomain, 50, true},       {kPosixErrorDomain, 52, true},
                        {kPosixErrorDomain, 53, true},       {kPosixErrorDomain, 54, true},
                        {kPosixErrorDomain, 60, true},       {kPosixErrorDomain, 61, false},
                        {"CoreMLModelManager", 123, true},   {"CoreMLModelManager", 1, false},
                        {kDecodingErrorDomain, -1001, false}};
  for (const auto& c : cases) {
    EXPECT_EQ(OrvaneErrorReporting::shouldSkipError(PlatformError{c.domain, c.code, ""}), c.skipped)
        << c.domain << " " << c.code;
  }
  EXPECT_FALSE(OrvaneErrorReporting::shouldSkipError(std::nullopt));

  setSampleRate(1.0f);
  manager->orvaneErrorReporting().reportError("timed out",
                                              PlatformError{kUrlErrorDomain, -1001, "t"});
  EXPECT_TRUE(sentBodies().empty());
}

TEST_F(ErrorReportingTest, UnencodableDataAndBadURLsSendNothing) {
  setSampleRate(1.0f);
  manager->orvaneErrorReporting().reportError("bytes", PlistDictionary{{"raw", Bytes{1, 2}}});
  EXPECT_TRUE(sentBodies().empty());
  EXPECT_EQ(fake.log->countContaining("[Orvane] Failed to send error to backend."), 1u);
  EXPECT_EQ(fake.log->countContaining("The value is not encodable"), 1u);

  manager->setServiceBaseURLValue("not a url");
  manager->orvaneErrorReporting().reportError("anything");
  EXPECT_TRUE(sentBodies().empty());
}

}  // namespace
}  // namespace orvane

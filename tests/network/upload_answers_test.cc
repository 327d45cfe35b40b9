// The SDK against a service whose answers are too large or unreadable: an oversized answer is
// a failed upload (records kept, back-off), and an unreadable one echoed into an error report
// is cut to 4 KiB there.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <mutex>
#include <thread>

#include "api/ContextAccess.h"
#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "logging/OrvaneLogSender.h"
#include "network/LoopbackServers.h"
#include "orvane/Context.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using testing::RawExchange;

// Answers uploads with whatever `answerUpload` writes; keeps the error reports it receives.
class FaultyService {
 public:
  std::function<void(RawExchange&)> answerUpload;

  std::string url() const { return server_.url(""); }
  std::vector<std::string> reports() {
    std::lock_guard<std::mutex> guard(mutex_);
    return reports_;
  }
  // Error reports are sent from the reporting queue on the transport's threads: drains the
  // queues and waits a little for `count` of them.
  std::vector<std::string> waitForReports(testing::FakePlatform& fake, size_t count) {
    for (int i = 0; i < 200 && reports().size() < count; ++i) {
      fake.drain();
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return reports();
  }

 private:
  void handle(RawExchange& exchange) {
    if (exchange.path == "/v2/error-reporting") {
      std::lock_guard<std::mutex> guard(mutex_);
      reports_.push_back(exchange.body);
      exchange.write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    } else if (answerUpload) {
      answerUpload(exchange);
    }
  }

  std::mutex mutex_;
  std::vector<std::string> reports_;
  testing::RawServer server_{[this](RawExchange& exchange) { handle(exchange); }};
};

TEST(UploadAnswersTest, OversizedAnswersFailTheUploadAndUnreadableOnesAreReportedInBrief) {
  FaultyService service;
  testing::FakePlatform fake;
  fake.platform.http = makeCurlHttpTransport();
  fake.random->scriptUniform({0.5});
  Engine manager(fake.platform, ContextManagerIsSupported::kSupported);
  manager.setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
  manager.setServiceBaseURLValue(service.url());
  ServerConfiguration reportEverything;
  reportEverything.errorReportingSampleRate = 1.0f;
  manager.remoteConfiguration().applyConfigurationUpdate(reportEverything);
  OrvaneLogSender& sender = manager.orvaneLogSender();

  // A gzip bomb answers the launch's upload: a failed attempt like any other, so the sender
  // backs off and a record made meanwhile waits.
  service.answerUpload = [](RawExchange& exchange) { testing::streamZeros(exchange, 1024, true); };
  fake.application->becomeActive();
  fake.drain();
  EXPECT_DOUBLE_EQ(sender.currentBackoffSeconds(), 30.5);
  auto context = ContextAccess::create(manager, {}, "upsell", {}, MethodUsed::kFetchContext, {});
  fake.advance(1);
  context->log(EventOutcome::kPositive);
  fake.drain();
  ASSERT_EQ(sender.mainQueue().size(), 1u);

  // An accepted upload whose answer is 900 KB of something that is not a payload: the records
  // are gone, and the report echoes 4 KiB of it.
  const size_t answerBytes = 900 * 1024;
  service.answerUpload = [&](RawExchange& exchange) {
    exchange.write("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(answerBytes) +
                   "\r\nConnection: close\r\n\r\n" + std::string(answerBytes, '<'));
  };
  fake.advance(31);
  sender.triggerUpload(UploadQueueKind::kMain, false);
  fake.drain();
  EXPECT_TRUE(sender.mainQueue().empty());
  EXPECT_EQ(sender.currentBackoffSeconds(), 0);

  const auto reports = service.waitForReports(fake, 1);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_LT(reports[0].size(), size_t{8} * 1024);
  const auto report = nlohmann::json::parse(reports[0]);
  const std::string serverData = report["payload"]["serverData"];
  EXPECT_LE(serverData.size(), 4096u);
  EXPECT_NE(serverData.find(std::to_string(answerBytes) + " bytes"), std::string::npos);
}

}  // namespace
}  // namespace orvane

// Uploads over real HTTP against services that refuse: bodies over a size get 413, and a port
// accepts the connection and never answers while records keep being added. (The Retry-After
// floor is the logging suite's; response headers through curl, the network suite's.)
#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <set>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "devservice/ServiceProcess.h"
#include "devservice/SilentServer.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneLogSender.h"
#include "network/LoopbackServers.h"
#include "orvane/Log.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "testutil/DrainUploads.h"
#include "testutil/FakePlatform.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using nlohmann::json;

// A service on loopback run by the test's own handlers.
using LoopbackService = testing::LoopbackServer<httplib::Server>;

std::shared_ptr<Log> outcomeLog(Engine& manager, const std::string& id) {
  return makeEngineLog(
      SignalList{SignalInt(SignalEnum::id(3), 1), SignalString(SignalEnum::id(8), id)},
      CustomSignalList{}, CustomSignalList{}, CustomSignalList{}, Bytes{}, manager.weakHandle());
}

std::vector<std::string> eventIds(const std::string& body) {
  const json upload = json::parse(body);
  std::vector<std::string> ids;
  for (const json& event : upload["events"]) ids.push_back(event["ctx_8"]);
  return ids;
}

// An engine of an established app (uploads wait for a batch, a trigger or a flush) whose
// uploads go over curl to `url`.
class OverLoopback {
 public:
  explicit OverLoopback(const std::string& url) {
    fake.platform.http = makeCurlHttpTransport();
    fake.random->scriptUniform({0.5});
    PlistArray launches(19, PlistValue(Date{1.6e9}));
    fake.platform.keyValueStores->openSuite("com.orvane.ads")
        ->set("app_launches", PlistDictionary{{"2020-09-13", launches}});
    manager = std::make_unique<Engine>(fake.platform);
    manager->setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
    manager->setServiceBaseURLValue(url);
    ServerConfiguration update;
    update.errorReportingSampleRate = 1.0f;
    manager->remoteConfiguration().applyConfigurationUpdate(update);
    fake.application->becomeActive();
    testing::drainUploads(fake, sender());
  }
  OrvaneLogSender& sender() { return manager->orvaneLogSender(); }
  void add(const std::string& id) {
    outcomeLog(*manager, id)->send();
    fake.drain();
  }
  void upload(bool force) {
    sender().triggerUpload(UploadQueueKind::kMain, force);
    testing::drainUploads(fake, sender());
  }

  testing::FakePlatform fake;
  std::unique_ptr<Engine> manager;
};

TEST(UploadFaultsOverLoopbackTest, ATwoMegabyteRecordIsDroppedAndTheSmallOnesGetThrough) {
  constexpr size_t kLimit = 1 << 20;
  LoopbackService service;
  std::mutex mutex;
  std::vector<std::string> accepted;
  std::vector<json> reports;
  int refusals = 0;
  service.server().Post(OrvaneLogSender::kPath.data(),
                        [&](const httplib::Request& request, httplib::Response& response) {
                          std::lock_guard<std::mutex> guard(mutex);
                          if (request.body.size() > kLimit) {
                            ++refusals;
                            response.status = 413;
                            return;
                          }
                          for (auto& id : eventIds(request.body)) accepted.push_back(id);
                          response.status = 200;
                        });
  service.server().Post("/v2/error-reporting",
                        [&](const httplib::Request& request, httplib::Response& response) {
                          std::lock_guard<std::mutex> guard(mutex);
                          reports.push_back(json::parse(request.body));
                          response.status = 200;
                        });
  OverLoopback host(service.url(""));
  for (int i = 0; i < 6; ++i) host.add("small-" + std::to_string(i));
  auto defaults = host.manager->userDefaultsProvider();
  PlistArray queue = *defaults->array("orvane_log");
  queue.insert(queue.begin() + 3,
               PlistValue(PlistDictionary{{"ctx_8", "big"}, {"blob", std::string(2 << 20, 'x')}}));
  defaults->set("orvane_log", queue);
  for (int i = 6; i < 10; ++i) host.add("small-" + std::to_string(i));

  host.upload(true);
  EXPECT_TRUE(host.sender().mainQueue().empty());
  EXPECT_EQ(host.sender().currentBackoffSeconds(), 0);
  for (int attempt = 0; attempt < 200; ++attempt) {
    host.fake.drain();  // the report is sent from the reporting queue
    std::lock_guard<std::mutex> guard(mutex);
    if (!reports.empty()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::lock_guard<std::mutex> guard(mutex);
  std::vector<std::string> expected;
  for (int i = 0; i < 10; ++i) expected.push_back("small-" + std::to_string(i));
  EXPECT_EQ(accepted, expected);
  EXPECT_GE(refusals, 2);  // the whole batch, then each part holding the big record
  EXPECT_EQ(host.fake.log->countContaining("refused log big as too large"), 1u);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0]["message"], "Upload refused a record as too large; dropped it");
  EXPECT_EQ(reports[0]["payload"]["log_id"], "big");
  EXPECT_GT(reports[0]["payload"]["size"].get<int64_t>(), 2 << 20);
}

TEST(UploadFaultsOverLoopbackTest, EachRecordIsStoredWithinHalfASecondWhileAnUploadHangs) {
  auto service = std::make_unique<devservice_testing::SilentServer>();
  testing::FakePlatform fake;
  auto executors = makeThreadExecutors();
  auto application =
      std::make_shared<HostApplicationService>(executors->mainQueue(), ApplicationState::kInactive);
  fake.platform.executors = executors;
  fake.platform.application = application;
  fake.platform.http = makeCurlHttpTransport();
  auto manager = std::make_unique<Engine>(fake.platform);
  manager->setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, Configuration{});
  manager->setServiceBaseURLValue(service->url());
  application->becomeActive();
  OrvaneLogSender& sender = manager->orvaneLogSender();

  // A new installation uploads after every record, so an upload is waiting all along. The
  // store is the in-memory one: this measures the sender's queue, not the disk (the kill test
  // reads the disk).
  std::chrono::duration<double> slowest{0};
  for (int i = 0; i < 40; ++i) {
    const std::string id = "log-" + std::to_string(i);
    const auto start = std::chrono::steady_clock::now();
    outcomeLog(*manager, id)->send();
    std::promise<void> written;
    sender.onQueue([&written] { written.set_value(); });  // behind the record's write
    ASSERT_EQ(written.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
    slowest =
        std::max<std::chrono::duration<double>>(slowest, std::chrono::steady_clock::now() - start);
    const auto queue = sender.mainQueue();
    ASSERT_EQ(queue.size(), static_cast<size_t>(i + 1));
    EXPECT_EQ(queue.back().at("ctx_8"), PlistValue(id));
    EXPECT_EQ(sender.recordsWaitingInMemory(), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_LT(slowest.count(), 0.5);
  EXPECT_TRUE(sender.uploadInFlight());
  EXPECT_GE(service->connections(), 1);

  // The engine goes away with the upload still waiting, at once.
  const auto start = std::chrono::steady_clock::now();
  manager.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  service.reset();  // lets the transport's worker go
}

}  // namespace
}  // namespace orvane

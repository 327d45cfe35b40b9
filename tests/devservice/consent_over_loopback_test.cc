// Consent, erase and flush with the suite on disk and the development service on loopback:
// without consent nothing reaches the service or the data folder; once granted, records flow;
// revoking and erasing leave no record on disk, and an erase makes the next start a new
// installation, also while an upload waits; flush keeps to its timeout against a working and a
// hanging service.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <limits>
#include <thread>

#include "api/Engine.h"
#include "config/RemoteConfiguration.h"
#include "devservice/ServiceProcess.h"
#include "devservice/SilentServer.h"
#include "logging/LogDictionaries.h"
#include "logging/OrvaneLogSender.h"
#include "orvane/Log.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "testutil/FakePlatform.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {
namespace {

using devservice_testing::Service;
using devservice_testing::TempDir;
using nlohmann::json;

constexpr const char* kSuite = "com.orvane.ads";

// A host on real threads, curl and a suite in `data`, set up at once.
class DiskHost {
 public:
  DiskHost(const std::filesystem::path& data, const std::string& url, bool requireConsent) {
    auto executors = makeThreadExecutors();
    application_ = std::make_shared<HostApplicationService>(executors->mainQueue(),
                                                            ApplicationState::kInactive);
    fake.platform.executors = executors;
    fake.platform.application = application_;
    fake.platform.http = makeCurlHttpTransport();
    fake.platform.keyValueStores = makeSqliteKeyValueStoreProvider(data.string());
    manager = std::make_unique<Engine>(fake.platform);
    Configuration configuration;
    configuration.requireConsent = requireConsent;
    manager->setupWith("KEY-0123456789abcdef", nullptr, std::nullopt, configuration);
    manager->setServiceBaseURLValue(url);
    application_->becomeActive();
  }

  // An outcome record, handed over and written (or dropped) before this returns.
  void log(const std::string& id) {
    makeEngineLog(SignalList{SignalInt(SignalEnum::id(3), 1), SignalString(SignalEnum::id(8), id)},
                  CustomSignalList{}, CustomSignalList{}, CustomSignalList{}, Bytes{},
                  manager->weakHandle())
        ->send();
    settle();
  }
  // Everything queued on the sender so far has run.
  void settle() {
    std::promise<void> done;
    manager->orvaneLogSender().onQueue([&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  }
  std::string installation() { return manager->installationUUID(); }

  testing::FakePlatform fake;
  std::unique_ptr<Engine> manager;

 private:
  std::shared_ptr<HostApplicationService> application_;
};

// The suite as a later launch finds it on disk.
std::shared_ptr<KeyValueStore> suiteOnDisk(const std::filesystem::path& data) {
  return makeSqliteKeyValueStoreProvider(data.string())->openSuite(kSuite);
}

size_t recordsOnDisk(const std::filesystem::path& data) {
  const auto suite = suiteOnDisk(data);
  size_t records = 0;
  for (std::string_view key :
       {OrvaneLogSender::kMainQueueKey, OrvaneLogSender::kUnloggedQueueKey}) {
    if (auto queue = suite->get(key); queue && queue->asArray())
      records += queue->asArray()->size();
  }
  return records;
}

int uploadsReceived(const Service& service) { return service.stored()["counts"]["uploads"]; }

std::set<std::string> receivedLogIds(const Service& service) {
  const json stored = service.stored();
  std::set<std::string> received;
  for (const json& event : stored["events"]) {
    if (event.contains("log_id") && event["log_id"].is_string()) {
      received.insert(event["log_id"].get<std::string>());
    }
  }
  return received;
}

TEST(ConsentOverLoopbackTest, NothingLeavesOrStaysWithoutConsentAndRecordsFlowOnceGranted) {
  TempDir dir;
  const auto data = dir.path() / "data";
  Service service(std::vector<std::string>{"--time-limit", "120"});
  ASSERT_GT(service.port(), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(service.port());

  {
    DiskHost host(data, url, true);
    for (int i = 0; i < 3; ++i) host.log("before-" + std::to_string(i));
    host.manager->orvaneLogSender().triggerUpload(UploadQueueKind::kMain, true);
    EXPECT_TRUE(host.manager->flush(2));
    EXPECT_TRUE(host.manager->orvaneLogSender().mainQueue().empty());
  }
  EXPECT_EQ(uploadsReceived(service), 0);
  EXPECT_EQ(recordsOnDisk(data), 0u);

  // The next launch remembers that consent is required and writes nothing until it is granted.
  const std::vector<std::string> keysBefore = suiteOnDisk(data)->keys();
  {
    DiskHost host(data, url, true);
    host.log("still-waiting");
    EXPECT_EQ(suiteOnDisk(data)->keys(), keysBefore);
    host.manager->setConsent(ConsentState::kGranted);
    host.log("granted-0");
    host.log("granted-1");
    EXPECT_TRUE(host.manager->flush(10));
  }
  EXPECT_GT(suiteOnDisk(data)->keys().size(), keysBefore.size());
  EXPECT_EQ(receivedLogIds(service), (std::set<std::string>{"granted-0", "granted-1"}));

  // Revoking deletes what waits, at once, and stops the traffic.
  {
    DiskHost host(data, url, true);
    EXPECT_EQ(host.manager->consent(), ConsentState::kGranted);
    host.manager->setServiceBaseURLValue("http://127.0.0.1:9");  // the record stays queued
    host.log("queued-0");
    ASSERT_EQ(host.manager->orvaneLogSender().mainQueue().size(), 1u);
    host.manager->setServiceBaseURLValue(url);
    host.manager->setConsent(ConsentState::kDenied);
    host.settle();
    host.log("after-denial");
    EXPECT_TRUE(host.manager->orvaneLogSender().mainQueue().empty());
    host.manager->flush(1);
  }
  EXPECT_EQ(recordsOnDisk(data), 0u);
  EXPECT_EQ(receivedLogIds(service), (std::set<std::string>{"granted-0", "granted-1"}));
}

TEST(ConsentOverLoopbackTest, AFirstLaunchThatRequiresConsentLeavesOnlyTheConsentOnDisk) {
  TempDir dir;
  const auto data = dir.path() / "data";
  {
    DiskHost host(data, "http://127.0.0.1:9", true);
    // The launch is still counted, in memory.
    EXPECT_TRUE(host.manager->userDefaultsProvider()->object("app_launches"));
    EXPECT_EQ(host.fake.log->countContaining("Consent is required and not granted"), 1u);
    EXPECT_EQ(host.fake.log->countContaining("queued records deleted"), 0u);
  }
  EXPECT_EQ(suiteOnDisk(data)->keys(), std::vector<std::string>{"orvane_consent_required"});
}

TEST(ConsentOverLoopbackTest, AnEraseRemovesRecordsAndIdentityButKeepsTheConsent) {
  TempDir dir;
  const auto data = dir.path() / "data";
  std::string erasedInstallation;
  {
    DiskHost host(data, "http://127.0.0.1:9", false);
    erasedInstallation = host.installation();
    host.log("kept-until-erased");
    host.manager->setConsent(ConsentState::kGranted);
    host.manager->resetAllData();
    host.settle();
    EXPECT_TRUE(host.manager->orvaneLogSender().mainQueue().empty());
    EXPECT_NE(host.installation(), erasedInstallation);
  }
  EXPECT_EQ(recordsOnDisk(data), 0u);
  EXPECT_NE(suiteOnDisk(data)->get("orvane_installation_uuid"), PlistValue(erasedInstallation));
  DiskHost next(data, "http://127.0.0.1:9", false);
  EXPECT_NE(next.installation(), erasedInstallation);
  EXPECT_EQ(next.manager->consent(), ConsentState::kGranted);
}

// A service answer with state for `flow`: a geo-IP estimate, settings, a control model and
// timing rules, at update `version`.
std::string answerFor(const std::string& flow, int version, bool withGeoIP) {
  json answer = {
      {"updateData",
       {{"version", version},
        {"configuration", {{"errorReportingSampleRate", 0.25 * version}}},
        {"modelInfoPerFlow",
         {{flow,
           {{"isControl", true},
            {"upsellThreshold", 0.5},
            {"timingConfiguration", {{"atMostOncePer", {{"unit", "hours"}, {"value", 1}}}}}}}}}}}};
  if (withGeoIP) answer["geoIpData"] = {{"estimatedCountryCode", "XX"}};
  return answer.dump();
}

template <typename Condition>
bool waitUntil(Condition condition, double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

TEST(ConsentOverLoopbackTest, AnAnswerAskedForBeforeAnEraseIsNotAppliedAfterIt) {
  TempDir dir;
  const auto data = dir.path() / "data";
  const auto payload = dir.write("payload.json", answerFor("erased", 1, true));
  // The launch upload's answer comes 3 s late; later ones at once.
  Service service(std::vector<std::string>{"--time-limit", "120", "--payload", payload.string(),
                                           "--faults", "200:3"});
  ASSERT_GT(service.port(), 0);
  {
    DiskHost host(data, "http://127.0.0.1:" + std::to_string(service.port()), false);
    OrvaneLogSender& sender = host.manager->orvaneLogSender();
    ASSERT_TRUE(waitUntil([&] { return sender.uploadInFlight(); }, 5));
    host.manager->resetAllData();
    ASSERT_TRUE(waitUntil([&] { return !sender.uploadInFlight(); }, 10));
    ASSERT_EQ(uploadsReceived(service), 1);

    // An upload of the new installation is answered and applied as usual; the model store
    // applies in order, so the late answer's update, had it gone there, came first.
    dir.write("payload.json", answerFor("fresh", 2, false));
    host.log("after-erase");
    EXPECT_TRUE(host.manager->flush(10));
    const auto& defaults = host.manager->userDefaultsProvider();
    EXPECT_TRUE(waitUntil([&] { return defaults->integer("ota_last_applied_version") == 2; }, 10));
    EXPECT_NE(host.manager->remoteConfiguration().getConfiguration().errorReportingSampleRate,
              0.25);
  }
  const auto suite = suiteOnDisk(data);
  EXPECT_FALSE(suite->get("gip_latest_data"));
  EXPECT_FALSE(suite->get("model_info_for_flow_erased"));
  EXPECT_TRUE(suite->get("model_info_for_flow_fresh"));
}

// The files of the data folder that hold `text` anywhere in their bytes.
std::vector<std::string> filesHolding(const std::filesystem::path& data, const std::string& text) {
  std::vector<std::string> holding;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(data)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (bytes.find(text) != std::string::npos) holding.push_back(entry.path().filename());
  }
  return holding;
}

TEST(ConsentOverLoopbackTest, ErasedRecordsAndIdentityAreGoneFromEveryByteOfTheFiles) {
  TempDir dir;
  const auto data = dir.path() / "data";
  const std::string logId = "log-id-to-be-forgotten";
  {
    DiskHost host(data, "http://127.0.0.1:9", false);
    const std::string erasedInstallation = host.installation();
    host.log(logId);
    ASSERT_TRUE(host.manager->userDefaultsProvider()->synchronize());
    // Meaningful only if both are in the files before.
    ASSERT_FALSE(filesHolding(data, logId).empty());
    ASSERT_FALSE(filesHolding(data, erasedInstallation).empty());

    host.manager->resetAllData();
    host.settle();
    ASSERT_TRUE(host.manager->userDefaultsProvider()->synchronize());
    EXPECT_EQ(filesHolding(data, logId), std::vector<std::string>{});
    EXPECT_EQ(filesHolding(data, erasedInstallation), std::vector<std::string>{});
  }
  EXPECT_EQ(filesHolding(data, logId), std::vector<std::string>{});

  // A denial deletes the queues the same way.
  DiskHost host(data, "http://127.0.0.1:9", false);
  host.log(logId);
  ASSERT_TRUE(host.manager->userDefaultsProvider()->synchronize());
  ASSERT_FALSE(filesHolding(data, logId).empty());
  host.manager->setConsent(ConsentState::kDenied);
  host.settle();
  ASSERT_TRUE(host.manager->userDefaultsProvider()->synchronize());
  EXPECT_EQ(filesHolding(data, logId), std::vector<std::string>{});
}

TEST(ConsentOverLoopbackTest, FlushEmptiesTheQueueInTimeOrGivesUpAtItsTimeout) {
  TempDir dir;
  Service service(std::vector<std::string>{"--time-limit", "120"});
  ASSERT_GT(service.port(), 0);
  {
    DiskHost host(dir.path() / "working", "http://127.0.0.1:9", false);
    for (int i = 0; i < 5; ++i) host.log("flushed-" + std::to_string(i));
    host.manager->setServiceBaseURLValue("http://127.0.0.1:" + std::to_string(service.port()));
    EXPECT_TRUE(host.manager->flush(10));
    EXPECT_TRUE(host.manager->orvaneLogSender().mainQueue().empty());
  }
  DiskHost host(dir.path() / "hanging", "http://127.0.0.1:9", false);
  // Goes first, so that the transport's worker is let go at once.
  devservice_testing::SilentServer silent;
  host.log("stuck");
  host.manager->setServiceBaseURLValue(silent.url());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(host.manager->flush(1));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_LT(took.count(), 1.5);
  EXPECT_EQ(host.manager->orvaneLogSender().mainQueue().size(), 1u);

  // An erase while that upload still waits for its answer.
  ASSERT_TRUE(host.manager->orvaneLogSender().uploadInFlight());
  host.manager->resetAllData();
  host.settle();
  EXPECT_TRUE(host.manager->orvaneLogSender().mainQueue().empty());
  EXPECT_EQ(recordsOnDisk(dir.path() / "hanging"), 0u);
}

TEST(ConsentOverLoopbackTest, FlushAndShutdownWithHugeTimeoutsWaitForTheAnswer) {
  TempDir dir;
  Service service(std::vector<std::string>{"--time-limit", "120", "--faults", "200:1,200:1"});
  ASSERT_GT(service.port(), 0);
  DiskHost host(dir.path() / "data", "http://127.0.0.1:9", false);
  host.manager->setServiceBaseURLValue("http://127.0.0.1:" + std::to_string(service.port()));
  host.log("flushed");
  EXPECT_TRUE(host.manager->flush(std::numeric_limits<double>::infinity()));
  host.log("shut-down");
  EXPECT_TRUE(host.manager->shutdown(1e10));
  EXPECT_EQ(receivedLogIds(service), (std::set<std::string>{"flushed", "shut-down"}));
}

}  // namespace
}  // namespace orvane

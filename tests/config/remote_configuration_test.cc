#include "config/RemoteConfiguration.h"

#include <atomic>
#include <bit>
#include <random>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using testing::RecordingErrorReporter;

constexpr std::string_view kKey = "remote_config_latest_data";

class RemoteConfigurationTest : public ::testing::Test {
 protected:
  std::unique_ptr<RemoteConfiguration> make(std::shared_ptr<UserDefaultsProvider> defaults,
                                            RecordingErrorReporter& reporter) {
    return std::make_unique<RemoteConfiguration>(
        std::move(defaults), [&reporter]() -> ErrorReporter& { return reporter; }, queue);
  }
  std::unique_ptr<RemoteConfiguration> make() { return make(defaults, reporter); }
  void apply(RemoteConfiguration& config, std::optional<ServerConfiguration> update) {
    config.applyConfigurationUpdate(std::move(update));
    fake.drain();
  }

  testing::FakePlatform fake;
  std::shared_ptr<UserDefaultsProvider> defaults = std::make_shared<UserDefaultsProvider>(
      fake.platform.keyValueStores->openSuite("com.orvane.ads"));
  std::shared_ptr<SerialQueue> queue = fake.executors->makeSerialQueue("remote-config");
  RecordingErrorReporter reporter;
};

// The built-in defaults, spelled out independently of the code that builds them.
const std::vector<uint16_t> kGolden{219, 958, 217, 982, 218, 215, 971, 101,
                                    216, 120, 970, 113, 125, 984, 972};
const std::vector<std::string> kActivities{"couch", "pocket"};
const ConfigurationData kDefaults{20, 0.05f, 0.001f,      30,      kGolden,
                                  3,  false, kActivities, "0.0.5", std::nullopt};

TEST_F(RemoteConfigurationTest, PartialUpdateIsMergedWithDefaultsStoredAndSurvivesRestart) {
  auto config = make();
  EXPECT_EQ(config->getConfiguration(), kDefaults);
  EXPECT_EQ(RemoteConfiguration::getDefaultConfiguration(), kDefaults);
  ServerConfiguration update;
  update.goldenSignalsDurationSeconds = 10;
  config->applyConfigurationUpdate(update);
  EXPECT_EQ(config->getConfiguration(), kDefaults);  // nothing changes until the queue runs
  fake.drain();

  ConfigurationData expected = kDefaults;
  expected.goldenSignalsDurationSeconds = 10;
  EXPECT_EQ(config->getConfiguration(), expected);
  EXPECT_EQ(make()->getConfiguration(), expected);  // a fresh process over the same store
  // Stored with camel-case keys, and floats as their shortest decimal.
  const Bytes bytes = *defaults->data(kKey);
  const std::string stored(bytes.begin(), bytes.end());
  EXPECT_NE(stored.find(R"("errorReportingSampleRate":0.001,)"), std::string::npos) << stored;
  EXPECT_NE(stored.find(R"("goldenSignalsDurationSeconds":10,)"), std::string::npos);

  // No settings at all in a later update go back to the defaults.
  apply(*config, std::nullopt);
  EXPECT_EQ(make()->getConfiguration(), kDefaults);

  // An update queued by an object that is gone still lands.
  update.errorReportingSampleRate = 0.5f;
  make()->applyConfigurationUpdate(update);
  fake.drain();
  EXPECT_EQ(make()->getConfiguration().errorReportingSampleRate, 0.5f);

  // Without a store updates do nothing.
  update.activityTaggerVersion = "bad";
  auto storeless = make(std::make_shared<UserDefaultsProvider>(nullptr), reporter);
  apply(*storeless, update);
  EXPECT_EQ(storeless->getConfiguration(), kDefaults);
  EXPECT_TRUE(reporter.reports().empty());
}

TEST_F(RemoteConfigurationTest, ASuiteThatOpensLateGivesItsStoredConfiguration) {
  ServerConfiguration update;
  update.goldenSignalsDurationSeconds = 10;
  apply(*make(), update);
  testing::LateKeyValueStoreProvider late;
  auto config = make(UserDefaultsProvider::open(&late, "com.orvane.ads"), reporter);
  EXPECT_EQ(config->getConfiguration(), kDefaults);
  late.open(fake.platform.keyValueStores->openSuite("com.orvane.ads"));
  EXPECT_EQ(config->getConfiguration().goldenSignalsDurationSeconds, 10);
}

TEST_F(RemoteConfigurationTest, TaggerVersionIsCheckedButAlwaysStored) {
  for (const std::string version : {"1.2.3", "1", "1.x", "1.2."}) {
    RecordingErrorReporter fresh;
    ServerConfiguration update;
    update.activityTaggerVersion = version;
    apply(*make(defaults, fresh), update);
    EXPECT_EQ(make()->getConfiguration().activityTaggerVersion, version);
    const auto reports = fresh.reports();
    ASSERT_EQ(reports.size(), version == "1.2.3" ? 0u : 1u) << version;
    if (reports.empty()) continue;
    EXPECT_EQ(reports[0].message, "Invalid activityTaggerVersion format received from server");
    EXPECT_EQ(reports[0].additionalData, (PlistDictionary{{"activityTaggerVersion", version}}));
  }
  // The check agrees with the regular expression, and does not backtrack on long input.
  const std::regex pattern(R"(^\d+(\.\d+)+$)");
  for (const std::string text :
       {"1.2.3", "1", "1.x", "1.2.", "", ".", "1.", ".1", "01.002", "1.2.3.4.5", "1.2\n", " 1.2",
        "1.2 ", "1,2", "a.b", "1.-2", "12345678901234567890.1"}) {
    EXPECT_EQ(isValidActivityTaggerVersion(text), std::regex_search(text, pattern)) << text;
  }
  std::string longVersion = "1";
  for (int i = 0; i < 200000; ++i) longVersion += ".1";
  EXPECT_TRUE(isValidActivityTaggerVersion(longVersion));
}

TEST_F(RemoteConfigurationTest, UnknownActivitiesAreSkippedAndReported) {
  auto config = make();
  ServerConfiguration update;
  update.activities = std::vector<std::string>{"couch", "unknownThing", "pocket"};
  apply(*config, update);
  EXPECT_EQ(config->parsedActivities(),
            (std::vector<ActivityType>{ActivityType::kCouch, ActivityType::kPocket}));
  ASSERT_EQ(reporter.reports().size(), 1u);
  EXPECT_EQ(reporter.reports()[0].message,
            "[Tavel] Failed to parse activity types from server configuration");
  EXPECT_EQ(reporter.reports()[0].additionalData,
            (PlistDictionary{{"activityNameNotFound", "unknownThing"}}));
}

TEST_F(RemoteConfigurationTest, UndecodableStoredRecordGivesDefaultsAndOneReport) {
  for (const std::string stored :
       {"not json", "{}",
        R"({"additionalAccelDataDurationSeconds":20,"additionalAccelDataSampleRate":"fast",)"
        R"("errorReportingSampleRate":0.1,"automaticEntryPointPollingIntervalSeconds":30})"}) {
    RecordingErrorReporter fresh;
    defaults->set(kKey, Bytes(stored.begin(), stored.end()));
    auto config = make(defaults, fresh);
    EXPECT_EQ(config->getConfiguration(), kDefaults) << stored;
    EXPECT_EQ(config->getConfiguration(), kDefaults);
    ASSERT_EQ(fresh.reports().size(), 1u) << stored;
    EXPECT_EQ(fresh.reports()[0].message, "Failed to load remote config.");
    EXPECT_TRUE(fresh.reports()[0].usingDefaultConfiguration);
  }
}

TEST_F(RemoteConfigurationTest, ReadersOnOtherThreadsNeverSeeAMixedRecord) {
  auto config = make();
  std::atomic<bool> done = false;
  std::atomic<int> mixed = 0;
  auto read = [&] {
    // Every update below writes the same number into both fields; the defaults are 3 and 30.
    for (auto seen = config->getConfiguration(); !done; seen = config->getConfiguration()) {
      const int64_t a = seen.goldenSignalsDurationSeconds.value_or(3);
      const int64_t b = seen.automaticEntryPointPollingIntervalSeconds;
      if (a != b && !(a == 3 && b == 30)) ++mixed;
    }
  };
  std::thread first(read), second(read);
  for (int64_t n = 100; n < 400; ++n) {
    ServerConfiguration update;
    update.goldenSignalsDurationSeconds = update.automaticEntryPointPollingIntervalSeconds = n;
    apply(*config, update);
  }
  done = true;
  first.join();
  second.join();
  EXPECT_EQ(mixed, 0);
}

TEST(ConfigurationDataTest, StoredFloatsReadBackBitForBit) {
  std::mt19937 random(12345);
  std::vector<float> values = {0.05f,  0.001f,          0.1f,  16777217.0f,
                               1e-45f, 1.17549435e-38f, -0.0f, std::numeric_limits<float>::max()};
  for (int i = 0; i < 20000; ++i) {
    const float f = std::bit_cast<float>(static_cast<uint32_t>(random()));
    if (std::isfinite(f)) values.push_back(f);
  }
  for (float f : values) {
    auto decoded = decodeConfigurationData(
        encodeConfigurationData(ConfigurationData{1, f, -f, 2, {}, {}, {}, {}, {}, {}}));
    ASSERT_TRUE(decoded) << f;
    EXPECT_EQ(std::bit_cast<uint32_t>(decoded->additionalAccelDataSampleRate),
              std::bit_cast<uint32_t>(f));
    EXPECT_EQ(std::bit_cast<uint32_t>(decoded->errorReportingSampleRate),
              std::bit_cast<uint32_t>(-f));
  }
}

}  // namespace
}  // namespace orvane

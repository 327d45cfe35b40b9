#include "config/RemoteConfiguration.h"

#include <atomic>
#include <bit>
#include <random>
#include <regex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using testing::FakeClock;
using testing::ManualExecutors;
using testing::RecordingErrorReporter;

constexpr std::string_view kKey = "remote_config_latest_data";

class RemoteConfigurationTest : public ::testing::Test {
 protected:
  RemoteConfigurationTest()
      : store_(makeInMemoryKeyValueStoreProvider()->openSuite("com.orvane.ads")),
        defaults_(std::make_shared<UserDefaultsProvider>(store_)),
        executors_(std::make_shared<ManualExecutors>(std::make_shared<FakeClock>())),
        queue_(executors_->makeSerialQueue("remote-config")) {}

  std::unique_ptr<RemoteConfiguration> make(std::shared_ptr<UserDefaultsProvider> defaults) {
    return std::make_unique<RemoteConfiguration>(
        std::move(defaults), [this]() -> ErrorReporter& { return reporter_; }, queue_);
  }
  std::unique_ptr<RemoteConfiguration> make() { return make(defaults_); }

  void applyAndDrain(RemoteConfiguration& config, std::optional<ServerConfiguration> update) {
    config.applyConfigurationUpdate(std::move(update));
    executors_->runUntilIdle();
  }

  std::string storedText() const {
    auto bytes = defaults_->data(kKey);
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
  }

  std::shared_ptr<KeyValueStore> store_;
  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::shared_ptr<ManualExecutors> executors_;
  std::shared_ptr<SerialQueue> queue_;
  RecordingErrorReporter reporter_;
};

// The built-in defaults, spelled out independently of the code that builds them.
ConfigurationData expectedDefaults() {
  return ConfigurationData{20,
                           0.05f,
                           0.001f,
                           30,
                           std::vector<uint16_t>{219, 958, 217, 982, 218, 215, 971, 101, 216, 120,
                                                 970, 113, 125, 984, 972},
                           3,
                           false,
                           std::vector<std::string>{"couch", "pocket"},
                           "0.0.5"};
}

TEST_F(RemoteConfigurationTest, NothingStoredGivesTheDefaultsExactly) {
  EXPECT_EQ(make()->getConfiguration(), expectedDefaults());
  EXPECT_EQ(RemoteConfiguration::getDefaultConfiguration(), expectedDefaults());
  EXPECT_TRUE(reporter_.reports().empty());
}

TEST_F(RemoteConfigurationTest, PartialUpdateIsMergedWithDefaultsStoredAndSurvivesRestart) {
  auto config = make();
  ServerConfiguration update;
  update.goldenSignalsDurationSeconds = 10;
  config->applyConfigurationUpdate(update);
  // Nothing changes until the update queue runs.
  EXPECT_EQ(config->getConfiguration(), expectedDefaults());
  executors_->runUntilIdle();

  ConfigurationData expected = expectedDefaults();
  expected.goldenSignalsDurationSeconds = 10;
  EXPECT_EQ(config->getConfiguration(), expected);
  EXPECT_EQ(make()->getConfiguration(), expected);  // a fresh process over the same store
  // Stored with camel-case keys, and floats as their shortest decimal.
  EXPECT_NE(storedText().find(R"("errorReportingSampleRate":0.001,)"), std::string::npos)
      << storedText();
  EXPECT_NE(storedText().find(R"("goldenSignalsDurationSeconds":10,)"), std::string::npos);

  // No settings at all in a later update go back to the defaults.
  applyAndDrain(*config, std::nullopt);
  EXPECT_EQ(make()->getConfiguration(), expectedDefaults());
}

TEST_F(RemoteConfigurationTest, TaggerVersionIsCheckedButAlwaysStored) {
  for (const std::string version : {"1.2.3", "1", "1.x", "1.2."}) {
    RecordingErrorReporter fresh;
    RemoteConfiguration config(
        defaults_, [&fresh]() -> ErrorReporter& { return fresh; }, queue_);
    ServerConfiguration update;
    update.activityTaggerVersion = version;
    applyAndDrain(config, update);
    EXPECT_EQ(make()->getConfiguration().activityTaggerVersion, version);
    const auto reports = fresh.reports();
    ASSERT_EQ(reports.size(), version == "1.2.3" ? 0u : 1u) << version;
    if (reports.empty()) continue;
    EXPECT_EQ(reports[0].message, "Invalid activityTaggerVersion format received from server");
    EXPECT_EQ(reports[0].additionalData,
              (PlistDictionary{{"activityTaggerVersion", PlistValue(version)}}));
  }
}

TEST(ActivityTaggerVersionTest, AgreesWithTheRegularExpression) {
  const std::regex pattern(R"(^\d+(\.\d+)+$)");
  for (const std::string text :
       {"1.2.3", "1", "1.x", "1.2.", "", ".", "1.", ".1", "01.002", "1.2.3.4.5", "1.2\n", " 1.2",
        "1.2 ", "1,2", "a.b", "1.-2", "12345678901234567890.1"}) {
    EXPECT_EQ(isValidActivityTaggerVersion(text), std::regex_search(text, pattern)) << text;
  }
  // Long enough that a backtracking regex would exhaust the stack.
  std::string longVersion = "1";
  for (int i = 0; i < 200000; ++i) longVersion += ".1";
  EXPECT_TRUE(isValidActivityTaggerVersion(longVersion));
}

TEST_F(RemoteConfigurationTest, UnknownActivitiesAreSkippedAndReported) {
  auto config = make();
  ServerConfiguration update;
  update.activities = std::vector<std::string>{"couch", "unknownThing", "pocket"};
  applyAndDrain(*config, update);
  EXPECT_EQ(config->parsedActivities(),
            (std::vector<ActivityType>{ActivityType::kCouch, ActivityType::kPocket}));
  const auto reports = reporter_.reports();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].message, "[Tavel] Failed to parse activity types from server configuration");
  EXPECT_EQ(reports[0].additionalData,
            (PlistDictionary{{"activityNameNotFound", PlistValue("unknownThing")}}));
}

TEST_F(RemoteConfigurationTest, UndecodableStoredRecordGivesDefaultsAndOneReport) {
  for (const std::string& stored :
       {std::string("not json"), std::string("{}"),
        std::string(R"({"additionalAccelDataDurationSeconds":20,"additionalAccelDataSampleRate":)"
                    R"("fast","errorReportingSampleRate":0.1,)"
                    R"("automaticEntryPointPollingIntervalSeconds":30})")}) {
    RecordingErrorReporter fresh;
    defaults_->set(kKey, Bytes(stored.begin(), stored.end()));
    RemoteConfiguration config(
        defaults_, [&fresh]() -> ErrorReporter& { return fresh; }, queue_);
    EXPECT_EQ(config.getConfiguration(), expectedDefaults()) << stored;
    EXPECT_EQ(config.getConfiguration(), expectedDefaults());
    const auto reports = fresh.reports();
    ASSERT_EQ(reports.size(), 1u) << stored;
    EXPECT_EQ(reports[0].message, "Failed to load remote config.");
    EXPECT_TRUE(reports[0].usingDefaultConfiguration);
  }
}

TEST_F(RemoteConfigurationTest, WithoutAStoreUpdatesDoNothing) {
  auto config = make(std::make_shared<UserDefaultsProvider>(nullptr));
  ServerConfiguration update;
  update.automaticEntryPointPollingIntervalSeconds = 5;
  update.activityTaggerVersion = "bad";
  applyAndDrain(*config, update);
  EXPECT_EQ(config->getConfiguration(), expectedDefaults());
  EXPECT_TRUE(reporter_.reports().empty());
}

TEST_F(RemoteConfigurationTest, QueuedUpdateCompletesAfterTheObjectIsGone) {
  ServerConfiguration update;
  update.errorReportingSampleRate = 0.5f;
  make()->applyConfigurationUpdate(update);
  executors_->runUntilIdle();
  EXPECT_EQ(make()->getConfiguration().errorReportingSampleRate, 0.5f);
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
    applyAndDrain(*config, update);
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
    const ConfigurationData data{1, f, -f, 2, {}, {}, {}, {}, {}};
    auto decoded = decodeConfigurationData(encodeConfigurationData(data));
    ASSERT_TRUE(decoded) << f;
    EXPECT_EQ(std::bit_cast<uint32_t>(decoded->additionalAccelDataSampleRate),
              std::bit_cast<uint32_t>(f));
    EXPECT_EQ(std::bit_cast<uint32_t>(decoded->errorReportingSampleRate),
              std::bit_cast<uint32_t>(-f));
  }
}

}  // namespace
}  // namespace orvane

#include <gtest/gtest.h>

#include "generators/GeoIPSignalGenerator.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

class GeoIPTest : public ::testing::Test {
 protected:
  std::unique_ptr<GeoIPSignalGenerator> make() {
    return std::make_unique<GeoIPSignalGenerator>(defaults, date,
                                                  [this]() -> ErrorReporter& { return reporter; });
  }
  static ServerGeoIPPayload payload(nlohmann::json raw) {
    return ServerGeoIPPayload{std::move(raw)};
  }
  static std::vector<uint16_t> ids(const SignalList& signals) {
    std::vector<uint16_t> out;
    for (const auto& s : signals) out.push_back(s.id().rawValue());
    return out;
  }

  testing::FakePlatform fake;
  std::shared_ptr<UserDefaultsProvider> defaults = std::make_shared<UserDefaultsProvider>(
      fake.platform.keyValueStores->openSuite("com.orvane.ads"));
  std::shared_ptr<StubDateProvider> date = std::make_shared<StubDateProvider>(Date{1.7e9});
  testing::RecordingErrorReporter reporter;
};

TEST_F(GeoIPTest, EstimateIsReportedInOrderAndSurvivesARestart) {
  auto generator = make();
  EXPECT_TRUE(generator->allSignals().empty());
  generator->updateGeoIPData(payload({{"estimated_city_id", 7},
                                      {"estimated_city_name", ""},
                                      {"estimated_country_code", "DE"},
                                      {"estimated_latitude", 52.5},
                                      {"estimated_longitude", 13.4},
                                      {"estimated_us_state_code", "CA"},
                                      {"estimated_population", 3600000}}));
  date->setStubDate(Date{1.7e9 + 90});
  auto restarted = make();  // reads what the first one stored
  const SignalList signals = restarted->allSignals();
  EXPECT_EQ(ids(signals), (std::vector<uint16_t>{608, 602, 600, 603, 604, 607, 610, 605}));
  EXPECT_EQ(signals[1], SignalString(SignalEnum::id(602), ""));  // present but empty
  EXPECT_EQ(signals[3], SignalFloat(SignalEnum::id(603), 52.5f));
  EXPECT_EQ(signals.back(), SignalFloat(SignalEnum::id(605), 90.0f));
  // Stored as the platform encoder writes dates: seconds since 2001.
  const Bytes bytes = *defaults->data("gip_latest_data");
  auto stored = nlohmann::json::parse(bytes.begin(), bytes.end());
  EXPECT_DOUBLE_EQ(stored["lastUpdated"].get<double>(), 1.7e9 - 978307200.0);
  EXPECT_EQ(stored["estimatedCityId"], 7);
}

TEST_F(GeoIPTest, PartialEmptyAndBrokenEstimates) {
  auto generator = make();
  generator->updateGeoIPData(payload({{"estimatedLatitude", 1.0}}));  // no longitude
  EXPECT_EQ(ids(generator->allSignals()), std::vector<uint16_t>{605});
  generator->updateGeoIPData(std::nullopt);  // keeps the previous estimate
  EXPECT_EQ(generator->allSignals().size(), 1u);
  generator->updateGeoIPData(payload({{"estimated_city_id", "not a number"}}));
  EXPECT_EQ(reporter.count("Failed to update geo IP data"), 1u);

  defaults->set("gip_latest_data", Bytes{'{', 'x'});
  auto corrupt = make();
  EXPECT_TRUE(corrupt->allSignals().empty());
  EXPECT_EQ(reporter.count("Failed to load geo IP data"), 1u);
}

}  // namespace
}  // namespace orvane

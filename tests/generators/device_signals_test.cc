#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "device/Device.h"
#include "generators/LocaleTiers.h"
#include "generators/StaticSignalsGenerator.h"
#include "generators/TimeSignalsGenerator.h"
#include "orvane/Currency.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

std::vector<uint16_t> idsOf(const SignalList& signals) {
  std::vector<uint16_t> ids;
  for (const auto& s : signals) ids.push_back(s.id().rawValue());
  return ids;
}

const SignalValue* valueOf(const SignalList& signals, uint16_t id) {
  for (const auto& s : signals) {
    if (s.id().rawValue() == id) return &s.value();
  }
  return nullptr;
}

TEST(DeviceTest, IdentifiersMapToModelsSimulatorsOrThemselves) {
  const Device phone = Device::mapToDevice("iPhone15,2");
  EXPECT_FALSE(phone.isSimulator());
  EXPECT_EQ(phone.safeDescription(), "iPhone 14 Pro");
  EXPECT_EQ(phone.diagonal(), 6.1);
  // Radio variants share the model.
  EXPECT_EQ(Device::mapToDevice("iPad13,5").model(), Device::mapToDevice("iPad13,7").model());

  const Device simulator = Device::mapToDevice("arm64", "iPad16,3");
  EXPECT_TRUE(simulator.isSimulator());
  EXPECT_EQ(simulator.safeDescription(), "iPad Pro 11-inch (M4)");
  EXPECT_EQ(simulator.description(), "Simulator (iPad Pro 11-inch (M4))");
  EXPECT_EQ(simulator.diagonal(), 11.0);

  // A simulator that does not say what it simulates, or names another simulator.
  EXPECT_EQ(Device::mapToDevice("x86_64").safeDescription(), "x86_64");
  EXPECT_EQ(Device::mapToDevice("x86_64", "arm64").diagonal(), -1.0);
  EXPECT_TRUE(Device::mapToDevice("x86_64", "arm64").isSimulator());

  const Device unknown = Device::mapToDevice("iPhone99,9");
  EXPECT_FALSE(unknown.model());
  EXPECT_EQ(unknown.safeDescription(), "iPhone99,9");
  EXPECT_EQ(unknown.diagonal(), -1.0);
}

TEST(DeviceTest, ModelTableHoldsEachIdentifierOnceAndCoversEveryFamily) {
  std::set<std::string_view> seen;
  for (const auto& entry : Device::modelTable()) {
    EXPECT_TRUE(seen.insert(entry.identifier).second) << entry.identifier;
    EXPECT_FALSE(entry.model.name.empty());
    if (entry.identifier != "AudioAccessory1,1") {
      EXPECT_GT(entry.model.diagonal, 3.0);
    }
  }
  for (const char* id : {"iPod5,1", "iPod7,1", "iPod9,1", "iPhone3,1", "iPhone18,3", "iPad2,1",
                         "iPad16,6", "AudioAccessory1,1"}) {
    EXPECT_TRUE(seen.contains(id)) << id;
  }
  EXPECT_FALSE(seen.contains("x86_64"));
  EXPECT_FALSE(seen.contains("arm64"));
}

class StaticSignalsTest : public ::testing::Test {
 protected:
  testing::FakePlatform fake;
  std::shared_ptr<StubDateProvider> dates = std::make_shared<StubDateProvider>(Date{1.7e9});
  LocaleTiers tiers;
  HostPlatform hostPlatform = HostPlatform::kNative;

  StaticSignalsGenerator::Dependencies dependencies() {
    StaticSignalsGenerator::Dependencies deps;
    deps.device = fake.device;
    deps.calendar = makeFixedOffsetCalendar("Europe/Berlin", 3600, "CET");
    deps.dateProvider = dates;
    deps.bundle.buildVersion = "241";
    deps.bundle.shortVersion = "2.4.1";
    deps.bundle.receiptFileName = "sandboxReceipt";
    deps.bundleIdentifier = "com.example.host";
    deps.sdkVersion = "5.13.0";
    deps.isSupported = ContextManagerIsSupported::kSupported;
    deps.currentPlatform = [this] { return hostPlatform; };
    deps.localeTiers = &tiers;
    return deps;
  }
};

TEST_F(StaticSignalsTest, FullSetComesInTableOrderWithItsValues) {
  StaticSignalsGenerator generator(dependencies());
  const SignalList signals = generator.staticSignals();
  EXPECT_EQ(idsOf(signals), (std::vector<uint16_t>{1,  2, 4,  5,  6,  30, 31, 32, 33, 34,  35,
                                                   36, 7, 37, 38, 39, 40, 41, 42, 43, 501, 502}));
  const std::pair<uint16_t, SignalValue> expected[] = {
      {1, std::string("5.13.0")},
      {2, std::string("1700000000.0")},
      {4, std::string("241")},
      {5, std::string("2.4.1")},
      {30, std::string("en_US")},
      {31, std::string("Europe/Berlin")},
      {32, false},
      {34, std::string("US")},
      {35, std::string("CET")},
      {36, std::string("USD")},
      {7, int64_t{3}},
      {37, std::string("iPhone 14 Pro")},
      {38, 6.1f},
      {39, std::string("17.2")},
      {40, false},
      {41, int64_t{6144}},
      {42, int64_t{6}},
      {43, int64_t{5}},
      {501, int64_t{1}},
      {502, int64_t{4}},
  };
  for (const auto& [id, value] : expected) {
    ASSERT_NE(valueOf(signals, id), nullptr) << id;
    EXPECT_EQ(*valueOf(signals, id), value) << id;
  }
  // The host platform is read on each call.
  hostPlatform = HostPlatform::kHybridWeb;
  EXPECT_EQ(*valueOf(generator.staticSignals(), 43), SignalValue(int64_t{2}));
}

TEST_F(StaticSignalsTest, UnknownFactsLeaveTheirSignalsOutAndKeepTheOrder) {
  auto deps = dependencies();
  deps.device = std::make_shared<HostDeviceService>();  // nothing known
  deps.bundle = BundleInfo{};
  deps.isSupported = ContextManagerIsSupported::kUnsupported;
  const SignalList signals = StaticSignalsGenerator(std::move(deps)).staticSignals();
  EXPECT_EQ(idsOf(signals), (std::vector<uint16_t>{1, 2, 6, 30, 31, 32, 35, 7, 40, 43, 501, 502}));
  EXPECT_EQ(*valueOf(signals, 7), SignalValue(int64_t{1}));
  EXPECT_EQ(*valueOf(signals, 501), SignalValue(int64_t{0}));
  EXPECT_EQ(*valueOf(signals, 502), SignalValue(int64_t{-1}));
}

TEST_F(StaticSignalsTest, SimulatorAndUnknownModelsReachTheSignals) {
  fake.device->update([](DeviceFacts& f) {
    f.machineIdentifier = "arm64";
    f.simulatedModelIdentifier = "iPhone17,5";
  });
  SignalList signals = StaticSignalsGenerator(dependencies()).staticSignals();
  EXPECT_EQ(*valueOf(signals, 37), SignalValue(std::string("iPhone 16e")));
  EXPECT_EQ(*valueOf(signals, 38), SignalValue(6.1f));

  fake.device->update([](DeviceFacts& f) { f.machineIdentifier = "iPhone99,9"; });
  signals = StaticSignalsGenerator(dependencies()).staticSignals();
  EXPECT_EQ(*valueOf(signals, 37), SignalValue(std::string("iPhone99,9")));
  EXPECT_EQ(*valueOf(signals, 38), SignalValue(-1.0f));
}

TEST_F(StaticSignalsTest, PadByIdiomOrByModelName) {
  EXPECT_FALSE(StaticSignalsGenerator(dependencies()).isPad());
  fake.device->update([](DeviceFacts& f) { f.modelName = "iPad"; });
  EXPECT_TRUE(StaticSignalsGenerator(dependencies()).isPad());
  fake.device->update([](DeviceFacts& f) {
    f.modelName.reset();
    f.userInterfaceIdiom = UserInterfaceIdiom::kPad;
  });
  EXPECT_TRUE(StaticSignalsGenerator(dependencies()).isPad());
}

TEST(StaticSignalsMemoryTest, MegabytesGoThroughSinglePrecision) {
  EXPECT_EQ(StaticSignalsGenerator::megabytes(uint64_t{6} << 30), 6144);
  // One byte short of 8 GiB rounds up as a float: 8192, where integer division gives 8191.
  EXPECT_EQ(StaticSignalsGenerator::megabytes((uint64_t{8} << 30) - 1), 8192);
  EXPECT_EQ(StaticSignalsGenerator::megabytes((uint64_t{1} << 20) - 1), 0);
}

TEST(TimeSignalsTest, WallClockOfTheCalendarsZone) {
  constexpr double kSaturday = 1704499200;  // 2024-01-06 00:00 UTC
  constexpr double kDay = 86400;
  struct Case {
    double instant;
    int64_t offset;
    float dayFraction;
    int64_t weekday;
    bool weekend;
  };
  const Case cases[] = {
      {kSaturday, 0, 0.0f, 7, true},
      {kSaturday + 12 * 3600 + 59, 0, 0.5f, 7, true},  // seconds do not count
      {kSaturday + 2 * kDay + 23 * 3600 + 59 * 60, 0, 1439.0f / 1440.0f, 2, false},
      // Sunday 23:30 in UTC is Monday 00:30 an hour east, and the other way round.
      {kSaturday + kDay + 23.5 * 3600, 3600, 30.0f / 1440.0f, 2, false},
      {kSaturday + 2 * kDay + 1800, -3600, 1410.0f / 1440.0f, 1, true},
      {kSaturday + 5 * kDay + 9 * 3600, 0, 0.375f, 5, false},
  };
  for (const auto& c : cases) {
    const auto calendar = makeFixedOffsetCalendar("", c.offset);
    const SignalList signals = TimeSignalsGenerator::timeSignals(*calendar, Date{c.instant});
    ASSERT_EQ(idsOf(signals), (std::vector<uint16_t>{70, 71, 72})) << c.instant;
    EXPECT_EQ(signals[0].value(), SignalValue(c.dayFraction)) << c.instant;
    EXPECT_EQ(signals[1].value(), SignalValue(c.weekday)) << c.instant;
    EXPECT_EQ(signals[2].value(), SignalValue(c.weekend)) << c.instant;
  }
  // An instant the calendar cannot place gives no time signals at all.
  EXPECT_TRUE(TimeSignalsGenerator::timeSignals(*makeFixedOffsetCalendar("", 0), Date{std::nan("")})
                  .empty());
}

TEST(LocaleTiersTest, RegionsFallIntoTheirTiers) {
  LocaleTiers tiers;
  const std::pair<const char*, CountryTier> cases[] = {
      {"US", CountryTier::kUnitedStates}, {"CN", CountryTier::kChina},
      {"IN", CountryTier::kIndia},        {"DE", CountryTier::kTier1},
      {"VA", CountryTier::kTier1},        {"BR", CountryTier::kTier2},
      {"IL", CountryTier::kTier2},        {"KE", CountryTier::kTier3},
      {"AF", CountryTier::kTier3},        {"RU", CountryTier::kUnknown},
      {"us", CountryTier::kUnknown},      {"", CountryTier::kUnknown},
  };
  for (const auto& [region, tier] : cases) EXPECT_EQ(tiers.tier(region), tier) << region;

  EXPECT_EQ(countryTierFromRawValue(0), CountryTier::kTier0);
  EXPECT_EQ(countryTierFromRawValue(-1), CountryTier::kUnknown);
  EXPECT_EQ(countryTierFromRawValue(6), CountryTier::kIndia);
  EXPECT_FALSE(countryTierFromRawValue(7));
  EXPECT_FALSE(countryTierFromRawValue(-2));
}

TEST(LocaleTiersTest, CurrentTierIsDecidedOnce) {
  HostDeviceService device;  // no region
  LocaleTiers tiers;
  EXPECT_EQ(tiers.currentTier(device), CountryTier::kUnknown);
  device.update([](DeviceFacts& f) { f.locale.regionCode = "DE"; });
  EXPECT_EQ(tiers.currentTier(device), CountryTier::kUnknown);
  EXPECT_EQ(LocaleTiers().currentTier(device), CountryTier::kTier1);
}

TEST(CurrencyTest, RawValuesAreExactLowerCaseCodes) {
  EXPECT_EQ(currencyFromRawValue("usd"), Currency::kUsd);
  EXPECT_EQ(currencyFromRawValue("aed"), Currency::kAed);
  EXPECT_EQ(currencyFromRawValue("zwl"), Currency::kZwl);
  EXPECT_EQ(currencyFromRawValue("try"), Currency::kTry);
  EXPECT_FALSE(currencyFromRawValue("USD"));
  EXPECT_FALSE(currencyFromRawValue("usdx"));
  EXPECT_FALSE(currencyFromRawValue(""));
  EXPECT_EQ(currencyRawValue(Currency::kEur), "eur");
  EXPECT_EQ(currencyRawValue(Currency::kZwl), "zwl");
}

}  // namespace
}  // namespace orvane

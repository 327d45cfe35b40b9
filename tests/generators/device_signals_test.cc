#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "device/Device.h"
#include "generators/LocaleTiers.h"
#include "generators/StaticSignalsGenerator.h"
#include "generators/TimeSignalsGenerator.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

using testing::signalIds;

SignalValue valueOf(const SignalList& signals, uint16_t id) {
  const Signal* s = testing::findSignal(signals, id);
  return s ? s->value() : SignalValue(std::string("<absent>"));
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

  // The table holds each identifier once, with a name and a plausible screen.
  std::set<std::string_view> seen;
  for (const auto& entry : Device::modelTable()) {
    EXPECT_TRUE(seen.insert(entry.identifier).second) << entry.identifier;
    EXPECT_FALSE(entry.model.name.empty());
    EXPECT_TRUE(entry.model.diagonal > 3.0 || entry.identifier == "AudioAccessory1,1");
  }
  for (const char* id : {"iPod5,1", "iPhone3,1", "iPhone18,3", "iPad2,1", "iPad16,6"}) {
    EXPECT_TRUE(seen.contains(id)) << id;
  }
  EXPECT_FALSE(seen.contains("x86_64") || seen.contains("arm64"));
}

class StaticSignalsTest : public ::testing::Test {
 protected:
  StaticSignalsGenerator::Dependencies dependencies() {
    StaticSignalsGenerator::Dependencies deps;
    deps.device = fake.device;
    deps.calendar = makeFixedOffsetCalendar("Europe/Berlin", 3600, "CET");
    deps.dateProvider = std::make_shared<StubDateProvider>(Date{1.7e9});
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
  SignalList signals() { return StaticSignalsGenerator(dependencies()).staticSignals(); }

  testing::FakePlatform fake;
  LocaleTiers tiers;
  HostPlatform hostPlatform = HostPlatform::kNative;
};

TEST_F(StaticSignalsTest, FullSetComesInTableOrderWithItsValues) {
  StaticSignalsGenerator generator(dependencies());
  const SignalList signals = generator.staticSignals();
  EXPECT_EQ(testing::signalSummary(signals),
            R"(s1="5.13.0" s2="1700000000.0" s4="241" s5="2.4.1" s6="com.example.host" )"
            R"(s30="en_US" s31="Europe/Berlin" b32=false s33="en" s34="US" s35="CET" s36="USD" )"
            R"(i7=3 s37="iPhone 14 Pro" f38=6.1 s39="17.2" b40=false i41=6144 i42=6 i43=5 )"
            R"(i501=1 i502=4)");
  // The host platform is read on each call.
  hostPlatform = HostPlatform::kHybridWeb;
  EXPECT_EQ(valueOf(generator.staticSignals(), 43), SignalValue(int64_t{2}));
}

TEST_F(StaticSignalsTest, UnknownFactsLeaveTheirSignalsOutAndKeepTheOrder) {
  auto deps = dependencies();
  deps.device = std::make_shared<HostDeviceService>();  // nothing known
  deps.bundle = BundleInfo{};
  deps.isSupported = ContextManagerIsSupported::kUnsupported;
  const SignalList signals = StaticSignalsGenerator(std::move(deps)).staticSignals();
  EXPECT_EQ(signalIds(signals),
            (std::vector<uint16_t>{1, 2, 6, 30, 31, 32, 35, 7, 40, 43, 501, 502}));
  EXPECT_EQ(valueOf(signals, 7), SignalValue(int64_t{1}));
  EXPECT_EQ(valueOf(signals, 501), SignalValue(int64_t{0}));
  EXPECT_EQ(valueOf(signals, 502), SignalValue(int64_t{-1}));
}

TEST_F(StaticSignalsTest, SimulatorsUnknownModelsAndPads) {
  fake.device->update([](DeviceFacts& f) {
    f.machineIdentifier = "arm64";
    f.simulatedModelIdentifier = "iPhone17,5";
  });
  EXPECT_EQ(valueOf(signals(), 37), SignalValue(std::string("iPhone 16e")));
  EXPECT_EQ(valueOf(signals(), 38), SignalValue(6.1f));
  fake.device->update([](DeviceFacts& f) { f.machineIdentifier = "iPhone99,9"; });
  EXPECT_EQ(valueOf(signals(), 37), SignalValue(std::string("iPhone99,9")));
  EXPECT_EQ(valueOf(signals(), 38), SignalValue(-1.0f));

  // A pad by its model name or by its idiom.
  EXPECT_FALSE(StaticSignalsGenerator(dependencies()).isPad());
  fake.device->update([](DeviceFacts& f) { f.modelName = "iPad"; });
  EXPECT_TRUE(StaticSignalsGenerator(dependencies()).isPad());
  fake.device->update([](DeviceFacts& f) {
    f.modelName.reset();
    f.userInterfaceIdiom = UserInterfaceIdiom::kPad;
  });
  EXPECT_TRUE(StaticSignalsGenerator(dependencies()).isPad());

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
      {kSaturday + 5 * kDay + 9 * 3600, 0, 0.375f, 5, false}};
  for (const auto& c : cases) {
    const auto calendar = makeFixedOffsetCalendar("", c.offset);
    EXPECT_EQ(TimeSignalsGenerator::timeSignals(*calendar, Date{c.instant}),
              (SignalList{SignalFloat(SignalEnum::id(70), c.dayFraction),
                          SignalInt(SignalEnum::id(71), c.weekday),
                          SignalBool(SignalEnum::id(72), c.weekend)}))
        << c.instant;
  }
  // An instant the calendar cannot place gives no time signals at all.
  EXPECT_TRUE(TimeSignalsGenerator::timeSignals(*makeFixedOffsetCalendar("", 0), Date{std::nan("")})
                  .empty());
}

TEST(LocaleTiersTest, RegionsFallIntoTheirTiersDecidedOnce) {
  LocaleTiers tiers;
  const std::pair<const char*, CountryTier> cases[] = {
      {"US", CountryTier::kUnitedStates}, {"CN", CountryTier::kChina},
      {"IN", CountryTier::kIndia},        {"DE", CountryTier::kTier1},
      {"VA", CountryTier::kTier1},        {"BR", CountryTier::kTier2},
      {"IL", CountryTier::kTier2},        {"KE", CountryTier::kTier3},
      {"AF", CountryTier::kTier3},        {"RU", CountryTier::kUnknown},
      {"us", CountryTier::kUnknown},      {"", CountryTier::kUnknown}};
  for (const auto& [region, tier] : cases) EXPECT_EQ(tiers.tier(region), tier) << region;
  EXPECT_EQ(countryTierFromRawValue(0), CountryTier::kTier0);
  EXPECT_EQ(countryTierFromRawValue(-1), CountryTier::kUnknown);
  EXPECT_EQ(countryTierFromRawValue(6), CountryTier::kIndia);
  EXPECT_FALSE(countryTierFromRawValue(7) || countryTierFromRawValue(-2));

  HostDeviceService device;  // no region
  EXPECT_EQ(tiers.currentTier(device), CountryTier::kUnknown);
  device.update([](DeviceFacts& f) { f.locale.regionCode = "DE"; });
  EXPECT_EQ(tiers.currentTier(device), CountryTier::kUnknown);
  EXPECT_EQ(LocaleTiers().currentTier(device), CountryTier::kTier1);
}

}  // namespace
}  // namespace orvane

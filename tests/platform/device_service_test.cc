#include <sys/utsname.h>
#include <time.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "orvane/platform/Calendar.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/linux/LinuxDeviceFacts.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

class PowerSupplyTree : public ::testing::Test {
 protected:
  fs::path root = fs::path(::testing::TempDir()) / "orvane-power-supply";
  void SetUp() override {
    fs::remove_all(root);
    fs::create_directories(root);
  }
  void TearDown() override { fs::remove_all(root); }
  void write(const std::string& supply, const std::string& file, const std::string& text) {
    fs::create_directories(root / supply);
    std::ofstream(root / supply / file) << text << "\n";
  }
};

TEST_F(PowerSupplyTree, TheFirstPresentSystemBatteryIsRead) {
  EXPECT_EQ(linux_device::readBattery(root / "missing"), BatteryStatus{});
  write("AC", "type", "Mains");
  write("AC", "online", "1");
  EXPECT_EQ(linux_device::readBattery(root), BatteryStatus{});  // a desktop: no battery

  write("BAT0", "type", "Battery");
  write("BAT0", "present", "0");
  write("BAT0", "capacity", "99");
  write("BAT1", "type", "Battery");
  write("BAT1", "scope", "Device");  // a mouse
  write("BAT1", "capacity", "5");
  write("BAT2", "type", "Battery");
  write("BAT2", "capacity", "57");
  write("BAT2", "status", "Discharging");
  EXPECT_EQ(linux_device::readBattery(root), (BatteryStatus{0.57f, BatteryState::kUnplugged}));

  // Without a capacity the level comes from the energy counters, then the charge counters.
  fs::remove(root / "BAT2" / "capacity");
  write("BAT2", "energy_now", "30000000");
  write("BAT2", "energy_full", "40000000");
  write("BAT2", "status", "Not charging");
  EXPECT_EQ(linux_device::readBattery(root), (BatteryStatus{0.75f, BatteryState::kCharging}));
  fs::remove(root / "BAT2" / "energy_full");
  write("BAT2", "charge_now", "garbage");
  write("BAT2", "status", "Full");
  EXPECT_EQ(linux_device::readBattery(root), (BatteryStatus{std::nullopt, BatteryState::kFull}));
}

TEST(LinuxLocaleTest, PosixNamesReadAsPlatformLocales) {
  const LocaleInfo swiss = linux_device::localeFromPosixName("de_CH.UTF-8@euro");
  EXPECT_EQ(swiss.identifier, "de_CH");
  EXPECT_EQ(swiss.languageCode, "de");
  EXPECT_EQ(swiss.regionCode, "CH");
  EXPECT_TRUE(swiss.usesMetricSystem);

  // No locale data is installed for it: the region decides, and the currency is unknown.
  const LocaleInfo liberia = linux_device::localeFromPosixName("fr_LR");
  EXPECT_EQ(liberia.regionCode, "LR");
  EXPECT_FALSE(liberia.usesMetricSystem);
  EXPECT_FALSE(liberia.currencyCode);

  EXPECT_EQ(linux_device::localeFromPosixName("es_419.UTF-8").regionCode, "419");

  const LocaleInfo posix = linux_device::localeFromPosixName("C.UTF-8");
  EXPECT_EQ(posix, (LocaleInfo{"C", std::nullopt, std::nullopt, std::nullopt, true}));
}

TEST(LinuxDeviceServiceTest, ReadsTheMachineAndLetsTheHostOverride) {
  auto device = makeLinuxDeviceService({"/nonexistent"});
  struct utsname names {};
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(device->machineIdentifier(), std::string(names.machine));
  EXPECT_EQ(device->systemVersion(), std::string(names.release));
  EXPECT_GT(device->physicalMemoryBytes().value_or(0), uint64_t{1} << 20);
  EXPECT_GE(device->activeProcessorCount().value_or(0), 1);
  EXPECT_FALSE(device->modelName());
  EXPECT_EQ(device->battery(), BatteryStatus{});

  device->update([](DeviceFacts& f) {
    f.machineIdentifier = "iPhone15,2";
    f.battery = BatteryStatus{0.5f, BatteryState::kCharging};
  });
  EXPECT_EQ(device->machineIdentifier(), "iPhone15,2");
  EXPECT_EQ(device->battery(), (BatteryStatus{0.5f, BatteryState::kCharging}));
}

TEST(CalendarZoneTest, AbbreviationsFollowDaylightSaving) {
  const char* saved = std::getenv("TZ");
  const std::string previous = saved ? saved : "";
  setenv("TZ", "Europe/Berlin", 1);
  tzset();
  const auto calendar = makeSystemCalendar();
  EXPECT_EQ(calendar->timeZoneAbbreviation(1704499200), "CET");   // January
  EXPECT_EQ(calendar->timeZoneAbbreviation(1719792000), "CEST");  // July
  EXPECT_EQ(calendar->secondsFromGMT(1719792000), 7200);
  EXPECT_FALSE(calendar->timeZoneAbbreviation(std::nan("")));
  saved ? setenv("TZ", previous.c_str(), 1) : unsetenv("TZ");
  tzset();

  EXPECT_EQ(makeFixedOffsetCalendar("", 0)->timeZoneAbbreviation(0), "GMT");
  EXPECT_EQ(makeFixedOffsetCalendar("", 7200)->timeZoneAbbreviation(0), "GMT+2");
  EXPECT_EQ(makeFixedOffsetCalendar("", -12600)->timeZoneAbbreviation(0), "GMT-3:30");
  EXPECT_EQ(makeFixedOffsetCalendar("", 20700)->timeZoneAbbreviation(0), "GMT+5:45");
}

}  // namespace
}  // namespace orvane

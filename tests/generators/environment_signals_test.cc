#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "api/Engine.h"
#include "generators/InternetSignalsGenerator.h"
#include "generators/OutputSignalsGenerator.h"
#include "generators/PushSettingsSignalGenerator.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

using testing::signalSummary;

// A /sys/class/net and routing tables of our own.
class FakeSysNet {
 public:
  FakeSysNet() : root_(fs::path(::testing::TempDir()) / "orvane-sys-net") {
    fs::remove_all(root_);
    fs::create_directories(root_ / "net");
  }
  ~FakeSysNet() { fs::remove_all(root_); }
  void set(const std::string& interface, const std::string& file, const std::string& text) {
    fs::create_directories(root_ / "net" / interface);
    std::ofstream(root_ / "net" / interface / file) << text << "\n";
  }
  void makeWireless(const std::string& interface) {
    fs::create_directories(root_ / "net" / interface / "wireless");
  }
  void routes(const std::string& ipv4, const std::string& ipv6) {
    std::ofstream(root_ / "route") << kIpv4Header << ipv4;
    std::ofstream(root_ / "ipv6_route") << ipv6;
  }
  LinuxNetworkPaths paths() const {
    return {(root_ / "net").string(), 2.0, (root_ / "route").string(),
            (root_ / "ipv6_route").string()};
  }

  static constexpr const char* kIpv4Header =
      "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

 private:
  fs::path root_;
};

// Lines as the kernel writes them.
constexpr const char* kDefaultViaEth0 =
    "eth0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
    "eth0\t0000A8C0\t00000000\t0001\t0\t0\t100\t00FFFFFF\t0\t0\t0\n";
constexpr const char* kDockerSubnetOnly =
    "docker0\t000011AC\t00000000\t0001\t0\t0\t0\t0000FFFF\t0\t0\t0\n";
constexpr const char* kIpv6DefaultViaWlan0 =
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "fe800000000000000000000000000001 00000400 00000001 00000000 00000003 wlan0\n";
// The kernel keeps an unreachable ::/0 on loopback, and a prohibit route is a reject route.
constexpr const char* kIpv6Unreachable =
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200 lo\n"
    "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
    "00000000000000000000000000000000 00000400 00000001 00000000 00000201 eth0\n";

TEST(InternetSignalsTest, LinuxInterfacesDriveTheNetworkSignals) {
  testing::FakePlatform fake;
  FakeSysNet net;
  net.set("lo", "operstate", "unknown");
  net.set("lo", "carrier", "1");
  net.set("lo", "type", "772");
  net.set("wlan0", "operstate", "up");
  net.makeWireless("wlan0");
  net.set("eth0", "operstate", "down");
  net.set("tun0", "operstate", "unknown");
  net.set("tun0", "carrier", "1");
  net.routes("tun0\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0\n", "");
  auto service = makeLinuxNetworkPathService(fake.executors, net.paths());
  InternetSignalsGenerator generator(service, *fake.executors);
  // Nothing observed yet: only the "observed" flag, false; low-data mode and metering are not
  // in sysfs: unknown, so left out.
  EXPECT_EQ(signalSummary(generator.internetSignals()), "b405=false");

  fake.drain();
  EXPECT_EQ(signalSummary(generator.internetSignals()), "b62=true b63=true b405=true");
  EXPECT_EQ(generator.isConstrained(), std::nullopt);

  // Wi-Fi drops, the tunnel's default route keeps the device online; then the tunnel goes.
  net.set("wlan0", "operstate", "dormant");
  fake.advance(2.0);
  EXPECT_EQ(signalSummary(generator.internetSignals()), "b62=false b63=true b405=true");
  net.set("tun0", "carrier", "0");
  fake.advance(2.0);
  EXPECT_EQ(signalSummary(generator.internetSignals()), "b62=false b63=false b405=true");

  // A cellular-like link the host calls metered and in low-data mode.
  net.set("eth0", "operstate", "up");
  net.routes(kDefaultViaEth0, "");
  service->setConstrained(true);
  service->setExpensive(true);
  fake.drain();
  EXPECT_EQ(signalSummary(generator.internetSignals()),
            "b62=false b63=true b424=true b425=true b405=true");
  EXPECT_EQ(generator.isConstrained(), true);
}

// Internet means a default route through an interface that is up, whatever else is up.
TEST(InternetSignalsTest, OnlyADefaultRouteThroughAnUpInterfaceIsInternet) {
  struct Case {
    const char* name;
    const char* ipv4;
    const char* ipv6;
    bool eth0Up;
    const char* expected;
  };
  const Case cases[] = {
      {"no default route", "", "", true, "b62=true b63=false b405=true"},
      {"default via eth0", kDefaultViaEth0, "", true, "b62=true b63=true b405=true"},
      {"default via eth0, which is down", kDefaultViaEth0, "", false,
       "b62=true b63=false b405=true"},
      {"only the container bridge routed", kDockerSubnetOnly, "", true,
       "b62=true b63=false b405=true"},
      {"IPv6-only default", "", kIpv6DefaultViaWlan0, false, "b62=true b63=true b405=true"},
      {"unreachable and prohibit ::/0", "", kIpv6Unreachable, true, "b62=true b63=false b405=true"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testing::FakePlatform fake;
    FakeSysNet net;
    net.set("docker0", "operstate", "up");
    net.set("wlan0", "operstate", "up");
    net.makeWireless("wlan0");
    net.set("eth0", "operstate", c.eth0Up ? "up" : "down");
    net.routes(c.ipv4, c.ipv6);
    auto service = makeLinuxNetworkPathService(fake.executors, net.paths());
    InternetSignalsGenerator generator(service, *fake.executors);
    fake.drain();
    EXPECT_EQ(signalSummary(generator.internetSignals()), c.expected);
  }

  // Without either routing table the internet path is unknown, the Wi-Fi path still read.
  testing::FakePlatform fake;
  FakeSysNet net;
  net.set("eth0", "operstate", "up");
  LinuxNetworkPaths paths = net.paths();
  paths.ipv4Routes = paths.ipv6Routes = "/nonexistent/orvane/route";
  auto service = makeLinuxNetworkPathService(fake.executors, paths);
  InternetSignalsGenerator generator(service, *fake.executors);
  fake.drain();
  EXPECT_EQ(signalSummary(generator.internetSignals()), "b62=false b405=true");
}

TEST(InternetSignalsTest, UnreadableInterfacesAndLateMonitorsStayUnknown) {
  testing::FakePlatform fake;
  auto service = makeLinuxNetworkPathService(
      fake.executors, {.net = "/nonexistent/orvane/net", .pollIntervalSeconds = 1.0});
  InternetSignalsGenerator generator(service, *fake.executors);
  fake.advance(3.0);
  EXPECT_EQ(signalSummary(generator.internetSignals()), "b405=false");

  // A monitor started after the path is known hears of it; a cancelled one no longer does.
  fake.network->setPath(NetworkInterfaceKind::kAny, {true, false, true});
  auto late = std::make_unique<InternetSignalsGenerator>(fake.network, *fake.executors);
  fake.drain();
  EXPECT_EQ(signalSummary(late->internetSignals()), "b63=true b424=false b425=true b405=true");
  fake.network->setPath(NetworkInterfaceKind::kAny, {false, true, false});
  late.reset();  // its queued delivery must not touch the gone generator
  fake.drain();
}

class OutputSignalsTest : public ::testing::Test {
 protected:
  OutputSignalsGenerator make(std::shared_ptr<DeviceService> device) {
    return OutputSignalsGenerator(
        {std::move(device), fake.application, fake.executors->mainQueue(), [] { return 12.5; }});
  }
  SignalList onMain(OutputSignalsGenerator& generator) {
    SignalList signals;
    fake.executors->mainQueue()->sync([&] { signals = generator.outputSignals(); });
    return signals;
  }
  testing::FakePlatform fake;
};

TEST_F(OutputSignalsTest, AppStateIsReadOnTheMainThreadAndCachedForOthers) {
  auto generator = make(fake.device);
  auto appState = [](const SignalList& signals) {
    SignalList out;
    for (const auto& s : signals) {
      const uint16_t id = s.id().rawValue();
      if (id == 370 || (id >= 407 && id <= 409)) out.push_back(s);
    }
    return signalSummary(out);
  };
  EXPECT_EQ(appState(generator.outputSignals()), "b370=false");

  fake.application->setBackgroundRefreshStatus(BackgroundRefreshStatus::kDenied);
  fake.application->setProtectedDataAvailable(false);
  EXPECT_EQ(appState(onMain(generator)), "b370=true i407=1 i408=1 b409=false");

  // Off the main thread the last main-thread reading stands, even after the app changed.
  fake.application->becomeActive();
  fake.application->setProtectedDataAvailable(true);
  EXPECT_EQ(appState(generator.outputSignals()), "b370=false i407=1 i408=1 b409=false");
  EXPECT_EQ(appState(onMain(generator)), "b370=true i407=0 i408=1 b409=true");
}

TEST_F(OutputSignalsTest, UnknownDeviceFactsAreLeftOutAndKnownOnesMapped) {
  auto bare = make(std::make_shared<HostDeviceService>());
  EXPECT_EQ(signalSummary(bare.outputSignals()),
            "f50=-1 i51=0 b55=false f64=12.5 b370=false i66=-1");

  DeviceFacts facts;
  facts.systemVersion = "15.4";
  facts.battery = BatteryStatus{0.25f, BatteryState::kCharging};
  facts.isLowPowerModeEnabled = true;
  facts.thermalState = ThermalState::kSerious;
  facts.orientation = DeviceOrientation::kLandscapeRight;
  facts.userInterfaceIdiom = UserInterfaceIdiom::kPad;
  facts.mainScreen = {std::nullopt, std::nullopt, std::nullopt, 0.5f, false, 0, 0, 2, 1};
  facts.audioSession = {true, false, true};
  facts.trackingAuthorizationStatus = 3;
  auto device = std::make_shared<HostDeviceService>(facts);
  auto full = make(device);
  EXPECT_EQ(signalSummary(full.outputSignals()),
            // 54 is not trusted on 15.x; 68 is -1 for an unspecified style.
            "f50=0.25 i51=2 b52=true f53=0.5 i54=0 b55=true b56=false b59=true b60=false b61=true "
            "f64=12.5 b370=false i66=1 i67=3 i69=0 i401=1 i400=2 i68=-1");

  device->update([](DeviceFacts& f) {
    f.systemVersion = "16.0";
    f.mainScreen.interfaceStyle = 2;
  });
  auto again = full.outputSignals();
  EXPECT_EQ(testing::intSignal(again, 54), 2);
  EXPECT_EQ(again.back(), SignalInt(SignalEnum::id(68), 2));
  device->update([](DeviceFacts& f) { f.mainScreen.interfaceStyle = 7; });
  EXPECT_EQ(full.outputSignals().back(), SignalInt(SignalEnum::id(400), 2));
}

TEST(PushSettingsTest, SettingsAreThoseOfTheLastActivation) {
  testing::FakePlatform fake;
  NotificationSettings settings;
  settings.authorizationStatus = NotificationAuthorizationStatus::kProvisional;
  settings.alertSetting = NotificationSetting::kEnabled;
  settings.alertStyle = NotificationAlertStyle::kBanner;
  settings.showPreviewsSetting = NotificationPreviewsSetting::kNever;
  settings.providesAppNotificationSettings = true;
  settings.timeSensitiveSetting = NotificationSetting::kDisabled;
  fake.notifications->setSettings(settings);
  Engine manager(fake.platform);
  fake.application->becomeActive();  // the launch activation
  fake.drain();
  auto reactivate = [&] {
    fake.application->resignActive();
    fake.drain();
    fake.application->becomeActive();
    fake.drain();
  };
  auto pushSignals = [&] { return manager.pushSettingsSignalGenerator().pushSettingsSignals(); };
  // 710 last: only the later settings the system has.
  const std::string first =
      "i700=3 i701=0 i702=0 i703=0 i704=2 i705=0 i706=0 i707=0 i708=0 i711=1 i712=2 b713=true "
      "i710=1";
  EXPECT_EQ(signalSummary(pushSignals()), first);

  settings.authorizationStatus = NotificationAuthorizationStatus::kDenied;
  fake.notifications->setSettings(settings);
  EXPECT_EQ(signalSummary(pushSignals()), first);
  reactivate();
  EXPECT_EQ(pushSignals().front(), SignalInt(SignalEnum::id(700), 1));

  fake.notifications->setSettings(std::nullopt);
  reactivate();
  EXPECT_TRUE(pushSignals().empty());
  EXPECT_TRUE(PushSettingsSignalGenerator(nullptr).pushSettingsSignals().empty());
}

}  // namespace
}  // namespace orvane

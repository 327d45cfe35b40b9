#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "generators/InternetSignalsGenerator.h"
#include "generators/OutputSignalsGenerator.h"
#include "generators/PushSettingsSignalGenerator.h"
#include "orvane/ContextManager.h"
#include "testutil/FakePlatform.h"

namespace orvane {
namespace {

namespace fs = std::filesystem;

// Signals as their descriptions: a mismatch shows which id or value differs.
std::vector<std::string> texts(const SignalList& signals) {
  std::vector<std::string> out;
  for (const auto& s : signals) out.push_back(s.description());
  return out;
}

// A /sys/class/net of our own.
class FakeSysNet {
 public:
  FakeSysNet() : root_(fs::path(::testing::TempDir()) / "orvane-sys-net") {
    fs::remove_all(root_);
    fs::create_directories(root_);
  }
  ~FakeSysNet() { fs::remove_all(root_); }
  void set(const std::string& interface, const std::string& file, const std::string& text) {
    fs::create_directories(root_ / interface);
    std::ofstream(root_ / interface / file) << text << "\n";
  }
  void makeWireless(const std::string& interface) {
    fs::create_directories(root_ / interface / "wireless");
  }
  std::string path() const { return root_.string(); }

 private:
  fs::path root_;
};

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
  auto service = makeLinuxNetworkPathService(fake.executors, {net.path(), 2.0});
  InternetSignalsGenerator generator(service, *fake.executors);
  // Nothing observed yet: only the "observed" flag, false.
  EXPECT_EQ(texts(generator.internetSignals()),
            (std::vector<std::string>{"SignalBool(id: 405, value: false)"}));

  fake.drain();
  // Low-data mode and metering are not in sysfs: unknown, so left out.
  EXPECT_EQ(texts(generator.internetSignals()),
            (std::vector<std::string>{"SignalBool(id: 62, value: true)",
                                      "SignalBool(id: 63, value: true)",
                                      "SignalBool(id: 405, value: true)"}));
  EXPECT_EQ(generator.isConstrained(), std::nullopt);

  // Wi-Fi drops, the tunnel keeps the device online; then the tunnel goes too. Loopback
  // never counts.
  net.set("wlan0", "operstate", "dormant");
  fake.advance(2.0);
  EXPECT_EQ(texts(generator.internetSignals()),
            (std::vector<std::string>{"SignalBool(id: 62, value: false)",
                                      "SignalBool(id: 63, value: true)",
                                      "SignalBool(id: 405, value: true)"}));
  net.set("tun0", "carrier", "0");
  fake.advance(2.0);
  EXPECT_EQ(texts(generator.internetSignals()),
            (std::vector<std::string>{"SignalBool(id: 62, value: false)",
                                      "SignalBool(id: 63, value: false)",
                                      "SignalBool(id: 405, value: true)"}));

  // A cellular-like link the host calls metered and in low-data mode.
  net.set("eth0", "operstate", "up");
  service->setConstrained(true);
  service->setExpensive(true);
  fake.drain();
  EXPECT_EQ(texts(generator.internetSignals()),
            (std::vector<std::string>{
                "SignalBool(id: 62, value: false)", "SignalBool(id: 63, value: true)",
                "SignalBool(id: 424, value: true)", "SignalBool(id: 425, value: true)",
                "SignalBool(id: 405, value: true)"}));
  EXPECT_EQ(generator.isConstrained(), true);
}

TEST(InternetSignalsTest, UnreadableInterfacesAndLateMonitorsStayUnknown) {
  testing::FakePlatform fake;
  auto service = makeLinuxNetworkPathService(fake.executors, {"/nonexistent/orvane/net", 1.0});
  InternetSignalsGenerator generator(service, *fake.executors);
  fake.advance(3.0);
  EXPECT_EQ(texts(generator.internetSignals()),
            (std::vector<std::string>{"SignalBool(id: 405, value: false)"}));

  // A monitor started after the path is known hears of it; a cancelled one no longer does.
  fake.network->setPath(NetworkInterfaceKind::kAny, {true, false, true});
  auto late = std::make_unique<InternetSignalsGenerator>(fake.network, *fake.executors);
  fake.drain();
  EXPECT_EQ(texts(late->internetSignals()),
            (std::vector<std::string>{
                "SignalBool(id: 63, value: true)", "SignalBool(id: 424, value: false)",
                "SignalBool(id: 425, value: true)", "SignalBool(id: 405, value: true)"}));
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
    std::vector<std::string> out;
    for (const auto& s : signals) {
      const uint16_t id = s.id().rawValue();
      if (id == 370 || (id >= 407 && id <= 409)) out.push_back(s.description());
    }
    return out;
  };
  EXPECT_EQ(appState(generator.outputSignals()),
            (std::vector<std::string>{"SignalBool(id: 370, value: false)"}));

  fake.application->setBackgroundRefreshStatus(BackgroundRefreshStatus::kDenied);
  fake.application->setProtectedDataAvailable(false);
  const std::vector<std::string> inactive{
      "SignalBool(id: 370, value: true)", "SignalInt(id: 407, value: 1)",
      "SignalInt(id: 408, value: 1)", "SignalBool(id: 409, value: false)"};
  EXPECT_EQ(appState(onMain(generator)), inactive);

  // Off the main thread the last main-thread reading stands, even after the app changed.
  fake.application->becomeActive();
  fake.application->setProtectedDataAvailable(true);
  std::vector<std::string> cached = inactive;
  cached[0] = "SignalBool(id: 370, value: false)";
  EXPECT_EQ(appState(generator.outputSignals()), cached);
  EXPECT_EQ(appState(onMain(generator)),
            (std::vector<std::string>{
                "SignalBool(id: 370, value: true)", "SignalInt(id: 407, value: 0)",
                "SignalInt(id: 408, value: 1)", "SignalBool(id: 409, value: true)"}));
}

TEST_F(OutputSignalsTest, UnknownDeviceFactsAreLeftOutAndKnownOnesMapped) {
  auto bare = make(std::make_shared<HostDeviceService>());
  EXPECT_EQ(texts(bare.outputSignals()),
            (std::vector<std::string>{
                "SignalFloat(id: 50, value: -1)", "SignalInt(id: 51, value: 0)",
                "SignalBool(id: 55, value: false)", "SignalFloat(id: 64, value: 12.5)",
                "SignalBool(id: 370, value: false)", "SignalInt(id: 66, value: -1)"}));

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
  EXPECT_EQ(texts(full.outputSignals()),
            (std::vector<std::string>{
                "SignalFloat(id: 50, value: 0.25)", "SignalInt(id: 51, value: 2)",
                "SignalBool(id: 52, value: true)", "SignalFloat(id: 53, value: 0.5)",
                "SignalInt(id: 54, value: 0)",  // not trusted on 15.x
                "SignalBool(id: 55, value: true)", "SignalBool(id: 56, value: false)",
                "SignalBool(id: 59, value: true)", "SignalBool(id: 60, value: false)",
                "SignalBool(id: 61, value: true)", "SignalFloat(id: 64, value: 12.5)",
                "SignalBool(id: 370, value: false)", "SignalInt(id: 66, value: 1)",
                "SignalInt(id: 67, value: 3)", "SignalInt(id: 69, value: 0)",
                "SignalInt(id: 401, value: 1)", "SignalInt(id: 400, value: 2)",
                "SignalInt(id: 68, value: -1)"}));  // unspecified style

  device->update([](DeviceFacts& f) {
    f.systemVersion = "16.0";
    f.mainScreen.interfaceStyle = 2;
  });
  auto again = full.outputSignals();
  EXPECT_EQ(again[4].description(), "SignalInt(id: 54, value: 2)");
  EXPECT_EQ(again.back().description(), "SignalInt(id: 68, value: 2)");
  device->update([](DeviceFacts& f) { f.mainScreen.interfaceStyle = 7; });
  EXPECT_EQ(full.outputSignals().back().description(), "SignalInt(id: 400, value: 2)");
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
  ContextManager manager(fake.platform);
  fake.application->becomeActive();  // the launch activation
  fake.drain();
  auto reactivate = [&] {
    fake.application->resignActive();
    fake.drain();
    fake.application->becomeActive();
    fake.drain();
  };
  const std::vector<std::string> first{
      "SignalInt(id: 700, value: 3)", "SignalInt(id: 701, value: 0)",
      "SignalInt(id: 702, value: 0)", "SignalInt(id: 703, value: 0)",
      "SignalInt(id: 704, value: 2)", "SignalInt(id: 705, value: 0)",
      "SignalInt(id: 706, value: 0)", "SignalInt(id: 707, value: 0)",
      "SignalInt(id: 708, value: 0)", "SignalInt(id: 711, value: 1)",
      "SignalInt(id: 712, value: 2)", "SignalBool(id: 713, value: true)",
      "SignalInt(id: 710, value: 1)"};  // only the later settings the system has
  EXPECT_EQ(texts(manager.pushSettingsSignalGenerator().pushSettingsSignals()), first);

  settings.authorizationStatus = NotificationAuthorizationStatus::kDenied;
  fake.notifications->setSettings(settings);
  EXPECT_EQ(texts(manager.pushSettingsSignalGenerator().pushSettingsSignals()), first);
  reactivate();
  EXPECT_EQ(manager.pushSettingsSignalGenerator().pushSettingsSignals().front().description(),
            "SignalInt(id: 700, value: 1)");

  fake.notifications->setSettings(std::nullopt);
  reactivate();
  EXPECT_TRUE(manager.pushSettingsSignalGenerator().pushSettingsSignals().empty());
  EXPECT_TRUE(PushSettingsSignalGenerator(nullptr).pushSettingsSignals().empty());
}

}  // namespace
}  // namespace orvane

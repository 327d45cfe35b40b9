#include "generators/OutputSignalsGenerator.h"

#include <string>

namespace orvane {
namespace {

// Releases 15.x reported a thermal state that did not follow the device, so it reads as
// nominal there.
bool thermalStateIsUnreliable(const std::optional<std::string>& systemVersion) {
  return systemVersion && (*systemVersion == "15" || systemVersion->starts_with("15."));
}

}  // namespace

OutputSignalsGenerator::OutputSignalsGenerator(Dependencies dependencies)
    : deps_(std::move(dependencies)) {
  if (!deps_.device) deps_.device = std::make_shared<HostDeviceService>();
}

SignalList OutputSignalsGenerator::outputSignals() {
  const DeviceService& device = *deps_.device;
  const bool onMainThread = deps_.mainQueue && deps_.mainQueue->isCurrent();
  SignalList signals;
  signals.reserve(24);
  auto addBool = [&](SignalEnum id, const std::optional<bool>& value) {
    if (value) signals.push_back(SignalBool(id, *value));
  };
  auto addInt = [&](SignalEnum id, const std::optional<int64_t>& value) {
    if (value) signals.push_back(SignalInt(id, *value));
  };

  const BatteryStatus battery = device.battery();
  signals.push_back(SignalFloat(SignalEnum::id(50), battery.level.value_or(-1.0f)));
  signals.push_back(SignalInt(SignalEnum::id(51), static_cast<int64_t>(battery.state)));
  addBool(SignalEnum::id(52), device.isLowPowerModeEnabled());
  const ScreenInfo screen = device.mainScreen();
  if (screen.brightness) signals.push_back(SignalFloat(SignalEnum::id(53), *screen.brightness));
  if (auto thermal = device.thermalState()) {
    int64_t value = static_cast<int64_t>(*thermal);
    if (value > 3 || thermalStateIsUnreliable(device.systemVersion())) value = 0;
    signals.push_back(SignalInt(SignalEnum::id(54), value));
  }
  const DeviceOrientation orientation = device.orientation();
  signals.push_back(
      SignalBool(SignalEnum::id(55), orientation == DeviceOrientation::kLandscapeLeft ||
                                         orientation == DeviceOrientation::kLandscapeRight));
  addBool(SignalEnum::id(56), screen.isCaptured);
  const AudioSessionInfo audio = device.audioSession();
  addBool(SignalEnum::id(59), audio.isOtherAudioPlaying);
  addBool(SignalEnum::id(60), audio.secondaryAudioShouldBeSilencedHint);
  addBool(SignalEnum::id(61), audio.allowHapticsAndSystemSoundsDuringRecording);
  if (deps_.sessionSeconds) {
    if (auto seconds = deps_.sessionSeconds()) {
      signals.push_back(SignalFloat(SignalEnum::id(64), static_cast<float>(*seconds)));
    }
  }
  signals.push_back(SignalBool(SignalEnum::id(370), onMainThread));

  std::optional<int64_t> applicationState;
  std::optional<int64_t> refreshStatus;
  std::optional<bool> protectedData;
  if (onMainThread && deps_.application) {
    // Host code: read before taking the cache lock.
    applicationState = static_cast<int64_t>(deps_.application->applicationState());
    refreshStatus = static_cast<int64_t>(deps_.application->backgroundRefreshStatus());
    protectedData = deps_.application->isProtectedDataAvailable();
    std::lock_guard<std::mutex> guard(cacheMutex_);
    lastApplicationState_ = applicationState;
    lastBackgroundRefreshStatus_ = refreshStatus;
    lastIsProtectedDataAvailable_ = protectedData;
  } else {
    std::lock_guard<std::mutex> guard(cacheMutex_);
    applicationState = lastApplicationState_;
    refreshStatus = lastBackgroundRefreshStatus_;
    protectedData = lastIsProtectedDataAvailable_;
  }
  addInt(SignalEnum::id(407), applicationState);
  addInt(SignalEnum::id(408), refreshStatus);
  addBool(SignalEnum::id(409), protectedData);

  signals.push_back(
      SignalInt(SignalEnum::id(66), static_cast<int64_t>(device.userInterfaceIdiom())));
  // A negative status does not exist; one would be a bridge's mistake, not a fact.
  if (auto tracking = device.trackingAuthorizationStatus(); tracking && *tracking >= 0) {
    signals.push_back(SignalInt(SignalEnum::id(67), *tracking));
  }
  addInt(SignalEnum::id(69), screen.layoutDirection);
  addInt(SignalEnum::id(401), screen.verticalSizeClass);
  addInt(SignalEnum::id(400), screen.horizontalSizeClass);
  // Raw styles: 0 unspecified, 1 light, 2 dark. A style added later ends the list.
  if (screen.interfaceStyle) {
    switch (*screen.interfaceStyle) {
      case 0:
        signals.push_back(SignalInt(SignalEnum::id(68), -1));
        break;
      case 1:
      case 2:
        signals.push_back(SignalInt(SignalEnum::id(68), *screen.interfaceStyle));
        break;
      default:
        break;
    }
  }
  return signals;
}

}  // namespace orvane

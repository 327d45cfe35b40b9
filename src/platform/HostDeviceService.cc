// A device described by its host.
#include "orvane/platform/DeviceService.h"

namespace orvane {

DeviceFacts HostDeviceService::facts() const {
  return read([](const DeviceFacts& f) { return f; });
}

void HostDeviceService::update(const std::function<void(DeviceFacts&)>& change) {
  std::lock_guard<std::mutex> guard(mutex_);
  change(facts_);
}

std::optional<std::string> HostDeviceService::machineIdentifier() const {
  return read([](const DeviceFacts& f) { return f.machineIdentifier; });
}
std::optional<std::string> HostDeviceService::simulatedModelIdentifier() const {
  return read([](const DeviceFacts& f) { return f.simulatedModelIdentifier; });
}
std::optional<std::string> HostDeviceService::modelName() const {
  return read([](const DeviceFacts& f) { return f.modelName; });
}
std::optional<std::string> HostDeviceService::systemVersion() const {
  return read([](const DeviceFacts& f) { return f.systemVersion; });
}
UserInterfaceIdiom HostDeviceService::userInterfaceIdiom() const {
  return read([](const DeviceFacts& f) { return f.userInterfaceIdiom; });
}
std::optional<uint64_t> HostDeviceService::physicalMemoryBytes() const {
  return read([](const DeviceFacts& f) { return f.physicalMemoryBytes; });
}
std::optional<int64_t> HostDeviceService::activeProcessorCount() const {
  return read([](const DeviceFacts& f) { return f.activeProcessorCount; });
}
LocaleInfo HostDeviceService::currentLocale() const {
  return read([](const DeviceFacts& f) { return f.locale; });
}
BatteryStatus HostDeviceService::battery() const {
  return read([](const DeviceFacts& f) { return f.battery.value_or(BatteryStatus{}); });
}
std::optional<bool> HostDeviceService::isLowPowerModeEnabled() const {
  return read([](const DeviceFacts& f) { return f.isLowPowerModeEnabled; });
}
std::optional<ThermalState> HostDeviceService::thermalState() const {
  return read([](const DeviceFacts& f) { return f.thermalState; });
}
DeviceOrientation HostDeviceService::orientation() const {
  return read([](const DeviceFacts& f) { return f.orientation; });
}
ScreenInfo HostDeviceService::mainScreen() const {
  return read([](const DeviceFacts& f) { return f.mainScreen; });
}
AudioSessionInfo HostDeviceService::audioSession() const {
  return read([](const DeviceFacts& f) { return f.audioSession; });
}
std::optional<int64_t> HostDeviceService::trackingAuthorizationStatus() const {
  return read([](const DeviceFacts& f) { return f.trackingAuthorizationStatus; });
}

}  // namespace orvane

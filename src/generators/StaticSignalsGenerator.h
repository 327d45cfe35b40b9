// File: StaticSignalsGenerator.h
// Signals of the installation and the device that change rarely or never in a process:
// versions, bundle, locale and time zone, model and screen size, system, memory, processors,
// host platform, install environment and market tier.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "device/Device.h"
#include "device/HostPlatform.h"
#include "generators/LocaleTiers.h"
#include "orvane/ContextManager.h"
#include "orvane/Signal.h"
#include "orvane/platform/BundleInfo.h"
#include "orvane/platform/Calendar.h"
#include "orvane/platform/DeviceService.h"
#include "util/DateProvider.h"

namespace orvane {

class StaticSignalsGenerator {
 public:
  struct Dependencies {
    std::shared_ptr<DeviceService> device;  // none: every device fact unknown
    std::shared_ptr<Calendar> calendar;     // none: the system calendar
    std::shared_ptr<DateProvider> dateProvider;
    BundleInfo bundle;
    std::string bundleIdentifier;  // "unknown" when the bundle has none
    std::string sdkVersion;
    ContextManagerIsSupported isSupported = ContextManagerIsSupported::kUnsupported;
    std::function<HostPlatform()> currentPlatform;
    LocaleTiers* localeTiers = nullptr;  // none: LocaleTiers::shared()
  };

  // Reads the device's model and idiom once: they do not change while the process runs.
  explicit StaticSignalsGenerator(Dependencies dependencies);

  // Built fresh on each call; safe on any thread. Facts the device service cannot tell leave
  // their signals out.
  SignalList staticSignals() const;

  // None when the machine name is unknown.
  const std::optional<Device>& device() const { return device_; }
  bool isPad() const { return isPad_; }
  // Physical memory narrowed to float and scaled by 1/1024 twice, truncated, as the signal
  // has always been computed. None when the memory is unknown.
  std::optional<int64_t> getTotalDeviceMemoryInMegabytes() const;
  static int64_t megabytes(uint64_t bytes);

 private:
  Dependencies deps_;
  std::optional<Device> device_;
  bool isPad_;
};

}  // namespace orvane

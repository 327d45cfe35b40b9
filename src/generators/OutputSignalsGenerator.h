// File: OutputSignalsGenerator.h
// The state of the device and the app as of now: battery, power mode, screen, thermal
// state, orientation, audio session hints, app state, idiom, traits and tracking
// authorisation.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "orvane/Signal.h"
#include "orvane/platform/ApplicationService.h"
#include "orvane/platform/DeviceService.h"
#include "orvane/platform/Executors.h"

namespace orvane {

class OutputSignalsGenerator {
 public:
  struct Dependencies {
    std::shared_ptr<DeviceService> device;            // none: every device fact unknown
    std::shared_ptr<ApplicationService> application;  // none: app state never known
    std::shared_ptr<SerialQueue> mainQueue;           // none: never on the main thread
    // Seconds into the running session while its monitoring is on (signal 64); none leaves
    // the signal out.
    std::function<std::optional<double>()> sessionSeconds;
  };

  explicit OutputSignalsGenerator(Dependencies dependencies);

  // Safe on any thread. The application's state may be read only on the main thread: there
  // it is read and cached; elsewhere the cached values are reported, and before the first
  // main-thread call they are left out. Facts the device cannot tell are left out as well.
  SignalList outputSignals();

 private:
  Dependencies deps_;
  std::mutex cacheMutex_;
  std::optional<int64_t> lastApplicationState_;
  std::optional<int64_t> lastBackgroundRefreshStatus_;
  std::optional<bool> lastIsProtectedDataAvailable_;
};

}  // namespace orvane

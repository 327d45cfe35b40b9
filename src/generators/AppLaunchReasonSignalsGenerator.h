// File: AppLaunchReasonSignalsGenerator.h
// Why the app was launched, from its launch options, reported as signal 452.
#pragma once

#include <mutex>
#include <optional>

#include "orvane/Signal.h"
#include "orvane/platform/ApplicationService.h"

namespace orvane {

class LaunchReasonHelper {
 public:
  // 1 without launch options; otherwise the code of the first key present, in the order
  // location 6, Bluetooth centrals 7, Bluetooth peripherals 8, URL 2, source application 9,
  // remote notification 3, CloudKit share 10; 0 when none of these is present.
  static int64_t determineLaunchReason(const std::optional<LaunchOptions>& launchOptions);
};

class AppLaunchReasonSignalsGenerator {
 public:
  void setLaunchReason(int64_t code);
  std::optional<int64_t> currentAppLaunchReason() const;
  // A return to the foreground after a resign is a plain user return (code 1): the cold
  // launch's reason no longer describes the session.
  void appDidBecomeActive();
  void setLastResignDate(Date date);
  std::optional<Date> lastResignDate() const;
  // One SignalInt 452 = code - 1 when a reason is known, else nothing.
  SignalList allSignals() const;

 private:
  mutable std::mutex mutex_;
  std::optional<int64_t> currentAppLaunchReason_;
  std::optional<Date> lastResignDate_;
};

}  // namespace orvane

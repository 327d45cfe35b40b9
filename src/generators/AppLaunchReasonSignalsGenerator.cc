#include "generators/AppLaunchReasonSignalsGenerator.h"

#include <utility>

namespace orvane {

int64_t LaunchReasonHelper::determineLaunchReason(const std::optional<LaunchOptions>& options) {
  if (!options) return 1;
  static constexpr std::pair<const char*, int64_t> kCodes[] = {
      {launch_option::kLocation, 6},
      {launch_option::kBluetoothCentrals, 7},
      {launch_option::kBluetoothPeripherals, 8},
      {launch_option::kUrl, 2},
      {launch_option::kSourceApplication, 9},
      {launch_option::kRemoteNotification, 3},
      {launch_option::kCloudKitShareMetadata, 10},
  };
  for (const auto& [key, code] : kCodes) {
    if (options->contains(key)) return code;
  }
  return 0;
}

void AppLaunchReasonSignalsGenerator::setLaunchReason(int64_t code) {
  std::lock_guard<std::mutex> guard(mutex_);
  currentAppLaunchReason_ = code;
}

std::optional<int64_t> AppLaunchReasonSignalsGenerator::currentAppLaunchReason() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return currentAppLaunchReason_;
}

void AppLaunchReasonSignalsGenerator::appDidBecomeActive() {
  std::lock_guard<std::mutex> guard(mutex_);
  if (lastResignDate_) currentAppLaunchReason_ = 1;
}

void AppLaunchReasonSignalsGenerator::setLastResignDate(Date date) {
  std::lock_guard<std::mutex> guard(mutex_);
  lastResignDate_ = date;
}

std::optional<Date> AppLaunchReasonSignalsGenerator::lastResignDate() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return lastResignDate_;
}

SignalList AppLaunchReasonSignalsGenerator::allSignals() const {
  std::lock_guard<std::mutex> guard(mutex_);
  if (!currentAppLaunchReason_) return {};
  return {SignalInt(SignalEnum::id(452), *currentAppLaunchReason_ - 1)};
}

}  // namespace orvane

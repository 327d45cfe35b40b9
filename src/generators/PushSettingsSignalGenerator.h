// File: PushSettingsSignalGenerator.h
// The user's notification settings for the app, as last fetched: refreshed on each
// activation, so they describe the settings as of the last return to the foreground.
#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "orvane/Signal.h"
#include "orvane/platform/NotificationSettingsService.h"

namespace orvane {

class PushSettingsSignalGenerator {
 public:
  // Without a notification service nothing is ever fetched.
  explicit PushSettingsSignalGenerator(std::shared_ptr<NotificationSettingsService> center);

  // Asks for the current settings; the answer replaces the stored ones when it arrives.
  // Call with no SDK lock held: the service may answer on this thread.
  void refreshPushSettings();
  // Empty until settings have arrived.
  SignalList pushSettingsSignals() const;

 private:
  struct State {
    mutable std::mutex mutex;
    std::optional<NotificationSettings> settings;
  };
  std::shared_ptr<NotificationSettingsService> center_;
  // Shared with answers still on their way.
  std::shared_ptr<State> state_;
};

}  // namespace orvane

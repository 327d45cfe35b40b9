#include "generators/PushSettingsSignalGenerator.h"

namespace orvane {

PushSettingsSignalGenerator::PushSettingsSignalGenerator(
    std::shared_ptr<NotificationSettingsService> center)
    : center_(std::move(center)), state_(std::make_shared<State>()) {}

void PushSettingsSignalGenerator::refreshPushSettings() {
  if (!center_) return;
  center_->getNotificationSettings([state = state_](std::optional<NotificationSettings> settings) {
    std::lock_guard<std::mutex> guard(state->mutex);
    state->settings = std::move(settings);
  });
}

SignalList PushSettingsSignalGenerator::pushSettingsSignals() const {
  std::optional<NotificationSettings> settings;
  {
    std::lock_guard<std::mutex> guard(state_->mutex);
    settings = state_->settings;
  }
  SignalList signals;
  if (!settings) return signals;
  const NotificationSettings& s = *settings;
  auto add = [&](SignalEnum id, auto raw) {
    signals.push_back(SignalInt(id, static_cast<int64_t>(raw)));
  };
  auto addIfPresent = [&](SignalEnum id, const std::optional<NotificationSetting>& setting) {
    if (setting) add(id, *setting);
  };
  add(SignalEnum::id(700), s.authorizationStatus);
  add(SignalEnum::id(701), s.notificationCenterSetting);
  add(SignalEnum::id(702), s.lockScreenSetting);
  add(SignalEnum::id(703), s.carPlaySetting);
  add(SignalEnum::id(704), s.alertSetting);
  add(SignalEnum::id(705), s.badgeSetting);
  add(SignalEnum::id(706), s.soundSetting);
  add(SignalEnum::id(707), s.criticalAlertSetting);
  add(SignalEnum::id(708), s.announcementSetting);
  add(SignalEnum::id(711), s.alertStyle);
  add(SignalEnum::id(712), s.showPreviewsSetting);
  signals.push_back(SignalBool(SignalEnum::id(713), s.providesAppNotificationSettings));
  addIfPresent(SignalEnum::id(714), s.directMessagesSetting);
  addIfPresent(SignalEnum::id(709), s.scheduledDeliverySetting);
  addIfPresent(SignalEnum::id(710), s.timeSensitiveSetting);
  return signals;
}

}  // namespace orvane

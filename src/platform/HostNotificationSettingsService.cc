// Notification settings stated by the host.
#include "orvane/platform/NotificationSettingsService.h"

namespace orvane {

void HostNotificationSettingsService::getNotificationSettings(
    NotificationSettingsCompletion completion) {
  std::optional<NotificationSettings> settings;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    settings = settings_;
  }
  if (completion) completion(std::move(settings));
}

void HostNotificationSettingsService::setSettings(std::optional<NotificationSettings> settings) {
  std::lock_guard<std::mutex> guard(mutex_);
  settings_ = std::move(settings);
}

}  // namespace orvane

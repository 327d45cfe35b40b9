// File: NotificationSettingsService.h
// The user's notification settings for the host app, as the platform's notification center
// reports them. Raw values are the mobile platforms' own.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "orvane/Export.h"

namespace orvane {

enum class NotificationAuthorizationStatus : int {
  kNotDetermined = 0,
  kDenied = 1,
  kAuthorized = 2,
  kProvisional = 3,
  kEphemeral = 4,
};
enum class NotificationSetting : int { kNotSupported = 0, kDisabled = 1, kEnabled = 2 };
enum class NotificationAlertStyle : int { kNone = 0, kBanner = 1, kAlert = 2 };
enum class NotificationPreviewsSetting : int { kAlways = 0, kWhenAuthenticated = 1, kNever = 2 };

struct ORVANE_API NotificationSettings {
  NotificationAuthorizationStatus authorizationStatus =
      NotificationAuthorizationStatus::kNotDetermined;
  NotificationSetting notificationCenterSetting = NotificationSetting::kNotSupported;
  NotificationSetting lockScreenSetting = NotificationSetting::kNotSupported;
  NotificationSetting carPlaySetting = NotificationSetting::kNotSupported;
  NotificationSetting alertSetting = NotificationSetting::kNotSupported;
  NotificationSetting badgeSetting = NotificationSetting::kNotSupported;
  NotificationSetting soundSetting = NotificationSetting::kNotSupported;
  NotificationSetting criticalAlertSetting = NotificationSetting::kNotSupported;
  NotificationSetting announcementSetting = NotificationSetting::kNotSupported;
  NotificationAlertStyle alertStyle = NotificationAlertStyle::kNone;
  NotificationPreviewsSetting showPreviewsSetting = NotificationPreviewsSetting::kAlways;
  bool providesAppNotificationSettings = false;
  // Absent on systems that predate them.
  std::optional<NotificationSetting> directMessagesSetting;
  std::optional<NotificationSetting> scheduledDeliverySetting;
  std::optional<NotificationSetting> timeSensitiveSetting;
  bool operator==(const NotificationSettings&) const = default;
};

using NotificationSettingsCompletion = std::function<void(std::optional<NotificationSettings>)>;

class ORVANE_API NotificationSettingsService {
 public:
  virtual ~NotificationSettingsService() = default;
  // Asks for the current settings. `completion` runs once, on any thread (possibly the
  // caller's, before this returns), with none when they cannot be read.
  virtual void getNotificationSettings(NotificationSettingsCompletion completion) = 0;
};

// Settings stated by the host (Linux has no notification center); safe from any thread.
// Answers at once on the caller's thread.
class ORVANE_API HostNotificationSettingsService : public NotificationSettingsService {
 public:
  explicit HostNotificationSettingsService(std::optional<NotificationSettings> settings = {})
      : settings_(settings) {}
  void getNotificationSettings(NotificationSettingsCompletion completion) override;
  void setSettings(std::optional<NotificationSettings> settings);

 private:
  std::mutex mutex_;
  std::optional<NotificationSettings> settings_;
};

}  // namespace orvane

// The platform services a host drives, reached through the shared manager's platform. A
// service the platform did not make host-driven cannot take the host's values: that is logged
// once per service, and the call does nothing.
#include <mutex>

#include "capi/CApi.h"

namespace orvane::capi {
namespace {

// The shared manager's service of type `Host`, or none (logged the first time).
template <typename Host, typename Service>
std::shared_ptr<Host> hostService(const std::shared_ptr<Service>& service, const char* function,
                                  const char* what, std::once_flag& reported) {
  auto host = std::dynamic_pointer_cast<Host>(service);
  if (!host) {
    std::call_once(reported, [&] {
      logLine(LogLevel::kError, std::string("[Orvane] ") + function + ": the platform's " + what +
                                    " is not driven by the host; ignored.");
    });
  }
  return host;
}

std::shared_ptr<HostApplicationService> application(const char* function) {
  static std::once_flag reported;
  return hostService<HostApplicationService>(sharedManager().platform().application, function,
                                             "application service", reported);
}

template <typename Fn>
void withApplication(const char* function, Fn&& fn) {
  guardedVoid(function, [&] {
    if (auto service = application(function)) fn(*service);
  });
}

MotionVector vector(const orvane_vector3& v) { return MotionVector{v.x, v.y, v.z}; }

std::optional<bool> tristate(const orvane_tristate& value) {
  const int raw = cValue(value);
  if (raw == ORVANE_YES) return true;
  if (raw == ORVANE_NO) return false;
  return std::nullopt;
}

std::optional<NotificationSetting> optionalSetting(int32_t raw) {
  if (raw < 0) return std::nullopt;
  return static_cast<NotificationSetting>(raw);
}

}  // namespace
// Defined in the namespace for its names; C linkage makes them the functions orvane.h
// declares. GCC does not carry the header's visibility over to a definition in another
// namespace, so each definition repeats ORVANE_API.
extern "C" {

// ---- Lifecycle ----------------------------------------------------------------------------

ORVANE_API void orvane_application_did_become_active(void) {
  withApplication("orvane_application_did_become_active",
                  [](HostApplicationService& app) { app.becomeActive(); });
}

ORVANE_API void orvane_application_will_resign_active(void) {
  withApplication("orvane_application_will_resign_active",
                  [](HostApplicationService& app) { app.resignActive(); });
}

ORVANE_API void orvane_application_did_enter_background(void) {
  withApplication("orvane_application_did_enter_background",
                  [](HostApplicationService& app) { app.enterBackground(); });
}

ORVANE_API void orvane_application_set_background_refresh_status(int32_t status) {
  withApplication("orvane_application_set_background_refresh_status",
                  [&](HostApplicationService& app) {
                    app.setBackgroundRefreshStatus(static_cast<BackgroundRefreshStatus>(status));
                  });
}

ORVANE_API void orvane_application_set_protected_data_available(bool available) {
  withApplication("orvane_application_set_protected_data_available",
                  [&](HostApplicationService& app) { app.setProtectedDataAvailable(available); });
}

// ---- Motion -------------------------------------------------------------------------------

ORVANE_API bool orvane_push_device_motion(const orvane_device_motion* motion) {
  constexpr const char* kFunction = "orvane_push_device_motion";
  if (!present(motion, kFunction, "motion")) return false;
  return guarded(kFunction, false, [&] {
    static std::once_flag reported;
    auto service = hostService<HostMotionService>(sharedManager().platform().motion, kFunction,
                                                  "motion service", reported);
    if (!service) return false;
    DeviceMotion update;
    update.userAcceleration = vector(motion->user_acceleration);
    update.rotationRate = vector(motion->rotation_rate);
    update.attitude = AttitudeData{motion->roll, motion->pitch, motion->yaw};
    update.gravity = vector(motion->gravity);
    update.timestamp = motion->timestamp;
    return service->push(update);
  });
}

// ---- Device, network, notifications -------------------------------------------------------

ORVANE_API bool orvane_update_device_facts(const char* facts_json) {
  constexpr const char* kFunction = "orvane_update_device_facts";
  if (!present(facts_json, kFunction, "facts")) return false;
  return guarded(kFunction, false, [&] {
    static std::once_flag reported;
    auto service = hostService<HostDeviceService>(sharedManager().platform().device, kFunction,
                                                  "device service", reported);
    if (!service) return false;
    std::string error;
    std::string unknownKeys;
    bool merged = false;
    // Merged under the service's lock: a concurrent update is neither lost nor half applied.
    service->update([&](DeviceFacts& facts) {
      merged = mergeDeviceFacts(facts_json, facts, error, unknownKeys);
    });
    if (!unknownKeys.empty()) {
      logLine(LogLevel::kError,
              std::string("[Orvane] ") + kFunction + ": unknown keys " + unknownKeys + " skipped.");
    }
    if (!merged) {
      logLine(LogLevel::kError,
              std::string("[Orvane] ") + kFunction + ": " + error + "; nothing changed.");
    }
    return merged;
  });
}

ORVANE_API void orvane_set_network_path(orvane_network_interface kind, bool is_satisfied,
                                        orvane_tristate is_constrained,
                                        orvane_tristate is_expensive) {
  constexpr const char* kFunction = "orvane_set_network_path";
  guardedVoid(kFunction, [&] {
    const int raw = cValue(kind);
    if (raw != ORVANE_NETWORK_ANY && raw != ORVANE_NETWORK_WIFI) {
      logLine(LogLevel::kError, std::string("[Orvane] ") + kFunction + ": interface kind " +
                                    std::to_string(raw) + " is unknown; ignored.");
      return;
    }
    static std::once_flag reported;
    auto service = hostService<HostNetworkPathService>(sharedManager().platform().network,
                                                       kFunction, "network path service", reported);
    if (!service) return;
    service->setPath(
        raw == ORVANE_NETWORK_WIFI ? NetworkInterfaceKind::kWiFi : NetworkInterfaceKind::kAny,
        NetworkPath{is_satisfied, tristate(is_constrained), tristate(is_expensive)});
  });
}

ORVANE_API void orvane_set_notification_settings(const orvane_notification_settings* settings) {
  constexpr const char* kFunction = "orvane_set_notification_settings";
  guardedVoid(kFunction, [&] {
    static std::once_flag reported;
    auto service = hostService<HostNotificationSettingsService>(
        sharedManager().platform().notifications, kFunction, "notification settings service",
        reported);
    if (!service) return;
    if (settings == nullptr) {
      service->setSettings(std::nullopt);
      return;
    }
    const orvane_notification_settings& s = *settings;
    const auto setting = [](int32_t raw) { return static_cast<NotificationSetting>(raw); };
    NotificationSettings value;
    value.authorizationStatus =
        static_cast<NotificationAuthorizationStatus>(s.authorization_status);
    value.notificationCenterSetting = setting(s.notification_center_setting);
    value.lockScreenSetting = setting(s.lock_screen_setting);
    value.carPlaySetting = setting(s.car_play_setting);
    value.alertSetting = setting(s.alert_setting);
    value.badgeSetting = setting(s.badge_setting);
    value.soundSetting = setting(s.sound_setting);
    value.criticalAlertSetting = setting(s.critical_alert_setting);
    value.announcementSetting = setting(s.announcement_setting);
    value.alertStyle = static_cast<NotificationAlertStyle>(s.alert_style);
    value.showPreviewsSetting = static_cast<NotificationPreviewsSetting>(s.show_previews_setting);
    value.providesAppNotificationSettings = s.provides_app_notification_settings;
    value.directMessagesSetting = optionalSetting(s.direct_messages_setting);
    value.scheduledDeliverySetting = optionalSetting(s.scheduled_delivery_setting);
    value.timeSensitiveSetting = optionalSetting(s.time_sensitive_setting);
    service->setSettings(value);
  });
}

}  // extern "C"

}  // namespace orvane::capi

// File: ApplicationService.h
// The host application's state and lifecycle. On Linux the host drives it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "orvane/Export.h"
#include "orvane/PlistValue.h"
#include "orvane/platform/Executors.h"

namespace orvane {

enum class ApplicationState { kActive = 0, kInactive = 1, kBackground = 2 };
enum class BackgroundRefreshStatus { kRestricted = 0, kDenied = 1, kAvailable = 2 };

// Launch options keyed by the platform-neutral names below.
using LaunchOptions = std::map<std::string, PlistValue>;
namespace launch_option {
inline constexpr const char* kUrl = "url";
inline constexpr const char* kSourceApplication = "sourceApplication";
inline constexpr const char* kRemoteNotification = "remoteNotification";
inline constexpr const char* kLocation = "location";
inline constexpr const char* kBluetoothCentrals = "bluetoothCentrals";
inline constexpr const char* kBluetoothPeripherals = "bluetoothPeripherals";
inline constexpr const char* kCloudKitShareMetadata = "cloudKitShareMetadata";
inline constexpr const char* kShortcutItem = "shortcutItem";
inline constexpr const char* kUserActivity = "userActivity";
}  // namespace launch_option

struct ORVANE_API LifecycleObserver {
  std::function<void()> didBecomeActive;
  std::function<void()> willResignActive;
};

class ORVANE_API ApplicationService {
 public:
  virtual ~ApplicationService() = default;
  virtual ApplicationState applicationState() const = 0;
  virtual BackgroundRefreshStatus backgroundRefreshStatus() const = 0;
  virtual bool isProtectedDataAvailable() const = 0;
  // Observers are called on the main queue. Returns a token for removeObserver.
  virtual int addObserver(LifecycleObserver observer) = 0;
  virtual void removeObserver(int token) = 0;
};

// The Linux application: the host says when the app becomes active or resigns, and sets the
// other facts. Notifications are posted to the main queue, as the platform posts them.
// Own it through a shared_ptr: a notification still queued when the service goes away then
// finds it gone instead of touching freed memory.
class ORVANE_API HostApplicationService
    : public ApplicationService,
      public std::enable_shared_from_this<HostApplicationService> {
 public:
  explicit HostApplicationService(std::shared_ptr<SerialQueue> mainQueue,
                                  ApplicationState initialState = ApplicationState::kActive);

  ApplicationState applicationState() const override;
  BackgroundRefreshStatus backgroundRefreshStatus() const override;
  bool isProtectedDataAvailable() const override;
  int addObserver(LifecycleObserver observer) override;
  void removeObserver(int token) override;

  // Host controls.
  void becomeActive();
  void resignActive();
  void enterBackground();
  void setBackgroundRefreshStatus(BackgroundRefreshStatus status);
  void setProtectedDataAvailable(bool available);

 private:
  void post(bool becameActive);

  std::shared_ptr<SerialQueue> mainQueue_;
  mutable std::mutex mutex_;
  ApplicationState state_;
  BackgroundRefreshStatus refreshStatus_ = BackgroundRefreshStatus::kAvailable;
  bool protectedDataAvailable_ = true;
  int nextToken_ = 1;
  std::map<int, LifecycleObserver> observers_;
};

}  // namespace orvane

// File: Platform.h
// Every service of the outside world the SDK uses, in one bundle.
#pragma once

#include <memory>
#include <string>

#include "orvane/platform/ApplicationService.h"
#include "orvane/platform/BundleInfo.h"
#include "orvane/platform/Calendar.h"
#include "orvane/platform/Clock.h"
#include "orvane/platform/Crypto.h"
#include "orvane/platform/DeviceService.h"
#include "orvane/platform/Executors.h"
#include "orvane/platform/FileSystem.h"
#include "orvane/platform/HttpTransport.h"
#include "orvane/platform/KeyValueStore.h"
#include "orvane/platform/ModelRuntime.h"
#include "orvane/platform/MotionService.h"
#include "orvane/platform/NetworkPathService.h"
#include "orvane/platform/NotificationSettingsService.h"
#include "orvane/platform/RandomSource.h"
#include "orvane/platform/SystemLog.h"

namespace orvane {

struct Platform {
  std::shared_ptr<Clock> clock;
  std::shared_ptr<Calendar> calendar;
  std::shared_ptr<RandomSource> random;
  std::shared_ptr<KeyValueStoreProvider> keyValueStores;
  std::shared_ptr<FileSystem> fileSystem;
  std::shared_ptr<SystemLog> log;
  std::shared_ptr<Executors> executors;
  std::shared_ptr<Crypto> crypto;
  std::shared_ptr<HttpTransport> http;
  std::shared_ptr<ApplicationService> application;
  std::shared_ptr<MotionService> motion;
  std::shared_ptr<DeviceService> device;
  std::shared_ptr<NetworkPathService> network;
  std::shared_ptr<NotificationSettingsService> notifications;
  std::shared_ptr<ModelRuntime> modelRuntime;
  BundleInfo bundle;

  // The Linux platform. Data lives in $ORVANE_DATA_DIR, else $XDG_DATA_HOME/orvane, else
  // ~/.local/share/orvane. Motion is replayed (see setDefaultMotionTrace). The network is a
  // LinuxNetworkPathService (the host states low-data mode and metered links through it) and
  // the notification settings a HostNotificationSettingsService.
  static Platform defaultPlatform();
  static std::string defaultDataDirectory();
  // The motion-trace file that default platforms made from now on replay; an empty path
  // means $ORVANE_MOTION_TRACE, and without it a device lying still. Call it before the
  // first ContextManager call for the shared manager to use it.
  static void setDefaultMotionTrace(std::string path);
  // The folder holding the SDK's resource bundle ("Orvane.bundle", the activity models) that
  // default platforms use as `bundle.sdkResourceDirectory`. In this order: the folder given to
  // setDefaultResourceDirectory, $ORVANE_RESOURCE_DIR, then the first of these that holds the
  // bundle: the running program's folder, "../share/orvane" beside it, the source tree's
  // "resources" folder (programs run from a build tree). Empty when there is none.
  static std::string defaultResourceDirectory();
  // For hosts that move the bundle; call it before the first ContextManager call.
  static void setDefaultResourceDirectory(std::string path);
};

}  // namespace orvane

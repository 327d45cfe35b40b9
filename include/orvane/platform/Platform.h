// File: Platform.h
// Every service of the outside world the SDK uses, in one bundle.
#pragma once

#include <memory>
#include <string>

#include "orvane/Export.h"
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

struct ORVANE_API Platform {
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

  // What ContextManager::shared() is made with when the host installed no platform: the
  // platform of the registered factory (linking liborvane_platform_linux registers the Linux
  // services), else portablePlatform(defaultDataDirectory()).
  static Platform defaultPlatform();
  using Factory = Platform (*)();
  static void setDefaultFactory(Factory factory);
  // What the core offers on its own: the system clock, calendar and entropy, threads, files
  // under `dataDirectory`, the stderr log, the portable crypto and model runtime, the default
  // motion (see setDefaultMotionTrace), and host-driven application, device, network and
  // notification services. Values live in memory only and there is no HTTP transport: a
  // host that keeps this platform installs its own `keyValueStores` and `http`.
  static Platform portablePlatform(const std::string& dataDirectory);
  // $ORVANE_DATA_DIR, else $XDG_DATA_HOME/orvane, else ~/.local/share/orvane.
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

// The services of a Linux host, wired together, and their registration as the default
// platform: a program that links this library gets them from ContextManager::shared()
// without installing anything.
#include "orvane/platform/linux/LinuxPlatform.h"

#include <cstdlib>
#include <string>

#include "platform/linux/SqliteKeyValueStore.h"

#include "platform/linux/OpenSslInit.h"

namespace orvane {

Platform makeLinuxPlatform() {
  const std::string dataDirectory = Platform::defaultDataDirectory();
  // Start from the portable services and replace what Linux does better.
  Platform platform = Platform::portablePlatform(dataDirectory);
  // The suites' reports (a damaged file set aside, writes the disk refuses) go where the SDK's
  // other lines go, so a host's log sink sees them.
  platform.keyValueStores = makeSqliteKeyValueStoreProvider(
      dataDirectory + "/defaults", [log = platform.log](std::string_view message) {
        if (log) log->error("[Orvane] " + std::string(message));
      });
  platform.crypto = makeOpenSslCrypto();
  platform.http = makeCurlHttpTransport();
  platform.device = makeLinuxDeviceService();
  platform.network = makeLinuxNetworkPathService(platform.executors);
  return platform;
}

}  // namespace orvane

// Referenced by the library's link interface (-Wl,--undefined), so that even a static link
// keeps this object and its registration.
extern "C" ORVANE_API const int orvane_platform_linux_registered = [] {
  orvane::initializeOpenSslWithoutExitHandler();
  orvane::Platform::setDefaultFactory(&orvane::makeLinuxPlatform);
  return 1;
}();

// File: LinuxPlatform.h
// The services of a Linux host (liborvane_platform_linux): libcurl, SQLite, OpenSSL and the
// facts of sysfs. Linking the library makes its platform the default one.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "orvane/Export.h"
#include "orvane/platform/Platform.h"

namespace orvane {

// Every Linux service wired together. Data lives in Platform::defaultDataDirectory(); motion
// is replayed (Platform::setDefaultMotionTrace); the network is a LinuxNetworkPathService
// (the host states low-data mode and metered links through it) and the notification
// settings a HostNotificationSettingsService.
ORVANE_API Platform makeLinuxPlatform();

// Where the Linux device service looks; tests point it at a tree of their own.
struct ORVANE_API LinuxDevicePaths {
  std::string powerSupply = "/sys/class/power_supply";
};

// This machine as far as Linux knows it: uname (machine, kernel release), physical memory,
// online processors, the locale of LC_ALL or LANG, SIMULATOR_MODEL_IDENTIFIER, and the
// battery under /sys/class/power_supply, read on each call. Screen, orientation, idiom and
// the rest stay absent until the host sets them with update(), which also overrides any
// value read from the machine (a set battery replaces the live reading).
ORVANE_API std::shared_ptr<HostDeviceService> makeLinuxDeviceService(LinuxDevicePaths paths = {});

// Where the Linux service looks and how often; tests point it at a tree of their own.
struct ORVANE_API LinuxNetworkPaths {
  std::string net = "/sys/class/net";
  double pollIntervalSeconds = 2.0;
  std::string ipv4Routes = "/proc/net/route";
  std::string ipv6Routes = "/proc/net/ipv6_route";
};

// The network of a Linux host, read from /sys/class/net and the routing tables on a serial
// queue of its own ("com.orvane.NetworkPathService") when made and then every poll
// interval. An interface counts when it is up and not loopback (operstate "up", or
// "unknown" with carrier, as tunnels and point-to-point links report). The general path is
// satisfied when a default route (IPv4 or IPv6) goes through such an interface, and unknown
// when neither routing table can be read; the Wi-Fi path is satisfied when an interface
// with a "wireless" folder is up. Low-data mode and metered links are not visible there:
// they stay unknown until the host states them.
class ORVANE_API LinuxNetworkPathService : public HostNetworkPathService {
 public:
  virtual void setConstrained(std::optional<bool> constrained) = 0;
  virtual void setExpensive(std::optional<bool> expensive) = 0;
  // Reads the interfaces again now (on the service's queue).
  virtual void refresh() = 0;
};

ORVANE_API std::shared_ptr<LinuxNetworkPathService> makeLinuxNetworkPathService(
    const std::shared_ptr<Executors>& executors, LinuxNetworkPaths paths = {});

// One SQLite file per suite under `directory` ("<suite>.sqlite").
ORVANE_API std::shared_ptr<KeyValueStoreProvider> makeSqliteKeyValueStoreProvider(
    std::string directory);

// libcurl on a small pool of worker threads.
ORVANE_API std::shared_ptr<HttpTransport> makeCurlHttpTransport(size_t workers = 2);

// OpenSSL's EVP interface.
ORVANE_API std::shared_ptr<Crypto> makeOpenSslCrypto();

}  // namespace orvane

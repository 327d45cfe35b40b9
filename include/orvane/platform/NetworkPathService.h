// File: NetworkPathService.h
// The device's network paths as path monitors see them: whether a path is usable, and
// whether it is in low-data mode or costs money. Monitors hear of every change on a queue
// of the caller's choosing.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "orvane/Export.h"
#include "orvane/platform/Executors.h"

namespace orvane {

// Which interfaces a monitor watches.
enum class NetworkInterfaceKind { kAny, kWiFi };

struct ORVANE_API NetworkPath {
  bool isSatisfied = false;  // some interface of the kind can carry traffic
  // Unknown when the platform cannot tell (a Linux host until it says).
  std::optional<bool> isConstrained;  // low-data mode
  std::optional<bool> isExpensive;    // cellular or a personal hotspot
  bool operator==(const NetworkPath&) const = default;
};

using NetworkPathHandler = std::function<void(const NetworkPath&)>;

class ORVANE_API NetworkPathService {
 public:
  virtual ~NetworkPathService() = default;
  // Runs `handler` on `queue` with the current path of `kind` once it is known, and again
  // each time it changes, until the returned handle is cancelled. A path the platform
  // cannot read is never reported.
  virtual std::shared_ptr<Cancellable> startMonitor(NetworkInterfaceKind kind,
                                                    std::shared_ptr<SerialQueue> queue,
                                                    NetworkPathHandler handler) = 0;
};

// Paths stated by their owner (a bridge forwarding the platform's monitors, a test, or the
// Linux poller below); safe to update from any thread. Own it through a shared_ptr.
class ORVANE_API HostNetworkPathService
    : public NetworkPathService,
      public std::enable_shared_from_this<HostNetworkPathService> {
 public:
  std::shared_ptr<Cancellable> startMonitor(NetworkInterfaceKind kind,
                                            std::shared_ptr<SerialQueue> queue,
                                            NetworkPathHandler handler) override;

  // Monitors of `kind` hear of the path when it differs from the last one set.
  void setPath(NetworkInterfaceKind kind, const NetworkPath& path);
  std::optional<NetworkPath> path(NetworkInterfaceKind kind) const;

 private:
  struct Monitor {
    NetworkInterfaceKind kind;
    std::shared_ptr<SerialQueue> queue;
    std::shared_ptr<NetworkPathHandler> handler;
    std::shared_ptr<std::atomic<bool>> cancelled;
  };
  static void deliver(const Monitor& monitor, const NetworkPath& path);

  mutable std::mutex mutex_;
  std::map<NetworkInterfaceKind, NetworkPath> paths_;
  std::map<int, Monitor> monitors_;
  int nextToken_ = 1;
};

}  // namespace orvane

// The network paths of a Linux host, polled from sysfs and the routing tables.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>

#include "orvane/platform/NetworkPathService.h"
#include "orvane/platform/linux/LinuxPlatform.h"
#include "platform/linux/DefaultRoutes.h"

namespace orvane {
namespace {

constexpr const char* kQueueName = "com.orvane.NetworkPathService";
constexpr const char* kLoopbackType = "772";  // ARPHRD_LOOPBACK

std::string readWord(const std::filesystem::path& file) {
  std::ifstream in(file);
  std::string word;
  in >> word;
  return word;
}

struct InterfaceScan {
  std::set<std::string> up;  // not loopback
  bool wifiUp = false;
};

// None when the folder cannot be listed: the paths are then unknown, not down.
std::optional<InterfaceScan> scanInterfaces(const std::filesystem::path& net) {
  std::error_code error;
  std::filesystem::directory_iterator it(net, error);
  if (error) return std::nullopt;
  InterfaceScan scan;
  for (; it != std::filesystem::directory_iterator(); it.increment(error)) {
    if (error) return std::nullopt;
    const std::filesystem::path dir = it->path();
    if (dir.filename() == "lo" || readWord(dir / "type") == kLoopbackType) continue;
    const std::string state = readWord(dir / "operstate");
    // Tunnels and point-to-point links do not track an operational state; their carrier
    // says whether they are connected.
    const bool up = state == "up" || (state == "unknown" && readWord(dir / "carrier") == "1");
    if (!up) continue;
    scan.up.insert(dir.filename().string());
    if (std::filesystem::exists(dir / "wireless", error) ||
        std::filesystem::exists(dir / "phy80211", error)) {
      scan.wifiUp = true;
    }
  }
  return scan;
}

class SysfsNetworkPathService : public LinuxNetworkPathService {
 public:
  SysfsNetworkPathService(std::shared_ptr<SerialQueue> queue, LinuxNetworkPaths paths)
      : queue_(std::move(queue)), paths_(std::move(paths)) {}
  ~SysfsNetworkPathService() override {
    if (timer_) timer_->cancel();
  }

  void start() {
    refresh();
    std::weak_ptr<SysfsNetworkPathService> weak = self();
    timer_ = queue_->scheduleRepeating(paths_.pollIntervalSeconds, [weak] {
      if (auto service = weak.lock()) service->read();
    });
  }

  void setConstrained(std::optional<bool> constrained) override {
    {
      std::lock_guard<std::mutex> guard(flagsMutex_);
      constrained_ = constrained;
    }
    refresh();
  }
  void setExpensive(std::optional<bool> expensive) override {
    {
      std::lock_guard<std::mutex> guard(flagsMutex_);
      expensive_ = expensive;
    }
    refresh();
  }

  void refresh() override {
    std::weak_ptr<SysfsNetworkPathService> weak = self();
    queue_->async([weak] {
      if (auto service = weak.lock()) service->read();
    });
  }

 private:
  std::shared_ptr<SysfsNetworkPathService> self() {
    return std::static_pointer_cast<SysfsNetworkPathService>(shared_from_this());
  }

  void read() {
    const auto scan = scanInterfaces(paths_.net);
    if (!scan) return;
    // Without the routing tables the internet path is unknown: an interface that is up
    // proves nothing (bridges of containers and virtual machines are up on most hosts).
    if (const auto routed =
            linux_routes::defaultRouteInterfaces(paths_.ipv4Routes, paths_.ipv6Routes)) {
      const bool connected = std::any_of(routed->begin(), routed->end(), [&](const auto& name) {
        return scan->up.count(name) != 0;
      });
      NetworkPath general{connected, std::nullopt, std::nullopt};
      {
        std::lock_guard<std::mutex> guard(flagsMutex_);
        general.isConstrained = constrained_;
        general.isExpensive = expensive_;
      }
      setPath(NetworkInterfaceKind::kAny, general);
    }
    setPath(NetworkInterfaceKind::kWiFi, NetworkPath{scan->wifiUp, std::nullopt, std::nullopt});
  }

  std::shared_ptr<SerialQueue> queue_;
  const LinuxNetworkPaths paths_;
  std::shared_ptr<Cancellable> timer_;
  std::mutex flagsMutex_;
  std::optional<bool> constrained_;
  std::optional<bool> expensive_;
};

}  // namespace

std::shared_ptr<LinuxNetworkPathService> makeLinuxNetworkPathService(
    const std::shared_ptr<Executors>& executors, LinuxNetworkPaths paths) {
  if (!(paths.pollIntervalSeconds > 0))
    paths.pollIntervalSeconds = LinuxNetworkPaths{}.pollIntervalSeconds;
  auto service = std::make_shared<SysfsNetworkPathService>(executors->makeSerialQueue(kQueueName),
                                                           std::move(paths));
  service->start();
  return service;
}

}  // namespace orvane

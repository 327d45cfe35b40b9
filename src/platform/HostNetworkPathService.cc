// Network paths stated by their owner, delivered to monitors on their own queues.
#include <atomic>

#include "orvane/platform/NetworkPathService.h"

namespace orvane {
namespace {

class MonitorHandle : public Cancellable {
 public:
  MonitorHandle(std::shared_ptr<std::atomic<bool>> cancelled, std::function<void()> remove)
      : cancelled_(std::move(cancelled)), remove_(std::move(remove)) {}
  void cancel() override {
    if (!cancelled_->exchange(true) && remove_) remove_();
  }

 private:
  std::shared_ptr<std::atomic<bool>> cancelled_;
  std::function<void()> remove_;
};

}  // namespace

void HostNetworkPathService::deliver(const Monitor& monitor, const NetworkPath& path) {
  // Posted under the service's lock, so each monitor hears of changes in the order they
  // were set; a cancelled monitor's queued deliveries are dropped.
  monitor.queue->async([handler = monitor.handler, cancelled = monitor.cancelled, path] {
    if (!cancelled->load()) (*handler)(path);
  });
}

std::shared_ptr<Cancellable> HostNetworkPathService::startMonitor(
    NetworkInterfaceKind kind, std::shared_ptr<SerialQueue> queue, NetworkPathHandler handler) {
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  if (!queue || !handler) return std::make_shared<MonitorHandle>(cancelled, nullptr);
  Monitor monitor{kind, std::move(queue), std::make_shared<NetworkPathHandler>(std::move(handler)),
                  cancelled};
  int token = 0;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    token = nextToken_++;
    auto known = paths_.find(kind);
    if (known != paths_.end()) deliver(monitor, known->second);
    monitors_.emplace(token, std::move(monitor));
  }
  std::weak_ptr<HostNetworkPathService> owner = weak_from_this();
  return std::make_shared<MonitorHandle>(cancelled, [owner, token] {
    if (auto service = owner.lock()) {
      std::lock_guard<std::mutex> guard(service->mutex_);
      service->monitors_.erase(token);
    }
  });
}

void HostNetworkPathService::setPath(NetworkInterfaceKind kind, const NetworkPath& path) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto [it, inserted] = paths_.try_emplace(kind, path);
  if (!inserted) {
    if (it->second == path) return;
    it->second = path;
  }
  for (const auto& [token, monitor] : monitors_) {
    if (monitor.kind == kind) deliver(monitor, path);
  }
}

std::optional<NetworkPath> HostNetworkPathService::path(NetworkInterfaceKind kind) const {
  std::lock_guard<std::mutex> guard(mutex_);
  auto it = paths_.find(kind);
  if (it == paths_.end()) return std::nullopt;
  return it->second;
}

}  // namespace orvane

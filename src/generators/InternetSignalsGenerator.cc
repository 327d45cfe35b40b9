#include "generators/InternetSignalsGenerator.h"

namespace orvane {

InternetSignalsGenerator::InternetSignalsGenerator(
    const std::shared_ptr<NetworkPathService>& network, Executors& executors)
    : state_(std::make_shared<State>()),
      internetQueue_(executors.makeSerialQueue("ctxInternetConnectionStatusSensorQueue")),
      wifiQueue_(executors.makeSerialQueue("ctxWiFiConnectionStatusSensorQueue")) {
  if (!network) return;
  generalMonitor_ = network->startMonitor(NetworkInterfaceKind::kAny, internetQueue_,
                                          [state = state_](const NetworkPath& path) {
                                            std::lock_guard<std::mutex> guard(state->mutex);
                                            state->internetConnected = path.isSatisfied;
                                            state->isConstrained = path.isConstrained;
                                            state->isExpensive = path.isExpensive;
                                          });
  wifiMonitor_ = network->startMonitor(NetworkInterfaceKind::kWiFi, wifiQueue_,
                                       [state = state_](const NetworkPath& path) {
                                         std::lock_guard<std::mutex> guard(state->mutex);
                                         state->wiFiConnected = path.isSatisfied;
                                       });
}

InternetSignalsGenerator::~InternetSignalsGenerator() {
  if (generalMonitor_) generalMonitor_->cancel();
  if (wifiMonitor_) wifiMonitor_->cancel();
}

SignalList InternetSignalsGenerator::internetSignals() const {
  State snapshot;
  {
    std::lock_guard<std::mutex> guard(state_->mutex);
    snapshot.wiFiConnected = state_->wiFiConnected;
    snapshot.internetConnected = state_->internetConnected;
    snapshot.isConstrained = state_->isConstrained;
    snapshot.isExpensive = state_->isExpensive;
  }
  SignalList signals;
  auto add = [&](SignalEnum id, const std::optional<bool>& value) {
    if (value) signals.push_back(SignalBool(id, *value));
  };
  add(SignalEnum::id(62), snapshot.wiFiConnected);
  add(SignalEnum::id(63), snapshot.internetConnected);
  add(SignalEnum::id(424), snapshot.isConstrained);
  add(SignalEnum::id(425), snapshot.isExpensive);
  signals.push_back(SignalBool(SignalEnum::id(405), snapshot.wiFiConnected.has_value() ||
                                                        snapshot.internetConnected.has_value()));
  return signals;
}

std::optional<bool> InternetSignalsGenerator::isConstrained() const {
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->isConstrained;
}

}  // namespace orvane

// File: InternetSignalsGenerator.h
// The latest known state of the device's network, kept by two path monitors (every
// interface, and Wi-Fi alone) that run for the generator's life, and reported with each
// context.
#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include "orvane/Signal.h"
#include "orvane/platform/Executors.h"
#include "orvane/platform/NetworkPathService.h"

namespace orvane {

class InternetSignalsGenerator {
 public:
  // Starts both monitors, each on a serial queue of its own. Without a network service
  // every path stays unknown.
  InternetSignalsGenerator(const std::shared_ptr<NetworkPathService>& network,
                           Executors& executors);
  ~InternetSignalsGenerator();
  InternetSignalsGenerator(const InternetSignalsGenerator&) = delete;
  InternetSignalsGenerator& operator=(const InternetSignalsGenerator&) = delete;

  // Safe on any thread; facts not yet reported leave their signals out.
  SignalList internetSignals() const;
  // Low-data mode of the general path; none until its monitor has reported.
  std::optional<bool> isConstrained() const;

 private:
  struct State {
    mutable std::mutex mutex;
    std::optional<bool> wiFiConnected;
    std::optional<bool> internetConnected;
    std::optional<bool> isConstrained;
    std::optional<bool> isExpensive;
  };
  // Shared with the monitors' handlers, so a delivery already queued when the generator
  // goes finds it still there.
  std::shared_ptr<State> state_;
  std::shared_ptr<SerialQueue> internetQueue_;
  std::shared_ptr<SerialQueue> wifiQueue_;
  std::shared_ptr<Cancellable> generalMonitor_;
  std::shared_ptr<Cancellable> wifiMonitor_;
};

}  // namespace orvane

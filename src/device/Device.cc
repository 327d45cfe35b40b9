// Identifier to model, and the names and diagonals signals report.
#include "device/Device.h"

#include <algorithm>

namespace orvane {
namespace {

bool isSimulatorName(std::string_view identifier) {
  return identifier == "x86_64" || identifier == "arm64";
}

std::optional<DeviceModel> lookUp(std::string_view identifier) {
  const auto table = Device::modelTable();
  auto it = std::find_if(table.begin(), table.end(),
                         [&](const DeviceModelEntry& e) { return e.identifier == identifier; });
  if (it == table.end()) return std::nullopt;
  return it->model;
}

}  // namespace

Device Device::mapToDevice(std::string_view identifier,
                           const std::optional<std::string>& simulatedIdentifier) {
  if (!isSimulatorName(identifier)) {
    return Device(false, lookUp(identifier), std::string(identifier));
  }
  // A simulator that names another simulator still simulates no model we know.
  const std::string simulated = simulatedIdentifier.value_or(std::string(identifier));
  return Device(true, isSimulatorName(simulated) ? std::nullopt : lookUp(simulated), simulated);
}

std::string Device::description() const {
  const std::string name = model_ ? std::string(model_->name) : identifier_;
  return isSimulator_ ? "Simulator (" + name + ")" : name;
}

std::string Device::safeDescription() const {
  return model_ ? std::string(model_->name) : identifier_;
}

double Device::diagonal() const { return model_ ? model_->diagonal : -1.0; }

}  // namespace orvane

// File: Device.h
// A hardware model identifier read as a model: display name and screen diagonal.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace orvane {

struct DeviceModel {
  std::string_view name;  // the vendor's display name
  double diagonal;        // inches; -1 for a device without a screen
  bool operator==(const DeviceModel&) const = default;
};

struct DeviceModelEntry {
  std::string_view identifier;
  DeviceModel model;
};

// A known model, a simulator standing in for a model, or an identifier we do not know.
class Device {
 public:
  // The simulator names ("x86_64", "arm64") give a simulator of `simulatedIdentifier`;
  // without one, the simulator's model is the machine name itself, unknown.
  static Device mapToDevice(std::string_view identifier,
                            const std::optional<std::string>& simulatedIdentifier = std::nullopt);

  // Every identifier the table knows, several per model (radio and region variants).
  static std::span<const DeviceModelEntry> modelTable();

  bool isSimulator() const { return isSimulator_; }
  // The model, or of the simulated model; none for an unknown identifier.
  const std::optional<DeviceModel>& model() const { return model_; }
  // "iPhone 15", "Simulator (iPhone 15)", or the unknown identifier.
  std::string description() const;
  // The name used in signals: a simulator's simulated model, an unknown identifier as is.
  std::string safeDescription() const;
  // Inches; the simulated model's on a simulator, -1 for an unknown identifier.
  double diagonal() const;

  bool operator==(const Device&) const = default;

 private:
  Device(bool isSimulator, std::optional<DeviceModel> model, std::string identifier)
      : isSimulator_(isSimulator), model_(model), identifier_(std::move(identifier)) {}

  bool isSimulator_;
  std::optional<DeviceModel> model_;
  std::string identifier_;  // the model's identifier (the simulated one on a simulator)
};

}  // namespace orvane

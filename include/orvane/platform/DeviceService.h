// File: DeviceService.h
// The device the app runs on: hardware, operating system, locale, battery and screen.
// A fact the platform cannot tell is absent; generators leave its signal out rather than
// report a value nobody measured.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "orvane/Export.h"

namespace orvane {

// Raw values are the mobile platforms' own, so signals and models agree across bridges.
enum class BatteryState : int { kUnknown = 0, kUnplugged = 1, kCharging = 2, kFull = 3 };

struct ORVANE_API BatteryStatus {
  std::optional<float> level;  // 0...1
  BatteryState state = BatteryState::kUnknown;
  bool operator==(const BatteryStatus&) const = default;
};

enum class DeviceOrientation : int {
  kUnknown = 0,
  kPortrait = 1,
  kPortraitUpsideDown = 2,
  kLandscapeLeft = 3,
  kLandscapeRight = 4,
  kFaceUp = 5,
  kFaceDown = 6,
};

enum class UserInterfaceIdiom : int {
  kUnspecified = -1,
  kPhone = 0,
  kPad = 1,
  kTV = 2,
  kCarPlay = 3,
  kMac = 5,
  kVision = 6,
};

enum class ThermalState : int { kNominal = 0, kFair = 1, kSerious = 2, kCritical = 3 };

struct ORVANE_API LocaleInfo {
  std::string identifier;                   // "en_US", "de_CH"
  std::optional<std::string> languageCode;  // "en"
  std::optional<std::string> regionCode;    // "US", upper case
  std::optional<std::string> currencyCode;  // "USD"
  bool usesMetricSystem = true;
  bool operator==(const LocaleInfo&) const = default;
};

// The main screen. Trait values are the platform's raw enumeration values.
struct ORVANE_API ScreenInfo {
  std::optional<double> widthPoints;
  std::optional<double> heightPoints;
  std::optional<double> scale;
  std::optional<float> brightness;  // 0...1
  std::optional<bool> isCaptured;   // recorded, mirrored or streamed
  std::optional<int64_t> interfaceStyle;
  std::optional<int64_t> layoutDirection;
  std::optional<int64_t> horizontalSizeClass;
  std::optional<int64_t> verticalSizeClass;
  bool operator==(const ScreenInfo&) const = default;
};

// Hints of the shared audio session.
struct ORVANE_API AudioSessionInfo {
  std::optional<bool> isOtherAudioPlaying;
  std::optional<bool> secondaryAudioShouldBeSilencedHint;
  std::optional<bool> allowHapticsAndSystemSoundsDuringRecording;
  bool operator==(const AudioSessionInfo&) const = default;
};

class ORVANE_API DeviceService {
 public:
  virtual ~DeviceService() = default;
  // The hardware model identifier ("iPhone15,2"); on a simulator the host's architecture.
  virtual std::optional<std::string> machineIdentifier() const = 0;
  // The model a simulator stands in for (its SIMULATOR_MODEL_IDENTIFIER).
  virtual std::optional<std::string> simulatedModelIdentifier() const = 0;
  // The kind of device by name ("iPhone", "iPad").
  virtual std::optional<std::string> modelName() const = 0;
  virtual std::optional<std::string> systemVersion() const = 0;
  virtual UserInterfaceIdiom userInterfaceIdiom() const = 0;
  virtual std::optional<uint64_t> physicalMemoryBytes() const = 0;
  virtual std::optional<int64_t> activeProcessorCount() const = 0;
  virtual LocaleInfo currentLocale() const = 0;
  // Read as of now; a bridge that must switch battery monitoring on to read it restores the
  // previous setting itself.
  virtual BatteryStatus battery() const = 0;
  virtual std::optional<bool> isLowPowerModeEnabled() const = 0;
  virtual std::optional<ThermalState> thermalState() const = 0;
  virtual DeviceOrientation orientation() const = 0;
  virtual ScreenInfo mainScreen() const = 0;
  virtual AudioSessionInfo audioSession() const = 0;
  // The app's tracking authorisation (0 not determined, 1 restricted, 2 denied,
  // 3 authorized).
  virtual std::optional<int64_t> trackingAuthorizationStatus() const = 0;
};

// Everything a host can state about its device.
struct ORVANE_API DeviceFacts {
  std::optional<std::string> machineIdentifier;
  std::optional<std::string> simulatedModelIdentifier;
  std::optional<std::string> modelName;
  std::optional<std::string> systemVersion;
  UserInterfaceIdiom userInterfaceIdiom = UserInterfaceIdiom::kUnspecified;
  std::optional<uint64_t> physicalMemoryBytes;
  std::optional<int64_t> activeProcessorCount;
  LocaleInfo locale;
  // Absent: the platform's own reading (none on a plain host service).
  std::optional<BatteryStatus> battery;
  std::optional<bool> isLowPowerModeEnabled;
  std::optional<ThermalState> thermalState;
  DeviceOrientation orientation = DeviceOrientation::kUnknown;
  ScreenInfo mainScreen;
  AudioSessionInfo audioSession;
  std::optional<int64_t> trackingAuthorizationStatus;
};

// A device described entirely by its host; safe to update from any thread.
class ORVANE_API HostDeviceService : public DeviceService {
 public:
  explicit HostDeviceService(DeviceFacts facts = {}) : facts_(std::move(facts)) {}

  DeviceFacts facts() const;
  void update(const std::function<void(DeviceFacts&)>& change);

  std::optional<std::string> machineIdentifier() const override;
  std::optional<std::string> simulatedModelIdentifier() const override;
  std::optional<std::string> modelName() const override;
  std::optional<std::string> systemVersion() const override;
  UserInterfaceIdiom userInterfaceIdiom() const override;
  std::optional<uint64_t> physicalMemoryBytes() const override;
  std::optional<int64_t> activeProcessorCount() const override;
  LocaleInfo currentLocale() const override;
  BatteryStatus battery() const override;
  std::optional<bool> isLowPowerModeEnabled() const override;
  std::optional<ThermalState> thermalState() const override;
  DeviceOrientation orientation() const override;
  ScreenInfo mainScreen() const override;
  AudioSessionInfo audioSession() const override;
  std::optional<int64_t> trackingAuthorizationStatus() const override;

 protected:
  template <typename Fn>
  auto read(Fn&& fn) const {
    std::lock_guard<std::mutex> guard(mutex_);
    return fn(facts_);
  }

 private:
  mutable std::mutex mutex_;
  DeviceFacts facts_;
};

}  // namespace orvane

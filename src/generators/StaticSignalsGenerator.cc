#include "generators/StaticSignalsGenerator.h"

#include "generators/AppInstallationEnvironmentHelper.h"
#include "models/ContextDictionaryFeatureProvider.h"

namespace orvane {

StaticSignalsGenerator::StaticSignalsGenerator(Dependencies dependencies)
    : deps_(std::move(dependencies)) {
  if (!deps_.device) deps_.device = std::make_shared<HostDeviceService>();
  if (!deps_.localeTiers) deps_.localeTiers = &LocaleTiers::shared();
  if (!deps_.calendar) deps_.calendar = makeSystemCalendar();
  if (auto identifier = deps_.device->machineIdentifier()) {
    device_ = Device::mapToDevice(*identifier, deps_.device->simulatedModelIdentifier());
  }
  const auto modelName = deps_.device->modelName();
  isPad_ = deps_.device->userInterfaceIdiom() == UserInterfaceIdiom::kPad ||
           (modelName && modelName->find("iPad") != std::string::npos);
}

int64_t StaticSignalsGenerator::megabytes(uint64_t bytes) {
  const float kibibyte = 1.0f / 1024.0f;
  return static_cast<int64_t>(static_cast<float>(bytes) * kibibyte * kibibyte);
}

std::optional<int64_t> StaticSignalsGenerator::getTotalDeviceMemoryInMegabytes() const {
  auto bytes = deps_.device->physicalMemoryBytes();
  if (!bytes) return std::nullopt;
  return megabytes(*bytes);
}

SignalList StaticSignalsGenerator::staticSignals() const {
  const DeviceService& device = *deps_.device;
  const double now = deps_.dateProvider->currentDate().secondsSince1970;
  const LocaleInfo locale = device.currentLocale();
  SignalList signals;
  signals.reserve(22);
  auto addText = [&](SignalEnum id, const std::optional<std::string>& text) {
    if (text) signals.push_back(SignalString(id, *text));
  };
  auto nonEmpty = [](const std::string& text) -> std::optional<std::string> {
    if (text.empty()) return std::nullopt;
    return text;
  };

  signals.push_back(SignalString(SignalEnum::id(1), deps_.sdkVersion));
  signals.push_back(SignalString(SignalEnum::id(2), defaultDecimalText(now)));
  addText(SignalEnum::id(4), nonEmpty(deps_.bundle.buildVersion));
  addText(SignalEnum::id(5), nonEmpty(deps_.bundle.shortVersion));
  signals.push_back(SignalString(SignalEnum::id(6), deps_.bundleIdentifier));
  signals.push_back(SignalString(SignalEnum::id(30), locale.identifier));
  signals.push_back(SignalString(SignalEnum::id(31), deps_.calendar->timeZoneIdentifier()));
  signals.push_back(SignalBool(SignalEnum::id(32), locale.usesMetricSystem));
  addText(SignalEnum::id(33), locale.languageCode);
  addText(SignalEnum::id(34), locale.regionCode);
  addText(SignalEnum::id(35), deps_.calendar->timeZoneAbbreviation(now));
  addText(SignalEnum::id(36), locale.currencyCode);
  signals.push_back(SignalInt(SignalEnum::id(7),
                              deps_.isSupported == ContextManagerIsSupported::kSupported ? 3 : 1));
  if (device_) {
    signals.push_back(SignalString(SignalEnum::id(37), device_->safeDescription()));
    signals.push_back(SignalFloat(SignalEnum::id(38), static_cast<float>(device_->diagonal())));
  }
  addText(SignalEnum::id(39), device.systemVersion());
  signals.push_back(SignalBool(SignalEnum::id(40), isPad_));
  if (auto memory = getTotalDeviceMemoryInMegabytes()) {
    signals.push_back(SignalInt(SignalEnum::id(41), *memory));
  }
  if (auto processors = device.activeProcessorCount()) {
    signals.push_back(SignalInt(SignalEnum::id(42), *processors));
  }
  const HostPlatform platform =
      deps_.currentPlatform ? deps_.currentPlatform() : HostPlatform::kNative;
  signals.push_back(SignalInt(SignalEnum::id(43), static_cast<int64_t>(platform)));
  signals.push_back(
      SignalInt(SignalEnum::id(501), AppInstallationEnvironmentHelper::current(deps_.bundle)));
  signals.push_back(
      SignalInt(SignalEnum::id(502), static_cast<int64_t>(deps_.localeTiers->currentTier(device))));
  return signals;
}

}  // namespace orvane

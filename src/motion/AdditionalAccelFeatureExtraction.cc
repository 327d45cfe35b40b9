#include "motion/AdditionalAccelFeatureExtraction.h"

#include "logging/AnyEncodable.h"
#include "logging/Compression.h"
#include "util/Base64.h"

namespace orvane {

SignalList AdditionalAccelFeatureExtraction::extract(
    std::span<const AccelerometerSensorValue> accelSensorValues, int64_t duration) const {
  const double now = dateProvider_->currentDate().secondsSince1970;
  PlistArray records;
  for (const AccelerometerSensorValue& value : accelSensorValues) {
    if (now - value.timestamp.secondsSince1970 < static_cast<double>(duration)) {
      records.push_back(value.toJSON());
    }
  }
  if (records.empty()) return {};

  const int64_t kept = static_cast<int64_t>(records.size());
  Result<std::string> json = AnyEncodable(PlistValue(std::move(records))).toJson();
  std::optional<PlatformError> failure;
  if (json.ok()) {
    const std::string& text = *json;
    Result<Bytes> compressed = deflateRaw(
        std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
    if (compressed.ok()) {
      return {SignalString(SignalEnum::id(444), base64Encode(*compressed))};
    }
    failure = compressed.error();
  } else {
    failure = json.error();
  }
  if (errorReporting_) {
    errorReporting_().reportError(
        "AdditionalAccelFeatureExtraction#extract couldn't encode accel data", failure, false,
        PlistDictionary{{"accelCount", kept}, {"duration", duration}});
  }
  return {};
}

}  // namespace orvane

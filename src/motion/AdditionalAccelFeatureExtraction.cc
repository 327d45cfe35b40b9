#include "motion/AdditionalAccelFeatureExtraction.h"

#include "logging/Compression.h"
#include "util/Base64.h"

namespace orvane {

SignalList AdditionalAccelFeatureExtraction::extract(
    std::span<const AccelerometerSensorValue> accelSensorValues, int64_t duration) const {
  return extractAt(accelSensorValues, duration, dateProvider_->currentDate().secondsSince1970);
}

SignalList AdditionalAccelFeatureExtraction::extractAt(
    std::span<const AccelerometerSensorValue> accelSensorValues, int64_t duration,
    double now) const {
  std::string json = "[";
  json.reserve(200 * accelSensorValues.size());
  int64_t kept = 0;
  for (const AccelerometerSensorValue& value : accelSensorValues) {
    if (now - value.timestamp.secondsSince1970 < static_cast<double>(duration)) {
      if (kept++ > 0) json += ',';
      value.appendRawRecordJson(json);
    }
  }
  if (kept == 0) return {};
  json += ']';

  Result<Bytes> compressed = deflateRaw(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(json.data()), json.size()),
      CompressionHint::kFast);
  if (compressed.ok()) {
    return {SignalString(SignalEnum::id(444), base64Encode(*compressed))};
  }
  const PlatformError failure = compressed.error();
  if (errorReporting_) {
    errorReporting_().reportError(
        "AdditionalAccelFeatureExtraction#extract couldn't encode accel data", failure, false,
        PlistDictionary{{"accelCount", kept}, {"duration", duration}});
  }
  return {};
}

}  // namespace orvane

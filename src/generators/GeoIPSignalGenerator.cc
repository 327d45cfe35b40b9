#include "generators/GeoIPSignalGenerator.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "util/JsonReader.h"

namespace orvane {
namespace {

// Seconds from 1970-01-01 to the platform's reference date, 2001-01-01 UTC.
constexpr double kReferenceDateOffset = 978307200.0;

GeoIPData readFields(const JsonReader& reader) {
  GeoIPData data;
  data.estimatedCityId = reader.optionalInt64("estimatedCityId");
  data.estimatedCityName = reader.optionalString("estimatedCityName");
  data.estimatedCountryCode = reader.optionalString("estimatedCountryCode");
  data.estimatedContinentCode = reader.optionalString("estimatedContinentCode");
  data.estimatedLatitude = reader.optionalDouble("estimatedLatitude");
  data.estimatedLongitude = reader.optionalDouble("estimatedLongitude");
  data.estimatedElevation = reader.optionalInt64("estimatedElevation");
  data.estimatedPopulation = reader.optionalInt64("estimatedPopulation");
  data.estimatedStateIsoCode = reader.optionalString("estimatedStateIsoCode");
  data.estimatedUsStateCode = reader.optionalString("estimatedUsStateCode");
  return data;
}

}  // namespace

Result<GeoIPData> decodeGeoIPPayload(const ServerGeoIPPayload& payload) {
  JsonReader reader(payload.raw);
  GeoIPData data;
  if (reader.expectObject()) data = readFields(reader);
  if (!reader.ok()) return PlatformError{kDecodingErrorDomain, 0, reader.error()};
  return data;
}

Result<Bytes> encodeGeoIPData(const GeoIPData& data) {
  for (const auto& v : {data.estimatedLatitude, data.estimatedLongitude}) {
    if (v && !std::isfinite(*v)) {
      return PlatformError{kEncodingErrorDomain, 0, "GeoIPData: a coordinate is not finite"};
    }
  }
  if (!std::isfinite(data.lastUpdated.secondsSince1970)) {
    return PlatformError{kEncodingErrorDomain, 0, "GeoIPData: the date is not finite"};
  }
  nlohmann::json json = nlohmann::json::object();
  auto put = [&json](const char* key, const auto& value) {
    if (value) json[key] = *value;
  };
  put("estimatedCityId", data.estimatedCityId);
  put("estimatedCityName", data.estimatedCityName);
  put("estimatedCountryCode", data.estimatedCountryCode);
  put("estimatedContinentCode", data.estimatedContinentCode);
  put("estimatedLatitude", data.estimatedLatitude);
  put("estimatedLongitude", data.estimatedLongitude);
  put("estimatedElevation", data.estimatedElevation);
  put("estimatedPopulation", data.estimatedPopulation);
  put("estimatedStateIsoCode", data.estimatedStateIsoCode);
  put("estimatedUsStateCode", data.estimatedUsStateCode);
  json["lastUpdated"] = data.lastUpdated.secondsSince1970 - kReferenceDateOffset;
  // Names are the service's free text: never let invalid UTF-8 make the encoder throw.
  const std::string text = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return Bytes(text.begin(), text.end());
}

Result<GeoIPData> decodeGeoIPData(const Bytes& bytes) {
  std::string error;
  auto json = parseJson(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                        &error);
  if (!json) return PlatformError{kDecodingErrorDomain, 0, error};
  JsonReader reader(*json);
  GeoIPData data;
  if (reader.expectObject()) {
    data = readFields(reader);
    if (auto seconds = reader.requiredDouble("lastUpdated")) {
      data.lastUpdated = Date{*seconds + kReferenceDateOffset};
    }
  }
  if (!reader.ok()) return PlatformError{kDecodingErrorDomain, 0, reader.error()};
  return data;
}

GeoIPSignalGenerator::GeoIPSignalGenerator(std::shared_ptr<UserDefaultsProvider> defaults,
                                           std::shared_ptr<DateProvider> dateProvider,
                                           std::function<ErrorReporter&()> errorReporter)
    : defaults_(std::move(defaults)),
      dateProvider_(std::move(dateProvider)),
      errorReporter_(std::move(errorReporter)) {
  loadLatestData();
}

void GeoIPSignalGenerator::forget() {
  std::lock_guard<std::mutex> guard(mutex_);
  latestData_.reset();
}

void GeoIPSignalGenerator::loadLatestData() {
  if (!hasStore()) return;
  auto stored = defaults_->data(kLatestDataKey);
  if (!stored) return;
  auto decoded = decodeGeoIPData(*stored);
  if (!decoded) {
    errorReporter_().reportError("Failed to load geo IP data", decoded.error());
    return;
  }
  std::lock_guard<std::mutex> guard(mutex_);
  latestData_ = std::move(decoded).value();
}

void GeoIPSignalGenerator::updateGeoIPData(const std::optional<ServerGeoIPPayload>& payload) {
  if (!payload || !hasStore()) return;
  auto data = decodeGeoIPPayload(*payload);
  if (!data) {
    errorReporter_().reportError("Failed to update geo IP data", data.error());
    return;
  }
  data->lastUpdated = dateProvider_->currentDate();
  auto encoded = encodeGeoIPData(*data);
  if (!encoded) {
    errorReporter_().reportError("Failed to update geo IP data", encoded.error());
    return;
  }
  defaults_->set(kLatestDataKey, std::move(encoded).value());
  std::lock_guard<std::mutex> guard(mutex_);
  latestData_ = std::move(data).value();
}

SignalList GeoIPSignalGenerator::allSignals() const {
  std::optional<GeoIPData> data;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    data = latestData_;
  }
  SignalList signals;
  if (!data) return signals;
  if (data->estimatedCityId)
    signals.push_back(SignalInt(SignalEnum::id(608), *data->estimatedCityId));
  if (data->estimatedCityName) {
    signals.push_back(SignalString(SignalEnum::id(602), *data->estimatedCityName));
  }
  if (data->estimatedCountryCode) {
    signals.push_back(SignalString(SignalEnum::id(600), *data->estimatedCountryCode));
  }
  if (data->estimatedContinentCode) {
    signals.push_back(SignalString(SignalEnum::id(601), *data->estimatedContinentCode));
  }
  if (data->estimatedLatitude && data->estimatedLongitude) {
    signals.push_back(
        SignalFloat(SignalEnum::id(603), static_cast<float>(*data->estimatedLatitude)));
    signals.push_back(
        SignalFloat(SignalEnum::id(604), static_cast<float>(*data->estimatedLongitude)));
  }
  if (data->estimatedElevation) {
    signals.push_back(SignalInt(SignalEnum::id(606), *data->estimatedElevation));
  }
  if (data->estimatedPopulation) {
    signals.push_back(SignalInt(SignalEnum::id(607), *data->estimatedPopulation));
  }
  if (data->estimatedStateIsoCode) {
    signals.push_back(SignalString(SignalEnum::id(609), *data->estimatedStateIsoCode));
  }
  if (data->estimatedUsStateCode) {
    signals.push_back(SignalString(SignalEnum::id(610), *data->estimatedUsStateCode));
  }
  const double age =
      dateProvider_->currentDate().secondsSince1970 - data->lastUpdated.secondsSince1970;
  signals.push_back(SignalFloat(SignalEnum::id(605), static_cast<float>(age)));
  return signals;
}

}  // namespace orvane

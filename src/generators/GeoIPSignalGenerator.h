// File: GeoIPSignalGenerator.h
// The service's estimate of where the device is, from the address of its uploads. The latest
// estimate is kept under "gip_latest_data" across launches and reported with every context,
// with its age.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "config/ServerPayload.h"
#include "logging/ErrorReporter.h"
#include "orvane/Signal.h"
#include "util/DateProvider.h"
#include "util/Result.h"
#include "util/UserDefaultsProvider.h"

namespace orvane {

struct GeoIPData {
  std::optional<int64_t> estimatedCityId;
  std::optional<std::string> estimatedCityName;
  std::optional<std::string> estimatedCountryCode;
  std::optional<std::string> estimatedContinentCode;
  std::optional<double> estimatedLatitude;
  std::optional<double> estimatedLongitude;
  std::optional<int64_t> estimatedElevation;
  std::optional<int64_t> estimatedPopulation;
  std::optional<std::string> estimatedStateIsoCode;
  std::optional<std::string> estimatedUsStateCode;
  Date lastUpdated;

  bool operator==(const GeoIPData&) const = default;
};

// The ten estimate fields of the service's geo-IP object (snake or camel case keys); the date
// is left at zero. Fails on a field of the wrong type.
Result<GeoIPData> decodeGeoIPPayload(const ServerGeoIPPayload& payload);
// The stored form: camel-case keys, absent fields left out, "lastUpdated" as seconds since
// 2001-01-01 UTC.
Result<Bytes> encodeGeoIPData(const GeoIPData& data);
Result<GeoIPData> decodeGeoIPData(const Bytes& bytes);

class GeoIPSignalGenerator {
 public:
  static constexpr const char* kLatestDataKey = "gip_latest_data";

  GeoIPSignalGenerator(std::shared_ptr<UserDefaultsProvider> defaults,
                       std::shared_ptr<DateProvider> dateProvider,
                       std::function<ErrorReporter&()> errorReporter);

  void loadLatestData();
  // No estimate until the service sends one again.
  void forget();
  // None leaves the previous estimate; a payload replaces it whole, even an empty one.
  void updateGeoIPData(const std::optional<ServerGeoIPPayload>& payload);
  // 608, 602, 600, 601, 603, 604, 606, 607, 609, 610 for the fields present (latitude and
  // longitude only together), then 605, the estimate's age.
  SignalList allSignals() const;

 private:
  bool hasStore() const { return defaults_ && defaults_->isAvailable(); }

  std::shared_ptr<UserDefaultsProvider> defaults_;
  std::shared_ptr<DateProvider> dateProvider_;
  std::function<ErrorReporter&()> errorReporter_;
  mutable std::mutex mutex_;
  std::optional<GeoIPData> latestData_;
};

}  // namespace orvane

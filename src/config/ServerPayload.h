// File: ServerPayload.h
// The body the service returns after an upload: an optional geo-IP estimate and an optional
// update with per-flow model assignments, remote settings and an A/B test assignment.
//
// Decoding is all or nothing: one missing required key or one value of the wrong type
// anywhere fails the whole payload, so a half-understood answer never changes any state.
// Flow names are map keys and are kept exactly as sent. Flows are held in std::map, so they
// come out sorted by name, not in the order the service sent them; nothing depends on that
// order.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "config/ConfigurationData.h"

namespace orvane {

struct ServerTiming {
  // "seconds", "minutes", "hours", "days" or "executions"; the timing rules judge the text.
  std::string unit;
  double value = 0;

  bool operator==(const ServerTiming&) const = default;
};

struct ServerTimingConfiguration {
  std::optional<ServerTiming> atLeastEvery;
  std::optional<double> actBySkew;
  std::optional<ServerTiming> atMostOncePer;

  bool operator==(const ServerTimingConfiguration&) const = default;
};

struct ServerModelInfo {
  bool isControl = false;
  std::optional<std::string> modelUrl;
  std::optional<std::string> modelVersion;
  std::optional<double> upsellThreshold;
  // Day of week by hour of day; the shape is checked where the table is used.
  std::optional<std::vector<std::vector<double>>> hourlyUpsellThresholds;
  std::optional<std::vector<double>> contextPushThresholds;
  std::optional<double> randomUpsellChance;
  std::optional<int64_t> supportedDuration;
  std::optional<bool> useInstantContext;
  std::optional<ServerTimingConfiguration> timingConfiguration;

  bool operator==(const ServerModelInfo&) const = default;
};

struct ServerAssignmentInfo {
  std::string assignment;
  bool isDefault = false;

  bool operator==(const ServerAssignmentInfo&) const = default;
};

struct ServerABTestInfo {
  std::optional<std::map<std::string, ServerAssignmentInfo>> assignmentsByFlow;
  std::optional<std::string> cohort;
  std::optional<std::string> testName;

  bool operator==(const ServerABTestInfo&) const = default;
};

struct ServerUpdatePayload {
  int64_t version = 0;
  std::optional<std::string> generationId;
  std::map<std::string, ServerModelInfo> modelInfoPerFlow;
  std::optional<ServerConfiguration> configuration;
  std::optional<std::string> assignmentId;
  std::optional<ServerABTestInfo> abTestInfo;

  bool operator==(const ServerUpdatePayload&) const = default;
};

// Kept as sent (an object) until the geo-IP signals give it its fields.
struct ServerGeoIPPayload {
  nlohmann::json raw;

  bool operator==(const ServerGeoIPPayload& other) const { return raw == other.raw; }
};

struct ServerPayload {
  std::optional<ServerGeoIPPayload> geoIpData;
  std::optional<ServerUpdatePayload> updateData;

  bool operator==(const ServerPayload&) const = default;
};

// None when `body` is not JSON or does not have the shape above; `error` then says where
// ("updateData.modelInfoPerFlow.home.isControl: missing required key"). Never throws.
std::optional<ServerPayload> decodeServerPayload(std::string_view body,
                                                 std::string* error = nullptr);

}  // namespace orvane

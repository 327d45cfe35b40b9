// File: ConfigurationData.h
// The settings the service controls, as stored and served (`ConfigurationData`), and as the
// service sends them, every field optional (`ServerConfiguration`). Both read either key
// spelling; the stored form is written with camel-case keys in declaration order.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace orvane {

class JsonReader;

struct ConfigurationData {
  int64_t additionalAccelDataDurationSeconds = 0;
  float additionalAccelDataSampleRate = 0;
  float errorReportingSampleRate = 0;
  int64_t automaticEntryPointPollingIntervalSeconds = 0;
  std::optional<std::vector<uint16_t>> goldenSignals;
  std::optional<int64_t> goldenSignalsDurationSeconds;
  std::optional<bool> returnContextDurationAsGoldenSignal;
  std::optional<std::vector<std::string>> activities;
  std::optional<std::string> activityTaggerVersion;
  // The content coding the service takes for upload bodies ("gzip"); plain JSON without it.
  std::optional<std::string> uploadContentEncoding;

  bool operator==(const ConfigurationData&) const = default;
};

struct ServerConfiguration {
  std::optional<int64_t> additionalAccelDataDurationSeconds;
  std::optional<float> additionalAccelDataSampleRate;
  std::optional<float> errorReportingSampleRate;
  std::optional<int64_t> automaticEntryPointPollingIntervalSeconds;
  std::optional<std::vector<uint16_t>> goldenSignals;
  std::optional<int64_t> goldenSignalsDurationSeconds;
  std::optional<bool> returnContextDurationAsGoldenSignal;
  std::optional<std::vector<std::string>> activities;
  std::optional<std::string> activityTaggerVersion;
  std::optional<std::string> uploadContentEncoding;

  bool operator==(const ServerConfiguration&) const = default;
};

// Absent optional fields are left out. Never throws.
nlohmann::ordered_json toJson(const ConfigurationData& data);
std::string encodeConfigurationData(const ConfigurationData& data);

// The four settings without which no component can run are required; the rest may be
// absent. None on any failure, with the reason in `error` when given.
std::optional<ConfigurationData> decodeConfigurationData(std::string_view text,
                                                         std::string* error = nullptr);
std::optional<ConfigurationData> decodeConfigurationData(const JsonReader& reader);
// Every field optional, but a field that is present must have the right type.
std::optional<ServerConfiguration> decodeServerConfiguration(const JsonReader& reader);

// A float as a JSON number that reads back as exactly the same float: the shortest decimal
// for the float, not the long decimal of its widened double.
nlohmann::ordered_json floatToJson(float value);

}  // namespace orvane

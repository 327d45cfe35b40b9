#include "config/ConfigurationData.h"

#include <charconv>
#include <system_error>

#include "util/JsonReader.h"

namespace orvane {

namespace {

// The settings that are optional in both records, with the same names in both.
template <typename Record>
void readOptionalSettings(const JsonReader& reader, Record& out) {
  if (auto field = reader.optional("goldenSignals")) {
    out.goldenSignals =
        field->asArray<uint16_t>([](const JsonReader& item) { return item.asUInt16(); });
  }
  out.goldenSignalsDurationSeconds = reader.optionalInt64("goldenSignalsDurationSeconds");
  out.returnContextDurationAsGoldenSignal =
      reader.optionalBool("returnContextDurationAsGoldenSignal");
  if (auto field = reader.optional("activities")) {
    out.activities =
        field->asArray<std::string>([](const JsonReader& item) { return item.asString(); });
  }
  out.activityTaggerVersion = reader.optionalString("activityTaggerVersion");
  out.uploadContentEncoding = reader.optionalString("uploadContentEncoding");
}

}  // namespace

nlohmann::ordered_json floatToJson(float value) {
  char buffer[64];
  auto printed = std::to_chars(buffer, buffer + sizeof buffer, value);
  if (printed.ec == std::errc()) {
    double shortest = 0;
    auto parsed = std::from_chars(buffer, printed.ptr, shortest);
    // Rounding the decimal to double and then to float can in principle differ from rounding
    // it to float directly; the widened value is the safe fallback.
    if (parsed.ec == std::errc() && static_cast<float>(shortest) == value) return shortest;
  }
  return static_cast<double>(value);
}

nlohmann::ordered_json toJson(const ConfigurationData& data) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  json["additionalAccelDataDurationSeconds"] = data.additionalAccelDataDurationSeconds;
  json["additionalAccelDataSampleRate"] = floatToJson(data.additionalAccelDataSampleRate);
  json["errorReportingSampleRate"] = floatToJson(data.errorReportingSampleRate);
  json["automaticEntryPointPollingIntervalSeconds"] =
      data.automaticEntryPointPollingIntervalSeconds;
  if (data.goldenSignals) json["goldenSignals"] = *data.goldenSignals;
  if (data.goldenSignalsDurationSeconds) {
    json["goldenSignalsDurationSeconds"] = *data.goldenSignalsDurationSeconds;
  }
  if (data.returnContextDurationAsGoldenSignal) {
    json["returnContextDurationAsGoldenSignal"] = *data.returnContextDurationAsGoldenSignal;
  }
  if (data.activities) json["activities"] = *data.activities;
  if (data.activityTaggerVersion) json["activityTaggerVersion"] = *data.activityTaggerVersion;
  if (data.uploadContentEncoding) json["uploadContentEncoding"] = *data.uploadContentEncoding;
  return json;
}

std::string encodeConfigurationData(const ConfigurationData& data) {
  // Text that is not valid UTF-8 is replaced rather than allowed to throw.
  return toJson(data).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::optional<ConfigurationData> decodeConfigurationData(const JsonReader& reader) {
  ConfigurationData data;
  auto duration = reader.requiredInt64("additionalAccelDataDurationSeconds");
  auto sampleRate = reader.requiredFloat("additionalAccelDataSampleRate");
  auto errorRate = reader.requiredFloat("errorReportingSampleRate");
  auto polling = reader.requiredInt64("automaticEntryPointPollingIntervalSeconds");
  readOptionalSettings(reader, data);
  if (!reader.ok()) return std::nullopt;
  data.additionalAccelDataDurationSeconds = *duration;
  data.additionalAccelDataSampleRate = *sampleRate;
  data.errorReportingSampleRate = *errorRate;
  data.automaticEntryPointPollingIntervalSeconds = *polling;
  return data;
}

std::optional<ConfigurationData> decodeConfigurationData(std::string_view text,
                                                         std::string* error) {
  auto json = parseJson(text, error);
  if (!json) return std::nullopt;
  JsonReader reader(*json);
  auto data = decodeConfigurationData(reader);
  if (!data && error) *error = reader.error();
  return data;
}

std::optional<ServerConfiguration> decodeServerConfiguration(const JsonReader& reader) {
  if (!reader.expectObject()) return std::nullopt;
  ServerConfiguration configuration;
  configuration.additionalAccelDataDurationSeconds =
      reader.optionalInt64("additionalAccelDataDurationSeconds");
  configuration.additionalAccelDataSampleRate =
      reader.optionalFloat("additionalAccelDataSampleRate");
  configuration.errorReportingSampleRate = reader.optionalFloat("errorReportingSampleRate");
  configuration.automaticEntryPointPollingIntervalSeconds =
      reader.optionalInt64("automaticEntryPointPollingIntervalSeconds");
  readOptionalSettings(reader, configuration);
  if (!reader.ok()) return std::nullopt;
  return configuration;
}

}  // namespace orvane
